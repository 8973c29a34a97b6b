// Filling the ARP-entry table by hand: nothing in the daemon adds entries, so
// the sweep's tests allocate them the way remove_arp_entry frees them.
#ifndef LANPROBE_TESTS_SUPPORT_ARP_TABLE_H
#define LANPROBE_TESTS_SUPPORT_ARP_TABLE_H

#include <stdlib.h>
#include <string.h>

#include "registry/device_table.h"

namespace lptest {

inline t_arp_entry *add_arp_entry(t_arp_entry **table, const uint8_t *mac, uint32_t ip)
{
    auto *e = static_cast<t_arp_entry *>(calloc(1, sizeof(t_arp_entry)));
    memcpy(e->mac, mac, MAC_LEN);
    e->ip = ip;
    HASH_ADD(hh, *table, mac, MAC_LEN, e);
    return e;
}

inline void clear_arp_table(t_arp_entry **table)
{
    t_arp_entry *e, *tmp;
    HASH_ITER(hh, *table, e, tmp)
    {
        HASH_DEL(*table, e);
        free(e);
    }
}

}  // namespace lptest

#endif
