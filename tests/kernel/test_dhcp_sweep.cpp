// The probe sweep on real interfaces: a bridge br-lan with veth ports eth1..ethN
// in a private network namespace.  The far end pN of each veth stands for the
// LAN behind the port: a packet socket there sees the DISCOVER on the wire and
// sends back an OFFER carrying that DISCOVER's transaction ID.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_sweep.h"
#include "registry/device_list.h"
#include "registry/device_table.h"
#include "support/log.h"
#include "support/lan.h"
#include "support/netns.h"
#include "support/result_codes.h"

namespace {

using lptest::count_of;
using lptest::run_in_netns;

using Frame = std::vector<uint8_t>;

void MakeLan(int ports)
{
    ASSERT_TRUE(lptest::make_lan(ports));
    ASSERT_EQ(uloop_init(), 0);
    log_set_level(LOG_LEVEL_DEBUG);
}

t_device *AddPort(const char *name, int order, uint8_t connected)
{
    t_device *dev = create_new_device(name);
    EXPECT_NE(dev, nullptr);
    dev->order = static_cast<int8_t>(order);
    dev->connected = connected;
    EXPECT_EQ(add_device(&lan_devices.dev_hashmap_head, dev), 0);
    return dev;
}

int OpenTap(const char *ifname)
{
    int s = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    EXPECT_GE(s, 0);
    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof(sll));
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
    EXPECT_EQ(bind(s, reinterpret_cast<sockaddr *>(&sll), sizeof(sll)), 0);
    return s;
}

bool IsDiscover(const Frame &f)
{
    return f.size() >= 282 && f[23] == 17 && f[36] == 0 && f[37] == 67 && f[42] == 1;
}

// DISCOVERs that reached the tap, waiting (bounded) until `want` have come.
std::vector<Frame> Discovers(int tap, size_t want)
{
    std::vector<Frame> out;
    for (int tries = 0; tries < 20 && out.size() < want; tries++) {
        struct pollfd p = {tap, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        uint8_t buf[2048];
        ssize_t n;
        while ((n = recv(tap, buf, sizeof(buf), MSG_DONTWAIT)) > 0) {
            Frame f(buf, buf + n);
            if (IsDiscover(f))
                out.push_back(f);
        }
    }
    return out;
}

uint32_t XidOf(const Frame &discover)
{
    uint32_t xid;
    memcpy(&xid, &discover[46], 4);
    return xid;
}

// An OFFER from `server` for the client of `xid`, with one router and one DNS server.
Frame Offer(uint32_t xid, const uint8_t *server, const char *yiaddr, const char *router)
{
    Frame f(42 + 240, 0);
    uint8_t client[MAC_LEN];
    derive_client_hwaddr(xid, client);
    memcpy(&f[0], client, 6);
    memcpy(&f[6], server, 6);
    f[12] = 0x08;
    f[14] = 0x45;
    f[22] = 64;
    f[23] = 17;
    f[35] = 67;
    f[37] = 68;
    f[42] = 2;
    f[43] = 1;
    f[44] = 6;
    memcpy(&f[46], &xid, 4);
    uint32_t yi = inet_addr(yiaddr), gw = inet_addr(router);
    memcpy(&f[58], &yi, 4);
    memcpy(&f[70], client, 6);
    const uint8_t cookie[] = {0x63, 0x82, 0x53, 0x63, 53, 1, 2, 3, 4};
    memcpy(&f[278], cookie, 4);
    f.insert(f.end(), cookie + 4, cookie + 9);
    f.insert(f.end(), reinterpret_cast<uint8_t *>(&gw), reinterpret_cast<uint8_t *>(&gw) + 4);
    f.insert(f.end(), {6, 4, 10, 9, 9, 9, 255});
    return f;
}

void Inject(int tap, const Frame &f)
{
    ASSERT_EQ(send(tap, f.data(), f.size(), 0), static_cast<ssize_t>(f.size()));
}

// Runs event-loop passes until done() holds; bounded by a pass count.
bool PumpUntil(const std::function<bool()> &done)
{
    for (int i = 0; i < 100 && !done(); i++)
        uloop_run_timeout(50);
    return done();
}

int OpenFds()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d && readdir(d))
        n++;
    if (d)
        closedir(d);
    return n;
}

template <typename F>
std::string Logged(F fn)
{
    lptest::StdoutCapture cap;
    fn();
    return cap.stop();
}

const uint8_t kSrvA[MAC_LEN] = {0x00, 0x16, 0x3e, 0x00, 0x00, 0x0a};
const uint8_t kSrvC[MAC_LEN] = {0x00, 0x16, 0x3e, 0x00, 0x00, 0x0c};

