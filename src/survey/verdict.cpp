#include "survey/verdict.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdio.h>
#include <string.h>

namespace {

bool parse_mac_text(const char *t, uint8_t mac[6])
{
    unsigned b[6];
    char sep[5], end;
    if (sscanf(t, "%2x%c%2x%c%2x%c%2x%c%2x%c%2x%c", &b[0], &sep[0], &b[1], &sep[1], &b[2], &sep[2],
               &b[3], &sep[3], &b[4], &sep[4], &b[5], &end) != 11)
        return false;
    for (int i = 0; i < 5; ++i)
        if (sep[i] != sep[0] || (sep[0] != ':' && sep[0] != '-'))
            return false;
    for (int i = 0; i < 6; ++i)
        mac[i] = static_cast<uint8_t>(b[i]);
    return strlen(t) == 17;
}

bool in_net(uint32_t host_addr, uint32_t net, int bits)
{
    uint32_t mask = bits ? ~0u << (32 - bits) : 0;
    return (host_addr & mask) == net;
}

}  // namespace

bool allow_add(Allowlist *a, const char *text)
{
    if (a->n == SURVEY_MAX_ALLOW)
        return false;
    AllowEntry e;
    memset(&e, 0, sizeof e);
    struct in_addr in;
    if (parse_mac_text(text, e.mac))
        e.is_mac = true;
    else if (inet_pton(AF_INET, text, &in) == 1)
        e.ip = in.s_addr;
    else
        return false;
    a->e[a->n++] = e;
    return true;
}

bool allow_load(Allowlist *a, const char *path, int *bad_line)
{
    *bad_line = 0;
    FILE *f = fopen(path, "re");
    if (!f)
        return false;
    char line[128];
    for (int no = 1; fgets(line, sizeof line, f); ++no) {
        char *s = line;
        while (isspace(static_cast<unsigned char>(*s)))
            ++s;
        size_t len = strlen(s);
        while (len && isspace(static_cast<unsigned char>(s[len - 1])))
            s[--len] = '\0';
        if (len == 0 || s[0] == '#')
            continue;
        if (!allow_add(a, s) && !*bad_line)
            *bad_line = no;
    }
    fclose(f);
    return true;
}

ServerVerdict judge_server(const uint8_t mac[6], uint32_t server_id, uint32_t src_ip,
                           const uint8_t *own_macs, int n_own, const Allowlist &allow)
{
    for (int i = 0; i < n_own; ++i)
        if (memcmp(own_macs + 6 * i, mac, 6) == 0)
            return VERDICT_OWN;
    for (int i = 0; i < allow.n; ++i) {
        const AllowEntry &e = allow.e[i];
        if (e.is_mac ? memcmp(e.mac, mac, 6) == 0 : (e.ip == server_id || e.ip == src_ip))
            return VERDICT_EXPECTED;
    }
    return VERDICT_ROGUE;
}

AddrClass classify_addr(uint32_t addr, const RouterInfo &router)
{
    if (addr == 0)
        return ADDR_NONE;
    if (router.ip && router.netmask && (addr & router.netmask) == (router.ip & router.netmask))
        return ADDR_LAN;
    uint32_t h = ntohl(addr);
    if (in_net(h, 0x0a000000, 8) || in_net(h, 0xac100000, 12) || in_net(h, 0xc0a80000, 16))
        return ADDR_PRIVATE;
    // Carrier-grade NAT space is what many ISPs' modems hand out: upstream, not ours.
    return ADDR_WAN;
}

const char *verdict_name(ServerVerdict v)
{
    return v == VERDICT_OWN ? "own" : v == VERDICT_EXPECTED ? "expected" : "rogue";
}

const char *hint_name(AddrClass c)
{
    switch (c) {
    case ADDR_LAN: return "lan";
    case ADDR_PRIVATE: return "private";
    case ADDR_WAN: return "wan";
    default: return "none";
    }
}

const char *status_name(SurveyStatus s)
{
    static const char *const names[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    return names[s];
}
