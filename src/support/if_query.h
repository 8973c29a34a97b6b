// Questions to the kernel about one network interface, by name.
#ifndef LANPROBE_SUPPORT_IF_QUERY_H
#define LANPROBE_SUPPORT_IF_QUERY_H

#include <net/if.h>
#include <stdint.h>
#include <sys/socket.h>

#define IFNAME_REQ_LEN 16

struct t_if_hwinfo {
    int32_t ifindex;
    int32_t mac_len;
    uint8_t mac[6];
};

struct t_if_info {
    char name[IFNAME_REQ_LEN];
    int16_t type;
    int16_t flags;
    int32_t metric;
    int32_t mtu;
    int32_t tx_queue_len;
    struct ifmap map;
    struct sockaddr addr;
    struct sockaddr dstaddr;
    struct sockaddr broadaddr;
    struct sockaddr netmask;
    int32_t has_ip;
    uint8_t hwaddr[32];
};

void copy_ifname(char *dst, const char *src);
t_if_hwinfo get_if_index_hwaddr(int sock, const char *ifname);
int bind_socket_to_device(int sock, const char *ifname);
int fetch_if_info(t_if_info *info);
int get_if_ip_netmask_mac(const char *ifname, uint32_t *ip, uint32_t *netmask, uint8_t *mac);

#endif
