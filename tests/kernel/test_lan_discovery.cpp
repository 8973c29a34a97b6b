// LAN interface discovery against a real bridge (or its absence) and fixture
// UCI files, each case in network and mount namespaces of its own.
#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "registry/device_table.h"
#include "core/lan_discovery.h"
#include "support/log.h"
#include "support/netns.h"
#include "support/result_codes.h"

namespace {

using lptest::count_of;
using lptest::pos_of;
using lptest::run_in_netns;

struct Want {
    std::string name;
    int order, port_no, port;
    std::string label;
};

// The whole table, in its walk order.
void expect_table(const t_lan_devices &devs, const std::vector<Want> &want)
{
    const t_device *d = devs.dev_hashmap_head;
    for (const auto &w : want) {
        ASSERT_NE(d, nullptr) << "table ends before " << w.name;
        EXPECT_EQ(std::string(d->name), w.name);
        EXPECT_EQ(d->order, w.order) << w.name;
        EXPECT_EQ(d->port_no, w.port_no) << w.name;
        EXPECT_EQ(d->port, w.port) << w.name;
        EXPECT_EQ(std::string(d->label), w.label) << w.name;
        EXPECT_EQ(d->connected, 0);
        d = static_cast<const t_device *>(d->hh.next);
    }
    EXPECT_EQ(d, nullptr) << "more records than expected";
}

struct Msg {
    std::string text;
    size_t count;
};

void expect_messages(const std::string &log, const std::vector<Msg> &msgs)
{
    for (const auto &m : msgs)
        EXPECT_EQ(count_of(log, m.text), m.count) << "message: " << m.text;
}

std::string sw_port(const std::string &section, const std::string &body)
{
    return "config switch_port '" + section + "'\n" + body + "\n";
}

const char kNetwork[] = "config interface 'lan'\n\toption ifname '%s'\n";

std::string network_with(const std::string &ifname)
{
    std::string s = kNetwork;
    return s.replace(s.find("%s"), 2, ifname);
}

// -------------------------------------------------------------- bridge source

TEST(LanDiscoveryTest, BridgePortsComeFirst)
{
    run_in_netns([] {
        log_set_level(7);
        ASSERT_TRUE(lptest::add_bridge("br-lan"));
        ASSERT_TRUE(lptest::add_ports("br-lan", {"eth2", "wlan0", "eth1"}));
        // A list that must not be read while the bridge has ports.
        ASSERT_TRUE(lptest::write_config("network", network_with("eth7 eth8")));
        ASSERT_TRUE(lptest::write_config(
            "switch", sw_port("p1", "\toption port '1'\n\toption ifname 'eth1'\n\toption label 'LAN1'") +
                          sw_port("p2", "\toption port '2'\n\toption ifname 'eth2'\n\toption label 'LAN2'")));
        t_lan_devices devs{};
        lptest::StdoutCapture cap;
        int ret = init_all_lan_device(&devs);
        std::string log = cap.stop();
        EXPECT_EQ(ret, 2);
        EXPECT_EQ(devs.dev_num, 0);
        expect_table(devs, {{"eth1", 1, 3, 1, "LAN1"}, {"eth2", 2, 1, 2, "LAN2"},
                            {"wlan0", 5, 2, -1, ""}});
        expect_messages(log, {{"Parse lan devices(", 0}, {"[Error]", 0},
                              {"Parse network devices atrribute success, count:2\n", 1}});
        EXPECT_LT(pos_of(log, "Entering function: generate_lan_device!\n"),
                  pos_of(log, "Entering function: get_eth_atrribute!\n"));
        release_all_device(&devs.dev_hashmap_head);
    });
}

// A port whose port_no cannot be read, and more ports than discovery takes.
TEST(LanDiscoveryTest, BridgeEdgeCases)
{
    run_in_netns([] {
        log_set_level(7);
        ASSERT_TRUE(lptest::add_bridge("br-lan"));
        ASSERT_TRUE(lptest::add_ports("br-lan", {"eth0", "eth1"}));
        ASSERT_TRUE(lptest::write_file("/tmp/empty", ""));
        ASSERT_EQ(mount("/tmp/empty", "/sys/class/net/br-lan/brif/eth1/port_no", nullptr, MS_BIND,
                        nullptr),
                  0);
        ASSERT_TRUE(lptest::write_config("switch", sw_port("a", "\toption port 4\n\toption ifname eth1")));
        t_lan_devices devs{};
        lptest::StdoutCapture cap;
        EXPECT_EQ(init_all_lan_device(&devs), 1);
        cap.stop();
        expect_table(devs, {{"eth0", 1, 1, -1, ""}, {"eth1", 2, -1, 4, ""}});
        release_all_device(&devs.dev_hashmap_head);
    });
    run_in_netns([] {
        log_set_level(7);
        ASSERT_TRUE(lptest::add_bridge("br-lan"));
        std::vector<std::string> names;
        for (int i = 0; i <= 100; i++)
            names.push_back("eth" + std::string(i < 10 ? "00" : i < 100 ? "0" : "") + std::to_string(i));
        ASSERT_TRUE(lptest::add_ports("br-lan", names));
        ASSERT_TRUE(lptest::write_config("network", network_with("eth7")));
        ASSERT_TRUE(lptest::write_config(
            "switch", sw_port("first", "\toption port 1\n\toption ifname eth000") +
                          sw_port("last", "\toption port 2\n\toption ifname eth100")));
        t_lan_devices devs{};
        lptest::StdoutCapture cap;
        int ret = init_all_lan_device(&devs);
        std::string log = cap.stop();
        EXPECT_EQ(ret, 1);
        EXPECT_EQ(HASH_COUNT(devs.dev_hashmap_head), 100u);
        EXPECT_EQ(devs.dev_num, 0);
        expect_messages(log, {{"Parse lan device number more than 100, Ignore others!\n", 1},
                              {"Parse lan devices success, count:100\n", 1},
                              {"Can't find device eth100\n", 1},
                              {"Unable to get network.lan.ifname", 0}});
        t_device *first = find_device(devs.dev_hashmap_head, "eth000");
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(first->order, 1);
        EXPECT_EQ(first->port, 1);
        t_device *last = find_device(devs.dev_hashmap_head, "eth099");
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(last->order, 100);
        EXPECT_EQ(last->port_no, 100);
        release_all_device(&devs.dev_hashmap_head);
    });
}

// ------------------------------------------------- configuration-list source

struct ListCase {
    const char *what;
    bool bridge;                // an empty br-lan exists
    const char *ifname;         // network.lan.ifname; null: no network file
    int generate;               // result of generate_lan_device
    int dev_num;
    std::vector<Want> table;
    std::vector<Msg> messages;
};

std::vector<Want> list_table(const std::vector<std::string> &names)
{
    std::vector<Want> t;
    for (size_t i = 0; i < names.size(); i++)
        t.push_back({names[i], static_cast<int>(i) + 1, 0, -1, ""});
    return t;
}

TEST(LanDiscoveryTest, ConfigurationListFallback)
{
    const ListCase cases[] = {
        {"no bridge: legacy walk fails, list read", false, "eth0 eth1  eth2", 3, 3,
         list_table({"eth0", "eth1", "eth2"}),
         {{std::string("list ports for bridge:'br-lan' failed: ") + strerror(ENODEV) + "\n", 1},
          {std::string(" Can't get port info: ") + strerror(ENODEV) + "\n", 1},
          {"Parse lan devices(1 totoal) name: eth0\n", 1},
          {"Parse lan devices(2 totoal) name: eth1\n", 1},
          {"Parse lan devices(3 totoal) name: eth2\n", 1},
          {"Parse lan devices success, count:3\n", 1}}},
        {"bridge without ports", true, "eth0 eth1", 2, 2, list_table({"eth0", "eth1"}),
         {{"Parse lan devices success, count:0\n", 1}, {"Parse lan devices success, count:2\n", 1}}},
        {"a repeated name counts but is kept once", false, "eth0 eth0", 2, 2, list_table({"eth0"}),
         {{"]: Device already existed!\n", 1}, {"Parse lan devices(2 totoal) name: eth0\n", 1}}},
        {"leading and trailing blanks", true, "   eth0    wlan0  ", 2, 2, list_table({"eth0", "wlan0"}),
         {}},
        {"no network file", true, nullptr, LP_ERR_CONFIG, 0, {},
         {{"]: Unable to get network.lan.ifname, wrong!!\n", 1}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::string ifname = c.ifname ? c.ifname : "";
        bool have_network = c.ifname || !ifname.empty();
        run_in_netns([&] {
            log_set_level(7);
            if (c.bridge) {
                ASSERT_TRUE(lptest::add_bridge("br-lan"));
            }
            if (have_network) {
                ASSERT_TRUE(lptest::write_config("network", network_with(ifname)));
            }
            t_lan_devices devs{};
            lptest::StdoutCapture cap;
            int ret = generate_lan_device(&devs);
            std::string log = cap.stop();
            EXPECT_EQ(ret, c.generate);
            EXPECT_EQ(devs.dev_num, c.dev_num);
            expect_table(devs, c.table);
            expect_messages(log, c.messages);
            if (devs.dev_hashmap_head)
                release_all_device(&devs.dev_hashmap_head);
        });
    }
}

// ------------------------------------------------------- switch attributes

struct SwitchCase {
    const char *what;
    std::string text;  // the switch package; "-" for no file
    int result;        // of get_eth_atrribute
    std::vector<Want> table;
    std::vector<Msg> messages;
};

// Records made from the list "eth0 eth1 eth2 eth3 lan1 wlan0".
std::vector<Want> listed(std::vector<std::pair<int, std::string>> attrs)
{
    const char *names[] = {"eth0", "eth1", "eth2", "eth3", "lan1", "wlan0"};
    std::vector<Want> t;
    for (size_t i = 0; i < 6; i++)
        t.push_back({names[i], static_cast<int>(i) + 1, 0, attrs[i].first, attrs[i].second});
    return t;
}

const std::pair<int, std::string> kNone = {-1, ""};

TEST(LanDiscoveryTest, SwitchPortAttributes)
{
    const SwitchCase cases[] = {
        {"labels, one section without a label after one with",
         sw_port("a", "\toption port '1'\n\toption ifname 'eth1'\n\toption label 'LAN1'") +
             sw_port("b", "\toption port '3'\n\toption ifname 'eth3'"),
         2, listed({kNone, {1, "LAN1"}, kNone, {3, ""}, kNone, kNone}),
         {{"Parse network devices atrribute success, count:2\n", 1}}},
        {"ifname without eth, unknown eth name, missing ifname, other section types",
         "config switch\n\toption name 'switch0'\n\n" +
             sw_port("a", "\toption port '5'\n\toption ifname 'lan1'") +
             sw_port("b", "\toption port '6'\n\toption ifname 'eth7'") +
             "config switch_port\n\toption port '7'\n\n" +
             "config switch_vlan 'v'\n\toption port '8'\n\toption ifname 'eth0'\n",
         0, listed({kNone, kNone, kNone, kNone, kNone, kNone}),
         {{"not begin with", 1}, {"]: lan1 not begin with \"eth\"\n", 1},
          {"]: Can't find device eth7\n", 1},
          // The unnamed section is the fourth of the file.
          {"]: Failed to get device by config switch.cfg04e37b\n", 1}}},
        {"repeated labels",
         sw_port("a", "\toption port '1'\n\toption ifname 'eth1'\n\toption label 'LAN'") +
             sw_port("b", "\toption port '2'\n\toption ifname 'eth2'\n\toption label 'LAN'"),
         2, listed({kNone, {1, "LAN"}, {2, "LAN"}, kNone, kNone, kNone}), {}},
        {"no switch package", "-", LP_ERR_CONFIG, listed({kNone, kNone, kNone, kNone, kNone, kNone}),
         {{"]: Unable to load uci switch!\n", 1}, {"atrribute success", 0}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        run_in_netns([&] {
            log_set_level(7);
            ASSERT_TRUE(lptest::write_config("network", network_with("eth0 eth1 eth2 eth3 lan1 wlan0")));
            if (c.text != "-") {
                ASSERT_TRUE(lptest::write_config("switch", c.text));
            }
            t_lan_devices devs{};
            lptest::StdoutCapture cap;
            lptest::StdoutCapture err(2);
            int ret = init_all_lan_device(&devs);
            std::string errors = err.stop();
            std::string log = cap.stop();
            EXPECT_EQ(ret, c.result);
            EXPECT_EQ(devs.dev_num, 6);
            expect_table(devs, c.table);
            expect_messages(log, c.messages);
            EXPECT_EQ(count_of(log, "get_eth_atrribute failed, or no attribute successfully parse!\n"),
                      c.result <= 0 ? 1u : 0u);
            if (c.text == "-") {
                EXPECT_EQ(errors, "switch: Entry not found\n");
            }
            if (c.result == LP_ERR_CONFIG) {
                EXPECT_EQ(count_of(errors, "switch: "), 1u);
            }
            release_all_device(&devs.dev_hashmap_head);
        });
    }
}

}  // namespace
