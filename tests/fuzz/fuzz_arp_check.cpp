// The address ownership check (check_ip_using_arp_blocked) with its real
// sockets: one raw ARP socket per listed port, tied to that port, probing
// for br-lan's address.  The input's frames arrive from the hosts behind the
// ports during the pause of the attempt they belong to.
//
// Input: byte 0, the number of ports listed (1..4); byte 1, when its top bit
// is set, a dev_num that disagrees with the list (its low 3 bits); then
// frames: a header byte (top bit: attempt 2 instead of 1; low 2 bits: the
// port), a 2-byte big-endian length, and the bytes.
#include <string.h>

#include "arp/arp_check.h"
#include "arp/arp_packet.h"
#include "fuzz/arp_wire.h"
#include "fuzz/fuzz_env.h"
#include "registry/device_list.h"
#include "registry/device_table.h"

namespace {

constexpr size_t kMaxFrames = 16;

struct t_frame {
    int port;
    const uint8_t *bytes;
    size_t len;
};

struct t_batch {
    t_frame frames[kMaxFrames];
    size_t count;
};

t_batch g_attempt[2];
int g_pauses;

void deliver_attempt_frames()
{
    if (g_pauses < 2) {
        const t_batch &b = g_attempt[g_pauses];
        for (size_t i = 0; i < b.count; i++)
            arpwire::inject(b.frames[i].port, b.frames[i].bytes, b.frames[i].len);
    }
    g_pauses++;
}

size_t list_length(const t_device_list_head &head)
{
    size_t n = 0;
    for (const t_device_list *node = head.list.next; node; node = node->next)
        n++;
    return n;
}

bool slot_record_is_empty()
{
    static const t_arp_detect_handle zero = {};
    return arp_detect_handle.arp_num == zero.arp_num && arp_detect_handle.ifindex == 0 &&
           arp_detect_handle.br_ip == 0 && arp_detect_handle.br_netmask == 0 &&
           arp_detect_handle.arp_detect_array == nullptr && arp_detect_handle.arp_table == nullptr &&
           memcmp(arp_detect_handle.br_mac, zero.br_mac, MAC_LEN) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzenv::enter_sandbox(fuzzenv::SANDBOX_NET);
    fuzzenv::quiet_log_output();
    arpwire::setup_ports(arpwire::kMaxPorts);
    arpwire::on_pause = deliver_attempt_frames;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzenv::Reader in(data, size);
    if (in.left() < 2)
        return 0;
    const int ports = in.u8() % arpwire::kMaxPorts + 1;
    const uint8_t num_byte = in.u8();
    g_attempt[0].count = g_attempt[1].count = 0;
    g_pauses = 0;
    while (in.left() >= 3) {
        uint8_t hdr = in.u8();
        size_t len = in.be16() % (arpwire::kMaxFrame + 1);
        size_t got;
        const uint8_t *bytes = in.take(len, &got);
        t_batch &b = g_attempt[hdr >> 7];
        if (b.count < kMaxFrames)
            b.frames[b.count++] = t_frame{hdr & 3, bytes, got};
    }
    const int fds_before = fuzzenv::open_fd_count();

    t_device devs[arpwire::kMaxPorts];
    t_device_list_head list;
    memset(&list, 0, sizeof(list));
    for (int i = 0; i < ports; i++) {
        memset(&devs[i], 0, sizeof(devs[i]));
        snprintf(devs[i].name, sizeof(devs[i].name), "eth%d", i);
        devs[i].order = static_cast<int8_t>(i + 1);
        FUZZ_CHECK(add_unique_device_inorder_to_list(&list.list, &devs[i]) == 0);
    }
    list.dev_num = (num_byte & 0x80) ? (num_byte & 7) : static_cast<uint8_t>(ports);
    const int unpaired = ports - list.dev_num;  // nodes the count does not know of

    int rc = check_ip_using_arp_blocked(arpwire::kBrIp, nullptr, &list, arpwire::kBrIp,
                                        arpwire::kBrMac);

    FUZZ_CHECK(rc == 0);
    // One pause per attempt: a second attempt only when the first got nothing.
    FUZZ_CHECK(g_pauses == 1 || g_pauses == 2);
    // Every node removed was counted off: the gap between the count and the
    // chain stays what it was, and the run record is empty again.
    const size_t left = list_length(list);
    FUZZ_CHECK(static_cast<int>(left) - list.dev_num == unpaired);
    FUZZ_CHECK(left <= static_cast<size_t>(ports));
    for (const t_device_list *node = list.list.next; node; node = node->next)
        FUZZ_CHECK(node->dev >= devs && node->dev < devs + ports);
    FUZZ_CHECK(slot_record_is_empty());
    FUZZ_CHECK(fuzzenv::open_fd_count() == fds_before);
    free_device_list(&list.list);
    return 0;
}
