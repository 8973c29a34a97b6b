// The command line: argv in, option record, go/stop result and console text
// out.  Each case parses in a forked child (getopt keeps global state, and a
// valid -d redirects descriptors 0-2 to the log sink) inside private
// namespaces whose /tmp holds a log file, so the sink never reaches the real
// console.  Console text goes to a pipe named by /proc/self/fd/N.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/startup.h"
#include "support/log.h"
#include "support/netns.h"

namespace {

const char kUsage[] =
    "Usage: lanprobe -d/--debug [0(emergy)~7(debug)] to specify the debug level.\n"
    "\t\t-t/--time_ms [1000~8000] to specify the timeout.\n"
    "\t\t-v/--device [eth*] to specify the device to detect, or will detect in all lan devices in "
    "default\n";
const char kHint[] = "Try: lanprobe --help for more information!\n";

struct Parsed {
    bool ok = false;
    int rc = -1;
    unsigned level = 0;
    unsigned time_ms = 0;
    std::string device;
    int sinks = -1;  // descriptors taken by log sink set-up (0 = never set up)
    int stdout_is_log = 0;
    std::string console;
};

int LowestFreeFd()
{
    int fd = dup(0);
    close(fd);
    return fd;
}

Parsed Parse(const std::vector<std::string> &args)
{
    lptest::ChildRun run = lptest::run_child([&] {
        int out = dup(1), con[2];
        if (!lptest::enter_namespaces() || !lptest::write_file(LANPROBE_LOG_LOG_FILE, "") || pipe(con) != 0)
            return 10;
        std::vector<char *> argv{const_cast<char *>("lanprobe")};
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        char console[64];
        snprintf(console, sizeof(console), "/proc/self/fd/%d", con[1]);
        t_cmd_option opt{};
        opt.debug_level = LOG_LEVEL_CRITICAL;
        int before = LowestFreeFd();
        int rc = parse_cmd_option_on(console, static_cast<int>(argv.size() - 1), argv.data(), &opt);
        int after = LowestFreeFd();
        struct stat log_st, out_st;
        stat(LANPROBE_LOG_LOG_FILE, &log_st);
        fstat(1, &out_st);
        close(con[1]);
        char text[8192];
        ssize_t n = read(con[0], text, sizeof(text) - 1);
        text[n > 0 ? n : 0] = 0;
        // log_init keeps the sink plus three saved descriptors.
        dprintf(out, "%d %u %u %d %d\n%s\n%s", rc, opt.debug_level, opt.time_ms, (after - before) / 4,
                out_st.st_ino == log_st.st_ino && out_st.st_dev == log_st.st_dev, opt.device, text);
        return 0;
    });
    Parsed p;
    size_t nl = run.out.find('\n'), nl2 = run.out.find('\n', nl + 1);
    p.ok = run.status == 0 && nl2 != std::string::npos &&
           sscanf(run.out.c_str(), "%d %u %u %d %d", &p.rc, &p.level, &p.time_ms, &p.sinks, &p.stdout_is_log) == 5;
    if (p.ok) {
        p.device = run.out.substr(nl + 1, nl2 - nl - 1);
        p.console = run.out.substr(nl2 + 1);
    }
    return p;
}

struct Case {
    std::vector<std::string> args;
    int go_on;
    unsigned level;
    unsigned time_ms;
    std::string device;
    int sinks;
    std::string console;
};

TEST(CmdOptionTest, Table)
{
    const std::string name31(31, 'n');
    const Case cases[] = {
        {{}, 1, 2, 0, "", 0, ""},
        {{"-h"}, 0, 2, 0, "", 0, kUsage},
        {{"-h", "-t", "5000"}, 1, 2, 5000, "", 0, std::string(kUsage) + "Success set lanprobe timeout to 5000ms!\n"},
        {{"-t", "5000", "-h"}, 0, 2, 5000, "", 0, std::string("Success set lanprobe timeout to 5000ms!\n") + kUsage},
        {{"-d", "8"}, 1, 2, 0, "", 0, "Invalid option -d 8, Run as default critical debug level!\n"},
        {{"-d", "1"}, 1, 1, 0, "", 1, "Success set lanprobe debug level to 1!\n"},
        {{"-d", "3abc"}, 1, 3, 0, "", 1, "Success set lanprobe debug level to 3abc!\n"},
        {{"-t", "20000"}, 1, 2, 20000, "", 0, "Success set lanprobe timeout to 20000ms!\n"},
        {{"-t", "1"}, 1, 2, 1, "", 0, "Success set lanprobe timeout to 1ms!\n"},
        {{"-t", "20001"}, 1, 2, 0, "", 0, "Invalid option -t 20001, should in range (0,20000]!\n"},
        {{"-t", "abc"}, 1, 2, 0, "", 0, "Invalid option -t 0, should in range (0,20000]!\n"},
        {{"--time_ms=5000ms"}, 1, 2, 5000, "", 0, "Success set lanprobe timeout to 5000ms!\n"},
        {{"-v", "eth1"}, 1, 2, 0, "eth1", 0, "Success specify dhcp detect device: eth1!\n"},
        {{"--device", "eth2", "-v", "eth3"}, 1, 2, 0, "eth3", 0,
         "Success specify dhcp detect device: eth2!\nSuccess specify dhcp detect device: eth3!\n"},
        {{"-v", name31 + "XYZ"}, 1, 2, 0, name31, 0,
         "Success specify dhcp detect device: " + name31 + "XYZ!\n"},
        {{"stray", "-t", "100", "words"}, 1, 2, 100, "", 0, "Success set lanprobe timeout to 100ms!\n"},
        {{"-x"}, 0, 2, 0, "", 0, kHint},
        {{"-t", "100", "-d"}, 0, 2, 100, "", 0, std::string("Success set lanprobe timeout to 100ms!\n") + kHint},
        {{"-x", "-t", "100"}, 1, 2, 100, "", 0, std::string(kHint) + "Success set lanprobe timeout to 100ms!\n"},
    };
    for (const Case &c : cases) {
        std::string what;
        for (const std::string &a : c.args)
            what += "[" + a + "]";
        Parsed p = Parse(c.args);
        ASSERT_TRUE(p.ok) << what;
        EXPECT_EQ(p.rc != 0, c.go_on != 0) << what;
        EXPECT_EQ(p.level, c.level) << what;
        EXPECT_EQ(p.time_ms, c.time_ms) << what;
        EXPECT_EQ(p.device, c.device) << what;
        EXPECT_EQ(p.sinks, c.sinks) << what;
        EXPECT_EQ(p.stdout_is_log != 0, c.sinks > 0) << what;
        EXPECT_EQ(p.console, c.console) << what;
    }
}

// Arguments reach the console literally: nothing a shell would act on is acted on.
TEST(CmdOptionTest, ArgumentsAreNeverInterpreted)
{
    const std::string nasty = "a'b\"c; touch /tmp/x $(touch /tmp/y) `touch /tmp/z` \\n\\t%s%n";
    Parsed p = Parse({"-v", nasty, "-d", nasty});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.console, "Success specify dhcp detect device: " + nasty + "!\nInvalid option -d " + nasty +
                             ", Run as default critical debug level!\n");
    EXPECT_EQ(p.device, nasty.substr(0, 31));
}

// The echo command "echo '<text>' > /dev/console" has 255 bytes (usage: 511);
// a text that makes it longer prints nothing, the option still takes effect.
TEST(CmdOptionTest, OverlongConsoleTextPrintsNothing)
{
    const size_t overhead = strlen("echo '' > /dev/console");
    const size_t fixed = strlen("Success specify dhcp detect device: !");
    const size_t fits = 255 - overhead - fixed;
    Parsed p = Parse({"-v", std::string(fits, 'e')});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.console, "Success specify dhcp detect device: " + std::string(fits, 'e') + "!\n");
    p = Parse({"-v", std::string(fits + 1, 'e')});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.console, "");
    EXPECT_EQ(p.rc, 1);
    EXPECT_EQ(p.device, std::string(31, 'e'));

    p = Parse({"-d", std::string(4000, '9')});
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.console, "");
    EXPECT_EQ(p.level, 2u);
}

}  // namespace
