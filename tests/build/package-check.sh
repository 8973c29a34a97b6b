#!/bin/sh
# Builds the OpenWrt package the way the build system does and checks what
# comes out (run as root: missing packages are installed with apt-get).
#
#   tests/build/package-check.sh [native|aarch64|mips|all]...
#
# native (the default) is checked twice, as a release build and as a debug
# build (CONFIG_DEBUG: RelWithDebInfo); aarch64 and mips are release builds
# with Debian's cross compilers (their packages and the mips json-c stage come
# from scripts/cross.sh's dependency steps); all is the three of them.
#
# The recipes packaging/openwrt/lanprobe/Makefile and
# packaging/openwrt/lanprobe-survey/Makefile (each checked in turn, the
# survey's work directory named <variant>-survey) are run by make itself, with
# tests/build/package-check/ standing in for the OpenWrt build tree (rules.mk,
# include/package.mk, include/cmake.mk), so its own Build/Prepare,
# CMAKE_OPTIONS and Package/<name>/install are what run: the sources it
# copies go into a fresh build directory, CMake is configured as OpenWrt's
# CMake support does it (Release with only -DNDEBUG as its flags, the target's
# -Os -pipe and CPU flags, Ninja, the staging directory as the only root for
# headers and libraries, prefix /usr, no rpath), Ninja builds and installs
# with DESTDIR, and the package's file tree is made.  The staging directory
# holds libubox and libuci (compat/ built and installed under the real names,
# scripts/cross/system_libs.sh), the target's json-c and the uthash headers.
#
# Checked, one line each: the build directory holds only what Build/Prepare
# copied; tests and benchmarks are off, the system libraries are used and
# every header and library was found in the staging directory; every compile
# line carries the target's flags and the staged include directory and none
# names compat/; the link used the staged libuci, libubox and json-c;
# usr/sbin/<name> is the only file installed, is executable and is what the
# package contains; the binary is built for the target, needs no libstdc++ and
# carries no exception runtime (tests/build/check_binary.sh); every shared
# library it needs besides the C library is one the recipe's DEPENDS names;
# natively, `lanprobe -h` prints the usage on /dev/console (a file mounted over
# it in a private mount namespace).
#
# Work directories: $LANPROBE_PACKAGE_DIR/<variant> (build-package/ in the
# source tree by default), made afresh on every run; make's output goes to
# make.log there.  Exit status 0 only when every check of every variant passed.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
out=${LANPROBE_PACKAGE_DIR:-$top/build-package}
stage_root=${LANPROBE_CROSS_STAGE:-$top/out/cross}
jobs=${LANPROBE_PACKAGE_JOBS:-2}
recipes="lanprobe lanprobe-survey"
export DEBIAN_FRONTEND=noninteractive

. "$top/scripts/cross/common.sh"
. "$top/scripts/cross/system_libs.sh"
. "$top/tests/build/cross-checks.sh"

variants=""
for a in "$@"; do
    case $a in
        native) variants="$variants native-release native-debug" ;;
        aarch64|mips) variants="$variants $a" ;;
        all) variants="$variants native-release native-debug aarch64 mips" ;;
        *) echo "usage: $0 [native|aarch64|mips|all]..." >&2; exit 2 ;;
    esac
done
[ -n "$variants" ] || variants="native-release native-debug"

failed_variants=""
vfail=0
pass() { echo "  ok    $*"; }
fail() { echo "  FAIL  $*"; vfail=1; }

# cache_value <build dir> <name>: a variable of the CMake cache.
cache_value() {
    sed -n "s/^$2:[A-Z]*=//p" "$1/CMakeCache.txt"
}

