// Changing loaded packages in memory: uci_set, uci_delete, uci_add_list,
// uci_del_list.  Each change is also recorded in the package's change list so
// that uci_commit knows the file must be rewritten.
#include "uci_internal.h"

using namespace uci_internal;

namespace {

// A ptr filled in by hand has not been looked up yet.
int ensure_lookup(struct uci_context *ctx, struct uci_ptr *ptr)
{
    if (ptr->flags & uci_ptr::UCI_LOOKUP_DONE)
        return UCI_OK;
    return lookup(ctx, ptr, false);
}

bool complete(const struct uci_ptr *ptr) { return (ptr->flags & uci_ptr::UCI_LOOKUP_COMPLETE) != 0; }

// Removes the option or section the ptr found.  0, or an error code; the
// special value 1 reports a list index that is not a number.
int delete_target(struct uci_ptr *ptr)
{
    if (!complete(ptr))
        return UCI_ERR_NOTFOUND;
    if (!ptr->section || !ptr->s)
        return UCI_ERR_INVAL;
    struct uci_package *p = ptr->p;
    if (ptr->o) {
        struct uci_option *o = ptr->o;
        if (o->type == UCI_TYPE_LIST && ptr->value && *ptr->value) {
            // A value names one item of the list by its decimal index.
            long idx = 0;
            for (const char *c = ptr->value; *c; c++) {
                if (*c < '0' || *c > '9')
                    return 1;
                if (idx < 1000000000L)
                    idx = idx * 10 + (*c - '0');
            }
            struct uci_element *e, *tmp;
            uci_foreach_element_safe(&o->v.list, tmp, e)
            {
                if (idx-- == 0) {
                    if (!record_change(p, UCI_CMD_REMOVE, ptr->s->e.name, o->e.name, ptr->value))
                        return UCI_ERR_MEM;
                    list_unlink(&e->list);
                    free_item(e);
                    break;
                }
            }
            return UCI_OK;
        }
        if (!record_change(p, UCI_CMD_REMOVE, ptr->s->e.name, o->e.name, nullptr))
            return UCI_ERR_MEM;
        free_option(o);
        ptr->o = nullptr;
        return UCI_OK;
    }
    if (ptr->option)
        return UCI_ERR_NOTFOUND;
    if (!record_change(p, UCI_CMD_REMOVE, ptr->s->e.name, nullptr, nullptr))
        return UCI_ERR_MEM;
    free_section(ptr->s);
    ptr->s = nullptr;
    return UCI_OK;
}

int set_option(struct uci_ptr *ptr)
{
    struct uci_package *p = ptr->p;
    struct uci_section *s = ptr->s;
    if (!valid_name(ptr->option))
        return UCI_ERR_INVAL;
    struct uci_option *o = ptr->o;
    if (o && o->type == UCI_TYPE_STRING && strcmp(o->v.string, ptr->value) == 0)
        return UCI_OK;
    if (!record_change(p, UCI_CMD_CHANGE, s->e.name, ptr->option, ptr->value))
        return UCI_ERR_MEM;
    if (o)
        return option_set_string(o, ptr->value) ? UCI_OK : UCI_ERR_MEM;
    ptr->o = option_new_string(s, ptr->option, ptr->value);
    return ptr->o ? UCI_OK : UCI_ERR_MEM;
}

int set_section(struct uci_ptr *ptr)
{
    if (!valid_type(ptr->value))
        return UCI_ERR_INVAL;
    struct uci_section *s = ptr->s;
    if (s && strcmp(s->type, ptr->value) == 0)
        return UCI_OK;
    if (!s && !valid_name(ptr->section))
        return UCI_ERR_INVAL;
    if (!record_change(ptr->p, UCI_CMD_CHANGE, ptr->section, nullptr, ptr->value))
        return UCI_ERR_MEM;
    if (s) {
        char *type = strdup(ptr->value);
        if (!type)
            return UCI_ERR_MEM;
        free(s->type);
        s->type = type; // retyped in place
        return UCI_OK;
    }
    ptr->s = section_new(ptr->p, ptr->value, ptr->section, false);
    return ptr->s ? UCI_OK : UCI_ERR_MEM;
}

// The entry of every change call (begin_call): check the pointer (and its
// value where the change needs one), then run the lookup if the caller
// filled the pointer by hand.  A failure is recorded and returned.
int start_change(struct uci_context *ctx, struct uci_ptr *ptr, bool needs_value)
{
    if (int rc = begin_call(ctx, ptr && (!needs_value || ptr->value)))
        return rc;
    int rc = ensure_lookup(ctx, ptr);
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

} // namespace

extern "C" {

int uci_set(struct uci_context *ctx, struct uci_ptr *ptr)
{
    int rc = start_change(ctx, ptr, true);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->section || (!ptr->s && ptr->option))
        return fail(ctx, UCI_ERR_INVAL);
    if (!*ptr->value) {
        // Setting "" deletes what exists and does nothing otherwise.
        if (!complete(ptr))
            return UCI_OK;
        rc = delete_target(ptr);
    } else {
        rc = ptr->option ? set_option(ptr) : set_section(ptr);
    }
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr)
{
    int rc = start_change(ctx, ptr, false);
    if (rc != UCI_OK)
        return rc;
    rc = delete_target(ptr);
    if (rc == 1)
        return 1; // not a list index: nothing changed, no error recorded
    return rc == UCI_OK ? UCI_OK : fail(ctx, rc);
}

int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr)
{
    int rc = start_change(ctx, ptr, true);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->s || !ptr->option || !valid_name(ptr->option))
        return fail(ctx, UCI_ERR_INVAL);
    if (!record_change(ptr->p, UCI_CMD_LIST_ADD, ptr->s->e.name, ptr->option, ptr->value))
        return fail(ctx, UCI_ERR_MEM);
    struct uci_option *o = ptr->o;
    bool ok = true;
    if (!o)
        ok = (o = option_new_list(ptr->s, ptr->option)) != nullptr;
    else if (o->type == UCI_TYPE_STRING)
        ok = option_string_to_list(o); // [old value, new value] in the same place
    ok = ok && list_append_item(o, ptr->value);
    ptr->o = o;
    return ok ? UCI_OK : fail(ctx, UCI_ERR_MEM);
}

int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr)
{
    int rc = start_change(ctx, ptr, true);
    if (rc != UCI_OK)
        return rc;
    if (!ptr->s)
        return fail(ctx, UCI_ERR_INVAL);
    struct uci_option *o = ptr->o;
    if (!o || o->type != UCI_TYPE_LIST)
        return UCI_OK;
    if (!record_change(ptr->p, UCI_CMD_LIST_DEL, ptr->s->e.name, o->e.name, ptr->value))
        return fail(ctx, UCI_ERR_MEM);
    // Every equal item goes; an emptied list stays, and is written as nothing.
    struct uci_element *e, *tmp;
    uci_foreach_element_safe(&o->v.list, tmp, e)
    {
        if (strcmp(e->name, ptr->value) == 0) {
            list_unlink(&e->list);
            free_item(e);
        }
    }
    return UCI_OK;
}

} // extern "C"
