#!/usr/bin/python3
"""End-to-end scenarios: lanprobe in the lab router against real DHCP servers
and crafted responders.

  scenarios.py [--bin PATH] [--keep] [NAME...]   run the named scenarios (all by default)
Each scenario brings up its own lab, runs the daemon in it (lab.sh run), checks
the result document, the exit status of the forked child, the placeholder seen
while it ran, and the key log and console lines, and tears the lab down.
Exit status 0 when every scenario passed.
"""
import argparse
import json
import os
import re
import signal
import subprocess
import sys
import time

import labrun
from labrun import LAB, PY, TOP, Failure, check, host_mac, log_lines, pool

BR_MAC = '02-1A-00-00-00-01'


class Run(labrun.Run):
    """What one daemon run left behind, read for the lab's checks."""

    def result(self):
        check(self.raw_result is not None, 'no result file')
        try:
            doc = json.loads(self.raw_result, object_pairs_hook=list)
        except ValueError:
            raise Failure('result is not JSON: %r' % self.raw_result)
        check(len(doc) == 1 and doc[0][0] == 'result', 'result document: %r' % self.raw_result)
        return [dict(e) for e in doc[0][1]], [[k for k, _ in e] for e in doc[0][1]]

    def has(self, level, text):
        check(self.count(text, level) > 0, 'log lacks %s %r' % (level, text))

    def lacks(self, text):
        check(self.count(text) == 0, 'log unexpectedly has %r' % text)

    def before(self, first, second):
        i, j = self.index(first), self.index(second)
        check(i >= 0 and j >= 0 and i < j, 'expected %r before %r in the log' % (first, second))


class Lab(labrun.Lab):
    def __init__(self, args, opts):
        super().__init__(args, opts)
        with open(os.path.join(self.state, 'namespaces')) as f:
            self.namespaces = f.read().split()
        with open(os.path.join(self.state, 'pids')) as f:
            self.pids = [int(line.split()[0]) for line in f]

    def run(self, *daemon_args, console_log=False, binary=None):
        self.runs += 1
        out = os.path.join(self.base, 'run%d' % self.runs)
        cmd = ['bash', LAB, 'run', self.state, out, '--bin', binary or self.opts.bin]
        if console_log:
            cmd.append('--console-log')
        subprocess.run(cmd + ['--'] + list(daemon_args), check=True)
        r = Run(out)
        st = r.status
        check(not st['timed_out'], 'the daemon was still running after the runner limit')
        check(st['parent'] == {'exit': 0, 'signal': None, 'ms': st['parent']['ms']},
              'parent exit status: %r' % st['parent'])
        check(st['child_pid'] is not None, 'no forked child seen')
        return r

    def exec(self, name, *cmd):
        return subprocess.run(['bash', LAB, 'exec', self.state, name] + list(cmd), check=True,
                              capture_output=True, text=True).stdout

    def events(self, port):
        with open(os.path.join(self.state, 'hosts', port, 'responder.events')) as f:
            return [json.loads(line) for line in f]


# ------------------------------------------------------------------ common checks
def child_ok(r):
    st = r.status
    check(st['child'] is not None and st['child']['exit'] == 0,
          'forked child exit status: %r' % st['child'])
    check(st['placeholder'] == 'time 19', 'placeholder while running: %r' % st['placeholder'])
    check(st['others'] == [], 'unexpected processes reaped: %r' % st['others'])
    check('lanprobe_brforward' not in st['tmp_files'], '/tmp/lanprobe_brforward left behind')


def ended_normally(r):
    child_ok(r)
    check(r.lines, 'empty log')
    lv, last = r.lines[-1]
    check(lv == 'Error' and re.fullmatch(r'\[lanprobe\(pid:\d+\)\] receive signal:15, exit', last),
          'last log line: %r' % (r.lines[-1],))
    check(r.raw_result is not None and not r.raw_result.endswith('\n') and ' ' not in r.raw_result,
          'result not in json-c plain form: %r' % r.raw_result)


def ended_by_deadline(r):
    ended_normally(r)
    check(r.count('Detection over!', 'Info') == 1, 'no single "Detection over!"')
    r.lacks('Detection over beause all devices have dhcp server!')


