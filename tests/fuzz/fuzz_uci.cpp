// Our libuci: the file parser (uci_load of a path), the lookup with extended
// section syntax (uci_lookup_ptr), the daemon's reading call _uci_get_value
// and the switch walk of LAN discovery (get_eth_atrribute), all on one text;
// and a commit of whatever parsed, which must read back as the same package.
//
// Input: a key up to the first newline, then the file text.  The text becomes
// /etc/config/network and /etc/config/switch in the sandbox, and also files
// loaded by absolute path.
#include <string.h>
#include <sys/stat.h>

#include <string>

#include <uci.h>

#include "fuzz/fuzz_env.h"
#include "registry/device_table.h"
#include "core/lan_discovery.h"
#include "support/uci_access.h"

namespace {

constexpr size_t kMaxInput = 1 << 16;
constexpr size_t kMaxKey = 256;
constexpr char kScratchDir[] = "/tmp/fuzz-commit";  // the round trip's config dir
constexpr char kScratchFile[] = "/tmp/fuzz-commit/pkg";
const char *const kPortNames[] = {"eth0", "eth1", "eth2", "eth3"};

// Touches every name and value of a loaded package, the way the daemon's
// walks read them; ASan sees any string that is not properly terminated.
size_t walk_package(struct uci_package *p)
{
    size_t total = strlen(p->e.name);
    struct uci_element *se;
    uci_foreach_element(&p->sections, se) {
        struct uci_section *s = uci_to_section(se);
        FUZZ_CHECK(se->type == UCI_TYPE_SECTION);
        total += strlen(se->name) + strlen(s->type);
        struct uci_element *oe;
        uci_foreach_element(&s->options, oe) {
            struct uci_option *o = uci_to_option(oe);
            FUZZ_CHECK(oe->type == UCI_TYPE_OPTION);
            total += strlen(oe->name);
            if (o->type == UCI_TYPE_STRING) {
                total += strlen(o->v.string);
            } else {
                FUZZ_CHECK(o->type == UCI_TYPE_LIST);
                struct uci_element *ie;
                uci_foreach_element(&o->v.list, ie) total += strlen(ie->name);
            }
        }
    }
    return total;
}

// The whole package as text, each string ended by a NUL (no string holds one).
std::string package_tree(struct uci_package *p)
{
    std::string t;
    struct uci_element *se, *oe, *ie;
    uci_foreach_element(&p->sections, se) {
        struct uci_section *s = uci_to_section(se);
        t += std::string(s->anonymous ? "A" : "S") + s->type + '\0' + se->name + '\0';
        uci_foreach_element(&s->options, oe) {
            struct uci_option *o = uci_to_option(oe);
            t += std::string(o->type == UCI_TYPE_STRING ? "O" : "L") + oe->name + '\0';
            if (o->type == UCI_TYPE_STRING)
                t += std::string(o->v.string) + '\0';
            else
                uci_foreach_element(&o->v.list, ie) t += std::string("I") + ie->name + '\0';
        }
    }
    return t;
}

// Parse, commit, parse: a package loaded by path is written from memory at
// every commit, and what is written must read back as the same package.
void commit_round_trip(const uint8_t *text, size_t len)
{
    FUZZ_CHECK(fuzzenv::write_file(kScratchFile, text, len));
    struct uci_context *ctx = uci_alloc_context();
    FUZZ_CHECK(ctx != nullptr);
    uci_set_confdir(ctx, kScratchDir);
    struct uci_package *p = nullptr;
    if (uci_load(ctx, kScratchFile, &p) == UCI_OK) {
        FUZZ_CHECK(uci_commit(ctx, &p, false) == UCI_OK);
        struct uci_context *again = uci_alloc_context();
        FUZZ_CHECK(again != nullptr);
        struct uci_package *q = nullptr;
        FUZZ_CHECK(uci_load(again, kScratchFile, &q) == UCI_OK);
        FUZZ_CHECK(package_tree(q) == package_tree(p));
        uci_free_context(again);
    }
    uci_free_context(ctx);
}

void load_and_lookup(const char *key)
{
    struct uci_context *ctx = uci_alloc_context();
    FUZZ_CHECK(ctx != nullptr);
    uci_set_confdir(ctx, "/etc/config");
    struct uci_package *pkg = nullptr;
    if (uci_load(ctx, "/tmp/fuzzpkg", &pkg) == UCI_OK) {
        FUZZ_CHECK(pkg != nullptr);
        walk_package(pkg);
    } else {
        FUZZ_CHECK(pkg == nullptr);
    }

    // The lookup splits the key in place; it gets its own writable copy.
    char buf[kMaxKey + 1];
    strcpy(buf, key);
    struct uci_ptr ptr;
    if (uci_lookup_ptr(ctx, &ptr, buf, true) == UCI_OK) {
        if (ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) {
            FUZZ_CHECK(ptr.last != nullptr);
            if (ptr.o) {
                FUZZ_CHECK(ptr.last == &ptr.o->e);
                if (ptr.o->type == UCI_TYPE_STRING)
                    (void)strlen(ptr.o->v.string);
            }
        }
        if (ptr.p)
            walk_package(ptr.p);
    }
    uci_free_context(ctx);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzenv::enter_sandbox(fuzzenv::SANDBOX_ETC_CONFIG);
    fuzzenv::quiet_log_output();
    if (mkdir(kScratchDir, 0755) != 0) {
        perror(kScratchDir);
        exit(2);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > kMaxInput)
        return 0;
    const uint8_t *nl = static_cast<const uint8_t *>(memchr(data, '\n', size));
    size_t key_len = nl ? static_cast<size_t>(nl - data) : size;
    if (key_len > kMaxKey || memchr(data, '\0', key_len))
        return 0;
    char key[kMaxKey + 1];
    memcpy(key, data, key_len);
    key[key_len] = '\0';
    const uint8_t *text = nl ? nl + 1 : data + size;
    size_t text_len = static_cast<size_t>(data + size - text);

    FUZZ_CHECK(fuzzenv::write_file("/etc/config/network", text, text_len));
    FUZZ_CHECK(fuzzenv::write_file("/etc/config/switch", text, text_len));
    FUZZ_CHECK(fuzzenv::write_file("/tmp/fuzzpkg", text, text_len));
    const int fds_before = fuzzenv::open_fd_count();

    // The reading call: a value, when found, is cut to 64 characters and the
    // buffer past it is left alone.
    char value[UCI_ACCESS_BUF_SIZE + 8];
    memset(value, 0x5a, sizeof(value));
    if (_uci_get_value(key, value) == 0) {
        FUZZ_CHECK(memchr(value, '\0', UCI_ACCESS_BUF_SIZE) != nullptr);
        for (size_t i = UCI_ACCESS_BUF_SIZE; i < sizeof(value); i++)
            FUZZ_CHECK(value[i] == 0x5a);
    } else {
        for (size_t i = 0; i < sizeof(value); i++)
            FUZZ_CHECK(value[i] == 0x5a);
    }

    load_and_lookup(key);
    commit_round_trip(text, text_len);

    // The switch walk over the same text, with four Ethernet ports known.
    t_device *head = nullptr;
    for (const char *name : kPortNames) {
        t_device *dev = create_new_device(name);
        FUZZ_CHECK(dev != nullptr && add_device(&head, dev) == 0);
    }
    int applied = get_eth_atrribute(head);
    FUZZ_CHECK(applied == -95 || applied >= 0);
    for (t_device *d = head; d; d = static_cast<t_device *>(d->hh.next))
        FUZZ_CHECK(memchr(d->label, '\0', sizeof(d->label)) != nullptr);
    release_all_device(&head);

    FUZZ_CHECK(fuzzenv::open_fd_count() == fds_before);
    return 0;
}