# stage <arch> <staging dir>: libubox, libuci, json-c and uthash for the
# target, laid out as OpenWrt's staging directory (usr/include, usr/lib).
stage() {
    sarch=$1 sdir=$2
    mkdir -p "$sdir/usr/include" "$sdir/usr/lib"
    install_system_libs "$sarch" "$work/compat-build" "$sdir/usr" >/dev/null
    case $sarch in
        native)
            jinc=/usr/include/json-c
            jlib=/usr/lib/$(gcc -dumpmachine) ;;
        aarch64)
            # libjson-c-dev:arm64 shares its headers with the build machine's.
            jinc=/usr/include/json-c
            jlib=/usr/lib/aarch64-linux-gnu ;;
        mips)
            jinc=$stage_root/mips/include/json-c
            jlib=$stage_root/mips/lib ;;
    esac
    cp -R "$jinc" "$sdir/usr/include/"
    cp -P "$jlib"/libjson-c.so* "$sdir/usr/lib/"
    copy_uthash "$sdir/usr/include"
}

# check_variant <variant> <package>: stage, run the package's recipe, check.
check_variant() {
    variant=$1 pkg_name=$2
    recipe_dir="$top/packaging/openwrt/$pkg_name"
    # The daemon's work directory keeps its name; the survey's gets a suffix.
    work="$out/$variant${pkg_name#lanprobe}"
    staging="$work/staging_dir"
    debug=""
    build_type=Release
    case $variant in
        native-*)
            arch=native
            cc=gcc cxx=g++ cpu_cflags="" processor=$(uname -m)
            [ "$variant" = native-debug ] && debug=y build_type=RelWithDebInfo
            ;;
        aarch64)
            arch=aarch64 processor=aarch64 machine=AArch64
            cc=aarch64-linux-gnu-gcc cxx=aarch64-linux-gnu-g++ cpu_cflags="-mcpu=cortex-a53"
            ;;
        mips)
            arch=mips processor=mips machine="MIPS R3000"
            cc=mips-linux-gnu-gcc cxx=mips-linux-gnu-g++ cpu_cflags="-mips32r2 -mtune=24kc"
            ;;
    esac
    case $arch in
        native) apt_install build-essential cmake ninja-build libjson-c-dev uthash-dev util-linux ;;
        *) apt_install ninja-build && "deps_$arch" ;;
    esac
    if [ "$arch" = native ]; then
        machine=$(readelf -h /proc/self/exe | sed -n 's/^ *Machine: *//p')
    fi

    echo "== $variant: $build_type build of $(basename "$recipe_dir") with $cxx $("$cxx" -dumpfullversion)"
    t0=$(date +%s)
    rm -rf "$work"
    mkdir -p "$work/package"
    stage "$arch" "$staging"
    # The recipe is copied into a package tree as a developer does.
    cp -R "$recipe_dir" "$work/package/"
    pkg="$work/package/$(basename "$recipe_dir")"
    set -- -C "$pkg" --no-print-directory TOPDIR="$top/tests/build/package-check" \
        BUILD_DIR="$work/build_dir" STAGING_DIR="$staging" \
        TARGET_CC="$cc" TARGET_CXX="$cxx" CPU_CFLAGS="$cpu_cflags" \
        CMAKE_SYSTEM_PROCESSOR="$processor" NINJA_JOBS="$jobs" \
        LANPROBE_SOURCE_DIR="$top" ${debug:+CONFIG_DEBUG=$debug}
    if ! make "$@" package >"$work/make.log" 2>&1; then
        fail "the recipe did not build; the end of ${work#"$top"/}/make.log:"
        tail -n 20 "$work/make.log" | sed 's/^/        /'
        return 0
    fi
    nwarn=$(grep -c 'warning:' "$work/make.log" || true)
    pass "the recipe built ($nwarn compiler warnings, none are errors in a package build)"
    grep 'warning:' "$work/make.log" | head -n 5 | sed "s|$work/||; s/^/          /"

    pbuild=$(make -s "$@" val.PKG_BUILD_DIR)
    pinstall=$(make -s "$@" val.PKG_INSTALL_DIR)
    depends=$(make -s "$@" val.DEPENDS)
    bdir="$pbuild/openwrt-build"
    ipkg="$pbuild/ipkg/$pkg_name"
    usr="$staging/usr"

    # What Build/Prepare copied, and nothing else.
    prepared=""
    for f in "$pbuild"/* "$pbuild"/.[!.]*; do
        [ -e "$f" ] || continue
        case ${f##*/} in openwrt-build|ipkg-install|ipkg) continue ;; esac
        prepared="$prepared ${f##*/}"
    done
    prepared=$(echo "$prepared" | tr ' ' '\n' | sort | xargs)
    want=$(sed -n '/^define Build\/Prepare/,/^endef/p' "$recipe_dir/Makefile" |
        grep -o '$(LANPROBE_SOURCE_DIR)/[^ ]*' | sed 's|.*/||' | sort | xargs)
    if [ "$prepared" = "$want" ] && [ -n "$want" ]; then
        pass "the build directory holds what Build/Prepare copies: $prepared"
    else
        fail "the build directory holds '$prepared', Build/Prepare copies '$want'"
    fi

    # Configuration.
    bad=""
    for v in CMAKE_BUILD_TYPE="$build_type" LANPROBE_USE_SYSTEM_LIBS=ON LANPROBE_BUILD_TESTS=OFF \
             LANPROBE_BUILD_BENCH=OFF LANPROBE_WERROR=OFF CMAKE_INSTALL_PREFIX=/usr \
             UBOX_INCLUDE_DIR="$usr/include" UCI_INCLUDE_DIR="$usr/include" \
             JSONC_INCLUDE_DIR="$usr/include" UTHASH_INCLUDE_DIR="$usr/include" \
             UBOX_LIBRARY="$usr/lib/libubox.a" UCI_LIBRARY="$usr/lib/libuci.a" \
             JSONC_LIBRARY="$usr/lib/libjson-c.so"; do
        got=$(cache_value "$bdir" "${v%%=*}")
        [ "$got" = "${v#*=}" ] || bad="$bad ${v%%=*}='$got' (expected '${v#*=}')"
    done
    if [ -z "$bad" ]; then
        pass "configured: $build_type, system libraries on, tests and benchmarks off, every header and library from the staging directory"
    else
        fail "configured wrongly:$bad"
    fi

    # Compile and link lines of the daemon.
    ninja -C "$bdir" -t commands "$pkg_name" >"$work/commands.txt"
    want_flags="-Os -pipe${cpu_cflags:+ $cpu_cflags}${debug:+ -O2 -g}"
    compiles=$(grep -c -- ' -c ' "$work/commands.txt" || true)
    bad=0
    while IFS= read -r line; do
        for f in $want_flags -DNDEBUG "-I$usr/include"; do
            case " $line " in *" $f "*) ;; *) bad=$((bad + 1)); break ;; esac
        done
    done <<EOF
