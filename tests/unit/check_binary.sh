#!/bin/sh
# The shipped daemon must run without libstdc++ and must not carry the C++
# exception runtime (one throwing library call drags in ~80 KiB of unwinder
# and demangler).  Usage: check_binary.sh path/to/lanprobe
set -eu
bin=$1
fail=0
if readelf -d "$bin" | grep -q 'NEEDED.*libstdc++'; then
    echo "FAIL: $bin needs libstdc++ at run time"; fail=1
fi
if runtime=$(nm "$bin" 2>/dev/null | grep -E ' (__cxa_throw|__cxa_begin_catch|__cxa_allocate_exception|_Unwind_RaiseException|_Unwind_Resume|__gxx_personality_v0|__gcc_personality_v0)$'); then
    printf 'FAIL: %s carries the C++ exception runtime:\n%s\n' "$bin" "$runtime"; fail=1
fi
[ $fail -eq 0 ] && echo "OK: $bin: $(readelf -d "$bin" | grep -c NEEDED) NEEDED entries, no libstdc++, no exception runtime"
exit $fail
