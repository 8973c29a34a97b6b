#!/usr/bin/env python3
"""Checks that the daemon sources use nothing of compat/ beyond the public API of
the real libubox (uloop, list.h) and libuci headers.

The public API is the allow-list in platform_api.txt (names of types, members,
constants, functions and macros of <libubox/uloop.h>, <libubox/list.h> and
<uci.h>).  Two rules:

 1. Every identifier that compat/include declares and src/ uses must be on the
    allow-list: an extra helper, constant or struct member of our layer would
    build here and fail against the real headers on OpenWrt.
 2. Every uloop_/ULOOP_/uci_/UCI_ identifier that src/ uses must be on the
    allow-list or be defined in src/ itself (the daemon's own names).

Usage: platform_api.py <source root>      check src/ against compat/include
       platform_api.py --self-test        prove that both rules can fail
Exit status 0 when clean, 1 with one line per offending use.
"""
import os
import re
import sys
import tempfile

IDENT = re.compile(r"\b[A-Za-z_][A-Za-z0-9_]*\b")
LIBRARY_NAME = re.compile(r"(?:uloop|ULOOP|uci|UCI|list|LIST|INIT_LIST|container_of|USE_)")
PREFIXED = re.compile(r"\b(?:uloop|ULOOP|uci|UCI)_[A-Za-z0-9_]*\b")
# Words a header uses that are the language's, not the library's.
NOT_DECLARATIONS = {
    "if", "for", "while", "switch", "return", "sizeof", "offsetof", "typeof",
    "defined", "struct", "enum", "union", "const", "static", "inline", "extern",
    "void", "int", "char", "bool", "unsigned", "long", "short", "signed",
    "uint8_t", "uint16_t", "uint32_t", "uint64_t", "int64_t", "size_t", "do",
}


def strip_comments(text):
    text = re.sub(r"^[ \t]*#[ \t]*include[^\n]*", " ", text, flags=re.M)
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    return re.sub(r'"(?:\\.|[^"\\])*"', '""', text)


def read(path):
    with open(path, encoding="utf-8", errors="replace") as f:
        return f.read()


def source_files(root, exts):
    for dirpath, _, names in os.walk(root):
        for n in sorted(names):
            if n.endswith(exts):
                yield os.path.join(dirpath, n)


def drop_function_bodies(text):
    """Replaces the body of every inline function with ';' so that the calls
    made inside it do not count as declarations."""
    out, i = [], 0
    for m in re.finditer(r"\)\s*\{", text):
        if m.start() < i:
            continue
        depth, j = 0, m.end() - 1
        while j < len(text):
            depth += {"{": 1, "}": -1}.get(text[j], 0)
            if depth == 0:
                break
            j += 1
        out.append(text[i:m.start() + 1] + ";")
        i = j + 1
    out.append(text[i:])
    return "".join(out)


def header_declarations(text):
    """Names a header declares: macros, tags, typedefs, functions, variables,
    enum constants and struct members (not parameter names)."""
    text = strip_comments(text)
    names = set(re.findall(r"^\s*#\s*define\s+(\w+)", text, flags=re.M))
    body = re.sub(r"^[ \t]*#[^\n]*(?:\\\n[^\n]*)*", " ", text, flags=re.M)
    body = drop_function_bodies(body)
    names |= set(re.findall(r"\(\s*\*\s*(\w+)\s*\)\s*\(", body))  # function pointers
    names |= set(re.findall(r"(\w+)\s*\(", body))  # functions
    while True:  # parameter lists go, innermost first
        shorter = re.sub(r"\(([^()]*)\)", lambda m: "()" if "*" not in m.group(1) or "," in
                         m.group(1) or " " in m.group(1).strip() else m.group(0), body)
        shorter = re.sub(r"\((?![()]*\))[^()]*\)", "()", shorter)
        if shorter == body:
            break
        body = shorter
    names |= set(re.findall(r"\b(?:struct|enum|union)\s+(\w+)", body))
    names |= set(re.findall(r"(\w+)\s*(?:\[[^\]]*\])?\s*[;,=}]", body))  # members, constants
    return {n for n in names if n not in NOT_DECLARATIONS and not n.startswith("__")
            and not n.isdigit()}


def struct_bodies(text):
    """The text inside the braces of every struct, class or union definition."""
    for m in re.finditer(r"\b(?:struct|class|union)\s+\w*\s*(?::[^{;]*)?\{", text):
        depth, j = 0, m.end() - 1
        while j < len(text):
            depth += {"{": 1, "}": -1}.get(text[j], 0)
            if depth == 0:
                break
            j += 1
        yield text[m.end():j]


