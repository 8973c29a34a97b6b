#!/bin/sh
# Does all set-up on a fresh Debian 12 machine and runs every test (as root):
#   1. the release build's CTest suite: unit, kernel (private namespaces), the
#      lab's end-to-end rows (real DHCP servers, faults, SIGTERM from outside,
#      a hostile LAN, one run under valgrind), the binary footprint check;
#   2. the same suite from an ASan + UBSan build (the lab rows then run the
#      sanitized daemon);
#   3. a short run of every fuzz target;
#   4. the daemon in every build type with gcc and clang, warnings as errors;
#   5. the OpenWrt package recipe run against a staging prefix;
#   6. the daemon and the tests against musl for big-endian MIPS (the router's
#      C library, the byte order that differs), run under qemu-user;
#   7. the lab's rows on virtual routers: the musl daemon on Debian's AArch64
#      and little-endian MIPS kernels under qemu (tests/vm/run.sh).
# Every step runs; the script fails if any step failed.
set -u
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh" || exit 1

passed=0
failed=0
failed_steps=""
step() {
    name=$1
    shift
    echo "==== $name"
    if "$@"; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        failed_steps="$failed_steps $name"
    fi
}

# Three tests at a time: every lab row runs in namespaces of its own and
# mostly waits on the daemon's timers.
release_suite() {
    BUILD_DIR="$top/build" "$top/scripts/build.sh" && (cd "$top/build" && ctest --output-on-failure -j3)
}

step release-suite release_suite
step sanitized-suite bash "$top/tests/sanitized.sh" -j3
step fuzz-short sh "$top/tests/fuzz/run.sh" 8
step build-matrix sh "$top/tests/build/build-matrix.sh" native
step package-check sh "$top/tests/build/package-check.sh" native
step cross-musl-mips sh "$top/scripts/cross.sh" musl mips --root
step vm-aarch64 sh "$top/tests/vm/run.sh" aarch64
step vm-mipsel sh "$top/tests/vm/run.sh" mipsel

[ -z "$failed_steps" ] || echo "failed steps:$failed_steps"
echo "test steps: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