def ended_all_answered(r):
    """The detection ends at the first poll after the last port answered."""
    ended_normally(r)
    check(r.count('Detection over beause all devices have dhcp server!', 'Info') == 1,
          'not ended because every port answered')
    r.lacks('Detection over!')
    last_offer = max(i for i, (_, m) in enumerate(r.lines)
                     if m.startswith('Success parse dhcp discovery packet in dev='))
    poll = r.index('Entering function: uloop_proto_detect_end!', last_offer)
    check(poll > 0, 'no poll after the last OFFER')
    nxt = r.index('Entering function: uloop_proto_detect_end!', poll + 1)
    done = r.index('dhcp discovery packet all received offer', poll)
    check(done > poll and (nxt < 0 or done < nxt), 'the first poll after the last OFFER did not end it')


def server_entry(e, keys, port, label, n, gateway=True, dns=True):
    name = 'eth%d' % n
    check(e['name'] == name and e['label'] == label, '%s: name/label %r' % (port, e))
    check(e['mac'] == host_mac(n), '%s: server mac %r' % (port, e['mac']))
    check(e['pre_assigned_ip'] in pool(n), '%s: offered address %r outside its pool' % (port, e.get('pre_assigned_ip')))
    want = ['name', 'label', 'mac', 'pre_assigned_ip']
    if gateway:
        check(e.get('gateway_ip') == '192.168.1.%d' % (10 + n), '%s: gateway %r' % (port, e.get('gateway_ip')))
        want.append('gateway_ip')
    if dns:
        check(e.get('dns_ip') == '10.53.0.%d' % (10 + n), '%s: dns %r' % (port, e.get('dns_ip')))
        want.append('dns_ip')
    check(keys == want, '%s: members %r, expected %r' % (port, keys, want))


def four_servers(r):
    res, keys = r.result()
    check([e['name'] for e in res] == ['eth0', 'eth1', 'eth2', 'eth3'],
          'ports with a server: %r' % [e['name'] for e in res])
    for n in range(4):
        server_entry(res[n], keys[n], 'eth%d' % n, 'LAN%d' % (n + 1), n)


def sends(r, port):
    return r.count('Send DHCP Discovery packet success via dev:%s' % port)


# ------------------------------------------------------------------ scenarios
DEFAULT = []      # the default LAN: dnsmasq, udhcpd, ISC dhcpd, Kea, silent, empty, wlan0
SERVERS = ['eth0=dnsmasq', 'eth1=udhcpd', 'eth2=dhcpd', 'eth3=kea', 'eth5=empty']


def sc_default_lan(lab):
    """Every server found on its port; the silent host keeps it running to the deadline."""
    r = lab.run('-d', '7')
    ended_by_deadline(r)
    four_servers(r)
    check('Success set lanprobe debug level to 7!' in r.console, 'console: %r' % r.console)
    for n in range(4):                   # answered in the first pass, never probed again
        check(sends(r, 'eth%d' % n) == 1, 'eth%d probed %d times' % (n, sends(r, 'eth%d' % n)))
        r.has('Info', 'dev:eth%d detect dhcp Service!' % n)
    passes = r.count('Entering function: uloop_proto_detect_start!')
    check(passes >= 1 and sends(r, 'eth4') == passes, 'silent eth4: %d sends in %d passes' % (sends(r, 'eth4'), passes))
    r.lacks('dev:eth4 detect dhcp Service!')
    for port in ('eth5', 'wlan0'):       # nothing learned behind them: never probed
        check(sends(r, port) == 0, '%s was probed' % port)
        check(r.count('device:%s has NO device connected in, skip it!' % port) == passes,
              '%s not skipped in every pass' % port)
    r.has('Debug', 'Use br-lan ip:192.168.1.1 as arp requesting ip! ARP announcement!')
    r.has('Debug', 'Target ip:192.168.1.1 not found with arp in each device!')


def sc_v_server(lab):
    """-v on a server port: only that port is checked and probed; over once it answered."""
    r = lab.run('-d', '7', '-v', 'eth1')
    ended_all_answered(r)
    check('Success specify dhcp detect device: eth1!' in r.console, 'console: %r' % r.console)
    res, keys = r.result()
    check(len(res) == 1, 'result: %r' % res)
    server_entry(res[0], keys[0], 'eth1', 'LAN2', 1)
    r.has('Debug', 'Overall 1 devices ready to sending arp!')
    r.has('Debug', 'device:eth1 ready to run dhcp detect')
    check(sends(r, 'eth1') == 1 and all(sends(r, p) == 0 for p in ('eth0', 'eth2', 'eth3', 'eth4')),
          'DISCOVERs went out elsewhere than eth1')


