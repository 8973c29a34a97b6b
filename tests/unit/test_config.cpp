// Configuration on /etc/config (a private one per test): reading one value by
// key, the writing calls, and what LAN discovery makes of network and switch.
#include <gtest/gtest.h>

#include <string.h>

#include <functional>

#include "registry/lan_discovery.h"
#include "support/log.h"
#include "support/testkit.h"
#include "support/uci_access.h"

namespace {

using tk::messages;

TEST(Config, GetValue)
{
    const std::string v70(70, 'v');
    const struct {
        const char *key;
        int rc;
        std::string value, log;  // value "" and rc -1: the buffer is left untouched
    } rows[] = {
        {"network.lan.ifname", 0, "eth0 eth1", ""},
        {"network.lan.ipaddr", 0, "10.0.0.1", ""},  // set with "uci set", not committed
        {"network.lan.long", 0, v70.substr(0, 64), ""},  // 64 characters and the terminator
        {"network.@interface[-1].ifname", 0, "eth9", ""},
        {"network.lan", -1, "", "Info: element type is not option:3\n"},
        {"network.nosuch.ifname", -1, "", "Info: element type is not option:2\n"},
        {"nosuch.lan.ifname", -1, "", "Info: fail to get ptr nosuch \n"},
        {"network.lan.dns", -1, "", "Info: option type is not string:1\n"},
        {"network.lan-1.ifname", -1, "", "Info: fail to get ptr network \n"},
        {nullptr, -1, "", "Error: p_uci_str or p_value is null\n"},
        {"network.lan.ooooooooooooooooooooooooooooooooooooooooooooooooooooo", -1, "", ""},  // 65 characters
    };
    tk::in_netns([&] {
        tk::write_file("/etc/config/network", "config interface 'lan'\n\toption ifname 'eth0 eth1'\n\toption long '" +
                                                  v70 + "'\n\tlist dns 'a'\n\nconfig interface\n\toption ifname 'eth9'\n");
        ASSERT_TRUE(tk::sh("mkdir /tmp/.uci && echo \"network.lan.ipaddr='10.0.0.1'\" > /tmp/.uci/network"));
        log_set_level(LOG_LEVEL_DEBUG);
        for (const auto &r : rows) {
            char value[65 + 1];  // the daemon passes 65 bytes
            memset(value, '#', sizeof(value));
            tk::Capture log;
            EXPECT_EQ(_uci_get_value(r.key, value), r.rc) << r.key;
            EXPECT_EQ(messages(log.text()), r.log) << r.key;
            EXPECT_EQ(std::string(value, strnlen(value, 65)),
                      r.rc == 0 ? r.value : std::string(65, '#')) << r.key;
            EXPECT_EQ(value[65], '#') << r.key << ": written past 65 bytes";
        }
    });
}

// The writing calls, one row each (nothing in the daemon calls them): the
// commit forms, then the slot forms sharing one context.
TEST(Config, WritingCalls)
{
    tk::in_netns([] {
        tk::write_file("/etc/config/lanprobe", "config main 'cfg'\n\toption a '1'\n\tlist l 'x'\n");
        log_set_level(LOG_LEVEL_DEBUG);
        struct uci_context *ctx = nullptr;
        const struct {
            std::function<int()> call;
            int rc;
            const char *log;  // a line it logs
        } rows[] = {
            {[] { return _uci_set_value_commit("lanprobe.cfg.a", "2"); }, 0, "Info: Success to set lanprobe.cfg.a = 2 \n"},
            {[] { return _uci_add_list_commit("lanprobe", "cfg", "l", "y"); }, 0, "Debug: save l y\n"},
            {[] { return _uci_del_add_list_commit("lanprobe", "cfg", "l", "x"); }, 0, "Debug: save l x\n"},
            {[] { return _uci_delete_commit("lanprobe", "cfg", "a"); }, 0, "Debug: delete cfg a\n"},
            {[] { return _uci_delete_commit("lanprobe", nullptr, "a"); }, -1, "Error: invalid parameter\n"},
            {[&] { return _uci_set_value(&ctx, "lanprobe", "cfg", "b", "1"); }, 0,
             "Info: Success to set lanprobe.cfg.b = 1, not commit yet\n"},
            {[&] { return _uci_add_list(&ctx, "lanprobe", "cfg", "m", "z"); }, 0, "Debug: save m z\n"},
            {[&] { return _uci_del_add_list(&ctx, "lanprobe", "cfg", "l", "y"); }, 0, "Debug: save l y\n"},
            {[&] { return _uci_delete(&ctx, "lanprobe", "cfg", "b"); }, 0, "Debug: delete cfg b\n"},
            {[&] {
                 struct uci_package *p = uci_lookup_package(ctx, "lanprobe");
                 return uci_commit(ctx, &p, false);
             }, 0, ""},
            // lanprobe is loaded in the context already: the load inside is a duplicate.
            {[&] { return _uci_commit(ctx); }, -1, "Error: fail to commit lanprobe\n"},
            // A failed change frees the context and clears the slot (a fresh one here).
            {[&] {
                 ctx = nullptr;
                 int rc = _uci_set_value(&ctx, "lanprobe", "nosec", "z", "1");
                 return ctx ? 0 : rc;
             }, -1,
             "Error: fail to set ptr lanprobe.nosec.z (ret:2)\n"},
        };
        for (const auto &r : rows) {
            tk::Capture log;
            EXPECT_EQ(r.call(), r.rc) << r.log;
            std::string msgs = messages(log.text());
            EXPECT_TRUE(*r.log ? tk::count(msgs, r.log) == 1 : msgs.empty()) << r.log << msgs;
        }
        EXPECT_EQ(tk::read_file("/etc/config/lanprobe"), "\nconfig main 'cfg'\n\tlist l 'x'\n\tlist l 'y'\n\tlist m 'z'\n\n");
    });
}

TEST(Config, SwitchPortsAndConfiguredList)
{
    const struct {
        const char *network;  // nullptr: no such file
        std::string switch_text;  // "-": no such file
        int rc;
        const char *ports;  // "name:port:label" of each record, in table order
        std::vector<std::string> log;
    } rows[] = {
        {"eth0 eth1  eth3 eth0 wlan0",
         "config switch\n"
         "config switch_port\n\toption port '1'\n\toption ifname 'eth0'\n\toption label 'LAN1'\n"
         "config switch_port\n\toption port '-1'\n\toption ifname 'eth1'\n"
         "config switch_port\n\toption port 'abc'\n\toption ifname 'eth3'\n"
         "config switch_port\n\tlist port '4'\n\toption ifname 'eth1'\n"
         "config switch_port\n\toption port '5'\n\toption ifname 'lan1'\n"
         "config switch_port\n\toption port '6'\n\toption ifname 'eth7'\n"
         "config switch_port\n\toption port '258'\n\toption ifname 'eth0'\n\toption label '" +
             std::string(40, 'L') + "'\n",
         3, "eth0:2:LLLLLLLLLLLLLLLLLLLLLLLLLLLLLLL eth1:-1: eth3:0: wlan0:-1:",
         {"Debug: Parse lan devices(4 totoal) name: eth0\n", "Error: Device already existed!\n",
          "Info: Parse lan devices success, count:5\n", "Warning: Failed to get device by config switch.cfg03e37b\n",
          "Warning: Failed to get device by config switch.cfg05e37b\n", "Error: lan1 not begin with \"eth\"\n",
          "Warning: Can't find device eth7\n", "Info: Parse network devices atrribute success, count:3\n"}},
        {"eth0", "-", -95, "eth0:-1:",
         {"Error: Unable to load uci switch!\n",
          "Error: get_eth_atrribute failed, or no attribute successfully parse!\n"}},
        {nullptr, "", -95, "", {"Error: Unable to get network.lan.ifname, wrong!!\n", "Error: Parse network devices fail!\n"}},
    };
    for (const auto &r : rows) {
        tk::in_netns([&] {  // no br-lan here: the names come from network.lan.ifname
            if (r.network)
                tk::write_file("/etc/config/network", std::string("config interface lan\n\toption ifname '") +
                                                          r.network + "'\n");
            if (r.switch_text != "-")
                tk::write_file("/etc/config/switch", r.switch_text);
            log_set_level(LOG_LEVEL_DEBUG);
            t_lan_devices table{};
            tk::Capture log;
            EXPECT_EQ(init_all_lan_device(&table), r.rc);
            std::string msgs = messages(log.text()), ports;
            for (const std::string &line : r.log)
                EXPECT_EQ(tk::count(msgs, line), 1u) << line << msgs;
            for (t_device *d = table.dev_hashmap_head; d; d = static_cast<t_device *>(d->hh.next))
                ports += std::string(ports.empty() ? "" : " ") + d->name + ":" + std::to_string(d->port) + ":" +
                         std::string(d->label, strnlen(d->label, sizeof(d->label)));
            EXPECT_EQ(ports, r.ports);
            if (table.dev_hashmap_head)
                release_all_device(&table.dev_hashmap_head);
        });
    }
}

}  // namespace
