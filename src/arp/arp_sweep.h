// Confirms the entries of the ARP-entry table with unicast ARP requests and
// prunes the ones that stay silent or answer from outside br-lan's subnet:
// asynchronously on the event loop, or in one blocking call.
#ifndef LANPROBE_ARP_ARP_SWEEP_H
#define LANPROBE_ARP_ARP_SWEEP_H

#include <stdint.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "registry/device_table.h"

struct t_arp_detect;

// Opens one slot per entry (at most 255: the slot count is 8 bits), sends a
// request on each and leaves the run in place for process_arp_detect_all.
// Addresses in network byte order.  0, -99 or -98.
int send_arp_packet_all(t_arp_entry **arp_table, uint32_t br_ip, uint32_t br_netmask,
                        const uint8_t *br_mac, int ifindex);
// Event-loop send of one slot: no wait, from br_mac, then read by the loop.
int send_arp_unicast_packet(t_arp_detect *slot);
// Read handler of a slot's socket.
void recv_arp_packet(struct uloop_fd *u, unsigned int events);
// Judges the sweep: 0 waiting, 97 all answered, 96 time up, 98 none running,
// -99 slots without a count.  A non-zero result prunes and releases the run.
int process_arp_detect_all(int timeout);
// The whole sweep in one blocking call (sends, one pause, reads, pruning).
int double_check_arp_packet_all_blocked(t_arp_entry **arp_table, uint32_t br_ip,
                                        uint32_t br_netmask, const uint8_t *br_mac, int ifindex);

// True when addr lies in the subnet of br_ip/br_netmask (network byte order).
bool arp_same_subnet(uint32_t addr, uint32_t br_ip, uint32_t br_netmask);

#endif
