#!/bin/sh
# The shipped daemon must run without libstdc++ and must not carry the C++
# exception runtime (one throwing library call drags in ~80 KiB of unwinder
# and demangler).  The symbols are read from the symbol table and the dynamic
# one; a file with neither (a stripped static binary) or that readelf cannot
# read is refused, since nothing could be checked.
#   Usage: check_binary.sh path/to/lanprobe
set -u
bin=$1
dyn=$(readelf -d "$bin" 2>&1) || { echo "FAIL: $bin: readelf cannot read it: $dyn"; exit 1; }
syms=$( (nm "$bin"; nm -D "$bin") 2>/dev/null)
[ -n "$syms" ] || { echo "FAIL: $bin has no symbols to check (stripped?)"; exit 1; }
fail=0
if echo "$dyn" | grep -q 'NEEDED.*libstdc++'; then
    echo "FAIL: $bin needs libstdc++ at run time"; fail=1
fi
if runtime=$(echo "$syms" | grep -E ' (__cxa_throw|__cxa_begin_catch|__cxa_allocate_exception|_Unwind_RaiseException|_Unwind_Resume|__gxx_personality_v0|__gcc_personality_v0)(@.*)?$'); then
    printf 'FAIL: %s carries the C++ exception runtime:\n%s\n' "$bin" "$runtime"; fail=1
fi
[ $fail -eq 0 ] && echo "OK: $bin: $(echo "$dyn" | grep -c NEEDED) NEEDED entries, no libstdc++, no exception runtime"
exit $fail
