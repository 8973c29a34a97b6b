// Configuration access through libuci: one string option by dotted key, and
// a family of calls that change and commit values.
#include "support/uci_access.h"

#include <string.h>

#include "support/log.h"

namespace {

// Copies key into the zero-filled work buffer.  Longer keys are refused: the
// copy would cut them, and the cut key could name a different, existing
// option (or section) whose value would then be returned as if it were asked for.
bool copy_key(char (&buf)[UCI_ACCESS_BUF_SIZE], const char *key)
{
    memset(buf, 0, sizeof(buf));
    if (strnlen(key, sizeof(buf)) >= sizeof(buf))
        return false;
    strlcpy_n(buf, key, sizeof(buf));
    return true;
}

// A ptr filled in by hand: uci_set and friends do the lookup themselves.
struct uci_ptr make_ptr(const char *package, const char *section, const char *option, const char *value)
{
    struct uci_ptr ptr;
    memset(&ptr, 0, sizeof(ptr));
    ptr.target = UCI_TYPE_OPTION;
    ptr.package = package;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    return ptr;
}

// Macros rather than helpers, so each line names the public call that logs it.
#define LOG_PTR(ptr)                                                                               \
    do {                                                                                           \
        LOG_MSG(LOG_LEVEL_DEBUG, "p_uci.uci_type:%d\n", static_cast<int>((ptr).target));           \
        LOG_MSG(LOG_LEVEL_DEBUG, "p_uci.package:%s\n", (ptr).package ? (ptr).package : "");        \
        LOG_MSG(LOG_LEVEL_DEBUG, "p_uci.section:%s\n", (ptr).section ? (ptr).section : "");        \
        LOG_MSG(LOG_LEVEL_DEBUG, "p_uci.option:%s\n", (ptr).option ? (ptr).option : "");           \
        LOG_MSG(LOG_LEVEL_DEBUG, "p_uci.value:%s\n", (ptr).value ? (ptr).value : "");              \
    } while (0)

enum class ListChange { Delete, AddList, DelAddList };

// One change of the delete/list kind on ctx.  UCI_OK or libuci's error.
int apply(struct uci_context *ctx, struct uci_ptr *ptr, ListChange what)
{
    switch (what) {
    case ListChange::Delete:
        return uci_delete(ctx, ptr);
    case ListChange::AddList:
        return uci_add_list(ctx, ptr);
    case ListChange::DelAddList: {
        int rc = uci_del_list(ctx, ptr);
        return rc == UCI_OK ? uci_add_list(ctx, ptr) : rc;
    }
    }
    return UCI_ERR_INVAL;
}

enum class Outcome { Ok, InitFailed, ChangeFailed, CommitFailed };

// The slot form: the change stays in memory, the context goes back to the caller.
Outcome change_in_slot(struct uci_context **ctx, const char *package, const char *section,
                       const char *option, const char *value, ListChange what)
{
    if (!*ctx)
        *ctx = uci_ctx_init(UCI_ACCESS_CONFDIR);
    if (!*ctx)
        return Outcome::InitFailed;
    struct uci_ptr ptr = make_ptr(package, section, option, value);
    if (apply(*ctx, &ptr, what) != UCI_OK) {
        uci_ctx_free(*ctx);
        *ctx = nullptr;
        return Outcome::ChangeFailed;
    }
    return Outcome::Ok;
}

// The commit form: own context, one change, commit of the changed package.
Outcome change_and_commit(const char *package, const char *section, const char *option, const char *value,
                          ListChange what)
{
    struct uci_context *ctx = uci_ctx_init(UCI_ACCESS_CONFDIR);
    if (!ctx)
        return Outcome::InitFailed;
    struct uci_ptr ptr = make_ptr(package, section, option, value);
    Outcome out = Outcome::ChangeFailed;
    if (apply(ctx, &ptr, what) == UCI_OK)
        out = uci_commit(ctx, &ptr.p, false) == UCI_OK ? Outcome::Ok : Outcome::CommitFailed;
    uci_ctx_free(ctx);
    return out;
}

// Logs a failed outcome from the public call and gives its result.
#define FINISH(outcome, package)                                                                   \
    ((outcome) == Outcome::Ok                                                                      \
         ? 0                                                                                       \
         : ((outcome) == Outcome::InitFailed                                                       \
                ? LOG_MSG(LOG_LEVEL_ERROR, "fail to init uci context\n")                           \
                : (outcome) == Outcome::CommitFailed ? LOG_MSG(LOG_LEVEL_ERROR, "fail to commit %s\n", package) \
                                                     : (void)0,                                    \
            -1))

#define CHECK_ARGS(ok)                                                                             \
    do {                                                                                           \
        if (!(ok)) {                                                                               \
            LOG_MSG(LOG_LEVEL_ERROR, "invalid parameter\n");                                        \
            return -1;                                                                             \
        }                                                                                          \
    } while (0)

} // namespace

