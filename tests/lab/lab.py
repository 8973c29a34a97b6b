#!/usr/bin/python3
"""The daemon end to end in the lab router (scripts/lab/lab.sh), one row per
situation: real DHCP servers and crafted hosts behind its ports, and the faults
a router meets.  Each row brings up its own lab, runs the daemon there (--runs
times), checks what every run must show (see always()) and the row's own
outcome, and tears the lab down.

  lab.py [--bin PATH] [--runs N] [--keep] [NAME...] | --list
"""
import argparse
import fnmatch
import functools
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(TOP, 'tests', 'vm'))
import vmlab  # noqa: E402
LAB = os.path.join(TOP, 'scripts', 'lab', 'lab.sh')
PY = '/usr/bin/python3'
LINE = re.compile(r'^\[lanprobe\]\[(Critical|Error|Warning|Notice|Info|Debug)\]\[(-?\d+)\]\[(\w+):\d+\]: (.*)$')
FOREIGN = re.compile(r'(?:switch|cp): [^\n]*\n')
END = re.compile(r'\[lanprobe\(pid:\d+\)\] receive signal:15, exit')
BR_MAC = '02:1A:00:00:00:01'

# Which operation logs each message the lab's runs produce, and at which level
# (C, E, W, N, I, D: Critical .. Debug; "%" conversions match anything).
# "Entering function: X!" always belongs to X, at level Debug.
OWNERS = {
    'main': ['D:init over', 'C:init_all_eth_device failed!',
             "E:Device:%s doesn't existed in network.lan! Detect in all lans in default!"],
    'signal_kill': ['E:[lanprobe(pid:%d)] receive signal:%d, exit'],
    'uloop_proto_detect_start': ['D:device:%s already has dhcp_dever, skip sending arp!',
                                 'D:Overall %d devices ready to sending arp!',
                                 'E:find_target_ip_and_device_with_arp failed, return null!',
                                 'E:Error sending dhcp discovery packet'],
    'uloop_proto_detect_end': ['D:dhcp discovery packet not fully received', 'I:dhcp discovery packet all received offer',
                               'I:Detection over beause all devices have dhcp server!', 'D:dhcp discovery packet timeout!',
                               'E:Error receiving dhcp discovery packet'],
    'uloop_proto_detect_finish': ['D:dhcp discovery packet not fully received', 'I:dhcp discovery packet all received offer',
                                  'D:dhcp discovery packet timeout!', 'I:Detection over!',
                                  'E:Error receiving dhcp discovery packet'],
    'init_all_lan_device': ['E:Parse network devices fail!', 'E:get_eth_atrribute failed, or no attribute successfully parse!'],
    'generate_lan_device': ['D:Parse lan devices(%d totoal) name: %s', 'I:Parse lan devices success, count:%d'],
    'get_eth_atrribute': ['E:Unable to load uci switch!', 'W:Failed to get device by config switch.%s',
                          'E:%s not begin with "eth"', "W:Can't find device %s",
                          'I:Parse network devices atrribute success, count:%d'],
    'check_dev_already_add': ['I:dev_hashmap_head input is NULL!'],
    'find_device': ['I:Invalid dev_hashmap_head input!'],
    'add_br_device': ['D:Parse lan devices name: %s'],
    'update_brlan_dev_from_sys': ["E: Can't get port info: %s", 'I:Parse lan devices success, count:%d'],
    'br_foreach_port': ['D:success get dev:%s index:%d', 'E:Parse lan device number more than %d, Ignore others!'],
    'fetch_int': ['I:Failed to open %s/%s, not a br-lan deive'],
    'update_brlan_valid_dev': ['E:Failed to get fdb table!', 'D:No device index(%d) match in device hashmap!',
                               'D:device:%s already has devices connected (via fdb table)!',
                               'D:find device mac:%02X-%02X-%02X-%02X-%02X-%02X connected in dev:%s!'],
    'get_bridge_table': ['D:get br:%s, overall %d entry in fdb table', 'E:br_init fail: %s'],
    'br_get_fdb': ['E:read of forward table failed: %s'],
    'remove_unique_device_from_list': ['D:Success remove dev:%s from list!'],
    'find_target_ip_and_device_with_arp': ["E:Couldn't get br-lan ip, netmask, mac!",
                                           'D:Use br-lan ip:%s as arp requesting ip! ARP announcement!',
                                           'D:Success get br-lan ip:%s, mac:%s', 'E:Failed to send arp request for each device!',
                                           'D:Target ip:%s not found with arp in each device!',
                                           'W:Detect %d device own same ip:%s!'],
    'check_ip_using_arp_blocked': ['E:invalid parameters! Send failed!', 'D:Get device:%s , index=%d, hw_addr=%s',
                                   'D:Arp packet sockfd init success in for: %s, bind to dev:%s',
                                   'D:Ready to send Arp packet for: %s via dev:%s, retry_times:%d/%d',
                                   'D:Send Arp packet success for: %s via dev:%s',
                                   'D:Trying to recv Arp packet for: %s via dev:%s, retry_times:%d/%d',
                                   'E:Not a arp reply packet', 'I:arp reply receieve a different ip:%s, Ignore!',
                                   'I:arp reply receieve a different ip, orig:%s, Ignore!', 'D:arp reply success in dev:%s',
                                   'D:No arp reply from %s via dev:%s! ', 'E:Failed to init ARP socket for: %s, bind to dev:%s',
                                   'E:Failed to send ARP socket for: %s via dev:%s'],
    'init_arp_sockfd': ['D:Bind Arp socket into dev:%s', 'E:init_arp_sockfd bind to dev:%s fail!'],
    'send_arp_unicast_packet_blocked': ['E:Skip sending arp packet due to socket error!',
                                        'E:Error while sending arp socket to %s'],
    'release_arp_detect_handle': ['E:arp_detect_handle not null but arp_num=0, may cause unclosed socket fd ',
                                  'D:release arp_detect_handle success!'],
    'lanprobe_for_all_devices': ['D:device:%s has NO device connected in, skip it!',
                                 'D:device:%s already has dhcp_dever, skip it!', 'D:Overall %d devices ready to run dhcp detect',
                                 'I:No actual device need detected, skip dhcp detect!',
                                 'D:Overall %d devices Send dhcp discovery success!', 'E:Error sending dhcp discovery packet'],
    'lanprobe_for_specify_device': ['D:device:%s ready to run dhcp detect', 'E:Error sending dhcp discovery packet in dev:%s'],
    'send_dhcp_discovery_all': ['D:DHCP Discovery packet sockfd init success in dev:%s',
                                'D:Ready to send DHCP Discovery packet via dev:%s, Transaction ID: %s',
                                'D:Send DHCP Discovery packet success via dev:%s', 'E:Failed to send DHCP socket via dev:%s',
                                'E:Failed to init DHCP socket in dev:%s', "E:Couldn't get br-lan ip, netmask, mac!"],
    'send_dhcp_discovery_packet': ['D:Get device:%s , index=%d, hw_addr=%s', 'E:Error binding socket!',
                                   'E:Error while writing to dhcp request socket, using device:%s',
                                   'E:Skip sending dhcp discoery packet due to socket error!'],
    'recv_dhcp_discovery_packet': ['D:recv dhcp discovery packet from dev:%s', 'E:Cannot read from socket, try again! dev=%s',
                                   'D:read from socket parse error, try again! dev=%s',
                                   'I:Not match: rdhcp->xid=%s, lanprobe_ctx->random_xid=%s', 'D:dev:%s, IPADDR=%s, MAC=%s',
                                   'D:dev:%s, GATEWAY=%s', 'D:dev:%s, DNS_SERVER=%s',
                                   'W:Detecing dhcp offer from own mac:%s, meaning there is a cirecle in lan!!',
                                   'I:Success parse dhcp discovery packet in dev=%s'],
    'process_dhcp_discovery_all': ['I:dhcp detect array is null, no packet sent yet, treat as detect over!',
                                   'D:Processing dhcp offer in eth:%s', 'I:dev:%s detect dhcp Service!',
                                   'D:dev:%s, IPADDR=%s, MAC=%s', 'D:dev:%s, GATEWAY=%s', 'D:dev:%s, DNS_SERVER=%s',
                                   'D:No dhcp Service detect in dev:%s yet!'],
    'release_lanprobe_handle': ['I:Release null lanprobe_handle fail!', 'D:release lanprobe_handler success!'],
}
PATTERNS = [(re.compile(re.sub(r'%[-#0-9]*[a-zA-Z]', '.*', re.escape(m[2:]).replace(r'\%', '%')) + '$'), (op, m[0]))
            for op, msgs in OWNERS.items() for m in msgs]


