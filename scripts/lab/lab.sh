#!/bin/bash
# The lab router: a router network namespace with the bridge br-lan and its
# ports eth0..ethN, and one namespace per host behind a port, running a real
# DHCP server, a crafted responder, or nothing.  Everything lives in namespaces
# created here; the host's own interfaces are never touched.
#
#   lab.sh up STATE [options] [ethN=KIND ...]   bring a lab up, state kept in STATE
#   lab.sh learn STATE                          have every host send a frame again
#   lab.sh run STATE OUT [runner options] -- [lanprobe options]
#   lab.sh exec STATE NAME CMD...               run CMD in namespace NAME (router, eth0, ...)
#   lab.sh down STATE                           stop everything by PID, remove all
#
# KIND: dnsmasq | udhcpd | dhcpd | kea | silent | empty, and the test rows'
#   kinds of tests/lab/hosts.sh (when present)
# up options: --wlan adds a wlan0 member port without switch attributes and
#   without a host; tests/lab/hosts.sh adds its own
# Without any ethN=KIND the default LAN is built:
#   eth0=dnsmasq eth1=udhcpd eth2=dhcpd eth3=kea eth4=silent eth5=empty, plus wlan0.
#
# Addressing, per port N: host 192.168.1.(10+N) with MAC 02:1a:00:00:01:0N, its
# pool 192.168.1.(100+20N)..(119+20N) (from port 7 on the one address
# 192.168.1.(140+N)), router option 192.168.1.(10+N), DNS
# option 10.53.0.(10+N).  br-lan is 192.168.1.1 with MAC 02:1a:00:00:00:01;
# the router's end of port N has MAC 02:1a:00:00:00:1N.
set -eu

LAB_DIR=$(cd "$(dirname "$0")" && pwd)
TOP=$(cd "$LAB_DIR/../.." && pwd)
PY=${LAB_PYTHON:-/usr/bin/python3}
BR_MAC=02:1a:00:00:00:01
BR_IP=192.168.1.1

die() { echo "lab: $*" >&2; exit 1; }
log() { [ -n "${LAB_QUIET:-}" ] || echo "lab: $*" >&2; }

# ------------------------------------------------------------------ helpers
port_index() { echo "${1#eth}"; }
host_ip()    { echo "192.168.1.$((10 + $1))"; }
host_mac()   { printf '02:1a:00:00:01:%02x' "$1"; }
port_mac()   { printf '02:1a:00:00:00:%02x' "$((16 + $1))"; }
# Ports 0..6 get pools of 20 addresses; from port 7 on (large labs, up to
# port 114) each server offers a single address, 192.168.1.(140+N).
pool_lo()    { if [ "$1" -lt 7 ]; then echo "192.168.1.$((100 + 20 * $1))"; else echo "192.168.1.$((140 + $1))"; fi; }
pool_hi()    { if [ "$1" -lt 7 ]; then echo "192.168.1.$((119 + 20 * $1))"; else echo "192.168.1.$((140 + $1))"; fi; }
dns_ip()     { echo "10.53.0.$((10 + $1))"; }

load_state() {
    STATE=$1
    [ -f "$STATE/lab.env" ] || die "no lab in $STATE"
    . "$STATE/lab.env"
}

# A fresh namespace with IPv6 off, so that no interface sends router
# solicitations or DAD frames on its own: the bridge must learn only the hosts
# we make talk, and the empty port must stay empty.
new_ns() {
    ip netns add "$1"
    echo "$1" >> "$STATE/namespaces"
    ip netns exec "$1" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    ip -n "$1" link set lo up
}

# Start a long-running program in a namespace and remember it by PID.
# `ip netns exec` execs the program itself, so $! is the program's PID.
spawn() {
    local name=$1 ns=$2; shift 2
    ip netns exec "$ns" "$@" > "$STATE/$name.out" 2>&1 < /dev/null &
    echo "$! $name" >> "$STATE/pids"
}

# Running, and not a zombie: servers outlive `lab.sh up` and are reaped by
# whoever adopted them, possibly much later than they exit.
alive() {
    local st
    st=$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)
    [ -n "$st" ] && [ "$st" != Z ]
}

# Wait until a UDP socket on port 67 exists in the namespace (the server is up).
wait_udp67() {
    local ns=$1 name=$2 pid=$3 i
    for i in $(seq 100); do
        alive "$pid" || { cat "$STATE/$name.out" >&2; die "$name exited during start"; }
        if ip netns exec "$ns" awk 'NR > 1 && $2 ~ /:0043$/ { f = 1 } END { exit !f }' /proc/net/udp; then
            return 0
        fi
        sleep 0.1
    done
    die "$name did not open port 67"
}

