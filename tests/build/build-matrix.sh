#!/bin/sh
# Builds lanprobe with warnings as errors in every build type (Debug, Release,
# RelWithDebInfo, MinSizeRel) and prints one line per combination:
#   native (default)  the daemon and compat/ with gcc and clang
#   cross             the same with the aarch64 and mips cross compilers
#                     (installed by scripts/cross.sh's dependency steps)
#   whole             the whole tree (tests, benchmarks) with gcc and clang
#
#   tests/build/build-matrix.sh [native] [cross] [whole]
#
# Each combination is built from scratch in $LANPROBE_MATRIX_DIR/<part>-<cc>-
# <type> (default build-matrix/), its output in build.log there; it fails
# when the build fails or its output holds any warning (CMake's and the
# linker's included, which -Werror does not turn into errors).
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
out=${LANPROBE_MATRIX_DIR:-$top/build-matrix}
ok=0 failed=0 started=$(date +%s)

combo() {   # part label type dir cmake-args...: one build from scratch, one line
    part=$1 label=$2 type=$3 dir=$4
    shift 4
    rm -rf "$dir" && mkdir -p "$dir"
    t0=$(date +%s)
    if cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DLANPROBE_WERROR=ON "$@" > "$dir/build.log" 2>&1 &&
        cmake --build "$dir" -j "${LANPROBE_MATRIX_JOBS:-2}" -- -k 0 >> "$dir/build.log" 2>&1 &&
        ! grep -Eq 'warning:|CMake Warning' "$dir/build.log"; then
        result=ok ok=$((ok + 1)) first=
    else
        result=FAIL failed=$((failed + 1))
        first="  first: $(grep -E -m1 'warning:|error:|CMake (Warning|Error)' "$dir/build.log" | sed "s|$top/||g") (log: ${dir#"$top"/}/build.log)"
    fi
    printf '%-6s  %-28s  %-14s  %-4s  %4s s%s\n' "$part" "$label" "$type" "$result" "$(($(date +%s) - t0))" "$first"
}

each_type() {   # part label dir-prefix cmake-args...
    p=$1 l=$2 d=$3
    shift 3
    for type in Debug Release RelWithDebInfo MinSizeRel; do combo "$p" "$l" "$type" "$d-$type" "$@"; done
}

native() {   # part cmake-args...
    part=$1
    shift
    for cc in gcc clang; do
        cxx=$(echo "$cc" | sed 's/^gcc/g++/; s/^clang/clang++/')
        CC=$cc CXX=$cxx each_type "$part" "$cxx $("$cxx" -dumpversion)" "$out/$part-$cc" "$@"
    done
}

mkdir -p "$out"
for part in ${*:-native}; do
    case $part in
        native) native native -DLANPROBE_BUILD_TESTS=OFF -DLANPROBE_BUILD_BENCH=OFF ;;
        whole) native whole -DLANPROBE_BUILD_TESTS=ON -DLANPROBE_BUILD_BENCH=ON ;;
        cross)
            stage_root=${LANPROBE_CROSS_STAGE:-$top/out/cross}
            . "$top/scripts/cross/common.sh"
            for arch in aarch64 mips; do
                t=$(triplet_of "$arch")
                "deps_$arch" > "$out/deps-$arch.log" 2>&1 || { echo "cross   $t: cannot be installed"; failed=$((failed + 1)); continue; }
                LANPROBE_CROSS_STAGE=$stage_root each_type cross "$t-g++ $("$t-g++" -dumpfullversion)" "$out/cross-$arch" \
                    -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchains/$t.cmake" -DLANPROBE_BUILD_TESTS=OFF -DLANPROBE_BUILD_BENCH=OFF
            done ;;
        *) echo "usage: $0 [native] [cross] [whole]" >&2; exit 2 ;;
    esac
done
echo "build matrix: ${*:-native}: $ok ok, $failed failed, $(($(date +%s) - started)) s"
[ $failed -eq 0 ]