$(grep -- ' -c ' "$work/commands.txt")
EOF
    if [ "$compiles" -gt 0 ] && [ $bad -eq 0 ]; then
        pass "all $compiles compile lines carry $want_flags -DNDEBUG -I<staging>/usr/include"
    else
        fail "$bad of $compiles compile lines lack one of: $want_flags -DNDEBUG -I$usr/include"
    fi
    if grep -q '/compat/' "$work/commands.txt"; then
        fail "a command of the daemon's build names compat/: $(grep -m1 '/compat/' "$work/commands.txt")"
    else
        pass "no command of the daemon's build names compat/"
    fi
    link=$(grep -- "-o $pkg_name " "$work/commands.txt" | tr -s ' ' || true)
    case $link in
        *" $usr/lib/libuci.a $usr/lib/libubox.a "*) uci_ubox=1 ;;
        *) uci_ubox=0 ;;
    esac
    case $link in
        *" $usr/lib/libjson-c.so "*) jsonc=1 ;;
        *) jsonc=0 ;;
    esac
    if [ $uci_ubox -eq 1 ] && [ $jsonc -eq 1 ]; then
        pass "linked with <staging>/usr/lib/libuci.a and libubox.a (in that order) and libjson-c.so"
    else
        fail "the link line does not use the staged libuci and libubox (in that order) and json-c: $link"
    fi

    # What is installed and packaged.
    installed=$(cd "$pinstall" && find . -type f -o -type l | sed 's|^\./||' | tr '\n' ' ')
    bin="$pinstall/usr/sbin/$pkg_name"
    if [ "$installed" = "usr/sbin/$pkg_name " ] && [ -x "$bin" ]; then
        pass "installed with DESTDIR: usr/sbin/$pkg_name (executable), nothing else"
    else
        fail "installed with DESTDIR: '$installed'${bin:+, usr/sbin/$pkg_name executable: $([ -x "$bin" ] && echo yes || echo no)}"
    fi
    if [ -x "$ipkg/usr/sbin/$pkg_name" ] && cmp -s "$bin" "$ipkg/usr/sbin/$pkg_name"; then
        pass "Package/$pkg_name/install put the same usr/sbin/$pkg_name into the package"
    else
        fail "the package's usr/sbin/$pkg_name is missing, not executable or not the installed one"
    fi
    [ -f "$bin" ] || { echo "  (no binary, the remaining checks are not run)"; return 0; }

    # The binary.
    readelf_=readelf
    [ "$arch" = native ] || readelf_="$(triplet_of "$arch")-readelf"
    got_machine=$("$readelf_" -h "$bin" | sed -n 's/^ *Machine: *//p')
    if [ "$got_machine" = "$machine" ]; then
        pass "built for the target: $got_machine"
    else
        fail "built for '$got_machine', expected '$machine'"
    fi
    rc=0
    if [ "$arch" = native ]; then
        msg=$(sh "$top/tests/build/check_binary.sh" "$bin") || rc=$?
    else
        msg=$(check_binary_at "$arch" "$bin") || rc=$?
    fi
    if [ $rc -eq 0 ]; then
        pass "usr/sbin/$pkg_name: ${msg#OK: "$bin": }"
    else
        fail "$msg"
    fi
    needed=$("$readelf_" -d "$bin" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | tr '\n' ' ')
    uncovered=""
    for lib in $needed; do
        case $lib in
            libc.so*|libm.so*|ld-*|ld.so*|libgcc_s.so*) continue ;;
        esac
        name=${lib%%.so*}
        case " $depends " in *" +$name "*) ;; *) uncovered="$uncovered $lib" ;; esac
    done
    if [ -z "$uncovered" ]; then
        pass "NEEDED: $needed- each one besides the C library named in DEPENDS ($depends)"
    else
        fail "NEEDED:$uncovered not named in the recipe's DEPENDS ($depends)"
    fi

    # It runs: -h prints the usage on /dev/console (the survey: on standard
    # error, exit status 0) and nothing else happens.
    if [ "$arch" = native ] && [ "$pkg_name" = lanprobe-survey ]; then
        if "$bin" -h 2>"$work/run.log" && grep -qF "usage: lanprobe-survey" "$work/run.log"; then
            pass "lanprobe-survey -h printed its usage"
        else
            fail "lanprobe-survey -h: $(head -c 200 "$work/run.log")"
        fi
    elif [ "$arch" = native ]; then
        console="$work/console"
        : >"$console"
        if unshare -m true 2>/dev/null; then
            unshare -m sh -c 'mount --bind "$1" /dev/console && exec "$2" -h' sh "$console" "$bin" \
                >"$work/run.log" 2>&1 || true
            if grep -qF "Usage: $bin -d/--debug" "$console"; then
                pass "lanprobe -h printed its usage on /dev/console"
            else
                fail "lanprobe -h did not print its usage on /dev/console: $(head -c 200 "$console") $(cat "$work/run.log")"
            fi
        else
            echo "  --    lanprobe -h not run: no private mount namespace for /dev/console here"
        fi
    fi
    echo "   $variant: $(($(date +%s) - t0)) s"
}

started=$(date +%s)
mkdir -p "$out"
for variant_ in $variants; do
    for recipe in $recipes; do
        vfail=0
        check_variant "$variant_" "$recipe"
        [ $vfail -eq 0 ] || failed_variants="$failed_variants $variant_${recipe#lanprobe}"
    done
done
if [ -n "$failed_variants" ]; then
    echo "package check: FAILED:$failed_variants ($(($(date +%s) - started)) s)"
    exit 1
fi
echo "package check:$variants: ok ($(($(date +%s) - started)) s)"
