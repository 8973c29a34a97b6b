// LAN interface discovery.
#include "registry/lan_discovery.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include <uci.h>

// Discovery builds on the bridge subsystem: the member ports of br-lan come
// from its port enumeration.
#include "bridge/br_port.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/uci_access.h"

namespace {

constexpr const char SWITCH_PACKAGE[] = "switch";
constexpr const char SWITCH_PORT_TYPE[] = "switch_port";
// get_wan_device_name: no usable WAN "eth" port in the switch configuration.
constexpr int WAN_NOT_FOUND = -94;  // fixed on every architecture, like every result code

bool has_eth_prefix(const char *name)
{
    return strncmp(name, "eth", 3) == 0;
}

// Owns the libuci context of one walk and the package loaded into it, so
// every way out unloads the package and frees the context (in that order).
class UciSession {
public:
    UciSession() : ctx_(uci_alloc_context()) {}
    ~UciSession()
    {
        if (pkg_)
            uci_unload(ctx_, pkg_);
        // uci_free_context(NULL) crashes in libuci; never hand it one.
        if (ctx_)
            uci_free_context(ctx_);
    }
    UciSession(const UciSession &) = delete;
    UciSession &operator=(const UciSession &) = delete;

    uci_context *ctx() const { return ctx_; }
    uci_package *pkg() const { return pkg_; }
    uci_package **pkg_slot() { return &pkg_; }

private:
    uci_context *ctx_;
    uci_package *pkg_ = nullptr;
};

// What one switch_port section says.  The value buffers hold at most
// SWITCH_VALUE_MAX characters and are always terminated: longer values are cut.
struct SwitchPort {
    int32_t port = -1;
    char ifname[SWITCH_VALUE_MAX + 1] = {};
    char label[SWITCH_VALUE_MAX + 1] = {};
};

// strtoul gives ULONG_MAX on overflow and for "-1" (which it negates as an
// unsigned value); that one result means "no port".  Every other result is
// taken as a 32-bit signed number, so "-2" gives -2.  Where unsigned long is
// 64 bits, "4294967296" is 0x100000000 and gives 0; where it is 32 bits the
// same text overflows and gives no port.
void parse_port_option(const char *value, int32_t *port)
{
    unsigned long v = strtoul(value, nullptr, 10);
    if (v == ULONG_MAX)
        return;
    *port = static_cast<int32_t>(static_cast<uint32_t>(v));
}

void read_switch_port(uci_section *s, SwitchPort *sp)
{
    uci_element *e;
    uci_foreach_element(&s->options, e)
    {
        uci_option *o = uci_to_option(e);
        // Each of these options is one value.  A "list" option has no single
        // value to take (and its union holds a list head, not text), so it is
        // treated as if the option were not there.
        if (o->type != UCI_TYPE_STRING)
            continue;
        if (strcmp(e->name, "port") == 0)
            parse_port_option(o->v.string, &sp->port);
        else if (strcmp(e->name, "ifname") == 0)
            strlcpy_n(sp->ifname, o->v.string, sizeof(sp->ifname));
        else if (strcmp(e->name, "label") == 0)
            strlcpy_n(sp->label, o->v.string, sizeof(sp->label));
    }
}

}  // namespace

int init_all_lan_device(t_lan_devices *devices)
{
    if (!devices)
        return LP_ERR_INVALID;
    int ret = generate_lan_device(devices);
    if (ret < 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Parse network devices fail!\n");
        return ret;
    }
    ret = get_eth_atrribute(devices->dev_hashmap_head);
    if (ret <= 0)
        LOG_MSG(LOG_LEVEL_ERROR, "get_eth_atrribute failed, or no attribute successfully parse!\n");
    return ret;
}

