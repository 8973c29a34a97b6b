// Our DISCOVER against a real DHCP server: dnsmasq on the far end p1 of a veth
// whose near end eth1 is a port of br-lan, all inside a private network
// namespace.  The server's OFFER must be taken with what it was told to offer.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include <functional>
#include <string>

extern "C" {
#include <libubox/uloop.h>
}

#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_sweep.h"
#include "registry/device_table.h"
#include "support/if_query.h"
#include "support/log.h"
#include "support/dnsmasq.h"
#include "support/lan.h"
#include "support/netns.h"
#include "support/result_codes.h"

namespace {

using lptest::run_in_netns;
using lptest::sh;

const char kDir[] = "/tmp/dnsmasq-test";

// The server behind eth1: its pool, gateway and two DNS servers.
lptest::Dnsmasq MakeServer()
{
    return lptest::Dnsmasq("p1", "10.77.0.100", "10.77.0.150", "10.77.0.254",
                           "10.77.0.53,10.77.0.54", kDir);
}

void MakeLanWithServer()
{
    ASSERT_TRUE(lptest::make_lan(1));
    ASSERT_TRUE(sh("ip addr add 10.77.0.1/24 dev p1"));
    ASSERT_EQ(uloop_init(), 0);
}

bool PumpUntil(const std::function<bool()> &done)
{
    for (int i = 0; i < 200 && !done(); i++)
        uloop_run_timeout(50);
    return done();
}

void ExpectServerOffer(const t_dhcp_offer &offer)
{
    uint32_t yi = ntohl(offer.pre_assigned_ip);
    EXPECT_GE(yi, ntohl(inet_addr("10.77.0.100")));
    EXPECT_LE(yi, ntohl(inet_addr("10.77.0.150")));
    EXPECT_EQ(offer.gateway_ip, inet_addr("10.77.0.254"));
    EXPECT_EQ(offer.dns_ip, inet_addr("10.77.0.53"));  // the first of the two
    uint8_t p1_mac[MAC_LEN];
    ASSERT_EQ(get_if_ip_netmask_mac("p1", nullptr, nullptr, p1_mac), 0);
    EXPECT_EQ(0, memcmp(offer.mac, p1_mac, MAC_LEN));
}

TEST(DhcpServer, DnsmasqOfferIsTaken)
{
    run_in_netns([] {
        MakeLanWithServer();
        lptest::Dnsmasq server = MakeServer();
        ASSERT_TRUE(server.Start());

        t_device *eth1 = create_new_device("eth1");
        lanprobe_ctx ctx;
        ASSERT_EQ(init_dhcp_sockfd(&ctx), 0);
        ctx.dev = eth1;
        memset(lanprobe_handle.br_mac, 0, MAC_LEN);
        ASSERT_EQ(send_dhcp_discovery_packet(&ctx), 0);
        ASSERT_TRUE(PumpUntil([&] { return ctx.offered == 1; })) << server.Log();
        EXPECT_EQ(ctx.ufd.fd, -1);
        ExpectServerOffer(ctx.offer);

        // The server saw our made-up client, not eth1's own address.
        uint8_t client[MAC_LEN];
        derive_client_hwaddr(ctx.random_xid, client);
        char text[18];
        snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", client[0], client[1],
                 client[2], client[3], client[4], client[5]);
        std::string log = server.Log();
        EXPECT_NE(log.find(std::string("DHCPDISCOVER(p1) ") + text), std::string::npos) << log;
        free(eth1);
    });
}

}  // namespace
