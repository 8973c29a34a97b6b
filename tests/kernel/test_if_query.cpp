// Interface queries against interfaces whose address, netmask and MAC the
// test sets itself, inside a network namespace of its own.
#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "support/fd_guard.h"
#include "support/if_query.h"
#include "support/netns.h"
#include "support/result_codes.h"

namespace {

using lptest::run_in_netns;
using lptest::sh;

const uint8_t kBridgeMac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
// A port name at the 15-character limit, without an IPv4 address.
const char kLongPort[] = "eth0123456789ab";
static_assert(sizeof(kLongPort) == IFNAMSIZ, "name at the kernel's limit");

// br-lan: 192.168.1.1/24, MTU 1400, up.  kLongPort: up, no IPv4 address.
void make_interfaces()
{
    ASSERT_TRUE(sh("ip link add br-lan type bridge"));
    ASSERT_TRUE(sh("ip link set br-lan address 02:11:22:33:44:55 mtu 1400 up"));
    ASSERT_TRUE(sh("ip addr add 192.168.1.1/24 brd + dev br-lan"));
    ASSERT_TRUE(sh(std::string("ip link add ") + kLongPort + " type veth peer name lpq0"));
    ASSERT_TRUE(sh(std::string("ip link set ") + kLongPort + " address 02:aa:bb:cc:dd:0e up"));
}

uint32_t addr_of(const struct sockaddr &sa)
{
    struct sockaddr_in sin;
    memcpy(&sin, &sa, sizeof(sin));
    return sin.sin_addr.s_addr;
}

uint32_t ipv4(const char *text)
{
    struct in_addr a;
    inet_pton(AF_INET, text, &a);
    return a.s_addr;
}

TEST(IfQueryTest, QueriesOnConfiguredInterfaces)
{
    run_in_netns([] {
        make_interfaces();
        uint32_t ip = 0xdeadbeef, mask = 0xdeadbeef;
        uint8_t mac[6] = {};
        ASSERT_EQ(get_if_ip_netmask_mac("br-lan", &ip, &mask, mac), 0);
        // Network byte order: the bytes in memory read as written.
        const uint8_t want_ip[4] = {192, 168, 1, 1};
        const uint8_t want_mask[4] = {255, 255, 255, 0};
        EXPECT_EQ(memcmp(&ip, want_ip, 4), 0);
        EXPECT_EQ(memcmp(&mask, want_mask, 4), 0);
        EXPECT_EQ(memcmp(mac, kBridgeMac, 6), 0);

        t_if_info info;
        memset(&info, 0, sizeof(info));
        copy_ifname(info.name, "br-lan");
        ASSERT_EQ(fetch_if_info(&info), 0);
        EXPECT_EQ(info.type, ARPHRD_ETHER);
        EXPECT_TRUE(info.flags & IFF_UP);
        EXPECT_EQ(info.mtu, 1400);
        EXPECT_EQ(info.has_ip, 1);
        EXPECT_EQ(addr_of(info.addr), ipv4("192.168.1.1"));
        EXPECT_EQ(addr_of(info.broadaddr), ipv4("192.168.1.255"));
        EXPECT_EQ(addr_of(info.netmask), ipv4("255.255.255.0"));
        EXPECT_EQ(memcmp(info.hwaddr, kBridgeMac, 6), 0);

        FdGuard sock(socket(AF_INET, SOCK_DGRAM, 0));
        ASSERT_EQ(bind_socket_to_device(sock.get(), kLongPort), 0);
        char bound[IFNAMSIZ] = {};
        socklen_t len = sizeof(bound);
        ASSERT_EQ(getsockopt(sock.get(), SOL_SOCKET, SO_BINDTODEVICE, bound, &len), 0);
        EXPECT_STREQ(bound, kLongPort);
        EXPECT_EQ(bind_socket_to_device(sock.get(), "nosuch0"), -1);
        EXPECT_EQ(errno, ENODEV);
    });
}

}  // namespace