size_t strlcpy_n(char *dst, const char *src, size_t size)
{
    size_t len = strlen(src);
    if (size == 0)
        return len;
    size_t n = len < size - 1 ? len : size - 1;
    memcpy(dst, src, n);
    dst[n] = '\0';
    return len;
}

struct uci_context *uci_ctx_init(const char *confdir)
{
    struct uci_context *ctx = uci_alloc_context();
    if (!ctx)
        return nullptr;
    uci_set_confdir(ctx, confdir);
    return ctx;
}

void uci_ctx_free(struct uci_context *ctx)
{
    // libuci's own free does not accept NULL.
    if (ctx)
        uci_free_context(ctx);
}

int _uci_get_value(const char *p_uci_str, char *p_value)
{
    if (!p_uci_str || !p_value) {
        LOG_MSG(LOG_LEVEL_ERROR, "p_uci_str or p_value is null\n");
        return -1;
    }
    char buf[UCI_ACCESS_BUF_SIZE];
    if (!copy_key(buf, p_uci_str))
        return -1;
    struct uci_context *ctx = uci_ctx_init(UCI_ACCESS_CONFDIR);
    if (!ctx) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to init uci context:%s\n", p_uci_str);
        return -1;
    }
    struct uci_ptr ptr;
    // The lookup splits buf in place; for a missing package it reads as the
    // package name afterwards, which is what the message shows.
    if (uci_lookup_ptr(ctx, &ptr, buf, true) != UCI_OK) {
        LOG_MSG(LOG_LEVEL_INFO, "fail to get ptr %s \n", buf);
        uci_ctx_free(ctx);
        return -1;
    }
    // After a successful lookup last is at least the package.
    if (!ptr.last || ptr.last->type != UCI_TYPE_OPTION) {
        LOG_MSG(LOG_LEVEL_INFO, "element type is not option:%d\n",
                ptr.last ? static_cast<int>(ptr.last->type) : 0);
        uci_ctx_free(ctx);
        return -1;
    }
    if (ptr.o->type != UCI_TYPE_STRING) {
        LOG_MSG(LOG_LEVEL_INFO, "option type is not string:%d\n", static_cast<int>(ptr.o->type));
        uci_ctx_free(ctx);
        return -1;
    }
    strlcpy_n(p_value, ptr.o->v.string, UCI_ACCESS_BUF_SIZE);
    uci_ctx_free(ctx);
    return 0;
}

int _uci_set_value(struct uci_context **ctx, const char *package, const char *section, const char *option,
                   const char *value)
{
    // Only the delete and list calls report missing arguments in words.
    if (!ctx || !package || !section || !option || !value)
        return -1;
    LOG_MSG(LOG_LEVEL_INFO, "p_uci_str:%s.%s.%s, p_value:%s\n", package, section, option, value);
    if (!*ctx)
        *ctx = uci_ctx_init(UCI_ACCESS_CONFDIR);
    if (!*ctx) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to init uci context:%s.%s.%s\n", package, section, option);
        return -1;
    }
    struct uci_ptr ptr = make_ptr(package, section, option, value);
    LOG_PTR(ptr);
    int rc = uci_set(*ctx, &ptr);
    if (rc != UCI_OK) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to set ptr %s.%s.%s (ret:%d)\n", package, section, option, rc);
        uci_ctx_free(*ctx);
        *ctx = nullptr;
        return -1;
    }
    LOG_MSG(LOG_LEVEL_INFO, "Success to set %s.%s.%s = %s, not commit yet\n", package, section, option, value);
    return 0;
}

