// Log line format, level filter and the sink redirection of descriptors 0-2.
// Everything that touches descriptors runs in a forked child whose standard
// output is a pipe; the sink cases also give the child a private mount
// namespace with its own /tmp and /dev/console.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "support/log.h"

namespace {

struct ChildRun {
    int status = -1;
    std::string out;
};

// Runs fn in a child with stdout on a pipe; fn's result is the exit status.
ChildRun RunChild(const std::function<int()> &fn)
{
    ChildRun run;
    int p[2];
    if (pipe(p) != 0)
        return run;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        dup2(p[1], 1);
        close(p[1]);
        int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    close(p[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(p[0], buf, sizeof(buf))) > 0)
        run.out.append(buf, static_cast<size_t>(n));
    close(p[0]);
    waitpid(pid, &run.status, 0);
    return run;
}

// In the child: private mounts, an empty tmpfs on /tmp, and a regular file
// standing in for /dev/console.
bool PrivateTmpAndConsole()
{
    if (unshare(CLONE_NEWNS) != 0)
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "size=4m") != 0)
        return false;
    int fd = open("/tmp/console", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
        return false;
    close(fd);
    return mount("/tmp/console", "/dev/console", nullptr, MS_BIND, nullptr) == 0;
}

std::string ReadFile(const char *path)
{
    std::string s;
    FILE *fp = fopen(path, "r");
    if (!fp)
        return s;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0)
        s.append(buf, n);
    fclose(fp);
    return s;
}

void WriteFile(const char *path, const std::string &text)
{
    FILE *fp = fopen(path, "w");
    if (!fp)
        return;
    fwrite(text.data(), 1, text.size(), fp);
    fclose(fp);
}

bool SameFile(int fd, const struct stat &st)
{
    struct stat now;
    return fstat(fd, &now) == 0 && now.st_dev == st.st_dev && now.st_ino == st.st_ino;
}

std::vector<std::string> Lines(const std::string &text)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', start)) {
        out.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    if (start < text.size())
        out.push_back(text.substr(start));
    return out;
}

int g_debug_line;
void EmitDebugLine()
{
    g_debug_line = __LINE__ + 1;
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: %s!\n", "uloop_proto_detect_start");
}

void EmitOnePerLevel()
{
    LOG_MSG(LOG_LEVEL_CRITICAL, "init_all_eth_device failed!\n");
    LOG_MSG(LOG_LEVEL_ERROR, "e%d\n", 3);
    LOG_MSG(LOG_LEVEL_WARNING, "w%d\n", 4);
    LOG_MSG(LOG_LEVEL_NOTICE, "n%d\n", 5);
    LOG_MSG(LOG_LEVEL_INFO, "i%d\n", 6);
    LOG_MSG(LOG_LEVEL_DEBUG, "d%d\n", 7);
}

TEST(LogTest, LineFormat)
{
    struct sysinfo before;
    ASSERT_EQ(sysinfo(&before), 0);
    ChildRun run = RunChild([] {
        log_set_level(LOG_LEVEL_DEBUG);
        EmitDebugLine();
        printf("line=%d\n", g_debug_line);
        return 0;
    });
    struct sysinfo after;
    ASSERT_EQ(sysinfo(&after), 0);
    ASSERT_EQ(run.status, 0);

    std::smatch m;
    std::regex re(
        "^\\[lanprobe\\]\\[Debug\\]\\[(-?[0-9]+)\\]\\[EmitDebugLine:([0-9]+)\\]: "
        "Entering function: uloop_proto_detect_start!\nline=([0-9]+)\n$");
    ASSERT_TRUE(std::regex_match(run.out, m, re)) << run.out;
    long uptime = std::stol(m[1]);
    EXPECT_GE(uptime, before.uptime);
    EXPECT_LE(uptime, after.uptime);
    EXPECT_EQ(m[2], m[3]);
}

TEST(LogTest, LevelFilter)
{
    const char *words[] = {"Critical", "Error", "Warning", "Notice", "Info", "Debug"};
    for (int level = 0; level <= 8; level++) {
        ChildRun run = RunChild([level] {
            log_set_level(level);
            if (log_get_level() != level)
                return 2;
            EmitOnePerLevel();
            return 0;
        });
        ASSERT_EQ(run.status, 0) << level;
        std::vector<std::string> lines = Lines(run.out);
        int expected = level < 2 ? 0 : std::min(level, 7) - 1;
        ASSERT_EQ(static_cast<int>(lines.size()), expected) << "level " << level << ":\n" << run.out;
        for (int i = 0; i < expected; i++)
            EXPECT_EQ(lines[i].rfind(std::string("[lanprobe][") + words[i] + "][", 0), 0u) << lines[i];
    }
    // Start value before any set-up: Error and above.
    ChildRun run = RunChild([] { return log_get_level(); });
    EXPECT_EQ(WEXITSTATUS(run.status), LOG_LEVEL_ERROR);
}

// The log file, when present, takes the lines from its first byte on, without
// being truncated; log_done gives back the inherited descriptors, and the lines
// still buffered are flushed into the sink before that.
TEST(LogTest, SinkIsExistingLogFile)
{
    ChildRun run = RunChild([] {
        if (!PrivateTmpAndConsole())
            return 10;
        WriteFile(LANPROBE_LOG_LOG_FILE, std::string(400, '#'));
        struct stat orig[3];
        for (int fd = 0; fd < 3; fd++)
            fstat(fd, &orig[fd]);

        log_set_level(LOG_LEVEL_DEBUG);
        log_init();
        struct stat sink;
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
        printf("--file--\n%s", ReadFile(LANPROBE_LOG_LOG_FILE).c_str());
        printf("\n--console--\n%s", ReadFile("/tmp/console").c_str());
        return 0;
    });
    ASSERT_EQ(WEXITSTATUS(run.status), 0) << run.out;
    std::regex re(
        "^--file--\n"
        "\\[lanprobe\\]\\[Info\\]\\[[0-9]+\\]\\[operator\\(\\):[0-9]+\\]: first\n"
        "\\[lanprobe\\]\\[Error\\]\\[[0-9]+\\]\\[operator\\(\\):[0-9]+\\]: second 2\n"
        "(#+)\n--console--\n$");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(run.out, m, re)) << run.out;
    // Overwritten in place: the old content's tail is still there.
    size_t written = run.out.find("#") - strlen("--file--\n");
    EXPECT_EQ(written + m[1].length(), 400u);
}

TEST(LogTest, SinkIsConsoleWithoutLogFile)
{
    ChildRun run = RunChild([] {
        if (!PrivateTmpAndConsole())
            return 10;
        log_set_level(LOG_LEVEL_DEBUG);
        log_init();
        LOG_MSG(LOG_LEVEL_DEBUG, "to console\n");
        log_done();
        if (access(LANPROBE_LOG_LOG_FILE, F_OK) == 0)
            return 11;
        printf("%s", ReadFile("/tmp/console").c_str());
        return 0;
    });
    ASSERT_EQ(WEXITSTATUS(run.status), 0) << run.out;
    std::regex re("^\\[lanprobe\\]\\[Debug\\]\\[[0-9]+\\]\\[operator\\(\\):[0-9]+\\]: to console\n$");
    EXPECT_TRUE(std::regex_match(run.out, re)) << run.out;
}

}  // namespace
