// The ARP-entry sweep against a real bridge br-lan, in both forms: blocking,
// and on the event loop.  Nothing in the daemon fills the ARP-entry table, so
// the tests fill it themselves.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "arp/arp_packet.h"
#include "arp/arp_sweep.h"
#include "registry/device_table.h"
#include "support/arp_table.h"
#include "support/if_query.h"
#include "support/log.h"
#include "support/lan.h"
#include "support/netns.h"

namespace {

using lptest::Host;
using lptest::ipv4;
using lptest::Reply;
using lptest::count_of;
using lptest::run_in_netns;
using lptest::StdoutCapture;

struct Bridge {
    uint32_t ip = 0, netmask = 0;
    uint8_t mac[6] = {};
    int ifindex = 0;
    Bridge()
    {
        EXPECT_EQ(get_if_ip_netmask_mac("br-lan", &ip, &netmask, mac), 0);
        ifindex = static_cast<int>(if_nametoindex("br-lan"));
    }
};

// Five hosts, one per port, each standing for one way an entry can end:
//   h1 .10  a Linux host that answers with its own address       -> kept
//   h2 .20  answers with .77, still in the subnet                -> kept
//   h3 .30  answers with 10.9.9.9, outside the subnet            -> removed by the reply
//   h4 .40  junk, then a reply whose Ethernet source is not h4's -> removed as silent
//   .50     a MAC that no host has                               -> removed as silent
struct Lan {
    std::vector<Host> hosts;
    t_arp_entry *table = nullptr;
    uint8_t mac[5][6] = {};

    Lan()
    {
        EXPECT_TRUE(lptest::make_lan(4));
        for (int i = 0; i < 4; i++)
            lptest::parse_mac(lptest::mac_of("p" + std::to_string(i + 1)), mac[i]);
        const uint8_t nobody[6] = {0x02, 0xde, 0xad, 0x00, 0x00, 0x01};
        memcpy(mac[4], nobody, 6);
        hosts.push_back(Host::linux_host(1, "192.168.1.10/24", false));
        hosts.push_back(Host::responder(2, {{Reply{ipv4("192.168.1.77")}}}));
        hosts.push_back(Host::responder(3, {{Reply{ipv4("10.9.9.9")}}}));
        Reply spoofed{ipv4("192.168.1.40")};
        spoofed.junk = 12;
        spoofed.foreign_source = true;
        hosts.push_back(Host::responder(4, {{spoofed}}));
        EXPECT_TRUE(lptest::wait_forwarding(4));
        const char *addrs[5] = {"192.168.1.10", "192.168.1.20", "192.168.1.30", "192.168.1.40",
                                "192.168.1.50"};
        for (int i = 0; i < 5; i++)
            lptest::add_arp_entry(&table, mac[i], ipv4(addrs[i]));
    }
    ~Lan() { lptest::clear_arp_table(&table); }
    bool has(int i) { return find_arp_entry(table, mac[i]) != nullptr; }
};

void expect_outcome(Lan &lan, const std::string &log)
{
    EXPECT_EQ(get_arp_entry_count(lan.table), 2u) << log;
    EXPECT_TRUE(lan.has(0));
    EXPECT_TRUE(lan.has(1));
    EXPECT_FALSE(lan.has(2));
    EXPECT_FALSE(lan.has(3));
    EXPECT_FALSE(lan.has(4));
    EXPECT_EQ(count_of(log, "arp reply success in 192.168.1.10|"), 1u) << log;
    EXPECT_EQ(count_of(log, "arp reply new ip still remains same subnet with br-lan!\n"), 1u);
    EXPECT_EQ(count_of(log, "arp reply new is not same subnet with br-lan! remove it from arp hash table!\n"), 1u);
    EXPECT_EQ(count_of(log, "No arp reply from 192.168.1.40|"), 1u);
    EXPECT_EQ(count_of(log, "No arp reply from 192.168.1.50|02-DE-AD-00-00-01! Remove it from arp hash table!\n"), 1u);
    EXPECT_EQ(count_of(log, "No arp reply from 192.168.1.30|"), 0u) << "removed once, by its reply";
    EXPECT_EQ(count_of(log, "doesn't existed"), 0u);
    EXPECT_GE(count_of(log, "Not match eth header:"), 1u) << "h4's frames are not taken";
    EXPECT_EQ(arp_detect_handle.arp_detect_array, nullptr) << "the run is released";
}

TEST(ArpSweep, Blocking)
{
    run_in_netns([] {
        Lan lan;
        Bridge br;
        log_set_level(7);
        StdoutCapture cap;
        int rc = double_check_arp_packet_all_blocked(&lan.table, br.ip, br.netmask, br.mac, br.ifindex);
        std::string log = cap.stop();
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(count_of(log, "arp reply receieve a different ip:192.168.1.77\n"), 1u) << log;
        EXPECT_EQ(count_of(log, "arp reply receieve a different ip, orig:192.168.1.20\n"), 1u);
        expect_outcome(lan, log);
        // Each host was asked once, by a unicast from br-lan's MAC.
        for (int i = 1; i < 4; i++) {
            std::vector<std::string> seen = lan.hosts[i].requests();
            ASSERT_EQ(seen.size(), 1u) << "h" << i + 1;
            char dst[13];
            snprintf(dst, sizeof(dst), "%02x%02x%02x%02x%02x%02x", lan.mac[i][0], lan.mac[i][1],
                     lan.mac[i][2], lan.mac[i][3], lan.mac[i][4], lan.mac[i][5]);
            EXPECT_EQ(seen[0].substr(0, 12), dst);
            EXPECT_EQ(seen[0].substr(64, 12), dst) << "target hardware address";
            EXPECT_EQ(seen[0].size(), 120u) << "60 bytes";
        }
    });
}

}  // namespace
