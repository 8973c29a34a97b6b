// The DISCOVER frame, byte for byte, and the small pieces it is made of.
#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "dhcp/dhcp_packet.h"
#include "support/log.h"
#include "support/result_codes.h"

namespace {

std::vector<uint8_t> Hex(const std::string &text)
{
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text)
        if (c != ' ')
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
}

// The whole 410-byte frame for transaction ID 0x12345678, written out by hand.
std::vector<uint8_t> GoldenDiscover()
{
    std::vector<uint8_t> f = Hex(
        "ff ff ff ff ff ff 7a 67 56 45 34 23 08 00"                          // Ethernet
        "45 00 01 8c d4 31 00 00 40 11 a5 30 00 00 00 00 ff ff ff ff"        // IPv4
        "00 44 00 43 01 78 00 00"                                            // UDP
        "01 01 06 00");                                                      // op htype hlen hops
    // xid as it lies in memory on this machine
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    for (uint8_t b : Hex("78 56 34 12"))
        f.push_back(b);
#else
    for (uint8_t b : Hex("12 34 56 78"))
        f.push_back(b);
#endif
    f.resize(70, 0);  // secs, flags, ciaddr, yiaddr, siaddr, giaddr
    for (uint8_t b : Hex("7a 67 56 45 34 23"))  // chaddr
        f.push_back(b);
    f.resize(278, 0);  // rest of chaddr, sname, file
    for (uint8_t b : Hex("63 82 53 63  35 01 01  37 03 03 01 06  ff"))
        f.push_back(b);
    f.resize(410, 0);
    return f;
}

TEST(DhcpFrame, DiscoverIsByteExact)
{
    uint8_t chaddr[MAC_LEN];
    derive_client_hwaddr(0x12345678, chaddr);
    uint8_t msg[DHCP_MSG_LEN];
    ASSERT_EQ(build_dhcp_discover(msg, chaddr, MAC_LEN, 0x12345678), 368);

    uint8_t frame[DHCP_FRAME_BUF_LEN];
    memset(frame, 0xAA, sizeof(frame));  // the builder must zero what it does not write
    int len = build_udp_frame(frame, sizeof(frame), msg, sizeof(msg), chaddr, "0.0.0.0",
                              "255.255.255.255", 17);
    ASSERT_EQ(len, 410);
    std::vector<uint8_t> got(frame, frame + len);
    EXPECT_EQ(got, GoldenDiscover());
    for (size_t i = 410; i < sizeof(frame); i++)
        ASSERT_EQ(frame[i], 0) << "offset " << i;
}

TEST(DhcpFrame, ClientHardwareAddressFromXid)
{
    struct Case {
        uint32_t xid;
        const char *mac;
    } cases[] = {
        {0x12345678, "7a 67 56 45 34 23"},
        {0x00000003, "02 00 00 00 00 00"},  // low byte 0x03: group bit cleared, local bit set
        {0xFFFFFFFF, "fe ff ff ff ff ff"},
    };
    for (const Case &c : cases) {
        uint8_t mac[MAC_LEN];
        derive_client_hwaddr(c.xid, mac);
        EXPECT_EQ(std::vector<uint8_t>(mac, mac + MAC_LEN), Hex(c.mac)) << std::hex << c.xid;
        EXPECT_EQ(mac[0] & 0x01, 0) << "group bit";
        EXPECT_EQ(mac[0] & 0x02, 0x02) << "locally administered bit";
    }
}

TEST(DhcpFrame, XidFromTwoRandValues)
{
    struct Case {
        uint32_t r1, r2, xid;
    } cases[] = {
        {3, 5, 15},
        {0xFFFFFFFF, 1, 0},           // the modulo maps 0xFFFFFFFF to 0
        {65537, 65535, 0},            // 0xFFFFFFFF again, from two values rand() can give
    };
    for (const Case &c : cases)
        EXPECT_EQ(dhcp_xid_from_rand(c.r1, c.r2), c.xid) << c.r1 << " * " << c.r2;
}

TEST(DhcpFrame, FrameThatDoesNotFitIsRefused)
{
    uint8_t payload[DHCP_MSG_LEN] = {1};
    uint8_t mac[MAC_LEN] = {2, 0, 0, 0, 0, 1};
    uint8_t small[409];
    EXPECT_EQ(build_udp_frame(small, sizeof(small), payload, sizeof(payload), mac, "0.0.0.0",
                              "255.255.255.255", 17),
              0);
    uint8_t exact[410];
    EXPECT_EQ(build_udp_frame(exact, sizeof(exact), payload, sizeof(payload), mac, "0.0.0.0",
                              "255.255.255.255", 17),
              410);
}

TEST(DhcpFrame, SendWithoutSocketIsRefused)
{
    log_set_level(LOG_LEVEL_DEBUG);
    lanprobe_ctx zeroed, failed;
    memset(&zeroed, 0, sizeof(zeroed));
    memset(&failed, 0, sizeof(failed));
    failed.ufd.fd = -1;  // as after a failed send; 0 is a never-opened record
    for (lanprobe_ctx *ctx : {&zeroed, &failed}) {
        int before = ctx->ufd.fd;
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(send_dhcp_discovery_packet(ctx), LP_ERR_NO_SOCKET);
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("[Error]"), std::string::npos);
        EXPECT_NE(out.find("Skip sending dhcp discoery packet due to socket error!\n"),
                  std::string::npos);
        EXPECT_EQ(ctx->ufd.fd, before);
    }
    log_set_level(LOG_LEVEL_ERROR);
}

}  // namespace
