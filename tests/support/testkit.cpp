#include "support/testkit.h"

#include "support/namespaces.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace tk {

void in_netns(const std::function<void()> &body)
{
    // The child inherits the results recorded so far; only its own count.
    const ::testing::TestResult *result =
        ::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int before = result->total_part_count();
    fflush(nullptr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (const char *step = enter_namespaces(true)) {
            fprintf(stderr, "namespace set-up failed at: %s\n", step);
            fflush(nullptr);
            _exit(3);
        }
        body();
        bool failed = false;
        for (int i = before; i < result->total_part_count(); i++)
            failed = failed || result->GetTestPartResult(i).failed();
#if defined(__SANITIZE_ADDRESS__)
        // _exit skips the leak check at exit: the code run in here is checked now.
        failed = __lsan_do_recoverable_leak_check() != 0 || failed;
#endif
        fflush(nullptr);
        _exit(failed ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "test child died from signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed inside the namespace (see above)";
}

bool sh(const std::string &cmd)
{
    return system(cmd.c_str()) == 0;
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << path;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

Capture::Capture(int fd) : fd_(fd), saved_(dup(fd)), file_(fdopen(memfd_create("capture", 0), "w+"))
{
    fflush(nullptr);
    dup2(fileno(file_), fd_);
}

Capture::~Capture()
{
    text();
    fclose(file_);
}

std::string Capture::text()
{
    fflush(nullptr);
    if (saved_ >= 0) {
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }
    std::string s;
    char buf[4096];
    rewind(file_);
    for (size_t n; (n = fread(buf, 1, sizeof(buf), file_)) > 0;)
        s.append(buf, n);
    return s;
}

std::string messages(const std::string &out)
{
    return std::regex_replace(out, std::regex(R"(\[lanprobe\]\[(\w+)\]\[-?\d+\]\[\w+:\d+\]: )"), "$1: ");
}

std::vector<uint8_t> hex(const std::string &text)
{
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text)
        if (c != ' ')
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    return out;
}

size_t count(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1))
        n++;
    return n;
}

}  // namespace tk
