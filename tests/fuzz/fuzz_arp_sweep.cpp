// Both forms of the ARP-entry sweep with their real sockets: the event-loop
// form (send_arp_packet_all, the read handler recv_arp_packet called for
// every frame queued on a slot's socket as the loop would call it, then
// process_arp_detect_all) and the blocking form
// (double_check_arp_packet_all_blocked, frames delivered during its pause).
//
// Input: byte 0, bit 0 the form (1 blocking), bit 1 whether the event-loop
// form is judged with its time up, bits 2-3 the number of table entries less
// one; then per entry one byte (low 2 bits: the host behind port N whose MAC
// the entry holds, the rest: last byte of its address in 192.168.1.0/24 or,
// with the top bit, in 10.0.0.0/24); then frames as in the ownership check:
// a header byte (low 2 bits: the port), a 2-byte big-endian length, the bytes.
#include <arpa/inet.h>
#include <poll.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <uthash.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "arp/arp_packet.h"
#include "arp/arp_sweep.h"
#include "fuzz/arp_wire.h"
#include "fuzz/fuzz_env.h"
#include "registry/device_table.h"

namespace {

constexpr size_t kMaxFrames = 16;
constexpr int kMaxEntries = 4;

struct t_frame {
    int port;
    const uint8_t *bytes;
    size_t len;
};
t_frame g_frames[kMaxFrames];
size_t g_frame_count;
int g_pauses;

void deliver_frames()
{
    for (size_t i = 0; i < g_frame_count; i++)
        arpwire::inject(g_frames[i].port, g_frames[i].bytes, g_frames[i].len);
    g_pauses++;
}

bool readable(int fd)
{
    struct pollfd pfd = {fd, POLLIN, 0};
    struct timespec zero = {0, 0};
    return syscall(SYS_ppoll, &pfd, 1, &zero, nullptr, 0) == 1;
}

bool handle_is_empty()
{
    return arp_detect_handle.arp_num == 0 && arp_detect_handle.arp_detect_array == nullptr &&
           arp_detect_handle.arp_table == nullptr && arp_detect_handle.br_ip == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzenv::enter_sandbox(fuzzenv::SANDBOX_NET);
    fuzzenv::quiet_log_output();
    uloop_init();
    arpwire::setup_ports(arpwire::kMaxPorts);
    arpwire::on_pause = deliver_frames;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzenv::Reader in(data, size);
    if (in.left() < 2)
        return 0;
    const uint8_t mode = in.u8();
    const bool blocking = mode & 1;
    const bool time_up = mode & 2;
    const int entries = ((mode >> 2) & 3) + 1;

    t_arp_entry *table = nullptr;
    t_arp_entry *made[kMaxEntries];
    int distinct = 0;
    for (int i = 0; i < entries; i++) {
        uint8_t b = in.u8();
        t_arp_entry *e = static_cast<t_arp_entry *>(calloc(1, sizeof(t_arp_entry)));
        FUZZ_CHECK(e != nullptr);
        arpwire::host_mac(b & 3, e->mac);
        uint8_t last = static_cast<uint8_t>((b >> 2) & 0x1f) | 0x08;
        e->ip = (b & 0x80) ? htonl(0x0a000000u | last) : htonl(0xc0a80100u | last);
        t_arp_entry *dup = nullptr;
        HASH_FIND(hh, table, e->mac, MAC_LEN, dup);
        if (dup) {
            free(e);  // one entry per MAC: the table is keyed by it
            continue;
        }
        HASH_ADD(hh, table, mac, MAC_LEN, e);
        made[distinct++] = e;
    }
    g_frame_count = 0;
    g_pauses = 0;
    while (in.left() >= 3) {
        uint8_t hdr = in.u8();
        size_t len = in.be16() % (arpwire::kMaxFrame + 1);
        size_t got;
        const uint8_t *bytes = in.take(len, &got);
        if (g_frame_count < kMaxFrames)
            g_frames[g_frame_count++] = t_frame{hdr & 3, bytes, got};
    }
    const int fds_before = fuzzenv::open_fd_count();

    if (blocking) {
        int rc = double_check_arp_packet_all_blocked(&table, arpwire::kBrIp, arpwire::kBrNetmask,
                                                     arpwire::kBrMac, arpwire::port_ifindex(0));
        FUZZ_CHECK(rc == 0);
        FUZZ_CHECK(g_pauses == 1);
    } else {
        int rc = send_arp_packet_all(&table, arpwire::kBrIp, arpwire::kBrNetmask, arpwire::kBrMac,
                                     arpwire::port_ifindex(0));
        FUZZ_CHECK(rc == 0);
        FUZZ_CHECK(arp_detect_handle.arp_num == distinct);
        deliver_frames();
        // What the event loop does: call the handler while its socket has a
        // frame queued; the handler closes the socket once it takes a reply.
        for (int i = 0; i < arp_detect_handle.arp_num; i++) {
            t_arp_detect &slot = arp_detect_handle.arp_detect_array[i];
            int calls = 0;
            while (slot.ufd.fd > 0 && readable(slot.ufd.fd)) {
                recv_arp_packet(&slot.ufd, ULOOP_READ);
                FUZZ_CHECK(++calls <= static_cast<int>(kMaxFrames) * arpwire::kMaxPorts);
            }
            if (slot.replied)
                FUZZ_CHECK(slot.ufd.fd == -1);
        }
        int result = process_arp_detect_all(time_up ? 1 : 0);
        if (result == 0) {
            // Not over yet: nothing was pruned, the run is still in place.
            FUZZ_CHECK(!time_up && arp_detect_handle.arp_detect_array != nullptr);
            result = process_arp_detect_all(1);
        }
        FUZZ_CHECK(result == 96 || result == 97);
    }

    // The run is gone, its sockets are closed, and the table only lost entries.
    FUZZ_CHECK(handle_is_empty());
    FUZZ_CHECK(fuzzenv::open_fd_count() == fds_before);
    FUZZ_CHECK(static_cast<int>(HASH_COUNT(table)) <= distinct);
    for (t_arp_entry *e = table; e; e = static_cast<t_arp_entry *>(e->hh.next)) {
        bool known = false;
        for (int i = 0; i < distinct; i++)
            known = known || made[i] == e;
        FUZZ_CHECK(known);
    }
    t_arp_entry *e, *tmp;
    HASH_ITER(hh, table, e, tmp) {
        HASH_DEL(table, e);
        free(e);
    }
    return 0;
}