int generate_lan_device(t_lan_devices *devices)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: generate_lan_device!\n");
    if (!devices)
        return LP_ERR_INVALID;

    int ret = update_brlan_dev_from_sys(LAN_BRIDGE_NAME, &devices->dev_hashmap_head);
    if (ret >= 1)
        return ret;

    // _uci_get_value hands back at most 64 characters, so at most 32 names
    // (one character each) can ever be seen here; the 100-name limit below
    // only matters if that ever grows.
    char value[UCI_ACCESS_BUF_SIZE];
    memset(value, 0, sizeof(value));
    char key[] = "network.lan.ifname";
    if (_uci_get_value(key, value) != 0) {
        LOG_MSG(LOG_LEVEL_ERROR, "Unable to get network.lan.ifname, wrong!!\n");
        return LP_ERR_CONFIG;
    }

    int count = 0;
    int position = 1;
    std::string_view rest(value);
    while (true) {
        // Only the blank separates names; runs of blanks count as one.
        size_t start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos)
            break;
        rest.remove_prefix(start);
        size_t len = rest.find(' ');
        if (len == std::string_view::npos)
            len = rest.size();

        char name[UCI_ACCESS_BUF_SIZE];
        memcpy(name, rest.data(), len);
        name[len] = '\0';
        rest.remove_prefix(len);

        t_device *dev = create_new_device(name);
        if (!dev) {
            LOG_MSG(LOG_LEVEL_ERROR, "Malloc new device failed!\n");
            return count;
        }
        dev->order = static_cast<int8_t>(position);
        position++;
        // A name the list repeats is refused by the table; it still counts.
        if (add_device(&devices->dev_hashmap_head, dev) != 0)
            free(dev);
        count++;
        LOG_MSG(LOG_LEVEL_DEBUG, "Parse lan devices(%d totoal) name: %s\n", count, name);
        if (count > MAX_LAN_DEVICES - 1) {
            LOG_MSG(LOG_LEVEL_ERROR, "Parse lan device number more than %d!\n", MAX_LAN_DEVICES);
            return count;
        }
    }

    LOG_MSG(LOG_LEVEL_INFO, "Parse lan devices success, count:%d\n", count);
    devices->dev_num = static_cast<uint8_t>(count);
    return count;
}

int get_eth_atrribute(t_device *dev_hashmap_head)
{
    LOG_MSG(LOG_LEVEL_DEBUG, "Entering function: get_eth_atrribute!\n");

    UciSession uci;
    // A context that cannot even be allocated means the package cannot be
    // read: report it as a failed load.  There is no context to hand
    // uci_perror, so libuci's own text is left out.
    if (!uci.ctx()) {
        LOG_MSG(LOG_LEVEL_ERROR, "Unable to load uci switch!\n");
        return LP_ERR_CONFIG;
    }
    uci_set_confdir(uci.ctx(), UCI_ACCESS_CONFDIR);
    if (uci_load(uci.ctx(), SWITCH_PACKAGE, uci.pkg_slot()) != UCI_OK) {
        LOG_MSG(LOG_LEVEL_ERROR, "Unable to load uci switch!\n");
        uci_perror(uci.ctx(), SWITCH_PACKAGE);
        return LP_ERR_CONFIG;
    }

    int count = 0;
    uci_element *e;
    uci_foreach_element(&uci.pkg()->sections, e)
    {
        uci_section *s = uci_to_section(e);
        if (strcmp(s->type, SWITCH_PORT_TYPE) != 0)
            continue;

        SwitchPort sp;
        read_switch_port(s, &sp);
        if (sp.ifname[0] == '\0' || sp.port == -1) {
            LOG_MSG(LOG_LEVEL_WARNING, "Failed to get device by config switch.%s\n", e->name);
            continue;
        }
        if (!has_eth_prefix(sp.ifname)) {
            LOG_MSG(LOG_LEVEL_ERROR, "%s not begin with \"eth\"\n", sp.ifname);
            continue;
        }
        t_device *dev = find_device(dev_hashmap_head, sp.ifname);
        if (!dev) {
            LOG_MSG(LOG_LEVEL_WARNING, "Can't find device %s\n", sp.ifname);
            continue;
        }
        dev->port = static_cast<int8_t>(sp.port);
        // Zero-padded like strncpy, but a label of 32 characters or more is cut
        // to 31 so the field stays terminated for the result writer's "%s".
        memset(dev->label, 0, sizeof(dev->label));
        memcpy(dev->label, sp.label, strnlen(sp.label, sizeof(dev->label) - 1));
        count++;
    }

    LOG_MSG(LOG_LEVEL_INFO, "Parse network devices atrribute success, count:%d\n", count);
    return count;
}

int get_wan_device_name(char *buf, size_t size)
{
    if (!buf || size == 0)
        return LP_ERR_INVALID;

    char wan_port[UCI_ACCESS_BUF_SIZE];
    memset(wan_port, 0, sizeof(wan_port));
    char wan_key[] = "switch.wan.switch_port";
    int ret = _uci_get_value(wan_key, wan_port);
    if (ret != 0)
        return ret;

    // Section name (up to 64 characters) plus "switch." and ".ifname": a key
    // that long is refused by _uci_get_value, which ends as "no WAN port".
    char key[sizeof("switch..ifname") + UCI_ACCESS_BUF_SIZE];
    snprintf(key, sizeof(key), "switch.%s.ifname", wan_port);
    char ifname[UCI_ACCESS_BUF_SIZE];
    memset(ifname, 0, sizeof(ifname));
    if (_uci_get_value(key, ifname) != 0 || !has_eth_prefix(ifname))
        return WAN_NOT_FOUND;
    strlcpy_n(buf, ifname, size);
    return LP_OK;
}
