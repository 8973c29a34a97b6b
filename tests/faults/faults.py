#!/usr/bin/python3
"""Fault runs: lanprobe in the lab router while things go wrong around it.

  faults.py [--bin PATH] [--runs N] [--keep] [--json FILE] NAME...
  faults.py --list

Every run must end the same way: the forked child exits 0 on its own within
the detection deadline plus the ARP check, it is not killed by a signal, and
/tmp/lanprobe_result holds either the placeholder or a complete result
document in json-c's plain form (or, when /tmp is full, what the daemon's
calls can leave there).  Scenarios add their own checks.  A scenario's runs
are summed up in one PASS/FAIL line with its figures; --json appends them
to FILE as one JSON line per scenario.
"""
import argparse
import collections
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), 'lab'))
import labrun  # noqa: E402
from labrun import LAB, NSINIT, PY, TOP, Failure, check, host_mac, log_lines, pool  # noqa: E402

END_LINE = re.compile(r'\[lanprobe\(pid:\d+\)\] receive signal:15, exit')
MAC = re.compile(r'^[0-9A-F]{2}(:[0-9A-F]{2}){5}$')
IPV4 = re.compile(r'^\d{1,3}(\.\d{1,3}){3}$')
BR_MAC = '02:1A:00:00:00:01'

# Deadline 13 s after set-up, plus one ARP check of the ports (at most
# 2 x (ports x 300 ms + 310 ms)), plus room for a loaded machine.
def end_bound_ms(ports):
    return 13000 + 2 * (ports * 300 + 310) + 6000


# ------------------------------------------------------------------ lab
class Lab(labrun.Lab):
    prefix = 'lanprobe-faults.'

    def __init__(self, layout, opts):
        super().__init__(layout, opts)
        self.ports = [s.split('=')[0] for s in layout if s.startswith('eth')]

    def keep_outputs(self):
        return self.opts.keep_all

    def exec(self, name, *cmd, check_rc=True):
        return subprocess.run(['bash', LAB, 'exec', self.state, name] + list(cmd), check=check_rc,
                              capture_output=True, text=True)

    def pid_of(self, name):
        with open(os.path.join(self.state, 'pids')) as f:
            for line in f:
                pid, n = line.split()
                if n == name:
                    return int(pid)
        raise Failure('the lab recorded no %s' % name)

    def config_copy(self, edit=None):
        """A copy of the lab's /etc/config, changed by edit(dir)."""
        d = os.path.join(self.base, 'config%d' % self.runs)
        shutil.copytree(os.path.join(self.state, 'config'), d)
        if edit:
            edit(d)
        return d

    def run(self, *args, config=None, tmp_full=None, term_after=None, strace=None,
            strace_child=None, console_log=False, during=None):
        """One daemon run in the lab router.  during=(port, action): once the
        daemon's first DHCP request has left that port, action(lab) runs."""
        self.runs += 1
        out = os.path.join(self.base, 'run%d' % self.runs)
        os.makedirs(out)
        cmd = ['bash', LAB, 'exec', self.state, 'router', 'unshare', '--mount', '--propagation',
               'private', '--pid', '--fork', '--mount-proc', '--kill-child', PY,
               NSINIT, '--config', config or os.path.join(self.state, 'config'), '--out', out]
        if tmp_full:
            cmd += ['--tmp-full', tmp_full]
        if term_after is not None:
            cmd += ['--term-after', '%.3f' % term_after]
        if strace:
            cmd += ['--strace', strace]
        if strace_child:
            cmd += ['--strace-child', strace_child]
        if console_log:
            cmd.append('--console-log')
        cmd += ['--', self.opts.bin] + list(args)
        sniffer = None
        if during:
            sniffer = subprocess.Popen(['bash', LAB, 'exec', self.state, 'router', PY,
                                        os.path.join(HERE, 'wait_frame.py'), '--port', during[0]],
                                       stdout=subprocess.PIPE, text=True)
            check(sniffer.stdout.readline().strip() == 'ready', 'sniffer did not start')
        runner = subprocess.Popen(cmd)
        acted = None
        if sniffer:
            seen = sniffer.stdout.readline().strip()
            sniffer.wait()
            if seen == 'seen':
                during[1](self)
                acted = True
            else:
                acted = False
        rc = runner.wait()
        check(rc == 0, 'runner exit status %d' % rc)
        r = Run(out, self)
        r.acted = acted
        return r


