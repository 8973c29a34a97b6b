// Helpers for tests that run against the real kernel inside namespaces of
// their own: a forked child with fresh network and mount namespaces, a sysfs
// of that network namespace, a private /tmp and a writable /etc/config, plus
// small tools to build a bridge with member ports and to capture log output.
#ifndef LANPROBE_TESTS_SUPPORT_NETNS_H
#define LANPROBE_TESTS_SUPPORT_NETNS_H

#include <functional>
#include <string>
#include <vector>

namespace lptest {

// Runs body in a forked child inside new network and mount namespaces:
//  - "/" is made recursively private, so nothing mounted here leaks out;
//  - /sys is a new sysfs showing the child's network namespace;
//  - /tmp is a fresh tmpfs;
//  - /etc/config is an empty writable directory (on an overlay of /etc when
//    the host has no /etc/config, so the host's /etc is never written).
// gtest assertions inside body work as usual: the child prints them and
// exits non-zero, which fails the calling test.  A crash of the child fails
// the test too.
void run_in_netns(const std::function<void()> &body);

// The set-up run_in_netns does in its child, for harnesses that fork on their
// own (for instance to add a PID namespace): new network and mount
// namespaces, a fresh sysfs and /tmp, an empty writable /etc/config, lo up.
// Reports on stderr and returns false when a step fails.
bool enter_namespaces();

// Where fixture configuration files go inside run_in_netns ("/etc/config").
const char *config_dir();

// What a forked child left: its exit status (128 + signal number when a
// signal ended it) and what it wrote to standard output and standard error.
struct ChildRun {
    int status = -1;
    std::string out, err;
};
// Runs fn in a forked child whose standard output and error go to files of
// their own (they survive any namespace the child enters); fn's result is the
// exit status.
ChildRun run_child(const std::function<int()> &fn);

// Runs a shell command; true when it exited with status 0.
bool sh(const std::string &cmd);
// Creates or replaces a file with the given content.
bool write_file(const std::string &path, const std::string &content);
// Writes /etc/config/<package>.
bool write_config(const std::string &package, const std::string &text);
// Removes /etc/config/<package>, if present.
void remove_config(const std::string &package);

// Creates bridge br (down is fine: ports and port numbers do not need it up).
bool add_bridge(const std::string &br);
// Creates one veth pair per name and enslaves the named end to br, in the
// order given (the kernel numbers ports in the order they join).  The peers
// get names of their own ("lpp<n>") and stay outside the bridge.
bool add_ports(const std::string &br, const std::vector<std::string> &names);
// Deletes an interface (and with a veth, its peer).
bool del_link(const std::string &name);

// Redirects standard output (where log lines go), or another descriptor such
// as standard error, into a file until stop().
class StdoutCapture {
public:
    explicit StdoutCapture(int fd = 1);
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;
    // Restores the descriptor and returns what was written meanwhile.
    std::string stop();

private:
    int fd_;
    int saved_ = -1;
    std::string path_;
};

// Number of non-overlapping occurrences of needle in text.
size_t count_of(const std::string &text, const std::string &needle);
// Position of needle in text, or std::string::npos; for order checks.
size_t pos_of(const std::string &text, const std::string &needle);

}  // namespace lptest

#endif