def sc_v_silent(lab):
    """-v on the silent port: passes time out until the deadline; empty result."""
    r = lab.run('-d', '7', '-v', 'eth4')
    ended_by_deadline(r)
    check(r.raw_result == '{"result":[]}', 'result: %r' % r.raw_result)
    passes = r.count('Entering function: uloop_proto_detect_start!')
    check(passes >= 2, 'only %d passes' % passes)
    check(r.count('dhcp discovery packet timeout!') >= passes - 1, 'timeouts do not match passes')
    check(sends(r, 'eth4') == passes, 'eth4 sends %d, passes %d' % (sends(r, 'eth4'), passes))
    check(sum(sends(r, 'eth%d' % n) for n in range(4)) == 0, 'other ports probed')
    check(r.count('Overall 1 devices ready to sending arp!') == passes, 'ARP check not on eth4 alone')


def sc_v_unknown(lab):
    """-v naming an interface that is not a LAN port: Error, then all ports."""
    r = lab.run('-d', '7', '-v', 'eth9')
    r.has('Error', "Device:eth9 doesn't existed in network.lan! Detect in all lans in default!")
    ended_by_deadline(r)
    four_servers(r)
    check(sends(r, 'eth4') >= 1, 'eth4 not probed')


def sc_owner(lab):
    """A host behind eth0 also holds 192.168.1.1 and answers the announcement."""
    r = lab.run('-d', '7')
    ended_all_answered(r)
    res, keys = r.result()
    check([e['name'] for e in res] == ['eth0', 'eth1'], 'result: %r' % res)
    check(res[0]['mac'] == host_mac(0) and res[0]['gateway_ip'] == '192.168.1.1', 'eth0: %r' % res[0])
    server_entry(res[1], keys[1], 'eth1', 'LAN2', 1)
    # Whatever the ARP sockets read decides the verdict: every port whose
    # socket took a reply from 192.168.1.1 stays in the list.
    first = r.index('Entering function: check_ip_using_arp_blocked!')
    nxt = r.index('Entering function: check_ip_using_arp_blocked!', first + 1)
    span = r.lines[first:nxt if nxt > 0 else len(r.lines)]
    answered = [m for _, m in span if m.startswith('arp reply success in dev:')]
    check(len(answered) == 1, 'no ARP reply accepted: %r' % answered)
    missing = {m.split(' via dev:')[1].rstrip(' !') for _, m in span if m.startswith('No arp reply from ')}
    kept = {'eth0', 'eth1'} - missing
    check('eth0' in kept, 'the port of the owner was dropped (no reply read on eth0)')
    verdict = [m for _, m in span if m.startswith('Detect ') or m.startswith('Target ip:')]
    if len(kept) >= 2:
        check(verdict == ['Detect %d device own same ip:192.168.1.1!' % len(kept)], 'verdict %r' % verdict)
    else:
        check(verdict == [], 'verdict %r with one owner' % verdict)


def sc_parser(lab):
    """Crafted OFFERs through the wire: two routers, leading pad, wrong xid, own MAC."""
    r = lab.run('-d', '7')
    ended_all_answered(r)
    res, keys = r.result()
    check([e['name'] for e in res] == ['eth0', 'eth1', 'eth2', 'eth3'], 'result: %r' % res)
    server_entry(res[0], keys[0], 'eth0', 'LAN1', 0, gateway=False)           # two routers
    server_entry(res[1], keys[1], 'eth1', 'LAN2', 1, gateway=False, dns=False)  # pad first
    server_entry(res[2], keys[2], 'eth2', 'LAN3', 2)                          # wrong xid first
    server_entry(res[3], keys[3], 'eth3', 'LAN4', 3)                          # own MAC first
    ev = [e for e in lab.events('eth2') if e['event'] in ('offer-wrong-xid', 'offer')]
    check([e['event'] for e in ev] == ['offer-wrong-xid', 'offer'], 'eth2 responder: %r' % ev)
    wrong = int.from_bytes(bytes.fromhex(ev[0]['xid']), sys.byteorder)
    right = int.from_bytes(bytes.fromhex(ev[1]['xid']), sys.byteorder)
    miss = 'Not match: rdhcp->xid=0x%08x, lanprobe_ctx->random_xid=0x%08x' % (wrong, right)
    r.has('Info', miss)
    r.before(miss, 'Success parse dhcp discovery packet in dev=eth2')
    own = 'Detecing dhcp offer from own mac:%s, meaning there is a cirecle in lan!!' % BR_MAC
    r.has('Warning', own)
    r.before(own, 'Success parse dhcp discovery packet in dev=eth3')
    check(r.count(own) == 1, 'own-MAC warning count %d' % r.count(own))


