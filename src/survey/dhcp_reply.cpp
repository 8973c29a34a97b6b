#include "survey/dhcp_reply.h"

#include <string.h>

namespace {

// One decoder per option code; each gets one instance's bytes.  Several
// instances of an option are joined in order (long options split over
// several instances): lists and the domain name append, fixed-size values
// must come whole in each.
typedef bool (*OptionDecoder)(ByteView v, DhcpReply *r);

bool take_u32(ByteView v, uint32_t *out, bool *has)
{
    if (v.size() != 4)
        return false;
    uint32_t x;
    v.copy(0, &x, 4);
    *out = x;
    *has = true;
    return true;
}

bool take_list(ByteView v, uint32_t *list, uint8_t *n)
{
    if (v.size() == 0 || v.size() % 4 != 0)
        return false;
    for (size_t off = 0; off < v.size(); off += 4) {
        if (*n == SURVEY_MAX_ADDRS)
            break;  // more addresses than anyone configures: the rest are not kept
        v.copy(off, &list[*n], 4);
        ++*n;
    }
    return true;
}

bool dec_mask(ByteView v, DhcpReply *r) { return take_u32(v, &r->mask, &r->has_mask); }
bool dec_routers(ByteView v, DhcpReply *r) { return take_list(v, r->routers, &r->n_routers); }
bool dec_dns(ByteView v, DhcpReply *r) { return take_list(v, r->dns, &r->n_dns); }
bool dec_lease(ByteView v, DhcpReply *r) { return take_u32(v, &r->lease, &r->has_lease); }
bool dec_server_id(ByteView v, DhcpReply *r) { return take_u32(v, &r->server_id, &r->has_server_id); }

bool dec_domain(ByteView v, DhcpReply *r)
{
    if (v.size() == 0)
        return false;
    for (size_t i = 0; i < v.size() && r->domain_len + 1u < SURVEY_DOMAIN_LEN; ++i) {
        uint8_t c = *v.u8(i);
        if (c == 0 && i + 1 == v.size())
            break;  // some servers send the name zero-terminated
        r->domain[r->domain_len++] = (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
    }
    r->domain[r->domain_len] = '\0';
    return true;
}

bool dec_type(ByteView v, DhcpReply *r)
{
    if (v.size() != 1)
        return false;
    r->type = *v.u8(0);
    return true;
}

struct OptionRow {
    uint8_t code;
    OptionDecoder decode;
};

const OptionRow kDecoders[] = {
    {1, dec_mask}, {3, dec_routers}, {6, dec_dns}, {15, dec_domain},
    {51, dec_lease}, {53, dec_type}, {54, dec_server_id},
};

constexpr uint8_t OPT_PAD = 0;
constexpr uint8_t OPT_OVERLOAD = 52;
constexpr uint8_t OPT_END = 255;

// Walks one field of options.  Returns false on a length that runs past the
// field (the walk stops there); *overload gets option 52's value.
bool walk_options(ByteView field, DhcpReply *r, uint8_t *overload, bool allow_overload)
{
    size_t off = 0;
    while (off < field.size()) {
        uint8_t code = *field.u8(off);
        if (code == OPT_PAD) {
            ++off;
            continue;
        }
        if (code == OPT_END)
            return true;
        std::optional<uint8_t> len = field.u8(off + 1);
        if (!len || !field.has(off + 2, *len))
            return false;  // truncated: the length byte or the value is missing
        ByteView value(field.data() + off + 2, *len);
        if (code == OPT_OVERLOAD) {
            // Only the options field may say that file and sname hold options.
            if (!allow_overload || *len != 1 || *value.u8(0) < 1 || *value.u8(0) > 3)
                r->malformed = true;
            else
                *overload = *value.u8(0);
        } else {
            for (const OptionRow &row : kDecoders)
                if (row.code == code && !row.decode(value, r))
                    r->malformed = true;
        }
        off += 2 + *len;
    }
    return true;  // no end option: the field simply ran out
}

}  // namespace

bool parse_dhcp_options(ByteView msg, DhcpReply *r)
{
    static const uint8_t cookie[4] = {0x63, 0x82, 0x53, 0x63};
    if (!msg.equals(BOOTP_OFF_COOKIE, cookie, 4))
        return false;
    uint8_t overload = 0;
    if (!walk_options(msg.from(BOOTP_OFF_OPTIONS), r, &overload, true)) {
        r->malformed = true;
        return true;
    }
    // Overloaded fields are read after the options field: file first, then sname.
    if ((overload & 1) && !walk_options(ByteView(msg.data() + BOOTP_OFF_FILE, BOOTP_FILE_LEN), r,
                                        &overload, false))
        r->malformed = true;
    else if ((overload & 2) && !walk_options(ByteView(msg.data() + BOOTP_OFF_SNAME, BOOTP_SNAME_LEN),
                                             r, &overload, false))
        r->malformed = true;
    return true;
}

bool parse_dhcp_reply(ByteView msg, uint32_t xid, const uint8_t chaddr[6], DhcpReply *r)
{
    std::optional<uint8_t> op = msg.u8(BOOTP_OFF_OP);
    std::optional<uint8_t> hlen = msg.u8(BOOTP_OFF_HLEN);
    const uint8_t xid_be[4] = {static_cast<uint8_t>(xid >> 24), static_cast<uint8_t>(xid >> 16),
                               static_cast<uint8_t>(xid >> 8), static_cast<uint8_t>(xid)};
    if (!op || *op != 2 || !hlen || *hlen != 6 || !msg.equals(BOOTP_OFF_XID, xid_be, 4) ||
        !msg.equals(BOOTP_OFF_CHADDR, chaddr, 6))
        return false;
    msg.copy(BOOTP_OFF_YIADDR, &r->yiaddr, 4);
    msg.copy(BOOTP_OFF_GIADDR, &r->giaddr, 4);
    if (!parse_dhcp_options(msg, r))
        return false;
    // Requests, releases and the like are other clients' business.
    return r->type == DHCP_TYPE_NONE || r->type == DHCP_TYPE_OFFER || r->type == DHCP_TYPE_ACK ||
           r->type == DHCP_TYPE_NAK;
}

const char *dhcp_type_name(uint8_t type)
{
    switch (type) {
    case DHCP_TYPE_OFFER: return "OFFER";
    case DHCP_TYPE_ACK: return "ACK";
    case DHCP_TYPE_NAK: return "NAK";
    case DHCP_TYPE_NONE: return "BOOTP";
    default: return "OTHER";
    }
}
