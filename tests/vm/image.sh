#!/bin/sh
# Assembles the virtual router for ARCH (aarch64 | mipsel) from Debian's
# packages alone: the kernel package's image and modules, busybox-static, and
# our static musl daemon (scripts/cross.sh musl) with the VM's init and vmrun.
#
#   tests/vm/image.sh ARCH DIR      -> DIR/kernel, DIR/base.cpio.gz, DIR/qemu
#
# DIR/qemu holds the machine's qemu command (without network devices and
# initrd) and, on the next lines, its serial console and what each NIC
# device adds to its options.  Packages are fetched once into DIR/debs.
set -eu
arch=$1 dir=$2
top=$(cd "$(dirname "$0")/../.." && pwd)
export DEBIAN_FRONTEND=noninteractive
case $arch in
    aarch64) deb=arm64 flavour=arm64-unsigned qemu=qemu-system-arm
             cmd="qemu-system-aarch64 -M virt -cpu cortex-a53" console=ttyAMA0 ;;
    mipsel) deb=mipsel flavour=4kc-malta qemu=qemu-system-mips
            # Malta's own PCI bus has too few slots for eight ports: the NICs
            # sit behind a PCI bridge.
            cmd="qemu-system-mipsel -M malta -vga none -device pci-bridge,id=pb,chassis_nr=1" console=ttyS0 nic=,bus=pb ;;
    *) echo "vm: no virtual router for $arch" >&2; exit 2 ;;
esac
mkdir -p "$dir/debs"
dir=$(cd "$dir" && pwd)
command -v "${cmd%% *}" > /dev/null || apt-get install -y -qq --no-install-recommends "$qemu" cpio > /dev/null
if ! ls "$dir"/debs/linux-image-*.deb > /dev/null 2>&1; then
    dpkg --print-foreign-architectures | grep -qx "$deb" || { dpkg --add-architecture "$deb"; apt-get update -qq; }
    kernel=$(apt-cache search --names-only "^linux-image-6\.1\.0-[0-9]+-$flavour\$" | awk '{ print $1 }' | sort -V | tail -n 1)
    [ -n "$kernel" ] || apt-get update -qq
    kernel=$(apt-cache search --names-only "^linux-image-6\.1\.0-[0-9]+-$flavour\$" | awk '{ print $1 }' | sort -V | tail -n 1)
    (cd "$dir/debs" && apt-get download -qq "$kernel:$deb" "busybox-static:$deb" 2> /dev/null)
fi
LANPROBE_CROSS_STAGE=${LANPROBE_CROSS_STAGE:-$top/out/cross} sh "$top/scripts/cross.sh" musl "$arch" --no-test > "$dir/cross.log" 2>&1 \
    || { tail -n 20 "$dir/cross.log" >&2; exit 1; }

root="$dir/root"
rm -rf "$root" "$dir/x"
mkdir -p "$root/bin" "$root/dev" "$root/proc" "$root/sys" "$root/modules" "$root/etc/config" "$dir/x"
for d in "$dir"/debs/*.deb; do dpkg-deb -x "$d" "$dir/x"; done
cp "$dir"/x/boot/vmlinuz-* "$dir/kernel"
cp "$dir/x/bin/busybox" "$root/bin/busybox"
ln -s busybox "$root/bin/sh"
mknod "$root/dev/console" c 5 1
# Modules in load order: each after those its .modinfo "depends=" names.
: > "$root/modules.list"
load() (   # a subshell: ko stays this call's own through the recursion
    grep -qx "$1" "$root/modules.list" && exit 0
    ko=$(find "$dir"/x/lib/modules -name "$1.ko")
    for dep in $(tr '\0' '\n' < "$ko" | sed -n 's/^depends=//p' | tr ',' ' '); do load "$dep"; done
    cp "$ko" "$root/modules/"
    echo "$1" >> "$root/modules.list"
)
for m in virtio_pci virtio_net bridge; do load $m; done
build="$top/build-cross-musl-$arch"
cp "$build/lanprobe" "$root/lanprobe"
stage=${LANPROBE_CROSS_STAGE:-$top/out/cross}/musl/$arch
"$stage/bin/cc" -Os -static -Wall -Wextra -o "$root/vmrun" "$top/tests/vm/vmrun.c"
cp "$top/tests/vm/init.sh" "$root/init"
chmod +x "$root/init"
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) > "$dir/base.cpio.gz"
printf '%s\n%s\n%s\n' "$cmd" "$console" "${nic:-}" > "$dir/qemu"
echo "vm: $arch router in $dir ($(ls "$dir"/debs | tr '\n' ' '))"
