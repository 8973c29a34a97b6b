# Sourced by scripts/lab/lab.sh: the host kinds and up options that only the
# test rows use.
#   owner        a host that also holds 192.168.1.1 (and answers ARP for it),
#                serving with dnsmasq
#   responder:M  a host sending crafted OFFERs (modes: see tests/lab/hosts.py)
#   --no-switch  leave out /etc/config/switch
#   --detached   do not enslave the eth ports to br-lan (the daemon then takes
#                its ports from network.lan.ifname)

up_option() {
    case "$1" in
        --no-switch) NO_SWITCH=1 ;;
        --detached) DETACHED=1 ;;
        *) return 1 ;;
    esac
}

# The owner cannot ping 192.168.1.1, which is itself, and hosts behind ports
# outside the bridge reach nobody.
announces() { [ "$1" = owner ] || [ "$DETACHED" = 1 ]; }

start_owner() {
    local ns=$1 d=$2 n=$3
    # accept_local makes the kernel answer the router's ARP announcement,
    # whose sender address is its own.
    ip -n "$ns" addr flush dev veth0
    ip -n "$ns" addr add "$BR_IP/24" dev veth0
    ip netns exec "$ns" sysctl -qw net.ipv4.conf.all.accept_local=1 net.ipv4.conf.veth0.accept_local=1
    start_dnsmasq "$ns" "$d" "$n" "$BR_IP"
}

start_responder() {
    local ns=$1 d=$2 n=$3 mode=$4
    spawn "responder-eth$n" "$ns" "$PY" "$TOP/tests/lab/hosts.py" respond --iface veth0 --mode "$mode" \
        --ip "$(host_ip "$n")" --pool "$(pool_lo "$n")" --dns "$(dns_ip "$n")" \
        --br-mac "$BR_MAC" --events "$d/responder.events" --ready "$d/responder.ready"
    echo "$(last_pid) $d/responder.ready eth$n" >> "$STATE/pending"
}

# Responders are ready once they have written their ready file.
wait_ready() {
    [ -f "$STATE/pending" ] || return 0
    local pid file port i
    while read -r pid file port; do
        for i in $(seq 200); do
            [ -f "$file" ] && break
            alive "$pid" || { cat "$STATE/responder-$port.out" >&2; die "responder on $port exited"; }
            sleep 0.1
        done
        [ -f "$file" ] || die "responder on $port not ready"
    done < "$STATE/pending"
    rm -f "$STATE/pending"
}

# LAB_VM=ARCH: the router is a virtual machine (tests/vm/router.sh).
[ -z "${LAB_VM:-}" ] || . "$TOP/tests/vm/router.sh"
# The survey's hosts.
#   switch2      a small switch behind the port: a bridge in the host's
#                namespace (carrying the host's address and MAC) with dnsmasq
#                (02:1a:00:00:02:0N, 192.168.1.(50+N)) and ISC dhcpd
#                (02:1a:00:00:03:0N, 192.168.1.(60+N)) behind it
#   public       dnsmasq offering 203.0.113.100-119 (an ISP modem's network)
start_switch2() {
    local ns=$1 d=$2 n=$3 s
    ip -n "$ns" addr flush dev veth0
    ip -n "$ns" link add sw0 address "$(host_mac "$n")" type bridge
    ip -n "$ns" link set veth0 master sw0
    ip -n "$ns" link set sw0 up
    ip -n "$ns" addr add "$(host_ip "$n")/24" dev sw0
    for s in 2 3; do
        new_ns "$ns-$s"
        mkdir -p "$d/$s"
        ip -n "$ns" link add "sw$s" type veth peer name veth0 netns "$ns-$s" \
            address "$(printf '02:1a:00:00:%02x:%02x' "$s" "$n")"
        ip -n "$ns" link set "sw$s" master sw0 up
        ip -n "$ns-$s" link set veth0 up
        ip -n "$ns-$s" addr add "192.168.1.$((30 + 10 * s + n))/24" dev veth0
    done
    start_dnsmasq "$ns-2" "$d/2" "$n" "$(host_ip "$n")"
    start_dhcpd "$ns-3" "$d/3" "$n"
}

start_public() {
    local ns=$1 d=$2 n=$3
    ip -n "$ns" addr add 203.0.113.1/24 dev veth0
    spawn "dnsmasq-eth$n" "$ns" dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 \
        --user=root --interface=veth0 --bind-interfaces --no-ping \
        --dhcp-range=203.0.113.100,203.0.113.119,255.255.255.0,1h \
        --dhcp-option=3,203.0.113.1 --dhcp-option=6,203.0.113.53 \
        --dhcp-leasefile="$d/dnsmasq.leases" --pid-file="$d/dnsmasq.pid"
    wait_udp67 "$ns" "dnsmasq-eth$n" "$(last_pid)"
}