class Run(labrun.Run):
    def __init__(self, out, lab):
        super().__init__(out)
        self.ports = len(lab.ports)

    def use_console_log(self):
        self.lines = log_lines(self.console)

    def document(self):
        """The result document's entries, after checking its whole form."""
        raw = self.raw_result
        check(raw is not None, 'no result file')
        check(not raw.endswith('\n') and ' ' not in raw, 'result not in plain form: %r' % raw)
        try:
            doc = json.loads(raw, object_pairs_hook=list)
        except ValueError:
            raise Failure('partial or broken result document: %r' % raw)
        check(len(doc) == 1 and doc[0][0] == 'result' and isinstance(doc[0][1], list),
              'result document: %r' % raw)
        entries = []
        for e in doc[0][1]:
            keys = [k for k, _ in e]
            check(keys[:3] == ['name', 'label', 'mac'], 'members %r' % keys)
            rest = [k for k in keys[3:]]
            check(rest == [k for k in ('pre_assigned_ip', 'gateway_ip', 'dns_ip') if k in rest],
                  'members %r' % keys)
            e = dict(e)
            check(MAC.match(e['mac']) and e['mac'] != '00:00:00:00:00:00', 'mac %r' % e['mac'])
            check(all(IPV4.match(e[k]) for k in rest), 'addresses %r' % e)
            entries.append(e)
        return entries

    def result_state(self):
        """'placeholder', or the list of ports in a complete document."""
        if self.raw_result == 'time 19':
            return 'placeholder'
        return [e['name'] for e in self.document()]


def ended_cleanly(r, log=True):
    """What every run must show, whatever went wrong around it."""
    st = r.status
    check(not st['timed_out'], 'still running at the runner limit')
    check(st['child_pid'] is not None, 'no forked child seen')
    check(st['child'] is not None, 'the child was never reaped')
    check(st['child']['signal'] is None, 'the child died of signal %r' % st['child']['signal'])
    check(st['child']['exit'] == 0, 'child exit status %r' % st['child']['exit'])
    check(st['child']['ms'] <= end_bound_ms(r.ports), 'child ended after %d ms' % st['child']['ms'])
    check(st['others'] == [], 'unexpected processes reaped: %r' % st['others'])
    check('lanprobe_brforward' not in st['tmp_files'], '/tmp/lanprobe_brforward left behind')
    if log:
        check(r.lines, 'empty log')
        check(r.lines[-1][0] == 'Error' and END_LINE.fullmatch(r.lines[-1][1]),
              'last log line %r' % (r.lines[-1],))
        check(sum(1 for _, m in r.lines if END_LINE.fullmatch(m)) == 1, 'the end logged more than once')


def offer_of(entries, n, label=None):
    e = [x for x in entries if x['name'] == 'eth%d' % n]
    check(len(e) == 1, 'eth%d not in the result once: %r' % (n, entries))
    e = e[0]
    label = 'LAN%d' % (n + 1) if label is None else label
    check(e['mac'] == host_mac(n) and e['label'] == label, 'eth%d entry %r' % (n, e))
    check(e['pre_assigned_ip'] in pool(n), 'eth%d offered %r' % (n, e['pre_assigned_ip']))
    check(e.get('gateway_ip') == '192.168.1.%d' % (10 + n) and e.get('dns_ip') == '10.53.0.%d' % (10 + n),
          'eth%d options %r' % (n, e))


# ------------------------------------------------------------------ faults in the lab
SERVER_SILENT = ['eth0=dnsmasq', 'eth1=silent']


def port_spin(r, port):
    """Read-handler calls for a port after its DISCOVER went out."""
    return r.count('recv dhcp discovery packet from dev:%s' % port)


