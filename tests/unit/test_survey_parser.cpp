// The survey's reply parser over replies captured from the lab's real servers
// and over messages built here, one row each; what a row expects is written
// as one line (fields the server did not send are "-").
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string.h>

#include "support/testkit.h"
#include "survey/dhcp_reply.h"
#include "survey/probe_frames.h"
#include "survey/report.h"

namespace {

// The built rows' header: BOOTREPLY, xid 1a2b3c4d, yiaddr 192.168.7.100,
// giaddr 10.0.0.1, chaddr 02:00:00:00:00:01.
const char kHdr[] = "02010600 1a2b3c4d 00000000 00000000 c0a80764 00000000 0a000001"
                    "020000000001 00000000000000000000";

struct Row {
    const char *from;
    const char *hdr;  // 44 bytes
    uint32_t xid;     // what we asked with
    const char *options, *file, *sname;
    const char *want;  // "-": not a reply to us
};

std::string ip(uint32_t a)
{
    char t[16];
    in_addr in{a};
    return a ? inet_ntop(AF_INET, &in, t, sizeof t) : "-";
}

std::string ips(const uint32_t *l, int n)
{
    std::string s;
    for (int i = 0; i < n; ++i)
        s += (i ? "," : "") + ip(l[i]);
    return n ? s : "-";
}

std::string describe(const DhcpReply &r)
{
    return std::string(dhcp_type_name(r.type)) + " yi=" + ip(r.yiaddr) +
           " sid=" + (r.has_server_id ? ip(r.server_id) : "-") + " mask=" + (r.has_mask ? ip(r.mask) : "-") +
           " rt=" + ips(r.routers, r.n_routers) + " dns=" + ips(r.dns, r.n_dns) +
           " lease=" + (r.has_lease ? std::to_string(ntohl(r.lease)) : "-") +
           " dom=" + (r.domain_len ? r.domain : "-") + " gi=" + ip(r.giaddr) + (r.malformed ? " MALFORMED" : "");
}

const Row kRows[] = {
    {"lab dnsmasq (captured)", "02010600938842960000000000000000c0a80175c0a8010a0000000096294284883800000000000000000000",
     0x93884296, "3501023604c0a8010a33040000a8c03a04000054603b04000093a80104ffffff001c04c0a801ff06040a35000a0304c0a8010aff",
     "", "", "OFFER yi=192.168.1.117 sid=192.168.1.10 mask=255.255.255.0 rt=192.168.1.10 dns=10.53.0.10 lease=43200 dom=- gi=-"},
    {"lab udhcpd (captured)", "02010600461cced70000000000000000c0a8017d0000000000000000d6edcecc1c6100000000000000000000",
     0x461cced7, "3501023604c0a8010b3304000002580104ffffff000304c0a8010b06040a35000bff", "", "",
     "OFFER yi=192.168.1.125 sid=192.168.1.11 mask=255.255.255.0 rt=192.168.1.11 dns=10.53.0.11 lease=600 dom=- gi=-"},
    {"lab ISC dhcpd (captured)", "02010600c2898b700000000000000000c0a8018d000000000000000072b78b98892800000000000000000000",
     0xc2898b70, "3501023604c0a8010c3304000002580104ffffff000304c0a8010c06040a35000cff", "", "",
     "OFFER yi=192.168.1.141 sid=192.168.1.12 mask=255.255.255.0 rt=192.168.1.12 dns=10.53.0.12 lease=600 dom=- gi=-"},
    {"lab Kea (captured)", "0201060022147eb80000000000000000c0a801a10000000000000000baeb7e47142100000000000000000000",
     0x22147eb8, "3501020104ffffff000304c0a8010d06040a35000d3304000002583604c0a8010dff", "", "",
     "OFFER yi=192.168.1.161 sid=192.168.1.13 mask=255.255.255.0 rt=192.168.1.13 dns=10.53.0.13 lease=600 dom=- gi=-"},
    // Built: overload 3 sends the walk through file, then sname.
    {"built: overload file+sname", kHdr, 0x1a2b3c4d, "350102 340103 ff", "3604c0a80701 0104ffffff00 ff",
     "0308c0a807fec0a807fd ff",
     "OFFER yi=192.168.7.100 sid=192.168.7.1 mask=255.255.255.0 rt=192.168.7.254,192.168.7.253 dns=- lease=- dom=- gi=10.0.0.1"},
    {"built: overload 1 leaves sname alone", kHdr, 0x1a2b3c4d, "350102 340101 ff", "0104ffffff00 ff", "3604c0a80701 ff",
     "OFFER yi=192.168.7.100 sid=- mask=255.255.255.0 rt=- dns=- lease=- dom=- gi=10.0.0.1"},
    {"built: overload inside file is refused", kHdr, 0x1a2b3c4d, "350102 340101 ff", "340102 ff", "3604c0a80701 ff",
     "OFFER yi=192.168.7.100 sid=- mask=- rt=- dns=- lease=- dom=- gi=10.0.0.1 MALFORMED"},
    {"built: overload value 4", kHdr, 0x1a2b3c4d, "350102 340104 ff", "", "",
     "OFFER yi=192.168.7.100 sid=- mask=- rt=- dns=- lease=- dom=- gi=10.0.0.1 MALFORMED"},
    {"built: pads anywhere, nothing after end", kHdr, 0x1a2b3c4d, "00 350102 0000 33040000 0e10 00 ff 0104ffffff00", "",
     "", "OFFER yi=192.168.7.100 sid=- mask=- rt=- dns=- lease=3600 dom=- gi=10.0.0.1"},
    {"built: no end option", kHdr, 0x1a2b3c4d, "350102 0f03 6c616e", "", "",
     "OFFER yi=192.168.7.100 sid=- mask=- rt=- dns=- lease=- dom=lan gi=10.0.0.1"},
    {"built: split DNS and domain are joined", kHdr, 0x1a2b3c4d,
     "350102 0604 08080808 0f02 6578 0604 01010101 0f0a 616d706c652e6f726700 ff", "", "",
     "OFFER yi=192.168.7.100 sid=- mask=- rt=- dns=8.8.8.8,1.1.1.1 lease=- dom=example.org gi=10.0.0.1"},
    {"built: value runs past the message", kHdr, 0x1a2b3c4d, "350102 0104ffffff00 0608 0a000001", "", "",
     "OFFER yi=192.168.7.100 sid=- mask=255.255.255.0 rt=- dns=- lease=- dom=- gi=10.0.0.1 MALFORMED"},
    {"built: length byte missing", kHdr, 0x1a2b3c4d, "350105 06", "", "",
     "ACK yi=192.168.7.100 sid=- mask=- rt=- dns=- lease=- dom=- gi=10.0.0.1 MALFORMED"},
    {"built: 3-byte mask, 6-byte router list", kHdr, 0x1a2b3c4d, "350102 0103ffffff 0306c0a80701c0a8 3604c0a80701 ff",
     "", "", "OFFER yi=192.168.7.100 sid=192.168.7.1 mask=- rt=- dns=- lease=- dom=- gi=10.0.0.1 MALFORMED"},
    {"built: NAK with a message", kHdr, 0x1a2b3c4d, "350106 3604c0a80701 3804 6e6f7065 ff", "", "",
     "NAK yi=192.168.7.100 sid=192.168.7.1 mask=- rt=- dns=- lease=- dom=- gi=10.0.0.1"},
    {"built: BOOTP reply without a type", kHdr, 0x1a2b3c4d, "0104ffffff00 ff", "", "",
     "BOOTP yi=192.168.7.100 sid=- mask=255.255.255.0 rt=- dns=- lease=- dom=- gi=10.0.0.1"},
    {"built: another client's REQUEST", kHdr, 0x1a2b3c4d, "350103 ff", "", "", "-"},
    {"built: someone else's xid", kHdr, 0x1a2b3c4e, "350102 ff", "", "", "-"},
    {"built: a BOOTREQUEST", "01010600 1a2b3c4d 0000000000000000c0a807640000000000000000020000000001 00000000000000000000",
     0x1a2b3c4d, "350102 ff", "", "", "-"},
};

TEST(SurveyParser, RepliesOfManyServers)
{
    for (const Row &row : kRows) {
        std::vector<uint8_t> m = tk::hex(row.hdr);
        ASSERT_EQ(m.size(), 44u) << row.from;
        m.resize(240, 0);
        std::vector<uint8_t> sname = tk::hex(row.sname), file = tk::hex(row.file);
        std::copy(sname.begin(), sname.end(), m.begin() + 44);
        std::copy(file.begin(), file.end(), m.begin() + 108);
        const uint8_t cookie[] = {0x63, 0x82, 0x53, 0x63};
        std::copy(cookie, cookie + 4, m.begin() + 236);
        std::vector<uint8_t> opts = tk::hex(row.options);
        m.insert(m.end(), opts.begin(), opts.end());
        DhcpReply r;
        memset(&r, 0, sizeof r);
        bool ok = parse_dhcp_reply(ByteView(m.data(), m.size()), row.xid, &m[28], &r);
        EXPECT_EQ(ok ? describe(r) : "-", row.want) << row.from;
    }
}

TEST(SurveyParser, NoCookieNoOptions)
{
    std::vector<uint8_t> m = tk::hex(kHdr);
    m.resize(243, 0);  // zero where the cookie belongs, then 35 01 02 would follow
    DhcpReply r{};
    EXPECT_FALSE(parse_dhcp_reply(ByteView(m.data(), m.size()), 0x1a2b3c4d, &m[28], &r));
    EXPECT_FALSE(parse_dhcp_reply(ByteView(m.data(), 100), 0x1a2b3c4d, &m[28], &r));
}

// Golden frames: the client address follows the rule byte 0 = (xid & 0xfc) | 2,
// byte i = xid >> 4i; 0x12345678 gives 7a:67:56:45:34:23.
TEST(SurveyFrames, DiscoverAndArpProbeBytes)
{
    uint8_t mac[6], f[SURVEY_FRAME_BUF_LEN];
    survey_client_mac(0x12345678, mac);
    EXPECT_EQ(std::vector<uint8_t>(mac, mac + 6), tk::hex("7a 67 56 45 34 23"));
    ASSERT_EQ(build_survey_discover(f, sizeof f, 0x12345678, mac), 342u);
    std::vector<uint8_t> want = tk::hex(
        "ffffffffffff 7a6756453423 0800 4500 0148 0000 0000 4011 79a6 00000000 ffffffff"
        "0044 0043 0134 0000 01010600 12345678 0000 0000 00000000 00000000 00000000 00000000"
        "7a6756453423");
    want.resize(42 + 236, 0);
    for (uint8_t b : tk::hex("63825363 350101 3705 0103060f33 ff"))
        want.push_back(b);
    want.resize(342, 0);
    EXPECT_EQ(std::vector<uint8_t>(f, f + 342), want);
    ASSERT_EQ(build_survey_arp_probe(f, sizeof f, mac, inet_addr("192.168.1.1")), 42u);
    EXPECT_EQ(std::vector<uint8_t>(f, f + 42),
              tk::hex("ffffffffffff 7a6756453423 0806 0001 0800 06 04 0001 7a6756453423 00000000"
                      "000000000000 c0a80101"));
    EXPECT_EQ(build_survey_discover(f, 341, 1, mac), 0u);
}

// Where an offered address lies, for a router on 192.168.1.1/24.
TEST(SurveyVerdict, OfferedNetworks)
{
    RouterInfo router{};
    router.ip = inet_addr("192.168.1.1");
    router.netmask = inet_addr("255.255.255.0");
    const std::pair<const char *, const char *> rows[] = {
        {"192.168.1.77", "lan"},  {"192.168.2.77", "private"}, {"10.1.2.3", "private"},
        {"172.16.0.9", "private"}, {"172.32.0.9", "wan"},       {"100.64.3.4", "wan"},
        {"203.0.113.9", "wan"},   {"0.0.0.0", "none"},
    };
    for (const auto &r : rows)
        EXPECT_STREQ(hint_name(classify_addr(inet_addr(r.first), router)), r.second) << r.first;
    Allowlist allow{};
    EXPECT_TRUE(allow_add(&allow, "02:1a:00:00:01:05"));
    EXPECT_TRUE(allow_add(&allow, "192.168.1.12"));
    EXPECT_FALSE(allow_add(&allow, "02:1a:00:00:01"));
    const uint8_t own[6] = {2, 0x1a, 0, 0, 0, 1}, listed[6] = {2, 0x1a, 0, 0, 1, 5}, other[6] = {2, 0x1a, 0, 0, 1, 6};
    EXPECT_EQ(judge_server(own, 0, 0, own, 1, allow), VERDICT_OWN);
    EXPECT_EQ(judge_server(listed, 0, 0, own, 1, allow), VERDICT_EXPECTED);
    EXPECT_EQ(judge_server(other, inet_addr("192.168.1.12"), 0, own, 1, allow), VERDICT_EXPECTED);
    EXPECT_EQ(judge_server(other, inet_addr("192.168.1.13"), 0, own, 1, allow), VERDICT_ROGUE);
}

// The exit status rule: CRITICAL for a rogue offer into the router's own
// network or a foreign host claiming its address, WARNING for any other
// rogue offer, OK for own and allowlisted servers.
TEST(SurveyVerdict, ExitStatus)
{
    const uint8_t own[6] = {2, 0x1a, 0, 0, 0, 1}, other[6] = {2, 0x1a, 0, 0, 1, 6};
    struct {
        const char *offered;
        const uint8_t *server, *claim;
        bool allowed;
        SurveyStatus want;
    } rows[] = {
        {"192.168.1.50", other, nullptr, false, STATUS_CRITICAL}, {"192.168.1.50", other, nullptr, true, STATUS_OK},
        {"192.168.9.50", other, nullptr, false, STATUS_WARNING},  {"100.64.0.9", other, nullptr, false, STATUS_WARNING},
        {"192.168.1.50", own, nullptr, false, STATUS_OK},         {"10.0.0.5", other, other, true, STATUS_CRITICAL},
        {nullptr, nullptr, own, false, STATUS_OK},                {nullptr, nullptr, nullptr, false, STATUS_OK},
    };
    for (const auto &row : rows) {
        static PortProbe p;
        memset(&p, 0, sizeof p);
        Survey s{};
        s.probes = &p;
        s.n = 1;
        s.router.ip = inet_addr("192.168.1.1");
        s.router.netmask = inet_addr("255.255.255.0");
        if (row.offered) {
            p.n_replies = 1;
            p.replies[0].yiaddr = inet_addr(row.offered);
            memcpy(p.replies[0].server_mac, row.server, 6);
        }
        if (row.claim)
            memcpy(p.claims[p.n_claims++], row.claim, 6);
        Allowlist allow{};
        if (row.allowed)
            allow_add(&allow, "02:1a:00:00:01:06");
        SurveyView v = {&s, "br-lan", own, 1, &allow};
        EXPECT_EQ(survey_status(v), row.want) << (row.offered ? row.offered : "no offer");
    }
}

}  // namespace
