#!/bin/sh
# Size of the daemon as it would be installed: stripped file size, the
# loadable sections, the shared libraries it needs (NEEDED) and its ten
# largest functions and objects.
#
#   bench/size.sh [BINARY...]        (default: build/lanprobe)
#
# A binary for another architecture is stripped with that architecture's
# binutils (aarch64-linux-gnu-strip, mips-linux-gnu-strip) when present.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
[ $# -gt 0 ] || set -- "$top/build/lanprobe"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

for bin in "$@"; do
    [ -f "$bin" ] || { echo "size: no binary at $bin" >&2; exit 1; }
    prefix=
    case "$(file -b "$bin")" in
        *aarch64*) prefix=aarch64-linux-gnu- ;;
        *MIPS*) prefix=mips-linux-gnu- ;;
    esac
    command -v "${prefix}strip" > /dev/null || prefix=
    cp "$bin" "$tmp/lanprobe"
    "${prefix}strip" "$tmp/lanprobe"
    echo "== $bin"
    echo "   $(file -b "$bin" | cut -d, -f1-2)"
    printf '   unstripped %d bytes, stripped %d bytes (%.1f KiB)\n' \
        "$(stat -c %s "$bin")" "$(stat -c %s "$tmp/lanprobe")" \
        "$(echo "$(stat -c %s "$tmp/lanprobe") / 1024" | bc -l)"
    "${prefix}size" -A "$tmp/lanprobe" | awk '$1 ~ /^\.(text|rodata|data|bss|eh_frame|eh_frame_hdr|dynsym|dynstr|rela\.dyn|gcc_except_table)$/ { printf "   %-18s %8d\n", $1, $2 }'
    needed=$("${prefix}readelf" -d "$tmp/lanprobe" | awk '/NEEDED/ { gsub(/[\[\]]/, "", $5); print $5 }' | tr '\n' ' ')
    echo "   NEEDED: $needed"
    case "$needed" in *libstdc++*) echo "   libstdc++ is NEEDED: it should be linked statically" ;; esac
    echo "   largest symbols:"
    "${prefix}nm" -S --size-sort -C "$bin" 2>/dev/null | tail -n 10 \
        | while read -r _addr sz _kind name; do printf '   %8d %s\n' "$((0x$sz))" "$name"; done | sort -rn
done