def fault_port_gone(action):
    def fn(opts, runs, figures):
        for _ in range(runs):
            with Lab(SERVER_SILENT, opts) as lab:
                r = lab.run('-d', '7', '-t', '3000', during=('eth1', action))
                check(r.acted, 'no DISCOVER left eth1')
                ended_cleanly(r)
                check(r.result_state() == ['eth0'], 'result %r' % r.raw_result)
                offer_of(r.document(), 0)
                # The first pass times out on eth1; the next one no longer finds
                # a host behind it, sends nothing and ends at its first poll.
                check(r.count('dhcp discovery packet timeout!') == 1, 'not one timed-out pass')
                check(r.count('Detection over beause all devices have dhcp server!') == 1,
                      'not ended by the pass after the fault')
                spin = port_spin(r, 'eth1')
                figures['handler_calls'].append(spin)
                figures['cpu_s'].append(r.status['child']['cpu_s'])
                figures['log_bytes'].append(r.status['log_bytes'])
                # An error pending on the socket is fetched at its first report;
                # without that, the loop reports it at every pass until the pass
                # times out (hundreds of thousands of calls).
                check(spin <= 10, 'eth1 read handler called %d times after the port went away' % spin)
    return fn


def kill_server(lab):
    os.kill(lab.pid_of('udhcpd-eth1'), signal.SIGKILL)


def fault_server_killed(opts, runs, figures):
    # udhcpd checks the address with ARP for about 2 s before it offers, so
    # killing it once the DISCOVER is out kills it in the middle of the pass.
    for _ in range(runs):
        with Lab(['eth0=dnsmasq', 'eth1=udhcpd'], opts) as lab:
            r = lab.run('-d', '7', '-t', '4000', during=('eth1', kill_server))
            check(r.acted, 'no DISCOVER left eth1')
            ended_cleanly(r)
            entries = r.document()
            check([e['name'] for e in entries] in (['eth0'], ['eth0', 'eth1']),
                  'result %r' % r.raw_result)
            offer_of(entries, 0)
            if len(entries) == 2:          # it answered just before it died
                offer_of(entries, 1)
            else:                          # every later pass asks eth1 again, until the deadline
                check(r.count('Detection over!') == 1, 'not ended by the deadline')
            figures['eth1_found'].append(len(entries) == 2)
            figures['passes'].append(r.count('Entering function: uloop_proto_detect_start!'))


def fault_bridge_gone(cmd):
    def fn(opts, runs, figures):
        for _ in range(runs):
            with Lab(SERVER_SILENT, opts) as lab:
                r = lab.run('-d', '7', '-t', '2000',
                            during=('eth1', lambda lab: lab.exec('router', *cmd.split())))
                check(r.acted, 'no DISCOVER left eth1')
                ended_cleanly(r)
                entries = r.document()
                check([e['name'] for e in entries] == ['eth0'], 'result %r' % r.raw_result)
                offer_of(entries, 0)
                # The bridge forgets its learned hosts (deleted: no database at
                # all; down: only its own entries are left), so the next pass
                # sends nothing and ends the detection at its first poll.
                check(r.count('Send DHCP Discovery packet success via dev:eth1') == 1,
                      'eth1 probed again after the bridge went away')
                check(r.count('No actual device need detected, skip dhcp detect!') == 1,
                      'the pass after the fault probed something')
                figures['passes'].append(r.count('Entering function: uloop_proto_detect_start!'))
    return fn


def fault_no_ipv4(opts, runs, figures):
    with Lab(['eth0=dnsmasq', 'eth1=empty'], opts) as lab:
        lab.exec('router', 'ip', 'addr', 'flush', 'dev', 'br-lan')
        for _ in range(runs):
            r = lab.run('-d', '7')
            ended_cleanly(r)
            offer_of(r.document(), 0)
            check(len(r.document()) == 1, 'result %r' % r.raw_result)
            check(r.count('invalid parameters! Send failed!') == 1
                  and r.count('find_target_ip_and_device_with_arp failed, return null!') == 1,
                  'the ARP check did not refuse to run')


def _write(name, data):
    def edit(d):
        p = os.path.join(d, name)
        if os.path.isdir(p):
            shutil.rmtree(p)
        elif os.path.exists(p):
            os.remove(p)
        if data is None:
            return
        if data == 'dir':
            os.mkdir(p)
            return
        with open(p, 'wb') as f:
            f.write(data)
    return edit


def _both(*edits):
    def edit(d):
        for e in edits:
            e(d)
    return edit


