// Private parts of our libuci: element storage, validation, error state.
#ifndef LANPROBE_COMPAT_UCI_INTERNAL_H
#define LANPROBE_COMPAT_UCI_INTERNAL_H

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include <uci.h>

// What the parser leaves behind in ctx->pctx when a file fails to parse;
// uci_perror prints it.
struct uci_parse_context {
    const char *reason;
    int line;
    int byte;
};

namespace uci_internal {

// std::string_view::substr throws on a position past the end, and a single
// reference to that throw drags the C++ exception and demangling runtime into
// the daemon (tens of kilobytes on a router).  This one clamps instead.
constexpr std::string_view sv_slice(std::string_view s, size_t pos,
                                    size_t n = std::string_view::npos)
{
    if (pos > s.size())
        pos = s.size();
    if (n > s.size() - pos)
        n = s.size() - pos;
    return std::string_view(s.data() + pos, n);
}

// malloc'ed memory released at the end of the scope.
struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};
using CharPtr = std::unique_ptr<char, FreeDeleter>;

// A file descriptor closed at the end of the scope (which also drops its flock).
class UniqueFd {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// Growable byte buffer.  A failed allocation sticks (failed()) and later
// appends do nothing, so a writer may check once at the end.
class Buf {
public:
    Buf() = default;
    ~Buf() { free(data_); }
    Buf(const Buf &) = delete;
    Buf &operator=(const Buf &) = delete;

    bool append(std::string_view s);
    bool push(char c) { return append(std::string_view(&c, 1)); }
    void clear() { len_ = 0; }
    bool failed() const { return failed_; }
    size_t size() const { return len_; }
    char operator[](size_t i) const { return data_[i]; }
    char *data() { return data_; }
    std::string_view view() const { return std::string_view(data_ ? data_ : "", len_); }

private:
    char *data_ = nullptr;
    size_t len_ = 0;
    size_t cap_ = 0;
    bool failed_ = false;
};

// A whole file in memory.
class FileData {
public:
    // UCI_OK, UCI_ERR_NOTFOUND (missing, or not a regular file), UCI_ERR_IO or
    // UCI_ERR_MEM.  The file is read under a shared flock.
    int read(const char *path);
    // An open file from its start; the caller holds whatever lock it needs.
    int read_fd(int fd);
    std::string_view view() const { return buf_.view(); }

private:
    Buf buf_;
};

// "dir/name"; NULL when out of memory.
CharPtr join_path(const char *dir, std::string_view name);
// Writes all of s; false on an error.
bool write_all(int fd, std::string_view s);
// s in single quotes, a quote inside written '\''.
void append_quoted(Buf &out, std::string_view s);

// Stores err as the context's error and returns it.
int fail(struct uci_context *ctx, int err);
// Entry of an API call: UCI_ERR_INVAL without a context (there is nowhere to
// store an error), the error stored when args_ok is false, else UCI_OK with
// the previous error forgotten.
int begin_call(struct uci_context *ctx, bool args_ok);

inline void list_init(struct uci_list *l) { l->next = l->prev = l; }
inline void list_insert_before(struct uci_list *at, struct uci_list *e)
{
    e->next = at;
    e->prev = at->prev;
    at->prev->next = e;
    at->prev = e;
}
inline void list_add_tail(struct uci_list *head, struct uci_list *e) { list_insert_before(head, e); }
inline void list_unlink(struct uci_list *e)
{
    e->prev->next = e->next;
    e->next->prev = e->prev;
    e->next = e->prev = nullptr;
}

// malloc'ed, NUL-terminated copy of s (which may hold no NUL); NULL when out of memory.
char *dup_view(std::string_view s);

// Section and option names: non-empty, [A-Za-z0-9_].
bool valid_name(std::string_view s);
// Package names in a "package" line: non-empty, [A-Za-z0-9_-].
bool valid_package_name(std::string_view s);
// Section types and package names given to uci_load: non-empty, bytes 0x21..0x7E.
bool valid_type(std::string_view s);

struct uci_element *find_element(struct uci_list *list, std::string_view name);

// Allocation; each returns NULL when out of memory, with nothing left behind.
struct uci_package *package_new(struct uci_context *ctx, std::string_view name);
struct uci_section *section_new(struct uci_package *p, std::string_view type,
                                std::string_view name, bool anonymous);
struct uci_option *option_new_string(struct uci_section *s, std::string_view name,
                                     std::string_view value);
struct uci_option *option_new_list(struct uci_section *s, std::string_view name);
// A bare element (list item, delta search path entry) named name.
struct uci_element *element_new(enum uci_type type, std::string_view name);
bool list_append_item(struct uci_option *o, std::string_view value);
// Turns o into a string option holding value, in place.
bool option_set_string(struct uci_option *o, std::string_view value);
// Turns a string option into a one-item list of its old value, in place.
bool option_string_to_list(struct uci_option *o);

void free_item(struct uci_element *e);
void free_option(struct uci_option *o);   // unlinks it too
void free_section(struct uci_section *s); // unlinks it and its options
void free_package(struct uci_package *p); // unlinks it and everything in it
void free_changes(struct uci_list *changes);

// Records a change in the package's change list (what uci_save writes to the
// delta file).  Nothing is recorded for a package without delta tracking, nor
// while delta files are applied (ctx->internal).
bool record_change(struct uci_package *p, enum uci_command cmd, const char *section,
                   const char *option, const char *value);

// The text half of uci_lookup_ptr: splits str in place into ptr (zeroed
// first).  UCI_OK, or UCI_ERR_PARSE with ptr all zero.
int parse_ptr(struct uci_ptr *ptr, char *str);

// Lookup of a ptr whose package/section/option texts are set (the second
// half of uci_lookup_ptr).  Returns the error without storing it.
int lookup(struct uci_context *ctx, struct uci_ptr *ptr, bool extended);

// Parses a whole configuration file.  On success returns 0 and stores the new
// package (not yet linked into ctx) in *out.  On a syntax error returns
// UCI_ERR_PARSE and leaves reason/line/byte in ctx->pctx.
int parse_file(struct uci_context *ctx, std::string_view data, std::string_view name,
               struct uci_package **out);

// Calls use(word, arg) with the first word of each line of a delta file
// (quotes and escapes resolved, NUL-terminated, writable).  Returns how many
// calls returned true.
int for_each_delta_line(std::string_view data, bool (*use)(char *word, void *arg), void *arg);

// Applies the delta files of p (<dir>/<name> for each dir of the delta search
// path, in order) without recording them.  Returns the number of lines applied.
int apply_delta_files(struct uci_context *ctx, struct uci_package *p);
// Appends p's recorded changes to <savedir>/<name> and forgets them.
int save_changes(struct uci_context *ctx, struct uci_package *p);
// Empties <savedir>/<name> (left in place) once its lines are in the file.
int truncate_saved_changes(struct uci_context *ctx, struct uci_package *p);

} // namespace uci_internal

#endif
