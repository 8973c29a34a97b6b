/*
 * libuci, the subset lanprobe uses: reading OpenWrt configuration files
 * (/etc/config/<package>), looking values up by "package.section.option",
 * changing them in memory and committing a package back to its file.
 *
 * Same names, member order and behaviour as the OpenWrt library, so the
 * daemon builds unchanged against either.  Plain C, with its own extern "C"
 * guard.
 *
 * Changes not yet committed live in delta files (<savedir>/<package>, and
 * the other directories of the delta search path): uci_load applies them,
 * uci_save appends to them, uci_commit folds them into the configuration
 * file.  A file in the override directory (conf2dir) is read instead of the
 * one in confdir.  Packages loaded by path have no delta files.
 */
#ifndef LANPROBE_COMPAT_UCI_H
#define LANPROBE_COMPAT_UCI_H

#ifdef __cplusplus
extern "C" {
#endif

#include "uci_config.h"

#include <stdbool.h>
#include <setjmp.h>
#include <stdio.h>
#include <stdint.h>
#include <stddef.h>

#define UCI_CONFDIR "/etc/config"
#define UCI_SAVEDIR "/tmp/.uci"
#define UCI_CONF2DIR "/var/run/uci"
#define UCI_DIRMODE 0700
#define UCI_FILEMODE 0600

enum {
	UCI_OK = 0,
	UCI_ERR_MEM,
	UCI_ERR_INVAL,
	UCI_ERR_NOTFOUND,
	UCI_ERR_IO,
	UCI_ERR_PARSE,
	UCI_ERR_DUPLICATE,
	UCI_ERR_UNKNOWN,
	UCI_ERR_LAST
};

struct uci_list;
struct uci_list {
	struct uci_list *next;
	struct uci_list *prev;
};

struct uci_ptr;
struct uci_element;
struct uci_package;
struct uci_section;
struct uci_option;
struct uci_delta;
struct uci_context;
struct uci_backend;
struct uci_parse_context;

enum uci_type {
	UCI_TYPE_UNSPEC = 0,
	UCI_TYPE_DELTA = 1,
	UCI_TYPE_PACKAGE = 2,
	UCI_TYPE_SECTION = 3,
	UCI_TYPE_OPTION = 4,
	UCI_TYPE_PATH = 5,
	UCI_TYPE_BACKEND = 6,
	UCI_TYPE_ITEM = 7,
	UCI_TYPE_HOOK = 8,
};

enum uci_option_type {
	UCI_TYPE_STRING = 0,
	UCI_TYPE_LIST = 1,
};

enum uci_flags {
	UCI_FLAG_STRICT = (1 << 0),      /* strict mode: any syntax error fails the load */
	UCI_FLAG_PERROR = (1 << 1),      /* print parser errors to stderr */
	UCI_FLAG_EXPORT_NAME = (1 << 2), /* when exporting, name unnamed sections */
	UCI_FLAG_SAVED_DELTA = (1 << 3), /* keep track of changes already saved */
};

enum uci_command {
	UCI_CMD_ADD,
	UCI_CMD_REMOVE,
	UCI_CMD_CHANGE,
	UCI_CMD_RENAME,
	UCI_CMD_REORDER,
	UCI_CMD_LIST_ADD,
	UCI_CMD_LIST_DEL,
	__UCI_CMD_MAX,
	__UCI_CMD_LAST = __UCI_CMD_MAX - 1
};
extern char const uci_command_char[];

#define uci_type_backend UCI_TYPE_BACKEND
#define uci_type_delta UCI_TYPE_DELTA
#define uci_type_package UCI_TYPE_PACKAGE
#define uci_type_section UCI_TYPE_SECTION
#define uci_type_option UCI_TYPE_OPTION

struct uci_element {
	struct uci_list list;
	enum uci_type type;
	char *name;
};

struct uci_backend {
	struct uci_element e;
	char **(*list_configs)(struct uci_context *ctx);
	struct uci_package *(*load)(struct uci_context *ctx, const char *name);
	void (*commit)(struct uci_context *ctx, struct uci_package **p, bool overwrite);
	const void *ptr;
	void *priv;
};

struct uci_context {
	/* list of loaded packages */
	struct uci_list root;

	/* state of the parser while (or after failing while) it reads a file */
	struct uci_parse_context *pctx;

	struct uci_backend *backend;
	struct uci_list backends;

	enum uci_flags flags;

	char *confdir;
	char *savedir;
	char *conf2dir;

	/* directories searched for change files */
	struct uci_list delta_path;

	/* private: */
	int err;
	const char *func;
	jmp_buf trap;
	bool internal, nested;
	char *buf;
	int bufsz;
};

struct uci_package {
	struct uci_element e;
	struct uci_list sections;
	struct uci_context *ctx;
	bool has_delta;
	bool uses_conf2;
	char *path;

	/* private: */
	struct uci_backend *backend;
	void *priv;
	int n_section;
	struct uci_list delta;
	struct uci_list saved_delta;
};

struct uci_section {
	struct uci_element e;
	struct uci_list options;
	struct uci_package *package;
	bool anonymous;
	char *type;
};

struct uci_option {
	struct uci_element e;
	struct uci_section *section;
	enum uci_option_type type;
	union {
		struct uci_list list;
		char *string;
	} v;
};

struct uci_delta {
	struct uci_element e;
	enum uci_command cmd;
	char *section;
	char *value;
};

/*
 * Result of uci_lookup_ptr().  The lookup flags are declared inside the
 * struct: in C++ they are written uci_ptr::UCI_LOOKUP_COMPLETE.
 */
struct uci_ptr {
	enum uci_type target;
	enum {
		UCI_LOOKUP_DONE = (1 << 0),
		UCI_LOOKUP_COMPLETE = (1 << 1),
		UCI_LOOKUP_EXTENDED = (1 << 2),
	} flags;

	struct uci_package *p;
	struct uci_section *s;
	struct uci_option *o;
	struct uci_element *last;

	const char *package;
	const char *section;
	const char *option;
	const char *value;
};

/* context, directories, packages */
struct uci_context *uci_alloc_context(void);
void uci_free_context(struct uci_context *ctx);
int uci_set_confdir(struct uci_context *ctx, const char *dir);
int uci_set_savedir(struct uci_context *ctx, const char *dir);
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);
int uci_unload(struct uci_context *ctx, struct uci_package *p);

