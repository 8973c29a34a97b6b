// The ARP-entry sweep on the event loop (nothing in the detection runs it):
// each slot reads a reply from a datagram socketpair, then the judge prunes.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "arp/arp_packet.h"
#include "arp/arp_sweep.h"
#include "support/log.h"
#include "support/result_codes.h"
#include "support/testkit.h"

namespace {

TEST(ArpSweep, RepliesThenJudge)
{
    const struct {
        uint8_t eth_src;   // last byte of the reply's Ethernet source; the entry's MAC ends in its row number
        const char *spa;   // the address the reply claims; the entry asked for 192.168.1.2<row>
        bool kept;
        const char *log;
    } rows[] = {
        {1, "192.168.1.21", true, "Debug: arp reply success in 192.168.1.21|02-00-00-00-00-01\n"},
        {2, "10.0.0.3", false, "Info: arp reply new is not same subnet with br-lan! remove it from arp hash table!\n"},
        {9, "192.168.1.23", false, "Error: Not match eth header:02-00-00-00-00-09|02-00-00-00-00-03\n"},  // never replied
    };
    ASSERT_EQ(uloop_init(), 0);
    log_set_level(LOG_LEVEL_DEBUG);
    t_arp_entry *table = nullptr;
    arp_detect_handle.arp_detect_array = static_cast<t_arp_detect *>(calloc(3, sizeof(t_arp_detect)));
    arp_detect_handle.arp_num = 3;
    arp_detect_handle.arp_table = &table;
    arp_detect_handle.br_ip = inet_addr("192.168.1.1");
    arp_detect_handle.br_netmask = inet_addr("255.255.255.0");
    int peers[3];
    for (int i = 0; i < 3; i++) {
        auto *e = static_cast<t_arp_entry *>(calloc(1, sizeof(t_arp_entry)));
        e->mac[0] = 2;
        e->mac[5] = static_cast<uint8_t>(i + 1);
        e->ip = inet_addr(("192.168.1.2" + std::to_string(i + 1)).c_str());
        HASH_ADD(hh, table, mac, MAC_LEN, e);
        t_arp_detect &slot = arp_detect_handle.arp_detect_array[i];
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
        slot.ufd.fd = sv[0];
        peers[i] = sv[1];
        memcpy(slot.target_mac, e->mac, MAC_LEN);
        slot.target_ip = e->ip;
        // A reply from eth_src, sender hardware address the entry's MAC.
        std::vector<uint8_t> f = tk::hex("02 00 00 00 00 fe 02 00 00 00 00 00 08 06 00 01 08 00 06 04 00 02");
        f[11] = rows[i].eth_src;
        f.insert(f.end(), e->mac, e->mac + MAC_LEN);
        uint32_t spa = inet_addr(rows[i].spa);
        f.insert(f.end(), reinterpret_cast<uint8_t *>(&spa), reinterpret_cast<uint8_t *>(&spa) + 4);
        f.resize(60, 0);
        ASSERT_EQ(send(peers[i], f.data(), f.size(), 0), 60);
        tk::Capture log;
        recv_arp_packet(&slot.ufd, ULOOP_READ);
        EXPECT_EQ(tk::count(tk::messages(log.text()), rows[i].log), 1u) << rows[i].spa;
    }
    EXPECT_EQ(process_arp_detect_all(0), 0);
    EXPECT_EQ(process_arp_detect_all(1), 96);
    for (int i = 0; i < 3; i++) {
        uint8_t mac[MAC_LEN] = {2, 0, 0, 0, 0, static_cast<uint8_t>(i + 1)};
        EXPECT_EQ(find_arp_entry(table, mac) != nullptr, rows[i].kept) << rows[i].spa;
        close(peers[i]);
    }
    EXPECT_EQ(arp_detect_handle.arp_detect_array, nullptr);
    while (table)
        remove_arp_entry(&table, table->mac);
    uloop_done();
}

}  // namespace
