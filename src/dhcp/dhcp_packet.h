// The DHCP probe run: one probe context per port, each with its own raw
// packet socket and transaction ID, and the DISCOVER frame built byte by byte.
#ifndef LANPROBE_DHCP_DHCP_PACKET_H
#define LANPROBE_DHCP_DHCP_PACKET_H

#include <stddef.h>
#include <stdint.h>

#include <type_traits>

extern "C" {
#include <libubox/uloop.h>
}

#include "registry/device_table.h"

#define DHCP_MSG_LEN 368          // DHCP message we send
#define DHCP_FRAME_LEN 410        // 14 Ethernet + 20 IPv4 + 8 UDP + 368
#define DHCP_FRAME_BUF_LEN 1024   // send and receive buffers
#define DHCP_CLIENT_PORT 68
#define DHCP_SERVER_PORT 67
#define DHCP_IP_ID 54321
#define DHCP_IP_TTL 64
#define DHCP_MAGIC_COOKIE 0x63825363u
#define DHCP_ULOOP_FLAGS 0x49     // ULOOP_READ | ULOOP_BLOCKING | ULOOP_ERROR_CB

#define ETH_HDR_LEN 14
#define IPV4_HDR_LEN 20
#define UDP_HDR_LEN 8
#define DHCP_MSG_OFFSET (ETH_HDR_LEN + IPV4_HDR_LEN + UDP_HDR_LEN)  // 42

// Offsets inside the DHCP message.
#define DHCP_OFF_OP 0
#define DHCP_OFF_XID 4
#define DHCP_OFF_YIADDR 16
#define DHCP_OFF_CHADDR 28
#define DHCP_CHADDR_LEN 16
#define DHCP_OFF_MAGIC 236
#define DHCP_OFF_OPTIONS 240

static_assert(ETH_HDR_LEN + IPV4_HDR_LEN + UDP_HDR_LEN + DHCP_MSG_LEN == DHCP_FRAME_LEN,
              "the DISCOVER frame is 410 bytes");
static_assert(DHCP_ULOOP_FLAGS == (ULOOP_READ | ULOOP_BLOCKING | ULOOP_ERROR_CB),
              "read registration keeps the socket blocking and reports errors");

// One probed port.
struct lanprobe_ctx {
    uint8_t offered;      // 1 once an OFFER has been taken
    uint32_t random_xid;  // transaction ID of this context's DISCOVER
    t_device *dev;        // the port, not owned; null when set-up failed
    t_dhcp_offer offer;   // what the accepted OFFER said
    struct uloop_fd ufd;  // the raw socket and its read handler
};
static_assert(std::is_standard_layout_v<lanprobe_ctx>, "the read handler uses container_of");

// The DHCP probe run in progress; all zero when there is none.
struct t_lanprobe_handle {
    uint8_t device_num;            // length of lanprobe_array
    lanprobe_ctx *lanprobe_array;  // owned
    uint8_t br_mac[MAC_LEN];       // br-lan's MAC: an OFFER from it means a loop
};

extern t_lanprobe_handle lanprobe_handle;

// The read handler of every probe context (dhcp_offer.cpp).
void recv_dhcp_discovery_packet(struct uloop_fd *ufd, unsigned int events);

int init_dhcp_sockfd(lanprobe_ctx *ctx);
int send_dhcp_discovery_packet(lanprobe_ctx *ctx);
// Removes the socket from the event loop, closes it and marks it closed (-1).
void close_probe_socket(lanprobe_ctx *ctx);

// Two rand() values multiplied with 32-bit wrap-around, reduced modulo 0xFFFFFFFF.
uint32_t dhcp_xid_from_rand(uint32_t r1, uint32_t r2);
// The locally administered client address that stands in for us in the DISCOVER.
void derive_client_hwaddr(uint32_t xid, uint8_t mac[MAC_LEN]);

int build_dhcp_discover(uint8_t *msg, const uint8_t *chaddr, uint8_t chaddr_len, uint32_t xid);
int build_udp_frame(uint8_t *frame, size_t size, const uint8_t *payload, size_t payload_len,
                    const uint8_t *src_mac, const char *src_ip, const char *dst_ip,
                    uint8_t protocol);
int fill_eth_header(uint8_t *hdr, const uint8_t *src_mac, const uint8_t *dst_mac,
                    uint16_t ethertype_be);
int fill_ip_header(uint8_t *hdr, uint16_t payload_len, const char *src_ip, const char *dst_ip,
                   uint8_t protocol);
int fill_udp_header(uint8_t *hdr, uint16_t payload_len);
uint16_t ip_checksum(const void *data, size_t words);

#endif
