#!/bin/sh
# Cross-builds the daemon and its unit tests for the router architectures and
# runs the tests that need no namespaces under qemu-user.
#
#   scripts/cross.sh aarch64|mips|all [--no-test]
#
# aarch64: Debian's aarch64-linux-gnu cross compiler, json-c and GoogleTest
#          for arm64 from the archive through multiarch.
# mips:    big-endian 32-bit MIPS (mips-linux-gnu).  Debian 12 has no mips
#          (big-endian) archive, so json-c is built from Debian's source
#          package and GoogleTest from /usr/src/googletest into a stage that
#          is kept and reused.
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

usage() { echo "usage: $0 aarch64|mips|all [--no-test]" >&2; exit 2; }
[ $# -ge 1 ] || usage
what=$1; shift
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
