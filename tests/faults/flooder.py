#!/usr/bin/python3
"""A hostile host behind a lab port.  It floods the port with DHCP replies
that must all be refused: random transaction IDs, a wrong magic cookie, a
BOOTREQUEST op, the wrong UDP port, a TCP protocol byte, frames cut short
before the cookie, frames far longer than the probe's receive buffer.  Each
DISCOVER it sees is answered at once with a burst of such frames carrying the
DISCOVER's own transaction ID, plus well-formed OFFERs that claim to come from
br-lan's own MAC address, so that they reach the probe's socket ahead of the
real server's answer.  Every false OFFER offers 10.66.66.66 with router and
DNS 10.66.66.1: none of it may show up in a result.

Prints "ready PID" once it listens; on SIGINT or SIGTERM writes its counters to
--stats as JSON and exits."""
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

ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4
COOKIE = b'\x63\x82\x53\x63'
FALSE_IP = socket.inet_aton('10.66.66.66')
FALSE_GW = socket.inet_aton('10.66.66.1')


def checksum(data):
    if len(data) % 2:
        data += b'\0'
    s = sum(struct.unpack('!%dH' % (len(data) // 2), data))
    while s >> 16:
        s = (s & 0xffff) + (s >> 16)
    return ~s & 0xffff


def frame(src, dst, xid, op=2, cookie=COOKIE, dport=68, proto=17, pad=0, cut=None):
    options = (bytes([53, 1, 2, 54, 4]) + FALSE_GW + bytes([3, 4]) + FALSE_GW + bytes([6, 4]) + FALSE_GW
               + b'\xff')
    bootp = struct.pack('!BBBB4sHH4s4s4s4s16s64s128s', op, 1, 6, 0, xid, 0, 0, bytes(4), FALSE_IP,
                        FALSE_GW, bytes(4), dst + bytes(10), bytes(64), bytes(128)) + cookie + options
    bootp += bytes(max(0, 300 - len(bootp)) + pad)
    udp = struct.pack('!HHHH', 67, dport, 8 + len(bootp), 0) + bootp
    ip = struct.pack('!BBHHHBBH4s4s', 0x45, 0, 20 + len(udp), 0, 0, 64, proto, 0, FALSE_GW,
                     b'\xff' * 4)
    ip = ip[:10] + struct.pack('!H', checksum(ip)) + ip[12:]
    f = b'\xff' * 6 + src + b'\x08\x00' + ip + udp
    return f if cut is None else f[:cut]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--iface', required=True)
    ap.add_argument('--br-mac', required=True)
    ap.add_argument('--stats', required=True)
    ap.add_argument('--interval', type=float, default=0.0005, help='seconds between junk frames')
    a = ap.parse_args()
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.bind((a.iface, 0))
    me = s.getsockname()[4][:6]
    br = bytes.fromhex(a.br_mac.replace(':', ''))
    rng = random.Random()
    stats = {'sent': 0, 'discovers': 0, 'answers': 0}

    def done(*_):
        with open(a.stats, 'w') as f:
            json.dump(stats, f)
        os._exit(0)

    signal.signal(signal.SIGINT, done)
    signal.signal(signal.SIGTERM, done)

    def send(f):
        try:
            s.send(f)
            stats['sent'] += 1
        except OSError:
            pass

    def junk():
        xid = rng.randbytes(4)
        dst = rng.randbytes(6)
        kind = rng.randrange(6)
        if kind == 0:
            return frame(me, dst, xid)                                   # another client's xid
        if kind == 1:
            return frame(me, dst, xid, pad=1200)                         # longer than 1024 bytes
        if kind == 2:
            return frame(me, dst, xid, cut=rng.randrange(14, 282))       # cut anywhere
        if kind == 3:
            return frame(br, dst, xid)                                   # from br-lan's MAC
        if kind == 4:
            return frame(me, dst, xid, cookie=rng.randbytes(4))
        return rng.randbytes(rng.randrange(1, 1500))                    # noise

    def decoys(xid, chaddr):
        fs = [frame(me, chaddr, xid, cookie=b'\x63\x82\x53\x64'),       # cookie off by one
              frame(me, chaddr, xid, op=1),                             # a request, not a reply
              frame(me, chaddr, xid, dport=67),                         # to the server port
              frame(me, chaddr, xid, proto=6),                          # not UDP
              frame(me, chaddr, xid, cut=281),                          # cut inside the cookie
              frame(me, chaddr, xid, cut=200),                          # cut before the cookie
              frame(br, chaddr, xid),                                   # from br-lan's own MAC
              frame(br, chaddr, xid, pad=1200)]                         # the same, oversized
        return fs * 3

    print('ready %d' % os.getpid(), flush=True)
    next_junk = time.monotonic()
    while True:
        wait = max(0.0, next_junk - time.monotonic())
        if select.select([s], [], [], wait)[0]:
            f, addr = s.recvfrom(4096)
            if (addr[2] != PACKET_OUTGOING and len(f) >= 282 and f[12:14] == b'\x08\x00'
                    and f[23] == 17 and f[36:38] == b'\x00\x43' and f[42] == 1 and f[278:282] == COOKIE):
                stats['discovers'] += 1
                for d in decoys(f[46:50], f[70:76]):
                    send(d)
                    stats['answers'] += 1
            continue
        send(junk())
        next_junk = time.monotonic() + a.interval


if __name__ == '__main__':
    sys.exit(main())
