// The real daemon binary, started the way the router starts it.  Every run
// happens in private mount, PID and network namespaces: /tmp is an empty
// tmpfs, /dev/console is a FIFO the test drains (each console message opens
// the console with O_TRUNC, so a regular file would keep only the last one),
// and the namespace's init process (our code) reaps the forked daemon and
// sees its exit status.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include "support/netns.h"

namespace {

struct Run {
    std::vector<std::string> args;
    bool log_file = false;            // create an empty /tmp/lanprobe.log first
    const char *result_before = nullptr;  // pre-existing /tmp/lanprobe_result content
    int signal = SIGTERM;             // sent to the daemon once it waits in its loop
    bool lan = false;                 // give it a LAN to probe: br-lan, eth0 with a silent host
};

struct Outcome {
    std::string error;                // harness failure, empty when all went well
    int parent_status = -1;           // wait status of the process we started
    std::string result_at_parent_exit;
    bool result_exists_at_parent_exit = false;
    int daemon_pid = 0;               // 0: no forked daemon appeared
    bool signalled = false;           // the daemon was waiting in its loop when signalled
    int daemon_status = -1;
    std::string console;
    std::string result;
    std::string log;
    std::string stderr_text;
};

std::string ReadFile(const char *path, bool *exists = nullptr)
{
    std::string s;
    FILE *fp = fopen(path, "r");
    if (exists)
        *exists = fp != nullptr;
    if (!fp)
        return s;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0)
        s.append(buf, n);
    fclose(fp);
    return s;
}

void WriteFile(const char *path, const char *text)
{
    FILE *fp = fopen(path, "w");
    if (fp) {
        fputs(text, fp);
        fclose(fp);
    }
}

void Put(std::string &out, const std::string &key, const std::string &value)
{
    out += key + " " + std::to_string(value.size()) + "\n" + value;
}

std::map<std::string, std::string> Decode(const std::string &in)
{
    std::map<std::string, std::string> m;
    size_t pos = 0;
    while (pos < in.size()) {
        size_t sp = in.find(' ', pos), nl = in.find('\n', pos);
        if (sp == std::string::npos || nl == std::string::npos || sp > nl)
            break;
        size_t len = std::stoul(in.substr(sp + 1, nl - sp - 1));
        m[in.substr(pos, sp - pos)] = in.substr(nl + 1, len);
        pos = nl + 1 + len;
    }
    return m;
}

bool WaitingInEpoll(pid_t pid)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/syscall", pid);
    std::string s = ReadFile(path);
    if (s.empty())
        return false;
    long nr = strtol(s.c_str(), nullptr, 10);
#ifdef SYS_epoll_wait
    if (nr == SYS_epoll_wait)
        return true;
#endif
#ifdef SYS_epoll_pwait2
    if (nr == SYS_epoll_pwait2)
        return true;
#endif
    return nr == SYS_epoll_pwait;
}

// The only process of the namespace besides init, once the started one is gone.
pid_t FindDaemon()
{
    pid_t found = 0;
    DIR *d = opendir("/proc");
    if (!d)
        return 0;
    while (struct dirent *e = readdir(d)) {
        char *end = nullptr;
        long pid = strtol(e->d_name, &end, 10);
        if (*end == '\0' && pid > 1)
            found = static_cast<pid_t>(pid);
    }
    closedir(d);
    return found;
}

bool ReapWithin(pid_t pid, int *status, int ms)
{
    for (int waited = 0; waited <= ms; waited += 10) {
        pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid)
            return true;
        if (r < 0)
            return false;
        usleep(10 * 1000);
    }
    return false;
}

// br-lan with one port, eth0, behind which the bridge knows a host that never
// answers: the daemon then probes eth0 and waits in its loop until the
// deadline, without ever writing a document of its own accord before it.
bool MakeLan()
{
    return lptest::sh("ip link add br-lan type bridge && ip addr add 192.168.1.1/24 dev br-lan && "
                      "ip link set br-lan up && ip link add eth0 type veth peer name p0 && "
                      "ip link set eth0 master br-lan && ip link set eth0 up && ip link set p0 up && "
                      "bridge fdb add 02:00:00:00:0a:01 dev eth0 master static") &&
           lptest::write_config("network", "config interface 'lan'\n\toption ifname 'eth0'\n") &&
           lptest::write_config("switch", "config switch_port\n\toption port '1'\n"
                                          "\toption ifname 'eth0'\n\toption label 'LAN1'\n");
}

