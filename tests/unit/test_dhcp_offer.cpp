// The read handler of a probe socket, driven through one end of a datagram
// socketpair: one datagram is one received frame, so every length and every
// byte of a frame can be chosen.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

#include "dhcp/dhcp_offer.h"
#include "dhcp/dhcp_packet.h"
#include "support/log.h"

namespace {

constexpr uint32_t kXid = 0x1A2B3C4D;
const uint8_t kServerMac[MAC_LEN] = {0x00, 0x16, 0x3e, 0x11, 0x22, 0x33};
const uint8_t kBrMac[MAC_LEN] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

uint32_t Ip(const char *text)
{
    return inet_addr(text);
}

// A DHCP reply as a server sends it: Ethernet, 20-byte IPv4, UDP 67 -> 68,
// BOOTREPLY with the xid as we wrote it, yiaddr, magic cookie, then options.
std::vector<uint8_t> Reply(const std::vector<uint8_t> &options, uint32_t xid = kXid,
                           const uint8_t *src = kServerMac)
{
    std::vector<uint8_t> f(42 + 240, 0);
    memset(f.data(), 0xff, 6);
    memcpy(f.data() + 6, src, 6);
    f[12] = 0x08;
    f[13] = 0x00;
    f[14] = 0x45;
    f[22] = 64;
    f[23] = 17;
    uint32_t sip = Ip("192.168.7.1"), dip = Ip("255.255.255.255");
    memcpy(&f[26], &sip, 4);
    memcpy(&f[30], &dip, 4);
    f[34] = 0;
    f[35] = 67;
    f[36] = 0;
    f[37] = 68;
    uint8_t *m = f.data() + 42;
    m[0] = 2;
    m[1] = 1;
    m[2] = 6;
    memcpy(m + 4, &xid, 4);
    uint32_t yi = Ip("192.168.7.100");
    memcpy(m + 16, &yi, 4);
    memcpy(m + 20, &sip, 4);
    m[236] = 0x63;
    m[237] = 0x82;
    m[238] = 0x53;
    m[239] = 0x63;
    f.insert(f.end(), options.begin(), options.end());
    uint16_t ip_len = htons(static_cast<uint16_t>(f.size() - 14));
    uint16_t udp_len = htons(static_cast<uint16_t>(f.size() - 34));
    memcpy(&f[16], &ip_len, 2);
    memcpy(&f[38], &udp_len, 2);
    return f;
}

// Options of a typical OFFER: 53, 54, 51, 1, 3 (one router), 6 (two servers), 255.
const std::vector<uint8_t> kTypical = {
    53, 1, 2,                                      // DHCPOFFER
    54, 4, 192, 168, 7, 1,                         // server identifier
    51, 4, 0, 0, 0x0e, 0x10,                       // lease time
    1, 4, 255, 255, 255, 0,                        // subnet mask
    3, 4, 192, 168, 7, 254,                        // router
    6, 8, 192, 168, 7, 53, 8, 8, 8, 8,             // DNS servers
    255};

class OfferTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(uloop_init(), 0); }

    void SetUp() override
    {
        log_set_level(LOG_LEVEL_DEBUG);
        memset(&dev_, 0, sizeof(dev_));
        strcpy(dev_.name, "eth3");
        memset(&ctx_, 0, sizeof(ctx_));
        ctx_.dev = &dev_;
        ctx_.random_xid = kXid;
        ctx_.ufd.cb = recv_dhcp_discovery_packet;
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
        ctx_.ufd.fd = sv[0];
        peer_ = sv[1];
        ASSERT_EQ(uloop_fd_add(&ctx_.ufd, DHCP_ULOOP_FLAGS), 0);
        memcpy(lanprobe_handle.br_mac, kBrMac, MAC_LEN);
    }
    void TearDown() override
    {
        if (ctx_.ufd.fd > 0) {
            uloop_fd_delete(&ctx_.ufd);
            close(ctx_.ufd.fd);
        }
        close(peer_);
        memset(&lanprobe_handle, 0, sizeof(lanprobe_handle));
        log_set_level(LOG_LEVEL_ERROR);
    }

    // Queues one frame and runs the handler once on it; returns the log.
    std::string Feed(const std::vector<uint8_t> &frame, unsigned int events = ULOOP_READ)
    {
        EXPECT_EQ(send(peer_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        recv_dhcp_discovery_packet(&ctx_.ufd, events);
        fflush(stdout);
        return ::testing::internal::GetCapturedStdout();
    }

    bool Waiting() const { return ctx_.offered == 0 && ctx_.ufd.fd > 0 && ctx_.ufd.registered; }
    bool Taken() const { return ctx_.offered == 1 && ctx_.ufd.fd == -1 && !ctx_.ufd.registered; }

    t_device dev_;
    lanprobe_ctx ctx_;
    int peer_ = -1;
};

static size_t Count(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1))
        n++;
    return n;
}

