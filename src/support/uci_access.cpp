// Configuration access: being written.
#include "support/uci_access.h"

int _uci_get_value(const char *, char *) { return -1; }
struct uci_context *uci_ctx_init(const char *) { return nullptr; }
void uci_ctx_free(struct uci_context *) {}
size_t strlcpy_n(char *, const char *, size_t) { return 0; }
int _uci_set_value(struct uci_context **, const char *, const char *, const char *, const char *) { return -1; }
int _uci_set_value_commit(const char *, const char *) { return -1; }
int _uci_delete(struct uci_context **, const char *, const char *, const char *) { return -1; }
int _uci_delete_commit(const char *, const char *, const char *) { return -1; }
int _uci_add_list(struct uci_context **, const char *, const char *, const char *, const char *) { return -1; }
int _uci_add_list_commit(const char *, const char *, const char *, const char *) { return -1; }
int _uci_del_add_list(struct uci_context **, const char *, const char *, const char *, const char *) { return -1; }
int _uci_del_add_list_commit(const char *, const char *, const char *, const char *) { return -1; }
int _uci_commit(struct uci_context *) { return -1; }