@functools.lru_cache(maxsize=None)
def owners(msg):
    if msg.startswith('Entering function: '):
        return [(msg[19:-1].split(',')[0], 'D')]
    return [owner for p, owner in PATTERNS if p.match(msg)]


class Failure(Exception):
    pass


def check(cond, what):
    if not cond:
        raise Failure(what)


def host_mac(n):
    return '02:1A:00:00:01:%02X' % n


class Run:
    """What one daemon run left behind (see scripts/lab/nsinit.py)."""

    def __init__(self, out, row):
        self.out, self.row = out, row
        self.status = json.loads(self.read('status.json'))
        self.raw = self.read('result')
        self.console = self.read('console.txt') or ''
        text = self.read('lanprobe.log') or ''
        text = '' if text == 'stale\n' else text      # the file as the runner left it: no sink opened
        if row.get('console_log'):
            text = self.console.split('Success set lanprobe debug level to 7!\n', 1)[-1]
        # Lines still buffered when logging ends reach the inherited stdout.
        text += ''.join(l + '\n' for l in (self.read('stdout.txt') or '').splitlines() if l.startswith('[lanprobe]'))
        # libuci's and cp's unbuffered lines land between blocks of the daemon's buffered output.
        text = FOREIGN.sub('', text)
        self.lines = [LINE.match(l) for l in text.splitlines()]
        check(all(self.lines), 'log lines out of format: %r' % [l for l, m in zip(text.splitlines(), self.lines) if not m][:3])
        self.lines = [m.groups() for m in self.lines]          # (level, uptime, function, message)
        self.msgs = [l[3] for l in self.lines]

    def read(self, name):
        try:
            with open(os.path.join(self.out, name), encoding='utf-8', errors='replace') as f:
                return f.read()
        except OSError:
            return None

    def count(self, text, start=0, end=None):
        """Lines whose message is text ('*' matches anything)."""
        return sum(1 for m in self.msgs[start:end] if m == text or ('*' in text and fnmatch.fnmatchcase(m, text)))

    def index(self, text, start=0):
        return next((i for i in range(start, len(self.msgs)) if self.msgs[i] == text), -1)

    def entries(self):
        try:
            doc = json.loads(self.raw, object_pairs_hook=list)
        except (TypeError, ValueError):
            raise Failure('no complete result document: %r' % self.raw)
        check(self.raw == json.dumps(json.loads(self.raw), separators=(',', ':')).replace('/', '\\/'),
              'result not in json-c plain form: %r' % self.raw)
        check(len(doc) == 1 and doc[0][0] == 'result', 'result %r' % self.raw)
        return [dict(e) for e in doc[0][1]], [[k for k, _ in e] for e in doc[0][1]]


def expect_entry(e, keys, port):
    """port: 'eth<n>' with ':nogw' / ':nodns', or ':label=TEXT'."""
    name, *flags = port.split(':')
    n = int(name[3:])
    label = next((f[6:] for f in flags if f.startswith('label=')), 'LAN%d' % (n + 1))
    pool = ['192.168.1.%d' % (100 + 20 * n + i) for i in range(20)]
    want = {'name': name, 'label': label, 'mac': host_mac(n)}
    if 'nogw' not in flags:
        want['gateway_ip'] = '192.168.1.1' if 'owner' in flags else '192.168.1.%d' % (10 + n)
    if 'nodns' not in flags:
        want['dns_ip'] = '10.53.0.%d' % (10 + n)
    check(e.get('pre_assigned_ip') in pool, '%s offered %r' % (name, e.get('pre_assigned_ip')))
    check({k: v for k, v in e.items() if k != 'pre_assigned_ip'} == want, '%s entry %r, expected %r' % (name, e, want))
    order = [k for k in ('name', 'label', 'mac', 'pre_assigned_ip', 'gateway_ip', 'dns_ip') if k in e]
    check(keys == order, '%s members in order %r' % (name, keys))


