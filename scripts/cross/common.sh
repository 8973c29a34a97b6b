# Steps of scripts/cross.sh.  Sourced; expects top, stage_root and jobs.

note() { echo "cross: $*"; }

apt_updated=0
apt_update_once() {
    if [ $apt_updated -eq 0 ]; then
        apt-get update -qq
        apt_updated=1
    fi
}

# apt_install pkg...: installs the packages that are not installed yet.
apt_install() {
    missing=""
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
            missing="$missing $p"
    done
    [ -z "$missing" ] && return 0
    note "installing$missing"
    apt_update_once
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing >/dev/null
}

deps_common() {
    apt_install build-essential cmake dpkg-dev uthash-dev googletest qemu-user
}

deps_aarch64() {
    deps_common
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        note "adding the arm64 architecture"
        dpkg --add-architecture arm64
        apt_updated=0
    fi
    # libstdc++6:arm64: the test programs load it from the multiarch root under
    # qemu, next to the arm64 C library the -dev packages bring.
    apt_install g++-aarch64-linux-gnu libjson-c-dev:arm64 libgtest-dev:arm64 libstdc++6:arm64
}

# deb-src entries for the mirror and suites the machine already installs from,
# in a sources file of their own, so that apt-get source works.
enable_deb_src() {
    if grep -rqs '^\(Types:.*deb-src\|deb-src \)' /etc/apt/sources.list /etc/apt/sources.list.d/; then
        return 0
    fi
    if [ -f /etc/apt/sources.list.d/debian.sources ]; then
        sed 's/^Types:.*/Types: deb-src/' /etc/apt/sources.list.d/debian.sources \
            > /etc/apt/sources.list.d/lanprobe-deb-src.sources
    elif [ -f /etc/apt/sources.list ]; then
        sed -n 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list \
            > /etc/apt/sources.list.d/lanprobe-deb-src.list
    else
        echo "cross: no apt sources to derive deb-src entries from" >&2
        return 1
    fi
    note "added deb-src entries"
    apt_updated=0
}

# fetch_json_c_source <dir>: json-c's Debian source package unpacked into
# <dir> (emptied first); the name of its tree goes into <dir>/.done.
fetch_json_c_source() {
    enable_deb_src || return 1
    apt_update_once
    rm -rf "$1"
    mkdir -p "$1"
    note "fetching json-c's Debian source package"
    (cd "$1" && apt-get source -qq json-c >/dev/null 2>&1)
    jsrc=$(find "$1" -mindepth 1 -maxdepth 1 -type d -name 'json-c-*' | head -n 1)
    [ -n "$jsrc" ] || { echo "cross: apt-get source json-c gave no source tree" >&2; return 1; }
    basename "$jsrc" > "$1/.done"
}

# copy_uthash <include dir>: uthash is header-only, the same for every target.
copy_uthash() {
    mkdir -p "$1"
    cp /usr/include/uthash.h /usr/include/utlist.h /usr/include/utarray.h \
        /usr/include/utstring.h "$1/"
}

# stage_cmake <name> <source dir> <stage> <toolchain> [cmake args...]:
# configures, builds and installs one third-party CMake project into a stage.
stage_cmake() {
    name=$1 src=$2 stage=$3 toolchain=$4
    shift 4
    bdir="$stage/.build/$name"
    cmake -S "$src" -B "$bdir" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DCMAKE_INSTALL_PREFIX="$stage" -DCMAKE_INSTALL_LIBDIR=lib -DCMAKE_BUILD_TYPE=MinSizeRel \
        -Wno-dev "$@" >/dev/null
    cmake --build "$bdir" -j "$jobs" >/dev/null
    cmake --install "$bdir" >/dev/null
}

deps_mips() {
    deps_common
    apt_install g++-mips-linux-gnu
    stage="$stage_root/mips"
    toolchain="$top/cmake/toolchains/mips-linux-gnu.cmake"
    mkdir -p "$stage"
    if [ ! -f "$stage/.json-c.done" ]; then
        [ -f "$stage/.src/.done" ] || fetch_json_c_source "$stage/.src" || return 1
        jsrc="$stage/.src/$(cat "$stage/.src/.done")"
        note "building json-c"
        stage_cmake json-c "$jsrc" "$stage" "$toolchain" \
            -DBUILD_TESTING=OFF -DDISABLE_WERROR=ON -DBUILD_SHARED_LIBS=ON -DBUILD_STATIC_LIBS=ON
        basename "$jsrc" > "$stage/.json-c.done"
    fi
    stage_uthash_gtest "$stage" "$toolchain"
}

# stage_uthash_gtest <stage> <toolchain>: the uthash headers (header-only, the
# same for every target) and GoogleTest from /usr/src/googletest built with
# the target's toolchain, each once per stage.
stage_uthash_gtest() {
    [ -f "$1/include/uthash.h" ] || copy_uthash "$1/include"
    if [ ! -f "$1/.gtest.done" ]; then
        note "building GoogleTest from /usr/src/googletest"
        stage_cmake googletest /usr/src/googletest "$1" "$2" -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON
        touch "$1/.gtest.done"
    fi
}

triplet_of() {
    case $1 in
        aarch64) echo aarch64-linux-gnu ;;
        mips) echo mips-linux-gnu ;;
    esac
}

build_arch() {
    arch=$1
    triplet=$(triplet_of "$arch")
    bdir="$top/build-cross-$arch"
    note "building for $triplet in $bdir"
    LANPROBE_CROSS_STAGE="$stage_root" cmake -S "$top" -B "$bdir" \
        -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchains/$triplet.cmake" -DLANPROBE_WERROR=ON >/dev/null
    cmake --build "$bdir" -j "$jobs"
}

# Stripped size (what the package installs) and the shared libraries the
# daemon needs on the target.
sizes_arch() {
    arch=$1
    triplet=$(triplet_of "$arch")
    bin="$top/build-cross-$arch/lanprobe"
    [ -f "$bin" ] || { note "$arch: no daemon built yet"; return 0; }
    stripped=$(mktemp)
    "$triplet-strip" -o "$stripped" "$bin"
    echo "$arch: $(stat -c %s "$stripped") bytes stripped, NEEDED:" \
        $("$triplet-readelf" -d "$stripped" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p')
    rm -f "$stripped"
}
