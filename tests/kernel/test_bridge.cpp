// The bridge on the real kernel, in a network namespace of the test's own:
// the port walk (sysfs, and the legacy request when brif cannot be listed)
// and the forwarding database (sysfs copy, crafted copies bound over the
// sysfs file, and the legacy request when /tmp takes no copy).
#include <gtest/gtest.h>

#include <string.h>
#include <sys/mount.h>

#include <regex>

#include "bridge/br_port.h"
#include "bridge/fdb.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/testkit.h"

namespace {

// br-lan with veth ports joined in the order given (the kernel numbers them
// 1, 2, ... in that order); the peers stay outside the bridge.
void make_bridge(const std::vector<std::string> &ports)
{
    std::string batch = "link add br-lan type bridge\n";
    for (size_t i = 0; i < ports.size(); i++)
        batch += "link add " + ports[i] + " type veth peer name p" + std::to_string(i) + "\nlink set " +
                 ports[i] + " master br-lan\n";
    tk::write_file("/tmp/batch", batch);
    ASSERT_TRUE(tk::sh("ip -batch /tmp/batch"));
}

// "name:position:port_no ..." of the table the walk filled, and its log with
// uptime and source line left out: "[Level][function]: message".
std::string walk(int *rc, std::string *log)
{
    t_device *head = nullptr;
    tk::Capture out;
    *rc = update_brlan_dev_from_sys("br-lan", &head);
    *log = std::regex_replace(out.text(), std::regex(R"(\]\[-?\d+\]\[(\w+):\d+\]: )"), "][$1]: ");
    std::string s;
    for (t_device *d = head; d; d = static_cast<t_device *>(d->hh.next))
        s += std::string(s.empty() ? "" : " ") + d->name + ":" + std::to_string(d->order) + ":" +
             std::to_string(d->port_no);
    if (head)
        release_all_device(&head);
    return s;
}

// The sysfs walk (legacy false), or the legacy one: qemu-user cannot pass its
// request on, so the cross runs under qemu take only the sysfs rows.
void port_walk(bool legacy)
{
    std::vector<std::string> many;
    for (int i = 0; i < 101; i++)
        many.push_back("eth" + std::to_string(i));
    const struct {
        std::vector<std::string> ports;
        bool hide_brif;
        int rc;
        std::string table, log;  // the table's first records (rc says how many) and one log line
    } rows[] = {
        // eth* first, strcoll within; positions count "." and ".."; port_no from sysfs (hex).
        {{"eth1", "lan2", "eth0", "wlan0"}, false, 4, "eth0:1:3 eth1:2:1 lan2:5:2 wlan0:6:4",
         "[Debug][br_foreach_port]: success get dev:eth0 index:3\n"},
        {many, false, 100, "eth0:1:1 eth1:2:2 eth10:3:11 eth100:4:101",
         "[Error][br_foreach_port]: Parse lan device number more than 100, Ignore others!\n"},
        // Legacy walk: slot order (eth1 joined first), position slot + 1, port_no unreadable.
        {{"eth1", "eth0"}, true, 2, "eth1:2:-1 eth0:3:-1",
         "[Info][fetch_int]: Failed to open /sys/class/net/br-lan/brif/eth1/port_no, not a br-lan deive\n"},
        {{}, false, -19, "", std::string("[Error][update_brlan_dev_from_sys]:  Can't get port info: ") +
                                 strerror(19) + "\n"},
    };
    for (const auto &r : rows) {
        if (legacy != (r.hide_brif || r.rc < 0))
            continue;
        tk::in_netns([&] {
            if (r.rc >= 0)
                make_bridge(r.ports);
            if (r.hide_brif) {
                ASSERT_EQ(mount("tmpfs", "/sys/class/net/br-lan", "tmpfs", 0, nullptr), 0);
            }
            log_set_level(LOG_LEVEL_DEBUG);
            int rc;
            std::string log, table = walk(&rc, &log);
            EXPECT_EQ(rc, r.rc);
            EXPECT_EQ(table.substr(0, r.table.size()), r.table);
            EXPECT_EQ(tk::count(log, "[lanprobe]" + r.log), 1u) << log;
        });
    }
}

TEST(Bridge, PortWalk) { port_walk(false); }
TEST(Bridge, LegacyPortWalk) { port_walk(true); }

struct Rec {
    uint8_t port, local;
};

TEST(Bridge, ForwardingDatabase)
{
    std::vector<Rec> seventy(70, Rec{1, 0});
    const struct {
        std::vector<Rec> records;  // bound over brforward; empty + ro_tmp: the kernel's own
        bool ro_tmp;
        int rc;
        const char *connected;  // of eth1 (port_no 1) eth2 (2) eth3 (3) eth200 (-56) ethX (-1)
        int copies;
        std::vector<std::string> log;
    } rows[] = {
        {{{2, 0}, {2, 0}, {3, 0}, {1, 1}, {200, 0}, {255, 0}}, false, 0, "01100", 2,
         {"Debug: device:eth2 already has devices connected (via fdb table)!\n",
          "Debug: No device index(200) match in device hashmap!\n", "Debug: No device index(255) match in device hashmap!\n"}},
        {seventy, false, 0, "10000", 3, {"Debug: get br:br-lan, overall 70 entry in fdb table\n"}},
        {{{1, 1}}, false, 0, "00000", 2, {}},
        {{}, false, -83, "00000", 1, {"Debug: get br:br-lan, overall 0 entry in fdb table\n", "Error: Failed to get fdb table!\n"}},
        {{}, true, 0, "01000", 2, {"Debug: find device mac:02-00-00-00-00-02 connected in dev:eth2!\n"}},
    };
    for (const auto &r : rows) {
        tk::in_netns([&] {
            make_bridge({"eth1", "eth2"});
            if (r.ro_tmp) {
                ASSERT_TRUE(tk::sh("bridge fdb add 02:00:00:00:00:02 dev eth2 master static"));
                ASSERT_EQ(mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
            } else {
                std::string bytes;
                for (size_t i = 0; i < r.records.size(); i++) {
                    char rec[16] = {2, 0, 0, 0, static_cast<char>(i >> 8), static_cast<char>(i)};
                    rec[6] = static_cast<char>(r.records[i].port);
                    rec[7] = static_cast<char>(r.records[i].local);
                    bytes.append(rec, 16);
                }
                tk::write_file("/tmp/records", bytes);
                ASSERT_EQ(mount("/tmp/records", "/sys/class/net/br-lan/brforward", nullptr, MS_BIND, nullptr), 0);
            }
            // A cp in front of the real one counts the copies.
            ASSERT_EQ(mount("tmpfs", "/mnt", "tmpfs", 0, nullptr), 0);
            tk::write_file("/mnt/cp", "#!/bin/sh\necho >> /mnt/n\nexec /bin/cp \"$@\"\n");
            ASSERT_TRUE(tk::sh("chmod +x /mnt/cp"));
            setenv("PATH", ("/mnt:" + std::string(getenv("PATH"))).c_str(), 1);
            t_device *head = nullptr;
            const char *names[] = {"eth1", "eth2", "eth3", "eth200", "ethX"};
            const int8_t port_no[] = {1, 2, 3, -56, -1};
            for (int i = 0; i < 5; i++)
                ASSERT_EQ(add_br_device(names[i], port_no[i], i + 1, &head), 0);
            log_set_level(LOG_LEVEL_DEBUG);
            tk::Capture out;
            EXPECT_EQ(update_brlan_valid_dev(head), r.rc);
            std::string log = tk::messages(out.text()), connected;
            for (t_device *d = head; d; d = static_cast<t_device *>(d->hh.next))
                connected += static_cast<char>('0' + d->connected);
            EXPECT_EQ(connected, r.connected);
            for (const std::string &line : r.log)
                EXPECT_EQ(tk::count(log, line), 1u) << line << log;
            EXPECT_EQ(tk::read_file("/mnt/n").size(), static_cast<size_t>(r.copies));
            EXPECT_NE(access("/tmp/lanprobe_brforward", F_OK), 0) << "copy left behind";
            release_all_device(&head);
        });
    }
}

}  // namespace
