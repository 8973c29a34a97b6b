#!/bin/sh
# Cross-builds the daemon and its unit tests for the router architectures and
# runs the tests that need no namespaces under qemu-user.
#
#   scripts/cross.sh aarch64|mips|all [--no-test]
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

usage() {
    echo "usage: $0 aarch64|mips|all [--no-test] | system-libs [native|aarch64|mips] | sizes" >&2
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
