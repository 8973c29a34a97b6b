// Our libuci: contexts and their directories, reading files, loading
// packages (override directory, delta files), lookups and error reports.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "uci_internal.h"

using namespace uci_internal;

extern "C" {
char const uci_command_char[] = {'+', '-', 0, '@', '^', '|', '~'};
}

namespace {

constexpr const char *error_text[] = {
    "Success",      "Out of memory", "Invalid argument", "Entry not found",
    "I/O error",    "Parse error",   "Duplicate entry",  "Unknown error",
};
static_assert(sizeof(error_text) / sizeof(error_text[0]) == UCI_ERR_LAST, "one text per error code");

bool set_dir(char **slot, const char *dir)
{
    char *copy = strdup(dir);
    if (!copy)
        return false;
    free(*slot);
    *slot = copy;
    return true;
}

void set_flags(struct uci_ptr *ptr, int flags) { ptr->flags = static_cast<decltype(ptr->flags)>(flags); }

// Loads package `name` into ctx.  The error is stored by the caller.
int load_package(struct uci_context *ctx, const char *name, struct uci_package **out)
{
    if (!name)
        return UCI_ERR_INVAL;
    std::string_view n(name);
    CharPtr path;
    std::string_view pkg_name;
    bool by_path = sv_slice(n, 0, 1) == "/" || sv_slice(n, 0, 2) == "./";
    bool uses_conf2 = false;
    if (by_path) {
        // A file given by path is the package named after its last component.
        size_t slash = n.rfind('/');
        pkg_name = sv_slice(n, slash + 1);
        path.reset(strdup(name));
    } else {
        if (sv_slice(n, 0, 1) == ".")
            return UCI_ERR_NOTFOUND;
        if (!valid_type(n))
            return UCI_ERR_INVAL;
        pkg_name = n;
        // The override directory wins when it holds the package.
        struct stat st;
        path = join_path(ctx->conf2dir, n);
        uses_conf2 = path && stat(path.get(), &st) == 0;
        if (!uses_conf2)
            path = join_path(ctx->confdir, n);
    }
    if (!path)
        return UCI_ERR_MEM;

    FileData file;
    int rc = file.read(path.get());
    if (rc == UCI_OK && find_element(&ctx->root, pkg_name))
        rc = UCI_ERR_DUPLICATE;
    struct uci_package *p = nullptr;
    if (rc == UCI_OK)
        rc = parse_file(ctx, file.view(), pkg_name, &p);
    if (rc != UCI_OK)
        return rc;
    p->path = path.release();
    p->has_delta = !by_path;
    p->uses_conf2 = uses_conf2;
    // Uncommitted changes are part of what a package reads.
    if (p->has_delta)
        apply_delta_files(ctx, p);
    list_add_tail(&ctx->root, &p->e.list);
    if (out)
        *out = p;
    return UCI_OK;
}

bool has_bad_control(const char *v)
{
    for (const unsigned char *c = reinterpret_cast<const unsigned char *>(v); *c; c++)
        if ((*c < 0x20 && *c != '\t' && *c != '\n' && *c != '\r') || *c == 0x7f)
            return true;
    return false;
}

// "@type[index]" or "@[index]": the index-th section of that type (any type
// when empty) in file order, counted from the end when negative.
// UCI_ERR_INVAL when the text is not of that form.
int lookup_extended_section(struct uci_ptr *ptr, struct uci_section **found)
{
    *found = nullptr;
    std::string_view sec(ptr->section);
    size_t open = sec.find('[');
    if (sec.size() < 3 || sec[0] != '@' || open == std::string_view::npos || sec.back() != ']')
        return UCI_ERR_INVAL;
    std::string_view type = sv_slice(sec, 1, open - 1);
    std::string_view idx_text = sv_slice(sec, open + 1, sec.size() - open - 2);
    if (!type.empty() && !valid_type(type))
        return UCI_ERR_INVAL;

    // Decimal with an optional sign; empty means 0.
    long idx = 0;
    bool neg = false;
    size_t i = 0;
    if (i < idx_text.size() && (idx_text[i] == '-' || idx_text[i] == '+')) {
        neg = idx_text[i++] == '-';
        if (i == idx_text.size())
            return UCI_ERR_INVAL; // a sign without digits converts nothing
    }
    for (; i < idx_text.size(); i++) {
        char c = idx_text[i];
        if (c < '0' || c > '9')
            return UCI_ERR_INVAL;
        if (idx < 1000000000L)
            idx = idx * 10 + (c - '0');
    }
    if (neg)
        idx = -idx;

    long count = 0;
    struct uci_element *e;
    uci_foreach_element(&ptr->p->sections, e)
    {
        if (type.empty() || type == uci_to_section(e)->type)
            count++;
    }
    if (idx < 0)
        idx += count;
    if (idx < 0 || idx >= count)
        return UCI_OK;
    uci_foreach_element(&ptr->p->sections, e)
    {
        struct uci_section *s = uci_to_section(e);
        if (!type.empty() && type != s->type)
            continue;
        if (idx-- == 0) {
            *found = s;
            ptr->section = e->name;
            break;
        }
    }
    return UCI_OK;
}

} // namespace

