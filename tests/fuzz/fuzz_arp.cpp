// ARP replies: the sender address as both ARP readers see it (a frame read
// into a cleared 1024-byte buffer, judged over all of it), and the sweep's
// read handler on a datagram socketpair, with the entry it may prune.
// Input: the entry's MAC (6 bytes) and address (4), then frames: a header
// byte, a 2-byte big-endian length and the bytes.
#include <arpa/inet.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "arp/arp_packet.h"
#include "arp/arp_sweep.h"
#include "fuzz/sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Reader in(data, size);
    if (in.left() < 10)
        return 0;
    const int fds = fuzz::open_fds();
    size_t got;
    t_arp_entry *table = nullptr, *entry = static_cast<t_arp_entry *>(calloc(1, sizeof(t_arp_entry)));
    memcpy(entry->mac, in.take(MAC_LEN, &got), MAC_LEN);
    memcpy(&entry->ip, in.take(4, &got), 4);
    HASH_ADD(hh, table, mac, MAC_LEN, entry);
    arp_detect_handle.arp_detect_array = static_cast<t_arp_detect *>(calloc(1, sizeof(t_arp_detect)));
    arp_detect_handle.arp_num = 1;
    arp_detect_handle.arp_table = &table;
    arp_detect_handle.br_ip = inet_addr("192.168.1.1");
    arp_detect_handle.br_netmask = inet_addr("255.255.255.0");
    t_arp_detect &slot = arp_detect_handle.arp_detect_array[0];
    memcpy(slot.target_mac, entry->mac, MAC_LEN);
    slot.target_ip = entry->ip;
    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) == 0);
    slot.ufd.fd = sv[0];
    while (in.left() >= 3 && !slot.replied) {
        in.u8();
        const uint8_t *frame = in.take(in.be16() % 1601, &got);
        uint8_t buf[ARP_RECV_BUF_LEN] = {};
        memcpy(buf, frame, got < sizeof(buf) ? got : sizeof(buf));
        uint32_t sender = 0;
        bool reply = arp_reply_sender_ip(ByteView(buf, sizeof(buf)), &sender);
        FUZZ_CHECK(reply == (buf[20] == 0 && buf[21] == 2) && (!reply || !memcmp(&sender, buf + 28, 4)));
        FUZZ_CHECK(send(sv[1], frame, got, 0) == static_cast<ssize_t>(got));
        recv_arp_packet(&slot.ufd, ULOOP_READ);
        // Taken only from the expected host, as a reply; the entry goes when
        // the address it gave lies outside br-lan's subnet.
        bool mine = reply && !memcmp(buf + 6, slot.target_mac, MAC_LEN) && !memcmp(buf + 22, slot.target_mac, MAC_LEN);
        FUZZ_CHECK(slot.replied == mine && (slot.ufd.fd == -1) == mine);
        // Same subnet: the address differs from br-lan's only in host bits.
        bool outside = ((sender ^ arp_detect_handle.br_ip) & arp_detect_handle.br_netmask) != 0;
        bool gone = mine && sender != slot.target_ip && outside;
        FUZZ_CHECK((table == nullptr) == gone);
    }
    if (slot.ufd.fd > 0)
        close(slot.ufd.fd);
    slot.ufd.fd = -1;
    release_arp_detect_handle(&arp_detect_handle);
    if (table)
        remove_arp_entry(&table, table->mac);
    close(sv[1]);
    FUZZ_CHECK(fuzz::open_fds() == fds);
    return 0;
}
