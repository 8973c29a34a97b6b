// Judging what the survey saw: whose server it is, what the offered address
// says about the cable in the port, and the monitoring status of the whole.
#ifndef LANPROBE_SURVEY_VERDICT_H
#define LANPROBE_SURVEY_VERDICT_H

#include <stdint.h>

#include "survey/lan_ports.h"

#define SURVEY_MAX_ALLOW 64

// Monitoring plugins' exit codes.
enum SurveyStatus { STATUS_OK = 0, STATUS_WARNING = 1, STATUS_CRITICAL = 2, STATUS_UNKNOWN = 3 };

enum ServerVerdict { VERDICT_OWN, VERDICT_EXPECTED, VERDICT_ROGUE };

// Where an offered address lies, in the order a port's hint prefers them.
enum AddrClass { ADDR_NONE = 0, ADDR_PRIVATE, ADDR_LAN, ADDR_WAN };

struct AllowEntry {
    bool is_mac;
    uint8_t mac[6];
    uint32_t ip;  // network order
};

struct Allowlist {
    int n;
    AllowEntry e[SURVEY_MAX_ALLOW];
};

// "aa:bb:cc:dd:ee:ff" (or with '-') or a dotted IPv4 address; false when it
// is neither or the list is full.
bool allow_add(Allowlist *a, const char *text);
// One entry a line; blank lines and lines starting with '#' are skipped.
// false (errno kept) when the file cannot be read; *bad_line gets the first
// line that is no entry (0 when none).
bool allow_load(Allowlist *a, const char *path, int *bad_line);

// own: one of the router's MACs (the bridge's and its ports'); expected: the
// allowlist names the MAC, the server identifier or the IPv4 source; else rogue.
ServerVerdict judge_server(const uint8_t mac[6], uint32_t server_id, uint32_t src_ip,
                           const uint8_t *own_macs, int n_own, const Allowlist &allow);

// ADDR_LAN inside the router's network, ADDR_PRIVATE another RFC 1918 network,
// ADDR_WAN anything else routable or 100.64.0.0/10, ADDR_NONE for 0.0.0.0.
AddrClass classify_addr(uint32_t addr, const RouterInfo &router);

const char *verdict_name(ServerVerdict v);
const char *hint_name(AddrClass c);
const char *status_name(SurveyStatus s);

#endif
