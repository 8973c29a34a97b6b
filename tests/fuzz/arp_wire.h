// The wire for the ARP fuzz targets: veth pairs in the target's own network
// namespace.  The router's end of pair N is ethN (where the daemon's sockets
// listen); frames from the input are sent into the peer, so the kernel
// delivers them to the daemon's raw ARP sockets exactly as a host's replies.
//
// The blocking ARP probes wait 300 ms before each send and pause 310 ms
// between their sends and their reads.  In these targets both waits return at
// once (see fast_waits.cpp), and the pause is the moment the input's frames
// are put on the wire: they are queued on the sockets when the reads begin.
#ifndef LANPROBE_TESTS_FUZZ_ARP_WIRE_H
#define LANPROBE_TESTS_FUZZ_ARP_WIRE_H

#include <stddef.h>
#include <stdint.h>

#include "registry/device_table.h"

namespace arpwire {

constexpr int kMaxPorts = 4;
constexpr size_t kMaxFrame = 1514;  // Ethernet header + 1500
constexpr uint32_t kBrIp = 0x0101a8c0;       // 192.168.1.1, network byte order
constexpr uint32_t kBrNetmask = 0x00ffffff;  // 255.255.255.0
extern const uint8_t kBrMac[MAC_LEN];

// Creates ports eth0..eth(n-1) with their peers; call after the sandbox.
void setup_ports(int n);
// The MAC of the host end (peer) of port i: 02:1a:00:00:01:0i.
void host_mac(int port, uint8_t mac[MAC_LEN]);
int port_ifindex(int port);

// Sends one frame from the host behind port (padded to 14 bytes and given
// the ARP EtherType, since only ARP frames reach the daemon's sockets) and
// waits until the kernel has delivered it on the router's side.
void inject(int port, const uint8_t *frame, size_t len);

// Called by the fast usleep in place of the 310 ms pause.
extern void (*on_pause)();

}  // namespace arpwire

#endif
