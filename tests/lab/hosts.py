#!/usr/bin/python3
"""Crafted hosts for the lab, on raw packet sockets.

  hosts.py respond --iface IF --mode MODE --ip A --pool A --dns A --br-mac M --events F --ready F
      Behind a lab port: answers each DISCOVER with OFFERs built byte by byte.
      plain        message type, server id, lease time, mask, router, DNS (two servers)
      two-routers  the router option lists two routers (length 8)
      pad-first    the options start with a pad byte
      wrong-xid    an OFFER with the xid's bits inverted, then the right one
      own-mac      an OFFER from br-lan's own MAC address, then one from this host
      late         the first DISCOVER is ignored, later ones answered like plain
      arp-short    like plain, and every ARP request is answered with a reply cut
                   to 28 bytes (its sender address missing) from this host
      Each DISCOVER and ARP request seen (with its whole frame) and each frame
      sent is appended to --events as one JSON line.
  hosts.py flood --iface IF --br-mac M --stats F
      A hostile host: floods the port with DHCP replies that must all be
      refused, and answers each DISCOVER with decoys carrying its xid (wrong
      cookie, a request, port 67, TCP, cut frames, br-lan's MAC, oversized).
      Prints "ready PID"; on SIGINT writes its counters to --stats.
  hosts.py wait --port IF
      In the router: prints "ready", then "seen" once a DHCP request has left IF
      (or "none" after 20 s).
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
    opts = opt(53, b'\x02') + opt(3, gw) + opt(6, gw) + b'\xff'
    stats = {'sent': 0, 'discovers': 0, 'answers': 0}

    def done(*_):
        with open(a.stats, 'w') as f:
            json.dump(stats, f)
        os._exit(0)

    signal.signal(signal.SIGINT, done)

    def send(f):
        try:
            s.send(f)
            stats['sent'] += 1
        except OSError:
            pass

    def frame(src, dst, xid, **kw):
        return dhcp_frame(src, dst, xid, bad, gw, opts, **kw)

    print('ready %d' % os.getpid(), flush=True)
    next_junk = time.monotonic()
    while True:
        if select.select([s], [], [], max(0.0, next_junk - time.monotonic()))[0]:
            f, addr = s.recvfrom(4096)
            if is_discover(f, addr):
                stats['discovers'] += 1
                xid, ch = f[46:50], f[70:76]
                decoys = [frame(me, ch, xid, cookie=b'\x63\x82\x53\x64'), frame(me, ch, xid, op=1),
                          frame(me, ch, xid, dport=67), frame(me, ch, xid, proto=6),
                          frame(me, ch, xid)[:281], frame(me, ch, xid)[:200], frame(br, ch, xid),
                          frame(br, ch, xid, pad=1200)]
                for d in decoys * 3:
                    send(d)
                    stats['answers'] += 1
            continue
        xid, dst = rng.randbytes(4), rng.randbytes(6)
        send(rng.choice([frame(me, dst, xid), frame(me, dst, xid, pad=1200),
                         frame(me, dst, xid)[:rng.randrange(14, 282)], frame(br, dst, xid),
                         frame(me, dst, xid, cookie=rng.randbytes(4)), rng.randbytes(rng.randrange(1, 1500))]))
        next_junk = time.monotonic() + 0.0005


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