TEST(DhcpSweep, ThreeCandidatesTwoAnswered)
{
    run_in_netns([] {
        MakeLan(5);
        // Table order differs from discovery order: the run follows `order`.
        // eth4 has no host behind it, eth5 already has its server.
        t_device *e3 = AddPort("eth3", 3, 1);
        t_device *e1 = AddPort("eth1", 1, 1);
        t_device *e2 = AddPort("eth2", 2, 1);
        AddPort("eth4", 4, 0);
        AddPort("eth5", 5, 1)->offer.mac[5] = 1;
        int taps[5] = {OpenTap("p1"), OpenTap("p2"), OpenTap("p3"), OpenTap("p4"), OpenTap("p5")};
        int baseline = OpenFds();

        std::string log = Logged([] { ASSERT_EQ(lanprobe_for_all_devices(&lan_devices), 0); });
        EXPECT_EQ(count_of(log, "device:eth4 has NO device connected in, skip it!\n"), 1u);
        EXPECT_EQ(count_of(log, "device:eth5 already has dhcp_dever, skip it!\n"), 1u);
        EXPECT_EQ(count_of(log, "Overall 3 devices ready to run dhcp detect\n"), 1u);
        ASSERT_EQ(lanprobe_handle.device_num, 3);
        lanprobe_ctx *ctx = lanprobe_handle.lanprobe_array;
        EXPECT_EQ(ctx[0].dev, e1);
        EXPECT_EQ(ctx[1].dev, e2);
        EXPECT_EQ(ctx[2].dev, e3);
        uint8_t br[MAC_LEN] = {0x02, 0, 0, 0, 0, 0xfe};
        EXPECT_EQ(0, memcmp(lanprobe_handle.br_mac, br, MAC_LEN));

        for (int i = 0; i < 3; i++) {
            SCOPED_TRACE(i);
            EXPECT_TRUE(ctx[i].ufd.registered);
            EXPECT_EQ(ctx[i].ufd.flags, DHCP_ULOOP_FLAGS);
            std::vector<Frame> seen = Discovers(taps[i], 1);
            ASSERT_EQ(seen.size(), 1u);  // exactly one DISCOVER per port and pass
            EXPECT_EQ(seen[0].size(), 410u);
            EXPECT_EQ(XidOf(seen[0]), ctx[i].random_xid);
            uint8_t client[MAC_LEN];
            derive_client_hwaddr(ctx[i].random_xid, client);
            EXPECT_EQ(0, memcmp(&seen[0][6], client, MAC_LEN));
            EXPECT_EQ(0, memcmp(&seen[0][70], client, MAC_LEN));
            EXPECT_EQ(seen[0][24], 0xa5);
            EXPECT_EQ(seen[0][25], 0x30);
        }
        EXPECT_EQ(Discovers(taps[1], 1).size(), 0u);  // and no second one
        EXPECT_EQ(Discovers(taps[3], 1).size() + Discovers(taps[4], 1).size(), 0u);

        Inject(taps[0], Offer(ctx[0].random_xid, kSrvA, "10.1.0.100", "10.1.0.1"));
        Inject(taps[2], Offer(ctx[2].random_xid, kSrvC, "10.3.0.100", "10.3.0.1"));
        ASSERT_TRUE(PumpUntil([&] { return ctx[0].offered && ctx[2].offered; }));
        EXPECT_EQ(ctx[1].offered, 0);
        EXPECT_EQ(ctx[0].ufd.fd, -1);
        EXPECT_GT(ctx[1].ufd.fd, 0);

        EXPECT_EQ(process_dhcp_discovery_all(0), LP_SWEEP_WAITING);
        EXPECT_EQ(lanprobe_handle.lanprobe_array, ctx);  // untouched while waiting
        log = Logged([] { EXPECT_EQ(process_dhcp_discovery_all(1), LP_SWEEP_TIMEOUT); });
        EXPECT_EQ(lanprobe_handle.lanprobe_array, nullptr);
        EXPECT_EQ(lanprobe_handle.device_num, 0);
        EXPECT_EQ(OpenFds(), baseline);  // every probe socket closed

        EXPECT_EQ(e1->offer.pre_assigned_ip, inet_addr("10.1.0.100"));
        EXPECT_EQ(e1->offer.dns_ip, inet_addr("10.9.9.9"));
        EXPECT_EQ(0, memcmp(e1->offer.mac, kSrvA, MAC_LEN));
        EXPECT_EQ(0, memcmp(e3->offer.mac, kSrvC, MAC_LEN));
        EXPECT_FALSE(device_has_server(e2));
        EXPECT_EQ(count_of(log, "detect dhcp Service!\n"), 2u);
        EXPECT_EQ(count_of(log, "No dhcp Service detect in dev:eth2 yet!\n"), 1u);
        EXPECT_LT(log.find("Processing dhcp offer in eth:eth1\n"),
                  log.find("Processing dhcp offer in eth:eth2\n"));
        EXPECT_LT(log.find("Processing dhcp offer in eth:eth2\n"),
                  log.find("Processing dhcp offer in eth:eth3\n"));

        // The next pass probes only the port still unanswered.
        ASSERT_EQ(lanprobe_for_all_devices(&lan_devices), 0);
        ASSERT_EQ(lanprobe_handle.device_num, 1);
        EXPECT_EQ(lanprobe_handle.lanprobe_array[0].dev, e2);
        EXPECT_EQ(Discovers(taps[1], 1).size(), 1u);
        EXPECT_EQ(Discovers(taps[0], 1).size(), 0u);
        EXPECT_EQ(process_dhcp_discovery_all(1), LP_SWEEP_TIMEOUT);
        for (int t : taps)
            close(t);
    });
}

