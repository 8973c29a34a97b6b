// The configuration file parser: exact uci_perror text for every syntax error,
// the accepted grammar, anonymous section names, merges, and hostile files.
#include <algorithm>
#include <string>
#include <vector>

#include <uci.h>

#include "unit/test_uci_helpers.h"

namespace {

using uci_test::capture_stderr;
using uci_test::TempDir;

// "type name{opt=value;lst=[a,b]} ..." for a whole package, in list order.
std::string dump(struct uci_package *p)
{
    std::string out;
    struct uci_element *se;
    uci_foreach_element(&p->sections, se)
    {
        struct uci_section *s = uci_to_section(se);
        if (!out.empty())
            out += ' ';
        out += std::string(s->type) + ' ' + se->name + (s->anonymous ? "*" : "") + '{';
        struct uci_element *oe;
        bool first = true;
        uci_foreach_element(&s->options, oe)
        {
            struct uci_option *o = uci_to_option(oe);
            out += first ? "" : ";";
            first = false;
            out += std::string(oe->name) + '=';
            if (o->type == UCI_TYPE_STRING) {
                out += o->v.string;
                continue;
            }
            out += '[';
            struct uci_element *ie;
            bool first_item = true;
            uci_foreach_element(&o->v.list, ie)
            {
                out += first_item ? "" : ",";
                first_item = false;
                out += ie->name;
            }
            out += ']';
        }
        out += '}';
    }
    return out;
}

struct LoadResult {
    int rc;
    std::string dumped; // package on success
    std::string perror; // uci_perror(ctx, "f") on failure
};

LoadResult load_text(const std::string &text)
{
    TempDir dir;
    dir.write("f", text);
    struct uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, dir.path().c_str());
    struct uci_package *p = nullptr;
    LoadResult r;
    r.rc = uci_load(ctx, "f", &p);
    if (r.rc == UCI_OK) {
        r.dumped = dump(p);
    } else {
        EXPECT_EQ(p, nullptr) << "a failed load hands back no package";
        EXPECT_TRUE(uci_list_empty(&ctx->root)) << "a failed load adds nothing to the context";
        r.perror = capture_stderr([&] { uci_perror(ctx, "f"); });
    }
    uci_free_context(ctx);
    return r;
}

struct ErrorCase {
    const char *text;
    const char *perror;
};

const ErrorCase error_cases[] = {
    {"config a x\n\toption o 1\n\tfoo bar\n", "f: Parse error (invalid command) at line 3, byte 1\n"},
    {"config a x\n\toption o \"unterminated\n", "f: Parse error (EOF with unterminated \") at line 2, byte 24\n"},
    {"config a x\n\toption o 'unterminated\n", "f: Parse error (EOF with unterminated ') at line 2, byte 24\n"},
    {"config\n", "f: Parse error (invalid command) at line 1, byte 0\n"},
    {"config", "f: Parse error (config without name) at line 0, byte 0\n"},
    {"config \n", "f: Parse error (insufficient arguments) at line 1, byte 8\n"},
    {"config '' x\n", "f: Parse error (insufficient arguments) at line 1, byte 10\n"},
    {"config a b c\n", "f: Parse error (too many arguments) at line 1, byte 13\n"},
    {"config a b-c\n", "f: Parse error (invalid character in name field) at line 1, byte 13\n"},
    {"config 'a b' x\n", "f: Parse error (invalid character in type field) at line 1, byte 13\n"},
    {"\toption x 1\n", "f: Parse error (option/list command found before the first section) at line 1, byte 1\n"},
    {"config a x\n\toption o-p 1\n", "f: Parse error (invalid character in name field) at line 2, byte 12\n"},
    {"config a x\n\toption\n", "f: Parse error (invalid command) at line 2, byte 1\n"},
    {"config a x\n\toption \n", "f: Parse error (insufficient arguments) at line 2, byte 9\n"},
    {"config a x\n\toption o 1 2\n", "f: Parse error (too many arguments) at line 2, byte 14\n"},
    {"config a x\nconfig b x\n",
     "f: Parse error (section of different type overwrites prior section with same name) at line 2, byte 11\n"},
    {"package \"bad name\"\n", "f: Parse error (invalid character in name field) at line 1, byte 19\n"},
    {"config a x\n\toption o 1\n  bogus", "f: Parse error (invalid command) at line 2, byte 2\n"},
    {"\n\nconfig a x\n\t\toption o \"abc\" def\n", "f: Parse error (too many arguments) at line 4, byte 21\n"},
    {"config a x\n\toption o \"a\nb\nc\n\tfoo bar\n", "f: Parse error (EOF with unterminated \") at line 5, byte 26\n"},
    {"Config a x\n", "f: Parse error (invalid command) at line 1, byte 0\n"},
    {"config a x\n\toption o 'v' ;\n", "f: Parse error (invalid command) at line 2, byte 15\n"},
    // keywords as the very last text of a file without a final newline
    {"package", "f: Parse error (package without name) at line 0, byte 0\n"},
    {"config a x\n\toption", "f: Parse error (option without name) at line 1, byte 1\n"},
    // truncated inside quotes with no final newline: the offset is the end of the file
    {"config a x\n\toption o 'abc", "f: Parse error (EOF with unterminated ') at line 1, byte 14\n"},
    {"config a x\n\toption o \"ab\\", "f: Parse error (EOF with unterminated \") at line 1, byte 14\n"},
    {"config a x\n\tlist\tl-x y\n", "f: Parse error (invalid character in name field) at line 2, byte 10\n"},
    {"config a\nconfig\tb\x01 x\n", "f: Parse error (invalid character in type field) at line 2, byte 10\n"},
    {"c a\n\xff\xfe binary\n", "f: Parse error (invalid command) at line 2, byte 0\n"},
    {"package '' \n", "f: Parse error (insufficient arguments) at line 1, byte 11\n"},
};