GOOD_SWITCH = (b"config switch_port\n\toption port '1'\n\toption ifname 'eth0'\n\toption label 'LAN1'\n")
rnd = random.Random(7)
CONFIGS = [
    # name, edit of /etc/config, outcome ('placeholder' or the ports of the
    # document)[, eth0's label: the record keeps 31 characters of it]
    ('switch syntax error', _write('switch', b"config switch_port\n\toption port '1\n"), 'placeholder'),
    ('switch binary garbage', _write('switch', bytes(rnd.randrange(256) for _ in range(4096))), 'placeholder'),
    ('switch is a directory', _write('switch', 'dir'), 'placeholder'),
    ('switch empty', _write('switch', b''), 'placeholder'),
    ('switch missing', _write('switch', None), 'placeholder'),
    ('switch values as lists, 300-byte label',
     _write('switch', b"config switch_port\n\tlist port '1'\n\toption ifname 'eth0'\n\tlist label 'x'\n\n"
            b"config switch_port\n\toption port '2'\n\toption ifname 'eth0'\n\toption label '" + b'L' * 300 + b"'\n"),
     ['eth0'], 'L' * 31),
    ('network garbage, bridge has ports', _write('network', b'\x00\xff' * 2000), ['eth0']),
    ('network and switch missing', _both(_write('network', None), _write('switch', None)), 'placeholder'),
    # An option name without its value is ignored: eth0 is labelled, with an empty label.
    ('switch cut after an option name', _write('switch', GOOD_SWITCH[:-9]), ['eth0'], ''),
    ('switch cut inside a quoted value', _write('switch', GOOD_SWITCH[:-4]), 'placeholder'),
]


def fault_config(opts, runs, figures):
    with Lab(['eth0=dnsmasq', 'eth1=empty'], opts) as lab:
        for i in range(runs):
            name, edit, want, *label = CONFIGS[i % len(CONFIGS)]
            r = lab.run('-d', '7', config=lab.config_copy(edit))
            try:
                ended_cleanly(r)
                got = r.result_state()
                check(got == want, 'result %r, expected %r' % (r.raw_result, want))
                if want == 'placeholder':
                    check(r.count('init_all_eth_device failed!') == 1, 'discovery did not fail')
                else:
                    offer_of(r.document(), 0, *label)
            except Failure as e:
                raise Failure('%s: %s' % (name, e))
            figures['variants'][name] += 1


def fault_tmp_full(opts, runs, figures):
    # blocks: every file can be made but stays empty: the placeholder is an
    # empty file, the copy of brforward is empty (no host selected, nothing
    # probed) and the document cannot be written either.
    # inodes: no file can be made: the forwarding database is fetched with the
    # bridge ioctl instead, eth0 is probed and answers, and the document
    # cannot be written.
    with Lab(['eth0=dnsmasq', 'eth1=empty'], opts) as lab:
        for i in range(runs):
            how = ('blocks', 'inodes')[i % 2]
            r = lab.run('-d', '7', tmp_full=how, console_log=True)
            r.use_console_log()
            ended_cleanly(r)
            if how == 'blocks':
                check(r.raw_result == '', 'result file %r' % r.raw_result)
                check(r.count('Failed to get fdb table!') == 1, 'empty copy not seen as empty')
                check(r.count('Send DHCP Discovery packet success via dev:eth0') == 0, 'eth0 probed')
            else:
                check(r.raw_result is None, 'a result file was made: %r' % r.raw_result)
                check(r.count('Send DHCP Discovery packet success via dev:eth0') == 1, 'eth0 not probed')
                check(r.count('Success parse dhcp discovery packet in dev=eth0') == 1, 'eth0 not answered')
            check(r.count('Detection over beause all devices have dhcp server!') == 1, 'not ended by a poll')
            figures[how] += 1


# ------------------------------------------------------------------ SIGTERM from outside
TERM_LAYOUT = ['eth0=dnsmasq', 'eth1=udhcpd', 'eth2=empty']


def term_checks(r):
    """A run ended by an outside SIGTERM (or by itself, if that came first)."""
    ended_cleanly(r)
    state = r.result_state()          # the placeholder, or a complete document
    if state != 'placeholder':
        entries = r.document()
        for e in entries:
            offer_of(entries, int(e['name'][3:]))
    # The end is always acted on from the loop or by our own kill_self: one
    # end line, after the last line of whatever was running.
    return state


