#include "bridge/fdb.h"

#include <errno.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bridge/br_port.h"
#include "support/fd_guard.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/term_request.h"

void mark_connected_ports(t_device *first, const t_fdb_entry *fdb, int count, const char *op)
{
    for (int i = 0; i < count; i++) {
        const t_fdb_entry &entry = fdb[i];
        if (entry.is_local)
            continue;

        // The record keeps the port number in a signed byte (-1 = unknown) while
        // the kernel's byte is unsigned: ports 128 and up, and port 0 (bridges
        // number their ports from 1), can never match.
        t_device *match = nullptr;
        for (t_device *dev = first; dev; dev = static_cast<t_device *>(dev->hh.next)) {
            if (static_cast<int>(dev->port_no) == static_cast<int>(entry.port_no)) {
                match = dev;
                break;
            }
        }
        if (!match) {
            LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "No device index(%d) match in device hashmap!\n", entry.port_no);
        } else if (match->connected) {
            LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "device:%s already has devices connected (via fdb table)!\n",
                       match->name);
        } else {
            match->connected = 1;
            LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "find device mac:%02X-%02X-%02X-%02X-%02X-%02X connected in dev:%s!\n",
                       entry.mac_addr[0], entry.mac_addr[1], entry.mac_addr[2], entry.mac_addr[3],
                       entry.mac_addr[4], entry.mac_addr[5], match->name);
        }
    }
}

int update_brlan_valid_dev(t_device *first)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: update_brlan_valid_dev!\n");

    // Cleared before the read, so a failed read leaves no port selected.
    for (t_device *dev = first; dev; dev = static_cast<t_device *>(dev->hh.next))
        dev->connected = 0;

    t_fdb_entry *fdb = nullptr;
    int count = get_bridge_table(FDB_BRIDGE_NAME, &fdb);
    if (count <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Failed to get fdb table!\n");
        free(fdb);
        return LP_ERR_FDB;
    }
    mark_connected_ports(first, fdb, count, __func__);
    free(fdb);
    return 0;
}

int get_bridge_table(const char *brname, t_fdb_entry **fdb)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: get_bridge_table!\n");
    int result = -1;
    int capacity = 0;

    FdGuard sock(br_init());
    if (sock.get() <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "br_init fail: %s\n", strerror(errno));
        return result;
    }
    result = br_get_fdb(brname, fdb, &capacity, sock.get());
    LOG_MSG(LOG_LEVEL_DEBUG, "get br:%s, overall %d entry in fdb table\n", brname, result);
    return result;
}

int br_get_fdb(const char *brname, t_fdb_entry **fdb, int *capacity, int sock)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: br_get_fdb!\n");
    if (*fdb && *capacity > 0)
        memset(*fdb, 0, static_cast<size_t>(*capacity) * sizeof(t_fdb_entry));

    int n = 0;
    for (;;) {
        // Always keep room for a whole chunk after the records read so far.
        if (n + FDB_CHUNK - 1 >= *capacity) {
            size_t want = static_cast<size_t>(n + FDB_CHUNK);
            void *grown = realloc(*fdb, want * sizeof(t_fdb_entry));
            if (!grown) {
                LOG_MSG(LOG_LEVEL_ERROR, "Out of memory\n");
                return LP_ERR_NOMEM;
            }
            *fdb = static_cast<t_fdb_entry *>(grown);
            *capacity = n + FDB_CHUNK;
        }

        int got = read_fdb_chunk(brname, *fdb + n, static_cast<unsigned long>(n), FDB_CHUNK, sock);
        if (got == 0)
            return n;
        if (got < 0) {
            LOG_MSG(LOG_LEVEL_ERROR, "read of forward table failed: %s\n", strerror(errno));
            return -1;
        }
        n += got;
    }
}

int read_fdb_chunk(const char *brname, t_fdb_entry *dst, unsigned long offset, int num, int sock)
{
    // No copy is started, and none is left behind, once a stop was requested
    // from outside: asked before the copy and after its removal.
    term_act_if_requested();
    char cmd[FDB_COPY_CMD_LEN];
    snprintf(cmd, sizeof(cmd), FDB_COPY_CMD, brname);
    // The copy is best effort: when it did not happen the open below fails and
    // the kernel is asked directly.
    int copied = system(cmd);
    (void)copied;

    int result;
    FILE *copy = fopen(FDB_COPY_PATH, "r");
    if (copy) {
        // fread counts whole records only: a trailing partial record is not
        // delivered.
        result = 0;
        if (num > 0 && fseek(copy, static_cast<long>(offset * FDB_ENTRY_SIZE), SEEK_SET) == 0)
            result = static_cast<int>(fread(dst, FDB_ENTRY_SIZE, static_cast<size_t>(num), copy));
        fclose(copy);
    } else {
        unsigned long args[4] = {BRCTL_GET_FDB_ENTRIES, reinterpret_cast<unsigned long>(dst),
                                 static_cast<unsigned long>(num), offset};
        struct ifreq ifr;
        memset(&ifr, 0, sizeof(ifr));
        strncpy(ifr.ifr_name, brname, IFNAMSIZ - 1);
        ifr.ifr_data = reinterpret_cast<char *>(args);

        int attempts = 0;
        for (;;) {
            result = ioctl(sock, SIOCDEVPRIVATE, &ifr);
            if (result >= 0 || errno != EAGAIN || ++attempts >= FDB_IOCTL_ATTEMPTS)
                break;
            sleep(0);
        }
    }

    int saved = errno;
    remove(FDB_COPY_PATH);
    term_act_if_requested();
    errno = saved;  // the caller reports the ioctl's errno, not remove's
    return result;
}
