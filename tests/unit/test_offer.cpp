// The read handler of a probe socket, fed through a datagram socketpair: one
// datagram is one received frame, so every byte and every length can be chosen.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

extern "C" {
#include <libubox/uloop.h>
}

#include "dhcp/dhcp_offer.h"
#include "support/log.h"
#include "support/testkit.h"

namespace {

constexpr uint32_t kXid = 0x1A2B3C4D;
const char kServer[] = "00 16 3e 11 22 33", kBridge[] = "02 aa bb cc dd ee";

// An OFFER as a server sends it: Ethernet, 20-byte IPv4, UDP 67 -> 68,
// BOOTREPLY with our xid, yiaddr 192.168.7.100, the cookie, then options.
std::vector<uint8_t> offer(const std::vector<uint8_t> &options, uint32_t xid = kXid,
                           const char *src = kServer)
{
    std::vector<uint8_t> f = tk::hex(std::string("ff ff ff ff ff ff") + src + "08 00"
                                     "45 00 00 00 00 00 00 00 40 11 00 00 c0 a8 07 01 ff ff ff ff"
                                     "00 43 00 44 00 00 00 00  02 01 06 00");
    f.resize(42 + 240, 0);
    memcpy(&f[46], &xid, 4);
    for (int i = 0; i < 4; i++) {
        f[58 + i] = tk::hex("c0 a8 07 64")[i];
        f[278 + i] = tk::hex("63 82 53 63")[i];
    }
    f.insert(f.end(), options.begin(), options.end());
    return f;
}

const std::vector<uint8_t> kTypical = {53, 1, 2,  54, 4, 192, 168, 7, 1,  51, 4, 0, 0, 14, 16,
                                       1, 4, 255, 255, 255, 0,  3, 4, 192, 168, 7, 254,
                                       6, 8, 192, 168, 7, 53, 8, 8, 8, 8,  255};

class Offer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(uloop_init(), 0);
        log_set_level(LOG_LEVEL_DEBUG);
        strcpy(dev_.name, "eth3");
        ctx_.dev = &dev_;
        ctx_.random_xid = kXid;
        ctx_.ufd.cb = recv_dhcp_discovery_packet;
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
        ctx_.ufd.fd = sv[0];
        peer_ = sv[1];
        ASSERT_EQ(uloop_fd_add(&ctx_.ufd, DHCP_ULOOP_FLAGS), 0);
        std::vector<uint8_t> br = tk::hex(kBridge);
        memcpy(lanprobe_handle.br_mac, br.data(), MAC_LEN);
    }
    void TearDown() override
    {
        if (ctx_.ufd.fd > 0)
            close_probe_socket(&ctx_);
        close(peer_);
        uloop_done();
    }
    // Queues one frame, runs the handler once; returns the log.
    std::string feed(const std::vector<uint8_t> &frame)
    {
        EXPECT_EQ(send(peer_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
        tk::Capture log;
        recv_dhcp_discovery_packet(&ctx_.ufd, ULOOP_READ);
        return log.text();
    }
    bool taken() const { return ctx_.offered == 1 && ctx_.ufd.fd == -1 && !ctx_.ufd.registered; }

    t_device dev_{};
    lanprobe_ctx ctx_{};
    int peer_ = -1;
};

std::vector<uint8_t> with(std::vector<uint8_t> f, std::initializer_list<std::pair<size_t, uint8_t>> set)
{
    for (auto [off, v] : set)
        f[off] = v;
    return f;
}

std::vector<uint8_t> beyond_buffer()
{
    // Filler options push a router past byte 1024, where the frame is cut.
    std::vector<uint8_t> o = {6, 4, 9, 9, 9, 9};
    while (o.size() < 800)
        o.insert(o.end(), {250, 100}), o.insert(o.end(), 100, 0x77);
    o.insert(o.end(), {3, 4, 10, 0, 0, 1, 255});
    return offer(o);
}

TEST_F(Offer, OneChangeAtATime)
{
    const char *parse_error = "[Debug]read from socket parse error, try again! dev=eth3\n";
    const struct {
        const char *what;
        std::vector<uint8_t> frame;
        const char *gateway, *dns;  // taken: the findings; nullptr: still waiting
        const char *log;            // "[Level]text" of a line that appears once
    } rows[] = {
        {"typical OFFER", offer(kTypical), "192.168.7.254", "192.168.7.53",
         "[Info]Success parse dhcp discovery packet in dev=eth3\n"},
        {"IP protocol TCP", with(offer(kTypical), {{23, 6}}), nullptr, nullptr, parse_error},
        {"UDP to port 67", with(offer(kTypical), {{37, 67}}), nullptr, nullptr, parse_error},
        {"no magic cookie", with(offer(kTypical), {{281, 0x64}}), nullptr, nullptr, parse_error},
        {"BOOTREQUEST", with(offer(kTypical), {{42, 1}}), nullptr, nullptr, parse_error},
        {"cut before the cookie", std::vector<uint8_t>(281, 0), nullptr, nullptr, parse_error},
        {"empty datagram", {}, nullptr, nullptr, "[Error]Cannot read from socket, try again! dev=eth3\n"},
        {"other xid", offer(kTypical, kXid + 1), nullptr, nullptr,
         "[Info]Not match: rdhcp->xid=0x1a2b3c4e, lanprobe_ctx->random_xid=0x1a2b3c4d\n"},
        {"from br-lan's own MAC", offer(kTypical, kXid, kBridge), nullptr, nullptr,
         "[Warning]Detecing dhcp offer from own mac:02-AA-BB-CC-DD-EE, meaning there is a cirecle in lan!!\n"},
        {"two routers", offer({3, 8, 10, 0, 0, 1, 10, 0, 0, 2, 6, 4, 9, 9, 9, 9, 255}), "0.0.0.0",
         "9.9.9.9", "[Debug]dev:eth3, DNS_SERVER=9.9.9.9\n"},
        {"DNS length 5", offer({6, 5, 9, 9, 9, 9, 1, 3, 4, 10, 0, 0, 1, 255}), "10.0.0.1", "0.0.0.0",
         "[Debug]dev:eth3, GATEWAY=10.0.0.1\n"},
        {"pad byte first", offer({0, 3, 4, 10, 0, 0, 1, 6, 4, 9, 9, 9, 9, 255}), "0.0.0.0", "0.0.0.0",
         "[Debug]dev:eth3, IPADDR=192.168.7.100, MAC=00-16-3E-11-22-33\n"},
        {"later router wins", offer({3, 4, 10, 0, 0, 1, 3, 4, 10, 0, 0, 2, 255}), "10.0.0.2", "0.0.0.0",
         "[Debug]dev:eth3, GATEWAY=10.0.0.2\n"},
        {"router cut after two bytes", offer({3, 4, 10, 0}), "0.0.0.0", "0.0.0.0",
         "[Info]Success parse dhcp discovery packet in dev=eth3\n"},
        {"length past the end", offer({3, 200, 10, 0, 0, 1}), "0.0.0.0", "0.0.0.0",
         "[Info]Success parse dhcp discovery packet in dev=eth3\n"},
        {"router past the 1024-byte buffer", beyond_buffer(), "0.0.0.0", "9.9.9.9",
         "[Debug]dev:eth3, DNS_SERVER=9.9.9.9\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        TearDown();
        ctx_ = {};
        SetUp();
        std::string log = feed(r.frame);
        std::string level(r.log, strchr(r.log, ']') + 1), text(strchr(r.log, ']') + 1);
        ASSERT_EQ(tk::count(log, text), 1u) << log;
        // The level stands on the message's own line, before its text.
        size_t at = log.find(text), bol = log.rfind('\n', at);
        bol = bol == std::string::npos ? 0 : bol + 1;
        EXPECT_NE(log.substr(bol, at - bol).find(level), std::string::npos) << log;
        EXPECT_EQ(log.find("recv dhcp discovery packet from dev:eth3\n"), log.find("]: ") + 3);
        ASSERT_EQ(taken(), r.gateway != nullptr) << log;
        if (!r.gateway)
            continue;
        EXPECT_EQ(ctx_.offer.pre_assigned_ip, inet_addr("192.168.7.100"));
        EXPECT_EQ(std::vector<uint8_t>(ctx_.offer.mac, ctx_.offer.mac + MAC_LEN), tk::hex(kServer));
        EXPECT_EQ(ctx_.offer.gateway_ip, inet_addr(r.gateway));
        EXPECT_EQ(ctx_.offer.dns_ip, inet_addr(r.dns));
    }
}

}  // namespace
