#!/bin/sh
# Configures and builds into build/ (or $BUILD_DIR) with warnings as errors;
# extra arguments go to cmake.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$top/build}
cmake -S "$top" -B "$build" -DLANPROBE_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
