// Bridge port enumeration: sysfs first, the legacy bridge ioctl as fallback.
#include "bridge/br_port.h"

#include <errno.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "registry/device_table.h"
#include "support/fd_guard.h"
#include "support/log.h"
#include "support/result_codes.h"

namespace {

constexpr const char SYSFS_NET[] = "/sys/class/net/";

// Owns the array scandir() hands back, and every entry in it, so each way
// out of the walk (including the stop at MAX_BR_PORTS) releases the listing.
class DirListing {
public:
    DirListing() = default;
    ~DirListing()
    {
        if (!entries_)
            return;
        for (int i = 0; i < count_; i++)
            free(entries_[i]);
        free(entries_);
    }
    DirListing(const DirListing &) = delete;
    DirListing &operator=(const DirListing &) = delete;

    // Fills the listing; false when the directory cannot be listed.
    bool scan(const char *dir)
    {
        count_ = scandir(dir, &entries_, nullptr, port_name_compare);
        if (count_ < 0) {
            entries_ = nullptr;
            count_ = 0;
            return false;
        }
        return true;
    }
    int size() const { return count_; }
    const char *name(int i) const { return entries_[i]->d_name; }

private:
    struct dirent **entries_ = nullptr;
    int count_ = 0;
};

class FileGuard {
public:
    explicit FileGuard(FILE *f) : f_(f) {}
    ~FileGuard()
    {
        if (f_)
            fclose(f_);
    }
    FileGuard(const FileGuard &) = delete;
    FileGuard &operator=(const FileGuard &) = delete;
    FILE *get() const { return f_; }

private:
    FILE *f_;
};

bool is_dot_entry(const char *name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

bool has_eth_prefix(const char *name)
{
    return strncmp(name, "eth", 3) == 0;
}

// Bridge port number of one port, -1 when the kernel would not tell it; the
// walk that asks (op) logs the number.
int read_port_no(const char *port_dir, const char *port_name, const char *op)
{
    int port_no = fetch_int(port_dir, "port_no");
    if (port_no >= 0) {
        LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "success get dev:%s index:%d\n", port_name, port_no);
        return port_no;
    }
    return -1;
}

}  // namespace

int update_brlan_dev_from_sys(const char *brname, void *arg)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: update_brlan_dev_from_sys!\n");
    int ret = br_foreach_port(brname, add_br_device, arg);
    if (ret < 0)
        LOG_MSG(LOG_LEVEL_ERROR, " Can't get port info: %s\n", strerror(-ret));
    else
        LOG_MSG(LOG_LEVEL_INFO, "Parse lan devices success, count:%d\n", ret);
    return ret;
}

int br_foreach_port(const char *brname, br_port_cb cb, void *arg)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: br_foreach_port!\n");

    char path[BR_PATH_LEN];
    snprintf(path, sizeof(path), "%s%s/brif", SYSFS_NET, brname);

    DirListing listing;
    if (!listing.scan(path))
        return old_foreach_port(brname, cb, arg);

    int count = 0;
    for (int i = 0; i < listing.size(); i++) {
        const char *name = listing.name(i);
        // "." and ".." are not ports, but they keep their places in the
        // numbering: the position handed over is the index in the listing.
        if (is_dot_entry(name))
            continue;
        if (count >= MAX_BR_PORTS) {
            LOG_MSG(LOG_LEVEL_ERROR, "Parse lan device number more than %d, Ignore others!\n",
                    MAX_BR_PORTS);
            break;
        }
        memset(path, 0, sizeof(path));
        snprintf(path, sizeof(path), "%s%s/brif/%s", SYSFS_NET, brname, name);
        int port_no = read_port_no(path, name, __func__);
        cb(name, port_no, i + 1, arg);
        count++;
    }
    return count;
}

int old_foreach_port(const char *brname, br_port_cb cb, void *arg)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: old_foreach_port!\n");

    int ifindices[BR_PORT_LIST_SLOTS];
    memset(ifindices, 0, sizeof(ifindices));
    // The kernel reads this block as machine words: unsigned long is 32 bits
    // on 32-bit targets and 64 bits on 64-bit ones, exactly like its own view.
    unsigned long args[4] = {BRCTL_GET_PORT_LIST, reinterpret_cast<unsigned long>(ifindices),
                             BR_PORT_LIST_SLOTS, 0};

    int fd = br_init();
    // Descriptor 0 counts as a failure too; the guard still closes it.
    FdGuard sock(fd);
    if (fd <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "br_init fail: %s\n", strerror(errno));
        return 0;
    }

    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    // Zeroed first and cut one byte short, so the name stays terminated
    // even when the caller's name is longer than the kernel allows.
    strncpy(ifr.ifr_name, brname, IFNAMSIZ - 1);
    ifr.ifr_data = reinterpret_cast<char *>(args);
    if (ioctl(sock.get(), SIOCDEVPRIVATE, &ifr) < 0) {
        int err = errno;
        LOG_MSG(LOG_LEVEL_ERROR, "list ports for bridge:'%s' failed: %s\n", brname, strerror(err));
        return -err;
    }

    // The kernel fills the slot numbered by each port's port number.
    int count = 0;
    for (int i = 0; i < BR_PORT_LIST_SLOTS; i++) {
        if (ifindices[i] == 0)
            continue;
        char ifname[IF_NAMESIZE + 1];
        memset(ifname, 0, sizeof(ifname));
        if (!if_indextoname(static_cast<unsigned>(ifindices[i]), ifname)) {
            LOG_MSG(LOG_LEVEL_ERROR, "can't find name for ifindex:%d\n", ifindices[i]);
            continue;
        }
        char path[BR_PATH_LEN];
        snprintf(path, sizeof(path), "%s%s/brif/%s", SYSFS_NET, brname, ifname);
        int port_no = read_port_no(path, ifname, __func__);
        if (count >= MAX_BR_PORTS) {
            LOG_MSG(LOG_LEVEL_ERROR, "Parse lan device number more than %d!\n", MAX_BR_PORTS);
            break;
        }
        cb(ifname, port_no, i + 1, arg);
        count++;
    }
    return count;
}

FILE *open_attr_file(const char *dir, const char *name)
{
    char path[BR_PATH_LEN];
    // A longer path is cut to the buffer, like every path built here; cut, it
    // names no attribute file and the open fails.
    if (snprintf(path, sizeof(path), "%s/%s", dir, name) >= static_cast<int>(sizeof(path)))
        path[sizeof(path) - 1] = '\0';
    return fopen(path, "r");
}

int fetch_int(const char *dir, const char *name)
{
    FileGuard f(open_attr_file(dir, name));
    if (!f.get()) {
        LOG_MSG(LOG_LEVEL_INFO, "Failed to open %s/%s, not a br-lan deive\n", dir, name);
        return -1;
    }
    // "%i" takes the base from the text: the kernel writes port_no in hex
    // with a 0x prefix.
    int value = -1;
    if (fscanf(f.get(), "%i", &value) != 1)
        return -1;
    return value;
}

int port_name_compare(const struct dirent **a, const struct dirent **b)
{
    // Switch ports ("eth...") first, then everything else; strcoll within
    // each group.  The locale is the C locale the process starts in.
    bool a_eth = has_eth_prefix((*a)->d_name);
    bool b_eth = has_eth_prefix((*b)->d_name);
    if (a_eth != b_eth)
        return a_eth ? -1 : 1;
    return strcoll((*a)->d_name, (*b)->d_name);
}

int br_init(void)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return LP_ERR_SOCKET;
    return fd;
}
