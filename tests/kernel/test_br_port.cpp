// Bridge port enumeration against a real bridge in a network namespace of the
// test's own.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bridge/br_port.h"
#include "registry/device_table.h"
#include "support/log.h"
#include "support/netns.h"

namespace {

using lptest::count_of;
using lptest::pos_of;
using lptest::run_in_netns;

struct PortCall {
    std::string name;
    int port_no;
    int position;
    bool operator==(const PortCall &o) const
    {
        return name == o.name && port_no == o.port_no && position == o.position;
    }
};

std::ostream &operator<<(std::ostream &os, const PortCall &c)
{
    return os << "{" << c.name << ", port_no " << c.port_no << ", pos " << c.position << "}";
}

struct Recorder {
    std::vector<PortCall> calls;
    void *user_seen = nullptr;
    // Run inside the callback, after recording, for the walk-mutation cases.
    std::function<void(const char *)> on_call;
};

int record_port(const char *name, int port_no, int position, void *arg)
{
    auto *rec = static_cast<Recorder *>(arg);
    rec->user_seen = arg;
    rec->calls.push_back({name, port_no, position});
    if (rec->on_call)
        rec->on_call(name);
    // The walk ignores what the callback answers.
    return -1;
}

const char kPortNoDir[] = "/sys/class/net/br-lan/brif/";

std::string port_no_path(const std::string &port)
{
    return std::string(kPortNoDir) + port + "/port_no";
}

// Ports join in the listed order, so the kernel numbers them 1, 2, 3...; the
// walk hands them over sorted ("eth" names first) with positions counted in
// the sorted listing, "." and ".." included.
TEST(BrPortTest, SortOrderPositionsAndKernelPortNumbers)
{
    struct Case {
        std::vector<std::string> join_order;
        std::vector<PortCall> expected;
    };
    const Case cases[] = {
        {{"eth1", "lan2", "eth0", "wlan0"},
         {{"eth0", 3, 1}, {"eth1", 1, 2}, {"lan2", 2, 5}, {"wlan0", 4, 6}}},
        // Only the first three characters decide the group, case-sensitively;
        // inside a group the C locale's strcoll is byte order.
        {{"Eth9", "eth2", "et1", "eth", "eth10"},
         {{"eth", 4, 1}, {"eth10", 5, 2}, {"eth2", 2, 3}, {"Eth9", 1, 6}, {"et1", 3, 7}}},
    };
    for (const auto &c : cases) {
        run_in_netns([&] {
            log_set_level(7);
            ASSERT_TRUE(lptest::add_bridge("br-lan"));
            ASSERT_TRUE(lptest::add_ports("br-lan", c.join_order));
            Recorder rec;
            lptest::StdoutCapture cap;
            int ret = br_foreach_port("br-lan", record_port, &rec);
            std::string log = cap.stop();
            EXPECT_EQ(ret, static_cast<int>(c.expected.size()));
            EXPECT_EQ(rec.calls, c.expected);
            EXPECT_EQ(rec.user_seen, &rec);
            EXPECT_EQ(count_of(log, "Entering function: br_foreach_port!\n"), 1u);
            EXPECT_EQ(count_of(log, "old_foreach_port"), 0u);
            EXPECT_EQ(count_of(log, "success get dev:eth1 index:1\n"), c.join_order[0] == "eth1" ? 1u : 0u);
        });
    }
}

// What a port_no attribute may hold or be, and what the walk makes of it.
TEST(BrPortTest, PortNumberFileContents)
{
    struct Case {
        const char *what;
        const char *content;  // bind-mounted over eth1's port_no; null: see kind
        enum { FILE_OVER, DIR_OVER, HIDE_PORT_DIR } kind;
        int expected;
        bool open_fails;
    };
    const Case cases[] = {
        {"hex as the kernel writes it", "0x3\n", Case::FILE_OVER, 3, false},
        {"octal", "010\n", Case::FILE_OVER, 8, false},
        {"empty file", "", Case::FILE_OVER, -1, false},
        {"negative", "-5\n", Case::FILE_OVER, -1, false},
        {"a directory in its place", nullptr, Case::DIR_OVER, -1, false},
        {"port directory empty", nullptr, Case::HIDE_PORT_DIR, -1, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        run_in_netns([&] {
            log_set_level(7);
            ASSERT_TRUE(lptest::add_bridge("br-lan"));
            ASSERT_TRUE(lptest::add_ports("br-lan", {"eth0", "eth1", "eth2"}));
            std::string target = port_no_path("eth1");
            switch (c.kind) {
            case Case::FILE_OVER:
                ASSERT_TRUE(lptest::write_file("/tmp/port_no", c.content));
                ASSERT_EQ(mount("/tmp/port_no", target.c_str(), nullptr, MS_BIND, nullptr), 0);
                break;
            case Case::DIR_OVER:
                // A directory cannot be bound over a file; hide the whole port
                // directory behind one that has a directory named port_no.
                ASSERT_TRUE(lptest::sh("mkdir -p /tmp/portdir/port_no"));
                ASSERT_EQ(mount("/tmp/portdir", (std::string(kPortNoDir) + "eth1").c_str(),
                                nullptr, MS_BIND, nullptr),
                          0);
                break;
            case Case::HIDE_PORT_DIR:
                ASSERT_EQ(mount("tmpfs", (std::string(kPortNoDir) + "eth1").c_str(), "tmpfs", 0,
                                nullptr),
                          0);
                break;
            }
            Recorder rec;
            lptest::StdoutCapture cap;
            int ret = br_foreach_port("br-lan", record_port, &rec);
            std::string log = cap.stop();
            EXPECT_EQ(ret, 3);
            std::vector<PortCall> want = {{"eth0", 1, 1}, {"eth1", c.expected, 2}, {"eth2", 3, 3}};
            EXPECT_EQ(rec.calls, want);
            EXPECT_EQ(count_of(log, "Failed to open /sys/class/net/br-lan/brif/eth1/port_no, "
                                    "not a br-lan deive\n"),
                      c.open_fails ? 1u : 0u);
            EXPECT_EQ(count_of(log, "success get dev:eth1 index:"), c.expected >= 0 ? 1u : 0u);
        });
    }
}

// With the bridge's sysfs directory out of sight, the walk falls back to the
// legacy request; port numbers cannot be read then.
TEST(BrPortTest, FallsBackToLegacyWalkWhenBrifUnlistable)
{
    run_in_netns([] {
        log_set_level(7);
        ASSERT_TRUE(lptest::add_bridge("br-lan"));
        ASSERT_TRUE(lptest::add_ports("br-lan", {"eth1", "eth0"}));
        ASSERT_EQ(mount("tmpfs", "/sys/class/net/br-lan", "tmpfs", 0, nullptr), 0);
        t_device *head = nullptr;
        lptest::StdoutCapture cap;
        int ret = update_brlan_dev_from_sys("br-lan", &head);
        std::string log = cap.stop();
        EXPECT_EQ(ret, 2);
        EXPECT_LT(pos_of(log, "Entering function: br_foreach_port!\n"),
                  pos_of(log, "Entering function: old_foreach_port!\n"));
        EXPECT_EQ(count_of(log, "not a br-lan deive\n"), 2u);
        EXPECT_EQ(count_of(log, "Parse lan devices success, count:2\n"), 1u);
        // Slot order: eth1 joined first.
        ASSERT_NE(head, nullptr);
        EXPECT_STREQ(head->name, "eth1");
        EXPECT_EQ(head->order, 2);
        EXPECT_EQ(head->port_no, -1);
        t_device *second = static_cast<t_device *>(head->hh.next);
        ASSERT_NE(second, nullptr);
        EXPECT_STREQ(second->name, "eth0");
        EXPECT_EQ(second->order, 3);
        EXPECT_EQ(second->port_no, -1);
        release_all_device(&head);
    });
}

}  // namespace
