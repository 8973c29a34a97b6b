#!/bin/sh
# Installs everything the build, the tests and the lab need on Debian 12 (run as root).
set -eu
export DEBIAN_FRONTEND=noninteractive
PKGS="build-essential cmake pkg-config git libjson-c-dev uthash-dev libgtest-dev googletest
      clang libclang-rt-14-dev ninja-build valgrind strace iproute2 util-linux procps psmisc tcpdump
      dnsmasq-base busybox isc-dhcp-server kea-dhcp4-server python3"
missing=""
for p in $PKGS; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ] || [ "${CI:-}" = "true" ]; then
    apt-get update
    # shellcheck disable=SC2086
    apt-get install -y --no-install-recommends $PKGS
fi
