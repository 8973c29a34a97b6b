#!/usr/bin/python3
"""Timeline of one detection, for 1, 4, 8 and 16 answering ports.

For each port count a lab comes up with fast servers (dnsmasq --no-ping, ISC
dhcpd with ping-check false, Kea) behind every port.  The daemon runs twice:
once under strace (-f -ttt -T, seccomp filtered to the calls that matter)
with a capture of the router namespace running (tcpdump -i any), and once
with the capture alone (no tracer in the way of the wire timings).  The two
clocks are merged (both are CLOCK_REALTIME stamps) and printed:

  * the events: start, each ARP frame on the wire, the end of the ARP check,
    each DISCOVER, each OFFER on the wire and its read by the daemon, the poll
    that ends the pass, the result written, the exit;
  * the daemon's busy stretches, i.e. the time between two specified waits
    (the 300 ms wait before each ARP send, the 310 ms pause, the event loop's
    wait for frames and for the 200 ms poll): the goal is under 10 ms each;
  * from the capture-only run, the wire gaps minus the waits they contain.

  timeline.py [--bin build/lanprobe] [--ports 1,4,8,16] [--debug 7] [--events]
"""
import argparse
import json
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import labkit  # noqa: E402
import traceparse  # noqa: E402

TRACED = ('execve,clone,clone3,vfork,socket,bind,sendto,recvfrom,pselect6,select,'
          'clock_nanosleep,nanosleep,epoll_wait,epoll_pwait,openat,kill,exit_group')
WAITS = ('pselect6', 'select', 'clock_nanosleep', 'nanosleep', 'epoll_wait', 'epoll_pwait')


def start_capture(lab, path):
    # -Z root: the capture file lies in a root-owned directory.
    p = subprocess.Popen(['ip', 'netns', 'exec', lab.router_ns, 'tcpdump', '-i', 'any', '-n', '-Z', 'root',
                          '-s', '600', '--immediate-mode', '--time-stamp-precision=nano', '-w', path],
                         stderr=subprocess.PIPE, text=True)
    line = ''
    for _ in range(5):  # "data link type ..." may come first
        line = p.stderr.readline()
        if 'listening' in line or not line:
            break
    if 'listening' not in line:
        labkit.stop(p)
        raise RuntimeError('tcpdump did not start: %s' % line)
    return p


def stop_capture(p):
    time.sleep(0.2)  # let the last frames reach the file
    labkit.stop(p, sig=2)


def wire_events(frames, names):
    ev = []
    for f in frames:
        name = names.get(f.ifindex, str(f.ifindex))
        if not name.startswith('eth'):
            continue
        # The daemon's announcements only: sender and target address equal.
        if f.proto == traceparse.ETH_P_ARP and f.outgoing and f.data[14:18] == f.data[24:28]:
            ev.append((f.t, 'wire', 'ARP out %s' % name))
        elif f.udp_dport() == 67 and f.outgoing:
            ev.append((f.t, 'wire', 'DISCOVER out %s' % name))
        elif f.udp_dport() == 68 and not f.outgoing:
            ev.append((f.t, 'wire', 'OFFER in %s' % name))
    return ev


def trace_events(calls, exits, daemon_pids):
    ev = []
    for c in calls:
        if c.pid not in daemon_pids:
            continue
        if c.name == 'execve' and 'lanprobe' in c.args:
            ev.append((c.t, 'trace', 'start (execve)'))
        elif c.name in ('clone', 'clone3') and c.iret() and 'CLONE_VM' not in c.args:
            ev.append((c.t, 'trace', 'fork'))
        elif c.name in ('clone', 'clone3') and c.iret():
            ev.append((c.t, 'trace', 'fdb copy command started'))
        elif c.name == 'sendto' and c.iret() == 60:
            ev.append((c.end, 'trace', 'ARP sendto'))
        elif c.name == 'clock_nanosleep':
            ev.append((c.end, 'trace', 'ARP 310 ms pause over'))
        elif c.name == 'recvfrom' and (c.iret() or 0) > 240:
            ev.append((c.end, 'trace', 'OFFER read (recvfrom %s bytes)' % c.ret))
        elif c.name == 'sendto' and (c.iret() or 0) > 240:
            ev.append((c.end, 'trace', 'DISCOVER sendto'))
        elif c.name == 'epoll_wait' and c.ret == '0':
            ev.append((c.end, 'trace', 'poll timer due'))
        elif c.name == 'openat' and '/tmp/lanprobe_result' in c.args and 'O_TRUNC' in c.args:
            ev.append((c.t, 'trace', 'result file opened'))
        elif c.name == 'kill' and 'SIGTERM' in c.args:
            ev.append((c.t, 'trace', 'result written, SIGTERM to itself'))
    for pid, (t, how) in exits.items():
        if pid in daemon_pids:
            ev.append((t, 'trace', 'process %d %s' % (pid, how)))
    return ev


