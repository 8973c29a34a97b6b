#!/bin/bash
# Demo of lanprobe on the lab router: brings up the default lab LAN (dnsmasq,
# busybox udhcpd, ISC dhcpd and Kea behind eth0..eth3, a silent host on eth4,
# nothing on eth5 and wlan0), runs `lanprobe -d 7` there, prints the result
# document and a table of the ports, and tears the lab down (also when
# interrupted).  The daemon's log and outputs stay in the printed directory.
#
#   demo.sh [path/to/lanprobe]        (default: $LANPROBE, else build/lanprobe)
set -eu
TOP=$(cd "$(dirname "$0")/../.." && pwd)
LAB="$TOP/scripts/lab/lab.sh"
BIN=${1:-${LANPROBE:-$TOP/build/lanprobe}}
[ "$(id -u)" = 0 ] || { echo "demo: needs root (network namespaces)" >&2; exit 1; }
[ -x "$BIN" ] || { echo "demo: no daemon binary at $BIN" >&2; exit 1; }

# Lab state and outputs stay outside /tmp: the daemon gets a fresh /tmp of its own.
WORK=$(mktemp -d "${LAB_WORKDIR:-/var/tmp}/lanprobe-demo.XXXXXX")
STATE="$WORK/lab"
OUT="$WORK/out"
trap 'bash "$LAB" down "$STATE"' EXIT
trap 'echo "demo: interrupted" >&2; exit 130' INT TERM

echo "== Bringing up the lab router (br-lan 192.168.1.1/24)"
start=$(date +%s.%N)
bash "$LAB" up "$STATE"
echo "   up in $(echo "$(date +%s.%N) $start" | awk '{ printf "%.1f", $1 - $2 }') s"
ports=$(bash "$LAB" exec "$STATE" router ls /sys/class/net/br-lan/brif)

echo "== Running: lanprobe -d 7 (deadline 13 s)"
bash "$LAB" run "$STATE" "$OUT" --bin "$BIN" -- -d 7

echo "== Result document (/tmp/lanprobe_result)"
cat "$OUT/result" 2>/dev/null || echo "(no result file)"
echo

/usr/bin/python3 - "$OUT" "$STATE/config/switch" $ports <<'EOF'
import json, os, re, sys
out, switch, ports = sys.argv[1], sys.argv[2], sys.argv[3:]
status = json.load(open(os.path.join(out, 'status.json')))
log = open(os.path.join(out, 'lanprobe.log'), errors='replace').read()
labels = {}
if os.path.exists(switch):
    for sec in open(switch).read().split('config ')[1:]:
        o = dict(re.findall(r"option (\w+) '([^']*)'", sec))
        if 'ifname' in o:
            labels[o['ifname']] = o.get('label', '')
try:
    found = {e['name']: e for e in json.load(open(os.path.join(out, 'result')))['result']}
except (OSError, ValueError, KeyError, TypeError):
    found = {}
rows = [('port', 'label', 'server MAC', 'offered address', 'gateway', 'DNS')]
for p in ports:
    e = found.get(p)
    if e:
        rows.append((p, e['label'], e['mac'], e.get('pre_assigned_ip', '-'), e.get('gateway_ip', '-'),
                     e.get('dns_ip', '-')))
    elif 'Send DHCP Discovery packet success via dev:%s\n' % p in log:
        rows.append((p, labels.get(p, ''), 'no server'))
    else:
        rows.append((p, labels.get(p, ''), 'not probed (no host learned)'))
# Columns as wide as their longest cell; a port's status text stands in the
# server MAC column and its row ends there.
widths = [max(len(r[i]) for r in rows if i < len(r)) for i in range(6)]
for r in rows:
    print('  '.join(c.ljust(w) for c, w in zip(r, widths)).rstrip())
child = status.get('child') or {}
end = ('exit status %s' % child['exit'] if child.get('exit') is not None
       else 'killed by signal %s' % child.get('signal'))
print('\nforked child: %s after %.1f s%s; placeholder while running: %r'
      % (end, child.get('ms', 0) / 1000.0, ' (runner limit reached)' if status.get('timed_out') else '',
         status.get('placeholder')))
EOF
echo
echo "== Log: $OUT/lanprobe.log  (console: $OUT/console.txt)"
