// The real daemon binary, started the way the router starts it, in network,
// mount and PID namespaces of its own: br-lan with one port eth0 behind which
// the bridge knows a host that never answers (so the daemon probes and waits
// in its loop until its deadline), /tmp an empty tmpfs, and /dev/console a
// FIFO the test drains (each console message opens the console with O_TRUNC,
// so a regular file would keep only the last one).  The namespace's init (our
// code) reaps the forked daemon and sees its exit status.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/lan.h"
#include "support/netns.h"

namespace {

struct Run {
    std::vector<std::string> args;
    bool log_file = false;                // create an empty /tmp/lanprobe.log first
    const char *result_before = nullptr;  // pre-existing /tmp/lanprobe_result content
    int signal = SIGTERM;                 // sent to the daemon once it waits in its loop
};

struct Outcome {
    int parent_status = -1;               // wait status of the process we started
    std::string result_at_parent_exit;    // "<missing>" when there was no file
    int daemon_pid = 0;                   // 0: no forked daemon appeared
    int signalled = 0;                    // the daemon was waiting in its loop when signalled
    int daemon_status = -1;
    std::string console, result, log, err;
};

std::string ReadFile(const std::string &path, const char *missing = "")
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return in ? ss.str() : missing;
}

bool WaitingInEpoll(pid_t pid)
{
    long nr = strtol(ReadFile("/proc/" + std::to_string(pid) + "/syscall", "-1").c_str(), nullptr, 10);
#ifdef SYS_epoll_wait
    if (nr == SYS_epoll_wait)
        return true;
#endif
    return nr == SYS_epoll_pwait;
}

// The only process of the namespace besides init, once the started one is gone.
pid_t FindDaemon()
{
    pid_t found = 0;
    DIR *d = opendir("/proc");
    while (struct dirent *e = d ? readdir(d) : nullptr) {
        char *end = nullptr;
        long pid = strtol(e->d_name, &end, 10);
        if (*end == '\0' && pid > 1)
            found = static_cast<pid_t>(pid);
    }
    if (d)
        closedir(d);
    return found;
}

