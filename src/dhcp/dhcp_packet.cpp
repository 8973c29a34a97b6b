// The DISCOVER frame and the per-port probe socket.
#include "dhcp/dhcp_packet.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/byte_view.h"
#include "support/if_query.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/term_request.h"

t_lanprobe_handle lanprobe_handle;

// Receive buffer of a probe socket: room for about 400 full-size frames.
static constexpr int DHCP_SOCKET_RCVBUF = 1 << 20;

static const uint8_t k_broadcast_mac[MAC_LEN] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

uint32_t dhcp_xid_from_rand(uint32_t r1, uint32_t r2)
{
    // The product wraps in 32 bits; the reduction only maps 0xFFFFFFFF to 0.
    uint32_t product = r1 * r2;
    return product % 0xFFFFFFFFu;
}

void derive_client_hwaddr(uint32_t xid, uint8_t mac[MAC_LEN])
{
    // Locally administered, unicast: a fresh client for every probe, never
    // the port's own address, so the server keeps no lease tied to the router.
    mac[0] = static_cast<uint8_t>((xid & 0xFC) | 0x02);
    mac[1] = static_cast<uint8_t>((xid >> 4) & 0xFF);
    mac[2] = static_cast<uint8_t>((xid >> 8) & 0xFF);
    mac[3] = static_cast<uint8_t>((xid >> 12) & 0xFF);
    mac[4] = static_cast<uint8_t>((xid >> 16) & 0xFF);
    mac[5] = static_cast<uint8_t>((xid >> 20) & 0xFF);
}

int init_dhcp_sockfd(lanprobe_ctx *ctx)
{
    if (!ctx)
        return LP_ERR_INVALID;

    uint32_t r1 = static_cast<uint32_t>(rand());
    uint32_t r2 = static_cast<uint32_t>(rand());
    uint32_t xid = dhcp_xid_from_rand(r1, r2);

    memset(ctx, 0, sizeof(*ctx));
    ctx->ufd.fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    ctx->ufd.cb = recv_dhcp_discovery_packet;
    ctx->offered = 0;
    ctx->random_xid = xid;

    if (ctx->ufd.fd < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Create DHCP request socket failed!\n");
        return LP_ERR_SOCKET;
    }
    // The socket sees every frame of its port and the handler reads one frame
    // per loop turn. Under heavy traffic the default buffer (about 90 full-size
    // frames) fills in a millisecond, before the loop gets back to it, and the
    // OFFER that follows is dropped by the kernel. A larger buffer costs
    // nothing while the port is quiet: it is a limit, not an allocation. Root
    // may exceed rmem_max; failing that, ask for what the limit allows.
    int rcvbuf = DHCP_SOCKET_RCVBUF;
    if (setsockopt(ctx->ufd.fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf)) != 0)
        setsockopt(ctx->ufd.fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    return LP_OK;
}

// Unregisters before closing: a closed descriptor left registered would make
// every later add on this uloop_fd fail.
void close_probe_socket(lanprobe_ctx *ctx)
{
    uloop_fd_delete(&ctx->ufd);
    close(ctx->ufd.fd);
    ctx->ufd.fd = -1;
}

int send_dhcp_discovery_packet(lanprobe_ctx *ctx)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: send_dhcp_discovery_packet!\n");

    if (!ctx)
        return LP_ERR_INVALID;
    if (ctx->ufd.fd <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Skip sending dhcp discoery packet due to socket error!\n");
        return LP_ERR_NO_SOCKET;
    }
    if (!ctx->dev)
        return LP_ERR_INVALID;

    t_if_hwinfo hw = get_if_index_hwaddr(ctx->ufd.fd, ctx->dev->name);
    LOG_MSG(LOG_LEVEL_DEBUG, "Get device:%s , index=%d, hw_addr=%02x-%02x-%02x-%02x-%02x-%02x\n",
            ctx->dev->name, hw.ifindex, hw.mac[0], hw.mac[1], hw.mac[2], hw.mac[3], hw.mac[4],
            hw.mac[5]);

    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof(sll));
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = hw.ifindex;
    sll.sll_hatype = 0;
    sll.sll_pkttype = 0;
    sll.sll_halen = MAC_LEN;
    memcpy(sll.sll_addr, k_broadcast_mac, MAC_LEN);

    // A port that vanished since set-up gives an index the kernel refuses here.
    if (bind(ctx->ufd.fd, reinterpret_cast<struct sockaddr *>(&sll), sizeof(sll)) < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Error binding socket!\n");
        close_probe_socket(ctx);
        return LP_ERR_BIND;
    }

    uint8_t chaddr[MAC_LEN];
    derive_client_hwaddr(ctx->random_xid, chaddr);

    uint8_t msg[DHCP_MSG_LEN];
    int msg_len = build_dhcp_discover(msg, chaddr, MAC_LEN, ctx->random_xid);

    uint8_t frame[DHCP_FRAME_BUF_LEN];
    int frame_len = build_udp_frame(frame, sizeof(frame), msg, static_cast<size_t>(msg_len),
                                    chaddr, "0.0.0.0", "255.255.255.255", IPPROTO_UDP);

    uloop_fd_delete(&ctx->ufd);

    // Nothing leaves after a stop was requested from outside.
    term_act_if_requested();
    if (sendto(ctx->ufd.fd, frame, static_cast<size_t>(frame_len), 0,
               reinterpret_cast<struct sockaddr *>(&sll), sizeof(sll)) < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Error while writing to dhcp request socket, using device:%s\n",
                ctx->dev->name);
        close_probe_socket(ctx);
        return LP_ERR_SEND;
    }

    uloop_fd_add(&ctx->ufd, DHCP_ULOOP_FLAGS);
    return LP_OK;
}

