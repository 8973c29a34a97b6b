#include "survey/survey_run.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "survey/probe_frames.h"

namespace {

uint32_t draw_xid()
{
    uint32_t x = 0;
    if (getrandom(&x, sizeof x, GRND_NONBLOCK) != sizeof x) {
        struct timespec t;
        clock_gettime(CLOCK_MONOTONIC, &t);
        x = static_cast<uint32_t>(t.tv_nsec) ^ static_cast<uint32_t>(getpid()) * 2654435761u;
    }
    return x;
}

uint32_t ms_since(const struct timespec &t0)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    long long ms = (t.tv_sec - t0.tv_sec) * 1000LL + (t.tv_nsec - t0.tv_nsec) / 1000000;
    return ms < 0 ? 0 : static_cast<uint32_t>(ms);
}

Survey *g_survey;  // the pass the handlers belong to

void send_frame(PortProbe *p, const uint8_t *frame, size_t len)
{
    if (g_survey->sock.fd < 0 || len == 0)
        return;
    struct sockaddr_ll to;
    memset(&to, 0, sizeof to);
    to.sll_family = AF_PACKET;
    to.sll_ifindex = p->port.ifindex;
    to.sll_halen = 6;
    memset(to.sll_addr, 0xff, 6);
    if (sendto(g_survey->sock.fd, frame, len, MSG_DONTWAIT,
               reinterpret_cast<struct sockaddr *>(&to), sizeof to) < 0 &&
        !p->error)
        p->error = errno;
}

void send_discover(PortProbe *p)
{
    uint8_t buf[SURVEY_FRAME_BUF_LEN];
    send_frame(p, buf, build_survey_discover(buf, sizeof buf, p->xid, p->client_mac));
    ++p->discovers;
}

void send_arp(PortProbe *p, uint32_t router_ip)
{
    uint8_t buf[SURVEY_FRAME_BUF_LEN];
    send_frame(p, buf, build_survey_arp_probe(buf, sizeof buf, p->client_mac, router_ip));
    ++p->arp_probes;
}

void note_claim(PortProbe *p, const uint8_t mac[6])
{
    for (int i = 0; i < p->n_claims; ++i)
        if (memcmp(p->claims[i], mac, 6) == 0)
            return;
    if (p->n_claims < SURVEY_MAX_CLAIMS)
        memcpy(p->claims[p->n_claims++], mac, 6);
}

void on_readable(struct uloop_fd *u, unsigned int)
{
    uint8_t buf[SURVEY_FRAME_BUF_LEN];
    for (;;) {
        struct sockaddr_ll from;
        socklen_t fromlen = sizeof from;
        ssize_t n = recvfrom(u->fd, buf, sizeof buf, MSG_DONTWAIT,
                             reinterpret_cast<struct sockaddr *>(&from), &fromlen);
        if (n < 0)
            return;  // EAGAIN: drained; any other error ends reading this round too
        // The filter keeps out what the bridge floods out of a port: only
        // what comes in on the port is behind it.
        if (from.sll_pkttype == PACKET_OUTGOING)
            continue;
        PortProbe *p = nullptr;
        for (int i = 0; i < g_survey->n && !p; ++i)
            if (g_survey->probes[i].port.ifindex == from.sll_ifindex)
                p = &g_survey->probes[i];
        if (!p)
            continue;
        ByteView frame(buf, static_cast<size_t>(n));
        uint8_t sender[6];
        if (g_survey->router.ip &&
            arp_reply_for(frame, p->client_mac, g_survey->router.ip, sender)) {
            note_claim(p, sender);
            continue;
        }
        DhcpReply r;
        memset(&r, 0, sizeof r);
        uint32_t src_ip = 0;
        ByteView msg = udp_to_client(frame, &src_ip);
        if (msg.size() && parse_dhcp_reply(msg, p->xid, p->client_mac, &r)) {
            frame.copy(6, r.server_mac, 6);
            r.src_ip = src_ip;
            r.ms = ms_since(p->sent_at);
            record_reply(p, r);
        }
    }
}

