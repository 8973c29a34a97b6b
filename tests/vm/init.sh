#!/bin/sh
# /init of the virtual router (busybox): loads the modules, makes br-lan from
# the ports the lab gave (run.env, with the run's /etc/config), waits until
# br-lan has learned the hosts, runs the daemon through vmrun, then writes
# what the run left, as a base64 tar between two marker lines, to the serial
# console and powers off.
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /run /tmp /out
mount -t tmpfs run /run
. /run.env
# Malta's firmware leaves every line of the south bridge's interrupt
# controller edge-triggered, and the kernel keeps it so: NICs sharing a PCI
# line then lose an edge now and then, and from then on no frame comes in on
# them.  The ELCR (port 0x4d1) makes IRQ 10 and 11, the PCI lines,
# level-triggered.
[ "$(uname -m)" = mips ] && printf '\014' | dd of=/dev/port bs=1 seek=$((0x4d1)) count=1 conv=notrunc 2> /dev/null
for m in $(cat /modules.list); do insmod "/modules/$m.ko"; done
sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1

# The NICs come up as eth0.. in probe order: name them after their MACs.
for dev in /sys/class/net/*; do
    n=${dev##*/}; [ "$n" = lo ] || ip link set "$n" name "x$n"
done
for p in $PORTS; do
    for dev in /sys/class/net/x*; do
        [ "$(cat "$dev/address")" = "${p%%=*}" ] && ip link set "${dev##*/}" name "${p#*=}"
    done
done
ip link set lo up
brctl addbr br-lan
echo 0 > /sys/class/net/br-lan/bridge/forward_delay
ip link set br-lan address 02:1a:00:00:00:01
ip addr add 192.168.1.1/24 dev br-lan
ip link set br-lan up
for p in $PORTS; do
    [ "$DETACHED" = 1 ] || brctl addif br-lan "${p#*=}"
    ip link set "${p#*=}" up
done
# Ready once every member forwards: a host's one announcement must be learned.
for p in $PORTS; do
    f=/sys/class/net/${p#*=}/brport/state
    while [ -f "$f" ] && [ "$(cat "$f")" != 3 ]; do sleep 0.05; done
done
echo "lanprobe-vm: ready"
i=0
# The forwarding database's 16-byte records: byte 7 is set for our own MACs.
learned() { hexdump -v -e '16/1 "%02x " "\n"' /sys/class/net/br-lan/brforward | awk '$8 == "00"' | wc -l; }
while [ "$(learned)" -lt "$HOSTS" ] && [ $i -lt 600 ]; do
    sleep 0.1; i=$((i + 1))
done

echo "lanprobe-vm: $(learned) of $HOSTS hosts learned"
mount -t tmpfs -o mode=1777 tmp /tmp
# The log goes to /tmp/lanprobe.log only when it exists; the daemon writes
# over an earlier run's text from its first byte.
[ "$CONSOLE_LOG" = 1 ] || echo stale > /tmp/lanprobe.log
# /dev/console becomes a FIFO drained into a file, held open for writing too
# so that the drain never sees an end of file.
mkfifo /run/console
mount --bind /run/console /dev/console
exec 3<>/dev/console
cat /dev/console > /out/console.txt &
drain=$!
eval "/vmrun /out 120 $TERM_IN /lanprobe $ARGS"
sleep 0.2
kill $drain
ls /tmp > /out/tmp_files
cp /tmp/lanprobe_result /out/result 2>/dev/null
cp /tmp/lanprobe.log /out/lanprobe.log 2>/dev/null
echo "lanprobe-vm: output"
tar -C /out -cf - . | gzip | base64
echo "lanprobe-vm: end"
poweroff -f
