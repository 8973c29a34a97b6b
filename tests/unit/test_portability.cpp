// What changes between the router architectures: the legacy bridge requests
// pass a block of four unsigned long words (32 bits on MIPS, 64 on AArch64) and
// receive 16-byte forwarding-database records whose only multi-byte field is in
// the kernel's byte order.  Runs natively and, cross-built, under qemu-user on
// big-endian 32-bit MIPS and on AArch64.
//
// qemu-user cannot hand SIOCDEVPRIVATE to the host kernel (the block holds a
// guest pointer, and a 64-bit kernel would read 32-bit words as 64-bit ones),
// so the bridge's side of those two requests is played by this file: the link
// wraps ioctl() of the daemon objects (-Wl,--wrap=ioctl) and the bridge named
// kBridge answers like the kernel's old_dev_ioctl does, reading the block as
// the machine's unsigned long words.  Every other ioctl goes to the kernel.
#include <gtest/gtest.h>

#include <errno.h>
#include <net/if.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "bridge/br_port.h"
#include "bridge/fdb.h"
#include "registry/device_table.h"
#include "support/log.h"
#include "support/netns.h"

extern "C" int __real_ioctl(int fd, unsigned long request, ...);
extern "C" int __wrap_ioctl(int fd, unsigned long request, ...);

namespace {

using Record = std::array<uint8_t, FDB_ENTRY_SIZE>;
using Block = std::array<unsigned long, 4>;

// The kernel caps one BRCTL_GET_FDB_ENTRIES answer at a page of records.
constexpr unsigned long kFdbPerCall = 4096 / FDB_ENTRY_SIZE;
constexpr unsigned long kMaxPorts = 1024;

struct FakeBridge {
    std::string name;                 // requests for other names go to the kernel
    std::vector<std::string> names;   // ifr_name of every request seen
    std::vector<Block> blocks;        // argument block of every request seen
    std::vector<std::pair<unsigned long, int>> port_slots;  // slot -> ifindex
    std::vector<Record> fdb;
    int eagain = 0;                   // answer EAGAIN this many times first
    int fail_errno = 0;               // then fail every request with this error
};

FakeBridge g_bridge;

// A record laid out as the kernel writes struct __fdb_entry: single bytes at
// fixed offsets and ageing_timer_value as a native 32-bit number.
Record MakeRecord(const uint8_t mac[6], unsigned port, bool local, uint32_t ageing)
{
    Record r{};
    memcpy(r.data(), mac, 6);
    r[6] = static_cast<uint8_t>(port & 0xFF);
    r[7] = local ? 1 : 0;
    memcpy(r.data() + 8, &ageing, 4);
    r[12] = static_cast<uint8_t>(port >> 8);
    return r;
}

std::vector<Record> NumberedRecords(size_t n)
{
    std::vector<Record> out;
    for (size_t i = 0; i < n; i++) {
        uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x10, static_cast<uint8_t>(i >> 8),
                          static_cast<uint8_t>(i)};
        out.push_back(MakeRecord(mac, static_cast<unsigned>(i % 7 + 1), i % 5 == 0,
                                 0x01020304u * static_cast<uint32_t>(i + 1)));
    }
    return out;
}

int FakeBridgeIoctl(struct ifreq *ifr)
{
    Block args;
    memcpy(args.data(), ifr->ifr_data, sizeof(args));  // four machine words
    g_bridge.names.emplace_back(ifr->ifr_name);
    g_bridge.blocks.push_back(args);
    if (g_bridge.eagain > 0) {
        g_bridge.eagain--;
        errno = EAGAIN;
        return -1;
    }
    if (g_bridge.fail_errno != 0) {
        errno = g_bridge.fail_errno;
        return -1;
    }
    switch (args[0]) {
    case BRCTL_GET_PORT_LIST: {
        unsigned long num = args[2] > kMaxPorts ? kMaxPorts : args[2];
        std::vector<int> indices(num, 0);
        for (const auto &s : g_bridge.port_slots)
            if (s.first < num)
                indices[s.first] = s.second;
        memcpy(reinterpret_cast<void *>(args[1]), indices.data(), num * sizeof(int));
        return 0;
    }
    case BRCTL_GET_FDB_ENTRIES: {
        unsigned long maxnum = args[2] > kFdbPerCall ? kFdbPerCall : args[2];
        unsigned long offset = args[3];
        unsigned long n = 0;
        uint8_t *dst = reinterpret_cast<uint8_t *>(args[1]);
        for (unsigned long i = offset; i < g_bridge.fdb.size() && n < maxnum; i++, n++)
            memcpy(dst + n * FDB_ENTRY_SIZE, g_bridge.fdb[i].data(), FDB_ENTRY_SIZE);
        return static_cast<int>(n);
    }
    default:
        errno = EOPNOTSUPP;
        return -1;
    }
}