TEST(UciParse, SyntaxErrorsFailTheLoadWithExactPosition)
{
    for (const ErrorCase &c : error_cases) {
        LoadResult r = load_text(c.text);
        EXPECT_EQ(r.rc, UCI_ERR_PARSE) << c.text;
        EXPECT_EQ(r.perror, c.perror) << c.text;
    }
}

struct GoodCase {
    const char *text;
    const char *dumped;
};

const GoodCase good_cases[] = {
    {"", ""},
    {"\n  \n# only a comment\n", ""},
    {"package network\nconfig interface 'lan'\n\toption ifname 'eth0 eth1'\n",
     "interface lan{ifname=eth0 eth1}"},
    // quoting and escapes
    {"config t s\n\toption b \"dq \\\"x\\\" \\\\ \\n \\t $y\"\n", "t s{b=dq \"x\" \\ n t $y}"},
    {"config t s\n\toption c 'sq \\n \"x\" # not comment'\n", "t s{c=sq \\n \"x\" # not comment}"},
    {"config t s\n\toption e \"multi\nline\"\n", "t s{e=multi\nline}"},
    {"config t s\n\toption f cont\\\ninued\n", "t s{f=continued}"},
    {"config t s\n\toption u 'it'\\''s'\n", "t s{u=it's}"},
    {"config t s\n\toption\tt\tv\n", "t s{t=v}"},
    {"c short\n", "short cfg01f0d5*{}"},
    {"config t s\n\toption w 'ab'cd\"ef\"gh\n", "t s{w=abcdefgh}"},
    {"config t s\n\toption h a#b\n", "t s{h=a}"},
    {"config t s\n\toption d \"a\\\nb\"\n", "t s{d=ab}"},
    {"config t s\r\n\toption crlf v\r\n", "t s{crlf=v}"},
    {"config t s\n\toption n '\xc3\xa9t\xc3\xa9'\n", "t s{n=\xc3\xa9t\xc3\xa9}"},
    // ';' between commands, and its quirk after an unquoted word
    {"config t s\n\toption a 'x'; option b 'y'\n", "t s{a=x;b=y}"},
    {"config t s\n\toption a x ; option b y\n", "t s{a=x;b=y}"},
    {"config t s\n\toption a x; option b y\n", "t s{a=x}"},
    // one-letter commands, names starting with digits
    {"c t 1x\n\to 9 v\n\tl L a\n\tl L b\n", "t 1x{9=v;L=[a,b]}"},
    // empty values: option ignored (earlier value stays), list gets an empty item
    {"config t s\n\toption a 1\n\toption a ''\n\toption a\n\tlist l ''\n", "t s{a=1;l=[]}"},
    // redefinitions: in place; string -> list [old, new]; list -> string
    {"config t s\n\toption a 1\n\toption b 2\n\toption a 3\n", "t s{a=3;b=2}"},
    {"config t s\n\toption a 1\n\tlist a 2\n", "t s{a=[1,2]}"},
    {"config t s\n\tlist a 1\n\tlist a 2\n\toption a 3\n", "t s{a=3}"},
    // a repeated name of the same type merges into the first, keeping its place
    {"config t a\n\toption x 1\nconfig t b\nconfig t a\n\toption x 2\n\toption y 3\n", "t a{x=2;y=3} t b{}"},
    {"config t ''\n", "t cfg01b619*{}"},
};

