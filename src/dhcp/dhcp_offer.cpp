// The read handler of a probe socket. The socket sees every frame that passes
// the port, so everything is read through a view of exactly the bytes that
// recvfrom returned: no frame, however short or odd, is read past its end.
#include "dhcp/dhcp_offer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "support/log.h"

// Offsets in the received Ethernet frame. The IPv4 header is taken to be 20
// bytes long: a server answering a broadcast DISCOVER sends no IP options.
#define FRAME_OFF_ETH_SRC 6
#define FRAME_OFF_IP_PROTO 23
#define FRAME_OFF_UDP_DPORT 36

static const uint8_t k_magic[4] = {0x63, 0x82, 0x53, 0x63};

bool check_dhcp_magic(ByteView msg)
{
    return msg.equals(DHCP_OFF_MAGIC, k_magic, sizeof(k_magic));
}

std::optional<t_dhcp_option> next_dhcp_option(ByteView msg, size_t *offset)
{
    size_t pos = DHCP_OFF_OPTIONS + *offset;
    std::optional<uint8_t> code = msg.u8(pos);
    // A pad byte ends the walk just like the end option: it is not skipped.
    if (!code || *code == DHCP_OPT_PAD || *code == DHCP_OPT_END)
        return std::nullopt;
    std::optional<uint8_t> len = msg.u8(pos + 1);
    if (!len || !msg.has(pos + 2, *len))
        return std::nullopt;
    *offset += static_cast<size_t>(*len) + 2;
    return t_dhcp_option{*code, *len, ByteView(msg.data() + pos + 2, *len)};
}

uint32_t option_ipv4(const uint8_t *value)
{
    uint32_t ip;
    memcpy(&ip, value, 4);  // stays in network byte order
    return ip;
}

static const char *ctx_name(const lanprobe_ctx *ctx)
{
    return ctx->dev ? ctx->dev->name : "";
}

// The option walk of the read handler (logged under its name, op): takes the
// gateway and the first DNS server. Options are handled in the order they
// appear, so of two equal options the later one wins.
static void parse_offer_options(lanprobe_ctx *ctx, ByteView msg, const char *op)
{
    size_t offset = 0;
    while (std::optional<t_dhcp_option> opt = next_dhcp_option(msg, &offset)) {
        struct in_addr addr;
        if (opt->code == DHCP_OPT_ROUTER && opt->len == 4) {
            // A list of two or more routers is passed over.
            ctx->offer.gateway_ip = option_ipv4(opt->value.data());
            addr.s_addr = ctx->offer.gateway_ip;
            LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "dev:%s, GATEWAY=%s\n", ctx_name(ctx), inet_ntoa(addr));
        } else if (opt->code == DHCP_OPT_DNS && opt->len != 0 && opt->len % 4 == 0) {
            ctx->offer.dns_ip = option_ipv4(opt->value.data());
            addr.s_addr = ctx->offer.dns_ip;
            LOG_MSG_AS(op, LOG_LEVEL_DEBUG, "dev:%s, DNS_SERVER=%s\n", ctx_name(ctx), inet_ntoa(addr));
        }
    }
}

void recv_dhcp_discovery_packet(struct uloop_fd *ufd, unsigned int events)
{
    lanprobe_ctx *ctx = container_of(ufd, lanprobe_ctx, ufd);

    LOG_MSG(LOG_LEVEL_DEBUG, "recv dhcp discovery packet from dev:%s\n", ctx_name(ctx));
    if (!(events & ULOOP_READ)) {
        // The socket is registered with ULOOP_ERROR_CB, so an error on it (the
        // port went down or was deleted: ENETDOWN) is reported here at every
        // loop pass for as long as it is pending. Left alone, it spins the
        // loop and writes this Debug line hundreds of thousands of times until
        // the pass times out. Fetching the error clears it; the socket stays
        // registered and an OFFER that still arrives is read as usual.
        if (ufd->error) {
            int err = 0;
            socklen_t len = sizeof(err);
            getsockopt(ufd->fd, SOL_SOCKET, SO_ERROR, &err, &len);
        }
        return;
    }

    uint8_t buf[DHCP_FRAME_BUF_LEN];
    memset(buf, 0, sizeof(buf));
    // One frame per readiness event; a longer frame is cut to the buffer.
    ssize_t n = recvfrom(ufd->fd, buf, sizeof(buf), 0, nullptr, nullptr);
    if (n <= 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Cannot read from socket, try again! dev=%s\n", ctx_name(ctx));
        return;
    }

    const ByteView frame(buf, static_cast<size_t>(n));
    const ByteView msg = frame.from(DHCP_MSG_OFFSET);

    if (frame.u8(FRAME_OFF_IP_PROTO) != std::optional<uint8_t>(IPPROTO_UDP) ||
        frame.be16(FRAME_OFF_UDP_DPORT) != std::optional<uint16_t>(DHCP_CLIENT_PORT) ||
        !check_dhcp_magic(msg) || msg.u8(DHCP_OFF_OP) != std::optional<uint8_t>(2)) {
        LOG_MSG(LOG_LEVEL_DEBUG, "read from socket parse error, try again! dev=%s\n",
                ctx_name(ctx));
        return;
    }

    // The cookie at message offset 236 was there, so every fixed field before
    // it is inside the received bytes.
    uint32_t xid = msg.raw32(DHCP_OFF_XID).value_or(0);
    if (xid != ctx->random_xid) {
        LOG_MSG(LOG_LEVEL_INFO, "Not match: rdhcp->xid=0x%08x, lanprobe_ctx->random_xid=0x%08x\n",
                xid, ctx->random_xid);
        return;
    }

    ctx->offer.pre_assigned_ip = msg.raw32(DHCP_OFF_YIADDR).value_or(0);
    frame.copy(FRAME_OFF_ETH_SRC, ctx->offer.mac, MAC_LEN);
    struct in_addr yiaddr;
    yiaddr.s_addr = ctx->offer.pre_assigned_ip;
    const uint8_t *m = ctx->offer.mac;
    LOG_MSG(LOG_LEVEL_DEBUG, "dev:%s, IPADDR=%s, MAC=%02X-%02X-%02X-%02X-%02X-%02X\n",
            ctx_name(ctx), inet_ntoa(yiaddr), m[0], m[1], m[2], m[3], m[4], m[5]);

    if (memcmp(ctx->offer.mac, lanprobe_handle.br_mac, MAC_LEN) == 0) {
        // Our own bridge answered: the LAN loops back to us. Keep waiting for
        // a real server; the address and MAC just stored never reach the
        // interface record while offered is 0.
        const uint8_t *b = lanprobe_handle.br_mac;
        LOG_MSG(LOG_LEVEL_WARNING,
                "Detecing dhcp offer from own mac:%02X-%02X-%02X-%02X-%02X-%02X, meaning there is a cirecle in lan!!\n",
                b[0], b[1], b[2], b[3], b[4], b[5]);
        return;
    }

    parse_offer_options(ctx, msg, __func__);

    ctx->offered = 1;
    close_probe_socket(ctx);
    LOG_MSG(LOG_LEVEL_INFO, "Success parse dhcp discovery packet in dev=%s\n", ctx_name(ctx));
}
