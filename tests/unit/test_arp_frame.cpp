// The ARP request frame (golden bytes), reply parsing over frames of every
// length, the sweep's read handler and judge driven through datagram socket
// pairs, the run release, and the wait before a send.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arp/arp_packet.h"
#include "arp/arp_sweep.h"
#include "registry/device_table.h"
#include "support/arp_table.h"
#include "support/log.h"
#include "support/netns.h"

namespace {

using lptest::count_of;
using lptest::StdoutCapture;

uint32_t ip4(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    const uint8_t bytes[4] = {a, b, c, d};
    uint32_t v;
    memcpy(&v, bytes, 4);
    return v;  // network byte order, as the daemon holds addresses
}

constexpr uint8_t kPortMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
constexpr uint8_t kHostMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x99};
constexpr uint8_t kBrMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0xb0};
constexpr uint8_t kZeroMac[6] = {};
constexpr uint8_t kBroadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

TEST(ArpFrame, AnnouncementGolden)
{
    uint8_t frame[ARP_FRAME_LEN];
    memset(frame, 0xee, sizeof(frame));
    build_arp_request(frame, kBroadcast, kPortMac, ip4(192, 168, 1, 1), kZeroMac, ip4(192, 168, 1, 1));
    const uint8_t golden[ARP_FRAME_LEN] = {
        0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // broadcast
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // port MAC
        0x08, 0x06,                          // ARP
        0x00, 0x01, 0x08, 0x00, 0x06, 0x04,  // Ethernet, IPv4, 6, 4
        0x00, 0x01,                          // request
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // sender MAC
        192,  168,  1,    1,                 // sender IP
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // target MAC unknown
        192,  168,  1,    1,                 // target IP
        0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    };
    EXPECT_EQ(std::vector<uint8_t>(frame, frame + 60), std::vector<uint8_t>(golden, golden + 60));
}

// A reply from kHostMac for 192.168.1.50, as a host would send it to kBrMac.
std::vector<uint8_t> reply_frame(uint32_t sender_ip, const uint8_t *eth_src = kHostMac,
                                 const uint8_t *sha = kHostMac, uint16_t op = ARP_OP_REPLY)
{
    uint8_t f[ARP_FRAME_LEN];
    build_arp_request(f, kBrMac, eth_src, sender_ip, kBrMac, ip4(192, 168, 1, 1));
    memcpy(f + ARP_OFF_SHA, sha, 6);
    f[ARP_OFF_OPER] = static_cast<uint8_t>(op >> 8);
    f[ARP_OFF_OPER + 1] = static_cast<uint8_t>(op);
    return std::vector<uint8_t>(f, f + sizeof(f));
}

std::vector<uint8_t> prefix(const std::vector<uint8_t> &frame, size_t len)
{
    return std::vector<uint8_t>(frame.begin(), frame.begin() + static_cast<long>(len));
}

TEST(ArpFrame, ReplySenderOnlyFromWholeReplies)
{
    const uint32_t sender = ip4(192, 168, 1, 50);
    std::vector<uint8_t> good = reply_frame(sender);
    // The sender address is known from byte 32 on, never before.
    for (size_t len : {0, 21, 31, 32, 60}) {
        uint32_t got = 0;
        bool ok = arp_reply_sender_ip(ByteView(good.data(), len), &got);
        EXPECT_EQ(ok, len >= ARP_OFF_SPA + 4) << "length " << len;
        if (ok) {
            EXPECT_EQ(got, sender);
        }
    }
    uint32_t got = 0;
    std::vector<uint8_t> request = reply_frame(sender, kHostMac, kHostMac, ARP_OP_REQUEST);
    EXPECT_FALSE(arp_reply_sender_ip(ByteView(request.data(), request.size()), &got));
    std::vector<uint8_t> odd = reply_frame(sender, kHostMac, kHostMac, 0x0102);
    EXPECT_FALSE(arp_reply_sender_ip(ByteView(odd.data(), odd.size()), &got));
}

TEST(ArpFrame, SubnetRule)
{
    const uint32_t br = ip4(192, 168, 1, 1), mask24 = ip4(255, 255, 255, 0);
    EXPECT_TRUE(arp_same_subnet(ip4(192, 168, 1, 200), br, mask24));
    EXPECT_FALSE(arp_same_subnet(ip4(192, 168, 2, 1), br, mask24));
    EXPECT_TRUE(arp_same_subnet(ip4(192, 168, 3, 9), br, ip4(255, 255, 0, 0)));
    EXPECT_FALSE(arp_same_subnet(ip4(192, 168, 1, 2), br, ip4(255, 255, 255, 255)));
}

// ---------------------------------------------------------------- sweep pieces

t_arp_entry *add_entry(t_arp_entry **table, uint8_t last, uint32_t ip)
{
    uint8_t mac[MAC_LEN];
    memcpy(mac, kHostMac, MAC_LEN);
    mac[5] = last;
    return lptest::add_arp_entry(table, mac, ip);
}

