// Element storage of our libuci: every package, section, option and list item
// is one malloc'ed struct with its strings malloc'ed beside it, so the C
// structs keep exactly the public layout and free() releases them.  Also the
// growable byte buffer the parser and the writers use, and the change list.
#include "uci_internal.h"

namespace uci_internal {

namespace {

template <typename T> T *zalloc() { return static_cast<T *>(calloc(1, sizeof(T))); }

bool is_name_char(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

} // namespace

int fail(struct uci_context *ctx, int err)
{
    ctx->err = err;
    return err;
}

int begin_call(struct uci_context *ctx, bool args_ok)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    ctx->err = UCI_OK;
    free(ctx->pctx); // the last parse error's position
    ctx->pctx = nullptr;
    return args_ok ? UCI_OK : fail(ctx, UCI_ERR_INVAL);
}

bool Buf::append(std::string_view s)
{
    if (failed_)
        return false;
    if (s.size() > cap_ - len_) {
        size_t ncap = cap_ ? cap_ : 64;
        while (ncap - len_ < s.size())
            ncap *= 2;
        char *n = static_cast<char *>(realloc(data_, ncap));
        if (!n) {
            failed_ = true;
            return false;
        }
        data_ = n;
        cap_ = ncap;
    }
    if (!s.empty())
        memcpy(data_ + len_, s.data(), s.size());
    len_ += s.size();
    return true;
}

char *dup_view(std::string_view s)
{
    char *p = static_cast<char *>(malloc(s.size() + 1));
    if (!p)
        return nullptr;
    if (!s.empty())
        memcpy(p, s.data(), s.size());
    p[s.size()] = '\0';
    return p;
}

bool valid_name(std::string_view s)
{
    if (s.empty())
        return false;
    for (unsigned char c : s)
        if (!is_name_char(c))
            return false;
    return true;
}

bool valid_package_name(std::string_view s)
{
    if (s.empty())
        return false;
    for (unsigned char c : s)
        if (!is_name_char(c) && c != '-')
            return false;
    return true;
}

bool valid_type(std::string_view s)
{
    if (s.empty())
        return false;
    for (unsigned char c : s)
        if (c < 0x21 || c > 0x7e)
            return false;
    return true;
}

struct uci_element *find_element(struct uci_list *list, std::string_view name)
{
    struct uci_element *e;
    uci_foreach_element(list, e)
    {
        if (e->name && name == e->name)
            return e;
    }
    return nullptr;
}

struct uci_package *package_new(struct uci_context *ctx, std::string_view name)
{
    struct uci_package *p = zalloc<struct uci_package>();
    if (!p)
        return nullptr;
    p->e.name = dup_view(name);
    if (!p->e.name) {
        free(p);
        return nullptr;
    }
    p->e.type = UCI_TYPE_PACKAGE;
    list_init(&p->e.list);
    list_init(&p->sections);
    list_init(&p->delta);
    list_init(&p->saved_delta);
    p->ctx = ctx;
    return p;
}

// Unnamed sections are named when created, from the package's running section
// count and a djb2 hash of the type: "cfg" + %02x count + %04x low hash bits.
static bool name_anonymous(struct uci_section *s, int n_section)
{
    uint32_t h = 5381;
    for (unsigned char c : std::string_view(s->type))
        h = h * 33 + c;
    char buf[32];
    snprintf(buf, sizeof(buf), "cfg%02x%04x", static_cast<unsigned>(n_section), h & 0xffffu);
    s->e.name = dup_view(buf);
    return s->e.name != nullptr;
}

struct uci_section *section_new(struct uci_package *p, std::string_view type, std::string_view name,
                                bool anonymous)
{
    struct uci_section *s = zalloc<struct uci_section>();
    if (!s)
        return nullptr;
    s->e.type = UCI_TYPE_SECTION;
    list_init(&s->options);
    s->package = p;
    s->anonymous = anonymous;
    s->type = dup_view(type);
    if (!s->type) {
        free(s);
        return nullptr;
    }
    // Named sections count as well; the count never goes down.
    p->n_section++;
    bool named = anonymous ? name_anonymous(s, p->n_section) : (s->e.name = dup_view(name)) != nullptr;
    if (!named) {
        free(s->type);
        free(s);
        return nullptr;
    }
    list_add_tail(&p->sections, &s->e.list);
    return s;
}

static struct uci_option *option_alloc(struct uci_section *s, std::string_view name)
{
    struct uci_option *o = zalloc<struct uci_option>();
    if (!o)
        return nullptr;
    o->e.type = UCI_TYPE_OPTION;
    o->e.name = dup_view(name);
    if (!o->e.name) {
        free(o);
        return nullptr;
    }
    o->section = s;
    return o;
}

struct uci_option *option_new_string(struct uci_section *s, std::string_view name, std::string_view value)
{
    struct uci_option *o = option_alloc(s, name);
    if (!o)
        return nullptr;
    o->type = UCI_TYPE_STRING;
    o->v.string = dup_view(value);
    if (!o->v.string) {
        free(o->e.name);
        free(o);
        return nullptr;
    }
    list_add_tail(&s->options, &o->e.list);
    return o;
}

struct uci_option *option_new_list(struct uci_section *s, std::string_view name)
{
    struct uci_option *o = option_alloc(s, name);
    if (!o)
        return nullptr;
    o->type = UCI_TYPE_LIST;
    list_init(&o->v.list);
    list_add_tail(&s->options, &o->e.list);
    return o;
}

struct uci_element *element_new(enum uci_type type, std::string_view name)
{
    struct uci_element *e = zalloc<struct uci_element>();
    if (!e)
        return nullptr;
    e->type = type;
    e->name = dup_view(name);
    if (!e->name) {
        free(e);
        return nullptr;
    }
    return e;
}

bool list_append_item(struct uci_option *o, std::string_view value)
{
    struct uci_element *e = element_new(UCI_TYPE_ITEM, value);
    if (e)
        list_add_tail(&o->v.list, &e->list);
    return e != nullptr;
}

static void free_items(struct uci_option *o)
{
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(&o->v.list, tmp, e)
    {
        list_unlink(&e->list);
        free_item(e);
    }
}

bool option_set_string(struct uci_option *o, std::string_view value)
{
    char *v = dup_view(value);
    if (!v)
        return false;
    if (o->type == UCI_TYPE_LIST)
        free_items(o);
    else
        free(o->v.string);
    o->type = UCI_TYPE_STRING;
    o->v.string = v;
    return true;
}

bool option_string_to_list(struct uci_option *o)
{
    char *old = o->v.string;
    struct uci_element *e = zalloc<struct uci_element>();
    if (!e)
        return false;
    e->type = UCI_TYPE_ITEM;
    e->name = old; // the old value moves into the first item
    o->type = UCI_TYPE_LIST;
    list_init(&o->v.list);
    list_add_tail(&o->v.list, &e->list);
    return true;
}

void free_item(struct uci_element *e)
{
    free(e->name);
    free(e);
}

void free_option(struct uci_option *o)
{
    if (o->e.list.next)
        list_unlink(&o->e.list);
    if (o->type == UCI_TYPE_LIST)
        free_items(o);
    else
        free(o->v.string);
    free(o->e.name);
    free(o);
}

void free_section(struct uci_section *s)
{
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(&s->options, tmp, e) free_option(uci_to_option(e));
    if (s->e.list.next)
        list_unlink(&s->e.list);
    free(s->type);
    free(s->e.name);
    free(s);
}

void free_changes(struct uci_list *l)
{
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(l, tmp, e)
    {
        struct uci_delta *d = uci_to_delta(e);
        list_unlink(&e->list);
        free(d->section);
        free(d->value);
        free(e->name);
        free(d);
    }
}

void free_package(struct uci_package *p)
{
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(&p->sections, tmp, e) free_section(uci_to_section(e));
    free_changes(&p->delta);
    free_changes(&p->saved_delta);
    if (p->e.list.next && p->e.list.next != &p->e.list)
        list_unlink(&p->e.list);
    free(p->path);
    free(p->e.name);
    free(p);
}

bool record_change(struct uci_package *p, enum uci_command cmd, const char *section, const char *option,
                   const char *value)
{
    if (!p->has_delta || p->ctx->internal)
        return true;
    struct uci_delta *d = zalloc<struct uci_delta>();
    if (!d)
        return false;
    d->e.type = UCI_TYPE_DELTA;
    d->cmd = cmd;
    d->e.name = option ? dup_view(option) : nullptr;
    d->section = section ? dup_view(section) : nullptr;
    d->value = value ? dup_view(value) : nullptr;
    if ((option && !d->e.name) || (section && !d->section) || (value && !d->value)) {
        free(d->e.name);
        free(d->section);
        free(d->value);
        free(d);
        return false;
    }
    list_add_tail(&p->delta, &d->e.list);
    return true;
}

} // namespace uci_internal