// PID 1 of the new namespace: starts the daemon, stops it once it waits in
// its loop, and leaves what it saw in /tmp/outcome and /tmp/at_exit.
int NamespaceInit(const Run &run)
{
    if (unshare(CLONE_NEWNS) != 0 || mount("proc", "/proc", "proc", 0, nullptr) != 0)
        return 10;
    pid_t child = fork();
    if (child == 0) {
        int err = open("/tmp/stderr", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 1);
        dup2(err, 2);
        std::vector<char *> argv{const_cast<char *>(LANPROBE_BINARY)};
        for (const std::string &a : run.args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(LANPROBE_BINARY, argv.data());
        _exit(127);
    }
    int status = 0, dstatus = -1, signalled = 0;
    waitpid(child, &status, 0);
    lptest::write_file("/tmp/at_exit", ReadFile("/tmp/lanprobe_result", "<missing>"));
    pid_t daemon = FindDaemon();
    bool reaped = daemon == 0;
    // Wait until it sleeps in the event loop (or has ended by itself), signal
    // it, and give it 30 s to end.
    for (int waited = 0; !reaped && waited < 40000; waited += 10) {
        reaped = waitpid(daemon, &dstatus, WNOHANG) == daemon;
        if (!reaped && !signalled && WaitingInEpoll(daemon)) {
            kill(daemon, run.signal);
            signalled = 1;
        }
        usleep(10 * 1000);
    }
    if (!reaped) {
        kill(daemon, SIGKILL);
        waitpid(daemon, &dstatus, 0);
    }
    FILE *out = fopen("/tmp/outcome", "w");
    fprintf(out, "%d %d %d %d\n", status, daemon, signalled, reaped ? dstatus : -2);
    fclose(out);
    return 0;
}

// Inside run_in_netns: the LAN, then the run in a PID namespace of its own.
Outcome Start(const Run &run)
{
    Outcome o;
    EXPECT_TRUE(lptest::make_lan(1, "192.168.1.1/24", 0) &&
                lptest::learn_host("eth0", "02:00:00:00:0a:01") &&
                lptest::write_config("network", "config interface 'lan'\n\toption ifname 'eth0'\n") &&
                lptest::write_config("switch", "config switch_port\n\toption port '1'\n"
                                               "\toption ifname 'eth0'\n\toption label 'LAN1'\n"));
    if (run.log_file)
        lptest::write_file("/tmp/lanprobe.log", "");
    if (run.result_before)
        lptest::write_file("/tmp/lanprobe_result", run.result_before);
    EXPECT_EQ(mkfifo("/tmp/console.fifo", 0600), 0);
    EXPECT_EQ(mount("/tmp/console.fifo", "/dev/console", nullptr, MS_BIND, nullptr), 0);
    int fifo = open("/tmp/console.fifo", O_RDONLY | O_NONBLOCK);
    // The first process forked after unshare is the namespace's init; this
    // process stays outside so that it can fork again later.
    lptest::ChildRun ns = lptest::run_child([&] {
        if (unshare(CLONE_NEWPID) != 0)
            return 2;
        pid_t init = fork();
        if (init == 0)
            _exit(NamespaceInit(run));
        int st = 0;
        waitpid(init, &st, 0);
        return WIFEXITED(st) ? WEXITSTATUS(st) : 3;
    });
    EXPECT_EQ(ns.status, 0) << ns.err;
    std::istringstream(ReadFile("/tmp/outcome")) >> o.parent_status >> o.daemon_pid >> o.signalled >>
        o.daemon_status;
    o.result_at_parent_exit = ReadFile("/tmp/at_exit");
    char buf[4096];
    for (ssize_t n; (n = read(fifo, buf, sizeof(buf))) > 0;)
        o.console.append(buf, static_cast<size_t>(n));
    close(fifo);
    o.result = ReadFile("/tmp/lanprobe_result");
    o.log = ReadFile("/tmp/lanprobe.log");
    o.err = ReadFile("/tmp/stderr");
    return o;
}

std::string Usage()
{
    return std::string("Usage: ") + LANPROBE_BINARY +
           " -d/--debug [0(emergy)~7(debug)] to specify the debug level.\n"
           "\t\t-t/--time_ms [1000~8000] to specify the timeout.\n"
           "\t\t-v/--device [eth*] to specify the device to detect, or will detect in all lan "
           "devices in default\n";
}

std::string Hint()
{
    return std::string("Try: ") + LANPROBE_BINARY + " --help for more information!\n";
}

bool ExitedWith(int status, int code)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

// Parsing says stop: status 1, no fork, the result file as it was.
TEST(StartupProcessTest, StopBeforeFork)
{
    struct Case {
        std::vector<std::string> args;
        std::string console;
        bool err;
    } cases[] = {
        {{"-h"}, Usage(), false},
        {{"-t", "5000", "-h"}, "Success set lanprobe timeout to 5000ms!\n" + Usage(), false},
        {{"-x"}, Hint(), true},
        {{"-v"}, Hint(), true},
        {{"-t", "0", "--bogus"}, "Invalid option -t 0, should in range (0,20000]!\n" + Hint(), true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args[0]);
        lptest::run_in_netns([&] {
            Outcome o = Start({c.args, false, "previous run", SIGTERM});
            EXPECT_TRUE(ExitedWith(o.parent_status, 1)) << o.parent_status;
            EXPECT_EQ(o.daemon_pid, 0);
            EXPECT_EQ(o.console, c.console);
            EXPECT_EQ(o.result, "previous run");
            EXPECT_EQ(!o.err.empty(), c.err) << o.err;
        });
    }
}

// The parent leaves at once with status 0 after writing the placeholder; the
// forked daemon runs its loop until a signal and leaves with status 0.
TEST(StartupProcessTest, ForkAndRunUntilSignal)
{
    struct Case {
        std::vector<std::string> args;
        int signal;
        std::string console;
    } cases[] = {
        {{}, SIGTERM, ""},
        {{}, SIGINT, ""},
        {{"-d", "0", "-t", "20001", "-v", "eth9"}, SIGTERM,
         "Invalid option -d 0, Run as default critical debug level!\n"
         "Invalid option -t 20001, should in range (0,20000]!\n"
         "Success specify dhcp detect device: eth9!\n"},
        {{"-h", "-t", "5000"}, SIGTERM, Usage() + "Success set lanprobe timeout to 5000ms!\n"},
        {{"-v", "it's; $(echo hi) `id`"}, SIGTERM, "Success specify dhcp detect device: it's; $(echo hi) `id`!\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE((c.args.empty() ? "(none)" : c.args[0]) + " sig " + std::to_string(c.signal));
        lptest::run_in_netns([&] {
            Outcome o = Start({c.args, false, "previous run", c.signal});
            EXPECT_TRUE(ExitedWith(o.parent_status, 0));
            // Stopped from outside before its deadline: the placeholder stays.
            EXPECT_EQ(o.result_at_parent_exit, "time 19");
            EXPECT_EQ(o.result, "time 19");
            EXPECT_GT(o.daemon_pid, 1);
            EXPECT_EQ(o.signalled, 1);
            EXPECT_TRUE(ExitedWith(o.daemon_status, 0)) << o.daemon_status;
            EXPECT_EQ(o.console, c.console);
            EXPECT_EQ(o.err, "");
        });
    }
}

// With -d 7 and a log file, the SIGTERM handler's line is the file's last
// line: it reaches the sink before the descriptors are given back.
TEST(StartupProcessTest, SigtermLineEndsTheLog)
{
    lptest::run_in_netns([] {
        Outcome o = Start({{"-d", "7"}, true, nullptr, SIGTERM});
        EXPECT_TRUE(ExitedWith(o.parent_status, 0));
        EXPECT_EQ(o.console, "Success set lanprobe debug level to 7!\n");
        EXPECT_TRUE(ExitedWith(o.daemon_status, 0));
        ASSERT_FALSE(o.log.empty());
        size_t last_start = o.log.rfind('\n', o.log.size() - 2);
        std::string last = o.log.substr(last_start == std::string::npos ? 0 : last_start + 1);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(last, m,
                                     std::regex("\\[lanprobe\\]\\[Error\\]\\[[0-9]+\\]\\[signal_kill:[0-9]+\\]: "
                                                "\\[lanprobe\\(pid:([0-9]+)\\)\\] receive signal:15, exit\n")))
            << o.log;
        EXPECT_EQ(std::stoi(m[1]), o.daemon_pid);
        EXPECT_EQ(o.result_at_parent_exit, "time 19");
    });
}

}  // namespace
