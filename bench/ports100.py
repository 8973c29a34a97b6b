#!/usr/bin/python3
"""The 100-port limit: a lab with 100 (and one with 101) member ports of
br-lan, each with dnsmasq behind it.  Discovery fills the tables to their
limit, the ARP check runs over every port (2 attempts of 100 x 300 ms +
310 ms, far past the 13 s deadline), and the result is written at full size
or not at all.  For each port count this prints the timeline of
timeline.py (traced and untraced runs at -d 7), the CPU and peak RSS of a
run at -d 2, the number of ports in the result, the limit message of the
discovery and how late the deadline fired.

  ports100.py [--bin ...] [--rusage ...] [--ports 100,101]
"""
import argparse
import json
import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import labkit  # noqa: E402
import timeline  # noqa: E402

FIELDS = re.compile(r'(\w+)=(-?\d+)')


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.path.join(labkit.TOP, 'build', 'lanprobe'))
    ap.add_argument('--rusage', default=os.path.join(labkit.TOP, 'build', 'bench', 'bench_rusage'))
    ap.add_argument('--ports', default='100,101')
    ap.add_argument('--json')
    a = ap.parse_args()
    bin_path, rusage = os.path.abspath(a.bin), os.path.abspath(a.rusage)
    figures = {}
    for n in [int(x) for x in a.ports.split(',')]:
        work = labkit.workdir('ports%d' % n)
        lab = labkit.Lab(work, labkit.server_kinds(n, ('dnsmasq',)))
        print('\n##### %d ports: lab up in %.0f s' % (n, lab.up_seconds))
        try:
            fig = timeline.analyse(n, lab, work, bin_path, 7, False)
            log = open(os.path.join(work, 'traced', 'out', 'lanprobe.log'), errors='replace').read()
            fig['limit_messages'] = [l.split(']: ', 1)[-1] for l in log.splitlines() if 'more than' in l]
            fig['deadline_lines'] = [l.split(']: ', 1)[-1] for l in log.splitlines()
                                     if 'Detection over' in l or 'timeout!' in l]
            fig['discovers_sent'] = log.count('Send DHCP Discovery packet success via dev:')
            fig['offers_taken'] = log.count('Success parse dhcp discovery packet in dev=')
            # Resources at the default level.
            lab.learn()
            rfile = os.path.join(work, 'rusage.txt')
            wrap = labkit.wrapper_script(os.path.join(work, 'rusage.sh'), [rusage, '-o', rfile, bin_path])
            out = os.path.join(work, 'out-d2')
            lab.run(out, wrap, ['-d', '2'], limit=150)
            r = {k: int(v) for k, v in FIELDS.findall(open(rfile).read())}
            fig['d2_cpu_ms'] = r['cpu_us'] / 1e3
            fig['d2_daemon_cpu_ms'] = r['own_cpu_us'] / 1e3
            fig['d2_daemon_hwm_kb'] = r['own_hwm_kb']
            fig['d2_wall_ms'] = r['wall_us'] / 1e3
            fig['d2_found'] = len(json.load(open(os.path.join(out, 'result')))['result'])
            for k in ('limit_messages', 'deadline_lines', 'discovers_sent', 'offers_taken', 'd2_cpu_ms',
                      'd2_daemon_cpu_ms', 'd2_daemon_hwm_kb', 'd2_wall_ms', 'd2_found'):
                print('  %-32s %s' % (k, fig[k]))
            figures[n] = fig
        finally:
            lab.down()
            labkit.cleanup(work)
    if a.json:
        with open(a.json, 'w') as f:
            json.dump(figures, f, indent=1)


if __name__ == '__main__':
    main()