/* lookup; str is split in place and must stay alive as long as ptr is used */
int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);
int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list,
		    const char *name);

/* changes in memory */
int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);
int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr);

/* writing back: uci_save to the delta file, uci_commit to the configuration file */
int uci_save(struct uci_context *ctx, struct uci_package *p);
int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);

/* "PREFIX: message[ (reason) at line L, byte B]" on stderr */
void uci_perror(struct uci_context *ctx, const char *str);

#ifndef container_of
#define container_of(ptr, type, member) \
	((type *) ((char *) ptr - offsetof(type, member)))
#endif

#define list_to_element(ptr) \
	container_of(ptr, struct uci_element, list)

/* visit each element of a list in order; e must not be removed */
#define uci_foreach_element(_list, _ptr)			\
	for (_ptr = list_to_element((_list)->next);		\
	     &_ptr->list != (_list);				\
	     _ptr = list_to_element(_ptr->list.next))

/* the same, and _ptr may be removed from the list */
#define uci_foreach_element_safe(_list, _tmp, _ptr)		\
	for (_ptr = list_to_element((_list)->next),		\
	     _tmp = list_to_element(_ptr->list.next);		\
	     &_ptr->list != (_list);				\
	     _ptr = _tmp, _tmp = list_to_element(_ptr->list.next))

#define uci_list_empty(list) ((list)->next == (list))

/* the element is the first member of each of these */
#define uci_to_backend(ptr) container_of(ptr, struct uci_backend, e)
#define uci_to_delta(ptr) container_of(ptr, struct uci_delta, e)
#define uci_to_package(ptr) container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr) container_of(ptr, struct uci_option, e)

/* address just past *ptr, where the library keeps an element's strings */
#define uci_dataptr(ptr) \
	(((char *) ptr) + sizeof(*ptr))

static inline struct uci_package *
uci_lookup_package(struct uci_context *ctx, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &ctx->root, name) == 0)
		return uci_to_package(e);
	else
		return NULL;
}

static inline struct uci_section *
uci_lookup_section(struct uci_context *ctx, struct uci_package *p, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &p->sections, name) == 0)
		return uci_to_section(e);
	else
		return NULL;
}

static inline struct uci_option *
uci_lookup_option(struct uci_context *ctx, struct uci_section *s, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &s->options, name) == 0)
		return uci_to_option(e);
	else
		return NULL;
}

static inline const char *
uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s, const char *name)
{
	struct uci_option *o;

	o = uci_lookup_option(ctx, s, name);
	if (!o || o->type != UCI_TYPE_STRING)
		return NULL;

	return o->v.string;
}

#ifdef __cplusplus
}
#endif

#endif
