#!/bin/sh
# Configures and builds into build/ (or $BUILD_DIR); extra arguments go to cmake.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