void on_retry(struct uloop_timeout *t)
{
    Survey *s = container_of(t, Survey, retry);
    for (int i = 0; i < s->n; ++i) {
        PortProbe *p = &s->probes[i];
        if (p->n_replies == 0)
            send_discover(p);
        if (s->router.ip && p->n_claims == 0)
            send_arp(p, s->router.ip);
    }
}

void on_window(struct uloop_timeout *) { uloop_end(); }

// Lets through only what the survey reads: ARP replies, and unfragmented
// IPv4 UDP to port 68, coming in.  Everything else stays in the kernel, above
// all the copies of each reply that the bridge floods out of every other
// port: at 48 ports they fill the receive buffer and push out the replies.
const struct sock_filter kReplyFilter[] = {
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 13, 0),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),             // EtherType
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x0806, 0, 2),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 20),             // ARP opcode: reply
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 2, 8, 9),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x0800, 0, 8),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23),             // IP protocol: UDP
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 17, 0, 6),
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 20),             // no fragment
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x3fff, 4, 0),
    BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 14),            // X = IP header length
    BPF_STMT(BPF_LD | BPF_H | BPF_IND, 16),             // UDP destination port
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 68, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, 0xffff),
    BPF_STMT(BPF_RET | BPF_K, 0),
};

// One socket for all ports, bound to none: frames go out through sendto
// with the port's index and come back with it in sll_ifindex.  A socket per
// port would cost one RCU grace period in the kernel per close (about 15 ms
// each, 0.7 s after the window at 48 ports).  The socket is opened without a
// protocol, so nothing arrives before the filter is on.
int open_socket()
{
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct sock_fprog prog = {static_cast<unsigned short>(sizeof kReplyFilter / sizeof kReplyFilter[0]),
                              const_cast<struct sock_filter *>(kReplyFilter)};
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) < 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    struct sockaddr_ll ll;
    memset(&ll, 0, sizeof ll);
    ll.sll_family = AF_PACKET;
    ll.sll_protocol = htons(ETH_P_ALL);
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&ll), sizeof ll) < 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

}  // namespace

void record_reply(PortProbe *p, const DhcpReply &r)
{
    for (int i = 0; i < p->n_replies; ++i) {
        const DhcpReply &o = p->replies[i];
        if (memcmp(o.server_mac, r.server_mac, 6) == 0 && o.type == r.type && o.yiaddr == r.yiaddr &&
            o.server_id == r.server_id)
            return;  // the same answer to the repeated DISCOVER
    }
    if (p->n_replies < SURVEY_MAX_REPLIES)
        p->replies[p->n_replies++] = r;
}

int run_survey(Survey *s)
{
    if (uloop_init() < 0)
        return -errno;
    g_survey = s;
    for (int i = 0; i < s->n; ++i) {
        PortProbe *p = &s->probes[i];
        p->xid = draw_xid();
        survey_client_mac(p->xid, p->client_mac);
    }
    s->sock.cb = on_readable;
    s->sock.fd = open_socket();
    if (s->sock.fd < 0) {
        for (int i = 0; i < s->n; ++i)
            s->probes[i].error = errno;
    } else {
        uloop_fd_add(&s->sock, ULOOP_READ);
    }
    // Everything is sent before the first reply is read, so that no port
    // waits for another's answers.
    for (int i = 0; i < s->n; ++i) {
        PortProbe *p = &s->probes[i];
        if (s->sock.fd < 0)
            continue;
        clock_gettime(CLOCK_MONOTONIC, &p->sent_at);
        send_discover(p);
        if (s->router.ip)
            send_arp(p, s->router.ip);
    }
    s->window.cb = on_window;
    s->retry.cb = on_retry;
    uloop_timeout_set(&s->window, s->window_ms);
    if (s->window_ms > SURVEY_RETRY_MS)
        uloop_timeout_set(&s->retry, SURVEY_RETRY_MS);
    uloop_run();
    uloop_timeout_cancel(&s->retry);
    uloop_timeout_cancel(&s->window);
    if (s->sock.fd >= 0) {
        on_readable(&s->sock, ULOOP_READ);  // what arrived in the last moment
        uloop_fd_delete(&s->sock);
        close(s->sock.fd);
        s->sock.fd = -1;
    }
    uloop_done();
    g_survey = nullptr;
    return 0;
}
