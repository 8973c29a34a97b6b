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