TEST(UciParse, AcceptedGrammarBuildsThePackage)
{
    for (const GoodCase &c : good_cases) {
        LoadResult r = load_text(c.text);
        EXPECT_EQ(r.rc, UCI_OK) << c.text << " -> " << r.perror;
        EXPECT_EQ(r.dumped, c.dumped) << c.text;
    }
}

// cfg + %02x running section count + %04x low bits of djb2(type).
TEST(UciParse, AnonymousSectionNames)
{
    LoadResult r = load_text("config switch\nconfig switch_port\n\toption port 1\nconfig switch_port\n"
                             "config interface named\nconfig interface\n");
    EXPECT_EQ(r.rc, UCI_OK);
    EXPECT_EQ(r.dumped, "switch cfg013777*{} switch_port cfg02e37b*{port=1} switch_port cfg03e37b*{} "
                        "interface named{} interface cfg056d96*{}");

    // The count is hex with at least two digits: the 10th and 256th sections.
    std::string text;
    for (int i = 0; i < 256; i++)
        text += "config switch\n";
    r = load_text(text);
    ASSERT_EQ(r.rc, UCI_OK);
    EXPECT_NE(r.dumped.find("cfg093777*"), std::string::npos);
    EXPECT_NE(r.dumped.find("cfg0a3777*"), std::string::npos);
    EXPECT_NE(r.dumped.find("cfg1003777*"), std::string::npos);
}

TEST(UciParse, MissingFileOrDirectoryIsEntryNotFound)
{
    TempDir dir;
    ASSERT_EQ(mkdir(dir.file("adir").c_str(), 0755), 0);
    for (const char *name : {"nosuch", "adir"}) {
        struct uci_context *ctx = uci_alloc_context();
        uci_set_confdir(ctx, dir.path().c_str());
        struct uci_package *p = nullptr;
        EXPECT_EQ(uci_load(ctx, name, &p), UCI_ERR_NOTFOUND);
        EXPECT_EQ(p, nullptr);
        EXPECT_EQ(capture_stderr([&] { uci_perror(ctx, "switch"); }), "switch: Entry not found\n");
        uci_free_context(ctx);
    }
}

// Hostile files: never a crash or an overrun, always a parse error or the value.
TEST(UciParse, HostileFiles)
{
    std::string binary;
    for (int i = 0; i < 4096; i++)
        binary += static_cast<char>((i * 131 + 7) & 0xff);
    LoadResult r = load_text(binary);
    EXPECT_EQ(r.rc, UCI_ERR_PARSE);

    // 1 MiB value on one line, and 1 MiB of lines.
    std::string big(1 << 20, 'v');
    r = load_text("config t s\n\toption o '" + big + "'\n");
    ASSERT_EQ(r.rc, UCI_OK);
    EXPECT_EQ(r.dumped.size(), std::string("t s{o=}").size() + big.size());
    std::string many;
    while (many.size() < (1u << 20))
        many += "config t\n\toption o 'value'\n";
    r = load_text(many);
    EXPECT_EQ(r.rc, UCI_OK);

    // Over-long names are names like any other.
    std::string long_name(5000, 'n');
    r = load_text("config t " + long_name + "\n\toption " + long_name + " x\n");
    EXPECT_EQ(r.rc, UCI_OK);
    EXPECT_EQ(r.dumped, "t " + long_name + "{" + long_name + "=x}");

    // A backslash as the very last byte, a lone quote, a NUL inside a value.
    r = load_text("config t s\n\toption o abc\\");
    EXPECT_EQ(r.rc, UCI_OK);
    EXPECT_EQ(r.dumped, "t s{o=abc}");
    r = load_text("'");
    EXPECT_EQ(r.rc, UCI_ERR_PARSE);
    EXPECT_EQ(r.perror, "f: Parse error (invalid command) at line 0, byte 0\n");
    r = load_text(std::string("config t s\n\toption o 'a\0b'\n", 26));
    EXPECT_EQ(r.rc, UCI_OK);
    EXPECT_EQ(r.dumped, "t s{o=a}");
}

