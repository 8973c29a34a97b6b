// Which LAN ports does an IPv4 address answer ARP on?  By default the address
// is br-lan's own, and the question is an ARP announcement: a host that
// answers claims the router's LAN address.
#ifndef LANPROBE_ARP_ARP_CHECK_H
#define LANPROBE_ARP_ARP_CHECK_H

#include <stdint.h>

#include "registry/device_list.h"

#define ARP_CHECK_ATTEMPTS 2

// Probes the ports of possible_dev_list for target_ip (null: br-lan's own
// address) and leaves in the list the ports it answered on.  0; -87 when
// br-lan cannot be queried; -91 when the check could not run (the list is
// then emptied and dev_num set to 0).
int find_target_ip_and_device_with_arp(t_device_list_head *possible_dev_list,
                                       const uint32_t *target_ip);

// One blocking run: a slot per listed port, up to two attempts, ports without
// an acceptable reply removed from the list.  0, -99 (bad parameters) or -98.
int check_ip_using_arp_blocked(uint32_t target_ip, const uint8_t *target_mac,
                               t_device_list_head *possible_dev_list, uint32_t br_ip,
                               const uint8_t *br_mac);

#endif
