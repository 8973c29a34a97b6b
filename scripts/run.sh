#!/bin/sh
# Does all set-up on a fresh Debian 12 machine (as root), builds the daemon and
# runs one detection on the lab router: four real DHCP servers, a silent host
# and an empty port behind br-lan.  Prints the result document and a table.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
BUILD_DIR="$top/build" "$top/scripts/build.sh"
exec bash "$top/scripts/lab/demo.sh" "$top/build/lanprobe"
