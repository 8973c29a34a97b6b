// One DHCP probe pass over several ports: start it, judge it at every poll,
// conclude it into the interface records, release it.
#ifndef LANPROBE_DHCP_DHCP_SWEEP_H
#define LANPROBE_DHCP_DHCP_SWEEP_H

#include <stdint.h>

#include "dhcp/dhcp_packet.h"
#include "registry/device_list.h"
#include "registry/device_table.h"

int lanprobe_for_all_devices(t_lan_devices *devices);
int lanprobe_for_specify_device(t_device *dev);
int send_dhcp_discovery_all(t_device_list_head *dev_list);
// 0 waiting, 97 all answered, 96 timed out, 98 no run, -99 empty run.
int process_dhcp_discovery_all(uint8_t timed_out);
void release_lanprobe_handle(t_lanprobe_handle *handle);

#endif
