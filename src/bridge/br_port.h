// Member ports of a Linux bridge: the sysfs walk of /sys/class/net/<br>/brif,
// the legacy SIOCDEVPRIVATE walk when that directory cannot be listed, and the
// bridge control socket the legacy requests are issued on.
#ifndef LANPROBE_BRIDGE_BR_PORT_H
#define LANPROBE_BRIDGE_BR_PORT_H

#include <dirent.h>
#include <stdio.h>

#define MAX_BR_PORTS 100
// Slots of the interface-index array the legacy port-list request fills.
#define BR_PORT_LIST_SLOTS 1024
// Every sysfs path built here fits in this buffer; longer paths are cut.
#define BR_PATH_LEN 300

#ifndef SIOCDEVPRIVATE
#define SIOCDEVPRIVATE 0x89F0
#endif
#define BRCTL_GET_PORT_LIST 7

// Called once per port: port name, bridge port number (-1 when unreadable),
// 1-based position in the walk, user argument.  The walk ignores the result.
typedef int (*br_port_cb)(const char *name, int port_no, int position, void *arg);

int update_brlan_dev_from_sys(const char *brname, void *arg);
int br_foreach_port(const char *brname, br_port_cb cb, void *arg);
int old_foreach_port(const char *brname, br_port_cb cb, void *arg);
int fetch_int(const char *dir, const char *name);
FILE *open_attr_file(const char *dir, const char *name);
int port_name_compare(const struct dirent **a, const struct dirent **b);
// A new AF_UNIX stream socket to issue bridge ioctls on, or -92 (errno kept).
int br_init(void);

#endif
