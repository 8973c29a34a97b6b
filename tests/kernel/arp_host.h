// Hosts behind the ports of a test bridge, for the ARP kernel tests: each
// host is a forked child in a network namespace of its own that holds the
// veth peer of one port.  A host is either a plain Linux host with an
// address, or a raw-socket responder that answers ARP requests as scripted.
// Every host logs the requests it saw to /tmp/host-<peer>.log (one line of
// hex per frame), and is stopped by its PID when the test is done with it.
#ifndef LANPROBE_TESTS_KERNEL_ARP_HOST_H
#define LANPROBE_TESTS_KERNEL_ARP_HOST_H

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/netns.h"

namespace arptest {

inline uint32_t ip(const char *dotted)
{
    in_addr a{};
    inet_pton(AF_INET, dotted, &a);
    return a.s_addr;
}

inline std::string mac_of(const std::string &ifname)
{
    std::ifstream in("/sys/class/net/" + ifname + "/address");
    std::string s;
    in >> s;
    return s;
}

// What a responder sends for one request: a reply claiming `sender`, after
// `junk` ARP-typed frames of growing length and garbage content; with
// `foreign_source` the reply's Ethernet source is not the host's MAC.
struct Reply {
    uint32_t sender;
    int junk = 0;
    bool foreign_source = false;
};
// Script: element k lists what to send for the k-th request seen (from 0).
using Script = std::vector<std::vector<Reply>>;

// br-lan (192.168.1.1/24 unless bridge_cidr is empty) with ports eth1..ethN,
// veth pairs whose peers are h1..hN; waits until every port forwards.
inline void make_lan(int ports, const std::string &bridge_cidr = "192.168.1.1/24")
{
    using lptest::sh;
    ASSERT_TRUE(sh("sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1"));
    ASSERT_TRUE(sh("ip link add br-lan type bridge stp_state 0 && ip link set br-lan up"));
    if (!bridge_cidr.empty()) {
        ASSERT_TRUE(sh("ip addr add " + bridge_cidr + " dev br-lan"));
    }
    for (int i = 1; i <= ports; i++) {
        std::string p = "eth" + std::to_string(i), h = "h" + std::to_string(i);
        ASSERT_TRUE(sh("ip link add " + p + " type veth peer name " + h + " && ip link set " + p +
                       " master br-lan && ip link set " + p + " up && ip link set " + h + " up"));
    }
}

// Waits (bounded) until port eth<i> forwards: the kernel notices the carrier
// of a veth asynchronously.
inline void wait_forwarding(int ports)
{
    for (int i = 1; i <= ports; i++) {
        std::string state = "/sys/class/net/eth" + std::to_string(i) + "/brport/state";
        ASSERT_TRUE(lptest::sh("for n in $(seq 200); do [ \"$(cat " + state +
                               ")\" = 3 ] && exit 0; sleep 0.05; done; exit 1"))
            << "eth" << i << " never reached the forwarding state";
    }
}

class Host {
public:
    // A Linux host with address cidr on its interface; accept_local lets it
    // answer requests whose sender address is its own (an announcement).
    static Host linux_host(const std::string &peer, const std::string &cidr, bool accept_local)
    {
        return Host(peer, [=](int, const uint8_t *) {
            std::string cmd = "ip addr add " + cidr + " dev " + peer;
            if (accept_local)
                cmd += " && sysctl -qw net.ipv4.conf." + peer + ".accept_local=1";
            return lptest::sh(cmd);
        }, {});
    }
    // A host that only answers as scripted (its interface has no address, so
    // its kernel answers nothing).
    static Host responder(const std::string &peer, const Script &script)
    {
        return Host(peer, nullptr, script);
    }

    Host(Host &&o) noexcept : pid_(o.pid_), peer_(o.peer_) { o.pid_ = -1; }
    Host(const Host &) = delete;
    ~Host() { stop(); }

    void stop()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

    // The requests the host saw, as hex lines.
    std::vector<std::string> requests() const
    {
        std::vector<std::string> out;
        std::ifstream in("/tmp/host-" + peer_ + ".log");
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }

private:
    using Setup = std::function<bool(int, const uint8_t *)>;