TEST(DhcpSweep, AllAnsweredWithAndWithoutTimeoutFlag)
{
    run_in_netns([] {
        MakeLan(2);
        t_device *e1 = AddPort("eth1", 1, 1);
        t_device *e2 = AddPort("eth2", 2, 1);
        int taps[2] = {OpenTap("p1"), OpenTap("p2")};
        for (uint8_t flag : {0, 1}) {
            SCOPED_TRACE(flag);
            memset(&e1->offer, 0, sizeof(e1->offer));
            memset(&e2->offer, 0, sizeof(e2->offer));
            ASSERT_EQ(lanprobe_for_all_devices(&lan_devices), 0);
            ASSERT_EQ(lanprobe_handle.device_num, 2);
            lanprobe_ctx *ctx = lanprobe_handle.lanprobe_array;
            for (int i = 0; i < 2; i++) {
                ASSERT_EQ(Discovers(taps[i], 1).size(), 1u);
                Inject(taps[i], Offer(ctx[i].random_xid, i ? kSrvC : kSrvA, "10.5.0.7", "10.5.0.1"));
            }
            ASSERT_TRUE(PumpUntil([&] { return ctx[0].offered && ctx[1].offered; }));
            EXPECT_EQ(process_dhcp_discovery_all(flag), LP_SWEEP_ALL_ANSWERED);
            EXPECT_TRUE(device_has_server(e1));
            EXPECT_TRUE(device_has_server(e2));
            std::string log = Logged([&] { EXPECT_EQ(process_dhcp_discovery_all(flag), LP_SWEEP_IDLE); });
            EXPECT_EQ(count_of(log, "dhcp detect array is null, no packet sent yet, treat as detect over!\n"), 1u);
            EXPECT_EQ(count_of(log, "Release null lanprobe_handle fail!\n"), 1u);
        }
    });
}

TEST(DhcpSweep, PortWhoseSocketFails)
{
    run_in_netns([] {
        MakeLan(3);
        t_device *e1 = AddPort("eth1", 1, 1);
        AddPort("eth2", 2, 1);
        t_device *e3 = AddPort("eth3", 3, 1);
        int taps[3] = {OpenTap("p1"), OpenTap("p2"), OpenTap("p3")};

        std::string log = Logged([] {
            // Leave room for exactly two more descriptors: the sockets of eth1
            // and eth2 (the br-lan query's socket is closed again before them).
            // The two lowest free numbers are the ones handed out next; any
            // number above the second is past the limit.
            int first = dup(0), second = dup(0);
            close(first);
            close(second);
            // Only the soft limit: the hard one could not be raised again.
            struct rlimit saved;
            ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
            struct rlimit lim = {static_cast<rlim_t>(second + 1), saved.rlim_max};
            ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
            EXPECT_EQ(lanprobe_for_all_devices(&lan_devices), 0);
            // The capture needs descriptors again to hand the log back.
            ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
        });
        EXPECT_EQ(count_of(log, "Create DHCP request socket failed!\n"), 1u);
        EXPECT_EQ(count_of(log, "Failed to init DHCP socket in dev:eth3\n"), 1u);
        EXPECT_EQ(count_of(log, "Send DHCP Discovery packet success via dev:"), 2u);
        // All sockets are opened before the first DISCOVER leaves.
        EXPECT_LT(log.find("Failed to init DHCP socket in dev:eth3\n"),
                  log.find("Ready to send DHCP Discovery packet via dev:eth1"));

        ASSERT_EQ(lanprobe_handle.device_num, 3);
        lanprobe_ctx *ctx = lanprobe_handle.lanprobe_array;
        EXPECT_EQ(ctx[2].dev, nullptr);
        EXPECT_EQ(ctx[0].dev, e1);
        EXPECT_EQ(Discovers(taps[2], 1).size(), 0u);
        for (int i = 0; i < 2; i++) {
            std::vector<Frame> seen = Discovers(taps[i], 1);
            ASSERT_EQ(seen.size(), 1u);
            Inject(taps[i], Offer(ctx[i].random_xid, kSrvA, "10.6.0.9", "10.6.0.1"));
        }
        ASSERT_TRUE(PumpUntil([&] { return ctx[0].offered && ctx[1].offered; }));
        // The port without a socket can never answer: only the time-out ends the pass.
        EXPECT_EQ(process_dhcp_discovery_all(0), LP_SWEEP_WAITING);
        EXPECT_EQ(process_dhcp_discovery_all(1), LP_SWEEP_TIMEOUT);
        EXPECT_TRUE(device_has_server(e1));
        EXPECT_FALSE(device_has_server(e3));
    });
}

