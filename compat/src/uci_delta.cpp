// Delta files: changes made to a package and not yet committed, one per line,
// in <dir>/<package> for each directory of the delta search path (by default
// only the save directory, /tmp/.uci).  uci_load applies them to what it
// reads, uci_save appends to the one in the save directory, uci_commit folds
// them into the configuration file.
//
// A line is one shell-style word: an optional command character, then
// "package.section[.option]", then "=value".  A line that does not apply is
// skipped silently.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "uci_internal.h"

using namespace uci_internal;

namespace {

// The change a line's first character names (uci_command_char); none is a set.
enum uci_command command_of(char c)
{
    for (int cmd = 0; c && cmd < __UCI_CMD_MAX; cmd++)
        if (c == uci_command_char[cmd])
            return static_cast<enum uci_command>(cmd);
    return UCI_CMD_CHANGE;
}

bool complete(const struct uci_ptr *ptr) { return (ptr->flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0; }

// '@': the section (or the option) gets the value as its name.
int rename_target(struct uci_context *ctx, struct uci_ptr *ptr)
{
    int rc = lookup(ctx, ptr, false);
    if (rc != UCI_OK || !complete(ptr))
        return rc != UCI_OK ? rc : UCI_ERR_NOTFOUND;
    char *name = strdup(ptr->value);
    if (!name)
        return UCI_ERR_MEM;
    free(ptr->last->name);
    ptr->last->name = name;
    if (!ptr->o)
        ptr->s->anonymous = false;
    return UCI_OK;
}

// '^': the section moves to the position the value gives (0 = first; past
// the end = last), read as strtoul does.
int move_section(struct uci_context *ctx, struct uci_ptr *ptr)
{
    int rc = lookup(ctx, ptr, false);
    if (rc != UCI_OK || !ptr->s)
        return rc != UCI_OK ? rc : UCI_ERR_NOTFOUND;
    int pos = static_cast<int>(strtoul(ptr->value, nullptr, 10));
    struct uci_list *sections = &ptr->p->sections, *after = sections;
    list_unlink(&ptr->s->e.list);
    struct uci_element *e;
    uci_foreach_element(sections, e)
    {
        if (pos-- <= 0)
            break;
        after = &e->list;
    }
    list_insert_before(after->next, &ptr->s->e.list);
    return UCI_OK;
}

// One line's word, changed in place; true when the change applied.
bool apply_line(struct uci_context *ctx, struct uci_package *p, char *word)
{
    enum uci_command cmd = command_of(word[0]);
    struct uci_ptr ptr;
    if (parse_ptr(&ptr, cmd == UCI_CMD_CHANGE ? word : word + 1) != UCI_OK)
        return false;
    // A plain section name of this package; no extended syntax.
    if (!ptr.section || (ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED) || strcmp(ptr.package, p->e.name) != 0)
        return false;
    if ((cmd == UCI_CMD_REORDER && (!ptr.value || ptr.option)) ||
        (cmd == UCI_CMD_RENAME && (!ptr.value || !valid_name(ptr.value))) ||
        ((cmd == UCI_CMD_LIST_ADD || cmd == UCI_CMD_LIST_DEL) && !ptr.option))
        return false;
    ptr.p = p;
    switch (cmd) {
    case UCI_CMD_ADD:
    case UCI_CMD_CHANGE:
        if (uci_set(ctx, &ptr) != UCI_OK)
            return false;
        if (cmd == UCI_CMD_ADD && !ptr.option && ptr.s)
            ptr.s->anonymous = true; // a section that "uci add" created
        return true;
    case UCI_CMD_REMOVE:
    {
        int rc = uci_delete(ctx, &ptr);
        return rc == UCI_OK || rc == 1; // 1: a list index that is not a number, no error
    }
    case UCI_CMD_RENAME:
        return rename_target(ctx, &ptr) == UCI_OK;
    case UCI_CMD_REORDER:
        return move_section(ctx, &ptr) == UCI_OK;
    case UCI_CMD_LIST_ADD:
        return uci_add_list(ctx, &ptr) == UCI_OK;
    case UCI_CMD_LIST_DEL:
        return uci_del_list(ctx, &ptr) == UCI_OK;
    default:
        return false;
    }
}

struct Target {
    struct uci_context *ctx;
    struct uci_package *p;
};

bool apply_word(char *word, void *arg)
{
    auto *t = static_cast<Target *>(arg);
    return apply_line(t->ctx, t->p, word);
}

// One change as a delta line.
void append_change(Buf &out, const struct uci_package *p, const struct uci_delta *d)
{
    if (uci_command_char[d->cmd])
        out.push(uci_command_char[d->cmd]);
    out.append(p->e.name);
    out.push('.');
    out.append(d->section);
    if (d->e.name) {
        out.push('.');
        out.append(d->e.name);
    }
    if (d->cmd != UCI_CMD_REMOVE || d->value) {
        out.push('=');
        append_quoted(out, d->value ? d->value : "");
    }
    out.push('\n');
}

} // namespace

namespace uci_internal {

int apply_delta_files(struct uci_context *ctx, struct uci_package *p)
{
    Target target = {ctx, p};
    bool was_internal = ctx->internal;
    ctx->internal = true; // what is applied is not recorded again
    int applied = 0;
    struct uci_element *dir;
    uci_foreach_element(&ctx->delta_path, dir)
    {
        CharPtr path = join_path(dir->name, p->e.name);
        FileData file;
        if (path && file.read(path.get()) == UCI_OK)
            applied += for_each_delta_line(file.view(), apply_word, &target);
    }
    ctx->internal = was_internal;
    ctx->err = UCI_OK; // the lines that failed leave no error behind
    return applied;
}

int save_changes(struct uci_context *ctx, struct uci_package *p)
{
    if (uci_list_empty(&p->delta))
        return UCI_OK;
    // The save directory is created like the configuration directory.
    struct stat st;
    if (stat(ctx->savedir, &st) != 0)
        mkdir(ctx->savedir, stat(ctx->confdir, &st) == 0 ? (st.st_mode & 07777) : UCI_DIRMODE);
    else if (!S_ISDIR(st.st_mode))
        return UCI_ERR_IO;

    Buf text;
    struct uci_element *e;
    uci_foreach_element(&p->delta, e) append_change(text, p, uci_to_delta(e));
    if (text.failed())
        return UCI_ERR_MEM;
    CharPtr path = join_path(ctx->savedir, p->e.name);
    if (!path)
        return UCI_ERR_MEM;
    // The delta file takes the mode of the package's file in the configuration
    // directory, also when the package was read from the override directory
    // (/var/run/uci), as OpenWrt's libuci does; 0600 when there is none.
    CharPtr conf = join_path(ctx->confdir, p->e.name);
    mode_t mode = conf && stat(conf.get(), &st) == 0 ? (st.st_mode & 07777) : UCI_FILEMODE;
    UniqueFd fd(open(path.get(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, mode));
    if (fd.get() < 0)
        return UCI_ERR_IO;
    flock(fd.get(), LOCK_EX);
    if (!write_all(fd.get(), text.view()))
        return UCI_ERR_IO;
    free_changes(&p->delta);
    return UCI_OK;
}

int truncate_saved_changes(struct uci_context *ctx, struct uci_package *p)
{
    CharPtr path = join_path(ctx->savedir, p->e.name);
    if (!path)
        return UCI_ERR_MEM;
    UniqueFd fd(open(path.get(), O_WRONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return UCI_OK; // nothing saved there (the lines came from elsewhere)
    flock(fd.get(), LOCK_EX);
    return ftruncate(fd.get(), 0) == 0 ? UCI_OK : UCI_ERR_IO;
}

} // namespace uci_internal

extern "C" {

int uci_save(struct uci_context *ctx, struct uci_package *p)
{
    if (int rc = begin_call(ctx, p))
        return rc;
    // A package loaded by path has no delta file: its file is written at once.
    if (!p->has_delta)
        return uci_commit(ctx, &p, false);
    int rc = save_changes(ctx, p);
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

} // extern "C"
