// The ARP-entry sweep on the event loop: each slot reads replies from a
// datagram socketpair, then the judge prunes the table.  Nothing in the
// detection runs the sweep, so this one table is its whole test.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "arp/arp_packet.h"
#include "arp/arp_sweep.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/testkit.h"

namespace {

// An ARP reply from eth_src claiming sender (sha, spa), cut to len bytes.
std::vector<uint8_t> reply(uint8_t eth_src, uint8_t sha, const char *spa, size_t len = 60)
{
    std::vector<uint8_t> f = tk::hex("02 00 00 00 00 fe 02 00 00 00 00 00 08 06 00 01 08 00 06 04 00 02"
                                     "02 00 00 00 00 00");
    f[11] = eth_src;
    f[27] = sha;
    uint32_t ip = inet_addr(spa);
    f.insert(f.end(), reinterpret_cast<uint8_t *>(&ip), reinterpret_cast<uint8_t *>(&ip) + 4);
    f.resize(60, 0);
    f.resize(len);
    return f;
}

TEST(ArpSweep, RepliesThenJudge)
{
    const struct {
        const char *ip;              // the entry's address; its MAC ends in the row's number
        std::vector<uint8_t> frame;  // what arrives on its slot
        bool replied, kept;
        const char *log;
    } rows[] = {
        {"192.168.1.20", reply(1, 1, "192.168.1.20"), true, true,
         "arp reply success in 192.168.1.20|02-00-00-00-00-01\n"},
        {"192.168.1.21", reply(2, 2, "192.168.1.99"), true, true,
         "arp reply new ip still remains same subnet with br-lan!\n"},
        {"192.168.1.22", reply(3, 3, "10.0.0.3"), true, false,
         "arp reply new is not same subnet with br-lan! remove it from arp hash table!\n"},
        {"192.168.1.23", reply(9, 4, "192.168.1.23"), false, false,
         "Not match eth header:02-00-00-00-00-09|02-00-00-00-00-04\n"},
        // 28 bytes: the sender address is not there and reads as 0.0.0.0.
        {"192.168.1.24", reply(5, 5, "192.168.1.24", 28), true, false,
         "arp reply receieve a different ip:0.0.0.0, orig:192.168.1.24\n"},
    };
    const size_t n = sizeof(rows) / sizeof(rows[0]);
    ASSERT_EQ(uloop_init(), 0);
    log_set_level(LOG_LEVEL_DEBUG);
    t_arp_entry *table = nullptr;
    arp_detect_handle.arp_detect_array = static_cast<t_arp_detect *>(calloc(n, sizeof(t_arp_detect)));
    arp_detect_handle.arp_num = n;
    arp_detect_handle.arp_table = &table;
    arp_detect_handle.br_ip = inet_addr("192.168.1.1");
    arp_detect_handle.br_netmask = inet_addr("255.255.255.0");
    int peers[n];
    for (size_t i = 0; i < n; i++) {
        auto *e = static_cast<t_arp_entry *>(calloc(1, sizeof(t_arp_entry)));
        memcpy(e->mac, tk::hex("02 00 00 00 00 00").data(), MAC_LEN);
        e->mac[5] = static_cast<uint8_t>(i + 1);
        e->ip = inet_addr(rows[i].ip);
        HASH_ADD(hh, table, mac, MAC_LEN, e);
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
        t_arp_detect &slot = arp_detect_handle.arp_detect_array[i];
        slot.ufd.fd = sv[0];
        slot.ufd.cb = recv_arp_packet;
        memcpy(slot.target_mac, e->mac, MAC_LEN);
        slot.target_ip = e->ip;
        peers[i] = sv[1];
        ASSERT_EQ(send(peers[i], rows[i].frame.data(), rows[i].frame.size(), 0),
                  static_cast<ssize_t>(rows[i].frame.size()));
        tk::Capture log;
        recv_arp_packet(&arp_detect_handle.arp_detect_array[i].ufd, ULOOP_READ);
        EXPECT_EQ(tk::count(log.text(), rows[i].log), 1u) << rows[i].ip;
        EXPECT_EQ(arp_detect_handle.arp_detect_array[i].replied, rows[i].replied) << rows[i].ip;
    }
    EXPECT_EQ(process_arp_detect_all(0), LP_SWEEP_WAITING);
    EXPECT_EQ(process_arp_detect_all(1), LP_SWEEP_TIMEOUT);
    EXPECT_EQ(arp_detect_handle.arp_detect_array, nullptr);
    for (size_t i = 0; i < n; i++) {
        uint8_t mac[MAC_LEN] = {2, 0, 0, 0, 0, static_cast<uint8_t>(i + 1)};
        EXPECT_EQ(find_arp_entry(table, mac) != nullptr, rows[i].kept) << rows[i].ip;
        close(peers[i]);
    }
    EXPECT_EQ(process_arp_detect_all(1), LP_SWEEP_IDLE);
    t_arp_entry *e, *tmp;
    HASH_ITER(hh, table, e, tmp)
    {
        HASH_DEL(table, e);
        free(e);
    }
    uloop_done();
}

}  // namespace
