// What the C++ tests share: a child in namespaces of its own, files, captured
// output and byte strings written as hex.
#ifndef LANPROBE_TESTS_SUPPORT_TESTKIT_H
#define LANPROBE_TESTS_SUPPORT_TESTKIT_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace tk {

// Runs body in a forked child inside new network and mount namespaces: a
// sysfs of that network namespace, a fresh tmpfs on /tmp and an empty
// writable /etc/config (the host's files are never written).  gtest failures
// inside body fail the calling test; so does a crash of the child.
void in_netns(const std::function<void()> &body);

// Runs a shell command; true when it exited with status 0.
bool sh(const std::string &cmd);
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);

// Everything written to descriptor fd (1 by default: the log) until text().
class Capture {
public:
    explicit Capture(int fd = 1);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
    std::string text();  // restores the descriptor

private:
    int fd_, saved_;
    FILE *file_;
};

// The log lines in out as "Level: message", their prefix cut.
std::string messages(const std::string &out);

// "ff 00 1a" -> bytes; blanks are ignored.
std::vector<uint8_t> hex(const std::string &text);
size_t count(const std::string &text, const std::string &needle);

}  // namespace tk

#endif
