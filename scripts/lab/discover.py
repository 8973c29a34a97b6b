#!/usr/bin/python3
"""Sends one DHCP DISCOVER out of each given port, the way lanprobe does, and
reports the first OFFER that comes back for it.

The DISCOVER is a broadcast from 0.0.0.0:68 with a made-up, locally
administered client MAC and the broadcast flag clear, asking for router,
subnet mask and DNS server.  Prints one JSON object per port:
  {"port", "xid", "offered": bool, "mac", "yiaddr", "router", "dns", "delay_ms"}
delay_ms is the time between the DISCOVER and the OFFER as captured on the port.
Runs in the router's network namespace.
"""
import argparse
import json
import random
import sys
import time

from scapy.all import AsyncSniffer, BOOTP, DHCP, Ether, IP, UDP, conf, sendp  # noqa: E402

conf.verb = 0


def discover(port, wait):
    xid = random.getrandbits(32)
    mac = bytes([(xid & 0xFC) | 0x02] + [(xid >> s) & 0xFF for s in (4, 8, 12, 16, 20)])
    mac_text = ':'.join('%02x' % b for b in mac)
    frame = (Ether(src=mac_text, dst='ff:ff:ff:ff:ff:ff') /
             IP(src='0.0.0.0', dst='255.255.255.255', id=54321, ttl=64) /
             UDP(sport=68, dport=67, chksum=0) /
             BOOTP(op=1, xid=xid, chaddr=mac + bytes(10), flags=0) /
             DHCP(options=[('message-type', 'discover'), ('param_req_list', [3, 1, 6]), 'end']))
    seen = []
    sniffer = AsyncSniffer(iface=port, filter='udp and (port 67 or port 68)', store=False,
                           prn=seen.append)
    sniffer.start()
    time.sleep(0.2)                      # the capture must be running before we send
    sendp(frame, iface=port)
    deadline = time.monotonic() + wait
    offer = sent = None
    while time.monotonic() < deadline and offer is None:
        time.sleep(0.05)
        for p in list(seen):
            if BOOTP not in p or p[BOOTP].xid != xid:
                continue
            if p[BOOTP].op == 1 and sent is None:
                sent = p.time
            elif p[BOOTP].op == 2 and offer is None:
                offer = p
    sniffer.stop()
    res = {'port': port, 'xid': '0x%08x' % xid, 'offered': offer is not None}
    if offer is not None:
        opts = {o[0]: o[1:] for o in offer[DHCP].options if isinstance(o, tuple)}
        res.update(mac=offer[Ether].src.upper(), yiaddr=offer[BOOTP].yiaddr,
                   router=list(opts.get('router', [])), dns=list(opts.get('name_server', [])),
                   delay_ms=round((offer.time - sent) * 1000, 1) if sent else None)
    return res


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--wait', type=float, default=5.0, help='seconds to wait for an OFFER per port')
    ap.add_argument('ports', nargs='+')
    a = ap.parse_args()
    for port in a.ports:
        print(json.dumps(discover(port, a.wait)), flush=True)
    return 0


if __name__ == '__main__':
    sys.exit(main())