struct Port {
    std::string name;
    int port_no;
    int position;
};

int CollectPort(const char *name, int port_no, int position, void *arg)
{
    static_cast<std::vector<Port> *>(arg)->push_back({name, port_no, position});
    return 0;
}

class Portability : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_bridge = FakeBridge{};
        log_set_level(LOG_LEVEL_CRITICAL);
    }
    void TearDown() override { g_bridge = FakeBridge{}; }
};

}  // namespace

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *argp = va_arg(ap, void *);
    va_end(ap);
    if (request == SIOCDEVPRIVATE && !g_bridge.name.empty() &&
        strncmp(static_cast<struct ifreq *>(argp)->ifr_name, g_bridge.name.c_str(), IFNAMSIZ) == 0)
        return FakeBridgeIoctl(static_cast<struct ifreq *>(argp));
    return __real_ioctl(fd, request, argp);
}

// The build describes the machine the tests run on; a toolchain or emulator
// mix-up (say, a little-endian MIPS) shows up here first.
TEST_F(Portability, MachineIsTheOneBuiltFor)
{
    const uint32_t one = 1;
    uint8_t first;
    memcpy(&first, &one, 1);
    EXPECT_EQ(first == 0, LANPROBE_TEST_BIG_ENDIAN == 1) << "byte order at run time";
    EXPECT_EQ(sizeof(unsigned long), static_cast<size_t>(LANPROBE_TEST_LONG_SIZE));
    // A pointer travels in an unsigned long word of the bridge requests.
    EXPECT_EQ(sizeof(unsigned long), sizeof(void *));
    RecordProperty("big_endian", LANPROBE_TEST_BIG_ENDIAN);
    RecordProperty("unsigned_long_bytes", static_cast<int>(sizeof(unsigned long)));
}

TEST_F(Portability, PortListBlockIsFourMachineWords)
{
    lptest::run_in_netns([] {
        const int lo = static_cast<int>(if_nametoindex("lo"));
        ASSERT_GT(lo, 0);
        g_bridge.name = "lpfake0";
        // The kernel fills the slot numbered by each port's port number; the
        // last slot proves the daemon offered the whole 1024-entry array.
        g_bridge.port_slots = {{3, lo}, {kMaxPorts - 1, lo}};

        std::vector<Port> ports;
        EXPECT_EQ(old_foreach_port("lpfake0", CollectPort, &ports), 2);

        ASSERT_EQ(g_bridge.blocks.size(), 1u);
        const Block &b = g_bridge.blocks[0];
        EXPECT_EQ(b[0], static_cast<unsigned long>(BRCTL_GET_PORT_LIST));
        EXPECT_NE(b[1], 0ul);
        EXPECT_EQ(b[2], kMaxPorts);
        EXPECT_EQ(b[3], 0ul);
        EXPECT_EQ(g_bridge.names[0], "lpfake0");

        ASSERT_EQ(ports.size(), 2u);
        // No sysfs entry for lo under this bridge, so the port number is unknown.
        EXPECT_EQ(ports[0].name, "lo");
        EXPECT_EQ(ports[0].port_no, -1);
        EXPECT_EQ(ports[0].position, 4);
        EXPECT_EQ(ports[1].name, "lo");
        EXPECT_EQ(ports[1].position, static_cast<int>(kMaxPorts));
    });
}

