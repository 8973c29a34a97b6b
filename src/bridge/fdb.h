// The forwarding database of br-lan and the choice of the ports that have
// hosts behind them (t_device::connected).
#ifndef LANPROBE_BRIDGE_FDB_H
#define LANPROBE_BRIDGE_FDB_H

#include <stddef.h>
#include <stdint.h>

#include "registry/device_table.h"

// One record as the kernel delivers it, both through sysfs brforward and the
// legacy ioctl (struct __fdb_entry): 16 bytes, no padding.
struct t_fdb_entry {
    uint8_t mac_addr[6];
    uint8_t port_no;  // low 8 bits of the bridge port number
    uint8_t is_local;
    uint32_t ageing_timer_value;
    uint8_t port_hi;  // bits 8 and up of the port number; not used
    uint8_t pad0;
    uint16_t unused;
};

static_assert(sizeof(t_fdb_entry) == 16, "t_fdb_entry must match the kernel record");
static_assert(offsetof(t_fdb_entry, mac_addr) == 0, "mac_addr at 0");
static_assert(offsetof(t_fdb_entry, port_no) == 6, "port_no at 6");
static_assert(offsetof(t_fdb_entry, is_local) == 7, "is_local at 7");
static_assert(offsetof(t_fdb_entry, ageing_timer_value) == 8, "ageing_timer_value at 8");
static_assert(offsetof(t_fdb_entry, port_hi) == 12, "port_hi at 12");
static_assert(offsetof(t_fdb_entry, pad0) == 13, "pad0 at 13");
static_assert(offsetof(t_fdb_entry, unused) == 14, "unused at 14");

#define FDB_BRIDGE_NAME "br-lan"
#define FDB_CHUNK 64
#define FDB_ENTRY_SIZE 16
#define FDB_COPY_CMD "cp /sys/class/net/%s/brforward /tmp/lanprobe_brforward"
#define FDB_COPY_CMD_LEN 128
#define FDB_COPY_PATH "/tmp/lanprobe_brforward"
#define BRCTL_GET_FDB_ENTRIES 18
#define FDB_IOCTL_ATTEMPTS 10
#ifndef SIOCDEVPRIVATE
#define SIOCDEVPRIVATE 0x89F0
#endif

// Clears connected on every record from first on (table order), then sets it
// on each record whose bridge port number carries a learned, non-local entry.
// 0, or -83 when the database could not be read or was empty.
int update_brlan_valid_dev(t_device *first);

// The selection itself, for update_brlan_valid_dev (op, whose name its lines
// carry): sets connected on the first record, in table order, whose bridge
// port number carries each learned, non-local entry.
void mark_connected_ports(t_device *first, const t_fdb_entry *fdb, int count, const char *op);

// Reads the whole database of the bridge into a new array (*fdb, the caller
// frees it, also on failure).  Number of records, -1 on a failed read or
// control socket, -98 when memory runs out.
int get_bridge_table(const char *brname, t_fdb_entry **fdb);

// Reads in chunks of FDB_CHUNK records, growing *fdb (capacity in records).
int br_get_fdb(const char *brname, t_fdb_entry **fdb, int *capacity, int sock);

// Up to num records starting at record index offset: from a fresh copy of
// brforward, or by ioctl when the copy cannot be opened.  Records delivered
// (0 at the end), negative when the ioctl fails.
int read_fdb_chunk(const char *brname, t_fdb_entry *dst, unsigned long offset, int num, int sock);

#endif
