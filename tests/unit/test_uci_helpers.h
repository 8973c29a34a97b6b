// Helpers shared by the libuci and configuration access tests: temporary
// configuration directories, capture of stdout/stderr, and a child process
// that sees a fixture directory as /etc/config.
#ifndef LANPROBE_TESTS_TEST_UCI_HELPERS_H
#define LANPROBE_TESTS_TEST_UCI_HELPERS_H

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace uci_test {

// A fresh directory under /tmp, removed with its files at the end of the scope.
class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/lp_uci_XXXXXX";
        path_ = mkdtemp(tmpl) ? tmpl : "";
    }
    ~TempDir()
    {
        if (!path_.empty())
            std::system(("rm -rf '" + path_ + "'").c_str());
    }
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

    void write(const std::string &name, const std::string &content) const
    {
        FILE *f = fopen(file(name).c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(fwrite(content.data(), 1, content.size(), f), content.size());
        fclose(f);
    }
    std::string read(const std::string &name) const
    {
        std::string out;
        FILE *f = fopen(file(name).c_str(), "rb");
        if (!f)
            return "<missing>";
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
            out.append(buf, n);
        fclose(f);
        return out;
    }

private:
    std::string path_;
};

// Runs fn with descriptor fd (1 or 2) sent to a file; returns what was written.
inline std::string capture_fd(int fd, const std::function<void()> &fn)
{
    fflush(stdout);
    fflush(stderr);
    char tmpl[] = "/tmp/lp_uci_out_XXXXXX";
    int tmp = mkstemp(tmpl);
    unlink(tmpl);
    int saved = dup(fd);
    dup2(tmp, fd);
    fn();
    fflush(stdout);
    fflush(stderr);
    dup2(saved, fd);
    close(saved);
    std::string out;
    lseek(tmp, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(tmp, buf, sizeof(buf))) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(tmp);
    return out;
}

inline std::string capture_stderr(const std::function<void()> &fn) { return capture_fd(2, fn); }
inline std::string capture_stdout(const std::function<void()> &fn) { return capture_fd(1, fn); }

// Runs body in a child that has its own mount namespace in which dir is
// /etc/config.  The host's /etc is not touched: the child mounts a tmpfs over
// /etc first when there is no /etc/config to bind onto.  The child's gtest
// failures are printed by the child and reported here by its exit status.
inline void run_with_etc_config(const std::string &dir, const std::function<void()> &body)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        bool ok = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        struct stat st;
        if (ok && stat("/etc/config", &st) != 0)
            ok = mount("tmpfs", "/etc", "tmpfs", 0, "mode=0755") == 0 && mkdir("/etc/config", 0755) == 0;
        ok = ok && mount(dir.c_str(), "/etc/config", nullptr, MS_BIND, nullptr) == 0;
        if (!ok) {
            fprintf(stderr, "cannot set up /etc/config in a mount namespace\n");
            _exit(2);
        }
        body();
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "checks in the namespace child failed";
}

} // namespace uci_test

#endif
