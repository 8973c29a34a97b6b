// What the survey needs to know about the router before it sends anything:
// the bridge's member ports, their switch labels, the bridge's IPv4 network
// and every MAC address of the router's own.
#ifndef LANPROBE_SURVEY_LAN_PORTS_H
#define LANPROBE_SURVEY_LAN_PORTS_H

#include <net/if.h>
#include <stdint.h>

#define SURVEY_MAX_PORTS 128
#define SURVEY_LABEL_LEN 32

struct SurveyPort {
    char name[IF_NAMESIZE];
    char label[SURVEY_LABEL_LEN];  // empty when the switch configuration names none
    int ifindex;
    uint8_t mac[6];
};

struct RouterInfo {
    uint32_t ip, netmask;  // network order; 0 when the bridge has no IPv4 address
    uint8_t bridge_mac[6];
};

// The bridge's member ports in name order, at most max.  -1 (errno kept) when
// the bridge does not exist or cannot be listed.
int list_bridge_ports(const char *sysfs_net, const char *bridge, SurveyPort *ports, int max);

// Name, index and MAC of one interface; false when there is no such interface.
bool read_port(const char *sysfs_net, const char *name, SurveyPort *port);

// Labels from the switch configuration's switch_port sections (ifname ->
// label); ports it does not name keep an empty label.  A missing package is
// no error: many routers have no switch.
void read_switch_labels(const char *confdir, SurveyPort *ports, int n);

// The bridge's MAC and IPv4 address and mask.
bool read_router_info(const char *sysfs_net, const char *bridge, RouterInfo *info);

#endif
