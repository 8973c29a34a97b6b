// Reading (and, for tools, writing) UCI configuration values by dotted key.
// Every call allocates its own libuci context on /etc/config and frees it
// before returning, except the writing calls that take a context slot: those
// hand their context back so several changes can share one commit.
#ifndef LANPROBE_SUPPORT_UCI_ACCESS_H
#define LANPROBE_SUPPORT_UCI_ACCESS_H

#include <stddef.h>

#include <uci.h>

// The lookup splits the key in place, so it works on a copy of this size:
// keys are at most 64 characters, values are cut to 64 characters.
#define UCI_ACCESS_BUF_SIZE 65
#define UCI_ACCESS_CONFDIR "/etc/config"

// Fetches the string option named by "package.section.option" (libuci's
// extended section syntax allowed) into p_value, which must hold at least 65
// bytes.  0 on success; -1 otherwise, with p_value untouched.
int _uci_get_value(const char *p_uci_str, char *p_value);

// uci_alloc_context + uci_set_confdir; NULL when the allocation failed.
struct uci_context *uci_ctx_init(const char *confdir);
// uci_free_context when ctx is not NULL.
void uci_ctx_free(struct uci_context *ctx);

// Copies min(strlen(src), size - 1) bytes and zero-fills dst up to and
// including the byte after them; size 0 writes nothing.  Returns strlen(src).
size_t strlcpy_n(char *dst, const char *src, size_t size);

// Writing family.  The calls with a context slot use *ctx (or create it),
// change memory only and leave the context in *ctx; on failure they free it
// and set *ctx to NULL.  The *_commit twins use a context of their own and
// commit the changed package.  All return 0 on success, -1 on failure.
int _uci_set_value(struct uci_context **ctx, const char *package, const char *section,
                   const char *option, const char *value);
int _uci_set_value_commit(const char *p_uci_str, const char *p_value);
int _uci_delete(struct uci_context **ctx, const char *package, const char *section,
                const char *option);
int _uci_delete_commit(const char *package, const char *section, const char *option);
int _uci_add_list(struct uci_context **ctx, const char *package, const char *section,
                  const char *option, const char *value);
int _uci_add_list_commit(const char *package, const char *section, const char *option,
                         const char *value);
int _uci_del_add_list(struct uci_context **ctx, const char *package, const char *section,
                      const char *option, const char *value);
int _uci_del_add_list_commit(const char *package, const char *section, const char *option,
                             const char *value);
// Loads the package "lanprobe" into ctx and commits it.  ctx is a context
// handed back by the calls above; it is freed here whatever the outcome.
int _uci_commit(struct uci_context *ctx);

#endif
