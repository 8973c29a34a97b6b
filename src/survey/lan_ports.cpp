#include "survey/lan_ports.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <uci.h>

#include "support/fd_guard.h"

namespace {

bool read_line(const char *path, char *buf, size_t size)
{
    FILE *f = fopen(path, "re");
    if (!f)
        return false;
    bool ok = fgets(buf, static_cast<int>(size), f) != nullptr;
    fclose(f);
    if (ok)
        buf[strcspn(buf, "\n")] = '\0';
    return ok;
}

bool parse_mac(const char *text, uint8_t mac[6])
{
    unsigned b[6];
    if (sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6)
        return false;
    for (int i = 0; i < 6; ++i)
        mac[i] = static_cast<uint8_t>(b[i]);
    return true;
}

bool valid_name(const char *name)
{
    size_t n = strlen(name);
    return n > 0 && n < IF_NAMESIZE && !strchr(name, '/') && strcmp(name, ".") && strcmp(name, "..");
}

extern "C" int not_hidden(const struct dirent *d) { return d->d_name[0] != '.'; }

}  // namespace

bool read_port(const char *sysfs_net, const char *name, SurveyPort *port)
{
    if (!valid_name(name))
        return false;
    char path[256], line[64];
    memset(port, 0, sizeof *port);
    snprintf(port->name, sizeof port->name, "%s", name);
    snprintf(path, sizeof path, "%s/%s/ifindex", sysfs_net, name);
    if (!read_line(path, line, sizeof line))
        return false;
    port->ifindex = atoi(line);
    snprintf(path, sizeof path, "%s/%s/address", sysfs_net, name);
    return read_line(path, line, sizeof line) && parse_mac(line, port->mac) && port->ifindex > 0;
}

int list_bridge_ports(const char *sysfs_net, const char *bridge, SurveyPort *ports, int max)
{
    if (!valid_name(bridge)) {
        errno = ENODEV;
        return -1;
    }
    char dir[256];
    snprintf(dir, sizeof dir, "%s/%s/brif", sysfs_net, bridge);
    struct dirent **names = nullptr;
    int n = scandir(dir, &names, not_hidden, alphasort);
    if (n < 0)
        return -1;
    int count = 0;
    for (int i = 0; i < n; ++i) {
        if (count < max && read_port(sysfs_net, names[i]->d_name, &ports[count]))
            ++count;
        free(names[i]);
    }
    free(names);
    return count;
}

void read_switch_labels(const char *confdir, SurveyPort *ports, int n)
{
    struct uci_context *ctx = uci_alloc_context();
    if (!ctx)
        return;
    struct uci_package *pkg = nullptr;
    if (uci_set_confdir(ctx, confdir) == UCI_OK && uci_load(ctx, "switch", &pkg) == UCI_OK) {
        struct uci_element *se;
        uci_foreach_element(&pkg->sections, se) {
            struct uci_section *s = uci_to_section(se);
            if (strcmp(s->type, "switch_port") != 0)
                continue;
            // Read as the router's own detection reads them: a section names an
            // Ethernet interface ("eth...") and a port number, or it is passed over.
            const char *ifname = uci_lookup_option_string(ctx, s, "ifname");
            const char *port = uci_lookup_option_string(ctx, s, "port");
            const char *label = uci_lookup_option_string(ctx, s, "label");
            if (!ifname || !port || !label || strncmp(ifname, "eth", 3) != 0)
                continue;
            for (int i = 0; i < n; ++i)
                if (strcmp(ports[i].name, ifname) == 0)
                    snprintf(ports[i].label, sizeof ports[i].label, "%s", label);
        }
        uci_unload(ctx, pkg);
    }
    uci_free_context(ctx);
}

bool read_router_info(const char *sysfs_net, const char *bridge, RouterInfo *info)
{
    memset(info, 0, sizeof *info);
    SurveyPort br;
    if (!read_port(sysfs_net, bridge, &br))
        return false;
    memcpy(info->bridge_mac, br.mac, 6);
    FdGuard sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.valid())
        return true;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", bridge);
    // A bridge without an IPv4 address is surveyed all the same, without the ARP check.
    if (ioctl(sock.get(), SIOCGIFADDR, &ifr) == 0) {
        info->ip = reinterpret_cast<struct sockaddr_in *>(&ifr.ifr_addr)->sin_addr.s_addr;
        if (ioctl(sock.get(), SIOCGIFNETMASK, &ifr) == 0)
            info->netmask = reinterpret_cast<struct sockaddr_in *>(&ifr.ifr_netmask)->sin_addr.s_addr;
    }
    return true;
}
