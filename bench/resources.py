#!/usr/bin/python3
"""CPU time and peak RSS of one whole detection (the daemon's parent and its
forked child together), at debug levels 2 and 7, for 1, 4 and 16 answering
ports.

The daemon runs under bench_rusage, a child subreaper that inherits the
forked child, reaps both and reads getrusage(RUSAGE_CHILDREN).  The figures
include the specified forwarding-database copy, which runs
"cp /sys/class/net/br-lan/brforward /tmp/lanprobe_brforward" through the
shell once per chunk (two shells and two cp per pass here); they are printed
separately from a run of the same copy command alone.  daemon_cpu and
daemon_hwm are the lanprobe processes alone (on-CPU time from schedstat and
VmHWM, sampled every 2 ms by bench_rusage); maxrss_kb is the largest peak of
any process of the tree, the shell and cp of the copy command included.

  resources.py [--bin build/lanprobe] [--rusage build/bench/bench_rusage]
               [--ports 1,4,16] [--levels 2,7] [--runs 5]
"""
import argparse
import json
import os
import re
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import labkit  # noqa: E402

FIELDS = re.compile(r'(\w+)=(-?\d+)')


def measure(lab, work, rusage, bin_path, level, tag):
    rfile = os.path.join(work, 'rusage-%s.txt' % tag)
    wrap = labkit.wrapper_script(os.path.join(work, 'rusage-%s.sh' % tag), [rusage, '-o', rfile, bin_path])
    out = os.path.join(work, 'out-%s' % tag)
    lab.run(out, wrap, ['-d', str(level)], limit=60)
    fig = {k: int(v) for k, v in FIELDS.findall(open(rfile).read())}
    fig['found'] = len(json.load(open(os.path.join(out, 'result')))['result'])
    return fig


def copy_cost(lab, work, rusage):
    """The fdb copy command alone, as the daemon's system() runs it."""
    rfile = os.path.join(work, 'rusage-copy.txt')
    lab.exec('router', [rusage, '-o', rfile, 'sh', '-c',
                        'cp /sys/class/net/br-lan/brforward %s/brforward.copy' % work], check=True)
    return {k: int(v) for k, v in FIELDS.findall(open(rfile).read())}


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.path.join(labkit.TOP, 'build', 'lanprobe'))
    ap.add_argument('--rusage', default=os.path.join(labkit.TOP, 'build', 'bench', 'bench_rusage'))
    ap.add_argument('--ports', default='1,4,16')
    ap.add_argument('--levels', default='2,7')
    ap.add_argument('--runs', type=int, default=5)
    ap.add_argument('--json')
    a = ap.parse_args()
    bin_path, rusage = os.path.abspath(a.bin), os.path.abspath(a.rusage)
    rows = []
    print('%5s %5s %4s %10s %10s %10s %10s %10s %11s %11s %6s' % (
        'ports', 'level', 'runs', 'cpu_ms', 'user_ms', 'sys_ms', 'cpu_max_ms', 'maxrss_kb', 'daemon_cpu', 'daemon_hwm',
        'found'))
    for n in [int(x) for x in a.ports.split(',')]:
        work = labkit.workdir('res%d' % n)
        lab = labkit.Lab(work, labkit.server_kinds(n))
        try:
            copies = [copy_cost(lab, work, rusage) for _ in range(a.runs)]
            for level in [int(x) for x in a.levels.split(',')]:
                figs = [measure(lab, work, rusage, bin_path, level, '%d-%d' % (level, i))
                        for i in range(a.runs)]
                row = {
                    'ports': n, 'level': level, 'runs': a.runs,
                    'cpu_ms': statistics.median(f['cpu_us'] for f in figs) / 1e3,
                    'user_ms': statistics.median(f['user_us'] for f in figs) / 1e3,
                    'sys_ms': statistics.median(f['sys_us'] for f in figs) / 1e3,
                    'cpu_max_ms': max(f['cpu_us'] for f in figs) / 1e3,
                    'maxrss_kb': max(f['maxrss_kb'] for f in figs),
                    'found': min(f['found'] for f in figs),
                    'procs': max(f['procs'] for f in figs),
                    'own_cpu_ms': statistics.median(f['own_cpu_us'] for f in figs) / 1e3,
                    'own_hwm_kb': max(f['own_hwm_kb'] for f in figs),
                    'copy_cpu_ms': statistics.median(c['cpu_us'] for c in copies) / 1e3,
                }
                rows.append(row)
                print('%5d %5d %4d %10.2f %10.2f %10.2f %10.2f %10d %11.2f %11d %6d' % (
                    n, level, a.runs, row['cpu_ms'], row['user_ms'], row['sys_ms'], row['cpu_max_ms'],
                    row['maxrss_kb'], row['own_cpu_ms'], row['own_hwm_kb'], row['found']))
            print('      one fdb copy command (sh -c cp) alone: %.2f ms CPU (median of %d)'
                  % (rows[-1]['copy_cpu_ms'], a.runs))
        finally:
            lab.down()
            labkit.cleanup(work)
    if a.json:
        with open(a.json, 'w') as f:
            json.dump(rows, f, indent=1)


if __name__ == '__main__':
    main()
