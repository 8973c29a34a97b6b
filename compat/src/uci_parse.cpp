// The configuration file parser.  It works on the file's bytes through
// string views and keeps every position as an offset into them, so no line
// or word can overflow a buffer.
//
// A logical line is a contiguous run of the file: a physical line plus the
// ones a quote or a trailing backslash pulled in.  Error positions are given
// as the byte offset within the logical line, and the line count only counts
// physical lines that ended in LF.
#include <ctype.h>

#include "uci_internal.h"

namespace uci_internal {

namespace {

// Growable byte buffer for one argument (escapes make it differ from the file).
class WordBuf {
public:
    WordBuf() = default;
    ~WordBuf() { free(data_); }
    WordBuf(const WordBuf &) = delete;
    WordBuf &operator=(const WordBuf &) = delete;

    void clear() { len_ = 0; }
    bool push(char c)
    {
        if (len_ == cap_) {
            size_t ncap = cap_ ? cap_ * 2 : 64;
            char *n = static_cast<char *>(realloc(data_, ncap));
            if (!n)
                return false;
            data_ = n;
            cap_ = ncap;
        }
        data_[len_++] = c;
        return true;
    }
    std::string_view view() const { return std::string_view(data_ ? data_ : "", len_); }

private:
    char *data_ = nullptr;
    size_t len_ = 0;
    size_t cap_ = 0;
};

enum class Stop {
    None,    // more arguments may follow
    EndCmd,  // a ';' ended the command, another may follow on the line
    EndLine, // comment, or the rest of the line is dropped
};

enum class Keyword { None, Package, Config, Option, List };

constexpr const char ERR_INVALID_COMMAND[] = "invalid command";
constexpr const char ERR_INSUFFICIENT[] = "insufficient arguments";
constexpr const char ERR_TOO_MANY[] = "too many arguments";
constexpr const char ERR_NAME[] = "invalid character in name field";
constexpr const char ERR_TYPE[] = "invalid character in type field";
constexpr const char ERR_EOF_SQ[] = "EOF with unterminated '";
constexpr const char ERR_EOF_DQ[] = "EOF with unterminated \"";
constexpr const char ERR_NO_SECTION[] = "option/list command found before the first section";
constexpr const char ERR_OVERWRITE[] = "section of different type overwrites prior section with same name";
constexpr const char ERR_OOM[] = "out of memory";

bool is_blank(unsigned char c) { return c == ' ' || c == '\t'; }
bool is_space(unsigned char c) { return isspace(c) != 0; }

Keyword keyword_of(std::string_view w)
{
    if (w == "package" || w == "p")
        return Keyword::Package;
    if (w == "config" || w == "c")
        return Keyword::Config;
    if (w == "option" || w == "o")
        return Keyword::Option;
    if (w == "list" || w == "l")
        return Keyword::List;
    return Keyword::None;
}

class Parser {
public:
    Parser(std::string_view data, struct uci_package *pkg)
        : data_(data), pkg_(pkg)
    {
    }

    // 0, or UCI_ERR_PARSE / UCI_ERR_MEM with the reason recorded.
    int run()
    {
        while (start_line()) {
            if (!parse_line())
                return err_ == ERR_OOM ? UCI_ERR_MEM : UCI_ERR_PARSE;
        }
        return UCI_OK;
    }

    const char *reason() const { return err_; }
    int line() const { return line_; }
    int byte() const { return err_byte_; }

private:
    std::string_view data_;
    struct uci_package *pkg_;
    struct uci_section *cur_ = nullptr;

    size_t next_ = 0; // first byte not yet read into a logical line
    size_t ls_ = 0;   // start of the current logical line
    size_t le_ = 0;   // end of what has been read of it
    size_t pos_ = 0;  // cursor, ls_ <= pos_ <= le_
    int line_ = 0;    // physical lines read that ended in LF
    Stop stop_ = Stop::None;

    const char *err_ = nullptr;
    int err_byte_ = 0;
    WordBuf word_;
    WordBuf word2_;

    bool at_end() const { return pos_ >= le_; }
    unsigned char peek() const { return static_cast<unsigned char>(data_[pos_]); }

    bool error(const char *reason, size_t at)
    {
        err_ = reason;
        err_byte_ = static_cast<int>(at - ls_);
        return false;
    }

