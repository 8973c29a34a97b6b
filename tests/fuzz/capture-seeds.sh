#!/bin/bash
# Captures real frames in the lab for the fuzz corpora: the OFFERs of the four
# lab servers (dnsmasq, busybox udhcpd, ISC dhcpd, Kea) answering a lanprobe
# run, the ARP reply of a host that owns br-lan's address, and unicast ARP
# replies of the hosts, plus br-lan's forwarding database and the lab's
# configuration files.  Writes one pcap per port into OUTDIR; the corpus
# entries are made from them by tests/fuzz/pcap_seeds.py.  Needs root.
#
#   capture-seeds.sh BIN OUTDIR
set -eu
TOP=$(cd "$(dirname "$0")/../.." && pwd)
LAB="$TOP/scripts/lab/lab.sh"
BIN=$1
OUT=$2
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
WORK=$(mktemp -d /var/tmp/lanprobe-capture.XXXXXX)
STATE="$WORK/lab"
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill -INT "$p" 2>/dev/null || true; done
    for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
    bash "$LAB" down "$STATE"
    rm -rf "$WORK"
}
trap cleanup EXIT

bash "$LAB" up "$STATE" eth0=owner eth1=udhcpd eth2=dhcpd eth3=kea eth4=dnsmasq
. "$STATE/lab.env"
for port in eth0 eth1 eth2 eth3 eth4; do
    # ip netns exec execs tcpdump itself, so $! is tcpdump's PID.
    ip netns exec "$ROUTER_NS" tcpdump -q -n -U -s 2048 -i "$port" -w "$OUT/$port.pcap" \
        > "$WORK/tcpdump-$port.out" 2>&1 &
    pids+=($!)
done
sleep 2
bash "$LAB" run "$STATE" "$WORK/out" --bin "$BIN" -- -d 7 || true
# Unicast ARP requests from br-lan to each host, as the ARP-entry sweep sends them.
for n in 1 2 3 4; do
    bash "$LAB" exec "$STATE" router busybox arping -c 1 -w 1 -I br-lan "192.168.1.1$n" > /dev/null 2>&1 || true
done
sleep 1
# The bridge's forwarding database as the daemon reads it, and the lab's
# configuration files.
ip netns exec "$ROUTER_NS" cat /sys/class/net/br-lan/brforward > "$OUT/brforward"
cp "$STATE/config/network" "$OUT/network"
cp "$STATE/config/switch" "$OUT/switch"