    Host(const std::string &peer, const Setup &setup, const Script &script) : peer_(peer)
    {
        // Read here: once the peer has moved, this namespace's sysfs no longer shows it.
        uint8_t mac[6] = {};
        sscanf(mac_of(peer).c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2],
               &mac[3], &mac[4], &mac[5]);
        int ready[2], go[2];
        if (pipe(ready) != 0 || pipe(go) != 0)
            return;
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            close(go[1]);
            char c = 0;
            if (unshare(CLONE_NEWNET) != 0 || write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1)
                _exit(2);
            _exit(run_child(peer, mac, setup, script, ready[1]));
        }
        close(ready[1]);
        close(go[0]);
        char c = 0;
        bool ok = read(ready[0], &c, 1) == 1 &&
                  lptest::sh("ip link set " + peer + " netns " + std::to_string(pid_)) &&
                  write(go[1], &c, 1) == 1 && read(ready[0], &c, 1) == 1;
        close(ready[0]);
        close(go[1]);
        EXPECT_TRUE(ok) << "host behind " << peer << " did not come up";
    }

    static void log_frame(const std::string &peer, const uint8_t *f, ssize_t n)
    {
        FILE *log = fopen(("/tmp/host-" + peer + ".log").c_str(), "a");
        if (!log)
            return;
        for (ssize_t i = 0; i < n; i++)
            fprintf(log, "%02x", f[i]);
        fputc('\n', log);
        fclose(log);
    }

    static int run_child(const std::string &peer, const uint8_t *mac, const Setup &setup,
                         const Script &script, int ready)
    {
        if (!lptest::sh("sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1 "
                        "net.ipv6.conf." + peer + ".disable_ipv6=1 && ip link set lo up && ip link set " +
                        peer + " up"))
            return 3;
        int ifindex = static_cast<int>(if_nametoindex(peer.c_str()));
        int s = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ARP));
        sockaddr_ll me{};
        me.sll_family = AF_PACKET;
        me.sll_protocol = htons(ETH_P_ARP);
        me.sll_ifindex = ifindex;
        if (s < 0 || bind(s, reinterpret_cast<sockaddr *>(&me), sizeof(me)) != 0)
            return 4;
        if (setup && !setup(ifindex, mac))
            return 5;
        char c = 0;
        if (write(ready, &c, 1) != 1)
            return 6;

        // Answers for at most a minute, then leaves by itself.
        size_t seen = 0;
        for (int rounds = 0; rounds < 600; rounds++) {
            pollfd p{s, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0)
                continue;
            uint8_t f[1600];
            ssize_t n = recv(s, f, sizeof(f), 0);
            if (n < 42 || f[20] != 0 || f[21] != 1)
                continue;
            // The veth passes up frames for other hosts too (flooded unicast).
            static const uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
            if (memcmp(f, mac, 6) != 0 && memcmp(f, bcast, 6) != 0)
                continue;
            log_frame(peer, f, n);
            if (seen < script.size())
                for (const Reply &r : script[seen])
                    answer(s, ifindex, mac, f, r);
            seen++;
        }
        return 0;
    }

    static void send_frame(int s, int ifindex, const uint8_t *f, size_t len)
    {
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = ifindex;
        if (sendto(s, f, len, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) < 0)
            perror("responder sendto");
    }

    static void answer(int s, int ifindex, const uint8_t *mac, const uint8_t *req, const Reply &r)
    {
        for (int j = 0; j < r.junk; j++) {
            uint8_t junk[64];
            for (size_t i = 0; i < sizeof(junk); i++)
                junk[i] = static_cast<uint8_t>(i * 37 + j * 11);
            memcpy(junk, req + 6, 6);  // to whoever asked, so the bridge passes it up
            memcpy(junk + 6, mac, 6);
            junk[12] = 0x08;
            junk[13] = 0x06;
            send_frame(s, ifindex, junk, 14 + static_cast<size_t>(j) * 7 % 50);
        }
        uint8_t f[60] = {};
        memcpy(f, req + 6, 6);
        memcpy(f + 6, mac, 6);
        if (r.foreign_source)
            f[11] ^= 0x5a;
        f[12] = 0x08;
        f[13] = 0x06;
        const uint8_t hdr[8] = {0x00, 0x01, 0x08, 0x00, 0x06, 0x04, 0x00, 0x02};
        memcpy(f + 14, hdr, 8);
        memcpy(f + 22, mac, 6);
        memcpy(f + 28, &r.sender, 4);
        memcpy(f + 32, req + 22, 10);  // target: the asker's MAC and address
        send_frame(s, ifindex, f, sizeof(f));
    }

    pid_t pid_ = -1;
    std::string peer_;
};

}  // namespace arptest

#endif