// One valid OFFER, changed one field at a time.
TEST_F(OfferTest, OneChangeAtATime)
{
    const char *kParse = "[Debug]";
    struct Case {
        const char *what;
        std::function<std::vector<uint8_t>()> frame;
        bool taken;
        const char *gateway;  // expected dotted form, "0.0.0.0" for none
        const char *dns;
        const char *log;      // a line that must appear once
        const char *level;
    } cases[] = {
        {"valid OFFER", [] { return Reply(kTypical); }, true, "192.168.7.254", "192.168.7.53",
         "Success parse dhcp discovery packet in dev=eth3\n", "[Info]"},
        {"IP protocol TCP", [] { auto f = Reply(kTypical); f[23] = 6; return f; }, false,
         "0.0.0.0", "0.0.0.0", "read from socket parse error, try again! dev=eth3\n", kParse},
        {"no magic cookie", [] { auto f = Reply(kTypical); f[42 + 239] = 0x64; return f; }, false,
         "0.0.0.0", "0.0.0.0", "read from socket parse error, try again! dev=eth3\n", kParse},
        {"BOOTREQUEST", [] { auto f = Reply(kTypical); f[42] = 1; return f; }, false, "0.0.0.0",
         "0.0.0.0", "read from socket parse error, try again! dev=eth3\n", kParse},
        {"IPv4 header with options",
         [] {
             auto f = Reply(kTypical);
             f[14] = 0x46;
             f.insert(f.begin() + 34, 4, 0);
             return f;
         },
         false, "0.0.0.0", "0.0.0.0", "read from socket parse error, try again! dev=eth3\n", kParse},
        {"other xid", [] { return Reply(kTypical, kXid + 1); }, false, "0.0.0.0", "0.0.0.0",
         "Not match: rdhcp->xid=0x1a2b3c4e, lanprobe_ctx->random_xid=0x1a2b3c4d\n", "[Info]"},
        {"from br-lan's own MAC", [] { return Reply(kTypical, kXid, kBrMac); }, false, "0.0.0.0",
         "0.0.0.0",
         "Detecing dhcp offer from own mac:02-AA-BB-CC-DD-EE, meaning there is a cirecle in lan!!\n",
         "[Warning]"},
        {"two routers", [] { return Reply({3, 8, 10, 0, 0, 1, 10, 0, 0, 2, 6, 4, 9, 9, 9, 9, 255}); },
         true, "0.0.0.0", "9.9.9.9", "Success parse", "[Info]"},
        {"one DNS server", [] { return Reply({6, 4, 9, 9, 9, 9, 255}); }, true, "0.0.0.0", "9.9.9.9",
         "dev:eth3, DNS_SERVER=9.9.9.9\n", "[Debug]"},
        {"DNS length 5", [] { return Reply({6, 5, 9, 9, 9, 9, 1, 3, 4, 10, 0, 0, 1, 255}); }, true,
         "10.0.0.1", "0.0.0.0", "dev:eth3, GATEWAY=10.0.0.1\n", "[Debug]"},
        {"pad byte first", [] { return Reply({0, 3, 4, 10, 0, 0, 1, 6, 4, 9, 9, 9, 9, 255}); }, true,
         "0.0.0.0", "0.0.0.0", "Success parse", "[Info]"},
        {"later router wins", [] { return Reply({3, 4, 10, 0, 0, 1, 3, 4, 10, 0, 0, 2, 255}); }, true,
         "10.0.0.2", "0.0.0.0", "dev:eth3, GATEWAY=10.0.0.2\n", "[Debug]"},
        {"router cut after two value bytes", [] { return Reply({3, 4, 10, 0}); }, true, "0.0.0.0",
         "0.0.0.0", "Success parse", "[Info]"},
        {"length runs past the end", [] { return Reply({3, 200, 10, 0, 0, 1}); }, true, "0.0.0.0",
         "0.0.0.0", "Success parse", "[Info]"},
        {"frame longer than the buffer",
         [] {
             // Filler options push a router past byte 1024, where the frame is cut.
             std::vector<uint8_t> o = {6, 4, 9, 9, 9, 9};
             while (282 + o.size() < 1100) {
                 o.push_back(250);
                 o.push_back(100);
                 o.insert(o.end(), 100, 0x77);
             }
             o.insert(o.end(), {3, 4, 10, 0, 0, 1, 255});
             return Reply(o);
         },
         true, "0.0.0.0", "9.9.9.9", "Success parse", "[Info]"},
    };

    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        std::string log = Feed(c.frame());
        EXPECT_EQ(Count(log, c.log), 1u) << log;
        size_t line = log.find(c.log);
        ASSERT_NE(line, std::string::npos);
        EXPECT_NE(log.rfind(c.level, line), std::string::npos) << log;
        EXPECT_EQ(Count(log, "recv dhcp discovery packet from dev:eth3\n"), 1u);
        if (c.taken) {
            EXPECT_TRUE(Taken());
            EXPECT_EQ(ctx_.offer.pre_assigned_ip, Ip("192.168.7.100"));
            EXPECT_EQ(0, memcmp(ctx_.offer.mac, kServerMac, MAC_LEN));
        } else {
            EXPECT_TRUE(Waiting());
            EXPECT_EQ(Count(log, "Success parse"), 0u);
        }
        EXPECT_EQ(ctx_.offer.gateway_ip, Ip(c.gateway));
        EXPECT_EQ(ctx_.offer.dns_ip, Ip(c.dns));
    }
}