    // Appends the next physical line to the logical line.
    bool read_physical_line()
    {
        if (next_ >= data_.size())
            return false;
        size_t lf = data_.find('\n', next_);
        if (lf == std::string_view::npos) {
            le_ = data_.size();
        } else {
            le_ = lf + 1;
            line_++;
        }
        next_ = le_;
        return true;
    }

    bool start_line()
    {
        ls_ = pos_ = next_;
        stop_ = Stop::None;
        return read_physical_line();
    }

    bool parse_line()
    {
        while (!at_end() && is_space(peek()))
            pos_++;
        if (at_end() || peek() == '#')
            return true;
        for (;;) {
            if (!parse_command())
                return false;
            if (stop_ != Stop::EndCmd)
                return true;
            // After ';' only blanks are skipped: "x' ;" then the end of the
            // line leaves an empty command, which is an invalid one.
            stop_ = Stop::None;
            while (!at_end() && is_blank(peek()))
                pos_++;
        }
    }

    bool parse_command()
    {
        size_t start = pos_;
        while (!at_end() && !is_blank(peek()))
            pos_++;
        Keyword kw = keyword_of(sv_slice(data_, start, pos_ - start));
        if (kw == Keyword::None)
            return error(ERR_INVALID_COMMAND, start);
        if (at_end()) {
            // The keyword is the last text of a file without a final newline.
            switch (kw) {
            case Keyword::Package:
                return error("package without name", start);
            case Keyword::Config:
                return error("config without name", start);
            default:
                return error("option without name", start);
            }
        }
        pos_++; // the blank after the keyword
        switch (kw) {
        case Keyword::Package:
            return cmd_package();
        case Keyword::Config:
            return cmd_config();
        case Keyword::Option:
        case Keyword::List:
            if (!cur_)
                return error(ERR_NO_SECTION, start);
            return cmd_option(kw == Keyword::List);
        default:
            return error(ERR_INVALID_COMMAND, start);
        }
    }

    // Reads one argument into out.  *present is false when the command has
    // no more arguments (end of line, comment or ';').
    bool next_arg(WordBuf &out, bool *present)
    {
        out.clear();
        *present = false;
        if (stop_ != Stop::None)
            return true;
        while (!at_end() && is_space(peek()))
            pos_++;
        if (at_end())
            return true;
        if (peek() == '#') {
            stop_ = Stop::EndLine;
            return true;
        }
        if (peek() == ';') {
            pos_++;
            stop_ = Stop::EndCmd;
            return true;
        }
        *present = true;
        return read_word(out);
    }

    bool push(WordBuf &out, char c) { return out.push(c) || error(ERR_OOM, pos_); }

    bool read_word(WordBuf &out)
    {
        while (!at_end()) {
            unsigned char c = peek();
            if (c == '\'') {
                if (!read_single_quoted(out))
                    return false;
            } else if (c == '"') {
                if (!read_double_quoted(out))
                    return false;
            } else if (is_space(c)) {
                pos_++; // the word takes the one blank that ends it
                return true;
            } else if (c == ';') {
                pos_++;
                stop_ = Stop::EndCmd;
                return true;
            } else if (c == '#') {
                stop_ = Stop::EndLine;
                return true;
            } else {
                if (!read_unquoted(out))
                    return false;
                if (stop_ != Stop::None)
                    return true;
            }
        }
        return true;
    }

    bool read_single_quoted(WordBuf &out)
    {
        pos_++;
        for (;;) {
            if (at_end() && !read_physical_line())
                return error(ERR_EOF_SQ, le_);
            char c = data_[pos_++];
            if (c == '\'')
                return true;
            if (!push(out, c))
                return false;
        }
    }

    bool read_double_quoted(WordBuf &out)
    {
        pos_++;
        for (;;) {
            if (at_end() && !read_physical_line())
                return error(ERR_EOF_DQ, le_);
            char c = data_[pos_++];
            if (c == '"')
                return true;
            if (c == '\\') {
                if (at_end() && !read_physical_line())
                    return error(ERR_EOF_DQ, le_);
                c = data_[pos_++];
                if (c == '\n')
                    continue; // backslash-newline joins the lines, dropping both
            }
            if (!push(out, c))
                return false;
        }
    }

