#!/bin/sh
# Does all set-up on a fresh Debian 12 machine, builds the daemon and shows its usage.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
BUILD_DIR="$top/build" "$top/scripts/build.sh"
"$top/build/lanprobe" -h 2>&1 || true
