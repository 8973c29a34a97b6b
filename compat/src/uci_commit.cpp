// Writing a package back to its file.  There are no change files: a commit
// rewrites the file from memory when the package holds changes, atomically
// (a temporary file in the same directory, fsync'd, then renamed over it).
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "uci_internal.h"

using namespace uci_internal;

namespace {

// Values and names go out in single quotes; a quote inside is '\''.
bool write_quoted(FILE *f, const char *s)
{
    if (fputc('\'', f) == EOF)
        return false;
    for (; *s; s++) {
        if (*s == '\'') {
            if (fputs("'\\''", f) == EOF)
                return false;
        } else if (fputc(*s, f) == EOF) {
            return false;
        }
    }
    return fputc('\'', f) != EOF;
}

bool write_package(FILE *f, struct uci_package *p)
{
    struct uci_element *se;
    uci_foreach_element(&p->sections, se)
    {
        struct uci_section *s = uci_to_section(se);
        if (fprintf(f, "\nconfig %s", s->type) < 0)
            return false;
        if (!s->anonymous && (fputc(' ', f) == EOF || !write_quoted(f, se->name)))
            return false;
        if (fputc('\n', f) == EOF)
            return false;
        struct uci_element *oe;
        uci_foreach_element(&s->options, oe)
        {
            struct uci_option *o = uci_to_option(oe);
            if (o->type == UCI_TYPE_STRING) {
                if (fprintf(f, "\toption %s ", oe->name) < 0 || !write_quoted(f, o->v.string) ||
                    fputc('\n', f) == EOF)
                    return false;
                continue;
            }
            struct uci_element *ie;
            uci_foreach_element(&o->v.list, ie)
            {
                if (fprintf(f, "\tlist %s ", oe->name) < 0 || !write_quoted(f, ie->name) ||
                    fputc('\n', f) == EOF)
                    return false;
            }
        }
    }
    return fputc('\n', f) != EOF;
}

// "<dir>/.<name>.uci-XXXXXX" beside the file.
char *temp_template(const char *path)
{
    const char *slash = strrchr(path, '/');
    size_t dir_len = slash ? static_cast<size_t>(slash - path + 1) : 0;
    const char *base = path + dir_len;
    size_t len = dir_len + 1 + strlen(base) + strlen(".uci-XXXXXX") + 1;
    char *t = static_cast<char *>(malloc(len));
    if (t)
        snprintf(t, len, "%.*s.%s.uci-XXXXXX", static_cast<int>(dir_len), path, base);
    return t;
}

int rewrite_file(struct uci_package *p)
{
    // The exclusive lock on the real file keeps two committers apart.
    int lock_fd = open(p->path, O_RDWR | O_CREAT | O_CLOEXEC, UCI_FILEMODE);
    if (lock_fd < 0)
        return UCI_ERR_IO;
    flock(lock_fd, LOCK_EX);
    struct stat st;
    mode_t mode = fstat(lock_fd, &st) == 0 ? (st.st_mode & 07777) : UCI_FILEMODE;

    int rc = UCI_ERR_IO;
    char *tmp = temp_template(p->path);
    int fd = tmp ? mkstemp(tmp) : -1;
    if (fd >= 0) {
        FILE *f = fdopen(fd, "w");
        if (!f) {
            close(fd);
        } else {
            bool ok = write_package(f, p) && fflush(f) == 0 && fsync(fd) == 0 && fchmod(fd, mode) == 0;
            ok = (fclose(f) == 0) && ok;
            if (ok && rename(tmp, p->path) == 0)
                rc = UCI_OK;
        }
        if (rc != UCI_OK)
            unlink(tmp);
    }
    free(tmp);
    flock(lock_fd, LOCK_UN);
    close(lock_fd);
    return rc;
}

void forget_changes(struct uci_package *p)
{
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(&p->delta, tmp, e)
    {
        struct uci_delta *d = uci_to_delta(e);
        list_unlink(&e->list);
        free(d->section);
        free(d->value);
        free(e->name);
        free(d);
    }
}

} // namespace

extern "C" {

int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite)
{
    (void)overwrite; // without change files both modes write what is in memory
    if (!ctx)
        return UCI_ERR_INVAL;
    clear_error(ctx);
    if (!p || !*p || !(*p)->path)
        return fail(ctx, UCI_ERR_INVAL);
    // Nothing changed: the file, with its comments and layout, stays as it is.
    if (uci_list_empty(&(*p)->delta))
        return UCI_OK;
    int rc = rewrite_file(*p);
    if (rc != UCI_OK)
        return fail(ctx, rc);
    forget_changes(*p);
    return UCI_OK;
}

int uci_save(struct uci_context *ctx, struct uci_package *p)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!p) {
        clear_error(ctx);
        return fail(ctx, UCI_ERR_INVAL);
    }
    return uci_commit(ctx, &p, false);
}

} // extern "C"
