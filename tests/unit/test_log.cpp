// Log line format, level filter and the sink redirection of descriptors 0-2,
// each in a forked child with its output captured; the sink cases also give
// the child private namespaces with their own /tmp and /dev/console.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "support/log.h"
#include "support/netns.h"

namespace {

using lptest::count_of;
using lptest::run_child;

// In the child: private namespaces and a regular file standing in for /dev/console.
bool PrivateTmpAndConsole()
{
    return lptest::enter_namespaces() && lptest::write_file("/tmp/console", "") &&
           mount("/tmp/console", "/dev/console", nullptr, MS_BIND, nullptr) == 0;
}

std::string ReadFile(const char *path)
{
    std::string s;
    char buf[4096];
    FILE *fp = fopen(path, "r");
    for (size_t n; fp && (n = fread(buf, 1, sizeof(buf), fp)) > 0;)
        s.append(buf, n);
    if (fp)
        fclose(fp);
    return s;
}

bool SameFile(int fd, const struct stat &st)
{
    struct stat now;
    return fstat(fd, &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino;
}

int g_debug_line;
void EmitDebugLine()
{
    g_debug_line = __LINE__ + 1;
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: %s!\n", "uloop_proto_detect_start");
}

TEST(LogTest, LineFormat)
{
    struct sysinfo before, after;
    ASSERT_EQ(sysinfo(&before), 0);
    lptest::ChildRun run = run_child([] {
        log_set_level(LOG_LEVEL_DEBUG);
        EmitDebugLine();
        printf("line=%d\n", g_debug_line);
        return 0;
    });
    ASSERT_EQ(sysinfo(&after), 0);
    ASSERT_EQ(run.status, 0);
    std::smatch m;
    std::regex re("^\\[lanprobe\\]\\[Debug\\]\\[(-?[0-9]+)\\]\\[EmitDebugLine:([0-9]+)\\]: "
                  "Entering function: uloop_proto_detect_start!\nline=([0-9]+)\n$");
    ASSERT_TRUE(std::regex_match(run.out, m, re)) << run.out;
    EXPECT_GE(std::stol(m[1]), before.uptime);
    EXPECT_LE(std::stol(m[1]), after.uptime);
    EXPECT_EQ(m[2], m[3]);
}

TEST(LogTest, LevelFilter)
{
    const char *words[] = {"Critical", "Error", "Warning", "Notice", "Info", "Debug"};
    for (int level : {1, 2, 5, 7, 8}) {
        lptest::ChildRun run = run_child([level] {
            log_set_level(level);
            LOG_MSG(LOG_LEVEL_CRITICAL, "init_all_eth_device failed!\n");
            LOG_MSG(LOG_LEVEL_ERROR, "e%d\n", 3);
            LOG_MSG(LOG_LEVEL_WARNING, "w%d\n", 4);
            LOG_MSG(LOG_LEVEL_NOTICE, "n%d\n", 5);
            LOG_MSG(LOG_LEVEL_INFO, "i%d\n", 6);
            LOG_MSG(LOG_LEVEL_DEBUG, "d%d\n", 7);
            return log_get_level() == level ? 0 : 2;
        });
        ASSERT_EQ(run.status, 0) << level;
        size_t expected = level < 2 ? 0 : std::min(level, 7) - 1;
        EXPECT_EQ(count_of(run.out, "[lanprobe]["), expected) << "level " << level << ":\n" << run.out;
        for (size_t i = 0; i < expected; i++)
            EXPECT_EQ(count_of(run.out, std::string("[lanprobe][") + words[i] + "]["), 1u) << run.out;
    }
    // Start value before any set-up: Error and above.
    EXPECT_EQ(run_child([] { return log_get_level(); }).status, LOG_LEVEL_ERROR);
}

// The log file, when present, takes the lines from its first byte on, without
// being truncated; log_done gives back the inherited descriptors, and the lines
// still buffered are flushed into the sink before that.
TEST(LogTest, SinkIsExistingLogFile)
{
    lptest::ChildRun run = run_child([] {
        if (!PrivateTmpAndConsole() || !lptest::write_file(LANPROBE_LOG_LOG_FILE, std::string(400, '#')))
            return 10;
        struct stat orig[3], sink;
        for (int fd = 0; fd < 3; fd++)
            fstat(fd, &orig[fd]);
        log_set_level(LOG_LEVEL_DEBUG);
        log_init();
        stat(LANPROBE_LOG_LOG_FILE, &sink);
        for (int fd = 0; fd < 3; fd++)
            if (!SameFile(fd, sink))
                return 11 + fd;
        // A second set-up while the sink is open takes no new descriptor.
        int probe = dup(0);
        close(probe);
        log_init();
        int probe2 = dup(0);
        close(probe2);
        if (probe != probe2)
            return 15;
        LOG_MSG(LOG_LEVEL_INFO, "first\n");
        LOG_MSG(LOG_LEVEL_ERROR, "second %d\n", 2);
        log_done();
        for (int fd = 0; fd < 3; fd++)
            if (!SameFile(fd, orig[fd]))
                return 16 + fd;
        if (log_get_level() != 0)
            return 19;
        LOG_MSG(LOG_LEVEL_CRITICAL, "after done\n");
        printf("--file--\n%s\n--console--\n%s", ReadFile(LANPROBE_LOG_LOG_FILE).c_str(),
               ReadFile("/tmp/console").c_str());
        return 0;
    });
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    std::regex re("^--file--\n"
                  "\\[lanprobe\\]\\[Info\\]\\[[0-9]+\\]\\[operator\\(\\):[0-9]+\\]: first\n"
                  "\\[lanprobe\\]\\[Error\\]\\[[0-9]+\\]\\[operator\\(\\):[0-9]+\\]: second 2\n"
                  "(#+)\n--console--\n$");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(run.out, m, re)) << run.out;
    // Overwritten in place: the old content's tail is still there.
    EXPECT_EQ(run.out.find("#") - strlen("--file--\n") + m[1].length(), 400u);
}

TEST(LogTest, SinkIsConsoleWithoutLogFile)
{
    lptest::ChildRun run = run_child([] {
        if (!PrivateTmpAndConsole())
            return 10;
        log_set_level(LOG_LEVEL_DEBUG);
        log_init();
        LOG_MSG(LOG_LEVEL_DEBUG, "to console\n");
        log_done();
        printf("%s", ReadFile("/tmp/console").c_str());
        return access(LANPROBE_LOG_LOG_FILE, F_OK) == 0 ? 11 : 0;
    });
    ASSERT_EQ(run.status, 0) << run.out;
    std::regex re("^\\[lanprobe\\]\\[Debug\\]\\[[0-9]+\\]\\[operator\\(\\):[0-9]+\\]: to console\n$");
    EXPECT_TRUE(std::regex_match(run.out, re)) << run.out;
}

}  // namespace
