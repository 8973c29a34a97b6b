# The checks of scripts/cross.sh, sourced by it after its build steps (and by
# tests/build/package-check.sh): the binary checks with the target's tools,
# the daemon's console texts under qemu-user, and the cross-built tests run
# under qemu-user.  Expects top, jobs and the helpers of scripts/cross/*.sh.

# The binary checks (no libstdc++ needed at run time, no exception runtime)
# with the target's binutils.
check_binary_arch() {
    check_binary_at "$1" "$top/build-cross-$1/lanprobe"
}

check_binary_at() {
    triplet=$(triplet_of "$1")
    check_binary_with "$triplet-readelf" "$triplet-nm" "$2"
}

# check_binary_with <readelf> <nm> <binary>: tests/build/check_binary.sh with
# the given tools standing in for readelf and nm.
check_binary_with() {
    tools=$(mktemp -d)
    ln -s "$(command -v "$1")" "$tools/readelf"
    ln -s "$(command -v "$2")" "$tools/nm"
    rc=0
    PATH="$tools:$PATH" sh "$top/tests/build/check_binary.sh" "$3" || rc=$?
    rm -rf "$tools"
    return $rc
}

# Tests labelled kernel need namespaces, bridges or packet sockets of the build
# machine's kernel and stay native; everything else runs under qemu-user
# through the toolchain's CMAKE_CROSSCOMPILING_EMULATOR.  footprint_binary is
# run by check_binary_arch with the target's binutils instead.
test_arch() {
    arch=$1
    note "testing $arch under qemu-user"
    check_binary_arch "$arch"
    (cd "$top/build-cross-$arch" &&
        ctest -LE 'kernel|lab|build' -E '^footprint_binary$' -j "$jobs" --output-on-failure)
}

# What the daemon binary may carry on musl: no C++ runtime library and no
# exception runtime (the checks of tests/build/check_binary.sh with llvm's
# tools, which read every target), and NEEDED only musl's libc.so and json-c.
check_musl_binary() {
    bin=$1
    rc=0
    check_binary_with llvm-readelf llvm-nm "$bin" || rc=1
    needed=$(llvm-readelf -d "$bin" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
    for lib in $needed; do
        case $lib in
            libc.so | libjson-c.so.*) ;;
            *) echo "FAIL: $bin needs $lib"; rc=1 ;;
        esac
    done
    [ $rc -eq 0 ] && echo "OK: $bin: NEEDED: ${needed:-none}"
    return $rc
}

# Runs the daemon under qemu-user with a regular file bound over /dev/console
# in a mount namespace of its own: the daemon writes its console messages
# there.  Prints the exit status, then the console text, into $2.
console_run() {
    qemu=$1 out=$2
    shift 2
    unshare --mount sh -c '
        out=$1; shift
        mount --make-rprivate / &&
        : > "$out.console" && mount --bind "$out.console" /dev/console || exit 99
        rc=0
        "$@" 2> "$out.stderr" || rc=$?
        echo $rc > "$out.status"
    ' sh "$out" "$qemu" "$@"
}

# -h gives the usage text on the console and exit status 1; an unknown option
# gives the hint on the console, exit status 1 and the C library's own
# complaint on standard error (shown, not compared: musl's words are not
# glibc's).
check_musl_console() {
    arch=$1 bin=$2
    work=$(mktemp -d)
    rc=0
    expect_usage=$(printf 'Usage: %s -d/--debug [0(emergy)~7(debug)] to specify the debug level.\n\t\t-t/--time_ms [1000~8000] to specify the timeout.\n\t\t-v/--device [eth*] to specify the device to detect, or will detect in all lan devices in default' "$bin")
    expect_hint="Try: $bin --help for more information!"
    for opt in -h -x; do
        console_run "qemu-$arch" "$work/run" "$bin" "$opt"
        status=$(cat "$work/run.status" 2>/dev/null || echo none)
        console=$(cat "$work/run.console")
        case $opt in
            -h) want=$expect_usage ;;
            -x) want=$expect_hint ;;
        esac
        if [ "$status" = 1 ] && [ "$console" = "$want" ] && [ "$(tail -c 1 "$work/run.console" | od -An -c | tr -d ' ')" = '\n' ]; then
            echo "OK: $arch: lanprobe $opt: exit status 1, console: $(head -n 1 "$work/run.console")"
        else
            echo "FAIL: $arch: lanprobe $opt: exit status $status, console:"
            cat "$work/run.console"
            rc=1
        fi
        [ "$opt" = -x ] && echo "    standard error (the C library's text): $(cat "$work/run.stderr")"
    done
    rm -rf "$work"
    return $rc
}

# Root-labelled tests that need what qemu-user does not give a guest: the
# legacy bridge request SIOCDEVPRIVATE on a real bridge (qemu answers
# ENOSYS).  They run natively only.
musl_qemu_gaps='Bridge\.(LegacyPortWalk|ForwardingDatabase)'

# The binary checks, then the tests without namespaces under qemu-user
# through the toolchain's CMAKE_CROSSCOMPILING_EMULATOR; with --root also the
# root-labelled ones (not lab, not fuzz: the replay programs are not built),
# less the qemu gaps above.  Programs that were not built leave a
# <target>_NOT_BUILT placeholder in CTest, left out by name; footprint_binary
# is check_musl_binary here.  Every step runs; the result says whether all
# passed.
test_musl() {
    arch=$1
    bdir=$(musl_build_dir "$arch")
    trc=0
    note "$arch: binary checks"
    check_musl_binary "$bdir/lanprobe" || trc=1
    check_musl_binary "$bdir-dynamic/lanprobe" || trc=1
    check_musl_binary "$bdir-dynamic/lanprobe-survey" || trc=1
    check_musl_console "$arch" "$bdir/lanprobe" || trc=1
    if [ "${musl_root_tests:-0}" -eq 1 ]; then
        skipped=$(gtest_targets "$bdir" labelled | grep -vxF "$(gtest_targets "$bdir" root)" | paste -sd '|')
    else
        skipped=$(gtest_targets "$bdir" labelled | paste -sd '|')
    fi
    exclude='footprint_binary'
    [ -n "$skipped" ] && exclude="$exclude|($skipped)_NOT_BUILT"
    note "$arch: tests under qemu-user"
    (cd "$bdir" && ctest -LE 'kernel|lab|build' -E "^($exclude)\$" -j "$jobs" --output-on-failure) || trc=1
    if [ "${musl_root_tests:-0}" -eq 1 ]; then
        note "$arch: root-labelled tests under qemu-user"
        (cd "$bdir" && ctest -L kernel -E "^($exclude|$musl_qemu_gaps)\$" -j "$jobs" \
            --output-on-failure) || trc=1
    fi
    return $trc
}
