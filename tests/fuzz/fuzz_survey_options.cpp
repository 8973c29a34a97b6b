// The survey's reply parser.  Input: a BOOTP message (the xid and chaddr it
// carries are the ones asked with, so the walk gets past the header), then
// the same bytes as a whole received frame.
#include <string.h>

#include "fuzz/sandbox.h"
#include "survey/dhcp_reply.h"
#include "survey/probe_frames.h"

namespace {

void check(const DhcpReply &r)
{
    FUZZ_CHECK(r.n_routers <= SURVEY_MAX_ADDRS && r.n_dns <= SURVEY_MAX_ADDRS);
    FUZZ_CHECK(r.domain_len < SURVEY_DOMAIN_LEN && r.domain[r.domain_len] == '\0');
    for (size_t i = 0; i < r.domain_len; ++i)
        FUZZ_CHECK(r.domain[i] >= 0x20 && r.domain[i] < 0x7f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ByteView msg(data, size);
    DhcpReply r;
    memset(&r, 0, sizeof r);
    if (size >= 34) {
        uint32_t xid = static_cast<uint32_t>(data[4] << 24 | data[5] << 16 | data[6] << 8 | data[7]);
        if (parse_dhcp_reply(msg, xid, data + 28, &r)) {
            FUZZ_CHECK(size >= BOOTP_OFF_OPTIONS && data[0] == 2);
            check(r);
        }
    }
    uint32_t src = 0;
    ByteView payload = udp_to_client(msg, &src);
    FUZZ_CHECK(payload.size() == 0 || (payload.data() >= data && payload.data() + payload.size() <= data + size));
    memset(&r, 0, sizeof r);
    if (parse_dhcp_options(payload, &r))
        check(r);
    return 0;
}