last_pid() { tail -n 1 "$STATE/pids" | cut -d' ' -f1; }

# ------------------------------------------------------------------ servers
start_dnsmasq() {   # ns dir N router_ip
    local ns=$1 d=$2 n=$3 gw=$4
    # --no-ping: no 3 s ping of the address before offering it;
    # --port=0: DHCP only; --user=root: keep write access to the state dir.
    spawn "dnsmasq-eth$n" "$ns" dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 \
        --user=root --interface=veth0 --bind-interfaces --no-ping --log-dhcp \
        --dhcp-range="$(pool_lo "$n"),$(pool_hi "$n"),255.255.255.0,12h" \
        --dhcp-option=3,"$gw" --dhcp-option=6,"$(dns_ip "$n")" \
        --dhcp-leasefile="$d/dnsmasq.leases" --pid-file="$d/dnsmasq.pid"
    wait_udp67 "$ns" "dnsmasq-eth$n" "$(last_pid)"
}

start_udhcpd() {
    local ns=$1 d=$2 n=$3
    cat > "$d/udhcpd.conf" <<EOF
start $(pool_lo "$n")
end $(pool_hi "$n")
interface veth0
lease_file $d/udhcpd.leases
pidfile $d/udhcpd.pid
opt subnet 255.255.255.0
opt router $(host_ip "$n")
opt dns $(dns_ip "$n")
opt lease 600
EOF
    touch "$d/udhcpd.leases"
    # udhcpd keeps its default ARP check (2 s) before offering an address,
    # as on a real LAN, and broadcasts its OFFER.
    spawn "udhcpd-eth$n" "$ns" busybox udhcpd -f "$d/udhcpd.conf"
    wait_udp67 "$ns" "udhcpd-eth$n" "$(last_pid)"
}

start_dhcpd() {
    local ns=$1 d=$2 n=$3
    cat > "$d/dhcpd.conf" <<EOF
default-lease-time 600;
max-lease-time 7200;
authoritative;
ping-check false;
subnet 192.168.1.0 netmask 255.255.255.0 {
  range $(pool_lo "$n") $(pool_hi "$n");
  option routers $(host_ip "$n");
  option domain-name-servers $(dns_ip "$n");
}
EOF
    touch "$d/dhcpd.leases"
    # Own pid and lease files in the state dir: dhcpd refuses to start over a stale pid file.
    spawn "dhcpd-eth$n" "$ns" dhcpd -f -4 -q -cf "$d/dhcpd.conf" -lf "$d/dhcpd.leases" \
        -pf "$d/dhcpd.pid" veth0
    wait_udp67 "$ns" "dhcpd-eth$n" "$(last_pid)"
}

start_kea() {
    local ns=$1 d=$2 n=$3
    cat > "$d/kea.json" <<EOF
{ "Dhcp4": {
    "interfaces-config": { "interfaces": [ "veth0" ], "dhcp-socket-type": "raw" },
    "lease-database": { "type": "memfile", "persist": false },
    "valid-lifetime": 600,
    "subnet4": [ {
        "id": 1,
        "subnet": "192.168.1.0/24",
        "interface": "veth0",
        "pools": [ { "pool": "$(pool_lo "$n") - $(pool_hi "$n")" } ],
        "option-data": [
            { "name": "routers", "data": "$(host_ip "$n")" },
            { "name": "domain-name-servers", "data": "$(dns_ip "$n")" } ]
    } ],
    "loggers": [ { "name": "kea-dhcp4", "severity": "INFO",
                   "output_options": [ { "output": "$d/kea.log" } ] } ]
} }
EOF
    spawn "kea-eth$n" "$ns" env KEA_PIDFILE_DIR="$d" KEA_LOCKFILE_DIR="$d" kea-dhcp4 -c "$d/kea.json"
    wait_udp67 "$ns" "kea-eth$n" "$(last_pid)"
}

# ------------------------------------------------------------------ fixtures
write_fixtures() {   # eth port names...
    mkdir -p "$STATE/config"
    cat > "$STATE/config/network" <<EOF
config interface 'loopback'
	option ifname 'lo'
	option proto 'static'
	option ipaddr '127.0.0.1'
	option netmask '255.0.0.0'

config interface 'lan'
	option type 'bridge'
	option ifname '$*'
	option proto 'static'
	option ipaddr '$BR_IP'
	option netmask '255.255.255.0'
EOF
    [ "$NO_SWITCH" = 1 ] && return 0
    {
        printf "config switch\n\toption name 'switch0'\n\toption reset '1'\n\toption enable_vlan '1'\n"
        local p n
        for p in "$@"; do
            n=$(port_index "$p")
            printf "\nconfig switch_port\n\toption port '%d'\n\toption ifname '%s'\n\toption label 'LAN%d'\n" \
                "$((n + 1))" "$p" "$((n + 1))"
        done
    } > "$STATE/config/switch"
}

