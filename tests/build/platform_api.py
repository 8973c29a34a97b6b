#!/usr/bin/env python3
"""The daemon sources use nothing of compat/ beyond the public API of the real
libubox (uloop, list.h) and libuci headers, the allow-list platform_api.txt:
 1. every name compat/include declares and src/ uses is on the allow-list (an
    extra helper or member of our layer builds here, fails on OpenWrt);
 2. every uloop_/ULOOP_/uci_/UCI_ name src/ uses is on it or defined in src/.
Usage: platform_api.py <source root> | --self-test (both rules can fail)."""
import os, re, sys, tempfile

IDENT = re.compile(r"\b[A-Za-z_]\w*\b")
LIBRARY_NAME = re.compile(r"(?:uloop|ULOOP|uci|UCI|list|LIST|INIT_LIST|container_of|USE_)")
PREFIXED = re.compile(r"\b(?:uloop|ULOOP|uci|UCI)_\w*\b")
KEYWORDS = set("if for while switch return sizeof offsetof typeof defined struct enum union const static "
               "inline extern void int char bool unsigned long short signed uint8_t uint16_t uint32_t "
               "uint64_t int64_t size_t do".split())
DEFINE = re.compile(r"^\s*#\s*define\s+(\w+)", re.M)


def strip(text):  # includes, comments and string contents go
    text = re.sub(r"^[ \t]*#[ \t]*include[^\n]*", " ", text, flags=re.M)
    text = re.sub(r"/\*.*?\*/|//[^\n]*", " ", text, flags=re.S)
    return re.sub(r'"(?:\\.|[^"\\])*"', '""', text)


def read(path):
    return open(path, encoding="utf-8", errors="replace").read()


def files(root, exts):
    return [os.path.join(d, n) for d, _, ns in sorted(os.walk(root)) for n in sorted(ns) if n.endswith(exts)]


def braced(text, start):  # index of the brace closing the one at start
    depth = 0
    for j in range(start, len(text)):
        depth += {"{": 1, "}": -1}.get(text[j], 0)
        if not depth:
            return j
    return len(text)


def declarations(text):  # macros, tags, types, functions, variables, constants, members
    text = strip(text)
    names = set(DEFINE.findall(text))
    body, out, i = re.sub(r"^[ \t]*#[^\n]*(?:\\\n[^\n]*)*", " ", text, flags=re.M), [], 0
    for m in re.finditer(r"\)\s*\{", body):  # inline function bodies become ';'
        if m.start() >= i:
            out.append(body[i:m.start() + 1] + ";")
            i = braced(body, m.end() - 1) + 1
    body = "".join(out) + body[i:]
    names |= set(re.findall(r"\(\s*\*\s*(\w+)\s*\)\s*\(", body)) | set(re.findall(r"(\w+)\s*\(", body))
    while True:  # parameter lists go, innermost first
        shorter = re.sub(r"\(([^()]*)\)", lambda m: "()" if "*" not in m.group(1) or "," in m.group(1)
                         or " " in m.group(1).strip() else m.group(0), body)
        shorter = re.sub(r"\((?![()]*\))[^()]*\)", "()", shorter)
        if shorter == body:
            break
        body = shorter
    names |= set(re.findall(r"\b(?:struct|enum|union)\s+(\w+)", body))
    names |= set(re.findall(r"(\w+)\s*(?:\[[^\]]*\])?\s*[;,=}]", body))
    return {n for n in names if n not in KEYWORDS and not n.startswith("__") and not n.isdigit()}


def own_names(texts):  # what src/ defines, and the members of its own records
    names, members = set(), set()
    for text in map(strip, texts):
        names |= set(DEFINE.findall(text)) | set(re.findall(r"\b(?:struct|enum|union)\s+(\w+)\s*\{", text))
        names |= set(re.findall(r"\b(?!return\b|case\b|else\b)[A-Za-z_]\w*(?:\s|\*|&(?!&))+(\w+)\s*[(\[=;]", text))
        for m in re.finditer(r"\b(?:struct|class|union)\s+\w*\s*(?::[^{;]*)?\{", text):
            body = text[m.end():braced(text, m.end() - 1)]
            members |= set(re.findall(r"(\w+)\s*(?:\[[^\]]*\])?\s*(?:=[^;]*)?;", body))
    return names, members


def check(root, allow):
    compat = set().union(*map(declarations, map(read, files(os.path.join(root, "compat", "include"), ".h"))))
    texts = {f: read(f) for f in files(os.path.join(root, "src"), (".h", ".cpp", ".c"))}
    own, members = own_names(texts.values())
    own -= compat
    problems = set()
    for f, text in texts.items():
        for n, line in enumerate(strip(text).splitlines(), 1):
            # Other compat names (members such as buf) count after . or -> when no member of ours.
            used = {w for w in IDENT.findall(line) if LIBRARY_NAME.match(w)}
            used |= {w for w in re.findall(r"(?:\.|->)\s*(\w+)", line) if w not in members}
            at = f"{os.path.relpath(f, root)}:{n}: "
            problems |= {at + w + " is declared by compat/ but is not in the real headers' public API"
                         for w in used if w in compat and w not in allow}
            problems |= {at + w + " is neither public API of the real headers nor defined in src/"
                         for w in PREFIXED.findall(line) if w not in allow | own | compat}
    return sorted(problems)


def self_test(allow):
    with tempfile.TemporaryDirectory() as tmp:
        def put(path, text):
            os.makedirs(os.path.dirname(os.path.join(tmp, path)), exist_ok=True)
            open(os.path.join(tmp, path), "w").write(text)
        put("compat/include/libubox/uloop.h", "struct uloop_fd { uloop_fd_handler cb; int fd; int lp_extra_member; };\n"
            "int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);\nint uloop_fd_count(void);\n"
            "#define ULOOP_READ (1 << 0)\n")
        put("src/core/ok.cpp", "#define UCI_OWN_BUF 64\nstatic int uci_own_helper(int a);\nint g(uloop_fd *u) "
            "{ return uloop_fd_add(u, ULOOP_READ) + u->fd\n  + uci_own_helper(UCI_OWN_BUF); }\n")
        clean = check(tmp, allow)
        put("src/core/bad.cpp", "int h(uloop_fd *u) { return uloop_fd_count() + u->lp_extra_member\n"
            "  && uci_hidden_call(); }\nint k() { return uci_other_call(); }\n")
        bad = check(tmp, allow)
    pub = " is declared by compat/ but is not in the real headers' public API"
    want = [f"src/core/bad.cpp:1: {w}{pub}" for w in ("lp_extra_member", "uloop_fd_count")] + [
        f"src/core/bad.cpp:{n}: uci_{w}_call is neither public API of the real headers nor defined in src/"
        for n, w in ((2, "hidden"), (3, "other"))]
    ok = (clean, bad) == ([], want)
    print("self-test:", "ok" if ok else f"FAILED\nclean tree: {clean}\nbad tree: {bad}")
    return 0 if ok else 1


def main(argv):
    allow = {l.split("#", 1)[0].strip() for l in read(os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                                   "platform_api.txt")).splitlines()} - {""}
    if argv[1:] == ["--self-test"]:
        return self_test(allow)
    if len(argv) != 2:
        sys.exit(__doc__)
    problems = check(argv[1], allow)
    print("\n".join(problems) or "src/ uses only the public API of libubox and libuci")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
