// Flood generator: sends frames that are no DHCP reply (IPv4/UDP to the
// discard port) out of one interface at a chosen rate, alternating broadcast
// and unicast destinations, with sendmmsg on a packet socket.  Run it in a
// host namespace behind a probed port; it stops after --seconds or on
// SIGINT/SIGTERM and prints what it actually achieved.
//
//   bench_flood --iface IF --rate FPS --seconds S [--size BYTES] [--batch N]
//               [--unicast MAC] [--ready FILE]
//
// --size is the frame length without FCS: 60 is a minimum (64-byte) Ethernet
// frame, 1514 a full 1500-byte-MTU frame.  The rate is paced against
// CLOCK_MONOTONIC in batches of --batch frames (default: about one batch every
// 100 us).  Output: "flood iface=.. size=.. target_fps=.. sent=.. seconds=..
// achieved_fps=.. send_errors=.. cpu_us=..".
#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <vector>

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

long long now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

bool parse_mac(const char *s, uint8_t *mac)
{
    unsigned v[6];
    if (sscanf(s, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
        return false;
    for (int i = 0; i < 6; i++)
        mac[i] = static_cast<uint8_t>(v[i]);
    return true;
}

uint16_t ip_checksum(const uint8_t *p, size_t len)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < len; i += 2)
        sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

// Ethernet + IPv4 + UDP to port 9 from port 9, zero payload, `len` bytes.
void build_frame(uint8_t *f, size_t len, const uint8_t *dst, const uint8_t *src, uint32_t sip)
{
    memset(f, 0, len);
    memcpy(f, dst, 6);
    memcpy(f + 6, src, 6);
    f[12] = 0x08;
    f[13] = 0x00;
    uint8_t *ip = f + 14;
    size_t ip_len = len - 14;
    ip[0] = 0x45;
    ip[2] = static_cast<uint8_t>(ip_len >> 8);
    ip[3] = static_cast<uint8_t>(ip_len);
    ip[8] = 64;
    ip[9] = 17;
    memcpy(ip + 12, &sip, 4);
    uint32_t dip = sip | htonl(0xff);  // the /24's broadcast address
    memcpy(ip + 16, &dip, 4);
    uint16_t c = ip_checksum(ip, 20);
    ip[10] = static_cast<uint8_t>(c >> 8);
    ip[11] = static_cast<uint8_t>(c);
    uint8_t *udp = ip + 20;
    size_t udp_len = ip_len - 20;
    udp[1] = 9;
    udp[3] = 9;
    udp[4] = static_cast<uint8_t>(udp_len >> 8);
    udp[5] = static_cast<uint8_t>(udp_len);
}

void usage(const char *argv0)
{
    fprintf(stderr,
            "usage: %s --iface IF --rate FPS --seconds S [--size 60..1514] [--batch N]\n"
            "          [--unicast MAC] [--ready FILE]\n",
            argv0);
    exit(2);
}

} // namespace

int main(int argc, char **argv)
{
    const char *iface = nullptr, *ready = nullptr;
    double rate = 0, seconds = 0;
    size_t size = 60;
    int batch = 0;
    uint8_t ucast[6] = {0x02, 0x1a, 0x00, 0x00, 0xee, 0x01};  // a MAC nobody has
    for (int i = 1; i < argc; i += 2) {
        const char *a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (!v)
            usage(argv[0]);
        if (!strcmp(a, "--iface")) iface = v;
        else if (!strcmp(a, "--rate")) rate = atof(v);
        else if (!strcmp(a, "--seconds")) seconds = atof(v);
        else if (!strcmp(a, "--size")) size = static_cast<size_t>(atoi(v));
        else if (!strcmp(a, "--batch")) batch = atoi(v);
        else if (!strcmp(a, "--ready")) ready = v;
        else if (!strcmp(a, "--unicast")) { if (!parse_mac(v, ucast)) usage(argv[0]); }
        else usage(argv[0]);
    }
    if (!iface || rate <= 0 || seconds <= 0 || size < 60 || size > 1514)
        usage(argv[0]);
    if (batch <= 0)
        batch = static_cast<int>(rate / 10000.0) + 1;
    if (batch > 256)
        batch = 256;

    int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (fd < 0) {
        perror("socket");
        return 1;
    }
    unsigned ifindex = if_nametoindex(iface);
    if (!ifindex) {
        perror(iface);
        return 1;
    }
    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", iface);
    if (ioctl(fd, SIOCGIFHWADDR, &ifr) < 0) {
        perror("SIOCGIFHWADDR");
        return 1;
    }
    uint8_t src[6];
    memcpy(src, ifr.ifr_hwaddr.sa_data, 6);
    uint32_t sip = htonl(0xc0a801fe);  // 192.168.1.254: no host uses it
    memset(&ifr, 0, sizeof(ifr));
    snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%s", iface);
    ifr.ifr_addr.sa_family = AF_INET;
    if (ioctl(fd, SIOCGIFADDR, &ifr) == 0)
        memcpy(&sip, &reinterpret_cast<struct sockaddr_in *>(&ifr.ifr_addr)->sin_addr, 4);

    struct sockaddr_ll sll;
    memset(&sll, 0, sizeof(sll));
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_ALL);
    sll.sll_ifindex = static_cast<int>(ifindex);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&sll), sizeof(sll)) < 0) {
        perror("bind");
        return 1;
    }
    // Straight to the driver: the generator measures the receiver, not the qdisc.
    int one = 1;
    setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof(one));
    int sndbuf = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &sndbuf, sizeof(sndbuf));

    static const uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    std::vector<uint8_t> frames(2 * size);
    build_frame(frames.data(), size, bcast, src, sip);
    build_frame(frames.data() + size, size, ucast, src, sip);

    std::vector<struct iovec> iov(static_cast<size_t>(batch));
    std::vector<struct mmsghdr> msgs(static_cast<size_t>(batch));
    for (int i = 0; i < batch; i++) {
        iov[i].iov_base = frames.data() + (i % 2) * size;
        iov[i].iov_len = size;
        memset(&msgs[i], 0, sizeof(msgs[i]));
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
    }

    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    if (ready) {
        FILE *f = fopen(ready, "w");
        if (f)
            fclose(f);
    }

    const long long start = now_ns();
    const long long end = start + static_cast<long long>(seconds * 1e9);
    const double ns_per_frame = 1e9 / rate;
    long long sent = 0, errors = 0;
    while (!g_stop) {
        long long due = start + static_cast<long long>(static_cast<double>(sent) * ns_per_frame);
        if (due >= end)
            break;
        long long now = now_ns();
        if (due > now) {
            struct timespec ts = {static_cast<time_t>(due / 1000000000LL),
                                  static_cast<long>(due % 1000000000LL)};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
            continue;
        }
        int n = sendmmsg(fd, msgs.data(), static_cast<unsigned>(batch), 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            // ENOBUFS and the like: count the whole batch as lost, stay on schedule.
            errors += batch;
            sent += batch;
            continue;
        }
        sent += n;
    }
    double elapsed = static_cast<double>(now_ns() - start) / 1e9;
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    long long cpu = (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000000LL + ru.ru_utime.tv_usec +
                    ru.ru_stime.tv_usec;
    printf("flood iface=%s size=%zu target_fps=%.0f sent=%lld seconds=%.3f achieved_fps=%.0f "
           "send_errors=%lld cpu_us=%lld\n",
           iface, size, rate, sent - errors, elapsed,
           elapsed > 0 ? static_cast<double>(sent - errors) / elapsed : 0.0, errors, cpu);
    close(fd);
    return 0;
}
