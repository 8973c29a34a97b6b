// Forwarding database reader and candidate selection against a real bridge
// br-lan in a network namespace of the test's own.  Where a case needs a
// database the kernel cannot produce (port 200, a torn copy), a `cp` placed
// first in PATH writes a crafted copy: the daemon still runs its shell
// command, opens, seeks, reads and deletes the copy as always.
#include <errno.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bridge/br_port.h"
#include "bridge/fdb.h"
#include "registry/device_table.h"
#include "support/fd_guard.h"
#include "support/log.h"
#include "support/lan.h"
#include "support/netns.h"

namespace {

using lptest::count_of;
using lptest::run_in_netns;
using lptest::sh;
using lptest::StdoutCapture;
using lptest::write_file;

void make_lan(int ports)
{
    ASSERT_TRUE(lptest::make_lan(ports));
    ASSERT_TRUE(lptest::wait_forwarding(ports));
}

// Interface records of the bridge ports, through the bridge walk.
t_device *ports_table()
{
    t_device *head = nullptr;
    EXPECT_GT(update_brlan_dev_from_sys("br-lan", &head), 0);
    return head;
}

// Sends a frame with the given source MAC out of the peer p<peer>, so that
// the bridge learns that MAC on port eth<peer>.
void send_from_host(int peer, uint8_t last_mac_byte)
{
    std::string name = "p" + std::to_string(peer);
    FdGuard s(socket(AF_PACKET, SOCK_RAW, 0));
    ASSERT_TRUE(s.valid()) << strerror(errno);
    uint8_t frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0xaa, 0, 0, 0, last_mac_byte,
                         0x88, 0xb5};
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
    to.sll_halen = 6;
    ASSERT_EQ(sendto(s.get(), frame, sizeof(frame), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)),
              60)
        << strerror(errno);
}

size_t kernel_fdb_records()
{
    struct stat st;
    if (stat("/sys/class/net/br-lan/brforward", &st) != 0)
        return 0;
    // sysfs reports a fixed size for bin attributes; count what a read yields.
    FILE *f = fopen("/sys/class/net/br-lan/brforward", "rb");
    if (!f)
        return 0;
    char buf[4096];
    size_t total = 0, n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0)
        total += n;
    fclose(f);
    return total / FDB_ENTRY_SIZE;
}

// A `cp` first in PATH: logs each run to /tmp/cp.log, then does what body says.
void install_cp_shim(const std::string &body)
{
    ASSERT_EQ(mkdir("/tmp/shim", 0755), 0);
    ASSERT_TRUE(write_file("/tmp/shim/cp", "#!/bin/sh\necho \"$@\" >> /tmp/cp.log\n" + body + "\n"));
    ASSERT_EQ(chmod("/tmp/shim/cp", 0755), 0);
    std::string path = std::string("/tmp/shim:") + getenv("PATH");
    setenv("PATH", path.c_str(), 1);
}

size_t cp_runs()
{
    FILE *f = fopen("/tmp/cp.log", "r");
    if (!f)
        return 0;
    size_t lines = 0;
    for (int c; (c = fgetc(f)) != EOF;)
        lines += c == '\n';
    fclose(f);
    return lines;
}

bool copy_exists()
{
    return access(FDB_COPY_PATH, F_OK) == 0;
}

t_device *add_record(t_device **head, const char *name, int8_t port_no)
{
    t_device *dev = create_new_device(name);
    dev->port_no = port_no;
    EXPECT_EQ(add_device(head, dev), 0);
    return dev;
}

TEST(Fdb, LearnedHostsMarkExactlyTheirPorts)
{
    run_in_netns([] {
        make_lan(3);
        t_device *head = ports_table();
        ASSERT_NE(head, nullptr);
        t_device *eth1 = find_device(head, "eth1");
        t_device *eth2 = find_device(head, "eth2");
        t_device *eth3 = find_device(head, "eth3");
        ASSERT_TRUE(eth1 && eth2 && eth3);
        eth1->connected = 1;  // left over from an earlier pass: must be cleared
        // A record made from the UCI list keeps port number 0; the kernel
        // numbers bridge ports from 1, so no entry ever selects it.
        t_device *from_uci = add_record(&head, "lan0", 0);

        // Three hosts behind eth2, one behind eth3, none behind eth1.
        send_from_host(2, 1);
        send_from_host(2, 2);
        send_from_host(2, 3);
        send_from_host(3, 4);

        log_set_level(7);
        StdoutCapture cap;
        EXPECT_EQ(update_brlan_valid_dev(head), 0);
        std::string out = cap.stop();

        EXPECT_EQ(eth1->connected, 0);
        EXPECT_EQ(eth2->connected, 1);
        EXPECT_EQ(eth3->connected, 1);
        EXPECT_EQ(from_uci->connected, 0);
        EXPECT_EQ(count_of(out, "find device mac:02-AA-00-00-00-"), 2u) << out;
        EXPECT_EQ(count_of(out, "connected in dev:eth2!\n"), 1u) << out;
        EXPECT_EQ(count_of(out, "find device mac:02-AA-00-00-00-04 connected in dev:eth3!\n"), 1u) << out;
        EXPECT_EQ(count_of(out, "device:eth2 already has devices connected (via fdb table)!\n"), 2u) << out;
        EXPECT_EQ(count_of(out, "No device index("), 0u) << out;
        EXPECT_EQ(count_of(out, "get br:br-lan, overall 7 entry in fdb table\n"), 1u)
            << "4 hosts and one local entry per port\n" << out;
        EXPECT_FALSE(copy_exists());
        release_all_device(&head);
    });
}

