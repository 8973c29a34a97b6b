#!/usr/bin/python3
"""A DHCP responder behind one lab port that answers each DISCOVER with
OFFERs crafted byte by byte, to test an OFFER parser through a real wire.

Modes (what is sent for each DISCOVER, always with the DISCOVER's xid unless said):
  plain       one OFFER: message type, server id, lease time, mask, router, DNS
  two-routers one OFFER whose router option lists two routers (length 8)
  pad-first   one OFFER whose options start with a pad byte (0) before router and DNS
  wrong-xid   an OFFER with the xid's bits inverted, then the right one
  own-mac     an OFFER from br-lan's own MAC address, then one from this host
  late        ignores the first DISCOVER, answers later ones like plain
Every OFFER carries the pool's first address as yiaddr, this host's address
as router and --dns as DNS server.  Each DISCOVER seen and each frame sent is
appended to --events as one JSON line.
"""
import argparse
import json
import struct
import sys
import time

from scapy.all import BOOTP, Ether, IP, UDP, conf, get_if_hwaddr, inet_aton, sendp, sniff  # noqa: E402

conf.verb = 0
COOKIE = b'\x63\x82\x53\x63'


def opt(code, value):
    return bytes([code, len(value)]) + value


def offer_frame(a, src_mac, xid, chaddr, options):
    """One OFFER; xid is the raw 4 bytes of the DISCOVER, sent back unchanged."""
    bootp = struct.pack('!BBBB4sHH4s4s4s4s16s64s128s', 2, 1, 6, 0, xid, 0, 0, bytes(4),
                        inet_aton(a.pool), inet_aton(a.ip), bytes(4), chaddr, bytes(64), bytes(128))
    msg = bootp + COOKIE + options
    msg += bytes(max(0, 300 - len(msg)))           # servers pad to the BOOTP minimum
    return (Ether(src=src_mac, dst=':'.join('%02x' % b for b in chaddr[:6])) /
            IP(src=a.ip, dst=a.pool, ttl=64) / UDP(sport=67, dport=68) / msg)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--iface', required=True)
    ap.add_argument('--mode', required=True,
                    choices=['plain', 'two-routers', 'pad-first', 'wrong-xid', 'own-mac', 'late'])
    ap.add_argument('--ip', required=True, help="this host's address (server id, router)")
    ap.add_argument('--pool', required=True, help='the address offered')
    ap.add_argument('--dns', required=True)
    ap.add_argument('--br-mac', required=True, help="br-lan's MAC, for own-mac")
    ap.add_argument('--events', required=True)
    ap.add_argument('--ready', required=True)
    a = ap.parse_args()
    my_mac = get_if_hwaddr(a.iface)
    events = open(a.events, 'a', buffering=1)
    seen = [0]

    def note(**kw):
        events.write(json.dumps(dict(kw, t=round(time.time(), 3))) + '\n')

    common = (opt(53, b'\x02') + opt(54, inet_aton(a.ip)) + opt(51, struct.pack('!I', 600)) +
              opt(1, inet_aton('255.255.255.0')))
    router = opt(3, inet_aton(a.ip))
    dns = opt(6, inet_aton(a.dns) + inet_aton('10.53.1.1'))   # two servers: the first one counts
    end = b'\xff'

    def on_packet(p):
        raw = bytes(p[UDP].payload)
        if len(raw) < 240 or raw[0] != 1 or raw[236:240] != COOKIE:
            return                                # not a BOOTREQUEST
        xid, chaddr = raw[4:8], raw[28:44]
        seen[0] += 1
        note(event='discover', n=seen[0], xid=xid.hex(), chaddr=chaddr[:6].hex(), src=p[Ether].src)
        frames = []
        if a.mode in ('plain', 'late'):
            if a.mode == 'late' and seen[0] == 1:
                note(event='ignored', xid=xid.hex())
                return
            frames.append(('offer', my_mac, xid, common + router + dns + end))
        elif a.mode == 'two-routers':
            frames.append(('offer', my_mac, xid,
                           common + opt(3, inet_aton(a.ip) + inet_aton('192.168.1.254')) + dns + end))
        elif a.mode == 'pad-first':
            frames.append(('offer', my_mac, xid, b'\x00' + common + router + dns + end))
        elif a.mode == 'wrong-xid':
            wrong = bytes(b ^ 0xFF for b in xid)
            frames.append(('offer-wrong-xid', my_mac, wrong, common + router + dns + end))
            frames.append(('offer', my_mac, xid, common + router + dns + end))
        elif a.mode == 'own-mac':
            frames.append(('offer-own-mac', a.br_mac, xid, common + router + dns + end))
            frames.append(('offer', my_mac, xid, common + router + dns + end))
        for kind, src, x, options in frames:
            sendp(offer_frame(a, src, x, chaddr, options), iface=a.iface)
            note(event=kind, xid=x.hex(), src=src)
            time.sleep(0.05)                      # keep the order on the wire

    def started():
        open(a.ready, 'w').close()

    sniff(iface=a.iface, filter='udp and dst port 67', prn=on_packet, store=False,
          started_callback=started)
    return 0


if __name__ == '__main__':
    sys.exit(main())