int _uci_set_value_commit(const char *p_uci_str, const char *p_value)
{
    if (!p_uci_str || !p_value) {
        LOG_MSG(LOG_LEVEL_ERROR, "p_uci_str or p_value is null\n");
        return -1;
    }
    LOG_MSG(LOG_LEVEL_INFO, "p_uci_str:%s, p_value:%s\n", p_uci_str, p_value);
    char buf[UCI_ACCESS_BUF_SIZE];
    if (!copy_key(buf, p_uci_str))
        return -1;
    struct uci_context *ctx = uci_ctx_init(UCI_ACCESS_CONFDIR);
    if (!ctx) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to init uci context:%s\n", p_uci_str);
        return -1;
    }
    struct uci_ptr ptr;
    int ret = -1;
    if (uci_lookup_ptr(ctx, &ptr, buf, true) != UCI_OK) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to get ptr again %s \n", buf);
        uci_ctx_free(ctx);
        return -1;
    }
    ptr.value = p_value;
    LOG_PTR(ptr);
    int rc = uci_set(ctx, &ptr);
    if (rc != UCI_OK) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to set ptr %s (ret:%d)\n", p_uci_str, rc);
    } else if (uci_commit(ctx, &ptr.p, false) != UCI_OK) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to commit %s\n", p_uci_str);
    } else {
        LOG_MSG(LOG_LEVEL_INFO, "Success to set %s = %s \n", p_uci_str, p_value);
        ret = 0;
    }
    uci_ctx_free(ctx);
    return ret;
}

int _uci_delete(struct uci_context **ctx, const char *package, const char *section, const char *option)
{
    CHECK_ARGS(ctx && package && section && option);
    LOG_MSG(LOG_LEVEL_DEBUG, "delete %s %s\n", section, option);
    Outcome out = change_in_slot(ctx, package, section, option, nullptr, ListChange::Delete);
    return FINISH(out, package);
}

int _uci_delete_commit(const char *package, const char *section, const char *option)
{
    CHECK_ARGS(package && section && option);
    LOG_MSG(LOG_LEVEL_DEBUG, "delete %s %s\n", section, option);
    Outcome out = change_and_commit(package, section, option, nullptr, ListChange::Delete);
    return FINISH(out, package);
}

int _uci_add_list(struct uci_context **ctx, const char *package, const char *section, const char *option,
                  const char *value)
{
    CHECK_ARGS(ctx && package && section && option && value);
    LOG_MSG(LOG_LEVEL_DEBUG, "save %s %s\n", option, value);
    Outcome out = change_in_slot(ctx, package, section, option, value, ListChange::AddList);
    return FINISH(out, package);
}

int _uci_add_list_commit(const char *package, const char *section, const char *option, const char *value)
{
    CHECK_ARGS(package && section && option && value);
    LOG_MSG(LOG_LEVEL_DEBUG, "save %s %s\n", option, value);
    Outcome out = change_and_commit(package, section, option, value, ListChange::AddList);
    return FINISH(out, package);
}

int _uci_del_add_list(struct uci_context **ctx, const char *package, const char *section, const char *option,
                      const char *value)
{
    CHECK_ARGS(ctx && package && section && option && value);
    LOG_MSG(LOG_LEVEL_DEBUG, "save %s %s\n", option, value);
    Outcome out = change_in_slot(ctx, package, section, option, value, ListChange::DelAddList);
    return FINISH(out, package);
}

int _uci_del_add_list_commit(const char *package, const char *section, const char *option,
                             const char *value)
{
    CHECK_ARGS(package && section && option && value);
    LOG_MSG(LOG_LEVEL_DEBUG, "save %s %s\n", option, value);
    Outcome out = change_and_commit(package, section, option, value, ListChange::DelAddList);
    return FINISH(out, package);
}

int _uci_commit(struct uci_context *ctx)
{
    if (!ctx) {
        LOG_MSG(LOG_LEVEL_ERROR, "fail to init uci context\n");
        return -1;
    }
    // A context whose earlier calls already loaded "lanprobe" makes this load
    // fail with a duplicate: that is reported as a failed commit.
    struct uci_package *pkg = nullptr;
    int ret = -1;
    if (uci_load(ctx, "lanprobe", &pkg) != UCI_OK)
        LOG_MSG(LOG_LEVEL_ERROR, "fail to commit %s\n", "lanprobe");
    else if (uci_commit(ctx, &pkg, false) != UCI_OK)
        LOG_MSG(LOG_LEVEL_ERROR, "commit failed\n");
    else {
        LOG_MSG(LOG_LEVEL_DEBUG, "success commit\n");
        ret = 0;
    }
    uci_ctx_free(ctx);
    return ret;
}
