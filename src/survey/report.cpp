#include "survey/report.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <json-c/json.h>

namespace {

void mac_text(const uint8_t m[6], char out[18])
{
    snprintf(out, 18, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
}

void ip_text(uint32_t a, char out[INET_ADDRSTRLEN])
{
    struct in_addr in;
    in.s_addr = a;
    inet_ntop(AF_INET, &in, out, INET_ADDRSTRLEN);
}

json_object *jmac(const uint8_t m[6])
{
    char t[18];
    mac_text(m, t);
    return json_object_new_string(t);
}

// 0.0.0.0 (or a value the server did not send) is null in the document.
json_object *jip(uint32_t a, bool present = true)
{
    if (!present || a == 0)
        return nullptr;
    char t[INET_ADDRSTRLEN];
    ip_text(a, t);
    return json_object_new_string(t);
}

json_object *jips(const uint32_t *list, int n)
{
    json_object *arr = json_object_new_array();
    for (int i = 0; i < n; ++i)
        json_object_array_add(arr, jip(list[i]));
    return arr;
}

void put(json_object *o, const char *key, json_object *v) { json_object_object_add(o, key, v); }

ServerVerdict reply_verdict(const SurveyView &v, const DhcpReply &r)
{
    return judge_server(r.server_mac, r.has_server_id ? r.server_id : 0, r.src_ip, v.own_macs,
                        v.n_own, *v.allow);
}

bool is_own(const SurveyView &v, const uint8_t mac[6])
{
    for (int i = 0; i < v.n_own; ++i)
        if (memcmp(v.own_macs + 6 * i, mac, 6) == 0)
            return true;
    return false;
}

AddrClass port_hint(const SurveyView &v, const PortProbe &p)
{
    AddrClass best = ADDR_NONE;
    for (int i = 0; i < p.n_replies; ++i) {
        AddrClass c = classify_addr(p.replies[i].yiaddr, v.survey->router);
        if (c > best)
            best = c;
    }
    return best;
}

json_object *reply_json(const SurveyView &v, const DhcpReply &r)
{
    json_object *o = json_object_new_object();
    put(o, "type", json_object_new_string(dhcp_type_name(r.type)));
    put(o, "server_mac", jmac(r.server_mac));
    put(o, "server_id", jip(r.server_id, r.has_server_id));
    put(o, "source_ip", jip(r.src_ip));
    put(o, "offered", jip(r.yiaddr));
    put(o, "offered_network", json_object_new_string(hint_name(classify_addr(r.yiaddr, v.survey->router))));
    put(o, "mask", jip(r.mask, r.has_mask));
    put(o, "routers", jips(r.routers, r.n_routers));
    put(o, "dns", jips(r.dns, r.n_dns));
    put(o, "lease_s", r.has_lease ? json_object_new_int64(ntohl(r.lease)) : nullptr);
    put(o, "domain", r.domain_len ? json_object_new_string(r.domain) : nullptr);
    put(o, "relay", jip(r.giaddr));
    put(o, "ms", json_object_new_int64(r.ms));
    put(o, "malformed", json_object_new_boolean(r.malformed));
    put(o, "verdict", json_object_new_string(verdict_name(reply_verdict(v, r))));
    return o;
}

}  // namespace

SurveyStatus port_status(const SurveyView &v, const PortProbe &p)
{
    SurveyStatus s = STATUS_OK;
    for (int i = 0; i < p.n_claims; ++i)
        if (!is_own(v, p.claims[i]))
            return STATUS_CRITICAL;
    for (int i = 0; i < p.n_replies; ++i) {
        const DhcpReply &r = p.replies[i];
        if (reply_verdict(v, r) != VERDICT_ROGUE)
            continue;
        if (classify_addr(r.yiaddr, v.survey->router) == ADDR_LAN)
            return STATUS_CRITICAL;
        s = STATUS_WARNING;
    }
    return s;
}

SurveyStatus survey_status(const SurveyView &v)
{
    SurveyStatus s = STATUS_OK;
    for (int i = 0; i < v.survey->n; ++i) {
        SurveyStatus p = port_status(v, v.survey->probes[i]);
        if (p > s)
            s = p;
    }
    return s;
}

char *survey_json(const SurveyView &v)
{
    const Survey &s = *v.survey;
    json_object *doc = json_object_new_object();
    if (!doc)
        return nullptr;
    put(doc, "bridge", json_object_new_string(v.bridge));
    put(doc, "window_ms", json_object_new_int(s.window_ms));
    json_object *router = json_object_new_object();
    put(router, "mac", jmac(s.router.bridge_mac));
    put(router, "ip", jip(s.router.ip));
    put(router, "netmask", jip(s.router.netmask));
    put(doc, "router", router);
    put(doc, "status", json_object_new_string(status_name(survey_status(v))));
    json_object *ports = json_object_new_array();
    for (int i = 0; i < s.n; ++i) {
        const PortProbe &p = s.probes[i];
        json_object *o = json_object_new_object();
        put(o, "name", json_object_new_string(p.port.name));
        put(o, "label", json_object_new_string(p.port.label));
        put(o, "client_mac", jmac(p.client_mac));
        put(o, "discovers", json_object_new_int(p.discovers));
        put(o, "arp_probes", json_object_new_int(p.arp_probes));
        put(o, "error", p.error ? json_object_new_string(strerror(p.error)) : nullptr);
        put(o, "hint", json_object_new_string(hint_name(port_hint(v, p))));
        put(o, "status", json_object_new_string(status_name(port_status(v, p))));
        json_object *replies = json_object_new_array();
        for (int j = 0; j < p.n_replies; ++j)
            json_object_array_add(replies, reply_json(v, p.replies[j]));
        put(o, "replies", replies);
        json_object *claims = json_object_new_array();
        for (int j = 0; j < p.n_claims; ++j)
            json_object_array_add(claims, jmac(p.claims[j]));
        put(o, "router_ip_claimed_by", claims);
        json_object_array_add(ports, o);
    }
    put(doc, "ports", ports);
    const char *text = json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED);
    char *out = nullptr;
    if (text) {
        size_t n = strlen(text);
        out = static_cast<char *>(malloc(n + 2));
        if (out) {
            memcpy(out, text, n);
            out[n] = '\n';
            out[n + 1] = '\0';
        }
    }
    json_object_put(doc);
    return out;
}