def daemon_pids_of(calls):
    """The daemon's parent and forked child (not the copy command's shells)."""
    pids, parent = set(), None
    for c in calls:
        if c.name == 'execve' and 'lanprobe' in c.args and parent is None:
            parent = c.pid
            pids.add(c.pid)
        elif c.pid in pids and c.name in ('clone', 'clone3') and 'CLONE_VM' not in c.args and c.iret():
            pids.add(c.iret())
    return pids


def busy_stretches(calls, exits, pids):
    """Time between the end of one wait and the start of the next, per process."""
    out = []
    for pid in sorted(pids):
        mine = [c for c in calls if c.pid == pid]
        if not mine:
            continue
        start = mine[0].t
        for c in mine:
            if c.name in WAITS:
                out.append((start, c.t, pid, c.name))
                start = c.end
        end = exits.get(pid, (mine[-1].end, ''))[0]
        out.append((start, end, pid, 'exit'))
    return out


def describe(t, events):
    """The last event at or before t."""
    best = None
    for e in events:
        if e[0] <= t + 1e-6:
            best = e
    return best[2] if best else 'start'


def run_once(lab, work, tag, bin_path, debug, traced, limit=60):
    d = os.path.join(work, tag)
    os.makedirs(d)
    pcap = os.path.join(d, 'cap.pcap')
    cap = start_capture(lab, pcap)
    try:
        if traced:
            st = os.path.join(d, 'strace.txt')
            run_bin = labkit.wrapper_script(os.path.join(d, 'traced.sh'), [
                'strace', '-f', '-ttt', '-T', '--seccomp-bpf', '-e', 'trace=' + TRACED, '-o', st, bin_path])
        else:
            run_bin = bin_path
        lab.run(os.path.join(d, 'out'), run_bin, ['-d', str(debug)], limit=limit)
    finally:
        stop_capture(cap)
    result = json.load(open(os.path.join(d, 'out', 'result')))['result']
    frames = traceparse.read_pcap(pcap)
    return d, result, frames


