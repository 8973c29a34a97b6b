#include "fuzz/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "support/log.h"

namespace fuzz {

void enter_sandbox()
{
    // /etc/config on an overlay of /etc whose upper layer is in the new /tmp:
    // the host's files are never written, and it need not have /etc/config.
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0 || mkdir("/tmp/.up", 0700) != 0 ||
        mkdir("/tmp/.work", 0700) != 0 ||
        mount("overlay", "/etc", "overlay", 0, "lowerdir=/etc,upperdir=/tmp/.up,workdir=/tmp/.work") != 0 ||
        (mkdir("/etc/config", 0755), mount("tmpfs", "/etc/config", "tmpfs", 0, nullptr)) != 0) {
        perror("fuzz sandbox (the targets need root)");
        exit(2);
    }
    log_set_level(LOG_LEVEL_DEBUG);
    const char *show = getenv("FUZZ_SHOW_LOG");
    if (!show || strcmp(show, "1") != 0)
        dup2(open("/dev/null", O_WRONLY), 1);
    uloop_init();
}

int open_fds()
{
    int n = -1;  // the listing's own descriptor
    DIR *d = opendir("/proc/self/fd");
    while (struct dirent *e = d ? readdir(d) : nullptr)
        n += e->d_name[0] != '.';
    if (d)
        closedir(d);
    return n;
}

}  // namespace fuzz
