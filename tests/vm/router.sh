# Sourced by scripts/lab/lab.sh (through tests/lab/hosts.sh) when LAB_VM is
# set: the router is a virtual machine under qemu instead of a namespace.
# Each port is a tap that qemu attaches to a virtio NIC of the VM; once qemu
# holds it, the tap moves into its host's namespace as veth0.  The router
# namespace keeps qemu and the taps of ports without a host.  The run is part
# of the boot: LAB_VM_DIR (tests/vm/image.sh), LAB_VM_ARGS (the daemon's
# arguments, shell words), LAB_VM_CONSOLE_LOG=1 (no /tmp/lanprobe.log) and
# LAB_VM_TERM_IN (system call numbers, see vmrun.c) go into the VM's run.env.

router_up() {   # eth port names...
    local d="$STATE/vm" i=0 p mac hosts_up=0 list="" nets=() s qemu console nic
    mkdir -p "$d/root/etc"
    { read -r qemu; read -r console; read -r nic; } < "$LAB_VM_DIR/qemu"
    [ "$WLAN" = 1 ] && set -- "$@" wlan0
    for p in "$@"; do
        if [ "$p" = wlan0 ]; then mac=02:1a:00:00:00:0f; else mac=$(port_mac "$(port_index "$p")"); fi
        ip -n "$ROUTER_NS" tuntap add dev "tap$i" mode tap
        ip -n "$ROUTER_NS" link set "tap$i" up
        echo "$p tap$i" >> "$d/taps"
        nets+=(-netdev "tap,id=n$i,ifname=tap$i,script=no,downscript=no"
               -device "virtio-net-pci,netdev=n$i,mac=$mac,romfile=${nic:+$nic,addr=$((i + 1))}")
        list="$list $mac=$p"
        i=$((i + 1))
    done
    for s in "${hosts[@]}"; do [ "${s#*=}" = empty ] || hosts_up=$((hosts_up + 1)); done
    [ "$DETACHED" = 1 ] && hosts_up=0
    cp -r "$STATE/config" "$d/root/etc/config"
    printf 'PORTS="%s"\nDETACHED=%s\nHOSTS=%s\nCONSOLE_LOG=%s\nTERM_IN=%s\nARGS="%s"\n' "${list# }" "$DETACHED" \
        "$hosts_up" "${LAB_VM_CONSOLE_LOG:-0}" "${LAB_VM_TERM_IN:--}" "${LAB_VM_ARGS:-}" > "$d/root/run.env"
    (cd "$d/root" && find . | cpio -o -H newc --quiet | gzip -1) | cat "$LAB_VM_DIR/base.cpio.gz" - > "$d/initrd"
    # shellcheck disable=SC2086
    spawn vm "$ROUTER_NS" $qemu -m 256 -nographic -no-reboot -monitor none -serial "file:$d/serial.txt" \
        -kernel "$LAB_VM_DIR/kernel" -initrd "$d/initrd" -append "console=$console quiet panic=-1" "${nets[@]}"
    for i in $(seq 100); do
        ip -n "$ROUTER_NS" link show | grep -q NO-CARRIER || return 0
        alive "$(last_pid)" || { cat "$STATE/vm.out" >&2; die "qemu exited"; }
        sleep 0.1
    done
    die "qemu did not attach its taps"
}

link_port() {   # ethN N NS
    local tap
    tap=$(awk -v p="$1" '$1 == p { print $2 }' "$STATE/vm/taps")
    ip -n "$ROUTER_NS" link set "$tap" netns "$3"
    ip -n "$3" link set "$tap" name veth0 address "$(host_mac "$2")"
    ip netns exec "$3" sysctl -qw net.ipv6.conf.veth0.disable_ipv6=1
}

# The hosts can reach br-lan once the VM has made it.
router_ready() {
    local i pid
    pid=$(awk '$2 == "vm" { print $1 }' "$STATE/pids")
    for i in $(seq 1200); do
        grep -q "lanprobe-vm: ready" "$STATE/vm/serial.txt" 2> /dev/null && return 0
        alive "$pid" || die "the virtual router stopped before it was ready"
        sleep 0.1
    done
    die "the virtual router did not come up"
}

# The VM waits until br-lan has learned every host before it starts the daemon.
check_learned() { :; }
