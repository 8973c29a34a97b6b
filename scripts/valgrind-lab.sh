#!/bin/bash
# One whole detection on the lab router (the default LAN: four DHCP servers,
# a silent host, an empty port, wlan0) with the daemon under valgrind
# memcheck, parent and forked child alike.  Asserts for every process of the
# daemon: no memcheck error, no leaked block (definitely, indirectly or
# possibly lost), no descriptor open at exit beyond standard input, output
# and error.  Needs root.
#
#   scripts/valgrind-lab.sh [path/to/lanprobe]
#
# Default binary: a RelWithDebInfo build in build-valgrind (made here).
set -eu
TOP=$(cd "$(dirname "$0")/.." && pwd)
LAB="$TOP/scripts/lab/lab.sh"
[ "$(id -u)" = 0 ] || { echo "valgrind-lab: needs root (network namespaces)" >&2; exit 2; }
command -v valgrind > /dev/null || { echo "valgrind-lab: valgrind is not installed" >&2; exit 2; }

if [ $# -ge 1 ]; then
    BIN=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
else
    cmake -S "$TOP" -B "$TOP/build-valgrind" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLANPROBE_BUILD_TESTS=OFF > /dev/null
    cmake --build "$TOP/build-valgrind" --target lanprobe -j2 > /dev/null
    BIN=$TOP/build-valgrind/lanprobe
fi

WORK=$(mktemp -d /var/tmp/lanprobe-valgrind.XXXXXX)
STATE="$WORK/lab"
VG="$WORK/vg"
mkdir -p "$VG"
trap 'bash "$LAB" down "$STATE"' EXIT

# The lab runner execs whatever binary it is given; this wrapper makes that
# valgrind on the real daemon.  valgrind follows fork by itself; %p gives the
# parent and the child a log file each.
cat > "$WORK/lanprobe-vg" <<WRAP
#!/bin/sh
exec valgrind --tool=memcheck --leak-check=full --show-leak-kinds=all \\
    --errors-for-leak-kinds=definite,indirect,possible --track-fds=yes \\
    --error-exitcode=99 --log-file="$VG/vg.%p.log" "$BIN" "\$@"
WRAP
chmod +x "$WORK/lanprobe-vg"

start=$(date +%s)
bash "$LAB" up "$STATE"
# A longer limit than the daemon's 13 s deadline: valgrind slows the start.
bash "$LAB" run "$STATE" "$WORK/out" --bin "$WORK/lanprobe-vg" --limit=120 -- -d 7 || true
end=$(date +%s)

# Sort the logs out: the parent (started by the runner), the child it forked
# (the detection), and the children of system() for the forwarding-database
# copy, whose logs end where they exec the shell.  Then check each.
fail=0
/usr/bin/python3 - "$VG" <<'PY' || fail=1
import glob, os, re, sys
logs = {}
for path in glob.glob(os.path.join(sys.argv[1], 'vg.*.log')):
    text = open(path, errors='replace').read()
    pid = int(re.search(r'vg\.(\d+)\.log$', path).group(1))
    ppid = int(re.search(r'Parent PID: (\d+)', text).group(1))
    logs[pid] = (ppid, text)
parents = [p for p, (pp, _) in logs.items() if pp not in logs]
ok = len(parents) == 1
if not ok:
    print('valgrind-lab: expected one daemon parent, found %d' % len(parents))
    sys.exit(1)
parent = parents[0]
finished = [p for p, (pp, t) in logs.items() if pp == parent and 'ERROR SUMMARY' in t]
execed = [p for p, (pp, t) in logs.items() if p != parent and 'ERROR SUMMARY' not in t]
if len(finished) != 1:
    print('valgrind-lab: expected one forked child running the detection, found %d' % len(finished))
    sys.exit(1)

def fd_blocks(text):
    # (descriptor, description, stack) of every descriptor open at exit
    out = []
    for m in re.finditer(r'Open file descriptor (\d+):([^\n]*)\n((?:==\d+==  +\S[^\n]*\n)*)', text):
        out.append((int(m.group(1)), m.group(2).strip(), m.group(3)))
    return out

for role, pid in (('parent', parent), ('child', finished[0])):
    text = logs[pid][1]
    errors = int(re.search(r'ERROR SUMMARY: (\d+) errors', text).group(1))
    lost = re.findall(r'(definitely|indirectly|possibly) lost: ([\d,]+) bytes', text)
    lost_bytes = sum(int(b.replace(',', '')) for _, b in lost)
    heap = re.search(r'total heap usage: ([^\n]*)', text)
    opened = [(fd, d, st) for fd, d, st in fd_blocks(text) if fd > 2 and 'inherited from parent' not in st]
    if role == 'parent':
        # The parent ends with exit(0) right after the fork, by design, without
        # any cleanup; with -d the log sink and the saved standard descriptors
        # it opened (log_init) are closed by the kernel.  Anything else counts.
        leftover = [o for o in opened if 'log_init' not in o[2]]
    else:
        leftover = opened
    print('%s (pid %d): %d errors, %d bytes lost, heap %s, descriptors opened and left open: %s'
          % (role, pid, errors, lost_bytes, heap.group(1) if heap else '?',
             ', '.join('%d %s' % (fd, d) for fd, d, _ in leftover) or 'none'))
    if errors or lost_bytes or leftover:
        ok = False
print('system() children (exec of the copy command): %d' % len(execed))
sys.exit(0 if ok else 1)
PY
# The detection itself must have run: the four servers are in the result.
found=$(grep -o '"pre_assigned_ip"' "$WORK/out/result" 2>/dev/null | wc -l)
if [ "$found" -ne 4 ]; then
    echo "valgrind-lab: expected 4 servers in the result, found $found" >&2
    fail=1
fi
bash "$LAB" down "$STATE"
trap - EXIT
echo "valgrind-lab: $((end - start)) s, $found servers found, status $fail"
if [ "$fail" = 0 ]; then rm -rf "$WORK"; else echo "valgrind-lab: logs kept in $VG" >&2; fi
exit $fail
