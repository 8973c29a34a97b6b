#!/usr/bin/python3
"""lanprobe-survey with a server behind every port: 1, 16 and 48 ports.

Prints, per size: the survey's wall time over its window (the survey must end
within the window plus 200 ms), its CPU time per port, its peak RSS and how
many ports got an answer.  The survey runs straight in the lab router's
network namespace (`ip netns exec` execs it, so its rusage is its own).

  survey_bench.py --survey BUILD/lanprobe-survey [--ports 1,16,48] [--window 4000] [--runs 3] [--json FILE]
"""
import argparse
import json
import os
import statistics
import subprocess
import time

import labkit


def one_run(lab, survey, window):
    out = os.path.join(lab.state, 'survey.json')
    with open(out, 'w') as f:
        t0 = time.monotonic()
        p = subprocess.Popen(['ip', 'netns', 'exec', lab.router_ns, survey, '-j', '-w', str(window)], stdout=f)
        _, status, ru = os.wait4(p.pid, 0)
        wall = (time.monotonic() - t0) * 1000
    p.returncode = os.waitstatus_to_exitcode(status)
    doc = json.load(open(out))
    answered = sum(1 for port in doc['ports'] if port['replies'])
    return dict(over_ms=wall - window, cpu_ms=(ru.ru_utime + ru.ru_stime) * 1000, rss_kib=ru.ru_maxrss,
                answered=answered, exit=p.returncode)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--survey', required=True)
    ap.add_argument('--ports', default='1,16,48')
    ap.add_argument('--window', type=int, default=4000)
    ap.add_argument('--runs', type=int, default=3)
    ap.add_argument('--json')
    a = ap.parse_args()
    results = []
    for n in [int(x) for x in a.ports.split(',')]:
        lab = labkit.Lab(labkit.workdir('survey%d' % n), labkit.server_kinds(n))
        try:
            runs = [one_run(lab, os.path.abspath(a.survey), a.window) for _ in range(a.runs)]
        finally:
            lab.down()
        med = lambda k: statistics.median(r[k] for r in runs)
        res = dict(ports=n, runs=runs, over_ms=med('over_ms'), worst_over_ms=max(r['over_ms'] for r in runs),
                   cpu_ms_per_port=med('cpu_ms') / n, rss_kib=max(r['rss_kib'] for r in runs),
                   answered=min(r['answered'] for r in runs))
        results.append(res)
        print('%2d ports: %5.0f ms over the %d ms window (worst %.0f), %.2f ms CPU per port, peak RSS %d KiB, '
              '%d/%d ports answered, exit %s' % (n, res['over_ms'], a.window, res['worst_over_ms'],
                                                 res['cpu_ms_per_port'], res['rss_kib'], res['answered'], n,
                                                 sorted({r['exit'] for r in runs})), flush=True)
    if a.json:
        json.dump(results, open(a.json, 'w'), indent=1)
    return 0 if all(r['worst_over_ms'] <= 200 and r['answered'] == r['ports'] for r in results) else 1


if __name__ == '__main__':
    raise SystemExit(main())
