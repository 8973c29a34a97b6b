// The address ownership check against a real bridge br-lan, with hosts in
// namespaces of their own behind its ports.
//
// What the kernel does here decides the verdicts: the slot sockets are tied
// to their ports with SO_BINDTODEVICE only, which does not filter what a
// packet socket receives, and a reply (sent to the asking port's own MAC) is
// passed up through br-lan, so every open slot socket reads it.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "arp/arp_check.h"
#include "arp/arp_packet.h"
#include "registry/device_list.h"
#include "registry/device_table.h"
#include "support/log.h"
#include "support/lan.h"
#include "support/netns.h"

namespace {

using lptest::count_of;
using lptest::Host;
using lptest::Reply;
using lptest::run_in_netns;
using lptest::StdoutCapture;

// The candidate list as the detection cycle builds it, over records it owns.
struct Candidates {
    t_device *table = nullptr;
    t_device_list_head list{};

    explicit Candidates(const std::vector<std::string> &names)
    {
        int order = 1;
        for (const std::string &n : names) {
            t_device *d = create_new_device(n.c_str());
            d->order = static_cast<int8_t>(order++);
            EXPECT_EQ(add_device(&table, d), 0);
            EXPECT_EQ(add_unique_device_inorder_to_list(&list.list, d), 0);
            list.dev_num++;
        }
    }
    ~Candidates()
    {
        free_device_list(&list.list);
        if (table)
            release_all_device(&table);
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> out;
        for (t_device_list *n = list.list.next; n; n = n->next)
            out.push_back(n->dev->name);
        return out;
    }
};

using Names = std::vector<std::string>;

struct CheckRun {
    int result;
    std::string log;
};

CheckRun check(Candidates &c, const uint32_t *target = nullptr)
{
    log_set_level(7);
    StdoutCapture cap;
    int rc = find_target_ip_and_device_with_arp(&c.list, target);
    return {rc, cap.stop()};
}

TEST(ArpCheck, NobodyAnswers)
{
    run_in_netns([] {
        ASSERT_TRUE(lptest::make_lan(2));
        Host h1 = Host::responder(1, {});
        Host h2 = Host::responder(2, {});
        ASSERT_TRUE(lptest::wait_forwarding(2));
        Candidates c({"eth1", "eth2"});
        CheckRun r = check(c);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(c.list.dev_num, 0);
        EXPECT_TRUE(c.names().empty());
        EXPECT_EQ(count_of(r.log, "Use br-lan ip:192.168.1.1 as arp requesting ip! ARP announcement!\n"), 1u);
        EXPECT_EQ(count_of(r.log, "Target ip:192.168.1.1 not found with arp in each device!\n"), 1u) << r.log;
        // Two attempts, each one request per port.
        EXPECT_EQ(count_of(r.log, "via dev:eth1, retry_times:1/2\n"), 2u) << r.log;
        EXPECT_EQ(count_of(r.log, "via dev:eth2, retry_times:2/2\n"), 2u) << r.log;
        EXPECT_EQ(count_of(r.log, "No arp reply from 192.168.1.1|00-00-00-00-00-00 via dev:eth"), 2u);
        EXPECT_EQ(h1.requests().size(), 2u);
        EXPECT_EQ(h2.requests().size(), 2u);

        // On the wire: a 60-byte announcement from eth1's own MAC.
        std::string mac = lptest::mac_of("eth1");
        std::string hexmac;
        for (char ch : mac)
            if (ch != ':')
                hexmac += ch;
        const std::string expected = "ffffffffffff" + hexmac + "0806" + "0001080006040001" + hexmac +
                                     "c0a80101" + "000000000000" + "c0a80101" + std::string(36, '0');
        ASSERT_FALSE(h1.requests().empty());
        EXPECT_EQ(h1.requests()[0], expected);
        EXPECT_EQ(arp_detect_handle.arp_detect_array, nullptr) << "the run is released";
    });
}

TEST(ArpCheck, LinuxHostClaimingTheRouterAddress)
{
    run_in_netns([] {
        ASSERT_TRUE(lptest::make_lan(2));
        Host owner = Host::linux_host(1, "192.168.1.1/24", true);
        Host quiet = Host::responder(2, {});
        ASSERT_TRUE(lptest::wait_forwarding(2));

        // Alone in the list, the owner's port is the one port found.
        {
            Candidates c({"eth1"});
            CheckRun r = check(c);
            EXPECT_EQ(r.result, 0);
            EXPECT_EQ(c.names(), Names{"eth1"});
            EXPECT_EQ(count_of(r.log, "arp reply success in dev:eth1\n"), 1u) << r.log;
            EXPECT_EQ(count_of(r.log, "Detect "), 0u);
            EXPECT_EQ(count_of(r.log, "not found with arp"), 0u);
            EXPECT_EQ(count_of(r.log, "retry_times:2/2"), 0u) << "answered in attempt 1";
        }
        // With a second port: the reply comes up through br-lan, where both
        // slot sockets read it, so both ports keep their place.
        {
            Candidates c({"eth1", "eth2"});
            CheckRun r = check(c);
            EXPECT_EQ(r.result, 0);
            EXPECT_EQ(c.names(), (Names{"eth1", "eth2"}));
            EXPECT_EQ(c.list.dev_num, 2);
            EXPECT_EQ(count_of(r.log, "Detect 2 device own same ip:192.168.1.1!\n"), 1u) << r.log;
            EXPECT_EQ(quiet.requests().size(), 1u);
        }
    });
}

// One port answers only the second request; the other first claims another
// address, then the right one, in the same read loop.
TEST(ArpCheck, LateAndMixedAnswers)
{
    run_in_netns([] {
        ASSERT_TRUE(lptest::make_lan(2));
        Host late = Host::responder(1, {{}, {Reply{lptest::ipv4("192.168.1.1")}}});
        Host mixed = Host::responder(2, {{Reply{lptest::ipv4("192.168.1.99")}, Reply{lptest::ipv4("192.168.1.1")}}});
        ASSERT_TRUE(lptest::wait_forwarding(2));
        Candidates c1({"eth1"});
        CheckRun r = check(c1);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(c1.names(), Names{"eth1"});
        EXPECT_EQ(count_of(r.log, "Trying to recv Arp packet for: 192.168.1.1|00-00-00-00-00-00 via dev:eth1, retry_times:2/2\n"), 1u) << r.log;
        EXPECT_EQ(count_of(r.log, "arp reply success in dev:eth1\n"), 1u);
        EXPECT_EQ(late.requests().size(), 2u);

        Candidates c2({"eth2"});
        r = check(c2);
        EXPECT_EQ(c2.names(), Names{"eth2"});
        size_t other = r.log.find("arp reply receieve a different ip:192.168.1.99, Ignore!\n");
        size_t orig = r.log.find("arp reply receieve a different ip, orig:192.168.1.1, Ignore!\n");
        ASSERT_NE(other, std::string::npos) << r.log;
        EXPECT_LT(other, orig);
        EXPECT_LT(orig, r.log.find("arp reply success in dev:eth2\n"));
        EXPECT_EQ(count_of(r.log, "retry_times:2/2"), 0u);
        EXPECT_EQ(mixed.requests().size(), 1u);
    });
}

TEST(ArpCheck, PortWhoseSocketCannotBeBound)
{
    run_in_netns([] {
        ASSERT_TRUE(lptest::make_lan(2));
        Host h1 = Host::responder(1, {});
        Host h2 = Host::responder(2, {});
        ASSERT_TRUE(lptest::wait_forwarding(2));
        // "ghost" has a record but no interface: SO_BINDTODEVICE fails.
        Candidates c({"eth1", "ghost", "eth2"});
        CheckRun r = check(c);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(c.names(), Names{"ghost"}) << "an unprobed port counts as answering";
        EXPECT_EQ(c.list.dev_num, 1);
        EXPECT_EQ(count_of(r.log, "init_arp_sockfd bind to dev:ghost fail!\n"), 1u) << r.log;
        // The slot without a port prints an empty name and sends nothing.
        EXPECT_EQ(count_of(r.log, "Failed to send ARP socket for: 0.0.0.0|00-00-00-00-00-00 via dev:\n"), 2u) << r.log;
        EXPECT_EQ(count_of(r.log, "No arp reply from 0.0.0.0|00-00-00-00-00-00 via dev:! \n"), 1u);
        // The port after it still got its own slot and requests.
        EXPECT_EQ(h2.requests().size(), 2u);
    });
}

}  // namespace