def term_moment(r):
    """Where the signal landed, from the runner's record and the log."""
    t = r.status.get('term')
    if t is None or t.get('where') == 'after end':
        return 'after the end'
    if r.index('Entering function: uloop_proto_detect_start!') < 0:
        return 'discovery'
    w = t['where']
    if w in ('clock_nanosleep', 'nanosleep', 'select', 'pselect6'):
        return 'ARP check'
    if w in ('epoll_wait', 'epoll_pwait'):
        return 'pass (loop waiting)'
    return 'running (%s)' % w


def fault_term_random(opts, runs, figures):
    with Lab(TERM_LAYOUT, opts) as lab:
        rng = random.Random()
        for _ in range(runs):
            r = lab.run('-d', '7', term_after=rng.uniform(0.0, 6.0))
            state = term_checks(r)
            moment = term_moment(r)
            figures['moments'][moment] += 1
            figures['results']['placeholder' if state == 'placeholder' else 'document'] += 1
            if moment != 'after the end':
                # Deferred: the loop acted on it, so nothing after the end line
                # and no detection end of our own after the signal.
                check(r.status['term'].get('result_then') in ('time 19', None) or
                      r.status['term']['result_then'].startswith('{"result":'),
                      'result while running: %r' % r.status['term'].get('result_then'))


# Signals delivered by strace on entering a chosen call of the forked child:
# the moments a random signal rarely hits.
TARGETED = [
    # moment, how strace is used, its options, the call the signal must follow
    ('inside discovery (opening the switch package)', '--strace',
     '-P /etc/config/switch -e trace=openat -e inject=openat:signal=TERM', 'openat'),
    ('inside the ARP check (its 310 ms pause)', '--strace',
     '-e trace=clock_nanosleep,nanosleep -e inject=clock_nanosleep,nanosleep:signal=TERM:when=1',
     'clock_nanosleep'),
    # Three ports, nobody holds br-lan's address: two rounds of three ARP
    # announcements, then the DISCOVERs; the 7th send is the first DISCOVER.
    ('inside a pass (the first DISCOVER send)', '--strace',
     '-e trace=sendto -e inject=sendto:signal=TERM:when=7', 'sendto'),
    # The parent also opens the result file (the placeholder): only the
    # child is traced here, from the moment it is seen.
    ('inside the result write (document opened and truncated)', '--strace-child',
     '-P /tmp/lanprobe_result -e trace=openat -e inject=openat:signal=TERM:when=1', 'openat'),
]


def injected_after(trace, call):
    """The call that the injected signal followed, as strace wrote it down."""
    lines = trace.splitlines()
    for k, line in enumerate(lines):
        if '--- SIGTERM' in line and 'SI_KERNEL' in line:
            prev = [l for l in lines[:k] if not l.split(None, 1)[-1].startswith('---')]
            check(prev, 'no call before the signal')
            text = prev[-1].split(None, 1)[-1] if prev[-1][0].isdigit() else prev[-1]
            return text.startswith(call + '('), text
    raise Failure('no injected SIGTERM in the trace')


def targeted_check(i, r):
    lines = [m for _, m in r.lines]
    if i == 0:
        # Discovery finishes; the 0 ms start timer runs before the loop reads
        # any descriptor, so the first pass (ARP check, sends) runs, and the
        # loop acts on the signal right after it: no poll, placeholder kept.
        check(r.result_state() == 'placeholder', 'result %r' % r.raw_result)
        check(r.count('init over') == 1, 'set-up did not finish')
        check(r.count('Entering function: uloop_proto_detect_start!') == 1, 'not one pass')
        check(r.count('Entering function: uloop_proto_detect_end!') == 0, 'a poll ran')
    elif i == 1:
        # The ARP check runs to its end, the pass sends its DISCOVERs, then
        # the loop acts: no poll ever runs.
        check(r.result_state() == 'placeholder', 'result %r' % r.raw_result)
        check(r.index('Entering function: check_ip_using_arp_blocked!') >= 0, 'no ARP check')
        check(r.count('Entering function: uloop_proto_detect_end!') == 0, 'a poll ran')
        check(r.count('Send DHCP Discovery packet success via dev:eth0') == 1, 'the pass was cut short')
    elif i == 2:
        check(r.result_state() == 'placeholder', 'result %r' % r.raw_result)
        check(r.count('Entering function: uloop_proto_detect_end!') == 0, 'a poll ran')
        check(r.count('Send DHCP Discovery packet success via dev:eth1') == 1, 'the pass was cut short')
    else:
        # The signal arrived while json-c held the truncated file: the write
        # completes, the detection logs its end, then the loop ends it.
        entries = r.document()
        check([e['name'] for e in entries] == ['eth0', 'eth1'], 'result %r' % r.raw_result)
        over = [k for k, m in enumerate(lines) if m.startswith('Detection over')]
        check(len(over) == 1 and over[0] == len(lines) - 2, 'the write was not followed by its end')