// Prefixes of a valid OFFER around the boundaries: taken once the cookie is
// complete, the router only once its four value bytes are there.
TEST_F(OfferTest, Truncations)
{
    const std::vector<uint8_t> full = Reply({53, 1, 2, 3, 4, 10, 0, 0, 1, 255});
    for (size_t len : {14, 41, 281, 282, 287, 288}) {
        SCOPED_TRACE(len);
        TearDown();
        SetUp();
        Feed(std::vector<uint8_t>(full.begin(), full.begin() + len));
        EXPECT_EQ(ctx_.offered, len >= 282 ? 1 : 0);
        EXPECT_EQ(ctx_.offer.gateway_ip, len >= 282 + 3 + 6 ? Ip("10.0.0.1") : 0u);
    }
}

TEST_F(OfferTest, EmptyDatagramIsAReadFailure)
{
    std::string log = Feed({});
    EXPECT_EQ(Count(log, "[Error]"), 1u);
    EXPECT_EQ(Count(log, "Cannot read from socket, try again! dev=eth3\n"), 1u);
    EXPECT_TRUE(Waiting());
}

TEST_F(OfferTest, LoopRefusedThenRealServerTaken)
{
    std::string first = Feed(Reply(kTypical, kXid, kBrMac));
    EXPECT_TRUE(Waiting());
    // What the refused reply said stays in the context, without offered.
    EXPECT_EQ(0, memcmp(ctx_.offer.mac, kBrMac, MAC_LEN));
    EXPECT_EQ(ctx_.offer.gateway_ip, 0u);

    std::string second = Feed(Reply(kTypical));
    EXPECT_TRUE(Taken());
    EXPECT_EQ(0, memcmp(ctx_.offer.mac, kServerMac, MAC_LEN));
    EXPECT_EQ(ctx_.offer.gateway_ip, Ip("192.168.7.254"));
    EXPECT_EQ(Count(second, "Detecing dhcp offer"), 0u);
    // Order within the accepted reply: address, options, then success.
    size_t ip = second.find("dev:eth3, IPADDR=192.168.7.100, MAC=00-16-3E-11-22-33\n");
    size_t gw = second.find("dev:eth3, GATEWAY=192.168.7.254\n");
    size_t dns = second.find("dev:eth3, DNS_SERVER=192.168.7.53\n");
    size_t ok = second.find("Success parse dhcp discovery packet in dev=eth3\n");
    ASSERT_NE(ok, std::string::npos);
    EXPECT_LT(ip, gw);
    EXPECT_LT(gw, dns);
    EXPECT_LT(dns, ok);
}

}  // namespace
