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
if nm "$bin" 2>/dev/null | grep -Eq ' (__cxa_throw|_Unwind_RaiseException|__gxx_personality_v0)$'; then
    echo "FAIL: $bin carries the C++ exception runtime:"; nm -C "$bin" | grep -E '__cxa_throw|_Unwind_RaiseException|__gxx_personality' ; fail=1
fi
[ $fail -eq 0 ] && echo "OK: $bin: $(readelf -d "$bin" | grep -c NEEDED) NEEDED entries, no libstdc++, no exception runtime"
exit $fail