// Runs as PID 1 of the new namespace; returns the encoded outcome.
std::string NamespaceInit(const Run &run)
{
    std::string out;
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0)
        return "error 11\nmount /proc";
    int fifo = open("/tmp/console.fifo", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fifo < 0)
        return "error 10\nopen fifo";
    if (run.log_file)
        WriteFile("/tmp/lanprobe.log", "");
    if (run.result_before)
        WriteFile("/tmp/lanprobe_result", run.result_before);

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
    int status = 0;
    waitpid(child, &status, 0);
    Put(out, "parent_status", std::to_string(status));
    bool exists = false;
    Put(out, "result_at_parent_exit", ReadFile("/tmp/lanprobe_result", &exists));
    Put(out, "result_exists", exists ? "1" : "0");

    pid_t daemon = FindDaemon();
    if (daemon > 0) {
        Put(out, "daemon_pid", std::to_string(daemon));
        bool signalled = false;
        int dstatus = -1;
        bool reaped = false;
        // Wait until it sleeps in the event loop, or has ended by itself.
        for (int waited = 0; waited < 10000 && !reaped; waited += 10) {
            if (waitpid(daemon, &dstatus, WNOHANG) == daemon) {
                reaped = true;
                break;
            }
            if (WaitingInEpoll(daemon)) {
                if (run.signal)
                    kill(daemon, run.signal);
                signalled = true;
                break;
            }
            usleep(10 * 1000);
        }
        if (!reaped && !ReapWithin(daemon, &dstatus, 30000)) {
            kill(daemon, SIGKILL);
            waitpid(daemon, &dstatus, 0);
            Put(out, "error", "daemon did not end");
        }
        Put(out, "signalled", signalled ? "1" : "0");
        Put(out, "daemon_status", std::to_string(dstatus));
    }

    std::string console;
    char buf[4096];
    ssize_t n;
    while ((n = read(fifo, buf, sizeof(buf))) > 0)
        console.append(buf, static_cast<size_t>(n));
    Put(out, "console", console);
    Put(out, "result", ReadFile("/tmp/lanprobe_result"));
    Put(out, "log", ReadFile("/tmp/lanprobe.log"));
    Put(out, "stderr", ReadFile("/tmp/stderr"));
    return out;
}

