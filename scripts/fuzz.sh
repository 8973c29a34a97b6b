#!/bin/bash
# Builds the libFuzzer targets (clang, ASan + UBSan) and runs each for a
# bounded time, then prints per-target figures: executions, coverage (edges)
# and features reached, corpus size, crashes.  Needs root (the targets enter
# namespaces of their own).
#
#   scripts/fuzz.sh [seconds-per-target] [target...]
#
# Default: 8 s per target, every target (dhcp_offer arp uci fdb), one after
# the other.  Environment:
#   FUZZ_JOBS=N       run N targets at a time (default 1)
#   FUZZ_BUILD_DIR    build directory (default build-fuzz)
#   FUZZ_OUT          where corpora, logs and crash inputs go (default: a new
#                     directory under /var/tmp); the seed corpora in
#                     tests/fuzz/corpus are read, never written...
#   FUZZ_MERGE=1      ...unless this is set: then the inputs of the run that
#                     reach new coverage are merged into them afterwards
# Exit status 1 when any target crashed or failed one of its checks; the
# input that did it is in FUZZ_OUT/artifacts/<target>/.
set -eu
TOP=$(cd "$(dirname "$0")/.." && pwd)
SECS=${1:-8}
shift || true
TARGETS=${*:-dhcp_offer arp uci fdb}
JOBS=${FUZZ_JOBS:-1}
BUILD=${FUZZ_BUILD_DIR:-$TOP/build-fuzz}
OUT=${FUZZ_OUT:-$(mktemp -d /var/tmp/lanprobe-fuzz.XXXXXX)}
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)

[ "$(id -u)" = 0 ] || { echo "fuzz: needs root (namespaces)" >&2; exit 2; }
case "$SECS" in ''|*[!0-9]*) echo "fuzz: seconds must be a number: $SECS" >&2; exit 2;; esac

echo "== Building fuzz targets in $BUILD"
CC=clang CXX=clang++ cmake -S "$TOP" -B "$BUILD" -DLANPROBE_FUZZ=ON -DLANPROBE_BUILD_BENCH=OFF -DLANPROBE_WERROR=ON \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$OUT/cmake.log"
cmake --build "$BUILD" -j2 --target $(for t in $TARGETS; do printf 'fuzz_%s ' "$t"; done) > "$OUT/build.log" \
    || { tail -n 30 "$OUT/build.log" >&2; exit 2; }

run_one() {
    local t=$1
    mkdir -p "$OUT/corpus/$t" "$OUT/artifacts/$t"
    # New inputs go to the first directory; the repository's seeds are read only.
    # -close_fd_mask=3: the daemon's log and libuci's error lines would drown
    # libFuzzer's output; sanitizer reports still reach it.
    "$BUILD/tests/fuzz_$t" -max_total_time="$SECS" -timeout=20 -rss_limit_mb=2048 -close_fd_mask=3 \
        -print_final_stats=1 -artifact_prefix="$OUT/artifacts/$t/" \
        "$OUT/corpus/$t" "$TOP/tests/fuzz/corpus/$t" > "$OUT/$t.log" 2>&1 || true
}

echo "== Running: $TARGETS, $SECS s each, $JOBS at a time; output in $OUT"
running=0
for t in $TARGETS; do
    run_one "$t" &
    running=$((running + 1))
    if [ "$running" -ge "$JOBS" ]; then
        wait -n || true
        running=$((running - 1))
    fi
done
wait

fail=0
printf '%-12s %12s %9s %8s %9s %10s %8s\n' target executions exec/s edges features corpus crashes
for t in $TARGETS; do
    log="$OUT/$t.log"
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
    last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
    cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
    ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
    corp=$(echo "$last" | sed -n 's/.* corp: \([0-9]*\/[0-9a-zA-Z]*\).*/\1/p')
    crashes=$(find "$OUT/artifacts/$t" -type f | wc -l)
    if [ -z "$execs" ] || [ "$crashes" -gt 0 ] || grep -qE 'ERROR: (AddressSanitizer|libFuzzer|UndefinedBehaviorSanitizer)|fuzz check failed|runtime error' "$log"; then
        fail=1
        [ "$crashes" -gt 0 ] || crashes="see log"
    fi
    printf '%-12s %12s %9s %8s %9s %10s %8s\n' "$t" "${execs:-?}" "${speed:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" "$crashes"
done
if [ "${FUZZ_MERGE:-0}" = 1 ]; then
    for t in $TARGETS; do
        # The control file lies outside /tmp: every merge child enters a
        # sandbox with a /tmp of its own.
        rm -f "$OUT/merge-$t"
        "$BUILD/tests/fuzz_$t" -merge=1 -merge_control_file="$OUT/merge-$t" -close_fd_mask=3 \
            "$TOP/tests/fuzz/corpus/$t" "$OUT/corpus/$t" > "$OUT/merge-$t.log" 2>&1 || fail=1
        echo "merged into tests/fuzz/corpus/$t: $(sed -n 's/^MERGE-OUTER: \([0-9]* new files.*\)/\1/p' "$OUT/merge-$t.log")"
    done
fi
echo "== Logs, corpora and crash inputs: $OUT"
exit $fail
