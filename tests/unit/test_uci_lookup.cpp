// uci_lookup_ptr on the same network file the OpenWrt library was checked
// with: return code, flags, target, which of p/s/o are set, last->type.
#include <string.h>

#include <string>

#include <uci.h>

#include "unit/test_uci_helpers.h"

namespace {

const std::string fixture_dir = std::string(LANPROBE_SOURCE_DIR) + "/tests/fixtures/uci";

struct LookupCase {
    const char *key;
    bool extended;
    int rc;
    int flags;
    int target;
    const char *pso;       // "psoL": which of p, s, o, last are set ('-' when NULL)
    int last_type;         // when last is set
    const char *section;   // ptr->section afterwards, or NULL to skip
    const char *buffer;    // the key buffer afterwards, or NULL to skip
};

const LookupCase lookup_cases[] = {
    {"network.lan.ifname", true, 0, 0x3, 4, "psoL", 4, "lan", "network"},
    {"network.lan", true, 0, 0x3, 3, "ps-L", 3, nullptr, nullptr},
    {"network", true, 0, 0x3, 2, "p--L", 2, nullptr, nullptr},
    {"nosuch.lan.ifname", true, 3, 0x1, 4, "----", 0, nullptr, "nosuch"},
    {"network.nosuch.ifname", true, 0, 0x1, 4, "p--L", 2, nullptr, nullptr},
    {"network.lan.nosuch", true, 0, 0x1, 4, "ps-L", 3, nullptr, nullptr},
    {"network.wan.dns", true, 0, 0x3, 4, "psoL", 4, nullptr, nullptr},
    {"network.@interface[0].ifname", true, 0, 0x7, 4, "psoL", 4, "loopback", nullptr},
    {"network.@interface[-1].ifname", true, 0, 0x7, 4, "psoL", 4, "cfg046d96", nullptr},
    {"network.@[1]", true, 0, 0x7, 3, "ps-L", 3, "lan", nullptr},
    {"network.@interface[].ifname", true, 0, 0x7, 4, "psoL", 4, "loopback", nullptr},
    {"network.@interface[9].ifname", true, 0, 0x5, 4, "p--L", 2, "@interface[9]", nullptr},
    {"network.@interface[-9]", true, 0, 0x5, 3, "p--L", 2, nullptr, nullptr},
    {"network.@interface[0].ifname", false, 2, 0x5, 4, "p--L", 2, nullptr, nullptr},
    {"network.@interface[x]", true, 2, 0, 0, "----", 0, nullptr, nullptr},
    {"network.@interface[0]x", true, 2, 0, 0, "----", 0, nullptr, nullptr},
    {"network.@interface[1", true, 2, 0, 0, "----", 0, nullptr, nullptr},
    {"network.@interface[-]", true, 2, 0, 0, "----", 0, nullptr, nullptr},
    {"network.lan-x.ifname", true, 2, 0, 0, "----", 0, nullptr, nullptr},
    {"network..ifname", true, 2, 0, 0, "----", 0, nullptr, nullptr},
    {"network.lan.if-name", true, 5, 0, 0, "----", 0, nullptr, nullptr},
    {"network.lan.", true, 5, 0, 0, "----", 0, nullptr, nullptr},
    {".lan.ifname", true, 5, 0, 0, "----", 0, nullptr, nullptr},
    {"a.b.c.d", true, 5, 0, 0, "----", 0, nullptr, nullptr},
    {"", true, 5, 0, 0, "----", 0, nullptr, nullptr},
    {"network.lan.ifname=foo", true, 0, 0x3, 4, "psoL", 4, nullptr, "network"},
    {"network.lan.ifname=a\x01", true, 5, 0, 0, "----", 0, nullptr, nullptr},
};

TEST(UciLookup, OutcomesOnTheNetworkFile)
{
    for (const LookupCase &c : lookup_cases) {
        struct uci_context *ctx = uci_alloc_context();
        uci_set_confdir(ctx, fixture_dir.c_str());
        char buf[128];
        strcpy(buf, c.key);
        struct uci_ptr ptr;
        memset(&ptr, 0xa5, sizeof(ptr)); // whatever was there is discarded
        int rc = uci_lookup_ptr(ctx, &ptr, buf, c.extended);
        std::string pso = std::string(ptr.p ? "p" : "-") + (ptr.s ? "s" : "-") + (ptr.o ? "o" : "-") +
                          (ptr.last ? "L" : "-");
        EXPECT_EQ(rc, c.rc) << c.key;
        EXPECT_EQ(ctx->err, c.rc) << c.key;
        EXPECT_EQ(static_cast<int>(ptr.flags), c.flags) << c.key;
        EXPECT_EQ(static_cast<int>(ptr.target), c.target) << c.key;
        EXPECT_EQ(pso, c.pso) << c.key;
        if (ptr.last) {
            EXPECT_EQ(static_cast<int>(ptr.last->type), c.last_type) << c.key;
        }
        if (c.section) {
            EXPECT_STREQ(ptr.section, c.section) << c.key;
        }
        if (c.buffer) {
            EXPECT_STREQ(buf, c.buffer) << c.key;
        }
        uci_free_context(ctx);
    }
}

TEST(UciLookup, FoundValuesAndOptionTypes)
{
    struct uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, fixture_dir.c_str());
    char k1[] = "network.lan.ifname=foo=bar.baz";
    struct uci_ptr ptr;
    ASSERT_EQ(uci_lookup_ptr(ctx, &ptr, k1, true), UCI_OK);
    EXPECT_EQ(ptr.o->type, UCI_TYPE_STRING);
    EXPECT_STREQ(ptr.o->v.string, "eth0 eth1 eth2");
    EXPECT_STREQ(ptr.value, "foo=bar.baz");
    EXPECT_TRUE(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE);

