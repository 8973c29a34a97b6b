// libuci: temporary entry points until the parser lands (everything fails).
#include <uci.h>

extern "C" {
char const uci_command_char[] = {'+', '-', 0, '@', '^', '|', '~'};
struct uci_context *uci_alloc_context(void) { return nullptr; }
void uci_free_context(struct uci_context *) {}
int uci_set_confdir(struct uci_context *, const char *) { return UCI_ERR_INVAL; }
int uci_set_savedir(struct uci_context *, const char *) { return UCI_ERR_INVAL; }
int uci_load(struct uci_context *, const char *, struct uci_package **) { return UCI_ERR_INVAL; }
int uci_unload(struct uci_context *, struct uci_package *) { return UCI_ERR_INVAL; }
int uci_lookup_ptr(struct uci_context *, struct uci_ptr *, char *, bool) { return UCI_ERR_INVAL; }
int uci_lookup_next(struct uci_context *, struct uci_element **, struct uci_list *, const char *) { return UCI_ERR_INVAL; }
int uci_set(struct uci_context *, struct uci_ptr *) { return UCI_ERR_INVAL; }
int uci_delete(struct uci_context *, struct uci_ptr *) { return UCI_ERR_INVAL; }
int uci_add_list(struct uci_context *, struct uci_ptr *) { return UCI_ERR_INVAL; }
int uci_del_list(struct uci_context *, struct uci_ptr *) { return UCI_ERR_INVAL; }
int uci_save(struct uci_context *, struct uci_package *) { return UCI_ERR_INVAL; }
int uci_commit(struct uci_context *, struct uci_package **, bool) { return UCI_ERR_INVAL; }
void uci_perror(struct uci_context *, const char *) {}
}
