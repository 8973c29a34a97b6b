#!/usr/bin/python3
"""Flood resilience: the highest rate of unrelated frames into a probed port at
which the OFFER of a real server behind that port is still taken in the first
pass, in every one of --runs runs.

A lab with dnsmasq behind eth0 comes up; bench_flood, in the host's namespace,
sends IPv4/UDP frames to the discard port (alternately broadcast and to an
unknown unicast MAC) out of the host's veth0 into eth0 at a fixed rate, from
before the daemon starts until after it has ended.  The daemon runs at -d 2
under bench_rusage.  A run passes when the result holds eth0 and the daemon
ended within 5 s (a first-pass detection ends after about 1.5 s; a second pass
would start only after the 6 s time-out).

For each frame size the rates are tried in increasing order until one fails.
Printed per rate: passes, the generator's achieved rate, the daemon's CPU
time (median) and the generator's own CPU.

  flood_bench.py [--bin ...] [--rusage ...] [--flood ...] [--sizes 60,1514]
                 [--rates 25000,50000,100000,150000,200000] [--runs 20]
"""
import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import labkit  # noqa: E402

FIELDS = re.compile(r'(\w+)=(-?[\d.]+)')


def host_ns(lab, port):
    for line in open(os.path.join(lab.state, 'ports')):
        p, _kind, ns = line.split()
        if p == port:
            return ns
    raise KeyError(port)


def one_run(lab, work, a, ns, size, rate, i):
    tag = '%d-%d-%d' % (size, rate, i)
    ready = os.path.join(work, 'ready-' + tag)
    gen = subprocess.Popen(['ip', 'netns', 'exec', ns, a.flood, '--iface', 'veth0', '--rate', str(rate),
                            '--seconds', '30', '--size', str(size), '--ready', ready],
                           stdout=subprocess.PIPE, text=True)
    try:
        for _ in range(100):
            if os.path.exists(ready):
                break
            time.sleep(0.02)
        time.sleep(0.2)  # the flood is running at its rate before the daemon starts
        rfile = os.path.join(work, 'rusage-' + tag)
        wrap = labkit.wrapper_script(os.path.join(work, 'wrap-' + tag), [a.rusage, '-o', rfile, a.bin])
        out = os.path.join(work, 'out-' + tag)
        lab.run(out, wrap, ['-d', '2'], limit=30)
    finally:
        labkit.stop(gen, sig=2)
    g = {k: float(v) for k, v in FIELDS.findall(gen.stdout.read())}
    r = {k: int(v) for k, v in FIELDS.findall(open(rfile).read())}
    try:
        names = [e['name'] for e in json.load(open(os.path.join(out, 'result')))['result']]
    except (OSError, ValueError, KeyError):
        names = []
    ok = 'eth0' in names and r['wall_us'] < 5e6
    return ok, g, r


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.path.join(labkit.TOP, 'build', 'lanprobe'))
    ap.add_argument('--rusage', default=os.path.join(labkit.TOP, 'build', 'bench', 'bench_rusage'))
    ap.add_argument('--flood', default=os.path.join(labkit.TOP, 'build', 'bench', 'bench_flood'))
    ap.add_argument('--sizes', default='60,1514')
    ap.add_argument('--rates', default='25000,50000,100000,150000,200000')
    ap.add_argument('--runs', type=int, default=20)
    ap.add_argument('--json')
    a = ap.parse_args()
    a.bin, a.rusage, a.flood = (os.path.abspath(x) for x in (a.bin, a.rusage, a.flood))
    work = labkit.workdir('flood')
    lab = labkit.Lab(work, ['eth0=dnsmasq'])
    rows = []
    try:
        ns = host_ns(lab, 'eth0')
        print('%6s %9s %7s %13s %15s %14s %14s' % ('size', 'rate', 'passed', 'achieved_fps', 'daemon_cpu_ms',
                                                   'daemon_wall_ms', 'gen_cpu_pct'))
        for size in [int(x) for x in a.sizes.split(',')]:
            best = None
            for rate in [int(x) for x in a.rates.split(',')]:
                res = []
                for i in range(a.runs):
                    res.append(one_run(lab, work, a, ns, size, rate, i))
                    if not res[-1][0]:
                        break
                passed = sum(ok for ok, _g, _r in res)
                row = {
                    'size': size, 'rate': rate, 'passed': passed, 'runs': len(res),
                    'achieved_fps': statistics.median(g.get('achieved_fps', 0) for _ok, g, _r in res),
                    'daemon_cpu_ms': statistics.median(r['own_cpu_us'] for _ok, _g, r in res) / 1e3,
                    'daemon_wall_ms': statistics.median(r['wall_us'] for _ok, _g, r in res) / 1e3,
                    'gen_cpu_pct': statistics.median(100.0 * g.get('cpu_us', 0) / 1e6 / max(g.get('seconds', 1), 1e-3)
                                                     for _ok, g, _r in res),
                }
                rows.append(row)
                print('%6d %9d %4d/%-2d %13.0f %15.2f %14.1f %14.1f' % (
                    size, rate, passed, len(res), row['achieved_fps'], row['daemon_cpu_ms'],
                    row['daemon_wall_ms'], row['gen_cpu_pct']))
                sys.stdout.flush()
                if passed < a.runs:
                    break
                best = rate
            print('%6d highest rate with %d/%d first-pass offers: %s' % (size, a.runs, a.runs, best))
    finally:
        lab.down()
        labkit.cleanup(work)
    if a.json:
        with open(a.json, 'w') as f:
            json.dump(rows, f, indent=1)


if __name__ == '__main__':
    main()