def analyse(n, lab, work, bin_path, debug, show_events):
    names = lab.ifindexes()
    probed = min(n, 100)  # discovery keeps at most 100 ports
    # Two ARP attempts of (ports x 300 ms + 310 ms) each, then the DHCP pass.
    limit = max(60.0, 2 * (probed * 0.3 + 0.31) + 30)
    d, result, frames = run_once(lab, work, 'traced', bin_path, debug, True, limit)
    calls, exits = traceparse.read_strace(os.path.join(d, 'strace.txt'))
    pids = daemon_pids_of(calls)
    events = sorted(wire_events(frames, names) + trace_events(calls, exits, pids))
    t0 = min(e[0] for e in events if e[2].startswith('start'))
    print('\n=== %d port%s: %d found in the result; traced run' % (n, 's' * (n > 1), len(result)))
    if show_events:
        prev = t0
        for t, src, what in events:
            print('  %9.3f ms  +%8.3f  %-5s %s' % ((t - t0) * 1e3, (t - prev) * 1e3, src, what))
            prev = t
    # Busy stretches: everything that is not a specified wait.
    stretches = busy_stretches(calls, exits, pids)
    waits = [c for c in calls if c.pid in pids and c.name in WAITS]
    total_wait = sum(c.dur for c in waits)
    end = max(t for t, _s, w in events if w.startswith('process'))
    print('  wall %.1f ms; in waits %.1f ms (%d waits: %d ARP pre-send, %d pauses, %d loop); busy %.1f ms'
          % ((end - t0) * 1e3, total_wait * 1e3, len(waits),
             sum(c.name in ('pselect6', 'select') for c in waits),
             sum(c.name in ('clock_nanosleep', 'nanosleep') for c in waits),
             sum(c.name.startswith('epoll') for c in waits), (end - t0 - total_wait) * 1e3))
    top = sorted(stretches, key=lambda s: s[1] - s[0], reverse=True)[:4]
    for a, b, pid, nxt in top:
        print('  busy %7.3f ms  at %9.3f ms  after "%s" until %s' %
              ((b - a) * 1e3, (a - t0) * 1e3, describe(a, events), nxt))
    longest = (top[0][1] - top[0][0]) * 1e3 if top else 0.0

    # Phase figures from the trace.
    def first(prefix, evs=events):
        return next((e[0] for e in evs if e[2].startswith(prefix)), None)

    def last(prefix, evs=events):
        return next((e[0] for e in reversed(evs) if e[2].startswith(prefix)), None)
    offers_wire = {e[2].split()[-1]: e[0] for e in events if e[2].startswith('OFFER in')}
    disc_wire = {e[2].split()[-1]: e[0] for e in events if e[2].startswith('DISCOVER out')}
    arp_frames = [e for e in events if e[2].startswith('ARP out')]
    reads = [e[0] for e in events if e[2].startswith('OFFER read')]
    phase = {
        'start_to_first_arp_wait_ms': (min(c.t for c in waits) - t0) * 1e3 if waits else None,
        'arp_frames': len(arp_frames),
        'arp_check_end_ms': ((last('ARP 310') or t0) - t0) * 1e3,
        'first_discover_ms': ((first('DISCOVER out') or t0) - t0) * 1e3,
        'arp_end_to_first_discover_ms': ((first('DISCOVER out') or 0) - (last('ARP 310') or 0)) * 1e3,
        'discover_spread_ms': ((last('DISCOVER out') or 0) - (first('DISCOVER out') or 0)) * 1e3,
        'server_max_ms': max([(offers_wire[p] - disc_wire[p]) * 1e3 for p in offers_wire if p in disc_wire] or [0]),
        'offers_read': len(reads),
        'last_offer_wire_to_read_ms': ((max(reads) - max(offers_wire.values())) * 1e3
                                       if reads and offers_wire else None),
        'poll_to_result_ms': ((first('result written') - last('poll timer due')) * 1e3
                              if first('result written') and last('poll timer due') else None),
        'result_to_exit_ms': (end - (first('result written') or end)) * 1e3,
        'longest_busy_ms': longest,
        'wall_ms': (end - t0) * 1e3,
    }
    for k, v in phase.items():
        print('  %-32s %s' % (k, '%.3f' % v if isinstance(v, float) else v))

    # Capture-only run: wire gaps minus the waits they hold by construction.
    _d2, result2, frames2 = run_once(lab, work, 'wire', bin_path, debug, False, limit)
    wev = sorted(wire_events(frames2, names))
    arp = [e[0] for e in wev if e[2].startswith('ARP')]
    disc = [e[0] for e in wev if e[2].startswith('DISCOVER')]
    # Frames of one attempt are 300 ms apart (wait before each send); the first
    # frame of attempt 2 follows the last of attempt 1 after 310 + 300 ms.
    extra = []
    for i in range(1, len(arp)):
        wait_s = 0.610 if i == probed else 0.300
        extra.append((arp[i] - arp[i - 1] - wait_s) * 1e3)
    after_arp = (disc[0] - arp[-1] - 0.310) * 1e3 if disc and arp else None
    disc_gaps = [(disc[i] - disc[i - 1]) * 1e3 for i in range(1, len(disc))]
    print('  untraced: %d found; ARP frames %d, beyond the specified waits: max %.3f ms per gap; '
          'last ARP -> first DISCOVER minus 310 ms: %.3f ms; DISCOVER to DISCOVER max %.3f ms'
          % (len(result2), len(arp), max(extra or [0]), after_arp or 0, max(disc_gaps or [0])))
    phase.update(untraced_found=len(result2), untraced_arp_gap_extra_max_ms=max(extra or [0]),
                 untraced_arp_to_discover_extra_ms=after_arp,
                 untraced_discover_gap_max_ms=max(disc_gaps or [0]), found=len(result))
    return phase


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.path.join(labkit.TOP, 'build', 'lanprobe'))
    ap.add_argument('--ports', default='1,4,8,16')
    ap.add_argument('--debug', type=int, default=7)
    ap.add_argument('--events', action='store_true', help='print every event')
    ap.add_argument('--json', help='write the figures here')
    a = ap.parse_args()
    bin_path = os.path.abspath(a.bin)
    figures = {}
    for n in [int(x) for x in a.ports.split(',')]:
        work = labkit.workdir('timeline%d' % n)
        lab = labkit.Lab(work, labkit.server_kinds(n))
        try:
            figures[n] = analyse(n, lab, work, bin_path, a.debug, a.events)
        finally:
            lab.down()
            labkit.cleanup(work)
    if a.json:
        with open(a.json, 'w') as f:
            json.dump(figures, f, indent=1)


if __name__ == '__main__':
    main()
