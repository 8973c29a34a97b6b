// A configuration file as everything that reads one sees it: libuci's parser
// and a walk of every string it made, the extended lookup, _uci_get_value,
// the switch walk of LAN discovery, and a commit of whatever parsed, which
// must read back as the same package.  Input: a key up to the first newline,
// then the file text (as /etc/config/network and /etc/config/switch, and as
// a file loaded by path).
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "registry/lan_discovery.h"
#include "fuzz/sandbox.h"
#include "support/uci_access.h"

namespace {

// The whole package, each string ended by a NUL (no string holds one); the
// walk makes ASan see any string that is not properly terminated.
std::string tree(struct uci_package *p)
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *nl = static_cast<const char *>(memchr(data, '\n', size));
    if (!nl || nl - reinterpret_cast<const char *>(data) > 200 || size > 65536)
        return 0;
    std::string key(reinterpret_cast<const char *>(data), nl), text(nl + 1, reinterpret_cast<const char *>(data) + size);
    mkdir("/tmp/rt", 0755);
    for (const char *path : {"/etc/config/network", "/etc/config/switch", "/tmp/rt/pkg"}) {
        FILE *f = fopen(path, "w");
        FUZZ_CHECK(f && fwrite(text.data(), 1, text.size(), f) == text.size() && fclose(f) == 0);
    }
    const int fds = fuzz::open_fds();

    // A value, when found, is cut to 64 characters; the buffer past it is left alone.
    char value[65 + 8];
    memset(value, 0x5a, sizeof(value));
    int rc = _uci_get_value(key.c_str(), value);
    FUZZ_CHECK(rc == 0 ? memchr(value, '\0', 65) != nullptr : value[0] == 0x5a);
    FUZZ_CHECK(memchr(value + 65, 0x5a, 8) == value + 65);

    struct uci_context *ctx = uci_alloc_context();
    struct uci_ptr ptr;
    std::string buf = key;
    if (uci_lookup_ptr(ctx, &ptr, &buf[0], true) == UCI_OK && (ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        FUZZ_CHECK(ptr.last && (!ptr.o || ptr.last == &ptr.o->e));
    // Parse, commit, parse: a package loaded by path is written from memory.
    struct uci_package *p = nullptr, *q = nullptr;
    if (uci_load(ctx, "/tmp/rt/pkg", &p) == UCI_OK) {
        std::string before = tree(p);
        FUZZ_CHECK(uci_commit(ctx, &p, false) == UCI_OK);
        struct uci_context *again = uci_alloc_context();
        FUZZ_CHECK(uci_load(again, "/tmp/rt/pkg", &q) == UCI_OK && tree(q) == before);
        uci_free_context(again);
    }
    uci_free_context(ctx);

    // The switch walk over the same text, with four Ethernet ports known.
    t_device *head = nullptr;
    for (const char *name : {"eth0", "eth1", "eth2", "eth3"})
        FUZZ_CHECK(add_br_device(name, 1, 1, &head) == 0);
    rc = get_eth_atrribute(head);
    FUZZ_CHECK(rc == -95 || (rc >= 0 && rc <= 4 * 1000));
    for (t_device *d = head; d; d = static_cast<t_device *>(d->hh.next))
        FUZZ_CHECK(memchr(d->label, '\0', sizeof(d->label)) != nullptr);
    release_all_device(&head);
    FUZZ_CHECK(fuzz::open_fds() == fds);
    return 0;
}
