#!/usr/bin/python3
"""Crafted hosts for the lab, on raw packet sockets.

respond: behind a lab port, answers each DISCOVER with OFFERs built byte by
  byte (--mode plain, two-routers, pad-first, wrong-xid, own-mac, late: the
  first ignored, arp-short: like plain, and every ARP request answered with a
  reply cut to 28 bytes); every DISCOVER and ARP request seen (with its frame)
  and every frame sent goes to --events as a JSON line.
flood: a hostile host; floods the port with DHCP replies that must all be
  refused, and answers each DISCOVER with decoys carrying its xid.  Prints
  "ready PID"; on SIGINT writes its counters to --stats.
wait: in the router, prints "ready", then "seen" once a DHCP request has left
  --port (or "none" after 20 s).
"""
import argparse
import json
import os
import random
import select
import signal
import socket
import struct
import sys
import time

COOKIE = b'\x63\x82\x53\x63'
OUTGOING = 4


def raw(iface):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
    s.bind((iface, 0))
    return s


def is_discover(f, addr):
    return (addr[2] != OUTGOING and len(f) >= 282 and f[12:14] == b'\x08\x00' and f[23] == 17
            and f[36:38] == b'\x00\x43' and f[42] == 1 and f[278:282] == COOKIE)


def dhcp_frame(src, dst, xid, yiaddr, server, options, op=2, cookie=COOKIE, dport=68, proto=17, pad=0):
    bootp = struct.pack('!BBBB4sHH4s4s4s4s16s64s128s', op, 1, 6, 0, xid, 0, 0, bytes(4), yiaddr, server,
                        bytes(4), dst + bytes(10), bytes(64), bytes(128)) + cookie + options
    bootp += bytes(max(0, 300 - len(bootp)) + pad)
    udp = struct.pack('!HHHH', 67, dport, 8 + len(bootp), 0) + bootp
    ip = struct.pack('!BBHHHBBH4s4s', 0x45, 0, 20 + len(udp), 0, 0, 64, proto, 0, server, b'\xff' * 4)
    return b'\xff' * 6 + src + b'\x08\x00' + ip + udp


def opt(code, value):
    return bytes([code, len(value)]) + value


def respond(a):
    s, aton = raw(a.iface), socket.inet_aton
    me, br = s.getsockname()[4][:6], bytes.fromhex(a.br_mac.replace(':', ''))
    events = open(a.events, 'a', buffering=1)
    common = (opt(53, b'\x02') + opt(54, aton(a.ip)) + opt(51, struct.pack('!I', 600))
              + opt(1, aton('255.255.255.0')))
    good = common + opt(3, aton(a.ip)) + opt(6, aton(a.dns) + aton('10.53.1.1')) + b'\xff'
    answers = {'two-routers': [('offer', me, 0, common + opt(3, aton(a.ip) + aton('192.168.1.254'))
                                + opt(6, aton(a.dns)) + b'\xff')],
               'pad-first': [('offer', me, 0, b'\x00' + good)],
               'wrong-xid': [('offer-wrong-xid', me, 0xff, good), ('offer', me, 0, good)],
               'own-mac': [('offer-own-mac', br, 0, good), ('offer', me, 0, good)]}
    seen = 0
    open(a.ready, 'w').close()
    while True:
        f, addr = s.recvfrom(4096)
        if a.mode == 'arp-short' and addr[2] != OUTGOING and f[12:14] == b'\x08\x06' and f[20:22] == b'\x00\x01':
            events.write(json.dumps({'event': 'arp-request', 'frame': f.hex()}) + '\n')
            s.send(f[6:12] + me + b'\x08\x06' + f[14:20] + b'\x00\x02' + me)   # 28 bytes: no sender address
            continue
        if not is_discover(f, addr):
            continue
        seen += 1
        xid, chaddr = f[46:50], f[70:76]
        events.write(json.dumps({'event': 'discover', 'xid': xid.hex(), 'chaddr': chaddr.hex(),
                                 'frame': f.hex()}) + '\n')
        if a.mode == 'late' and seen == 1:
            continue
        for kind, src, flip, options in answers.get(a.mode, [('offer', me, 0, good)]):
            x = bytes(b ^ flip for b in xid)
            s.send(dhcp_frame(src, chaddr, x, aton(a.pool), aton(a.ip), options))
            events.write(json.dumps({'event': kind, 'xid': x.hex()}) + '\n')
            time.sleep(0.05)                       # keep the order on the wire


def flood(a):
    s = raw(a.iface)
    me, br = s.getsockname()[4][:6], bytes.fromhex(a.br_mac.replace(':', ''))
    rng, bad, gw = random.Random(), socket.inet_aton('10.66.66.66'), socket.inet_aton('10.66.66.1')
    stats = {'sent': 0, 'answers': 0}

    def done(*_):
        json.dump(stats, open(a.stats, 'w'))
        os._exit(0)

    def frame(src, dst, xid, **kw):
        return dhcp_frame(src, dst, xid, bad, gw, opt(53, b'\x02') + opt(3, gw) + opt(6, gw) + b'\xff', **kw)

    def send(frames, answers=False):
        for f in frames:
            try:
                s.send(f)
                stats['sent'] += 1
                stats['answers'] += answers
            except OSError:
                pass

    signal.signal(signal.SIGINT, done)
    print('ready %d' % os.getpid(), flush=True)
    while True:
        if select.select([s], [], [], 0.0005)[0]:
            f, addr = s.recvfrom(4096)
            if is_discover(f, addr):        # decoys with its xid, each refused for its own reason
                x, ch = f[46:50], f[70:76]
                send([frame(me, ch, x, cookie=b'\x63\x82\x53\x64'), frame(me, ch, x, op=1), frame(me, ch, x, dport=67),
                      frame(me, ch, x, proto=6), frame(me, ch, x)[:281], frame(me, ch, x)[:200], frame(br, ch, x),
                      frame(br, ch, x, pad=1100)] * 3, True)
            continue
        x, dst = rng.randbytes(4), rng.randbytes(6)
        send([rng.choice([frame(me, dst, x), frame(me, dst, x, pad=1100), frame(me, dst, x)[:rng.randrange(14, 282)],
                          frame(br, dst, x), frame(me, dst, x, cookie=rng.randbytes(4)), rng.randbytes(rng.randrange(1, 1500))])])


def wait(a):
    s = raw(a.port)
    print('ready', flush=True)
    end = time.monotonic() + 20
    while select.select([s], [], [], max(0.0, end - time.monotonic()))[0]:
        f, addr = s.recvfrom(2048)
        if addr[2] == OUTGOING and len(f) >= 42 and f[12:14] == b'\x08\x00' and f[36:38] == b'\x00\x43':
            print('seen', flush=True)
            return 0
    print('none', flush=True)
    return 1


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('what', choices=['respond', 'flood', 'wait'])
    for o in ('--iface', '--mode', '--ip', '--pool', '--dns', '--br-mac', '--events', '--ready', '--stats', '--port'):
        ap.add_argument(o)
    a = ap.parse_args()
    return {'respond': respond, 'flood': flood, 'wait': wait}[a.what](a)


if __name__ == '__main__':
    sys.exit(main())