void print_table(FILE *out, const SurveyView &v)
{
    const Survey &s = *v.survey;
    char a[INET_ADDRSTRLEN], b[INET_ADDRSTRLEN], m[18];
    fprintf(out, "%-10s %-8s %-8s %-17s %-15s %-15s %-8s %6s  %s\n", "PORT", "LABEL", "TYPE",
            "SERVER MAC", "SERVER", "OFFERED", "VERDICT", "MS", "NOTE");
    for (int i = 0; i < s.n; ++i) {
        const PortProbe &p = s.probes[i];
        if (p.error)
            fprintf(out, "%-10s %-8s %s\n", p.port.name, p.port.label, strerror(p.error));
        else if (p.n_replies == 0)
            fprintf(out, "%-10s %-8s %-8s\n", p.port.name, p.port.label, "-");
        for (int j = 0; j < p.n_replies; ++j) {
            const DhcpReply &r = p.replies[j];
            mac_text(r.server_mac, m);
            ip_text(r.has_server_id ? r.server_id : r.src_ip, a);
            ip_text(r.yiaddr, b);
            fprintf(out, "%-10s %-8s %-8s %-17s %-15s %-15s %-8s %6u  %s%s\n", j ? "" : p.port.name,
                    j ? "" : p.port.label, dhcp_type_name(r.type), m, a, b,
                    verdict_name(reply_verdict(v, r)), r.ms,
                    hint_name(classify_addr(r.yiaddr, s.router)), r.malformed ? " malformed" : "");
        }
        for (int j = 0; j < p.n_claims; ++j) {
            mac_text(p.claims[j], m);
            fprintf(out, "%-10s %-8s %-8s %-17s answers for the router's address\n", p.port.name,
                    p.port.label, "ARP", m);
        }
    }
    fprintf(out, "%s: %s, %d ports, %d ms\n", status_name(survey_status(v)), v.bridge, s.n, s.window_ms);
}