    // Unquoted text up to white space, a quote, ';' or '#'.
    bool read_unquoted(WordBuf &out)
    {
        while (!at_end()) {
            unsigned char c = peek();
            if (is_space(c) || c == '\'' || c == '"')
                return true;
            if (c == '#') {
                stop_ = Stop::EndLine;
                return true;
            }
            if (c == ';') {
                // A ';' right after unquoted text ends the command and the
                // rest of the line is ignored.
                pos_++;
                stop_ = Stop::EndLine;
                return true;
            }
            pos_++;
            if (c == '\\') {
                if (at_end())
                    return true; // backslash at the end of the input
                unsigned char n = peek();
                if (n == '\r' && pos_ + 1 < le_ && data_[pos_ + 1] == '\n')
                    pos_++, n = '\n';
                if (n == '\n') {
                    // Continuation: the next physical line joins this one.
                    pos_++;
                    read_physical_line();
                    continue;
                }
                c = n;
                pos_++;
            }
            if (!push(out, static_cast<char>(c)))
                return false;
        }
        return true;
    }

    // Required argument: missing or empty is "insufficient arguments".
    bool required_arg(WordBuf &out)
    {
        bool present;
        if (!next_arg(out, &present))
            return false;
        if (!present || out.view().empty())
            return error(ERR_INSUFFICIENT, pos_);
        return true;
    }

    // No further (non-empty) argument may follow.
    bool no_more_args()
    {
        WordBuf extra;
        for (;;) {
            bool present;
            if (!next_arg(extra, &present))
                return false;
            if (!present)
                return true;
            if (!extra.view().empty())
                return error(ERR_TOO_MANY, pos_);
        }
    }

    bool cmd_package()
    {
        if (!required_arg(word_))
            return false;
        if (!valid_package_name(word_.view()))
            return error(ERR_NAME, pos_);
        // Checked, then ignored: the package name comes from the file name.
        return no_more_args();
    }

    bool cmd_config()
    {
        if (!required_arg(word_))
            return false;
        if (!valid_type(word_.view()))
            return error(ERR_TYPE, pos_);
        bool has_name;
        if (!next_arg(word2_, &has_name))
            return false;
        std::string_view name = word2_.view();
        if (!name.empty() && !valid_name(name))
            return error(ERR_NAME, pos_);
        if (!no_more_args())
            return false;

        if (name.empty()) {
            cur_ = section_new(pkg_, word_.view(), {}, true);
            return cur_ || error(ERR_OOM, pos_);
        }
        struct uci_element *e = find_element(&pkg_->sections, name);
        if (e) {
            struct uci_section *s = uci_to_section(e);
            if (word_.view() != s->type)
                return error(ERR_OVERWRITE, pos_);
            cur_ = s; // same name and type: later options merge into it
            return true;
        }
        cur_ = section_new(pkg_, word_.view(), name, false);
        return cur_ || error(ERR_OOM, pos_);
    }

    bool cmd_option(bool is_list)
    {
        if (!required_arg(word_))
            return false;
        if (!valid_name(word_.view()))
            return error(ERR_NAME, pos_);
        bool has_value;
        if (!next_arg(word2_, &has_value))
            return false;
        if (!no_more_args())
            return false;

        std::string_view value = word2_.view();
        struct uci_element *e = find_element(&cur_->options, word_.view());
        struct uci_option *o = e ? uci_to_option(e) : nullptr;
        bool ok = true;
        if (is_list) {
            if (!o)
                ok = (o = option_new_list(cur_, word_.view())) != nullptr;
            else if (o->type == UCI_TYPE_STRING)
                ok = option_string_to_list(o);
            ok = ok && list_append_item(o, value);
        } else if (!value.empty()) {
            // "option x" and "option x ''" leave an earlier value alone.
            ok = o ? option_set_string(o, value) : option_new_string(cur_, word_.view(), value) != nullptr;
        }
        return ok || error(ERR_OOM, pos_);
    }
};

} // namespace

int parse_file(struct uci_context *ctx, std::string_view data, std::string_view name,
               struct uci_package **out)
{
    struct uci_package *pkg = package_new(ctx, name);
    if (!pkg)
        return UCI_ERR_MEM;
    Parser parser(data, pkg);
    int rc = parser.run();
    if (rc != UCI_OK) {
        free_package(pkg);
        auto *pctx = static_cast<struct uci_parse_context *>(calloc(1, sizeof(struct uci_parse_context)));
        if (pctx) {
            pctx->reason = parser.reason();
            pctx->line = parser.line();
            pctx->byte = parser.byte();
        }
        free(ctx->pctx);
        ctx->pctx = pctx;
        return rc;
    }
    *out = pkg;
    return UCI_OK;
}

} // namespace uci_internal
