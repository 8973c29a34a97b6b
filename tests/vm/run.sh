#!/bin/sh
# Lab rows on a virtual router: the static musl daemon on Debian's AArch64 or
# little-endian MIPS (Malta) kernel under qemu, against the lab's real
# servers and crafted hosts.  Builds the router (tests/vm/image.sh) into
# LANPROBE_VM_DIR (default: out/vm in the source tree), then runs the rows of
# tests/lab/lab.py that name this CPU (all of them when no row is given).
#
#   tests/vm/run.sh aarch64|mipsel [ROW...]
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
arch=${1:?usage: tests/vm/run.sh aarch64|mipsel [ROW...]}
shift
dir=${LANPROBE_VM_DIR:-$top/out/vm}/$arch
start=$(date +%s)
sh "$top/tests/vm/image.sh" "$arch" "$dir"
echo "vm: $arch router built in $(($(date +%s) - start)) s"
exec python3 "$top/tests/lab/lab.py" --target "vm:$arch" --vm-dir "$dir" "$@"
