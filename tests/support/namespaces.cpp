#include "support/namespaces.h"

#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tk {

const char *enter_namespaces(bool net)
{
    if (unshare(CLONE_NEWNS | (net ? CLONE_NEWNET : 0)) != 0)
        return "unshare";
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return "make / private";
    // The inherited /sys shows the host's interfaces; a new one shows ours.
    if (net && mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        return "sysfs";
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0)
        return "tmpfs /tmp";
    // /etc/config may not exist on the host: an overlay of /etc, whose upper
    // layer lives in the new /tmp, lets it be made without touching the host.
    if (mkdir("/tmp/.etc", 0700) != 0 || mkdir("/tmp/.etc/up", 0755) != 0 ||
        mkdir("/tmp/.etc/work", 0755) != 0 ||
        mount("overlay", "/etc", "overlay", 0, "lowerdir=/etc,upperdir=/tmp/.etc/up,workdir=/tmp/.etc/work") != 0)
        return "overlay /etc";
    mkdir("/etc/config", 0755);
    if (mount("tmpfs", "/etc/config", "tmpfs", 0, "mode=0755") != 0)
        return "tmpfs /etc/config";
    return !net || system("ip link set lo up") == 0 ? nullptr : "lo up";
}

}  // namespace tk