namespace uci_internal {

int FileData::read(const char *path)
{
    struct stat st;
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode))
        return UCI_ERR_NOTFOUND;
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return UCI_ERR_IO;
    flock(fd.get(), LOCK_SH); // dropped when fd closes
    return read_fd(fd.get());
}

int FileData::read_fd(int fd)
{
    buf_.clear();
    if (lseek(fd, 0, SEEK_SET) < 0)
        return UCI_ERR_IO;
    char chunk[4096];
    for (;;) {
        ssize_t r = ::read(fd, chunk, sizeof(chunk));
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return UCI_ERR_IO;
        if (r == 0)
            return UCI_OK;
        if (!buf_.append(std::string_view(chunk, static_cast<size_t>(r))))
            return UCI_ERR_MEM;
    }
}

CharPtr join_path(const char *dir, std::string_view name)
{
    size_t dl = strlen(dir);
    CharPtr p(static_cast<char *>(malloc(dl + 1 + name.size() + 1)));
    if (p) {
        memcpy(p.get(), dir, dl);
        p.get()[dl] = '/';
        memcpy(p.get() + dl + 1, name.data(), name.size());
        p.get()[dl + 1 + name.size()] = '\0';
    }
    return p;
}

bool write_all(int fd, std::string_view s)
{
    while (!s.empty()) {
        ssize_t w = write(fd, s.data(), s.size());
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        s = sv_slice(s, static_cast<size_t>(w));
    }
    return true;
}

int parse_ptr(struct uci_ptr *ptr, char *str)
{
    // The key is split in place: '=' and '.' become NULs.
    memset(ptr, 0, sizeof(*ptr));
    char *eq = strchr(str, '=');
    if (eq) {
        *eq = '\0';
        ptr->value = eq + 1;
    }
    const char *parts[3] = {str, nullptr, nullptr};
    int n = 1;
    for (char *c = str; *c; c++) {
        if (*c != '.')
            continue;
        if (n == 3) {
            memset(ptr, 0, sizeof(*ptr));
            return UCI_ERR_PARSE;
        }
        *c = '\0';
        parts[n++] = c + 1;
    }
    ptr->package = parts[0];
    ptr->section = parts[1];
    ptr->option = parts[2];
    ptr->target = n == 1 ? UCI_TYPE_PACKAGE : n == 2 ? UCI_TYPE_SECTION : UCI_TYPE_OPTION;
    if (!valid_type(ptr->package) || (ptr->option && !valid_name(ptr->option)) ||
        (ptr->value && has_bad_control(ptr->value))) {
        memset(ptr, 0, sizeof(*ptr));
        return UCI_ERR_PARSE;
    }
    if (ptr->section && !valid_name(ptr->section))
        set_flags(ptr, uci_ptr::UCI_LOOKUP_EXTENDED);
    return UCI_OK;
}

