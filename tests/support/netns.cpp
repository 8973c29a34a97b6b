#include "support/netns.h"

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define LPTEST_LEAK_CHECK 1
#endif

namespace lptest {

namespace {

constexpr const char kScratch[] = "/tmp/.lptest";
constexpr const char kConfigDir[] = "/tmp/.lptest/config";
int g_peer_counter = 0;
int g_capture_counter = 0;

bool exists(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

}  // namespace

// Everything the child needs before the test body runs.  Any failure here is
// reported and ends the child with a distinct status.
bool enter_namespaces()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        perror("unshare(CLONE_NEWNET|CLONE_NEWNS)");
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("mount --make-rprivate /");
        return false;
    }
    // The inherited /sys still shows the host's interfaces; a sysfs mounted
    // from inside the new network namespace shows ours.
    if (mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
        perror("mount sysfs");
        return false;
    }
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        perror("mount tmpfs /tmp");
        return false;
    }
    if (mkdir(kScratch, 0700) != 0 || mkdir(kConfigDir, 0755) != 0) {
        perror("mkdir scratch");
        return false;
    }
    if (!exists("/etc/config")) {
        // No /etc/config on this host: lay a throw-away overlay over /etc so
        // the mount point can be created without writing to the host.
        std::string upper = std::string(kScratch) + "/etc-upper";
        std::string work = std::string(kScratch) + "/etc-work";
        if (mkdir(upper.c_str(), 0755) != 0 || mkdir(work.c_str(), 0755) != 0) {
            perror("mkdir overlay dirs");
            return false;
        }
        std::string opts = "lowerdir=/etc,upperdir=" + upper + ",workdir=" + work;
        if (mount("overlay", "/etc", "overlay", 0, opts.c_str()) != 0) {
            perror("mount overlay /etc");
            return false;
        }
        if (mkdir("/etc/config", 0755) != 0) {
            perror("mkdir /etc/config");
            return false;
        }
    }
    if (mount(kConfigDir, "/etc/config", nullptr, MS_BIND, nullptr) != 0) {
        perror("bind /etc/config");
        return false;
    }
    // Loopback up, as on any router; nothing in the tests sends through it.
    return system("ip link set lo up") == 0;
}

void run_in_netns(const std::function<void()> &body)
{
    // The child inherits the failures the test has recorded so far; only
    // the ones it adds itself decide its exit status.
    const ::testing::TestResult *result =
        ::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int parts_before = result->total_part_count();
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0) << "fork failed";
    if (pid == 0) {
        if (!enter_namespaces()) {
            fflush(nullptr);
            _exit(3);
        }
        body();
        bool failed = false;
        for (int i = parts_before; i < result->total_part_count(); i++)
            failed = failed || result->GetTestPartResult(i).failed();
#ifdef LPTEST_LEAK_CHECK
        // _exit skips the leak check that would run at exit; run it here so
        // the code under test is checked for leaks inside the namespace too.
        if (__lsan_do_recoverable_leak_check() != 0) {
            fprintf(stderr, "memory leaked inside the namespace\n");
            failed = true;
        }
#endif
        fflush(nullptr);
        _exit(failed ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "test child died from signal " << WTERMSIG(status);
    ASSERT_NE(WEXITSTATUS(status), 3) << "could not set up the namespaces";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "assertions failed inside the namespace (see above)";
}

namespace {
std::string read_back(FILE *f)
{
    std::string s;
    char buf[4096];
    rewind(f);
    for (size_t n; (n = fread(buf, 1, sizeof(buf), f)) > 0;)
        s.append(buf, n);
    fclose(f);
    return s;
}
}  // namespace

ChildRun run_child(const std::function<int()> &fn)
{
    ChildRun run;
    FILE *out = tmpfile(), *err = tmpfile();
    fflush(nullptr);
    pid_t pid = out && err ? fork() : -1;
    if (pid == 0) {
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid)
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (out)
        run.out = read_back(out);
    if (err)
        run.err = read_back(err);
    return run;
}

const char *config_dir()
{
    return "/etc/config";
}

bool sh(const std::string &cmd)
{
    fflush(nullptr);
    int rc = system(cmd.c_str());
    return rc != -1 && WIFEXITED(rc) && WEXITSTATUS(rc) == 0;
}

bool write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return !out.fail();
}

bool write_config(const std::string &package, const std::string &text)
{
    return write_file(std::string(config_dir()) + "/" + package, text);
}

void remove_config(const std::string &package)
{
    unlink((std::string(config_dir()) + "/" + package).c_str());
}

bool add_bridge(const std::string &br)
{
    return sh("ip link add " + br + " type bridge");
}

bool add_ports(const std::string &br, const std::vector<std::string> &names)
{
    // One ip process for the lot: a hundred ports would otherwise take two
    // hundred process starts.
    std::string batch = std::string(kScratch) + "/ports.batch";
    std::ostringstream cmds;
    for (const auto &name : names) {
        cmds << "link add " << name << " type veth peer name lpp" << g_peer_counter++ << "\n";
        cmds << "link set " << name << " master " << br << "\n";
    }
    if (!write_file(batch, cmds.str()))
        return false;
    bool ok = sh("ip -batch " + batch);
    unlink(batch.c_str());
    return ok;
}

bool del_link(const std::string &name)
{
    return sh("ip link del " + name);
}

StdoutCapture::StdoutCapture(int fd_to_capture) : fd_(fd_to_capture)
{
    fflush(nullptr);
    path_ = std::string("/tmp/.lptest-capture-") + std::to_string(getpid()) + "-" +
            std::to_string(g_capture_counter++);
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
        return;
    saved_ = dup(fd_);
    dup2(fd, fd_);
    close(fd);
}

StdoutCapture::~StdoutCapture()
{
    stop();
}

std::string StdoutCapture::stop()
{
    if (saved_ < 0)
        return {};
    fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
    std::ifstream in(path_, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    unlink(path_.c_str());
    return text.str();
}

size_t count_of(const std::string &text, const std::string &needle)
{
    if (needle.empty())
        return 0;
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos;
         at = text.find(needle, at + needle.size()))
        n++;
    return n;
}

size_t pos_of(const std::string &text, const std::string &needle)
{
    return text.find(needle);
}

}  // namespace lptest
