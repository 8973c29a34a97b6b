// The configuration file parser, and the reader of delta files, which uses
// the same words.
//
// Lines are read the way the OpenWrt library reads them, as C strings (fgets,
// then the string up to its first NUL):
//  - a physical line ends at its first NUL.  What follows, its LF included, is
//    never seen, so the next physical line continues the cut one, and the cut
//    one is not counted;
//  - a physical line whose first byte is NUL reads as empty, and an empty read
//    ends the read: at the start of a logical line the line is skipped (and
//    not counted), after a cut line it ends the logical line, and in a quote
//    it is the end of the input.
// A logical line (a physical line plus the ones that a NUL, a quote or a
// trailing backslash pulled in) is copied into a buffer.  Error positions are
// byte offsets in that buffer, and the line count only counts physical lines
// that were read up to their LF.
#include <ctype.h>

#include "uci_internal.h"

namespace uci_internal {

namespace {

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

// Lines and words: what configuration and delta files have in common.
class Reader {
public:
    explicit Reader(std::string_view data) : data_(data) {}

    // Reads the next logical line; false at the end of the input.
    bool start_line()
    {
        if (next_ >= data_.size())
            return false;
        buf_.clear();
        pos_ = 0;
        stop_ = Stop::None;
        read_line(); // reads nothing from a line that starts with NUL
        return true;
    }

    // Reads one argument into out.  *present is false when the command has
    // no more arguments (end of line, comment or ';').
    bool next_arg(Buf &out, bool *present)
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

    const char *reason() const { return err_; }
    int line() const { return line_; }
    int byte() const { return err_byte_; }

protected:
    std::string_view data_;
    size_t next_ = 0; // first byte of the input not yet read
    Buf buf_;         // the logical line
    size_t pos_ = 0;  // cursor in buf_
    int line_ = 0;    // physical lines read up to their LF
    Stop stop_ = Stop::None;
    const char *err_ = nullptr;
    int err_byte_ = 0;

    bool at_end() const { return pos_ >= buf_.size(); }
    unsigned char peek() const { return static_cast<unsigned char>(buf_[pos_]); }
    bool oom() const { return buf_.failed(); }

    bool error(const char *reason, size_t at)
    {
        err_ = reason;
        err_byte_ = static_cast<int>(at);
        return false;
    }

    // One read of a line reader that works on C strings: appends physical
    // lines, each up to its first NUL, until one ends in LF or one reads as
    // empty.  False when nothing was appended.
    bool read_line()
    {
        size_t before = buf_.size();
        while (next_ < data_.size()) {
            size_t lf = data_.find('\n', next_);
            size_t end = lf == std::string_view::npos ? data_.size() : lf + 1;
            std::string_view text = sv_slice(data_, next_, end - next_);
            next_ = end;
            text = sv_slice(text, 0, text.find('\0'));
            if (text.empty() || !buf_.append(text))
                break;
            if (text.back() == '\n') {
                line_++;
                break;
            }
        }
        return buf_.size() > before;
    }

    bool push(Buf &out, char c) { return out.push(c) || error(ERR_OOM, pos_); }

    bool read_word(Buf &out)
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

    // The next character inside quotes, reading on at the end of the line.
    bool quoted_char(char *c, const char *eof_reason)
    {
        if (at_end() && !read_line())
            return error(oom() ? ERR_OOM : eof_reason, buf_.size());
        *c = buf_[pos_++];
        return true;
    }

    bool read_single_quoted(Buf &out)
    {
        pos_++;
        for (char c;;) {
            if (!quoted_char(&c, ERR_EOF_SQ))
                return false;
            if (c == '\'')
                return true;
            if (!push(out, c))
                return false;
        }
    }

    bool read_double_quoted(Buf &out)
    {
        pos_++;
        for (char c;;) {
            if (!quoted_char(&c, ERR_EOF_DQ))
                return false;
            if (c == '"')
                return true;
            if (c == '\\') {
                if (!quoted_char(&c, ERR_EOF_DQ))
                    return false;
                if (c == '\n')
                    continue; // backslash-newline joins the lines, dropping both
            }
            if (!push(out, c))
                return false;
        }
    }

    // Unquoted text up to white space, a quote, ';' or '#'.
    bool read_unquoted(Buf &out)
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
                if (n == '\r' && pos_ + 1 < buf_.size() && buf_[pos_ + 1] == '\n')
                    pos_++, n = '\n';
                if (n == '\n') {
                    // Continuation: the next physical line joins this one.
                    pos_++;
                    if (!read_line() && oom())
                        return error(ERR_OOM, pos_);
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
};

// The configuration file grammar on top of the reader.
class Parser : public Reader {
public:
    Parser(std::string_view data, struct uci_package *pkg)
        : Reader(data), pkg_(pkg)
    {
    }

    // 0, or UCI_ERR_PARSE / UCI_ERR_MEM with the reason recorded.
    int run()
    {
        while (start_line()) {
            if (oom() || !parse_line())
                return oom() || err_ == ERR_OOM ? UCI_ERR_MEM : UCI_ERR_PARSE;
        }
        return UCI_OK;
    }

private:
    struct uci_package *pkg_;
    struct uci_section *cur_ = nullptr;
    Buf word_;
    Buf word2_;

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
        Keyword kw = keyword_of(sv_slice(buf_.view(), start, pos_ - start));
        if (kw == Keyword::None)
            return error(ERR_INVALID_COMMAND, start);
        if (at_end()) {
            // The keyword is the last text of the input as C strings read it.
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

    // Required argument: missing or empty is "insufficient arguments".
    bool required_arg(Buf &out)
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
        Buf extra;
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

int for_each_delta_line(std::string_view data, bool (*use)(char *word, void *arg), void *arg)
{
    Reader reader(data);
    Buf word;
    int used = 0;
    while (reader.start_line()) {
        // One word per line; a line whose word does not read is skipped.
        bool present;
        if (reader.next_arg(word, &present) && present && word.push('\0') && use(word.data(), arg))
            used++;
    }
    return used;
}

} // namespace uci_internal
