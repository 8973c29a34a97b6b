// The DISCOVER frame byte for byte, on the byte order the test runs on (the
// cross builds run it on big-endian MIPS too), and the client address and
// transaction ID it is made from.
#include <gtest/gtest.h>

#include <string.h>

#include "dhcp/dhcp_packet.h"
#include "support/testkit.h"

namespace {

TEST(Frames, DiscoverIsByteExact)
{
    // The xid goes out as it lies in memory: 78 56 34 12 here on little-endian.
    const uint32_t xid = 0x12345678;
    std::vector<uint8_t> want = tk::hex(
        "ff ff ff ff ff ff 7a 67 56 45 34 23 08 00"                     // Ethernet
        "45 00 01 8c d4 31 00 00 40 11 a5 30 00 00 00 00 ff ff ff ff"   // IPv4, checksum a530
        "00 44 00 43 01 78 00 00"                                       // UDP 68 -> 67, no checksum
        "01 01 06 00");
    want.insert(want.end(), reinterpret_cast<const uint8_t *>(&xid),
                reinterpret_cast<const uint8_t *>(&xid) + 4);
    want.resize(70, 0);
    for (uint8_t b : tk::hex("7a 67 56 45 34 23"))  // chaddr
        want.push_back(b);
    want.resize(278, 0);
    for (uint8_t b : tk::hex("63 82 53 63  35 01 01  37 03 03 01 06  ff"))
        want.push_back(b);
    want.resize(410, 0);

    uint8_t chaddr[MAC_LEN], msg[DHCP_MSG_LEN], frame[DHCP_FRAME_BUF_LEN];
    derive_client_hwaddr(xid, chaddr);
    ASSERT_EQ(build_dhcp_discover(msg, chaddr, MAC_LEN, xid), DHCP_MSG_LEN);
    memset(frame, 0xAA, sizeof(frame));  // whatever the builder does not write must be zero
    ASSERT_EQ(build_udp_frame(frame, sizeof(frame), msg, sizeof(msg), chaddr, "0.0.0.0",
                              "255.255.255.255", 17),
              DHCP_FRAME_LEN);
    EXPECT_EQ(std::vector<uint8_t>(frame, frame + DHCP_FRAME_LEN), want);
    EXPECT_EQ(std::vector<uint8_t>(frame + DHCP_FRAME_LEN, frame + sizeof(frame)),
              std::vector<uint8_t>(sizeof(frame) - DHCP_FRAME_LEN, 0));
    // A buffer one byte short is refused whole.
    EXPECT_EQ(build_udp_frame(frame, DHCP_FRAME_LEN - 1, msg, sizeof(msg), chaddr, "0.0.0.0",
                              "255.255.255.255", 17),
              0);
}

TEST(Frames, ClientAddressAndTransactionId)
{
    const struct {
        uint32_t xid;
        const char *chaddr;  // locally administered, never a group address
    } macs[] = {{0x12345678, "7a 67 56 45 34 23"},
                {0x00000003, "02 00 00 00 00 00"},
                {0xFFFFFFFF, "fe ff ff ff ff ff"}};
    for (const auto &c : macs) {
        uint8_t mac[MAC_LEN];
        derive_client_hwaddr(c.xid, mac);
        EXPECT_EQ(std::vector<uint8_t>(mac, mac + MAC_LEN), tk::hex(c.chaddr)) << c.xid;
    }
    // Two rand() values multiplied with 32-bit wrap, then modulo 0xFFFFFFFF.
    const uint32_t xids[][3] = {{3, 5, 15}, {0xFFFFFFFF, 1, 0}, {65537, 65535, 0}};
    for (const auto &c : xids)
        EXPECT_EQ(dhcp_xid_from_rand(c[0], c[1]), c[2]) << c[0] << " * " << c[1];
}

}  // namespace
