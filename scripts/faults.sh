#!/bin/bash
# Full fault runs in the lab (needs root): at least 20 runs of every fault,
# 200 runs with SIGTERM sent from outside at random moments, 40 with SIGTERM
# delivered inside chosen calls, 20 hostile-LAN runs.  The test suite makes a
# few runs of each (ctest -L faults).
#
#   scripts/faults.sh [BUILD_DIR] [scenario...]
# Writes one JSON line per scenario to BUILD_DIR/faults.json and prints a
# PASS/FAIL line for each; exit status 1 when any scenario failed.
set -u
TOP=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${1:-$TOP/build}
[ $# -gt 0 ] && shift
BIN=$BUILD/lanprobe
[ -x "$BIN" ] || { echo "faults: no daemon at $BIN (build it first)" >&2; exit 1; }
[ "$(id -u)" = 0 ] || { echo "faults: needs root" >&2; exit 1; }
OUT=$BUILD/faults.json
: > "$OUT"

# scenario:runs
FULL="port_deleted:20 port_down:20 server_killed:20 brlan_deleted:20 brlan_down:20
      brlan_no_ipv4:20 config:20 tmp_full:20 term_random:200 term_targeted:40
      self_signals:10 hostile_lan:20"
status=0
for item in $FULL; do
    name=${item%%:*} runs=${item#*:}
    if [ $# -gt 0 ]; then
        case " $* " in *" $name "*) ;; *) continue ;; esac
    fi
    /usr/bin/python3 "$TOP/tests/faults/faults.py" --bin "$BIN" --runs "$runs" --json "$OUT" "$name" || status=1
done
exit $status
