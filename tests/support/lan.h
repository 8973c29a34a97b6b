// A LAN on the real kernel, for tests already inside run_in_netns: br-lan
// with veth ports, peers standing for the hosts behind them, static fdb
// entries, and hosts in network namespaces of their own (a Linux host with an
// address, or a raw-socket responder that answers ARP requests as scripted).
#ifndef LANPROBE_TESTS_SUPPORT_LAN_H
#define LANPROBE_TESTS_SUPPORT_LAN_H

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace lptest {

constexpr const char kBridgeMac[] = "02:00:00:00:00:fe";

uint32_t ipv4(const char *dotted);  // network byte order
std::string mac_of(const std::string &ifname);  // as sysfs shows it
void parse_mac(const std::string &text, uint8_t *mac);

// br-lan (MAC kBridgeMac, address cidr unless empty, STP off, up) with ports
// eth<first>.. eth<first+ports-1>; each is a veth whose peer p<n> stays in
// this namespace outside the bridge.  IPv6 is off, so nothing sends (and
// teaches the bridge addresses) behind the test's back.
bool make_lan(int ports, const std::string &cidr = "192.168.1.1/24", int first = 1);
// Waits (bounded) until each port forwards: the kernel notices the carrier of
// a veth asynchronously, and a port that does not forward drops frames.
bool wait_forwarding(int ports, int first = 1);
// A static fdb entry: the bridge has seen a host with this MAC behind port.
bool learn_host(const std::string &port, const std::string &mac);

// What a responder sends for one request: a reply claiming `sender`, after
// `junk` ARP-typed frames of growing length and garbage content; with
// `foreign_source` the reply's Ethernet source is not the host's MAC.
struct Reply {
    uint32_t sender;
    int junk = 0;
    bool foreign_source = false;
};
// Element k lists what to send for the k-th request seen (from 0).
using Script = std::vector<std::vector<Reply>>;

// The host behind port eth<n>: peer p<n> moves into a forked child in a
// network namespace of its own.  Every ARP request for it (or broadcast) is
// logged; the host stops (by its PID) with the object.
class Host {
public:
    // A Linux host with address cidr; accept_local lets it answer requests
    // whose sender address is its own (an announcement).
    static Host linux_host(int n, const std::string &cidr, bool accept_local);
    // Answers only as scripted: its interface has no address.
    static Host responder(int n, const Script &script);
    Host(Host &&o) noexcept : pid_(o.pid_), peer_(o.peer_) { o.pid_ = -1; }
    ~Host();
    // The requests seen so far, one hex line per frame.
    std::vector<std::string> requests() const;

private:
    Host(int n, const std::string &setup, const Script &script);
    pid_t pid_ = -1;
    std::string peer_;
};

}  // namespace lptest

#endif