Outcome Start(const Run &run)
{
    Outcome o;
    int res[2];
    if (pipe2(res, O_CLOEXEC) != 0) {
        o.error = "pipe";
        return o;
    }
    fflush(nullptr);
    pid_t outer = fork();
    if (outer == 0) {
        close(res[0]);
        auto fail = [&](const char *what) {
            std::string msg;
            Put(msg, "error", what);
            (void)!write(res[1], msg.data(), msg.size());
            _exit(1);
        };
        if (!lptest::enter_namespaces())
            fail("namespaces");
        // Before the PID namespace: the first process forked after it (even
        // system()'s shell) would become that namespace's init.
        if (run.lan && !MakeLan())
            fail("lan");
        if (unshare(CLONE_NEWPID) != 0)
            fail("unshare pid");
        if (mkfifo("/tmp/console.fifo", 0600) != 0)
            fail("mkfifo");
        if (mount("/tmp/console.fifo", "/dev/console", nullptr, MS_BIND, nullptr) != 0)
            fail("bind console");
        pid_t init = fork();
        if (init == 0) {
            std::string msg = NamespaceInit(run);
            (void)!write(res[1], msg.data(), msg.size());
            _exit(0);
        }
        int st = 0;
        waitpid(init, &st, 0);
        _exit(WIFEXITED(st) ? WEXITSTATUS(st) : 2);
    }
    close(res[1]);
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(res[0], buf, sizeof(buf))) > 0)
        text.append(buf, static_cast<size_t>(n));
    close(res[0]);
    int st = 0;
    waitpid(outer, &st, 0);

    std::map<std::string, std::string> m = Decode(text);
    o.error = m.count("error") ? m["error"] : "";
    if (!WIFEXITED(st) || WEXITSTATUS(st) != 0)
        o.error += " (namespace exit " + std::to_string(st) + ")";
    if (!m.count("parent_status")) {
        o.error += " no outcome";
        return o;
    }
    o.parent_status = std::stoi(m["parent_status"]);
    o.result_at_parent_exit = m["result_at_parent_exit"];
    o.result_exists_at_parent_exit = m["result_exists"] == "1";
    if (m.count("daemon_pid")) {
        o.daemon_pid = std::stoi(m["daemon_pid"]);
        o.signalled = m["signalled"] == "1";
        o.daemon_status = std::stoi(m["daemon_status"]);
    }
    o.console = m["console"];
    o.result = m["result"];
    o.log = m["log"];
    o.stderr_text = m["stderr"];
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
        bool stderr_text;
    } cases[] = {
        {{"-h"}, Usage(), false},
        {{"--help", "ignored"}, Usage(), false},
        {{"-t", "5000", "-h"}, "Success set lanprobe timeout to 5000ms!\n" + Usage(), false},
        {{"-x"}, Hint(), true},
        {{"-d"}, Hint(), true},
        {{"-v"}, Hint(), true},
        {{"--time_ms"}, Hint(), true},
        {{"-t", "0", "--bogus"}, "Invalid option -t 0, should in range (0,20000]!\n" + Hint(), true},
    };
    for (const Case &c : cases) {
        std::string what = c.args[0];
        Outcome o = Start({c.args, false, "previous run", SIGTERM});
        ASSERT_EQ(o.error, "") << what;
        EXPECT_TRUE(ExitedWith(o.parent_status, 1)) << what << " status " << o.parent_status;
        EXPECT_EQ(o.daemon_pid, 0) << what;
        EXPECT_EQ(o.console, c.console) << what;
        EXPECT_EQ(o.result, "previous run") << what;
        EXPECT_EQ(!o.stderr_text.empty(), c.stderr_text) << what << ": " << o.stderr_text;
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
        {{"-v", std::string(300, 'v')}, SIGTERM, ""},
        {{"-v", "it's; $(echo hi) `id`"}, SIGTERM, "Success specify dhcp detect device: it's; $(echo hi) `id`!\n"},
    };
    for (const Case &c : cases) {
        std::string what = c.args.empty() ? "(none)" : c.args[0];
        what += " sig " + std::to_string(c.signal);
        Outcome o = Start({c.args, false, "previous run", c.signal, true});
        ASSERT_EQ(o.error, "") << what;
        EXPECT_TRUE(ExitedWith(o.parent_status, 0)) << what;
        // Stopped from outside before its deadline: the placeholder stays.
        EXPECT_EQ(o.result, "time 19") << what;
        ASSERT_TRUE(o.result_exists_at_parent_exit) << what;
        EXPECT_EQ(o.result_at_parent_exit, "time 19") << what;
        ASSERT_GT(o.daemon_pid, 1) << what;
        EXPECT_TRUE(o.signalled) << what;
        EXPECT_TRUE(ExitedWith(o.daemon_status, 0)) << what << " status " << o.daemon_status;
        EXPECT_EQ(o.console, c.console) << what;
        EXPECT_EQ(o.stderr_text, "") << what;
    }
}

// With -d 7 and a log file, the SIGTERM handler's line is the file's last
// line: it reaches the sink before the descriptors are given back.
TEST(StartupProcessTest, SigtermLineEndsTheLog)
{
    Outcome o = Start({{"-d", "7"}, true, nullptr, SIGTERM, true});
    ASSERT_EQ(o.error, "");
    EXPECT_TRUE(ExitedWith(o.parent_status, 0));
    EXPECT_EQ(o.console, "Success set lanprobe debug level to 7!\n");
    ASSERT_GT(o.daemon_pid, 1);
    EXPECT_TRUE(ExitedWith(o.daemon_status, 0));
    ASSERT_FALSE(o.log.empty());
    ASSERT_EQ(o.log.back(), '\n');
    size_t last_start = o.log.rfind('\n', o.log.size() - 2);
    std::string last = o.log.substr(last_start == std::string::npos ? 0 : last_start + 1);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        last, m,
        std::regex("\\[lanprobe\\]\\[Error\\]\\[[0-9]+\\]\\[signal_kill:[0-9]+\\]: "
                   "\\[lanprobe\\(pid:([0-9]+)\\)\\] receive signal:15, exit\n")))
        << o.log;
    EXPECT_EQ(std::stoi(m[1]), o.daemon_pid);
    EXPECT_EQ(o.result_at_parent_exit, "time 19");
}

}  // namespace