def project_definitions(texts):
    """Names src/ defines itself (macros, tags, functions, variables) and the
    members of its own records."""
    names, members = set(), set()
    for text in texts:
        text = strip_comments(text)
        names |= set(re.findall(r"^\s*#\s*define\s+(\w+)", text, flags=re.M))
        names |= set(re.findall(r"\b(?:struct|enum|union)\s+(\w+)\s*\{", text))
        # A definition or declaration: a type word, then the name, then ( [ = ;
        names |= set(re.findall(r"\b\w+[\s*&]+(\w+)\s*(?:\(|\[|=|;)", text))
        for body in struct_bodies(text):
            members |= set(re.findall(r"(\w+)\s*(?:\[[^\]]*\])?\s*(?:=[^;]*)?;", body))
    return names, members


def load_allow_list(path):
    names = set()
    for line in read(path).splitlines():
        line = line.split("#", 1)[0].strip()
        if line:
            names.add(line)
    return names


def check(root, allow):
    compat = set()
    for h in source_files(os.path.join(root, "compat", "include"), (".h",)):
        compat |= header_declarations(read(h))
    files = list(source_files(os.path.join(root, "src"), (".h", ".cpp", ".c")))
    texts = {f: read(f) for f in files}
    own, own_members = project_definitions(texts.values())
    own -= compat
    problems = []
    for f in files:
        code = strip_comments(texts[f])
        rel = os.path.relpath(f, root)
        for lineno, line in enumerate(code.splitlines(), 1):
            # Library-named declarations count wherever they are used; other
            # compat names (struct members such as buf or err) only where
            # they are reached through . or -> and are no member of our own.
            used = {n for n in IDENT.findall(line) if LIBRARY_NAME.match(n)}
            used |= {n for n in re.findall(r"(?:\.|->)\s*(\w+)", line) if n not in own_members}
            for name in sorted(used):
                if name in compat and name not in allow:
                    problems.append(f"{rel}:{lineno}: {name} is declared by compat/ but is "
                                    "not in the real headers' public API")
            for name in set(PREFIXED.findall(line)):
                if name not in allow and name not in own and name not in compat:
                    problems.append(f"{rel}:{lineno}: {name} is neither public API of the "
                                    "real headers nor defined in src/")
    return sorted(set(problems))


def self_test(allow_path):
    allow = load_allow_list(allow_path)
    with tempfile.TemporaryDirectory() as tmp:
        os.makedirs(os.path.join(tmp, "compat", "include", "libubox"))
        os.makedirs(os.path.join(tmp, "src", "core"))
        with open(os.path.join(tmp, "compat", "include", "libubox", "uloop.h"), "w") as f:
            f.write("struct uloop_fd { uloop_fd_handler cb; int fd; int lp_extra_member; };\n"
                    "int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);\n"
                    "int uloop_fd_count(void);\n#define ULOOP_READ (1 << 0)\n")
        with open(os.path.join(tmp, "src", "core", "ok.cpp"), "w") as f:
            f.write("#define UCI_OWN_BUF 64\nstatic int uci_own_helper(int a);\n"
                    "int g(uloop_fd *u) { return uloop_fd_add(u, ULOOP_READ) + u->fd\n"
                    "  + uci_own_helper(UCI_OWN_BUF); }\n")
        clean = check(tmp, allow)
        expected_clean = []
        with open(os.path.join(tmp, "src", "core", "bad.cpp"), "w") as f:
            f.write("int h(uloop_fd *u) { return uloop_fd_count() + u->lp_extra_member\n"
                    "  + uci_hidden_call(); }\n")
        bad = check(tmp, allow)
    expected_bad = [
        "src/core/bad.cpp:1: lp_extra_member is declared by compat/ but is not in the real "
        "headers' public API",
        "src/core/bad.cpp:1: uloop_fd_count is declared by compat/ but is not in the real "
        "headers' public API",
        "src/core/bad.cpp:2: uci_hidden_call is neither public API of the real headers nor "
        "defined in src/",
    ]
    ok = clean == expected_clean and bad == expected_bad
    if not ok:
        print("self-test failed\nclean tree gave:", *clean, "bad tree gave:", *bad, sep="\n  ")
    return 0 if ok else 1


def main(argv):
    allow_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "platform_api.txt")
    if len(argv) == 2 and argv[1] == "--self-test":
        return self_test(allow_path)
    if len(argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    problems = check(argv[1], load_allow_list(allow_path))
    for p in problems:
        print(p)
    if not problems:
        print("src/ uses only the public API of libubox and libuci")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
