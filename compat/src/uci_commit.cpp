// Writing a package back to its file.  The file is locked for the whole
// commit; a package with delta tracking is re-read from it and gets its delta
// files applied (its own changes saved there first), and the file is
// rewritten only when a delta line applied.  The rewrite is atomic: a
// temporary file beside it, fsync'd, then renamed over it.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "uci_internal.h"

using namespace uci_internal;

namespace {

// Types and names go out bare, the way OpenWrt's libuci writes them.  Names
// are [A-Za-z0-9_] and always read back bare; a type may hold a character a
// bare word ends at or takes as quoting, and is then quoted, so that the file
// reads back as the same package.  OpenWrt's libuci writes such a type bare
// (' " \ # ;), and cannot read its own file back for a type holding '.
void append_word(Buf &out, std::string_view s)
{
    if (s.find_first_of("'\"\\#;") == std::string_view::npos)
        out.append(s);
    else
        append_quoted(out, s);
}

// The file text: section names and values single-quoted, types and option
// names bare unless they need quotes.  No comments, no package line.
void format_package(Buf &out, struct uci_package *p)
{
    struct uci_element *se;
    uci_foreach_element(&p->sections, se)
    {
        struct uci_section *s = uci_to_section(se);
        out.append("\nconfig ");
        append_word(out, s->type);
        if (!s->anonymous) {
            out.push(' ');
            append_quoted(out, se->name);
        }
        out.push('\n');
        struct uci_element *oe;
        uci_foreach_element(&s->options, oe)
        {
            struct uci_option *o = uci_to_option(oe);
            if (o->type == UCI_TYPE_STRING) {
                out.append("\toption ");
                append_word(out, oe->name);
                out.push(' ');
                append_quoted(out, o->v.string);
                out.push('\n');
                continue;
            }
            struct uci_element *ie;
            uci_foreach_element(&o->v.list, ie)
            {
                out.append("\tlist ");
                append_word(out, oe->name);
                out.push(' ');
                append_quoted(out, ie->name);
                out.push('\n');
            }
        }
    }
    out.push('\n');
}

// "<dir>/.<name>.uci-XXXXXX" beside the file.
CharPtr temp_template(const char *path)
{
    const char *slash = strrchr(path, '/');
    size_t dir_len = slash ? static_cast<size_t>(slash - path + 1) : 0;
    const char *base = path + dir_len;
    size_t len = dir_len + 1 + strlen(base) + strlen(".uci-XXXXXX") + 1;
    CharPtr t(static_cast<char *>(malloc(len)));
    if (t)
        snprintf(t.get(), len, "%.*s.%s.uci-XXXXXX", static_cast<int>(dir_len), path, base);
    return t;
}

// Replaces the file (locked through lock_fd) by the package's text.
int rewrite_file(struct uci_package *p, int lock_fd)
{
    Buf text;
    format_package(text, p);
    if (text.failed())
        return UCI_ERR_MEM;
    struct stat st;
    mode_t mode = fstat(lock_fd, &st) == 0 ? (st.st_mode & 07777) : UCI_FILEMODE;
    CharPtr tmp = temp_template(p->path);
    if (!tmp)
        return UCI_ERR_MEM;
    bool ok;
    {
        UniqueFd fd(mkstemp(tmp.get()));
        if (fd.get() < 0)
            return UCI_ERR_IO;
        ok = write_all(fd.get(), text.view()) && fsync(fd.get()) == 0 && fchmod(fd.get(), mode) == 0;
    }
    if (ok && rename(tmp.get(), p->path) == 0)
        return UCI_OK;
    unlink(tmp.get());
    return UCI_ERR_IO;
}

// Replaces *pp by the package as its file (open as fd) reads now: other
// processes may have committed meanwhile.  On failure *pp stays as it is.
int reread(struct uci_context *ctx, struct uci_package **pp, int fd)
{
    struct uci_package *old = *pp;
    FileData file;
    struct uci_package *p = nullptr;
    int rc = file.read_fd(fd);
    if (rc == UCI_OK)
        rc = parse_file(ctx, file.view(), old->e.name, &p);
    if (rc != UCI_OK)
        return rc;
    p->path = old->path;
    old->path = nullptr;
    p->has_delta = true;
    p->uses_conf2 = old->uses_conf2;
    free_package(old);
    list_add_tail(&ctx->root, &p->e.list);
    *pp = p;
    return UCI_OK;
}

int commit(struct uci_context *ctx, struct uci_package **pp, bool overwrite)
{
    // The exclusive lock on the real file keeps two committers apart.
    UniqueFd lock(open((*pp)->path, O_RDWR | O_CREAT | O_CLOEXEC, UCI_FILEMODE));
    if (lock.get() < 0)
        return UCI_ERR_IO;
    flock(lock.get(), LOCK_EX);
    if ((*pp)->has_delta) {
        if (!overwrite) {
            int rc = save_changes(ctx, *pp);
            if (rc == UCI_OK)
                rc = reread(ctx, pp, lock.get());
            if (rc != UCI_OK)
                return rc;
        }
        // Nothing to fold in: the file stays as it is.
        if (apply_delta_files(ctx, *pp) == 0)
            return UCI_OK;
    }
    int rc = rewrite_file(*pp, lock.get());
    if (rc == UCI_OK && (*pp)->has_delta)
        rc = truncate_saved_changes(ctx, *pp);
    return rc;
}

} // namespace

namespace uci_internal {

void append_quoted(Buf &out, std::string_view s)
{
    out.push('\'');
    for (char c : s) {
        if (c == '\'')
            out.append("'\\''");
        else
            out.push(c);
    }
    out.push('\'');
}

} // namespace uci_internal

extern "C" {

int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite)
{
    if (int rc = begin_call(ctx, p && *p && (*p)->path))
        return rc;
    int rc = commit(ctx, p, overwrite);
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

} // extern "C"
