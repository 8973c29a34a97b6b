// The result document: {"result":[{name, label, mac[, pre_assigned_ip][,
// gateway_ip][, dns_ip]}, ...]}, one element per port with a DHCP server, in
// the interface table's order. json-c writes it in its plain form (no blanks,
// no trailing newline) and escapes the slash.
#include "core/result_file.h"

#include <arpa/inet.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>

#include "registry/device_table.h"

// Names and labels are filled with strncpy semantics, so a 32-character text
// has no NUL inside its field: never read past the field.
static json_object *field_string(const char *field, size_t size)
{
    return json_object_new_string_len(field, static_cast<int>(strnlen(field, size)));
}

static void add_ipv4_member(json_object *obj, const char *key, uint32_t ip)
{
    // A zero address means the server did not give one: leave the member out.
    if (ip == 0)
        return;
    struct in_addr addr;
    addr.s_addr = ip;
    json_object_object_add(obj, key, json_object_new_string(inet_ntoa(addr)));
}

void write_detect_result(const char *path)
{
    json_object *root = json_object_new_object();
    json_object *result = json_object_new_array();

    for (t_device *dev = lan_devices.dev_hashmap_head; dev;
         dev = static_cast<t_device *>(dev->hh.next)) {
        if (!device_has_server(dev))
            continue;
        json_object *item = json_object_new_object();
        json_object_object_add(item, "name", field_string(dev->name, sizeof(dev->name)));
        json_object_object_add(item, "label", field_string(dev->label, sizeof(dev->label)));
        char mac[18];
        const uint8_t *m = dev->offer.mac;
        snprintf(mac, sizeof(mac), "%02X:%02X:%02X:%02X:%02X:%02X", m[0], m[1], m[2], m[3], m[4],
                 m[5]);
        json_object_object_add(item, "mac", json_object_new_string(mac));
        add_ipv4_member(item, "pre_assigned_ip", dev->offer.pre_assigned_ip);
        add_ipv4_member(item, "gateway_ip", dev->offer.gateway_ip);
        add_ipv4_member(item, "dns_ip", dev->offer.dns_ip);
        json_object_array_add(result, item);
    }

    json_object_object_add(root, "result", result);
    json_object_to_file(path, root);
    json_object_put(root);
}
