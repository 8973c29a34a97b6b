#!/bin/sh
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each for a
# bounded time as CTest tests (label "fuzz"), then prints per target:
# executions, executions a second, edges covered, corpus size.  Needs root
# (the targets enter namespaces of their own).
#
#   tests/fuzz/run.sh [seconds-per-target] [target...]
#
# FUZZ_BUILD_DIR (default build-fuzz); FUZZ_JOBS targets at a time (1).
# FUZZ_MERGE=1 merges the inputs that reached new coverage into the seed
# corpora of tests/fuzz/corpus afterwards.  Exit status 1 when a target
# crashed or failed one of its checks (the input is in BUILD/fuzz/artifacts).
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
secs=${1:-8}
[ $# -gt 0 ] && shift
targets=${*:-dhcp_offer arp uci fdb survey_options}
build=${FUZZ_BUILD_DIR:-$top/build-fuzz}
CC=clang CXX=clang++ cmake -S "$top" -B "$build" -DLANPROBE_FUZZ=ON -DLANPROBE_FUZZ_SECONDS="$secs" \
    -DLANPROBE_BUILD_BENCH=OFF -DLANPROBE_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" -j2 --target $(for t in $targets; do printf 'fuzz_%s ' "$t"; done) > "$build/fuzz-build.log" \
    || { tail -n 30 "$build/fuzz-build.log" >&2; exit 2; }
status=0
(cd "$build" && ctest -L fuzz -R "^fuzz_($(echo $targets | tr ' ' '|'))\$" -j"${FUZZ_JOBS:-1}" -V) > "$build/fuzz.log" 2>&1 || status=1
printf '%-12s %12s %9s %8s %10s\n' target executions exec/s edges corpus
for t in $targets; do
    n=$(cd "$build" && ctest -N -R "^fuzz_$t\$" | sed -n 's/.*Test *#\([0-9]*\):.*/\1/p')
    stat() { sed -n "s/^$n: stat::$1: *//p" "$build/fuzz.log" | tail -n 1; }
    last=$(grep -E "^$n: #[0-9]+" "$build/fuzz.log" | tail -n 1)
    printf '%-12s %12s %9s %8s %10s\n' "$t" "$(stat number_of_executed_units)" "$(stat average_exec_per_sec)" \
        "$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')" "$(echo "$last" | sed -n 's/.* corp: \([^ ]*\).*/\1/p')"
    if [ "${FUZZ_MERGE:-0}" = 1 ]; then
        "$build/tests/fuzz_$t" -merge=1 -merge_control_file="$build/fuzz/merge-$t" -close_fd_mask=3 \
            "$top/tests/fuzz/corpus/$t" "$build/fuzz/corpus/$t" > "$build/fuzz/merge-$t.log" 2>&1 || status=1
    fi
done
[ $status -eq 0 ] || grep -E '(Failed|Timeout|\*\*\*)' "$build/fuzz.log" >&2 || true
exit $status
