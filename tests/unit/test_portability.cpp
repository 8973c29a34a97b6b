// The legacy bridge requests pass four unsigned long words: 32 bits on MIPS,
// 64 on AArch64 and x86-64.  qemu-user cannot hand SIOCDEVPRIVATE to the host
// kernel (the block holds a guest pointer), so this test plays the bridge:
// the link wraps ioctl() (-Wl,--wrap=ioctl) and a bridge named "brX" answers
// as the kernel does, reading the block as the target's own words.  The cross
// builds run it under qemu, which is where a block of the wrong width shows.
#include <gtest/gtest.h>

#include <errno.h>
#include <net/if.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>

#include "bridge/br_port.h"
#include "bridge/fdb.h"
#include "support/log.h"
#include "support/testkit.h"

extern "C" int __real_ioctl(int fd, unsigned long request, ...);

namespace {

struct FakeBridge {
    std::vector<std::vector<unsigned long>> blocks;  // every request seen
    int eagain = 0;                                  // answer EAGAIN this often first
    int fail = 0;                                    // then fail with this error
    size_t records = 0;                              // forwarding database size
} g_bridge;

}  // namespace

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list ap;
    va_start(ap, request);
    void *arg = va_arg(ap, void *);
    va_end(ap);
    auto *ifr = static_cast<struct ifreq *>(arg);
    if (request != SIOCDEVPRIVATE || strcmp(ifr->ifr_name, "brX") != 0)
        return __real_ioctl(fd, request, arg);
    unsigned long *w = reinterpret_cast<unsigned long *>(ifr->ifr_data);
    g_bridge.blocks.push_back({w[0], w[2], w[3]});
    if ((g_bridge.eagain > 0 && g_bridge.eagain--) || g_bridge.fail) {
        errno = g_bridge.fail ? g_bridge.fail : EAGAIN;
        return -1;
    }
    if (w[0] == 7) {  // BRCTL_GET_PORT_LIST; slot 3 holds the loopback interface
        reinterpret_cast<int *>(w[1])[3] = static_cast<int>(if_nametoindex("lo"));
        return 0;
    }
    size_t n = 0;  // records i at offset i: MAC 02:..:i, port 1 + i % 3
    for (size_t i = w[3]; i < g_bridge.records && n < w[2]; i++, n++) {
        uint8_t *rec = reinterpret_cast<uint8_t *>(w[1]) + n * 16;  // a record is 16 bytes
        memset(rec, 0, 16);
        rec[0] = 2;
        rec[5] = static_cast<uint8_t>(i);
        rec[6] = static_cast<uint8_t>(1 + i % 3);
    }
    return static_cast<int>(n);
}

namespace {

int note_port(const char *name, int port_no, int position, void *out)
{
    *static_cast<std::string *>(out) += std::string(name) + ":" + std::to_string(port_no) + ":" +
                                        std::to_string(position);
    return 0;
}

TEST(Portability, LegacyBridgeRequests)
{
    std::string ports;
    EXPECT_EQ(old_foreach_port("brX", note_port, &ports), 1);
    EXPECT_EQ(ports, "lo:-1:4");
    ASSERT_EQ(g_bridge.blocks.size(), 1u);
    EXPECT_EQ(g_bridge.blocks[0], (std::vector<unsigned long>{7, 1024, 0}));

    // Requests seen, as {request, records wanted, offset}: EAGAIN is retried
    // up to ten attempts in all.
    const std::vector<unsigned long> first{18, 64, 0};
    const struct {
        size_t records;
        int eagain, rc;
        std::vector<std::vector<unsigned long>> blocks;
    } rows[] = {
        {70, 0, 70, {first, {18, 64, 64}, {18, 64, 70}}},
        {1, 9, 1, {first, first, first, first, first, first, first, first, first, first, {18, 64, 1}}},
        {1, 10, -1, std::vector<std::vector<unsigned long>>(10, first)},
    };
    for (const auto &r : rows) {
        g_bridge = FakeBridge{};
        g_bridge.records = r.records;
        g_bridge.eagain = r.eagain;
        t_fdb_entry *fdb = nullptr;
        EXPECT_EQ(get_bridge_table("brX", &fdb), r.rc);  // no sysfs copy of brX: the request is made
        EXPECT_EQ(g_bridge.blocks, r.blocks);
        for (int i = 0; i < r.rc; i++)
            EXPECT_TRUE(fdb[i].mac_addr[5] == i && fdb[i].port_no == 1 + i % 3 && !fdb[i].is_local) << i;
        free(fdb);
    }

    // A failed request logs the C library's own text inside the daemon's
    // (EOPNOTSUPP: "Operation not supported" in glibc, "Not supported" in musl).
    g_bridge = FakeBridge{};
    g_bridge.fail = EOPNOTSUPP;
    log_set_level(LOG_LEVEL_ERROR);
    tk::Capture out;
    t_device *head = nullptr;
    t_fdb_entry *fdb = nullptr;
    EXPECT_EQ(update_brlan_dev_from_sys("brX", &head), -EOPNOTSUPP);
    EXPECT_EQ(get_bridge_table("brX", &fdb), -1);
    free(fdb);
    const std::string log = out.text(), e = strerror(EOPNOTSUPP);
    for (const std::string &line : {"list ports for bridge:'brX' failed: " + e, " Can't get port info: " + e,
                                    "read of forward table failed: " + e})
        EXPECT_EQ(tk::count(tk::messages(log), "Error: " + line + "\n"), 1u) << log;
}

}  // namespace