// A run of n slots whose descriptors are one end of datagram socket pairs;
// the test writes frames into the other end.
struct FakeRun {
    std::vector<int> peer;
    explicit FakeRun(t_arp_entry **table, unsigned n)
    {
        memset(&arp_detect_handle, 0, sizeof(arp_detect_handle));
        arp_detect_handle.arp_num = static_cast<uint8_t>(n);
        arp_detect_handle.arp_detect_array =
            static_cast<t_arp_detect *>(calloc(n ? n : 1, sizeof(t_arp_detect)));
        arp_detect_handle.arp_table = table;
        arp_detect_handle.br_ip = ip4(192, 168, 1, 1);
        arp_detect_handle.br_netmask = ip4(255, 255, 255, 0);
        memcpy(arp_detect_handle.br_mac, kBrMac, 6);
        t_arp_entry *e = *table;
        for (unsigned i = 0; i < n; i++, e = e ? static_cast<t_arp_entry *>(e->hh.next) : nullptr) {
            int sv[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
            t_arp_detect &s = arp_detect_handle.arp_detect_array[i];
            s.ufd.fd = sv[0];
            s.ufd.cb = recv_arp_packet;
            if (e) {
                memcpy(s.target_mac, e->mac, 6);
                s.target_ip = e->ip;
            }
            peer.push_back(sv[1]);
        }
    }
    ~FakeRun()
    {
        for (int fd : peer)
            close(fd);
        if (arp_detect_handle.arp_detect_array)
            release_arp_detect_handle(&arp_detect_handle);
    }
    t_arp_detect &slot(unsigned i) { return arp_detect_handle.arp_detect_array[i]; }
    void deliver(unsigned i, const std::vector<uint8_t> &frame)
    {
        ASSERT_EQ(send(peer[i], frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
        recv_arp_packet(&slot(i).ufd, ULOOP_READ);
    }
};

TEST(ArpSweepRead, OneFramePerCall)
{
    const uint32_t asked = ip4(192, 168, 1, 50);
    struct Case {
        const char *what;
        std::vector<uint8_t> frame;
        bool replied;
        bool entry_kept;
        const char *message;
    };
    const uint8_t stranger[6] = {0x02, 0x11, 0x11, 0x11, 0x11, 0x11};
    const Case cases[] = {
        {"own address", reply_frame(asked), true, true,
         "arp reply success in 192.168.1.50|02-00-00-00-00-99\n"},
        {"other address in the subnet", reply_frame(ip4(192, 168, 1, 77)), true, true,
         "arp reply new ip still remains same subnet with br-lan!\n"},
        {"address outside the subnet", reply_frame(ip4(10, 1, 1, 1)), true, false,
         "arp reply new is not same subnet with br-lan! remove it from arp hash table!\n"},
        {"Ethernet source of another host", reply_frame(asked, stranger), false, true,
         "Not match eth header:02-11-11-11-11-11|02-00-00-00-00-99\n"},
        {"sender hardware address of another host", reply_frame(asked, kHostMac, stranger), false,
         true, "Not match arp packet mac:02-11-11-11-11-11|02-00-00-00-00-99\n"},
        {"a request", reply_frame(asked, kHostMac, kHostMac, ARP_OP_REQUEST), false, true,
         "Not a arp reply packet\n"},
        {"empty frame", {}, false, true, "Cannot read from socket, try again! mac:02-00-00-00-00-99\n"},
        {"frame cut before the sender address", prefix(reply_frame(asked), 31), false, true, "Not a arp reply packet\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        t_arp_entry *table = nullptr;
        add_entry(&table, 0x99, asked);
        FakeRun run(&table, 1);
        log_set_level(7);
        StdoutCapture cap;
        run.deliver(0, c.frame);
        std::string out = cap.stop();
        EXPECT_EQ(run.slot(0).replied, c.replied ? 1 : 0);
        EXPECT_EQ(run.slot(0).ufd.fd > 0, !c.replied) << "an answered slot's socket is closed";
        EXPECT_EQ(get_arp_entry_count(table), c.entry_kept ? 1u : 0u);
        EXPECT_EQ(count_of(out, c.message), 1u) << out;
        lptest::clear_arp_table(&table);
    }
}

TEST(ArpSweepJudge, WaitsThenPrunesTheSilent)
{
    t_arp_entry *table = nullptr;
    add_entry(&table, 1, ip4(192, 168, 1, 11));
    add_entry(&table, 2, ip4(192, 168, 1, 12));
    add_entry(&table, 3, ip4(192, 168, 1, 13));
    FakeRun run(&table, 3);
    run.deliver(0, [] {
        std::vector<uint8_t> f = reply_frame(ip4(192, 168, 1, 11));
        f[ARP_OFF_ETH_SRC + 5] = f[ARP_OFF_SHA + 5] = 1;
        return f;
    }());
    ASSERT_EQ(run.slot(0).replied, 1);
    int open_fd = run.slot(1).ufd.fd;

    log_set_level(7);
    StdoutCapture cap;
    EXPECT_EQ(process_arp_detect_all(0), 0);
    EXPECT_EQ(arp_detect_handle.arp_num, 3) << "a waiting sweep stays in place";
    EXPECT_EQ(fcntl(open_fd, F_GETFD), 0) << "and keeps its sockets";
    EXPECT_EQ(get_arp_entry_count(table), 3u);

    EXPECT_EQ(process_arp_detect_all(1), 96);
    std::string out = cap.stop();
    EXPECT_EQ(arp_detect_handle.arp_detect_array, nullptr);
    EXPECT_EQ(fcntl(open_fd, F_GETFD), -1);
    EXPECT_EQ(get_arp_entry_count(table), 1u);
    uint8_t kept[6];
    memcpy(kept, kHostMac, 6);
    kept[5] = 1;
    EXPECT_NE(find_arp_entry(table, kept), nullptr);
    EXPECT_EQ(count_of(out, "Receieve arp reply from 02-00-00-00-00-01!\n"), 1u) << out;
    EXPECT_EQ(count_of(out, "! Remove it from arp hash table!\n"), 2u) << out;
    EXPECT_LT(out.find("No arp reply from 192.168.1.12|02-00-00-00-00-02!"),
              out.find("No arp reply from 192.168.1.13|02-00-00-00-00-03!"));
    lptest::clear_arp_table(&table);
}

TEST(ArpSweepJudge, ResultCodes)
{
    log_set_level(7);
    {
        memset(&arp_detect_handle, 0, sizeof(arp_detect_handle));
        StdoutCapture cap;
        EXPECT_EQ(process_arp_detect_all(0), 98);
        EXPECT_EQ(count_of(cap.stop(),
                           "arp detect array is null, no packet sent yet, treat as detect over!\n"),
                  1u);
    }
    for (int timeout = 0; timeout <= 1; timeout++) {
        t_arp_entry *table = nullptr;
        add_entry(&table, 0x99, ip4(192, 168, 1, 50));
        FakeRun run(&table, 1);
        run.deliver(0, reply_frame(ip4(192, 168, 1, 50)));
        EXPECT_EQ(process_arp_detect_all(timeout), 97) << "timeout " << timeout;
        EXPECT_EQ(get_arp_entry_count(table), 1u);
        lptest::clear_arp_table(&table);
    }
}

TEST(ArpRun, Release)
{
    log_set_level(7);
    memset(&arp_detect_handle, 0, sizeof(arp_detect_handle));
    {
        StdoutCapture cap;
        release_arp_detect_handle(&arp_detect_handle);
        release_arp_detect_handle(nullptr);
        EXPECT_EQ(count_of(cap.stop(), "Release null arp_detect_handle fail!\n"), 2u);
    }
    {
        // Slot 0 never opened (descriptor 0 is not ours to close), slot 1 open.
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
        arp_detect_handle.arp_num = 2;
        arp_detect_handle.arp_detect_array = static_cast<t_arp_detect *>(calloc(2, sizeof(t_arp_detect)));
        arp_detect_handle.arp_detect_array[1].ufd.fd = sv[0];
        arp_detect_handle.br_ip = 1;
        StdoutCapture cap;
        release_arp_detect_handle(&arp_detect_handle);
        EXPECT_EQ(count_of(cap.stop(), "release arp_detect_handle success!\n"), 1u);
        EXPECT_EQ(fcntl(sv[0], F_GETFD), -1);
        EXPECT_NE(fcntl(0, F_GETFD), -1);
        EXPECT_EQ(arp_detect_handle.arp_num, 0);
        EXPECT_EQ(arp_detect_handle.br_ip, 0u);
        close(sv[1]);
    }
}

TEST(ArpWait, DescriptorAboveSelectRange)
{
    // select() cannot take a descriptor of FD_SETSIZE or more; the wait must
    // still work there, and a queued frame must still cut it short.
    int rc = lptest::run_child([]() -> int {
        struct rlimit rl;
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = rl.rlim_max = 4096;
        if (setrlimit(RLIMIT_NOFILE, &rl) != 0)
            return 10;
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0)
            return 11;
        const int high = FD_SETSIZE + 476;  // 1500
        if (dup2(sv[0], high) != high)
            return 12;
        close(sv[0]);
        if (send(sv[1], "x", 1, 0) != 1)
            return 13;
        // Were the queued frame ignored, the hour-long wait would meet the alarm.
        alarm(60);
        if (setTimeOut(high, 3600 * 1000u) != 0)
            return 14;
        if (!(fcntl(high, F_GETFL) & O_NONBLOCK))
            return 15;
        // Nothing queued: the wait ends by itself and that is no error.
        char c;
        if (recv(high, &c, 1, 0) != 1)
            return 16;
        if (setTimeOut(high, 1) != 0)
            return 17;
        return 0;
    }).status;
    EXPECT_EQ(rc, 0);
}

}  // namespace
