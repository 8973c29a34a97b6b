// What a DHCP server said to one of our DISCOVERs, read from the BOOTP message
// through the bounds-checked view.  Addresses are kept as they lie on the wire
// (network byte order).
#ifndef LANPROBE_SURVEY_DHCP_REPLY_H
#define LANPROBE_SURVEY_DHCP_REPLY_H

#include <stddef.h>
#include <stdint.h>

#include "support/byte_view.h"

#define SURVEY_MAX_ADDRS 8
#define SURVEY_DOMAIN_LEN 256

// BOOTP fixed part; the options follow the magic cookie.
#define BOOTP_OFF_OP 0
#define BOOTP_OFF_HLEN 2
#define BOOTP_OFF_XID 4
#define BOOTP_OFF_YIADDR 16
#define BOOTP_OFF_GIADDR 24
#define BOOTP_OFF_CHADDR 28
#define BOOTP_OFF_SNAME 44
#define BOOTP_SNAME_LEN 64
#define BOOTP_OFF_FILE 108
#define BOOTP_FILE_LEN 128
#define BOOTP_OFF_COOKIE 236
#define BOOTP_OFF_OPTIONS 240

enum DhcpMsgType : uint8_t {
    DHCP_TYPE_NONE = 0,  // no option 53: a plain BOOTP reply
    DHCP_TYPE_DISCOVER = 1,
    DHCP_TYPE_OFFER = 2,
    DHCP_TYPE_ACK = 5,
    DHCP_TYPE_NAK = 6,
};

struct DhcpReply {
    uint8_t type;  // option 53, DHCP_TYPE_NONE when absent
    uint8_t server_mac[6];
    uint32_t src_ip;  // IPv4 source of the frame
    uint32_t yiaddr, giaddr;
    uint32_t server_id, mask, lease;  // valid when the matching has_ bit is set
    bool has_server_id, has_mask, has_lease;
    // A length that does not fit the option or the message: what was read
    // before it is kept and the reply is still recorded, marked malformed,
    // because a broken server behind a port is a finding too.
    bool malformed;
    uint8_t n_routers, n_dns;
    uint32_t routers[SURVEY_MAX_ADDRS];
    uint32_t dns[SURVEY_MAX_ADDRS];
    uint16_t domain_len;
    char domain[SURVEY_DOMAIN_LEN];  // zero-terminated; non-printable bytes become '?'
    uint32_t ms;                     // after the port's first DISCOVER
};

// Reads the options of a BOOTP message (from the magic cookie on) into r:
// pads skipped, the end option stops a field, option overload (52) sends the
// walk on through file and then sname.  false when the message has no magic
// cookie; a bad length inside sets r->malformed and ends the walk.
bool parse_dhcp_options(ByteView msg, DhcpReply *r);

// A whole BOOTP reply to our DISCOVER: op 2, our xid and client address, then
// the options.  false when the message is not such a reply.
bool parse_dhcp_reply(ByteView msg, uint32_t xid, const uint8_t chaddr[6], DhcpReply *r);

const char *dhcp_type_name(uint8_t type);

#endif