TEST(DhcpSweep, NamedPort)
{
    run_in_netns([] {
        MakeLan(1);
        t_device *e1 = AddPort("eth1", 1, 0);  // no host seen behind it
        int tap = OpenTap("p1");

        std::string log = Logged([&] { EXPECT_EQ(lanprobe_for_specify_device(e1), 0); });
        EXPECT_EQ(count_of(log, "device:eth1 ready to run dhcp detect\n"), 1u);
        EXPECT_EQ(Discovers(tap, 1).size(), 1u);
        EXPECT_EQ(process_dhcp_discovery_all(1), LP_SWEEP_TIMEOUT);

        e1->offer.mac[0] = 0x02;
        log = Logged([&] { EXPECT_EQ(lanprobe_for_specify_device(e1), LP_ERR_INVALID); });
        const std::string warn =
            "device:eth1 already has dhcp_dever, skip it, shouldn't get here as specify device, should get suicide!";
        EXPECT_EQ(count_of(log, warn), 1u);
        EXPECT_EQ(count_of(log, warn + "\n"), 0u);
        EXPECT_EQ(lanprobe_handle.lanprobe_array, nullptr);
        EXPECT_EQ(Discovers(tap, 1).size(), 0u);
    });
}

TEST(DhcpSweep, ReleaseAndRestart)
{
    run_in_netns([] {
        MakeLan(2);
        AddPort("eth1", 1, 1);
        t_device *e2 = AddPort("eth2", 2, 1);
        int baseline = OpenFds();

        ASSERT_EQ(lanprobe_for_all_devices(&lan_devices), 0);
        ASSERT_EQ(OpenFds(), baseline + 2);

        // A new run while one is in place releases the earlier one first.
        t_device_list_head list;
        memset(&list, 0, sizeof(list));
        ASSERT_EQ(add_unique_device_inorder_to_list(&list.list, e2), 0);
        list.dev_num = 1;
        std::string log = Logged([&] { EXPECT_EQ(send_dhcp_discovery_all(&list), 0); });
        free_device_list(&list.list);
        list.dev_num = 0;
        EXPECT_EQ(count_of(log, "[Notice]"), 1u);
        EXPECT_EQ(count_of(log, "Last time handle not release, release it before resend!\n"), 1u);
        EXPECT_LT(log.find("release lanprobe_handler success!\n"),
                  log.find("DHCP Discovery packet sockfd init success in dev:eth2\n"));
        ASSERT_EQ(lanprobe_handle.device_num, 1);
        EXPECT_EQ(lanprobe_handle.lanprobe_array[0].dev, e2);
        EXPECT_EQ(OpenFds(), baseline + 1);

        release_lanprobe_handle(&lanprobe_handle);
        EXPECT_EQ(OpenFds(), baseline);
        EXPECT_EQ(lanprobe_handle.lanprobe_array, nullptr);
        log = Logged([] { release_lanprobe_handle(&lanprobe_handle); });
        EXPECT_EQ(count_of(log, "Release null lanprobe_handle fail!\n"), 1u);
        EXPECT_EQ(count_of(log, "release lanprobe_handler success!\n"), 0u);
    });
}

}  // namespace