int build_dhcp_discover(uint8_t *msg, const uint8_t *chaddr, uint8_t chaddr_len, uint32_t xid)
{
    static constexpr uint8_t k_magic[4] = {0x63, 0x82, 0x53, 0x63};
    // Message type DISCOVER; ask for router, subnet mask and DNS server; end.
    static constexpr uint8_t k_options[] = {53, 1, 1, 55, 3, 3, 1, 6, 255};

    memset(msg, 0, DHCP_MSG_LEN);
    ByteWriter w(msg, DHCP_MSG_LEN);
    w.u8(DHCP_OFF_OP, 1);  // BOOTREQUEST
    w.u8(1, 1);            // htype Ethernet
    w.u8(2, 6);            // hlen
    w.u8(3, 0);            // hops
    // The xid goes out as it lies in memory; replies are compared the same way.
    w.raw32(DHCP_OFF_XID, xid);
    // secs, flags (no broadcast bit), ciaddr, yiaddr, siaddr, giaddr stay 0.
    if (chaddr && chaddr_len)
        w.put(DHCP_OFF_CHADDR, chaddr, chaddr_len > DHCP_CHADDR_LEN ? DHCP_CHADDR_LEN : chaddr_len);
    w.put(DHCP_OFF_MAGIC, k_magic, sizeof(k_magic));
    w.put(DHCP_OFF_OPTIONS, k_options, sizeof(k_options));
    return DHCP_MSG_LEN;
}

int build_udp_frame(uint8_t *frame, size_t size, const uint8_t *payload, size_t payload_len,
                    const uint8_t *src_mac, const char *src_ip, const char *dst_ip,
                    uint8_t protocol)
{
    memset(frame, 0, size);
    // The headers are written through fixed-size writers; make sure they and
    // the payload fit before writing any of them.
    if (size < DHCP_MSG_OFFSET || payload_len > size - DHCP_MSG_OFFSET ||
        payload_len > 0xFFFF - IPV4_HDR_LEN - UDP_HDR_LEN)
        return 0;

    fill_eth_header(frame, src_mac, k_broadcast_mac, htons(ETH_P_IP));
    fill_udp_header(frame + ETH_HDR_LEN + IPV4_HDR_LEN, static_cast<uint16_t>(payload_len));
    fill_ip_header(frame + ETH_HDR_LEN, static_cast<uint16_t>(UDP_HDR_LEN + payload_len), src_ip,
                   dst_ip, protocol);
    ByteWriter w(frame, size);
    w.put(DHCP_MSG_OFFSET, payload, payload_len);
    return static_cast<int>(DHCP_MSG_OFFSET + payload_len);
}

int fill_eth_header(uint8_t *hdr, const uint8_t *src_mac, const uint8_t *dst_mac,
                    uint16_t ethertype_be)
{
    ByteWriter w(hdr, ETH_HDR_LEN);
    w.put(0, dst_mac, MAC_LEN);
    w.put(6, src_mac, MAC_LEN);
    w.put(12, &ethertype_be, 2);  // already in network byte order
    return ETH_HDR_LEN;
}

int fill_ip_header(uint8_t *hdr, uint16_t payload_len, const char *src_ip, const char *dst_ip,
                   uint8_t protocol)
{
    ByteWriter w(hdr, IPV4_HDR_LEN);
    w.u8(0, 0x45);  // version 4, 5 words of header
    w.u8(1, 0);     // type of service
    w.be16(2, static_cast<uint16_t>(IPV4_HDR_LEN + payload_len));
    w.be16(4, DHCP_IP_ID);
    w.be16(6, 0);   // no fragmentation
    w.u8(8, DHCP_IP_TTL);
    w.u8(9, protocol);
    w.be16(10, 0);  // checksum is computed over a zero field
    w.raw32(12, inet_addr(src_ip));  // inet_addr answers in network byte order
    w.raw32(16, inet_addr(dst_ip));
    uint16_t sum = ip_checksum(hdr, IPV4_HDR_LEN / 2);
    w.put(10, &sum, 2);  // stored as computed: in memory order, like the words summed
    return IPV4_HDR_LEN;
}

int fill_udp_header(uint8_t *hdr, uint16_t payload_len)
{
    ByteWriter w(hdr, UDP_HDR_LEN);
    w.be16(0, DHCP_CLIENT_PORT);
    w.be16(2, DHCP_SERVER_PORT);
    w.be16(4, static_cast<uint16_t>(UDP_HDR_LEN + payload_len));
    w.be16(6, 0);  // no UDP checksum: allowed over IPv4, and servers accept it
    return UDP_HDR_LEN;
}

uint16_t ip_checksum(const void *data, size_t words)
{
    // Summing the words in memory order and storing the result the same way
    // gives the right bytes on the wire on either byte order.
    const uint8_t *p = static_cast<const uint8_t *>(data);
    uint64_t sum = 0;
    for (size_t i = 0; i < words; i++) {
        uint16_t word;
        memcpy(&word, p + 2 * i, 2);
        sum += word;
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xFFFF);
}
