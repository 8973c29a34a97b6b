#!/bin/sh
# Runs every benchmark one after the other and keeps their output in a
# directory (default: out/bench).  Needs root (the lab's namespaces) and a
# build with the benchmark helpers:
#
#   cmake -S . -B build && cmake --build build -j2
#   sudo bench/run_all.sh [BUILD_DIR] [OUT_DIR]
#
# Takes about 25 minutes; docs/PERFORMANCE.md explains the figures.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$top/build}" && pwd)
out=${2:-$top/out/bench}
mkdir -p "$out"
bin="$build/lanprobe"
ru="$build/bench/bench_rusage"
fl="$build/bench/bench_flood"
{
    echo "nproc: $(nproc)"
    echo "cpu: $(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)"
    echo "kernel: $(uname -r)"
    echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
} | tee "$out/machine.txt"
sh "$top/bench/size.sh" "$bin" | tee "$out/size.txt"
python3 "$top/bench/timeline.py" --bin "$bin" --json "$out/timeline.json" | tee "$out/timeline.txt"
python3 "$top/bench/resources.py" --bin "$bin" --rusage "$ru" --json "$out/resources.json" | tee "$out/resources.txt"
python3 "$top/bench/flood_bench.py" --bin "$bin" --rusage "$ru" --flood "$fl" --json "$out/flood.json" | tee "$out/flood.txt"
python3 "$top/bench/ports100.py" --bin "$bin" --rusage "$ru" --json "$out/ports100.json" | tee "$out/ports100.txt"
python3 "$top/bench/survey_bench.py" --survey "$build/lanprobe-survey" --rusage "$ru" --json "$out/survey.json" | tee "$out/survey.txt"
