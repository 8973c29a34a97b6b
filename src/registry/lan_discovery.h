// Discovery of the LAN interfaces at start-up: the member ports of br-lan (or
// else the names in network.lan.ifname) become the interface table, and the
// switch configuration gives the Ethernet ports their port number and label.
#ifndef LANPROBE_REGISTRY_LAN_DISCOVERY_H
#define LANPROBE_REGISTRY_LAN_DISCOVERY_H

#include <stddef.h>

#include "registry/device_table.h"

#define LAN_BRIDGE_NAME "br-lan"
// Most interfaces taken from network.lan.ifname.
#define MAX_LAN_DEVICES 100
// switch_port ifname and label values are read up to this many characters.
#define SWITCH_VALUE_MAX 256

// Number of interfaces that received switch attributes (>= 1 is success);
// 0 or a negative code is failure.
int init_all_lan_device(t_lan_devices *devices);
// Number of interfaces found (>= 0), or -95 when the bridge gives none and
// network.lan.ifname cannot be read.
int generate_lan_device(t_lan_devices *devices);
// Number of records that received a port number and label, or -95 when the
// switch package cannot be loaded.
int get_eth_atrribute(t_device *dev_hashmap_head);
// The WAN interface named by switch.wan.switch_port, when it is an "eth" port:
// 0 with the name in buf; -94 when it is missing or not an "eth" port; the
// failure of the first read otherwise.
int get_wan_device_name(char *buf, size_t size);

#endif
