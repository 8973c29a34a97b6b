// Raw ARP probing: one slot (socket + addresses) per probed port or ARP entry,
// the process-wide run record that owns the slots, and the request frame.
#ifndef LANPROBE_ARP_ARP_PACKET_H
#define LANPROBE_ARP_ARP_PACKET_H

#include <stddef.h>
#include <stdint.h>

#include <type_traits>

extern "C" {
#include <libubox/uloop.h>
}

#include "registry/device_table.h"
#include "support/byte_view.h"

#define ARP_FRAME_LEN 60       // Ethernet minimum frame, what every request is padded to
#define ARP_RECV_BUF_LEN 1024  // one read of a reply
#define ARP_SEND_WAIT_MS 300   // wait before each blocking send
#define ARP_REPLY_PAUSE_MS 310 // pause between the sends and the reads

// Offsets in an Ethernet frame carrying ARP for IPv4 over Ethernet.
enum : size_t {
    ARP_OFF_ETH_DST = 0,
    ARP_OFF_ETH_SRC = 6,
    ARP_OFF_ETH_TYPE = 12,
    ARP_OFF_HTYPE = 14,
    ARP_OFF_PTYPE = 16,
    ARP_OFF_HLEN = 18,
    ARP_OFF_PLEN = 19,
    ARP_OFF_OPER = 20,
    ARP_OFF_SHA = 22,
    ARP_OFF_SPA = 28,
    ARP_OFF_THA = 32,
    ARP_OFF_TPA = 38,
    ARP_OFF_END = 42,
};

#define ARP_OP_REQUEST 1
#define ARP_OP_REPLY 2

struct t_arp_detect {
    uint8_t replied;
    t_device *dev;       // the port the socket is tied to; not owned
    uint32_t target_ip;  // network byte order
    struct uloop_fd ufd; // fd: 0 never opened, -1 failed or closed
    uint8_t target_mac[MAC_LEN];
    uint8_t src_mac[MAC_LEN];
};
static_assert(std::is_standard_layout_v<t_arp_detect>, "recv_arp_packet uses container_of");

struct t_arp_detect_handle {
    uint8_t arp_num;
    int32_t ifindex;     // sends of slots without a port go out here
    uint32_t br_ip;      // network byte order
    uint32_t br_netmask; // network byte order
    t_arp_detect *arp_detect_array;
    t_arp_entry **arp_table;  // the table being swept; not owned
    uint8_t br_mac[MAC_LEN];
};

// The ARP probe run in progress; all zero when none is.
extern t_arp_detect_handle arp_detect_handle;

// Writes a 60-byte ARP request: Ethernet eth_dst <- eth_src, sender
// (eth_src, sender_ip), target (target_mac, target_ip), zero fill.  Addresses
// in network byte order.
void build_arp_request(uint8_t (&frame)[ARP_FRAME_LEN], const uint8_t *eth_dst,
                       const uint8_t *eth_src, uint32_t sender_ip, const uint8_t *target_mac,
                       uint32_t target_ip);

// The sender protocol address of an ARP reply, or nothing when the frame is
// not a reply.  Replies are read into a cleared receive buffer and judged
// over the whole buffer: bytes a short frame did not bring read as zero.
bool arp_reply_sender_ip(ByteView frame, uint32_t *sender_ip);

bool mac_is_zero(const uint8_t *mac);

int init_arp_sockfd(t_arp_detect *slot, t_device *dev, const uint8_t *target_mac,
                    uint32_t target_ip);
int setTimeOut(int fd, unsigned int ms);
int send_arp_unicast_packet_blocked(t_arp_detect *slot);
// Sends a built frame from the slot's socket for the send operation op; a
// failed send is logged under op's name and closes the socket (descriptor
// -1).  0 or -88.
int send_arp_frame(t_arp_detect *slot, const uint8_t (&frame)[ARP_FRAME_LEN], const char *op);
void release_arp_detect_handle(t_arp_detect_handle *handle);

// Dotted form of an address in network byte order, by value, so that one log
// line can print two addresses: LOG_MSG(..., ip_text(a).text, ip_text(b).text).
struct t_ip_text {
    char text[16];
};
t_ip_text ip_text(uint32_t ip);

// The six bytes of a MAC address as printf arguments.
#define MAC_ARGS(m) (m)[0], (m)[1], (m)[2], (m)[3], (m)[4], (m)[5]

#endif