def always(r):
    """What every run must show."""
    st, row = r.status, r.row
    check(not st['timed_out'], 'still running at the runner limit')
    if row.get('end') == 'refused':
        check(st['parent']['exit'] == 1 and st['child_pid'] is None, 'refused start: %r' % st)
        return
    # Under strace the parent is strace's child: strace reports its status.
    parent = st['parent'] or st.get('strace')
    check(parent['exit'] == 0 and st['child'] and st['child']['exit'] == 0,
          'exit statuses: parent %r, child %r' % (parent, st['child']))
    check(st['placeholder'] == 'time 19' or row.get('tmp_full') or row.get('strace'), 'placeholder %r' % st['placeholder'])
    check(not st['others'], 'other processes reaped: %r' % st['others'])
    check('lanprobe_brforward' not in st['tmp_files'], '/tmp/lanprobe_brforward left behind')
    for level, _, func, msg in r.lines:
        check((func, level[0]) in owners(msg), '%r logged by %s at %s, expected %s' % (msg, func, level, owners(msg) or 'a listed message'))
    if row.get('args', [None])[:2] != ['-d', '7']:
        return
    check(r.lines and END.fullmatch(r.msgs[-1]) and sum(1 for m in r.msgs if END.fullmatch(m)) == 1,
          'end line: last %r' % (r.msgs[-1:],))
    # Passes: every timed-out pass polled until elapsed > time-out, strictly.
    timeout = int(row['args'][row['args'].index('-t') + 1]) if '-t' in row['args'] else 6000
    polls = 0
    for level, _, func, msg in r.lines:
        if msg == 'Entering function: uloop_proto_detect_start!':
            polls = 0
        polls += msg == 'Entering function: uloop_proto_detect_end!'
        if msg == 'dhcp discovery packet timeout!' and func == 'uloop_proto_detect_end':
            check(polls == timeout // 200 + 1, 'a pass timed out after %d polls (time-out %d ms)' % (polls, timeout))
    # ARP checks that ran to their end without any answer made both attempts on every port.
    starts = [i for i, m in enumerate(r.msgs) if m == 'Entering function: check_ip_using_arp_blocked!'] + [len(r.msgs)]
    for a, b in zip(starts, starts[1:]):
        if r.count('release arp_detect_handle success!', a, b) and not r.count('arp reply success in dev:*', a, b):
            check(r.count('Ready to send Arp packet for: *', a, b) == 2 * r.count('Ready to send Arp packet for: *1/2', a, b)
                  == 2 * r.count('Ready to send Arp packet for: *2/2', a, b), 'an ARP check did not make two attempts')
    # Later ARP checks leave out every port that has its server (unless one port was named).
    found = set()
    for m in r.msgs:
        if m.endswith(' detect dhcp Service!'):
            found.add(m[4:-21])
        elif m.startswith('Ready to send Arp packet for: ') and '-v' not in row['args']:
            check(m.split(' via dev:')[1].split(',')[0] not in found, 'a port with a server in an ARP check: %r' % m)
    end = row.get('end')
    if end == 'deadline':
        check(r.count('Detection over!') == 1 and not r.count('Detection over beause all devices have dhcp server!'),
              'not ended by the deadline')
        check_deadline(r)
    elif end == 'answered':
        check(r.count('Detection over beause all devices have dhcp server!') == 1 and not r.count('Detection over!'),
              'not ended because every port answered')


def check_deadline(r):
    """The deadline is 13 s after the set-up; an ARP check under way then (it
    blocks, 2 x (ports x 300 + 310) ms) delays it to that check's end.  Log
    stamps are whole seconds of uptime: one second of margin."""
    stamp = lambda i: int(r.lines[i][1])
    due = end = stamp(r.index('init over')) + 13
    ports = 0
    for i, m in enumerate(r.msgs):
        if m.startswith('Overall ') and m.endswith(' devices ready to sending arp!'):
            ports = int(m.split()[1])
        elif m == 'Entering function: check_ip_using_arp_blocked!' and stamp(i) <= due:
            end = max(end, stamp(i) + 2 * (ports * 0.3 + 0.31))
    took = stamp(r.index('Detection over!'))
    check(due - 1 <= took <= end + 1, 'deadline at %d s of uptime, due %d s, by the ARP checks %.1f s' % (took, due, end))


def first_poll(r):
    """Ended by the first poll after the last port answered, in one pass."""
    last = max(i for i, m in enumerate(r.msgs) if m.startswith('Success parse dhcp discovery packet'))
    poll = r.index('Entering function: uloop_proto_detect_end!', last)
    nxt = r.index('Entering function: uloop_proto_detect_end!', poll + 1)
    done = r.index('dhcp discovery packet all received offer', last)
    check(0 <= poll < done and (nxt < 0 or done < nxt) and passes(r) == 1,
          'the first poll after the last answer did not end the detection')


def sends(r, port):
    return r.count('Send DHCP Discovery packet success via dev:%s' % port)


def passes(r):
    return r.count('Entering function: uloop_proto_detect_start!')


def discover_frames_ok(events):
    """Every DISCOVER a responder saw is the 410-byte frame we build."""
    for e in events:
        if e['event'] != 'discover':
            continue
        x = int.from_bytes(bytes.fromhex(e['xid']), sys.byteorder)
        ch = bytes([(x & 0xFC) | 2] + [(x >> s) & 0xFF for s in (4, 8, 12, 16, 20)])
        want = (b'\xff' * 6 + ch + bytes.fromhex('0800 4500018cd431000040 11a530 00000000 ffffffff'
                                                 '00440043 01780000 01010600') + bytes.fromhex(e['xid']))
        want = want.ljust(70, b'\0') + ch
        want = want.ljust(278, b'\0') + bytes.fromhex('63825363 350101 3703030106 ff')
        check(e['frame'] == want.ljust(410, b'\0').hex(), 'DISCOVER on the wire: %s' % e['frame'])


# ------------------------------------------------------------------ rows
DEFAULT = []      # eth0 dnsmasq, eth1 udhcpd, eth2 ISC dhcpd, eth3 Kea, eth4 silent, eth5 empty, wlan0
FOUR = ['eth0', 'eth1', 'eth2', 'eth3']
ANSWER = ['eth0=dnsmasq', 'eth1=empty']
SILENT = ['eth0=dnsmasq', 'eth1=silent']
TERM = ['eth0=dnsmasq', 'eth1=udhcpd', 'eth2=empty']
ARM, BOTH = ('aarch64',), ('aarch64', 'mipsel')      # the virtual routers a row runs on


def ck_default(r, lab):
    n = passes(r)
    check('Success set lanprobe debug level to 7!' in r.console, 'console %r' % r.console)
    check(all(sends(r, p) == 1 for p in FOUR) and sends(r, 'eth4') == n >= 2, 'sends per port')
    check(all(r.count('device:%s has NO device connected in, skip it!' % p) == n for p in ('eth5', 'wlan0')),
          'eth5 or wlan0 not skipped in every pass')
    check(r.count('Target ip:192.168.1.1 not found with arp in each device!') == n, 'ARP verdicts')


def ck_v_silent(r, lab):
    n = passes(r)
    check(n >= 3 and sends(r, 'eth4') == n and not any(sends(r, p) for p in FOUR), 'passes %d, sends' % n)
    check(r.count('Overall 1 devices ready to sending arp!') == n, 'ARP check not on eth4 alone')


def ck_parser(r, lab):
    ev = [e for e in lab.events('eth2') if e['event'] in ('offer-wrong-xid', 'offer')]
    x = [int.from_bytes(bytes.fromhex(e['xid']), sys.byteorder) for e in ev]
    miss = 'Not match: rdhcp->xid=0x%08x, lanprobe_ctx->random_xid=0x%08x' % tuple(x)
    check(r.index(miss) < r.index('Success parse dhcp discovery packet in dev=eth2'), 'wrong xid not refused first')
    own = 'Detecing dhcp offer from own mac:%s, meaning there is a cirecle in lan!!' % BR_MAC.replace(':', '-')
    check(r.count(own) == 1 and r.index(own) < r.index('Success parse dhcp discovery packet in dev=eth3'), 'own MAC')
    for p in FOUR:
        discover_frames_ok(lab.events(p))


def ck_late(r, lab):
    ev = lab.events('eth0')
    check([e['event'] for e in ev] == ['discover', 'discover', 'offer'] and passes(r) == 2, 'passes %r' % ev)
    check(ev[0]['xid'] != ev[1]['xid'] and ev[0]['chaddr'] != ev[1]['chaddr'], 'the second pass reused the client')


def ck_owner(r, lab):
    # The owner's reply goes up through br-lan, where both ports' packet
    # sockets see it: both keep their slot, and the verdict counts two.
    verdict = [m for m in r.msgs if m.startswith(('Detect ', 'Target ip:', 'No arp reply from '))]
    check(verdict == ['Detect 2 device own same ip:192.168.1.1!'], 'verdict %r' % verdict)


def ck_arp_short(r, lab):
    # 28 bytes: the sender address the reply lacks reads as 0.0.0.0.
    check(r.count('arp reply receieve a different ip:0.0.0.0, Ignore!') >= 1, 'short reply not read as a reply')
    arp = [e['frame'] for e in lab.events('eth0') if e['event'] == 'arp-request' and e['frame'][56:64] == e['frame'][76:84] == 'c0a80101']
    port = '021a00000010'
    want = 'ffffffffffff' + port + '0806000108000604 0001' + port + 'c0a80101 000000000000 c0a80101' + '00' * 18
    check(arp and all(f == want.replace(' ', '') for f in arp), 'ARP announcement on the wire: %r' % arp[:1])


def ck_no_switch(r, lab):
    out = r.read('stdout.txt')
    # Level 2 and no sink: the Critical line alone, on the inherited output
    # (where libuci's own text about the missing package goes too).
    check(re.fullmatch(r'switch: Entry not found\n\[lanprobe\]\[Critical\]\[\d+\]\[main:\d+\]: '
                       r'init_all_eth_device failed!\n', out or ''), 'default level: stdout %r' % out)


def ck_no_members(r, lab):
    check(r.count('Parse lan devices success, count:2') == 1 and passes(r) == 1, 'ports from network.lan.ifname')
    check(r.count('No actual device need detected, skip dhcp detect!') == 1, 'a port was probed')
    check(r.read('lanprobe.log') is None, 'log file written although absent')


def ck_help(r, lab):
    usage = ('Usage: %s -d/--debug [0(emergy)~7(debug)] to specify the debug level.\n\t\t-t/--time_ms [1000~8000] '
             'to specify the timeout.\n\t\t-v/--device [eth*] to specify the device to detect, or will detect in all '
             'lan devices in default\n') % r.status['cmd'][0]
    check(r.console == 'Invalid option -d 0, Run as default critical debug level!\nInvalid option -t 0, should in '
          'range (0,20000]!\n' + usage, 'console %r' % r.console)
    check(r.raw is None, 'result file touched')


def ck_port_gone(r, lab):
    check(r.count('dhcp discovery packet timeout!') == 1, 'not one timed-out pass')
    # The error pending on the socket is fetched at its first report; left
    # alone, the loop reports it at every pass until the pass times out.
    calls = r.count('recv dhcp discovery packet from dev:eth1')
    check(calls <= 10, 'eth1 read handler called %d times after the port went away' % calls)


def ck_bridge_down(r, lab):
    check(sends(r, 'eth1') == 1 and r.count('No actual device need detected, skip dhcp detect!') == 1,
          'probed after the bridge went down')


def ck_tmp(how):
    def ck(r, lab):
        if how == 'blocks':     # files can be made but stay empty: no host learned
            check(r.raw == '' and r.count('Failed to get fdb table!') == 1 and not sends(r, 'eth0'), 'blocks')
        else:                   # no file at all: the database comes by ioctl, eth0 answers
            check(r.raw is None and r.count('Success parse dhcp discovery packet in dev=eth0') == 1, 'inodes')
    return ck


def stamp(line):
    return float(next(t for t in line.split() if re.fullmatch(r'\d+\.\d+', t)))


def ck_term(sent_before, copies, last=None):
    """The stop: no frame sent after the injected signal (sent_before went out
    before it), no copy of the database started after it (copies in all), and
    nothing done after the moment it came (last: the line before the end line)."""
    def ck(r, lab):
        check(last is None or r.count(last, len(r.msgs) - 2, len(r.msgs) - 1), 'went on after the signal to %r' % r.msgs[-2:])
        # The forked child's lines: prefixed with its PID under strace -f.
        lines = [l for l in ((r.read('strace-child.txt') or '') + (r.read('stdout.txt') or '')).splitlines()
                 if re.match(r'\d+\.\d+ ', l) or l.startswith('%d ' % r.status['child_pid'])]
        at = next((i for i, l in enumerate(lines) if '--- SIGTERM' in l and 'SI_KERNEL' in l), None)
        check(at is not None, 'no SIGTERM injected')
        sent = lambda part: sum(1 for l in part if re.search(r'sendto\(.*= (60|410)$', l))
        check(sent(lines[:at + 1]) == sent_before and sent(lines[at + 1:]) == 0,
              'frames %d before and %d after the signal' % (sent(lines[:at + 1]), sent(lines[at + 1:])))
        check(sum(1 for l in lines if re.search(r'\s(clone3?|vfork)\(', l)) == copies, 'database copies started')
        end = next(l for l in reversed(lines) if 'exit_group' in l)
        lab.figures.append('stopped %.1f ms after the signal (under strace)' % ((stamp(end) - stamp(lines[at])) * 1000))
    return ck


def ck_term_vm(r, lab):
    check(r.status.get('term') and r.count('Send Arp packet success for: *') == 3 and
          fnmatch.fnmatchcase(r.msgs[-2], 'Send Arp packet success for: *eth2') and not r.count('Trying to recv Arp packet*')
          and not r.count('Ready to send DHCP Discovery packet*'), 'went on after the signal: %r' % r.msgs[-3:])


def ck_term_write(r, lab):
    check('SI_KERNEL' in (r.read('strace-child.txt') or ''), 'no SIGTERM injected')
    check(r.msgs[-2].startswith('Detection over'), 'the write was not followed by its end: %r' % r.msgs[-3:])


def ck_hostile(r, lab):
    # Each DISCOVER is answered at once, long before udhcpd's OFFER (its ARP
    # check takes 2 s), by 3 x 8 decoys with its xid: 3 x 2 from br-lan's MAC,
    # 3 x 6 not a BOOTREPLY to port 68 with the cookie.  The random flood adds
    # frames of other clients and garbage, none from br-lan with our xid.
    n = sends(r, 'eth0')
    own, bad = r.count('Detecing dhcp offer from own mac:*'), r.count('read from socket parse error, try again! dev=eth0')
    check(n == 1 and own == 6 * n and bad >= 18 * n and r.count('Not match: *') > 0 and lab.flood_stats['answers'] == 24 * n,
          'decoys refused: %d from br-lan, %d unparsable, for %d DISCOVERs' % (own, bad, n))
    lab.figures.append('%d crafted frames refused, %d sent' % (own + bad + r.count('Not match: *'), lab.flood_stats['sent']))


def ck_valgrind(r, lab):
    logs = {}
    for name in os.listdir(lab.vg):
        text = open(os.path.join(lab.vg, name), errors='replace').read()
        logs[int(name.split('.')[1])] = (int(re.search(r'Parent PID: (\d+)', text).group(1)), text)
    parent = [p for p, (pp, _) in logs.items() if pp not in logs]
    check(len(parent) == 1, 'daemon processes under valgrind: %r' % list(logs))
    child = [p for p, (pp, t) in logs.items() if pp == parent[0] and 'ERROR SUMMARY' in t]
    check(len(child) == 1, 'no forked child under valgrind')
    for pid in parent + child:
        text = logs[pid][1]
        lost = sum(int(b.replace(',', '')) for b in re.findall(r'(?:definitely|indirectly|possibly) lost: ([\d,]+)', text))
        fds = [m for m in re.finditer(r'Open file descriptor (\d+):.*\n((?:==\d+==  +\S.*\n)*)', text)
               if int(m.group(1)) > 2 and 'inherited from parent' not in m.group(2) and 'log_init' not in m.group(2)]
        check('ERROR SUMMARY: 0 errors' in text and not lost and not fds,
              'valgrind (pid %d): %s, %d bytes lost, %d descriptors left' % (pid, re.search(r'ERROR SUMMARY: .*', text).group(0), lost, len(fds)))
        lab.figures.append('pid %d: 0 errors, 0 bytes lost, no descriptor left, %s' % (pid, re.search(r'total heap usage: .*', text).group(0)))


def edit_switch(data):
    def edit(d):
        p = os.path.join(d, 'switch')
        os.remove(p)
        if data is not None:
            open(p, 'wb').write(data)
    return edit


def strace(call, when=1):
    # Only the forked child makes these calls, so the parent is never hit.
    return {'strace': '-ttt -e trace=%s,sendto,clone,clone3,vfork,exit_group -e inject=%s:signal=TERM:when=%d'
                      % (call, call, when)}


ROWS = {
    'default': dict(layout=DEFAULT, vm=BOTH, args=['-d', '7', '-v', 'eth9'], result=FOUR, end='deadline', check=ck_default,
                    lines=["Device:eth9 doesn't existed in network.lan! Detect in all lans in default!"]),
    'v_silent': dict(layout=DEFAULT, args=['-d', '7', '-v', 'eth4', '-t', '1000'], result=[], end='deadline',
                     check=ck_v_silent),
    'v_server': dict(layout=DEFAULT, vm=ARM, args=['-d', '7', '-v', 'eth1'], result=['eth1'], end='answered',
                     check=lambda r, lab: first_poll(r) or check(sends(r, 'eth1') == 1, 'sends')),
    'servers': dict(layout=['eth0=dnsmasq', 'eth1=udhcpd', 'eth2=dhcpd', 'eth3=kea', 'eth5=empty'], args=['-d', '7'],
                    result=FOUR, end='answered', check=lambda r, lab: first_poll(r)),
    'parser': dict(vm=BOTH, layout=['eth0=responder:two-routers', 'eth1=responder:pad-first', 'eth2=responder:wrong-xid',
                           'eth3=responder:own-mac'], args=['-d', '7'], end='answered', check=ck_parser,
                   result=['eth0:nogw', 'eth1:nogw:nodns', 'eth2', 'eth3']),
    'late': dict(layout=['eth0=responder:late'], args=['-d', '7', '-t', '1000'], result=['eth0'], end='answered',
                 console='Success set lanprobe timeout to 1000ms!', check=ck_late),
    'owner': dict(vm=ARM, layout=['eth0=owner', 'eth1=dnsmasq'], args=['-d', '7'], result=['eth0:owner', 'eth1'],
                  end='answered', check=ck_owner),
    'arp_short': dict(layout=['eth0=responder:arp-short', 'eth1=empty'], args=['-d', '7'], result=['eth0'],
                      end='answered', check=ck_arp_short),
    'no_switch': dict(layout=['--no-switch'] + SILENT, args=[], result='placeholder', check=ck_no_switch),
    'no_members': dict(vm=ARM, layout=['--detached'] + SILENT, args=['-d', '7'], console_log=True, result=[], end='answered',
                       check=ck_no_members),
    'help': dict(layout=['eth0=empty'], args=['-d', '0', '-t', '0', '-h'], end='refused', check=ck_help),
    'port_deleted': dict(layout=SILENT, args=['-d', '7', '-t', '3000'], during=('eth1', 'ip link del eth1'),
                         result=['eth0'], end='answered', check=ck_port_gone),
    'bridge_down': dict(layout=SILENT, args=['-d', '7', '-t', '2000'], during=('eth1', 'ip link set br-lan down'),
                        result=['eth0'], end='answered', check=ck_bridge_down),
    # A time-out past the deadline: the first pass waits for the killed server until the end.
    'server_killed': dict(layout=['eth0=dnsmasq', 'eth1=udhcpd'], args=['-d', '7', '-t', '20000'],
                          during=('eth1', 'kill udhcpd-eth1'), result=['eth0'], end='deadline',
                          console='Success set lanprobe timeout to 20000ms!', check=lambda r, lab: check(passes(r) == 1, 'passes')),
    'no_ipv4': dict(layout=ANSWER, args=['-d', '7'], before='ip addr flush dev br-lan', result=['eth0'], end='answered',
                    lines=['invalid parameters! Send failed!', 'find_target_ip_and_device_with_arp failed, return null!']),
    'switch_broken': dict(layout=ANSWER, args=['-d', '7'], config=edit_switch(b"config switch_port\n\toption port '1\n"),
                          result='placeholder', lines=['Unable to load uci switch!']),
    'switch_missing': dict(layout=ANSWER, args=['-d', '7'], config=edit_switch(None), result='placeholder',
                           check=lambda r, lab: check(r.msgs[-2] == 'init_all_eth_device failed!', 'not ended by the raise')),
    'switch_lists': dict(layout=ANSWER, args=['-d', '7'], end='answered', result=['eth0:label=' + 'L' * 31],
                         config=edit_switch(b"config switch_port\n\tlist port '1'\n\toption ifname 'eth0'\n\n"
                                            b"config switch_port\n\toption port '2'\n\toption ifname 'eth0'\n"
                                            b"\toption label '" + b'L' * 300 + b"'\n")),
    'tmp_blocks': dict(layout=ANSWER, args=['-d', '7'], tmp_full='blocks', console_log=True, end='answered',
                       result='any', check=ck_tmp('blocks')),
    'tmp_inodes': dict(layout=ANSWER, args=['-d', '7'], tmp_full='inodes', console_log=True, end='answered',
                       result='any', check=ck_tmp('inodes')),
    # SIGTERM from outside, delivered by strace on entering a chosen call of the daemon's child.
    'term_discovery': dict(layout=TERM, args=['-d', '7'], result='placeholder', **strace('getdents64'),
                           check=ck_term(0, 0, 'Parse network devices atrribute success, count:3')),
    'term_arp_wait': dict(layout=TERM, args=['-d', '7'], result='placeholder', **strace('pselect6'),
                          check=ck_term(0, 0, 'Entering function: send_arp_unicast_packet_blocked!')),
    'term_arp_pause': dict(layout=TERM, args=['-d', '7'], result='placeholder', check=ck_term(3, 0, 'Send Arp packet success for: *eth2'),
                           **strace('poll')),
    # The copy's shell waits too: only the daemon's child is traced here.
    'term_copy': dict(layout=TERM, args=['-d', '7'], result='placeholder',
                      check=ck_term(6, 1, 'Entering function: br_get_fdb!'),
                      strace_child='-ttt -e trace=wait4,sendto,clone,clone3,vfork,exit_group '
                                   '-e inject=wait4:signal=TERM:when=1'),
    'term_send': dict(layout=TERM, args=['-d', '7'], result='placeholder', check=ck_term(7, 2, 'Get device:eth1 , index=*'),
                      **strace('sendto', 7)),
    'term_waiting': dict(layout=TERM, args=['-d', '7'], result='placeholder', check=ck_term(8, 2),
                         **strace('epoll_wait')),
    'term_write': dict(layout=TERM, args=['-d', '7'], result=['eth0', 'eth1'], check=ck_term_write,
                       strace_child='-P /tmp/lanprobe_result -e trace=openat -e inject=openat:signal=TERM:when=1'),
    # The virtual router's SIGTERM: from its runner, when the forked child
    # first sleeps in poll, the pause after the first three ARP sends.
    'term_arp_vm': dict(layout=TERM, args=['-d', '7'], result='placeholder', host=False, vm=BOTH, term_in='poll',
                        check=ck_term_vm),
    'hostile': dict(layout=['eth0=udhcpd', 'eth1=empty'], args=['-d', '7'], flood='eth0', result=['eth0'],
                    end='answered', check=ck_hostile),
    'valgrind': dict(layout=ANSWER, args=['-d', '7'], valgrind=True, result=['eth0'], end='answered', check=ck_valgrind),
    # survey=(arguments, exit status, ports): lanprobe-survey's whole document.
    'survey_router': dict(layout=DEFAULT, survey=(['-w', '4000'], 2, lambda: [
        sv_port(0, [sv_lab(0, 43200)], 'CRITICAL'), sv_port(1, [sv_lab(1, 600)], 'CRITICAL', discovers=2),
        sv_port(2, [sv_lab(2, 600)], 'CRITICAL'), sv_port(3, [sv_lab(3, 600)], 'CRITICAL'),
        sv_port(4), sv_port(5), sv_port('wlan0')])),
    'survey_switch': dict(layout=['eth0=switch2', 'eth1=silent'], survey=(['-w', '2000', '-a', '02:1a:00:00:02:00'], 2, lambda: [
        sv_port(0, [sv_offer('02:1a:00:00:02:00', '192.168.1.50', sv_pool(0), '192.168.1.10', '10.53.0.10', 43200, 'expected'),
                    sv_offer('02:1a:00:00:03:00', '192.168.1.60', sv_pool(0), '192.168.1.10', '10.53.0.10', 600)], 'CRITICAL'),
        sv_port(1)])),
    # Allowlisted by server address; the modem's public offer alone is a warning.
    'survey_public': dict(layout=['eth0=public', 'eth1=dnsmasq', 'eth2=empty'], survey=(['-w', '2000', '-a', '192.168.1.11'], 1, lambda: [
        sv_port(0, [sv_offer('02:1a:00:00:01:00', '203.0.113.1', lambda a: a in ['203.0.113.%d' % i for i in range(100, 120)],
                             '203.0.113.1', '203.0.113.53', 3600, net='wan')], 'WARNING', hint='wan'),
        sv_port(1, [sv_lab(1, 43200, 'expected')]), sv_port(2)])),
    # The server is allowlisted: the claim on the router's address alone is critical.
    'survey_owner': dict(layout=['eth0=owner', 'eth1=empty'], survey=(['-w', '2000', '-a', '02:1a:00:00:01:00'], 2, lambda: [
        sv_port(0, [sv_offer('02:1a:00:00:01:00', '192.168.1.1', sv_pool(0), '192.168.1.1', '10.53.0.10', 43200, 'expected')],
                'CRITICAL', claims=['02:1a:00:00:01:00']),
        sv_port(1)])),
    # The daemon's pass and the survey at once: each gets the result it gets alone.
    'survey_with_daemon': dict(layout=['eth0=dnsmasq', 'eth1=dhcpd', 'eth2=silent'], args=['-d', '7'], result=['eth0', 'eth1'],
                               end='deadline', survey=(['-w', '8000'], 2, lambda: [
                                   sv_port(0, [sv_lab(0, 43200)], 'CRITICAL'), sv_port(1, [sv_lab(1, 600)], 'CRITICAL'),
                                   sv_port(2)])),
}


def sv_pool(n):
    lo = 100 + 20 * n if n < 7 else 140 + n
    return lambda a: a in ['192.168.1.%d' % i for i in range(lo, lo + (20 if n < 7 else 1))]


def sv_offer(mac, sid, offered, router, dns, lease, verdict='rogue', net='lan'):
    return dict(type='OFFER', server_mac=mac, server_id=sid, source_ip=sid, offered=offered, offered_network=net,
                mask='255.255.255.0', routers=[router], dns=[dns], lease_s=lease, domain=None, relay=None,
                ms=lambda v: 0 <= v <= SV_WINDOW[0], malformed=False, verdict=verdict)


def sv_lab(n, lease, verdict='rogue'):
    """What the lab's server behind port n offers (lab.sh's addressing)."""
    ip = '192.168.1.%d' % (10 + n)
    return sv_offer('02:1a:00:00:01:%02x' % n, ip, sv_pool(n), ip, '10.53.0.%d' % (10 + n), lease, verdict)


def sv_port(n, replies=(), status='OK', hint=None, claims=(), discovers=None):
    """A port: one DISCOVER and one ARP probe, repeated once after 1 s when
    nothing answered them; labels LAN(n+1) from the lab's switch file."""
    return dict(name='eth%d' % n if n != 'wlan0' else n, label='LAN%d' % (n + 1) if n != 'wlan0' else '',
                client_mac=lambda m: int(m[:2], 16) & 3 == 2, discovers=discovers or (1 if replies else 2),
                arp_probes=1 if claims else 2, error=None, hint=hint or ('lan' if replies else 'none'), status=status,
                replies=sorted(replies, key=lambda r: r['server_mac']), router_ip_claimed_by=list(claims))


SV_WINDOW = [0]


def same(want, got):
    if callable(want):
        return want(got)
    if isinstance(want, dict):
        return isinstance(got, dict) and want.keys() == got.keys() and all(same(want[k], got[k]) for k in want)
    if isinstance(want, list):
        return isinstance(got, list) and len(want) == len(got) and all(map(same, want, got))
    return want == got


def run_survey_row(name, opts):
    row = ROWS[name]
    args, status, ports = row['survey']
    SV_WINDOW[0] = int(args[args.index('-w') + 1])
    survey = os.path.join(os.path.dirname(opts.bin), 'lanprobe-survey')
    lab, ok = Lab(row, opts), False
    try:
        # A private /etc with the lab's switch file on /etc/config, as the daemon's runner has it.
        cmd = ['bash', LAB, 'exec', lab.state, 'router', 'unshare', '--mount', '--propagation', 'private', 'sh', '-c',
               'mount -t tmpfs lab /etc && mkdir /etc/config && mount --bind "$0" /etc/config && exec "$@"',
               os.path.join(lab.state, 'config'), survey, '-j'] + args
        t = time.monotonic()
        proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if row.get('args'):
            check_daemon_run(lab, row)
        out, err = proc.communicate()
        if not row.get('args'):
            lab.figures.append('survey: %.0f ms for a %d ms window' % ((time.monotonic() - t) * 1000, SV_WINDOW[0]))
        check(proc.returncode == status and err == '', 'survey exit %d, stderr %r' % (proc.returncode, err))
        doc = json.loads(out)
        for p in doc['ports']:
            p['replies'].sort(key=lambda r: r['server_mac'])
        want = dict(bridge='br-lan', window_ms=SV_WINDOW[0], router=dict(mac=BR_MAC.lower(), ip='192.168.1.1',
                    netmask='255.255.255.0'), status=['OK', 'WARNING', 'CRITICAL'][status], ports=ports())
        check(same(want, doc), 'survey document %s' % json.dumps(doc, indent=1))
        ok = True
    finally:
        lab.down(keep=opts.keep and not ok)
    return lab.figures


class Lab:
    def __init__(self, row, opts):
        self.row, self.opts, self.runs, self.figures = row, opts, 0, []
        self.base = tempfile.mkdtemp(prefix='lanprobe-lab.', dir=opts.workdir)
        self.state = os.path.join(self.base, 'state')
        self.vm = opts.target[3:] if opts.target.startswith('vm:') else None
        extra = vmlab.env(row, self.vm, opts.vm_dir) if self.vm else {}
        subprocess.run(['bash', LAB, 'up', self.state] + row['layout'], check=True,
                       env=dict(os.environ, LAB_QUIET='1', **extra))

    def exec(self, name, *cmd, **kw):
        return subprocess.run(['bash', LAB, 'exec', self.state, name] + list(cmd), check=True, **kw)

    def events(self, port):
        with open(os.path.join(self.state, 'hosts', port, 'responder.events')) as f:
            return [json.loads(line) for line in f]

    def action(self, what):
        if what.startswith('kill '):
            pid = next(int(l.split()[0]) for l in open(os.path.join(self.state, 'pids')) if l.split()[1] == what[5:])
            os.kill(pid, signal.SIGKILL)
        else:
            self.exec('router', *what.split())

    def run(self):
        row = self.row
        self.runs += 1
        out = os.path.join(self.base, 'run%d' % self.runs)
        os.makedirs(out)
        if self.vm:     # the VM has run the daemon as it booted
            with open(os.path.join(out, 'status.json'), 'w') as f:
                json.dump(vmlab.collect(self.state, out, row['args']), f)
            return Run(out, row)
        config = os.path.join(self.state, 'config')
        if row.get('config'):
            config = os.path.join(self.base, 'config%d' % self.runs)
            shutil.copytree(os.path.join(self.state, 'config'), config)
            row['config'](config)
        binary = self.opts.bin
        if row.get('valgrind'):
            self.vg = os.path.join(self.base, 'vg%d' % self.runs)
            os.makedirs(self.vg)
            binary = os.path.join(self.base, 'lanprobe-vg')
            with open(binary, 'w') as f:
                f.write('#!/bin/sh\nexec valgrind --leak-check=full --show-leak-kinds=all --track-fds=yes '
                        '--log-file=%s/vg.%%p.log %s "$@"\n' % (self.vg, self.opts.bin))
            os.chmod(binary, 0o755)
        cmd = [PY, os.path.join(HERE, 'faultinit.py'), '--config', config, '--out', out, '--limit', '120']
        for k in ('tmp_full', 'strace', 'strace_child'):
            if row.get(k):
                cmd += ['--' + k.replace('_', '-'), row[k]]
        if row.get('console_log'):
            cmd.append('--console-log')
        if row.get('before'):
            self.exec('router', *row['before'].split())
        watch = flood = None
        if row.get('during'):
            watch = subprocess.Popen(['bash', LAB, 'exec', self.state, 'router', PY, os.path.join(HERE, 'hosts.py'),
                                      'wait', '--port', row['during'][0]], stdout=subprocess.PIPE, text=True)
            check(watch.stdout.readline().strip() == 'ready', 'frame watch did not start')
        if row.get('flood'):
            self.stats = os.path.join(self.base, 'flood%d.json' % self.runs)
            flood = subprocess.Popen(['bash', LAB, 'exec', self.state, row['flood'], PY, os.path.join(HERE, 'hosts.py'),
                                      'flood', '--iface', 'veth0', '--br-mac', BR_MAC, '--stats', self.stats],
                                     stdout=subprocess.PIPE, text=True)
            flood_pid = int(flood.stdout.readline().split()[1])
        runner = subprocess.Popen(['bash', LAB, 'exec', self.state, 'router', 'unshare', '--mount', '--propagation',
                                   'private', '--pid', '--fork', '--mount-proc', '--kill-child'] + cmd + ['--', binary]
                                  + row['args'])
        if watch:
            seen = watch.stdout.readline().strip()
            watch.wait()
            check(seen == 'seen', 'no DISCOVER left %s' % row['during'][0])
            self.action(row['during'][1])
        check(runner.wait() == 0, 'runner failed')
        if flood:
            os.kill(flood_pid, signal.SIGINT)
            flood.wait()
            self.flood_stats = json.load(open(self.stats))
        return Run(out, row)

    def down(self, keep):
        subprocess.run(['bash', LAB, 'down', self.state], check=False)
        if not keep:
            shutil.rmtree(self.base, ignore_errors=True)


def run_row(name, opts):
    """One lab per run: a fault may take the lab apart."""
    row, figures = ROWS[name], []
    for _ in range(opts.runs):
        lab, ok = Lab(row, opts), False
        try:
            check_daemon_run(lab, row)
            ok = True
        finally:
            lab.down(keep=opts.keep and not ok)
        figures += lab.figures
    return figures


def check_daemon_run(lab, row):
    r = lab.run()
    always(r)
    res = row.get('result')
    if res == 'placeholder':
        check(r.raw == 'time 19', 'result %r, expected the placeholder' % r.raw)
    elif isinstance(res, list):
        entries, keys = r.entries()
        check([e['name'] for e in entries] == [s.split(':')[0] for s in res], 'ports in the result: %r' % r.raw)
        for e, k, port in zip(entries, keys, res):
            expect_entry(e, k, port)
    elif res == 'any' and r.raw not in ('time 19', '', None):
        r.entries()
    for line in row.get('lines', []):
        check(r.count(line) >= 1, 'log lacks %r' % line)
    check(row.get('console', '') in r.console, 'console %r' % r.console)
    if row.get('check'):
        row['check'](r, lab)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--bin', default=os.environ.get('LANPROBE', os.path.join(TOP, 'build', 'lanprobe')))
    ap.add_argument('--runs', type=int, default=1)
    ap.add_argument('--keep', action='store_true', help="keep a failed row's lab and outputs")
    ap.add_argument('--workdir', default='/var/tmp')
    ap.add_argument('--list', action='store_true')
    ap.add_argument('--target', default='host', help='host, or vm:aarch64 / vm:mipsel (tests/vm/run.sh)')
    ap.add_argument('--vm-dir', help='the virtual router built by tests/vm/image.sh')
    ap.add_argument('names', nargs='*')
    a = ap.parse_args()
    # A row runs on the host unless it says host=False, on a virtual router
    # where its vm names that CPU.
    rows = [n for n, r in ROWS.items()
            if (a.target == 'host' and r.get('host', True)) or a.target[3:] in r.get('vm', ())]
    if a.list:
        print(';'.join(rows))
        return 0
    a.bin = os.path.abspath(a.bin)
    for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(s, lambda *_: sys.exit(130))
    failed = 0
    for name in a.names or rows:
        t = time.monotonic()
        try:
            figures = (run_survey_row if 'survey' in ROWS[name] else run_row)(name, a)
            print('PASS %s (%.1f s)%s' % (name, time.monotonic() - t, ''.join('\n     ' + f for f in figures)))
        except (Failure, subprocess.CalledProcessError, OSError, KeyError, ValueError, TypeError) as e:
            failed += 1
            print('FAIL %s: %s' % (name, e))
        sys.stdout.flush()
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
