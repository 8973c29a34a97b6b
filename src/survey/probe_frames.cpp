#include "survey/probe_frames.h"

#include <string.h>

namespace {

constexpr size_t ETH_LEN = 14, IP_LEN = 20, UDP_LEN = 8;
constexpr size_t BOOTP_LEN = 300;  // the smallest message old BOOTP relays pass on
const uint8_t kBroadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

void eth_header(ByteWriter &w, const uint8_t src[6], uint16_t type)
{
    w.put(0, kBroadcast, 6);
    w.put(6, src, 6);
    w.be16(12, type);
}

uint16_t checksum(const uint8_t *p, size_t n)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < n; i += 2)
        sum += static_cast<uint32_t>((p[i] << 8) | p[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

}  // namespace

void survey_client_mac(uint32_t xid, uint8_t mac[6])
{
    mac[0] = static_cast<uint8_t>((xid & 0xfc) | 0x02);
    for (int i = 1; i < 6; ++i)
        mac[i] = static_cast<uint8_t>(xid >> (4 * i));
}

size_t build_survey_discover(uint8_t *buf, size_t size, uint32_t xid, const uint8_t mac[6])
{
    if (size < SURVEY_DISCOVER_FRAME_LEN)
        return 0;
    memset(buf, 0, SURVEY_DISCOVER_FRAME_LEN);
    ByteWriter w(buf, size);
    eth_header(w, mac, 0x0800);
    // IPv4: 0.0.0.0 -> 255.255.255.255, UDP, TTL 64, no fragments.
    w.u8(14, 0x45);
    w.be16(16, IP_LEN + UDP_LEN + BOOTP_LEN);
    w.u8(22, 64);
    w.u8(23, 17);
    w.put(30, kBroadcast, 4);
    w.be16(24, checksum(buf + ETH_LEN, IP_LEN));
    // UDP 68 -> 67; checksum 0 (none), as IPv4 allows.
    w.be16(34, 68);
    w.be16(36, 67);
    w.be16(38, UDP_LEN + BOOTP_LEN);
    const size_t m = ETH_LEN + IP_LEN + UDP_LEN;
    w.u8(m + 0, 1);  // BOOTREQUEST
    w.u8(m + 1, 1);  // Ethernet
    w.u8(m + 2, 6);
    w.be32(m + 4, xid);
    w.put(m + 28, mac, 6);
    static const uint8_t options[] = {
        0x63, 0x82, 0x53, 0x63,       // magic cookie
        53, 1, 1,                     // DHCPDISCOVER
        55, 5, 1, 3, 6, 15, 51,       // mask, router, DNS, domain, lease time
        255,
    };
    w.put(m + 236, options, sizeof options);
    return w.ok() ? SURVEY_DISCOVER_FRAME_LEN : 0;
}

size_t build_survey_arp_probe(uint8_t *buf, size_t size, const uint8_t mac[6], uint32_t target_ip)
{
    if (size < SURVEY_ARP_FRAME_LEN)
        return 0;
    memset(buf, 0, SURVEY_ARP_FRAME_LEN);
    ByteWriter w(buf, size);
    eth_header(w, mac, 0x0806);
    static const uint8_t head[8] = {0, 1, 8, 0, 6, 4, 0, 1};  // Ethernet/IPv4 request
    w.put(14, head, 8);
    w.put(22, mac, 6);  // sender IP stays 0.0.0.0, target MAC 0
    w.raw32(38, target_ip);
    return w.ok() ? SURVEY_ARP_FRAME_LEN : 0;
}

ByteView udp_to_client(ByteView f, uint32_t *src_ip)
{
    std::optional<uint16_t> type = f.be16(12);
    std::optional<uint8_t> vihl = f.u8(ETH_LEN);
    if (!type || *type != 0x0800 || !vihl || (*vihl >> 4) != 4)
        return ByteView();
    size_t ihl = static_cast<size_t>(*vihl & 0x0f) * 4;
    std::optional<uint16_t> total = f.be16(ETH_LEN + 2);
    std::optional<uint16_t> frag = f.be16(ETH_LEN + 6);
    std::optional<uint8_t> proto = f.u8(ETH_LEN + 9);
    if (ihl < IP_LEN || !total || *total < ihl + UDP_LEN || !f.has(ETH_LEN, *total) || !frag ||
        (*frag & 0x3fff) != 0 || !proto || *proto != 17)
        return ByteView();
    ByteView ip(f.data() + ETH_LEN, *total);  // Ethernet padding is cut off here
    std::optional<uint16_t> dport = ip.be16(ihl + 2);
    std::optional<uint16_t> ulen = ip.be16(ihl + 4);
    if (!dport || *dport != 68 || !ulen || *ulen < UDP_LEN || !ip.has(ihl, *ulen))
        return ByteView();
    ip.copy(12, src_ip, 4);
    return ByteView(ip.data() + ihl + UDP_LEN, *ulen - UDP_LEN);
}

bool arp_reply_for(ByteView f, const uint8_t mac[6], uint32_t ip, uint8_t sender_mac[6])
{
    static const uint8_t head[8] = {0, 1, 8, 0, 6, 4, 0, 2};  // Ethernet/IPv4 reply
    std::optional<uint16_t> type = f.be16(12);
    return type && *type == 0x0806 && f.equals(14, head, 8) && f.equals(28, &ip, 4) &&
           f.equals(32, mac, 6) && f.copy(22, sender_mac, 6);
}
