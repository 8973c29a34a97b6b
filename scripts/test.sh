#!/bin/sh
# Does all set-up on a fresh Debian 12 machine and runs every test (as root).
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
BUILD_DIR="$top/build" "$top/scripts/build.sh"
cd "$top/build"
ctest --output-on-failure -j1