TEST_F(Portability, FdbBlocksCarryCountAndOffset)
{
    lptest::run_in_netns([] {
        // No br-lan in this namespace: the copy from sysfs fails and every
        // chunk is asked from the bridge.
        g_bridge.name = "lpfake0";
        g_bridge.fdb = NumberedRecords(70);

        t_fdb_entry *fdb = nullptr;
        EXPECT_EQ(get_bridge_table("lpfake0", &fdb), 70);

        // Chunks of 64 records: 64, then 6, then the empty answer that ends it.
        ASSERT_EQ(g_bridge.blocks.size(), 3u);
        const unsigned long offsets[] = {0, 64, 70};
        for (size_t i = 0; i < 3; i++) {
            SCOPED_TRACE(i);
            EXPECT_EQ(g_bridge.blocks[i][0], static_cast<unsigned long>(BRCTL_GET_FDB_ENTRIES));
            EXPECT_NE(g_bridge.blocks[i][1], 0ul);
            EXPECT_EQ(g_bridge.blocks[i][2], static_cast<unsigned long>(FDB_CHUNK));
            EXPECT_EQ(g_bridge.blocks[i][3], offsets[i]);
            EXPECT_EQ(g_bridge.names[i], "lpfake0");
        }
        // Each chunk lands right after the records already read.
        ASSERT_NE(fdb, nullptr);
        for (size_t i = 0; i < 70; i++) {
            SCOPED_TRACE(i);
            const t_fdb_entry &e = fdb[i];
            const Record &r = g_bridge.fdb[i];
            EXPECT_EQ(memcmp(e.mac_addr, r.data(), 6), 0);
            EXPECT_EQ(e.port_no, i % 7 + 1);
            EXPECT_EQ(e.is_local, i % 5 == 0 ? 1 : 0);
            EXPECT_EQ(e.ageing_timer_value, 0x01020304u * static_cast<uint32_t>(i + 1));
        }
        free(fdb);
        EXPECT_NE(access(FDB_COPY_PATH, F_OK), 0) << "the temporary copy is deleted";
    });
}

TEST_F(Portability, FdbRetriesWhileTheBridgeIsBusy)
{
    lptest::run_in_netns([] {
        struct Case {
            int eagain;
            int result;
            size_t requests;
        } cases[] = {
            {2, 3, 4},    // two EAGAIN, the records, then the end of the table
            {9, 3, 11},   // the tenth attempt still counts
            {10, -1, 10}, // ten EAGAIN in a row: the read fails
        };
        for (const Case &c : cases) {
            SCOPED_TRACE(c.eagain);
            g_bridge = FakeBridge{};
            g_bridge.name = "lpfake0";
            g_bridge.fdb = NumberedRecords(3);
            g_bridge.eagain = c.eagain;
            t_fdb_entry *fdb = nullptr;
            EXPECT_EQ(get_bridge_table("lpfake0", &fdb), c.result);
            EXPECT_EQ(g_bridge.blocks.size(), c.requests);
            free(fdb);
        }
    });
}

// The log lines of failed bridge requests carry strerror() of the C library
// the daemon runs on, inside the daemon's own text.  EOPNOTSUPP is what the
// kernel answers for a device that is no bridge, and glibc ("Operation not
// supported") and musl ("Not supported") word it differently.
TEST_F(Portability, FailedBridgeRequestsLogTheLibraryErrorText)
{
    lptest::run_in_netns([] {
        g_bridge.name = "lpfake0";
        g_bridge.fail_errno = EOPNOTSUPP;
        log_set_level(LOG_LEVEL_ERROR);

        lptest::StdoutCapture cap;
        t_device *head = nullptr;
        const int ports = update_brlan_dev_from_sys("lpfake0", &head);
        t_fdb_entry *fdb = nullptr;
        const int records = get_bridge_table("lpfake0", &fdb);
        const std::string log = cap.stop();
        free(fdb);

        EXPECT_EQ(ports, -EOPNOTSUPP);
        EXPECT_EQ(head, nullptr);
        EXPECT_EQ(records, -1);
        // One port-list request, then one forwarding-database request.
        ASSERT_EQ(g_bridge.blocks.size(), 2u);
        EXPECT_EQ(g_bridge.blocks[0][0], static_cast<unsigned long>(BRCTL_GET_PORT_LIST));
        EXPECT_EQ(g_bridge.blocks[1][0], static_cast<unsigned long>(BRCTL_GET_FDB_ENTRIES));

        const std::string text = strerror(EOPNOTSUPP);
        const std::string lines[] = {
            "]: list ports for bridge:'lpfake0' failed: " + text + "\n",
            "]:  Can't get port info: " + text + "\n",
            "]: read of forward table failed: " + text + "\n",
        };
        size_t last = 0;
        for (const std::string &line : lines) {
            EXPECT_EQ(lptest::count_of(log, line), 1u) << line << "\nin:\n" << log;
            const size_t at = lptest::pos_of(log, line);
            EXPECT_TRUE(at != std::string::npos && at >= last) << line << "\nin:\n" << log;
            last = at == std::string::npos ? last : at;
        }
        EXPECT_EQ(lptest::count_of(log, "[lanprobe][Error]"), 3u) << log;
    });
}