// 69 static entries and eth1's own local entry: 70 records.
void make_seventy()
{
    make_lan(1);
    std::string batch;
    for (int i = 0; i < 69; i++) {
        char mac[32];
        snprintf(mac, sizeof(mac), "02:bb:00:00:00:%02x", i);
        batch += std::string("fdb add ") + mac + " dev eth1 master static\n";
    }
    ASSERT_TRUE(write_file("/tmp/fdb.batch", batch));
    ASSERT_TRUE(sh("bridge -batch /tmp/fdb.batch"));
    ASSERT_EQ(kernel_fdb_records(), 70u);
}

TEST(Fdb, SeventyRecordsInThreeChunks)
{
    run_in_netns([] {
        make_seventy();
        install_cp_shim("exec /bin/cp \"$@\"");

        FdGuard sock(br_init());
        ASSERT_GT(sock.get(), 0);

        // One chunk at a time: 64, then the 6 left, then none.
        t_fdb_entry chunk[FDB_CHUNK];
        EXPECT_EQ(read_fdb_chunk("br-lan", chunk, 0, FDB_CHUNK, sock.get()), 64);
        EXPECT_FALSE(copy_exists());
        EXPECT_EQ(read_fdb_chunk("br-lan", chunk, 64, FDB_CHUNK, sock.get()), 6);
        EXPECT_EQ(read_fdb_chunk("br-lan", chunk, 70, FDB_CHUNK, sock.get()), 0);
        EXPECT_EQ(cp_runs(), 3u);

        // The whole table: three copies, capacity 64 -> 128 -> 134.
        t_fdb_entry *fdb = nullptr;
        int capacity = 0;
        EXPECT_EQ(br_get_fdb("br-lan", &fdb, &capacity, sock.get()), 70);
        EXPECT_EQ(capacity, 134);
        EXPECT_EQ(cp_runs(), 6u);
        int statics = 0, locals = 0;
        for (int i = 0; i < 70; i++) {
            statics += fdb[i].mac_addr[0] == 0x02 && fdb[i].mac_addr[1] == 0xbb && fdb[i].port_no == 1;
            locals += fdb[i].is_local != 0;
        }
        EXPECT_EQ(statics, 69);
        EXPECT_EQ(locals, 1);

        free(fdb);

        t_fdb_entry *table = nullptr;
        EXPECT_EQ(get_bridge_table("br-lan", &table), 70);
        free(table);
        EXPECT_FALSE(copy_exists());
    });
}

t_fdb_entry entry(uint8_t last, uint8_t port_no, uint8_t is_local = 0)
{
    t_fdb_entry e{};
    const uint8_t mac[6] = {0x02, 0xcc, 0, 0, 0, last};
    memcpy(e.mac_addr, mac, 6);
    e.port_no = port_no;
    e.is_local = is_local;
    return e;
}

TEST(Fdb, CraftedCopies)
{
    struct Case {
        const char *what;
        std::vector<t_fdb_entry> records;
        size_t trailing_bytes;  // a torn record after the whole ones
        std::vector<int8_t> record_ports;  // port_no of eth1, eth2, ...
        std::vector<int> connected;
        int result;
        size_t chunk_copies;
    };
    const Case cases[] = {
        // The kernel's byte is unsigned; the record's is signed.
        {"port 200 never matches", {entry(1, 200)}, 0, {static_cast<int8_t>(200), 1}, {0, 0}, 0, 2},
        {"unknown port -1 never matches", {entry(1, 0xff)}, 0, {-1}, {0}, 0, 2},
        {"only a torn record", {}, 15, {1}, {0}, -83, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        run_in_netns([&] {
            std::string bytes(reinterpret_cast<const char *>(c.records.data()),
                              c.records.size() * sizeof(t_fdb_entry));
            bytes.append(c.trailing_bytes, '\x5a');
            ASSERT_TRUE(write_file("/tmp/fixture", bytes));
            install_cp_shim("cat /tmp/fixture > \"$2\"");

            t_device *head = nullptr;
            std::vector<t_device *> devs;
            for (size_t i = 0; i < c.record_ports.size(); i++)
                devs.push_back(add_record(&head, ("eth" + std::to_string(i + 1)).c_str(),
                                          c.record_ports[i]));
            EXPECT_EQ(update_brlan_valid_dev(head), c.result);
            for (size_t i = 0; i < devs.size(); i++) {
                EXPECT_EQ(devs[i]->connected, c.connected[i]) << devs[i]->name;
            }
            EXPECT_EQ(cp_runs(), c.chunk_copies);
            EXPECT_FALSE(copy_exists());
            release_all_device(&head);
        });
    }
}

}  // namespace