# ------------------------------------------------------------------ router
# The router is a network namespace holding br-lan; tests/vm/router.sh puts a
# virtual machine in its place (these four functions).
router_up() {   # eth port names...
    ip -n "$ROUTER_NS" link add br-lan address "$BR_MAC" type bridge
    ip -n "$ROUTER_NS" addr add "$BR_IP/24" dev br-lan
    ip -n "$ROUTER_NS" link set br-lan up
    if [ "$WLAN" = 1 ]; then
        # A member without switch attributes and without anything behind it.
        # Its peer sits in a namespace of its own: left in the router's, it
        # would answer ARP for br-lan's address and be learned as a host.
        new_ns "${LAB_ID}w"
        ip -n "$ROUTER_NS" link add wlan0 type veth peer name wlan0 netns "${LAB_ID}w"
        ip -n "$ROUTER_NS" link set wlan0 master br-lan
        ip -n "${LAB_ID}w" link set wlan0 up
        ip -n "$ROUTER_NS" link set wlan0 up
    fi
}

# The router's end of port N and the host's veth0 in namespace NS.
link_port() {   # ethN N NS
    ip -n "$ROUTER_NS" link add "$1" address "$(port_mac "$2")" type veth \
        peer name veth0 netns "$3" address "$(host_mac "$2")"
    [ "$DETACHED" = 1 ] || ip -n "$ROUTER_NS" link set "$1" master br-lan
    ip -n "$ROUTER_NS" link set "$1" up
}

router_ready() { :; }

# ------------------------------------------------------------------ up
add_port() {   # ethN KIND
    local port=$1 kind=$2 n ns d ip
    n=$(port_index "$port")
    case "$n" in ''|*[!0-9]*) die "port names are eth0, eth1, ...: $port";; esac
    ns="${LAB_ID}h$n"
    d="$STATE/hosts/$port"
    mkdir -p "$d"
    new_ns "$ns"
    echo "$port $kind $ns" >> "$STATE/ports"
    link_port "$port" "$n" "$ns"
    ip -n "$ns" link set veth0 up
    [ "$kind" = empty ] && return 0
    ip=$(host_ip "$n")
    ip -n "$ns" addr add "$ip/24" dev veth0
    case "$kind" in
        dnsmasq) start_dnsmasq "$ns" "$d" "$n" "$ip" ;;
        udhcpd)  start_udhcpd "$ns" "$d" "$n" ;;
        dhcpd)   start_dhcpd "$ns" "$d" "$n" ;;
        kea)     start_kea "$ns" "$d" "$n" ;;
        silent)  ;;
        *) declare -F "start_${kind%%:*}" > /dev/null || die "unknown host kind: $kind"
           "start_${kind%%:*}" "$ns" "$d" "$n" "${kind#*:}" ;;
    esac
}

# Every host sends one frame so that br-lan learns it behind its port (the
# daemon probes only ports with a learned host).  Hosts that cannot ping
# br-lan (see hosts.sh) announce their own address instead.
cmd_learn() {
    load_state "$1"
    local port kind ns
    router_ready
    while read -r port kind ns; do
        if [ "$kind" = empty ]; then
            continue
        elif declare -F announces > /dev/null && announces "$kind"; then
            ip netns exec "$ns" busybox arping -q -U -c 1 -w 1 -I veth0 \
                "$(ip -n "$ns" -4 -o addr show dev veth0 | awk '{ sub("/.*", "", $4); print $4 }')" || true
        else
            ip netns exec "$ns" busybox ping -q -c 1 -W 2 "$BR_IP" > /dev/null || die "$port: host cannot reach br-lan"
        fi
    done < "$STATE/ports"
    [ "$DETACHED" = 1 ] || check_learned
}

check_learned() {
    local port kind ns mac
    while read -r port kind ns; do
        [ "$kind" = empty ] && continue
        mac=$(host_mac "$(port_index "$port")")
        bridge -n "$ROUTER_NS" fdb show br br-lan | grep -q "^$mac dev $port " \
            || die "br-lan did not learn the host behind $port"
    done < "$STATE/ports"
}

