#include "fuzz/fuzz_env.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/log.h"

namespace fuzzenv {

namespace {

[[noreturn]] void die(const char *what)
{
    fprintf(stderr, "fuzz sandbox: %s: %s (the fuzz targets need root)\n", what, strerror(errno));
    exit(2);
}

void must_mount(const char *src, const char *dst, const char *type, unsigned long flags,
                const char *opts)
{
    if (mount(src, dst, type, flags, opts) != 0)
        die(dst);
}

}  // namespace

void enter_sandbox(unsigned flags)
{
    int ns = CLONE_NEWNS | ((flags & SANDBOX_NET) ? CLONE_NEWNET : 0);
    if (unshare(ns) != 0)
        die("unshare");
    // Nothing mounted from here on is seen outside this process.
    must_mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    must_mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777");
    if (flags & SANDBOX_ETC_CONFIG) {
        // The host need not have /etc/config: an overlay of /etc (upper layer on
        // the private /tmp) gets the directory without writing to the host.
        if (mkdir("/tmp/.fuzz-etc", 0700) != 0 || mkdir("/tmp/.fuzz-etc/upper", 0700) != 0 ||
            mkdir("/tmp/.fuzz-etc/work", 0700) != 0)
            die("mkdir /tmp/.fuzz-etc");
        must_mount("overlay", "/etc", "overlay", 0,
                   "lowerdir=/etc,upperdir=/tmp/.fuzz-etc/upper,workdir=/tmp/.fuzz-etc/work");
        mkdir("/etc/config", 0755);
        must_mount("tmpfs", "/etc/config", "tmpfs", 0, "mode=0755");
    }
    if (flags & SANDBOX_SYS_NET)
        must_mount("tmpfs", "/sys/class/net", "tmpfs", 0, "mode=0755");
}

void quiet_log_output()
{
    log_set_level(LOG_LEVEL_DEBUG);
    // FUZZ_SHOW_LOG=1 keeps the log lines, to see what a corpus entry reaches.
    const char *show = getenv("FUZZ_SHOW_LOG");
    if (show && strcmp(show, "1") == 0)
        return;
    fflush(stdout);
    int fd = open("/dev/null", O_WRONLY);
    if (fd < 0 || dup2(fd, 1) < 0)
        die("/dev/null");
    close(fd);
}

void must_run(const char *cmd)
{
    if (system(cmd) != 0) {
        fprintf(stderr, "fuzz sandbox: failed: %s\n", cmd);
        exit(2);
    }
}

bool write_file(const char *path, const uint8_t *data, size_t size)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return false;
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0)
            break;
        done += static_cast<size_t>(n);
    }
    close(fd);
    return done == size;
}

bool file_exists(const char *path)
{
    return access(path, F_OK) == 0;
}

int open_fd_count()
{
    DIR *d = opendir("/proc/self/fd");
    if (!d)
        return -1;
    int n = 0;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            n++;
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

}  // namespace fuzzenv
