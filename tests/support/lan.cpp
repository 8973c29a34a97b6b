#include "support/lan.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "support/netns.h"

namespace lptest {

uint32_t ipv4(const char *dotted)
{
    in_addr a{};
    inet_pton(AF_INET, dotted, &a);
    return a.s_addr;
}

std::string mac_of(const std::string &ifname)
{
    std::ifstream in("/sys/class/net/" + ifname + "/address");
    std::string s;
    in >> s;
    return s;
}

void parse_mac(const std::string &text, uint8_t *mac)
{
    sscanf(text.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3],
           &mac[4], &mac[5]);
}

bool make_lan(int ports, const std::string &cidr, int first)
{
    std::string cmd = "sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1"
                      " && ip link add br-lan address " + std::string(kBridgeMac) +
                      " type bridge stp_state 0 && ip link set br-lan up";
    if (!cidr.empty())
        cmd += " && ip addr add " + cidr + " dev br-lan";
    for (int n = first; n < first + ports; n++) {
        std::string p = "eth" + std::to_string(n), h = "p" + std::to_string(n);
        cmd += " && ip link add " + p + " type veth peer name " + h + " && ip link set " + p +
               " master br-lan up && ip link set " + h + " up";
    }
    return sh(cmd);
}

bool wait_forwarding(int ports, int first)
{
    for (int n = first; n < first + ports; n++)
        if (!sh("for i in $(seq 200); do [ \"$(cat /sys/class/net/eth" + std::to_string(n) +
                "/brport/state)\" = 3 ] && exit 0; sleep 0.05; done; exit 1"))
            return false;
    return true;
}

bool learn_host(const std::string &port, const std::string &mac)
{
    return sh("bridge fdb add " + mac + " dev " + port + " master static");
}

namespace {

void send_frame(int s, int ifindex, const uint8_t *f, size_t len)
{
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = ifindex;
    if (sendto(s, f, len, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) < 0)
        perror("responder sendto");
}

void answer(int s, int ifindex, const uint8_t *mac, const uint8_t *req, const Reply &r)
{
    uint8_t f[64];
    for (int j = 0; j < r.junk; j++) {
        for (size_t i = 0; i < sizeof(f); i++)
            f[i] = static_cast<uint8_t>(i * 37 + j * 11);
        memcpy(f, req + 6, 6);  // to whoever asked, so the bridge passes it up
        memcpy(f + 6, mac, 6);
        f[12] = 0x08;
        f[13] = 0x06;
        send_frame(s, ifindex, f, 14 + static_cast<size_t>(j) * 7 % 50);
    }
    const uint8_t hdr[10] = {0x08, 0x06, 0x00, 0x01, 0x08, 0x00, 0x06, 0x04, 0x00, 0x02};
    memset(f, 0, sizeof(f));
    memcpy(f, req + 6, 6);
    memcpy(f + 6, mac, 6);
    f[11] ^= r.foreign_source ? 0x5a : 0;
    memcpy(f + 12, hdr, 10);
    memcpy(f + 22, mac, 6);
    memcpy(f + 28, &r.sender, 4);
    memcpy(f + 32, req + 22, 10);  // target: the asker's MAC and address
    send_frame(s, ifindex, f, 60);
}

// The host's life inside its namespace; answers for at most a minute.
int serve(const std::string &peer, const uint8_t *mac, const std::string &setup,
          const Script &script, int ready)
{
    if (!sh("sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf." + peer +
            ".disable_ipv6=1 && ip link set lo up && ip link set " + peer + " up" + setup))
        return 3;
    int ifindex = static_cast<int>(if_nametoindex(peer.c_str()));
    int s = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ARP));
    sockaddr_ll me{};
    me.sll_family = AF_PACKET;
    me.sll_protocol = htons(ETH_P_ARP);
    me.sll_ifindex = ifindex;
    char c = 0;
    if (s < 0 || bind(s, reinterpret_cast<sockaddr *>(&me), sizeof(me)) != 0 || write(ready, &c, 1) != 1)
        return 4;
    static const uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    size_t seen = 0;
    for (int rounds = 0; rounds < 600; rounds++) {
        pollfd p{s, POLLIN, 0};
        uint8_t f[1600];
        ssize_t n;
        if (poll(&p, 1, 100) <= 0 || (n = recv(s, f, sizeof(f), 0)) < 42 || f[20] != 0 || f[21] != 1)
            continue;
        // The veth passes up frames for other hosts too (flooded unicast).
        if (memcmp(f, mac, 6) != 0 && memcmp(f, bcast, 6) != 0)
            continue;
        if (FILE *log = fopen(("/tmp/host-" + peer + ".log").c_str(), "a")) {
            for (ssize_t i = 0; i < n; i++)
                fprintf(log, "%02x", f[i]);
            fputc('\n', log);
            fclose(log);
        }
        for (const Reply &r : seen < script.size() ? script[seen] : std::vector<Reply>{})
            answer(s, ifindex, mac, f, r);
        seen++;
    }
    return 0;
}

}  // namespace

Host Host::linux_host(int n, const std::string &cidr, bool accept_local)
{
    std::string peer = "p" + std::to_string(n);
    std::string setup = " && ip addr add " + cidr + " dev " + peer;
    if (accept_local)
        setup += " && sysctl -qw net.ipv4.conf." + peer + ".accept_local=1";
    return Host(n, setup, {});
}

Host Host::responder(int n, const Script &script)
{
    return Host(n, "", script);
}

Host::Host(int n, const std::string &setup, const Script &script) : peer_("p" + std::to_string(n))
{
    // Read here: once the peer has moved, this namespace's sysfs no longer shows it.
    uint8_t mac[6] = {};
    parse_mac(mac_of(peer_), mac);
    int ready[2], go[2];
    if (pipe(ready) != 0 || pipe(go) != 0)
        return;
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        char c = 0;
        if (unshare(CLONE_NEWNET) != 0 || write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1)
            _exit(2);
        _exit(serve(peer_, mac, setup, script, ready[1]));
    }
    close(ready[1]);
    close(go[0]);
    char c = 0;
    bool ok = read(ready[0], &c, 1) == 1 &&
              sh("ip link set " + peer_ + " netns " + std::to_string(pid_)) &&
              write(go[1], &c, 1) == 1 && read(ready[0], &c, 1) == 1;
    close(ready[0]);
    close(go[1]);
    EXPECT_TRUE(ok) << "host behind " << peer_ << " did not come up";
}

Host::~Host()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::vector<std::string> Host::requests() const
{
    std::vector<std::string> out;
    std::ifstream in("/tmp/host-" + peer_ + ".log");
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

}  // namespace lptest
