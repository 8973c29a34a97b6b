// The OFFER read handler on a datagram socketpair (recvfrom returns exactly
// the frame, cut to the handler's buffer).  Input: the context's xid (4
// bytes as sent), br-lan's MAC (6), then frames: a 2-byte big-endian length
// and the bytes; one readiness event each until the context takes one.
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "dhcp/dhcp_offer.h"
#include "fuzz/sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Reader in(data, size);
    if (in.left() < 10)
        return 0;
    const int fds = fuzz::open_fds();
    t_device dev{};
    strcpy(dev.name, "eth0");
    lanprobe_ctx ctx{};
    ctx.dev = &dev;
    size_t got;
    memcpy(&ctx.random_xid, in.take(4, &got), 4);
    memcpy(lanprobe_handle.br_mac, in.take(MAC_LEN, &got), MAC_LEN);
    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) == 0);
    ctx.ufd.fd = sv[0];
    while (in.left() >= 2 && !ctx.offered) {
        const uint8_t *frame = in.take(in.be16() % 2049, &got);
        FUZZ_CHECK(send(sv[1], frame, got, 0) == static_cast<ssize_t>(got));
        recv_dhcp_discovery_packet(&ctx.ufd, ULOOP_READ);
        if (!ctx.offered) {
            FUZZ_CHECK(ctx.ufd.fd == sv[0]);
            continue;
        }
        // Taken only from a frame with the whole fixed part, whose source is
        // the server MAC kept, never br-lan's own; the socket is closed.
        FUZZ_CHECK(ctx.ufd.fd == -1 && got >= 282 && frame[42] == 2 && frame[23] == 17);
        FUZZ_CHECK(memcmp(ctx.offer.mac, frame + 6, MAC_LEN) == 0);
        FUZZ_CHECK(memcmp(ctx.offer.mac, lanprobe_handle.br_mac, MAC_LEN) != 0);
        FUZZ_CHECK(memcmp(&ctx.offer.pre_assigned_ip, frame + 58, 4) == 0);
    }
    if (!ctx.offered)
        close(sv[0]);
    close(sv[1]);
    FUZZ_CHECK(fuzz::open_fds() == fds);
    return 0;
}