def sc_late(lab):
    """A responder that ignores the first DISCOVER: found in the second pass (-t 1000)."""
    r = lab.run('-d', '7', '-t', '1000')
    ended_all_answered(r)
    check('Success set lanprobe timeout to 1000ms!' in r.console, 'console: %r' % r.console)
    res, keys = r.result()
    check(len(res) == 1, 'result: %r' % res)
    server_entry(res[0], keys[0], 'eth0', 'LAN1', 0)
    check(r.count('Entering function: uloop_proto_detect_start!') == 2, 'not two passes')
    r.before('dhcp discovery packet timeout!', 'dev:eth0 detect dhcp Service!')
    check(sends(r, 'eth0') == 2, 'eth0 probed %d times' % sends(r, 'eth0'))
    ev = lab.events('eth0')
    disc = [e for e in ev if e['event'] == 'discover']
    check([e['event'] for e in ev] == ['discover', 'ignored', 'discover', 'offer'], 'responder: %r' % ev)
    check(disc[0]['xid'] != disc[1]['xid'] and disc[0]['chaddr'] != disc[1]['chaddr'],
          'the second pass did not present a fresh client')


def sc_no_switch(lab):
    """No switch package: discovery fails, the placeholder stays, exit status 0."""
    r = lab.run('-d', '7')
    child_ok(r)
    check(r.raw_result == 'time 19', 'result file: %r' % r.raw_result)
    r.has('Error', 'Unable to load uci switch!')
    r.has('Critical', 'init_all_eth_device failed!')
    check(sum(sends(r, 'eth%d' % n) for n in range(2)) == 0, 'DISCOVER sent without a LAN table')


def sc_no_members(lab):
    """br-lan without members: ports from network.lan.ifname have port_no 0, never connected."""
    for console_log in (False, True):
        r = lab.run('-d', '7', console_log=console_log)
        if console_log:
            # No /tmp/lanprobe.log: the log went to the console, after the console message.
            check(r._read('lanprobe.log') is None, 'log file written although absent')
            text = r.console.split('Success set lanprobe debug level to 7!\n', 1)
            check(len(text) == 2, 'console: %r' % r.console[:200])
            r.log_text = text[1]
            r.lines = log_lines(r.log_text)
        ended_normally(r)
        check(r.raw_result == '{"result":[]}', 'result: %r' % r.raw_result)
        r.has('Info', 'Parse lan devices success, count:2')
        for port in ('eth0', 'eth1'):
            r.has('Debug', 'device:%s has NO device connected in, skip it!' % port)
        r.has('Info', 'No actual device need detected, skip dhcp detect!')
        r.has('Info', 'dhcp detect array is null, no packet sent yet, treat as detect over!')
        check(r.count('Entering function: uloop_proto_detect_start!') == 1, 'more than one pass')
        r.has('Info', 'Detection over beause all devices have dhcp server!')


def sc_first_poll(lab):
    """Four real servers and no silent host: over at the first poll after the last OFFER."""
    r = lab.run('-d', '7')
    ended_all_answered(r)
    four_servers(r)
    check(r.count('Entering function: uloop_proto_detect_start!') == 1, 'more than one pass')
    r.lacks('dhcp discovery packet timeout!')


def sc_selftest(lab):
    """The lab itself: every server answers a DISCOVER on its port, the others do not."""
    out = lab.exec('router', PY, os.path.join(TOP, 'scripts', 'lab', 'discover.py'), '--wait', '3',
                   'eth0', 'eth1', 'eth2', 'eth3', 'eth4', 'eth5')
    got = {o['port']: o for o in map(json.loads, out.splitlines())}
    for n, prog in enumerate(['dnsmasq', 'udhcpd', 'dhcpd', 'kea']):
        o = got['eth%d' % n]
        check(o['offered'], '%s on eth%d did not answer' % (prog, n))
        check(o['mac'] == host_mac(n) and o['yiaddr'] in pool(n), '%s answer: %r' % (prog, o))
        check(o['router'] == ['192.168.1.%d' % (10 + n)] and o['dns'] == ['10.53.0.%d' % (10 + n)],
              '%s options: %r' % (prog, o))
    check(not got['eth4']['offered'] and not got['eth5']['offered'], 'silent or empty port answered')
    fdb = lab.exec('router', 'bridge', 'fdb', 'show', 'br', 'br-lan')
    learned = sorted(l.split()[2] for l in fdb.splitlines() if 'permanent' not in l)
    check(learned == ['eth0', 'eth1', 'eth2', 'eth3', 'eth4'], 'learned ports: %r' % learned)