def fault_term_targeted(opts, runs, figures):
    with Lab(TERM_LAYOUT, opts) as lab:
        for k in range(runs):
            i = k % len(TARGETED)
            name, how, strace_opts, call = TARGETED[i]
            # strace is attached from outside once the forked child is seen; on
            # a loaded machine that can miss a short run.  Such a run says
            # nothing about the daemon, so it is made again (twice at most);
            # the checks below still fail a run whose tracer is missing.
            for _attempt in range(3):
                if how == '--strace':
                    r = lab.run('-d', '7', strace=strace_opts)
                    trace = r._read('stdout.txt') or ''
                    tracer = r.status.get('strace')
                else:
                    r = lab.run('-d', '7', strace_child=strace_opts)
                    trace = r._read('strace-child.txt') or ''
                    tracer = r.status.get('strace_child')
                if tracer is not None:
                    break
            try:
                ended_cleanly(r)
                check(tracer is not None and tracer.get('exit') == 0, 'strace: %r' % tracer)
                check('+++ killed by' not in trace, 'killed by a signal')
                ok, text = injected_after(trace, call)
                check(ok, 'the signal followed %r' % text[:80])
                if call == 'sendto':
                    check(text.rstrip().endswith('= 410'), 'not a DISCOVER: %r' % text[-60:])
                targeted_check(i, r)
            except Failure as e:
                raise Failure('%s: %s' % (name, e))
            figures['moments'][name] += 1


def fault_self_signals(opts, runs, figures):
    """Our own signals still end the process at once."""
    with Lab(['eth0=dnsmasq', 'eth1=empty'], opts) as lab:
        for _ in range(runs):
            # kill_self after the detection: its end line follows the detection's
            # last line directly, with nothing of the loop in between.
            r = lab.run('-d', '7')
            ended_cleanly(r)
            lines = [m for _, m in r.lines]
            check(lines[-2] == 'Detection over beause all devices have dhcp server!', 'tail %r' % lines[-3:])
            # raise after a failed discovery: set-up never reaches its timers.
            r = lab.run('-d', '7', config=lab.config_copy(_write('switch', None)))
            ended_cleanly(r)
            lines = [m for _, m in r.lines]
            check(lines[-2] == 'init_all_eth_device failed!', 'tail %r' % lines[-3:])
            check(r.raw_result == 'time 19', 'result %r' % r.raw_result)
            figures['runs'] += 1


# ------------------------------------------------------------------ hostile LAN
def fault_hostile(opts, runs, figures):
    # udhcpd checks the address for about 2 s before it offers: the flood and
    # the decoys sent for the DISCOVER reach the probe's socket first.
    with Lab(['eth0=udhcpd', 'eth1=empty'], opts) as lab:
        for _ in range(runs):
            events = os.path.join(lab.base, 'flood%d.json' % lab.runs)
            flood = subprocess.Popen(['bash', LAB, 'exec', lab.state, 'eth0', PY,
                                      os.path.join(HERE, 'flooder.py'), '--iface', 'veth0',
                                      '--br-mac', BR_MAC, '--stats', events],
                                     stdout=subprocess.PIPE, text=True)
            ready = flood.stdout.readline().split()
            try:
                check(len(ready) == 2 and ready[0] == 'ready', 'flooder did not start')
                r = lab.run('-d', '7')
            finally:
                # lab.sh exec runs the flooder as its child: stop it by its own PID.
                if len(ready) == 2:
                    os.kill(int(ready[1]), signal.SIGINT)
                flood.wait()
            ended_cleanly(r)
            entries = r.document()
            check([e['name'] for e in entries] == ['eth0'], 'result %r' % r.raw_result)
            offer_of(entries, 0)
            with open(events) as f:
                stats = json.load(f)
            check(stats['sent'] > 0 and stats['answers'] > 0, 'no flood: %r' % stats)
            own = r.count('Detecing dhcp offer from own mac:02-1A-00-00-00-01, meaning there is a cirecle in lan!!')
            misses = sum(1 for _, m in r.lines if m.startswith('Not match: rdhcp->xid='))
            parse = r.count('read from socket parse error, try again! dev=eth0')
            check(own + misses + parse > 0, 'no crafted frame reached the handler')
            taken = r.index('Success parse dhcp discovery packet in dev=eth0')
            check(taken >= 0, 'the real OFFER was not taken')
            before = sum(1 for _, m in r.lines[:taken] if m.startswith(
                ('Detecing dhcp offer from own mac:', 'Not match: rdhcp->xid=', 'read from socket parse error')))
            figures['refused_before_the_real_offer'].append(before)
            figures['frames_sent'].append(stats['sent'])
            figures['right_xid_decoys'].append(stats['answers'])
            figures['handler_refusals'].append(own + misses + parse)


