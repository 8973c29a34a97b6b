// Interface queries: ioctl requests on a throw-away datagram socket, and
// SO_BINDTODEVICE for tying a socket to one port.
#include "support/if_query.h"

#include <netinet/in.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "support/fd_guard.h"
#include "support/result_codes.h"

static_assert(sizeof(t_if_hwinfo) == 16, "t_if_hwinfo is returned by value as 16 bytes");

// struct ifreq is 40 bytes on 64-bit Linux; SO_BINDTODEVICE is handed a buffer
// of that size holding the name, as the classic tools do.
static constexpr socklen_t kIfreqSize = 40;

void copy_ifname(char *dst, const char *src)
{
    // strncpy semantics on purpose: the kernel expects the 16-byte field
    // zero-padded after the name.
    size_t i = 0;
    for (; i < IFNAME_REQ_LEN && src[i] != '\0'; ++i)
        dst[i] = src[i];
    for (; i < IFNAME_REQ_LEN; ++i)
        dst[i] = '\0';
}

t_if_hwinfo get_if_index_hwaddr(int sock, const char *ifname)
{
    t_if_hwinfo info{};
    info.mac_len = 6;
    // A failed index query reports -1, not 0: bind() of a packet socket to
    // index 0 means "every interface" and would succeed, while -1 makes the
    // bind of a vanished port fail, which is where the DHCP send expects to stop.
    info.ifindex = -1;

    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    copy_ifname(ifr.ifr_name, ifname);
    if (ioctl(sock, SIOCGIFINDEX, &ifr) == 0)
        info.ifindex = ifr.ifr_ifindex;

    memset(&ifr, 0, sizeof(ifr));
    copy_ifname(ifr.ifr_name, ifname);
    if (ioctl(sock, SIOCGIFHWADDR, &ifr) == 0)
        memcpy(info.mac, ifr.ifr_hwaddr.sa_data, sizeof(info.mac));
    return info;
}

int bind_socket_to_device(int sock, const char *ifname)
{
    char req[kIfreqSize];
    memset(req, 0, sizeof(req));
    copy_ifname(req, ifname);
    return setsockopt(sock, SOL_SOCKET, SO_BINDTODEVICE, req, kIfreqSize);
}

int fetch_if_info(t_if_info *info)
{
    // If the socket cannot be opened every ioctl below fails with EBADF, so
    // the flags query reports it like a missing interface.
    FdGuard sock(socket(AF_INET, SOCK_DGRAM, 0));
    struct ifreq ifr;
    auto request = [&]() -> struct ifreq * {
        memset(&ifr, 0, sizeof(ifr));
        copy_ifname(ifr.ifr_name, info->name);
        return &ifr;
    };

    if (ioctl(sock.get(), SIOCGIFFLAGS, request()) < 0)
        return LP_ERR_QUERY;
    info->flags = ifr.ifr_flags;

    memset(info->hwaddr, 0, sizeof(info->hwaddr));
    if (ioctl(sock.get(), SIOCGIFHWADDR, request()) >= 0)
        memcpy(info->hwaddr, ifr.ifr_hwaddr.sa_data, 8);
    info->type = static_cast<int16_t>(ifr.ifr_hwaddr.sa_family);

    info->metric = 0;
    if (ioctl(sock.get(), SIOCGIFMETRIC, request()) >= 0)
        info->metric = ifr.ifr_metric;

    info->mtu = 0;
    if (ioctl(sock.get(), SIOCGIFMTU, request()) >= 0)
        info->mtu = ifr.ifr_mtu;

    memset(&info->map, 0, sizeof(info->map));
    if (ioctl(sock.get(), SIOCGIFMAP, request()) >= 0)
        info->map = ifr.ifr_map;

    info->tx_queue_len = -1;

    request()->ifr_addr.sa_family = AF_INET;
    memset(&info->addr, 0, sizeof(info->addr));
    if (ioctl(sock.get(), SIOCGIFADDR, &ifr) < 0)
        return LP_OK;  // no IPv4 address: peer, broadcast and netmask are not asked for
    info->has_ip = 1;
    info->addr = ifr.ifr_addr;

    struct {
        unsigned long req;
        struct sockaddr *field;
    } const follow_ups[] = {
        {SIOCGIFDSTADDR, &info->dstaddr},
        {SIOCGIFBRDADDR, &info->broadaddr},
        {SIOCGIFNETMASK, &info->netmask},
    };
    for (const auto &q : follow_ups) {
        memset(q.field, 0, sizeof(*q.field));
        request()->ifr_addr.sa_family = AF_INET;
        if (ioctl(sock.get(), q.req, &ifr) >= 0)
            *q.field = ifr.ifr_addr;
    }
    return LP_OK;
}

// The IPv4 address inside a struct sockaddr that holds a sockaddr_in, in
// network byte order as the kernel gave it.
static uint32_t sockaddr_ipv4(const struct sockaddr &sa)
{
    uint32_t v;
    memcpy(&v, reinterpret_cast<const char *>(&sa) + offsetof(sockaddr_in, sin_addr), 4);
    return v;
}

int get_if_ip_netmask_mac(const char *ifname, uint32_t *ip, uint32_t *netmask, uint8_t *mac)
{
    if (ifname == nullptr)
        return LP_ERR_QUERY;
    t_if_info info;
    memset(&info, 0, sizeof(info));
    copy_ifname(info.name, ifname);
    int rc = fetch_if_info(&info);
    if (rc != LP_OK)
        return rc;
    if (ip)
        *ip = sockaddr_ipv4(info.addr);
    if (netmask)
        *netmask = sockaddr_ipv4(info.netmask);
    if (mac)
        memcpy(mac, info.hwaddr, 6);
    return LP_OK;
}
