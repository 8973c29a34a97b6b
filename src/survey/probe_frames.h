// The frames the survey sends (a DHCP DISCOVER, an ARP probe for the router's
// address) and the unwrapping of what comes back, all through the view and
// the writer.
#ifndef LANPROBE_SURVEY_PROBE_FRAMES_H
#define LANPROBE_SURVEY_PROBE_FRAMES_H

#include <stddef.h>
#include <stdint.h>

#include "support/byte_view.h"

#define SURVEY_DISCOVER_FRAME_LEN 342  // 14 + 20 + 8 + a 300-byte BOOTP message
#define SURVEY_ARP_FRAME_LEN 42
#define SURVEY_FRAME_BUF_LEN 1536

// The locally administered client address made up from a transaction ID:
// byte 0 takes xid's low byte with the group bit cleared and the local bit
// set, bytes 1..5 take xid shifted right by 4, 8, 12, 16 and 20 bits.
void survey_client_mac(uint32_t xid, uint8_t mac[6]);

// A broadcast DISCOVER from 0.0.0.0:68 to 255.255.255.255:67 with the client
// address as Ethernet source and chaddr, asking for mask, router, DNS, domain
// and lease time.  Returns the frame length, 0 when buf is too small.
size_t build_survey_discover(uint8_t *buf, size_t size, uint32_t xid, const uint8_t mac[6]);

// A broadcast ARP request for target_ip (network order) from sender 0.0.0.0,
// so that no host learns a binding from it.
size_t build_survey_arp_probe(uint8_t *buf, size_t size, const uint8_t mac[6], uint32_t target_ip);

// The UDP payload of an Ethernet/IPv4/UDP frame to port 68, and the IPv4
// source; an empty view when the frame is anything else.
ByteView udp_to_client(ByteView frame, uint32_t *src_ip);

// true when frame is an ARP reply to mac saying that ip (network order) is at
// the sender's address, which goes to sender_mac.
bool arp_reply_for(ByteView frame, const uint8_t mac[6], uint32_t ip, uint8_t sender_mac[6]);

#endif
