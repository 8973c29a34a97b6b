// A real dnsmasq serving DHCP on one interface, started by a test and stopped
// by its PID.  Runs in whatever network namespace the test is in.
#ifndef LANPROBE_TESTS_SUPPORT_DNSMASQ_H
#define LANPROBE_TESTS_SUPPORT_DNSMASQ_H

#include <sys/types.h>

#include <string>

namespace lptest {

class Dnsmasq {
public:
    // Serves on iface, offering range_lo..range_hi with the given router and
    // DNS server options (extra_options may add more --dhcp-option flags).
    // State (leases, pid, log) goes to dir.  --no-ping: no 3 s ping check.
    Dnsmasq(std::string iface, std::string range_lo, std::string range_hi, std::string router,
            std::string dns, std::string dir);
    ~Dnsmasq();
    Dnsmasq(const Dnsmasq &) = delete;
    Dnsmasq &operator=(const Dnsmasq &) = delete;

    // Starts the server and waits (bounded) until its DHCP socket is bound.
    bool Start();
    std::string Log() const;

private:
    std::string iface_, lo_, hi_, router_, dns_, dir_;
    pid_t pid_ = -1;
};

}  // namespace lptest

#endif