def sc_runner(lab):
    """The runner itself, with a stand-in that has the daemon's process shape."""
    r = lab.run('-x', binary=os.path.join(TOP, 'tests', 'lab', 'fork_fixture.sh'))
    st = r.status
    check(st['child'] is not None and st['child']['exit'] == 5, 'child status: %r' % st['child'])
    check(st['placeholder'] == 'time 19', 'placeholder: %r' % st['placeholder'])
    check(st['parent']['ms'] <= st['child']['ms'], 'parent reaped after the child')
    check(r.raw_result == '{"result":[]}', 'result: %r' % r.raw_result)
    check(r.console == 'first message\nsecond message\n', 'console: %r' % r.console)
    seen = dict(l.split(': ', 1) for l in r.log_text.splitlines())
    check(seen['config'].split() == ['network', 'switch'], '/etc/config: %r' % seen['config'])
    check(seen['net'].split() == ['br-lan', 'eth0', 'lo'], '/sys/class/net: %r' % seen['net'])
    check(not os.path.exists('/etc/config/switch'), 'fixtures leaked onto the host')
    check(sorted(st['tmp_files']) == ['lanprobe.log', 'lanprobe_result'], 'tmp: %r' % st['tmp_files'])


SCENARIOS = {
    'runner': (['eth0=silent'], sc_runner),
    'selftest': (DEFAULT, sc_selftest),
    'default_lan': (DEFAULT, sc_default_lan),
    'v_server': (DEFAULT, sc_v_server),
    'v_silent': (DEFAULT, sc_v_silent),
    'v_unknown': (DEFAULT, sc_v_unknown),
    'owner': (['eth0=owner', 'eth1=dnsmasq'], sc_owner),
    'parser': (['eth0=responder:two-routers', 'eth1=responder:pad-first',
                'eth2=responder:wrong-xid', 'eth3=responder:own-mac'], sc_parser),
    'late': (['eth0=responder:late'], sc_late),
    'no_switch': (['--no-switch', 'eth0=dnsmasq', 'eth1=silent'], sc_no_switch),
    'no_members': (['--detached', 'eth0=dnsmasq', 'eth1=silent'], sc_no_members),
    'first_poll': (SERVERS, sc_first_poll),
}


def check_teardown(lab):
    """After down: none of the lab's namespaces, processes or state is left."""
    check(lab.namespaces and not os.path.exists(lab.state), 'state directory left behind')
    left = [n for n in lab.namespaces if os.path.exists(os.path.join('/run/netns', n))]
    alive = [p for p in lab.pids if os.path.exists('/proc/%d' % p) and
             open('/proc/%d/stat' % p).read().rsplit(')', 1)[1].split()[0] != 'Z']
    check(not left and not alive, 'left behind: namespaces %r, processes %r' % (left, alive))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.environ.get('LANPROBE', os.path.join(TOP, 'build', 'lanprobe')))
    ap.add_argument('--keep', action='store_true', help='keep the output directories')
    ap.add_argument('--workdir', default='/var/tmp', help='where lab state and outputs go')
    ap.add_argument('names', nargs='*')
    a = ap.parse_args()
    a.bin = os.path.abspath(a.bin)
    # An interruption (CTest's time-out, Ctrl-C) still tears the lab down.
    for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(s, lambda *_: sys.exit(130))
    failed = 0
    for name in a.names or list(SCENARIOS):
        layout, fn = SCENARIOS[name]
        t, lab, ok = time.monotonic(), None, False
        try:
            check(name == 'runner' or os.access(a.bin, os.X_OK), 'no daemon binary at %s' % a.bin)
            lab = Lab(layout, a)
            fn(lab)
            lab.down(keep=True)
            check_teardown(lab)
            ok = True
            print('PASS %s (%.1f s)' % (name, time.monotonic() - t))
        except (Failure, subprocess.CalledProcessError) as e:
            failed += 1
            print('FAIL %s: %s' % (name, e) + ('\n     outputs kept in %s' % lab.base if lab else ''))
        finally:
            if lab:
                lab.down(keep=not ok)
        sys.stdout.flush()
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
