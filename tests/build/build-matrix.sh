#!/bin/sh
# Builds lanprobe with warnings as errors (-DLANPROBE_WERROR=ON) for every
# standard build type and compiler and prints one line per combination.
#
#   tests/build/build-matrix.sh [native] [cross] [whole]
#
# native (the default): the daemon and compat/ with gcc and clang, each in
#         Debug, Release, RelWithDebInfo and MinSizeRel.
# cross:  the daemon and compat/ with the aarch64-linux-gnu and mips-linux-gnu
#         cross compilers and the same four build types.  Missing compilers
#         and target libraries are installed by scripts/cross.sh's dependency
#         steps (apt-get, root), which skip whatever is already there.
# whole:  the whole tree (daemon, compat, tests, benchmarks) natively with
#         gcc and clang in the four build types; much slower than native.
#
# Every combination is configured and built from scratch in a build directory
# of its own, $LANPROBE_MATRIX_DIR/<part>-<compiler>-<type> (build-matrix/ in
# the source tree by default), so no warning hides behind an object built
# earlier and two runs with different directories do not meet.  The output of
# a combination goes to build.log in its directory.  A combination fails when
# the build fails or when its output holds any warning (the linker's and
# CMake's are not turned into errors by -Werror).
#
# LANPROBE_MATRIX_COMPILERS lists the native C compilers (default "gcc clang";
# the C++ compiler is derived: gcc-13 -> g++-13, clang-15 -> clang++-15),
# LANPROBE_MATRIX_JOBS the build parallelism (default 2).  Exit status 0 only
# when every combination built without a warning.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
out=${LANPROBE_MATRIX_DIR:-$top/build-matrix}
jobs=${LANPROBE_MATRIX_JOBS:-2}
compilers=${LANPROBE_MATRIX_COMPILERS:-gcc clang}
build_types="Debug Release RelWithDebInfo MinSizeRel"

# A failed build goes on with everything that does not depend on the failed
# step, so one run shows every warning.
generator=""
keep_going="-k"
if command -v ninja >/dev/null 2>&1; then
    generator="-G Ninja"
    keep_going="-k 0"
fi

parts=""
for a in "$@"; do
    case $a in
        native|cross|whole) parts="$parts $a" ;;
        *) echo "usage: $0 [native] [cross] [whole]" >&2; exit 2 ;;
    esac
done
[ -n "$parts" ] || parts=native

ok=0
failed=0
started=$(date +%s)

# report <part> <compiler label> <type> <status> <seconds> [detail]
report() {
    printf '%-6s  %-28s  %-14s  %-4s  %4s s%s\n' "$1" "$2" "$3" "$4" "$5" "${6:+  $6}"
}

# combo <part> <label> <type> <build dir> <cmake args...>:
# configures and builds one combination from scratch and reports it.
combo() {
    part=$1 label=$2 type=$3 dir=$4
    shift 4
    rm -rf "$dir"
    mkdir -p "$dir"
    log="$dir/build.log"
    t0=$(date +%s)
    rc=0
    # shellcheck disable=SC2086
    cmake -S "$top" -B "$dir" $generator -DCMAKE_BUILD_TYPE="$type" -DLANPROBE_WERROR=ON "$@" \
        >"$log" 2>&1 || rc=$?
    if [ $rc -eq 0 ]; then
        # shellcheck disable=SC2086
        cmake --build "$dir" -j "$jobs" -- $keep_going >>"$log" 2>&1 || rc=$?
    fi
    secs=$(($(date +%s) - t0))
    nwarn=$(grep -Ec 'warning:|CMake Warning' "$log" || true)
    if [ $rc -eq 0 ] && [ "$nwarn" -eq 0 ]; then
        report "$part" "$label" "$type" ok "$secs"
        ok=$((ok + 1))
        return 0
    fi
    first=$(grep -E -m1 'warning:|error:|CMake (Warning|Error)' "$log" | sed "s|$top/||g" || true)
    nerr=$(grep -Ec 'error:|CMake Error' "$log" || true)
    if [ $rc -eq 0 ]; then
        detail="$nwarn warning(s), first: $first"
    else
        detail="build failed, $nerr error(s), first: ${first:-see the log}"
    fi
    report "$part" "$label" "$type" FAIL "$secs" "$detail (log: ${log#"$top"/})"
    failed=$((failed + 1))
}

# missing <part> <label> <why>: a compiler the matrix needs is not there.
missing() {
    report "$1" "$2" "-" FAIL 0 "$3"
    failed=$((failed + 1))
}

native_part() {
    part=$1
    shift
    for cc in $compilers; do
        cxx=$(echo "$cc" | sed 's/^gcc/g++/; s/^clang/clang++/')
        if ! command -v "$cc" >/dev/null 2>&1 || ! command -v "$cxx" >/dev/null 2>&1; then
            missing "$part" "$cc" "$cc or $cxx is not installed"
            continue
        fi
        label="$cxx $("$cxx" -dumpfullversion 2>/dev/null || "$cxx" -dumpversion)"
        for type in $build_types; do
            CC=$cc CXX=$cxx combo "$part" "$label" "$type" "$out/$part-$cc-$type" "$@"
        done
    done
}

cross_part() {
    # The dependency steps of scripts/cross.sh install the cross compilers,
    # the target's json-c and uthash (a stage for mips) and skip what is there.
    stage_root=${LANPROBE_CROSS_STAGE:-$top/out/cross}
    export DEBIAN_FRONTEND=noninteractive
    . "$top/scripts/cross/common.sh"
    for arch in aarch64 mips; do
        triplet=$(triplet_of "$arch")
        if ! "deps_$arch" >"$out/deps-$arch.log" 2>&1; then
            missing cross "$triplet" "its compiler or libraries could not be installed (log: ${out#"$top"/}/deps-$arch.log)"
            continue
        fi
        label="$triplet-g++ $("$triplet-g++" -dumpfullversion)"
        for type in $build_types; do
            LANPROBE_CROSS_STAGE="$stage_root" combo cross "$label" "$type" "$out/cross-$arch-$type" \
                -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchains/$triplet.cmake" \
                -DLANPROBE_BUILD_TESTS=OFF -DLANPROBE_BUILD_BENCH=OFF
        done
    done
}

mkdir -p "$out"
for part in $parts; do
    case $part in
        native) native_part native -DLANPROBE_BUILD_TESTS=OFF -DLANPROBE_BUILD_BENCH=OFF ;;
        whole) native_part whole -DLANPROBE_BUILD_TESTS=ON -DLANPROBE_BUILD_BENCH=ON ;;
        cross) cross_part ;;
    esac
done
echo "build matrix:$parts: $ok ok, $failed failed, $(($(date +%s) - started)) s (-j $jobs)"
[ $failed -eq 0 ]