// Files made of the grammar's own special bytes in random order: every one
// either loads or is a parse error, and a parse error names a position
// inside the file.
TEST(UciParse, ShuffledGrammarBytes)
{
    const char alphabet[] = "config option list package c o l p x_1 '\"\\#;\t\n\r -";
    uint32_t seed = 12345;
    int ok = 0, parse = 0;
    for (int round = 0; round < 300; round++) {
        std::string text;
        size_t len = 1 + (round * 7) % 200;
        for (size_t i = 0; i < len; i++) {
            seed = seed * 1103515245u + 12345u;
            text += alphabet[(seed >> 16) % (sizeof(alphabet) - 1)];
        }
        LoadResult r = load_text("config t s\n" + text);
        if (r.rc == UCI_OK) {
            ok++;
            continue;
        }
        ASSERT_EQ(r.rc, UCI_ERR_PARSE) << text;
        parse++;
        unsigned line = 0, byte = 0;
        size_t at = r.perror.find(") at line ");
        ASSERT_NE(at, std::string::npos) << r.perror;
        ASSERT_EQ(sscanf(r.perror.c_str() + at, ") at line %u, byte %u", &line, &byte), 2) << r.perror;
        EXPECT_LE(byte, text.size() + 11) << text;
        EXPECT_LE(line, static_cast<unsigned>(std::count(text.begin(), text.end(), '\n')) + 1) << text;
    }
    EXPECT_GT(ok, 0);
    EXPECT_GT(parse, 0);
}

TEST(UciParse, PerrorTable)
{
    struct uci_context *ctx = uci_alloc_context();
    const char *texts[] = {"Success",     "Out of memory",   "Invalid argument", "Entry not found", "I/O error",
                           "Parse error", "Duplicate entry", "Unknown error",    "Unknown error"};
    for (int code = 0; code <= UCI_ERR_LAST; code++) {
        ctx->err = code;
        EXPECT_EQ(capture_stderr([&] { uci_perror(ctx, "p"); }), std::string("p: ") + texts[code] + "\n");
    }
    ctx->err = -1;
    EXPECT_EQ(capture_stderr([&] { uci_perror(ctx, nullptr); }), "Unknown error\n");
    EXPECT_EQ(capture_stderr([&] { uci_perror(nullptr, "p"); }), "p: Invalid argument\n");
    uci_free_context(ctx);
}

TEST(UciParse, SecondLoadOfAPackageIsDuplicate)
{
    TempDir dir;
    dir.write("network", "config interface lan\n");
    struct uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, dir.path().c_str());
    struct uci_package *p = nullptr, *again = nullptr;
    ASSERT_EQ(uci_load(ctx, "network", &p), UCI_OK);
    EXPECT_EQ(uci_load(ctx, "network", &again), UCI_ERR_DUPLICATE);
    EXPECT_EQ(again, nullptr);
    EXPECT_EQ(uci_lookup_package(ctx, "network"), p);
    ASSERT_EQ(uci_unload(ctx, p), UCI_OK);
    EXPECT_EQ(uci_lookup_package(ctx, "network"), nullptr);
    EXPECT_EQ(ctx->err, UCI_ERR_NOTFOUND);
    ASSERT_EQ(uci_load(ctx, "network", &again), UCI_OK);
    // By path: the package is named after the file.
    struct uci_package *bypath = nullptr;
    EXPECT_EQ(uci_load(ctx, dir.file("network").c_str(), &bypath), UCI_ERR_DUPLICATE);
    EXPECT_EQ(uci_load(ctx, ".hidden", &bypath), UCI_ERR_NOTFOUND);
    EXPECT_EQ(uci_load(ctx, "bad name", &bypath), UCI_ERR_INVAL);
    EXPECT_EQ(uci_unload(ctx, nullptr), UCI_ERR_INVAL);
    uci_free_context(ctx);
}

} // namespace
