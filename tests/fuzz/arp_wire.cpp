#include "fuzz/arp_wire.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "fuzz/fuzz_env.h"

namespace arpwire {

const uint8_t kBrMac[MAC_LEN] = {0x02, 0x1a, 0x00, 0x00, 0x00, 0x01};
void (*on_pause)() = nullptr;

namespace {

int g_ports = 0;
int g_ifindex[kMaxPorts];
int g_sender[kMaxPorts];    // raw socket on the host end (send only)
int g_observer[kMaxPorts];  // ARP socket bound to the router end

// The kernel hands a received frame to the protocol's unbound sockets (the
// daemon's) before the sockets bound to the device (the observer), so once
// the observer has it, the daemon's sockets have it too.
bool wait_observed(int port)
{
    struct pollfd pfd = {g_observer[port], POLLIN, 0};
    struct timespec limit = {5, 0};
    // Straight to the kernel: poll is not replaced, but select and usleep
    // are, and this wait must really wait.
    long rc = syscall(SYS_ppoll, &pfd, 1, &limit, nullptr, 0);
    if (rc <= 0)
        return false;
    uint8_t buf[2048];
    return recv(g_observer[port], buf, sizeof(buf), MSG_DONTWAIT) >= 0;
}

}  // namespace

void host_mac(int port, uint8_t mac[MAC_LEN])
{
    const uint8_t m[MAC_LEN] = {0x02, 0x1a, 0x00, 0x00, 0x01, static_cast<uint8_t>(port)};
    memcpy(mac, m, MAC_LEN);
}

int port_ifindex(int port)
{
    return g_ifindex[port];
}

void setup_ports(int n)
{
    g_ports = n;
    char cmd[512];
    fuzzenv::must_run("ip link set lo up");
    for (int i = 0; i < n; i++) {
        snprintf(cmd, sizeof(cmd),
                 "ip link add eth%d address 02:1a:00:00:00:%02x type veth peer name fzp%d "
                 "address 02:1a:00:00:01:%02x && ip link set eth%d up && ip link set fzp%d up",
                 i, 0x10 + i, i, i, i, i);
        fuzzenv::must_run(cmd);
        char name[IFNAMSIZ];
        snprintf(name, sizeof(name), "eth%d", i);
        g_ifindex[i] = static_cast<int>(if_nametoindex(name));
        snprintf(name, sizeof(name), "fzp%d", i);
        int peer_index = static_cast<int>(if_nametoindex(name));

        g_sender[i] = socket(AF_PACKET, SOCK_RAW, 0);
        g_observer[i] = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ARP));
        FUZZ_CHECK(g_ifindex[i] > 0 && peer_index > 0 && g_sender[i] >= 0 && g_observer[i] >= 0);
        struct sockaddr_ll sll;
        memset(&sll, 0, sizeof(sll));
        sll.sll_family = AF_PACKET;
        sll.sll_ifindex = peer_index;
        FUZZ_CHECK(bind(g_sender[i], reinterpret_cast<sockaddr *>(&sll), sizeof(sll)) == 0);
        sll.sll_protocol = htons(ETH_P_ARP);
        sll.sll_ifindex = g_ifindex[i];
        FUZZ_CHECK(bind(g_observer[i], reinterpret_cast<sockaddr *>(&sll), sizeof(sll)) == 0);
    }
}

void inject(int port, const uint8_t *frame, size_t len)
{
    if (port < 0 || port >= g_ports)
        return;
    uint8_t buf[kMaxFrame];
    memset(buf, 0, sizeof(buf));
    if (len > kMaxFrame)
        len = kMaxFrame;
    memcpy(buf, frame, len);
    if (len < ETH_HLEN)
        len = ETH_HLEN;
    buf[12] = 0x08;
    buf[13] = 0x06;
    ssize_t sent = send(g_sender[port], buf, len, 0);
    FUZZ_CHECK(sent == static_cast<ssize_t>(len));
    FUZZ_CHECK(wait_observed(port));
}

}  // namespace arpwire
