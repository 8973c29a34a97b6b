// Reading DHCP replies on a probe socket: the read handler and the option walk.
#ifndef LANPROBE_DHCP_DHCP_OFFER_H
#define LANPROBE_DHCP_DHCP_OFFER_H

#include <stddef.h>
#include <stdint.h>

#include <optional>

#include "dhcp/dhcp_packet.h"
#include "support/byte_view.h"

#define DHCP_OPT_PAD 0
#define DHCP_OPT_ROUTER 3
#define DHCP_OPT_DNS 6
#define DHCP_OPT_END 255

// One option of a received message; value covers exactly its len bytes.
struct t_dhcp_option {
    uint8_t code;
    uint8_t len;
    ByteView value;
};

// True when the message (starting at op) carries the magic cookie at 236.
bool check_dhcp_magic(ByteView msg);
// The option at message offset 240 + *offset, advancing *offset past it; none
// at a pad or end byte, or when the option would run past the received bytes.
std::optional<t_dhcp_option> next_dhcp_option(ByteView msg, size_t *offset);
// Four value bytes as an IPv4 address in network byte order.
uint32_t option_ipv4(const uint8_t *value);

void recv_dhcp_discovery_packet(struct uloop_fd *ufd, unsigned int events);

#endif
