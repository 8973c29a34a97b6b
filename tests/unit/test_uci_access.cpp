// Configuration access on /etc/config: each case runs in a child whose own
// mount namespace has a writable /etc/config of its own.  Log lines are read back
// from standard output at level 7.
#include <string.h>

#include <string>

#include "support/log.h"
#include "support/uci_access.h"
#include "support/netns.h"

#include <fstream>
#include <sstream>
#include <functional>

#include <gtest/gtest.h>

namespace {

using lptest::run_in_netns;
using lptest::write_config;

std::string capture_stdout(const std::function<void()> &fn)
{
    lptest::StdoutCapture cap;
    fn();
    return cap.stop();
}

std::string read_config(const char *package)
{
    std::ifstream in(std::string("/etc/config/") + package);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

const std::string value70(70, 'v');

// Message part of every log line, prefix removed, in order.
std::string messages(const std::string &out)
{
    std::string msgs;
    size_t pos = 0;
    while ((pos = out.find("[lanprobe][", pos)) != std::string::npos) {
        size_t level_end = out.find(']', pos + 11);
        size_t body = out.find("]: ", pos);
        size_t next = out.find("[lanprobe][", pos + 1);
        msgs += out.substr(pos + 11, level_end - pos - 11) + ": " +
                out.substr(body + 3, (next == std::string::npos ? out.size() : next) - body - 3);
        pos = body;
    }
    return msgs;
}

struct GetCase {
    const char *key;
    int rc;
    const char *value; // expected buffer (rc 0), or NULL to require it untouched
    const char *log;   // messages at level 7
};

TEST(UciAccess, GetValueOutcomes)
{
    const std::string network = "config interface 'lan'\n\toption ifname 'eth0 eth1'\n\toption long '" + value70 +
                             "'\n\tlist dns 'a'\n\nconfig interface\n\toption ifname 'eth9'\n";
    const std::string cut64 = value70.substr(0, 64);
    const GetCase cases[] = {
        {"network.lan.ifname", 0, "eth0 eth1", ""},
        {"network.lan.ipaddr", 0, "10.0.0.1", ""}, // set with "uci set", not committed
        {"network.lan.long", 0, cut64.c_str(), ""},
        {"network.@interface[-1].ifname", 0, "eth9", ""},
        {"network.lan", -1, nullptr, "Info: element type is not option:3\n"},
        {"network.lan.nosuch", -1, nullptr, "Info: element type is not option:3\n"},
        {"network.nosuch.ifname", -1, nullptr, "Info: element type is not option:2\n"},
        {"nosuch.lan.ifname", -1, nullptr, "Info: fail to get ptr nosuch \n"},
        {"network.lan.dns", -1, nullptr, "Info: option type is not string:1\n"},
        {"broken.a.x", -1, nullptr, "Info: fail to get ptr broken \n"},
        {"network.lan-1.ifname", -1, nullptr, "Info: fail to get ptr network \n"},
    };
    run_in_netns([&] {
        ASSERT_TRUE(write_config("network", network));
        ASSERT_TRUE(write_config("broken", "config a x\n\toption\n"));
        ASSERT_TRUE(lptest::sh("mkdir /tmp/.uci && echo \"network.lan.ipaddr='10.0.0.1'\" > /tmp/.uci/network"));
        log_set_level(LOG_LEVEL_DEBUG);
        for (const GetCase &c : cases) {
            char value[UCI_ACCESS_BUF_SIZE + 8];
            memset(value, '#', sizeof(value));
            int rc = 0;
            std::string out = capture_stdout([&] { rc = _uci_get_value(c.key, value); });
            EXPECT_EQ(rc, c.rc) << c.key;
            EXPECT_EQ(messages(out), c.log) << c.key;
            if (c.value) {
                EXPECT_STREQ(value, c.value) << c.key;
            } else {
                EXPECT_EQ(value[0], '#') << c.key << ": buffer left untouched";
            }
            EXPECT_EQ(value[UCI_ACCESS_BUF_SIZE], '#') << c.key << ": nothing past 65 bytes";
        }
        // Missing arguments, and keys that do not fit the 65-byte work buffer.
        char value[UCI_ACCESS_BUF_SIZE] = "keep";
        std::string out = capture_stdout([&] { EXPECT_EQ(_uci_get_value(nullptr, value), -1); });
        EXPECT_EQ(messages(out), "Error: p_uci_str or p_value is null\n");
        EXPECT_EQ(_uci_get_value("network.lan.ifname", nullptr), -1);
        std::string key64 = "network.lan." + std::string(52, 'o');
        std::string key65 = key64 + "o";
        EXPECT_EQ(_uci_get_value(key64.c_str(), value), -1); // fits; no such option
        EXPECT_EQ(_uci_get_value(key65.c_str(), value), -1);
        EXPECT_STREQ(value, "keep");
    });
}

TEST(UciAccess, WritingFamilyRoundTrips)
{
    run_in_netns([&] {
        ASSERT_TRUE(write_config("lanprobe", "config main 'cfg'\n\toption a '1'\n\tlist l 'x'\n"));
        ASSERT_TRUE(write_config("other", "config o 's'\n\toption v '1'\n"));
        log_set_level(LOG_LEVEL_DEBUG);
        std::string out = capture_stdout([&] { EXPECT_EQ(_uci_set_value_commit("lanprobe.cfg.a", "2"), 0); });
        EXPECT_EQ(messages(out), "Info: p_uci_str:lanprobe.cfg.a, p_value:2\n"
                                 "Debug: p_uci.uci_type:4\nDebug: p_uci.package:lanprobe\n"
                                 "Debug: p_uci.section:cfg\nDebug: p_uci.option:a\nDebug: p_uci.value:2\n"
                                 "Info: Success to set lanprobe.cfg.a = 2 \n");
        out = capture_stdout([&] { EXPECT_EQ(_uci_set_value_commit("lanprobe.nosec.a", "2"), -1); });
        EXPECT_NE(messages(out).find("Error: fail to set ptr lanprobe.nosec.a (ret:2)\n"), std::string::npos);
        out = capture_stdout([&] { EXPECT_EQ(_uci_set_value_commit("nopkg.s.a", "2"), -1); });
        EXPECT_NE(messages(out).find("Error: fail to get ptr again nopkg \n"), std::string::npos);

        EXPECT_EQ(_uci_add_list_commit("lanprobe", "cfg", "l", "y"), 0);
        EXPECT_EQ(_uci_add_list_commit("lanprobe", "cfg", "l", "x"), 0);
        out = capture_stdout([&] { EXPECT_EQ(_uci_del_add_list_commit("lanprobe", "cfg", "l", "y"), 0); });
        EXPECT_EQ(messages(out), "Debug: save l y\n");
        EXPECT_EQ(_uci_delete_commit("lanprobe", "cfg", "a"), 0);
        out = capture_stdout([&] { EXPECT_EQ(_uci_delete_commit("lanprobe", "cfg", "a"), -1); });
        EXPECT_EQ(messages(out), "Debug: delete cfg a\n");
        EXPECT_NE(out.find("][_uci_delete_commit:"), std::string::npos) << "lines name the public call";
        out = capture_stdout([&] { EXPECT_EQ(_uci_delete_commit("lanprobe", nullptr, "a"), -1); });
        EXPECT_EQ(messages(out), "Error: invalid parameter\n");

        EXPECT_EQ(read_config("lanprobe"), "\nconfig 'main' 'cfg'\n\tlist 'l' 'x'\n\tlist 'l' 'x'\n\tlist 'l' 'y'\n\n");

        // Slot form: several changes, one context, one commit.
        struct uci_context *ctx = nullptr;
        out = capture_stdout([&] { EXPECT_EQ(_uci_set_value(&ctx, "other", "s", "v", "2"), 0); });
        EXPECT_EQ(messages(out), "Info: p_uci_str:other.s.v, p_value:2\nDebug: p_uci.uci_type:4\n"
                                 "Debug: p_uci.package:other\nDebug: p_uci.section:s\nDebug: p_uci.option:v\n"
                                 "Debug: p_uci.value:2\nInfo: Success to set other.s.v = 2, not commit yet\n");
        ASSERT_NE(ctx, nullptr);
        struct uci_context *first = ctx;
        EXPECT_EQ(_uci_add_list(&ctx, "other", "s", "w", "a"), 0);
        EXPECT_EQ(_uci_del_add_list(&ctx, "other", "s", "v", "2"), 0); // string "2" -> [2, 2]
        EXPECT_EQ(ctx, first) << "the same context is handed back";
        EXPECT_EQ(read_config("other"), "config o 's'\n\toption v '1'\n") << "nothing written yet";
        struct uci_package *p = uci_lookup_package(ctx, "other");
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
        EXPECT_EQ(read_config("other"), "\nconfig 'o' 's'\n\tlist 'v' '2'\n\tlist 'v' '2'\n\tlist 'w' 'a'\n\n");
        // _uci_commit loads lanprobe into the context and commits it (nothing to write here).
        out = capture_stdout([&] { EXPECT_EQ(_uci_commit(ctx), 0); });
        EXPECT_EQ(messages(out), "Debug: success commit\n");

        // A failing change frees the context and clears the slot.
        ctx = nullptr;
        EXPECT_EQ(_uci_set_value(&ctx, "lanprobe", "cfg", "z", "1"), 0);
        ASSERT_NE(ctx, nullptr);
        out = capture_stdout([&] { EXPECT_EQ(_uci_set_value(&ctx, "lanprobe", "nosec", "z", "1"), -1); });
        EXPECT_NE(messages(out).find("Error: fail to set ptr lanprobe.nosec.z (ret:2)\n"), std::string::npos);
        EXPECT_EQ(ctx, nullptr);
        // lanprobe already auto-loaded in the context: the load inside _uci_commit is a duplicate.
        EXPECT_EQ(_uci_set_value(&ctx, "lanprobe", "cfg", "z", "1"), 0);
        out = capture_stdout([&] { EXPECT_EQ(_uci_commit(ctx), -1); });
        EXPECT_EQ(messages(out), "Error: fail to commit lanprobe\n");
        EXPECT_EQ(_uci_delete(&ctx, "lanprobe", "cfg", nullptr), -1);
        EXPECT_EQ(_uci_commit(nullptr), -1);
    });
}

TEST(UciAccess, StrlcpyN)
{
    struct Case {
        const char *src;
        size_t size;
        const char *expect;
    } cases[] = {
        {"hello", 10, "hello"}, {"hello", 6, "hello"}, {"hello", 5, "hell"}, {"hello", 1, ""}, {"", 4, ""},
    };
    for (const Case &c : cases) {
        char dst[16];
        memset(dst, '#', sizeof(dst));
        EXPECT_EQ(strlcpy_n(dst, c.src, c.size), strlen(c.src)) << c.src << "/" << c.size;
        EXPECT_STREQ(dst, c.expect) << c.src << "/" << c.size;
        EXPECT_EQ(dst[strlen(c.expect) + 1], '#') << "nothing written past the terminator";
    }
    char dst[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(strlcpy_n(dst, "abc", 0), 3u);
    EXPECT_EQ(memcmp(dst, "####", 4), 0) << "size 0 writes nothing, not even a terminator";
}

} // namespace