// Candidate selection over records as a big-endian kernel delivers them:
// port_no and is_local are single bytes, port_hi is not used.
TEST_F(Portability, CandidatesFromKernelRecords)
{
    lptest::run_in_netns([] {
        g_bridge.name = FDB_BRIDGE_NAME;  // update_brlan_valid_dev reads br-lan
        const uint8_t h1[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
        const uint8_t h2[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x02};
        const uint8_t h3[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x03};
        const uint8_t own[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
        g_bridge.fdb = {
            MakeRecord(own, 1, true, 0),              // the bridge's own address on port 1
            MakeRecord(h1, 3, false, 0xA0B0C0D0),     // a host on port 3
            MakeRecord(h2, 0x105, false, 7),          // port 261: the low byte 5 is what counts
            MakeRecord(h3, 200, false, 7),            // beyond the signed byte of the record
        };

        t_device *head = nullptr;
        struct {
            const char *name;
            int port_no;
        } ports[] = {{"eth1", 1}, {"eth3", 3}, {"eth5", 5}, {"eth200", 200}, {"eth9", 9}};
        int position = 1;
        for (const auto &p : ports)
            ASSERT_EQ(add_br_device(p.name, p.port_no, position++, &head), 0);
        find_device(head, "eth9")->connected = 1;  // stale from an earlier pass

        EXPECT_EQ(update_brlan_valid_dev(head), 0);

        const struct {
            const char *name;
            int connected;
        } want[] = {{"eth1", 0}, {"eth3", 1}, {"eth5", 1}, {"eth200", 0}, {"eth9", 0}};
        for (const auto &w : want)
            EXPECT_EQ(find_device(head, w.name)->connected, w.connected) << w.name;
        // 4 records fit one chunk; the second request finds the end.
        EXPECT_EQ(g_bridge.blocks.size(), 2u);
        release_all_device(&head);
    });
}

// The sysfs copy is read as raw 16-byte records, seeking by record index.
TEST_F(Portability, FdbRecordsFromTheCopiedFile)
{
    lptest::run_in_netns([] {
        std::vector<Record> recs = NumberedRecords(5);
        std::string bytes;
        for (const Record &r : recs)
            bytes.append(reinterpret_cast<const char *>(r.data()), r.size());
        bytes.append(9, '\x7f');  // a torn trailing record is not delivered

        struct Case {
            unsigned long offset;
            int num;
            int result;
        } cases[] = {{0, 64, 5}, {2, 2, 2}, {3, 64, 2}, {5, 64, 0}};
        for (const Case &c : cases) {
            SCOPED_TRACE(c.offset);
            // The name is no bridge, so the copy fails and leaves this file alone.
            ASSERT_TRUE(lptest::write_file(FDB_COPY_PATH, bytes));
            t_fdb_entry out[64];
            memset(out, 0, sizeof(out));
            ASSERT_EQ(read_fdb_chunk("lpnone0", out, c.offset, c.num, -1), c.result);
            for (int i = 0; i < c.result; i++) {
                const Record &r = recs[c.offset + static_cast<unsigned long>(i)];
                EXPECT_EQ(memcmp(&out[i], r.data(), FDB_ENTRY_SIZE), 0) << i;
            }
            EXPECT_NE(access(FDB_COPY_PATH, F_OK), 0) << "the copy is deleted after the read";
        }
        EXPECT_TRUE(g_bridge.blocks.empty()) << "no request reaches the bridge";
    });
}