cmd_up() {
    STATE=$1; shift
    NO_SWITCH=0 DETACHED=0 WLAN=0
    local hosts=() s
    for s in "$@"; do
        case "$s" in
            --wlan) WLAN=1 ;;
            eth*=*) hosts+=("$s") ;;
            *) declare -F up_option > /dev/null && up_option "$s" || die "unknown up argument: $s" ;;
        esac
    done
    if [ ${#hosts[@]} -eq 0 ]; then
        hosts=(eth0=dnsmasq eth1=udhcpd eth2=dhcpd eth3=kea eth4=silent eth5=empty)
        WLAN=1
    fi
    [ -e "$STATE/lab.env" ] && die "$STATE already holds a lab"
    mkdir -p "$STATE"
    # A prefix plus our PID and a random number keeps two labs apart.
    LAB_ID="lp$$x$RANDOM"
    ROUTER_NS="${LAB_ID}r"
    cat > "$STATE/lab.env" <<EOF
LAB_ID=$LAB_ID
ROUTER_NS=$ROUTER_NS
NO_SWITCH=$NO_SWITCH
DETACHED=$DETACHED
EOF
    : > "$STATE/namespaces"; : > "$STATE/pids"; : > "$STATE/ports"
    # Anything failing half-way takes down what was made so far.
    trap 'cmd_down "$STATE"' EXIT
    trap 'exit 130' INT TERM

    new_ns "$ROUTER_NS"
    local ports=()
    for s in "${hosts[@]}"; do ports+=("${s%%=*}"); done
    write_fixtures "${ports[@]}"
    router_up "${ports[@]}"
    for s in "${hosts[@]}"; do add_port "${s%%=*}" "${s#*=}"; done
    ! declare -F wait_ready > /dev/null || wait_ready
    cmd_learn "$STATE"
    trap - EXIT INT TERM
    log "up: router namespace $ROUTER_NS, ports: ${hosts[*]}"
}

# ------------------------------------------------------------------ down
stop_pid() {
    local pid=$1 i
    alive "$pid" || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for i in $(seq 30); do alive "$pid" || return 0; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
}

cmd_down() {
    STATE=$1
    [ -f "$STATE/lab.env" ] || return 0
    local pid name ns
    if [ -f "$STATE/pids" ]; then
        while read -r pid name; do stop_pid "$pid"; done < "$STATE/pids"
    fi
    if [ -f "$STATE/namespaces" ]; then
        while read -r ns; do
            # Whatever still runs in a lab namespace was started by the lab (a
            # runner, a capture): stop it by its PID before removing the namespace.
            for pid in $(ip netns pids "$ns" 2>/dev/null); do stop_pid "$pid"; done
            ip netns del "$ns" 2>/dev/null || true
        done < "$STATE/namespaces"
    fi
    rm -rf "$STATE"
}

# ------------------------------------------------------------------ run
cmd_run() {
    load_state "$1"
    local out=$2; shift 2
    local bin=${LANPROBE:-$TOP/build/lanprobe} init_args=()
    while [ $# -gt 0 ]; do
        case "$1" in
            --bin) bin=$2; shift 2 ;;
            --console-log|--limit=*) init_args+=("$1"); shift ;;
            --) shift; break ;;
            *) break ;;
        esac
    done
    [ -x "$bin" ] || die "no daemon binary at $bin (give --bin or LANPROBE)"
    mkdir -p "$out"
    out=$(cd "$out" && pwd)
    bin=$(cd "$(dirname "$bin")" && pwd)/$(basename "$bin")
    # New mount and PID namespaces inside the router's network namespace;
    # nsinit.py is PID 1 there.  --kill-child takes the whole PID namespace
    # down if this runner is interrupted.
    ip netns exec "$ROUTER_NS" unshare --mount --propagation private --pid --fork --mount-proc \
        --kill-child "$PY" "$LAB_DIR/nsinit.py" --config "$STATE/config" --out "$out" \
        "${init_args[@]}" -- "$bin" "$@"
}

cmd_exec() {
    load_state "$1"
    local name=$2 ns; shift 2
    if [ "$name" = router ]; then ns=$ROUTER_NS; else
        ns=$(awk -v p="$name" '$1 == p { print $3 }' "$STATE/ports")
        [ -n "$ns" ] || die "no host behind $name"
    fi
    ip netns exec "$ns" "$@"
}

# Host kinds and up options that only the test rows use, and the virtual
# router that stands in for the router namespace (LAB_VM).
[ -f "$TOP/tests/lab/hosts.sh" ] && . "$TOP/tests/lab/hosts.sh"

[ "$(id -u)" = 0 ] || die "needs root (network namespaces)"
cmd=${1:-}; [ $# -ge 2 ] || die "usage: lab.sh up|learn|run|exec|down STATE ..."
shift
case "$cmd" in
    up) cmd_up "$@" ;;
    learn) cmd_learn "$@" ;;
    run) cmd_run "$@" ;;
    exec) cmd_exec "$@" ;;
    down) cmd_down "$@" ;;
    *) die "unknown command: $cmd" ;;
esac