    // The package auto-loaded above stays in the context: a second lookup
    // reuses it, and uci_load of it is a duplicate.
    char k2[] = "network.wan.dns";
    ASSERT_EQ(uci_lookup_ptr(ctx, &ptr, k2, true), UCI_OK);
    ASSERT_EQ(ptr.o->type, UCI_TYPE_LIST);
    std::string items;
    struct uci_element *e;
    uci_foreach_element(&ptr.o->v.list, e)
    {
        EXPECT_EQ(e->type, UCI_TYPE_ITEM);
        items += std::string(e->name) + ";";
    }
    EXPECT_EQ(items, "1.1.1.1;8.8.8.8;");
    struct uci_package *dup = nullptr;
    EXPECT_EQ(uci_load(ctx, "network", &dup), UCI_ERR_DUPLICATE);

    // Walk: sections in file order, options in order of definition.
    std::string walk;
    uci_foreach_element(&ptr.p->sections, e)
    {
        struct uci_section *s = uci_to_section(e);
        walk += std::string(e->name) + (s->anonymous ? "*" : "") + ":";
        struct uci_element *oe;
        uci_foreach_element(&s->options, oe) walk += std::string(oe->name) + ",";
    }
    EXPECT_EQ(walk, "loopback:ifname,lan:ifname,proto,wan:ifname,dns,cfg046d96*:ifname,");

    // The inline helpers: exact names only; a miss records "not found".
    struct uci_section *lan = uci_lookup_section(ctx, ptr.p, "lan");
    ASSERT_NE(lan, nullptr);
    EXPECT_STREQ(uci_lookup_option_string(ctx, lan, "proto"), "static");
    EXPECT_EQ(uci_lookup_option_string(ctx, uci_lookup_section(ctx, ptr.p, "wan"), "dns"), nullptr);
    EXPECT_EQ(uci_lookup_option(ctx, lan, "nosuch"), nullptr);
    EXPECT_EQ(ctx->err, UCI_ERR_NOTFOUND);
    EXPECT_EQ(uci_lookup_section(ctx, ptr.p, "@interface[0]"), nullptr);
    uci_free_context(ctx);
}

TEST(UciLookup, ContextDefaultsAndArguments)
{
    struct uci_context *ctx = uci_alloc_context();
    ASSERT_NE(ctx, nullptr);
    EXPECT_STREQ(ctx->confdir, "/etc/config");
    EXPECT_STREQ(ctx->savedir, "/tmp/.uci");
    EXPECT_EQ(static_cast<int>(ctx->flags), 9);
    EXPECT_TRUE(uci_list_empty(&ctx->root));
    EXPECT_EQ(uci_set_confdir(ctx, nullptr), UCI_ERR_INVAL);
    EXPECT_EQ(uci_set_savedir(ctx, "/tmp/elsewhere"), UCI_OK);
    EXPECT_STREQ(ctx->savedir, "/tmp/elsewhere");
    EXPECT_EQ(uci_set_confdir(nullptr, "/x"), UCI_ERR_INVAL);
    EXPECT_EQ(uci_lookup_ptr(nullptr, nullptr, nullptr, true), UCI_ERR_INVAL);
    EXPECT_EQ(uci_load(nullptr, "x", nullptr), UCI_ERR_INVAL);
    // A parse error in a key is "Parse error" without a file position.
    char key[] = "a.b.c.d";
    struct uci_ptr ptr;
    EXPECT_EQ(uci_lookup_ptr(ctx, &ptr, key, true), UCI_ERR_PARSE);
    EXPECT_EQ(uci_test::capture_stderr([&] { uci_perror(ctx, "k"); }), "k: Parse error\n");
    uci_free_context(ctx);
}

} // namespace