# ------------------------------------------------------------------ driver
SCENARIOS = {
    'port_deleted': (fault_port_gone(lambda lab: lab.exec('router', 'ip', 'link', 'del', 'eth1')), 2),
    'port_down': (fault_port_gone(lambda lab: lab.exec('router', 'ip', 'link', 'set', 'eth1', 'down')), 2),
    'server_killed': (fault_server_killed, 2),
    'brlan_deleted': (fault_bridge_gone('ip link del br-lan'), 2),
    'brlan_down': (fault_bridge_gone('ip link set br-lan down'), 2),
    'brlan_no_ipv4': (fault_no_ipv4, 2),
    'config': (fault_config, len(CONFIGS)),
    'tmp_full': (fault_tmp_full, 2),
    'term_random': (fault_term_random, 8),
    'term_targeted': (fault_term_targeted, len(TARGETED)),
    'self_signals': (fault_self_signals, 1),
    'hostile_lan': (fault_hostile, 2),
}


def new_figures():
    return collections.defaultdict(list, {
        'moments': collections.Counter(), 'results': collections.Counter(),
        'variants': collections.Counter(), 'blocks': 0, 'inodes': 0, 'runs': 0})


def summary(figures):
    out = {}
    for k, v in figures.items():
        if isinstance(v, list) and v:
            if all(isinstance(x, bool) for x in v):
                out[k] = '%d of %d' % (sum(v), len(v))
            else:
                out[k] = {'min': min(v), 'max': max(v)}
        elif isinstance(v, collections.Counter) and v:
            out[k] = dict(v)
        elif isinstance(v, int) and not isinstance(v, bool) and v:
            out[k] = v
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.environ.get('LANPROBE', os.path.join(TOP, 'build', 'lanprobe')))
    ap.add_argument('--runs', type=int, help='runs per scenario (default: its short count)')
    ap.add_argument('--workdir', default='/var/tmp')
    ap.add_argument('--keep', action='store_true', help='keep a failed run\'s lab and outputs')
    ap.add_argument('--keep-all', action='store_true', help='keep every run\'s outputs')
    ap.add_argument('--json', help='append one JSON line per scenario to this file')
    ap.add_argument('--list', action='store_true')
    ap.add_argument('names', nargs='*')
    a = ap.parse_args()
    if a.list:
        print('\n'.join(SCENARIOS))
        return 0
    a.bin = os.path.abspath(a.bin)
    if not os.access(a.bin, os.X_OK):
        print('FAIL: no daemon binary at %s' % a.bin)
        return 1
    for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(s, lambda *_: sys.exit(130))
    failed = 0
    for name in a.names or list(SCENARIOS):
        fn, short = SCENARIOS[name]
        runs = a.runs or short
        figures = new_figures()
        t = time.monotonic()
        try:
            fn(a, runs, figures)
            line = 'PASS %s: %d runs (%.0f s) %s' % (name, runs, time.monotonic() - t,
                                                     json.dumps(summary(figures)))
            ok = True
        except (Failure, subprocess.CalledProcessError) as e:
            failed += 1
            ok = False
            line = 'FAIL %s: %s' % (name, e)
        print(line)
        sys.stdout.flush()
        if a.json:
            with open(a.json, 'a') as f:
                f.write(json.dumps({'scenario': name, 'runs': runs, 'ok': ok,
                                    'seconds': round(time.monotonic() - t),
                                    'figures': summary(figures), 'line': line}) + '\n')
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
