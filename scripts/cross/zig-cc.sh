#!/bin/sh
# zig's C or C++ compiler for one musl target, in the form CMake wants for
# CMAKE_<LANG>_COMPILER (the stage's bin/cc and bin/c++ call this):
#
#   zig-cc.sh cc|c++ <zig target> <zig cpu or ""> [compiler arguments...]
#
# LANPROBE_ZIG names the zig binary.  zig builds musl, libc++ and compiler-rt
# for the target at the first link that needs them, once for every kind of
# link: its mode follows the link's -O (none: ReleaseFast, -Os:
# ReleaseSmall), and a compile and link in one command turns on LTO, which
# builds them all again as bitcode.  CMake's compiler checks link without -O,
# and its compiler identification compiles and links in one command; the
# builds are MinSizeRel (-Os) and link separately.  With -Os first and
# -fno-lto every link uses the same libraries, built once per target.  A
# later -O on the command line still decides for its own code.
#
# Two things of a GNU link line need help:
# - -static-libstdc++ and -static-libgcc are dropped: zig always links its
#   libc++ and compiler runtime statically and would only warn about them.
# - -Wl,--wrap=SYMBOL and -Wl,--exclude-libs=LIBS are not taken by zig 0.11's
#   linker driver.  Such a link is run as zig runs it (the ld.lld command it
#   prints with -v, through zig's own ld.lld) with those options added.  zig
#   does not cache links, so the command is always printed.  It is split at
#   blanks, so these links need paths without blanks.
set -eu
zig=${LANPROBE_ZIG:?LANPROBE_ZIG names the zig binary}
mode=$1 target=$2 cpu=$3
shift 3
cpu_opt=""
[ -n "$cpu" ] && cpu_opt="-mcpu=$cpu"

lld_opts=""
for a do
    shift
    case $a in
        -static-libstdc++ | -static-libgcc) ;;
        -Wl,--wrap=* | -Wl,--exclude-libs=*) lld_opts="$lld_opts ${a#-Wl,}" ;;
        *) set -- "$@" "$a" ;;
    esac
done

# shellcheck disable=SC2086
[ -z "$lld_opts" ] && exec "$zig" "$mode" -target "$target" $cpu_opt -Os -fno-lto "$@"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
# Without --wrap the link itself may fail (__real_SYMBOL is undefined); only
# the command it prints is wanted.
# shellcheck disable=SC2086
"$zig" "$mode" -target "$target" $cpu_opt -Os -fno-lto -v "$@" 2>"$log" || true
line=$(grep '^ld\.lld ' "$log" | tail -n 1)
if [ -z "$line" ]; then
    cat "$log" >&2
    echo "zig-cc.sh: zig printed no ld.lld command for this link" >&2
    exit 1
fi
set -f
# shellcheck disable=SC2086
"$zig" $line $lld_opts