// The lookup proper, on a ptr whose package/section/option texts are set.
int lookup(struct uci_context *ctx, struct uci_ptr *ptr, bool extended)
{
    set_flags(ptr, ptr->flags | uci_ptr::UCI_LOOKUP_DONE);
    if (!ptr->p) {
        if (!ptr->package)
            return UCI_ERR_INVAL;
        struct uci_element *e = find_element(&ctx->root, ptr->package);
        if (e) {
            ptr->p = uci_to_package(e);
        } else {
            int rc = load_package(ctx, ptr->package, &ptr->p);
            if (rc != UCI_OK) {
                ptr->p = nullptr;
                ptr->last = nullptr;
                return rc;
            }
        }
    }
    ptr->last = &ptr->p->e;
    ptr->s = nullptr;
    ptr->o = nullptr;
    if (!ptr->section) {
        set_flags(ptr, ptr->flags | uci_ptr::UCI_LOOKUP_COMPLETE);
        return UCI_OK;
    }

    struct uci_section *s = nullptr;
    if (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) {
        if (!extended)
            return UCI_ERR_INVAL;
        if (lookup_extended_section(ptr, &s) != UCI_OK) {
            memset(ptr, 0, sizeof(*ptr));
            return UCI_ERR_INVAL;
        }
    } else {
        struct uci_element *e = find_element(&ptr->p->sections, ptr->section);
        s = e ? uci_to_section(e) : nullptr;
    }
    if (!s)
        return UCI_OK;
    ptr->s = s;
    ptr->last = &s->e;
    if (!ptr->option) {
        set_flags(ptr, ptr->flags | uci_ptr::UCI_LOOKUP_COMPLETE);
        return UCI_OK;
    }
    struct uci_element *e = find_element(&s->options, ptr->option);
    if (!e)
        return UCI_OK;
    ptr->o = uci_to_option(e);
    ptr->last = e;
    set_flags(ptr, ptr->flags | uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

} // namespace uci_internal

extern "C" {

struct uci_context *uci_alloc_context(void)
{
    auto *ctx = static_cast<struct uci_context *>(calloc(1, sizeof(struct uci_context)));
    if (!ctx)
        return nullptr;
    list_init(&ctx->root);
    list_init(&ctx->backends);
    list_init(&ctx->delta_path);
    ctx->flags = static_cast<enum uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    ctx->confdir = strdup(UCI_CONFDIR);
    ctx->savedir = strdup(UCI_SAVEDIR);
    ctx->conf2dir = strdup(UCI_CONF2DIR);
    // The delta search path starts with the save directory.
    struct uci_element *path = element_new(UCI_TYPE_PATH, UCI_SAVEDIR);
    if (path)
        list_add_tail(&ctx->delta_path, &path->list);
    if (!ctx->confdir || !ctx->savedir || !ctx->conf2dir || !path) {
        uci_free_context(ctx);
        return nullptr;
    }
    return ctx;
}

void uci_free_context(struct uci_context *ctx)
{
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(&ctx->root, tmp, e) free_package(uci_to_package(e));
    uci_foreach_element_safe(&ctx->delta_path, tmp, e) free_item(e);
    free(ctx->pctx);
    free(ctx->confdir);
    free(ctx->savedir);
    free(ctx->conf2dir);
    free(ctx);
}

int uci_set_confdir(struct uci_context *ctx, const char *dir)
{
    if (int rc = begin_call(ctx, dir))
        return rc;
    return set_dir(&ctx->confdir, dir) ? UCI_OK : fail(ctx, UCI_ERR_MEM);
}

int uci_set_savedir(struct uci_context *ctx, const char *dir)
{
    if (int rc = begin_call(ctx, dir))
        return rc;
    // The directory moves to the end of the delta search path, or joins it
    // there; the ones before it stay.
    struct uci_element *e = find_element(&ctx->delta_path, dir);
    if (e)
        list_unlink(&e->list);
    else if (!(e = element_new(UCI_TYPE_PATH, dir)))
        return fail(ctx, UCI_ERR_MEM);
    list_add_tail(&ctx->delta_path, &e->list);
    return set_dir(&ctx->savedir, dir) ? UCI_OK : fail(ctx, UCI_ERR_MEM);
}

int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package)
{
    if (int rc = begin_call(ctx, true))
        return rc;
    int rc = load_package(ctx, name, package);
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

int uci_unload(struct uci_context *ctx, struct uci_package *p)
{
    if (int rc = begin_call(ctx, p))
        return rc;
    free_package(p);
    return UCI_OK;
}

int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list, const char *name)
{
    if (int rc = begin_call(ctx, e && list && name))
        return rc;
    *e = find_element(list, name);
    return *e ? UCI_OK : fail(ctx, UCI_ERR_NOTFOUND);
}

int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended)
{
    if (int rc = begin_call(ctx, ptr))
        return rc;
    if (str) {
        int rc = parse_ptr(ptr, str);
        if (rc != UCI_OK)
            return fail(ctx, rc);
    }
    int rc = lookup(ctx, ptr, extended);
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

// The message goes out in one write so it cannot interleave with others.
// Unlike the OpenWrt library, the parse detail is not kept in a static buffer
// that grows a newline per call: every call prints the same, correct text.
void uci_perror(struct uci_context *ctx, const char *str)
{
    int err = ctx ? ctx->err : UCI_ERR_INVAL;
    const char *msg = (err < 0 || err >= UCI_ERR_LAST) ? error_text[UCI_ERR_UNKNOWN] : error_text[err];
    char detail[160] = "";
    if (ctx && err == UCI_ERR_PARSE && ctx->pctx) {
        const struct uci_parse_context *pctx = ctx->pctx;
        snprintf(detail, sizeof(detail), " (%s) at line %d, byte %d",
                 pctx->reason ? pctx->reason : "unknown", pctx->line, pctx->byte);
    }
    fprintf(stderr, "%s%s%s%s\n", str ? str : "", str ? ": " : "", msg, detail);
}

} // extern "C"
