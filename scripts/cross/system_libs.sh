# Builds the daemon with LANPROBE_USE_SYSTEM_LIBS=ON against libubox and libuci
# installed into a prefix laid out like an OpenWrt staging directory
# (include/libubox/uloop.h, include/libubox/list.h, include/uci.h,
# include/uci_config.h, lib/libubox.a, lib/libuci.a).  The libraries in the
# prefix are our compat layer, built and installed under the real names, so
# the build sees exactly what an OpenWrt package build sees: headers and
# libraries found by name under a prefix, nothing from compat/ directly.
# With an architecture the same is done with its cross toolchain, the way an
# OpenWrt build runs CMake: only the toolchain's root paths are searched.
# Sourced by scripts/cross.sh and tests/build/package-check.sh after
# scripts/cross/common.sh; expects top, stage_root and jobs.

# toolchain_arg native|aarch64|mips: the cmake argument that selects the
# architecture's toolchain file (none for a native build).
toolchain_arg() {
    [ "$1" = native ] || echo "-DCMAKE_TOOLCHAIN_FILE=$top/cmake/toolchains/$(triplet_of "$1").cmake"
}

# install_system_libs native|aarch64|mips <build dir> <prefix>: builds the
# compat layer for the architecture in <build dir> and installs it into
# <prefix> (include/, lib/) under the names libubox and libuci install.
# Files of other packages already in the prefix are left alone.
install_system_libs() {
    iarch=$1 cbuild=$2 iprefix=$3
    note "installing the compat layer as libubox/libuci into $iprefix"
    # shellcheck disable=SC2046
    LANPROBE_CROSS_STAGE="$stage_root" cmake -S "$top" -B "$cbuild" $(toolchain_arg "$iarch") \
        -DLANPROBE_BUILD_TESTS=OFF -DLANPROBE_BUILD_BENCH=OFF >/dev/null
    cmake --build "$cbuild" --target lanprobe_ubox lanprobe_uci -j "$jobs" >/dev/null
    mkdir -p "$iprefix/include/libubox" "$iprefix/lib"
    cp "$top/compat/include/libubox/uloop.h" "$top/compat/include/libubox/list.h" \
        "$iprefix/include/libubox/"
    cp "$top/compat/include/uci.h" "$top/compat/include/uci_config.h" "$iprefix/include/"
    cp "$(find "$cbuild" -name liblanprobe_ubox.a)" "$iprefix/lib/libubox.a"
    cp "$(find "$cbuild" -name liblanprobe_uci.a)" "$iprefix/lib/libuci.a"
}

# system_libs native|aarch64|mips
system_libs() {
    sarch=$1
    tc=$(toolchain_arg "$sarch")
    prefix="$stage_root/system-libs-$sarch"
    sbuild="$top/build-cross-syslibs-$sarch"
    rm -rf "$prefix"
    install_system_libs "$sarch" "$top/build-cross-compat-$sarch" "$prefix"

    note "building with -DLANPROBE_USE_SYSTEM_LIBS=ON -DLANPROBE_LIB_PREFIX=$prefix"
    rm -rf "$sbuild"
    # shellcheck disable=SC2086
    LANPROBE_CROSS_STAGE="$stage_root" cmake -S "$top" -B "$sbuild" $tc -DLANPROBE_USE_SYSTEM_LIBS=ON -DLANPROBE_LIB_PREFIX="$prefix" \
        -DLANPROBE_BUILD_TESTS=OFF -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
    cmake --build "$sbuild" --target lanprobe -j "$jobs" >/dev/null

    fail=0
    for v in UBOX_INCLUDE_DIR:"$prefix/include" UCI_INCLUDE_DIR:"$prefix/include" \
             UBOX_LIBRARY:"$prefix/lib/libubox.a" UCI_LIBRARY:"$prefix/lib/libuci.a"; do
        name=${v%%:*} want=${v#*:}
        got=$(sed -n "s/^$name:[A-Z]*=//p" "$sbuild/CMakeCache.txt")
        if [ "$got" != "$want" ]; then
            echo "FAIL: $name is '$got', expected '$want'"; fail=1
        fi
    done
    if grep -q 'compat/include' "$sbuild/compile_commands.json"; then
        echo "FAIL: a daemon source was compiled with compat/include on its path"; fail=1
    fi
    if ! grep -q -- "-I$prefix/include" "$sbuild/compile_commands.json"; then
        echo "FAIL: the prefix's include directory is not on the compile line"; fail=1
    fi
    if ! grep -q -- "$prefix/lib/libuci.a $prefix/lib/libubox.a" \
            "$sbuild/CMakeFiles/lanprobe.dir/link.txt"; then
        echo "FAIL: the daemon is not linked with the prefix's -luci -lubox, in that order"; fail=1
    fi
    # Installed where the package recipe takes it from.
    dest=$(mktemp -d)
    DESTDIR="$dest" cmake --install "$sbuild" --prefix /usr >/dev/null
    if [ ! -x "$dest/usr/sbin/lanprobe" ]; then
        echo "FAIL: cmake --install did not give usr/sbin/lanprobe"; fail=1
    fi
    rm -rf "$dest"
    if [ "$sarch" = native ]; then
        sh "$top/tests/build/check_binary.sh" "$sbuild/lanprobe" || fail=1
    else
        check_binary_at "$sarch" "$sbuild/lanprobe" || fail=1
    fi
    [ $fail -eq 0 ] && note "system-libs ($sarch): the daemon builds and links against the prefix"
    return $fail
}
