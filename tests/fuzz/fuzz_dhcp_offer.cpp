// The OFFER read handler, fed through a real descriptor: a datagram socketpair
// stands in for the probe context's raw socket, so recvfrom returns exactly
// the frame bytes (and cuts longer frames to the handler's buffer).
//
// Input: 4 bytes the context's transaction ID (raw, as the DISCOVER carried
// it), 6 bytes br-lan's MAC, then frames, each a 2-byte big-endian length and
// that many bytes.  One readiness event per frame until the context accepts
// one; a length of 0 sends an empty datagram (the read returns nothing).
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "dhcp/dhcp_offer.h"
#include "dhcp/dhcp_packet.h"
#include "fuzz/fuzz_env.h"

namespace {

constexpr size_t kMaxFrame = 2048;  // longer than the handler's buffer on purpose

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzenv::enter_sandbox(0);
    fuzzenv::quiet_log_output();
    uloop_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzzenv::Reader in(data, size);
    if (in.left() < 10)
        return 0;
    const int fds_before = fuzzenv::open_fd_count();

    t_device dev;
    memset(&dev, 0, sizeof(dev));
    strcpy(dev.name, "eth0");
    lanprobe_ctx ctx;
    memset(&ctx, 0, sizeof(ctx));
    ctx.dev = &dev;
    size_t got;
    memcpy(&ctx.random_xid, in.take(4, &got), 4);
    memcpy(lanprobe_handle.br_mac, in.take(MAC_LEN, &got), MAC_LEN);

    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) == 0);
    ctx.ufd.fd = sv[0];
    ctx.ufd.cb = recv_dhcp_discovery_packet;

    uint8_t first_mac[MAC_LEN];
    bool taken_seen = false;
    while (in.left() >= 2 && !ctx.offered) {
        size_t len = in.be16() % (kMaxFrame + 1);
        const uint8_t *frame = in.take(len, &got);
        FUZZ_CHECK(send(sv[1], frame, got, 0) == static_cast<ssize_t>(got));
        const bool could_be_ours = got >= 6 + MAC_LEN;
        if (could_be_ours)
            memcpy(first_mac, frame + 6, MAC_LEN);
        recv_dhcp_discovery_packet(&ctx.ufd, ULOOP_READ);
        if (ctx.offered) {
            // Taken: the socket is closed and forgotten, and the server MAC is
            // the frame's source, never br-lan's own.
            FUZZ_CHECK(ctx.ufd.fd == -1);
            FUZZ_CHECK(could_be_ours);
            FUZZ_CHECK(memcmp(ctx.offer.mac, first_mac, MAC_LEN) == 0);
            FUZZ_CHECK(memcmp(ctx.offer.mac, lanprobe_handle.br_mac, MAC_LEN) != 0);
            taken_seen = true;
        } else {
            FUZZ_CHECK(ctx.ufd.fd == sv[0]);
        }
    }
    if (!taken_seen) {
        // An event without ULOOP_READ changes nothing.
        const t_dhcp_offer before = ctx.offer;
        recv_dhcp_discovery_packet(&ctx.ufd, 0);
        FUZZ_CHECK(ctx.offered == 0 && ctx.ufd.fd == sv[0]);
        FUZZ_CHECK(memcmp(&before, &ctx.offer, sizeof(before)) == 0);
        close(sv[0]);
    }
    close(sv[1]);
    FUZZ_CHECK(fuzzenv::open_fd_count() == fds_before);
    memset(&lanprobe_handle, 0, sizeof(lanprobe_handle));
    return 0;
}
