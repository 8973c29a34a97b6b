// The interface table (one t_device per LAN port, keyed by name) and the
// ARP-entry table (keyed by hardware address), both uthash tables.
#ifndef LANPROBE_REGISTRY_DEVICE_TABLE_H
#define LANPROBE_REGISTRY_DEVICE_TABLE_H

#include <stdint.h>
#include <uthash.h>

#define IFNAME_FIELD_LEN 32
#define MAC_LEN 6

// What one accepted DHCP OFFER said about a port.  Addresses in network byte order.
struct t_dhcp_offer {
    uint32_t pre_assigned_ip;
    uint32_t gateway_ip;
    uint32_t dns_ip;
    uint8_t mac[MAC_LEN];
};

struct t_device {
    int8_t port;        // switch port number, -1 until set
    int8_t port_no;     // bridge port number, -1 unknown, 0 for ports from the UCI list
    int8_t order;       // 1-based discovery position, -1 until set
    uint8_t connected;  // 1 when the fdb showed a host behind this port in this pass
    t_dhcp_offer offer;
    char name[IFNAME_FIELD_LEN];
    char label[IFNAME_FIELD_LEN];
    UT_hash_handle hh;
};

struct t_lan_devices {
    uint8_t dev_num;  // count taken from network.lan.ifname; 0 when from the bridge
    t_device *dev_hashmap_head;
};

// The process-wide interface table.
extern t_lan_devices lan_devices;

struct t_arp_entry {
    uint32_t ip;
    uint8_t mac[MAC_LEN];
    UT_hash_handle hh;
};

// The ARP-entry table; nothing in the daemon fills it.
extern t_arp_entry *arp_table_hashmap_head;

// The one test for "this port has a DHCP server".
bool device_has_server(const t_device *dev);

t_device *create_new_device(const char *name);
int add_device(t_device **head, t_device *dev);
int check_dev_already_add(t_device *head, const char *name);
t_device *find_device(t_device *head, const char *name);
// The port callback of the bridge walk: user argument is a t_device ** (the table head).
int add_br_device(const char *name, int port_no, int position, void *head);
int release_all_device(t_device **head);

t_arp_entry *find_arp_entry(t_arp_entry *head, const uint8_t *mac);
unsigned int get_arp_entry_count(t_arp_entry *head);
int remove_arp_entry(t_arp_entry **head, const uint8_t *mac);

#endif
