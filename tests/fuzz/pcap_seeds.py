#!/usr/bin/python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/<target>/.

Seeds come from the lab captures in tests/fuzz/captures (made with
capture-seeds.sh: OFFERs of dnsmasq, udhcpd, ISC dhcpd and Kea, ARP replies,
br-lan's forwarding database, the lab's configuration files), from
OpenWrt-style configuration files in tests/fuzz/configs, and from a few
frames changed one field at a time.  Each seed is laid out as its target
reads its input (see the comment at the top of each fuzz_<target>.cpp).
Seeds are named seed-*; files found by fuzzing keep libFuzzer's names.
"""
import glob
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CAPTURES = os.path.join(HERE, 'captures')
CONFIGS = os.path.join(HERE, 'configs')
CORPUS = os.path.join(HERE, 'corpus')
BR_MAC = bytes.fromhex('021a00000001')
BR_IP = bytes([192, 168, 1, 1])


def read_pcap(path):
    with open(path, 'rb') as f:
        data = f.read()
    magic = struct.unpack('<I', data[:4])[0]
    endian = '<' if magic in (0xa1b2c3d4, 0xa1b23c4d) else '>'
    pos, frames = 24, []
    while pos + 16 <= len(data):
        _, _, incl, _ = struct.unpack(endian + 'IIII', data[pos:pos + 16])
        frames.append(data[pos + 16:pos + 16 + incl])
        pos += 16 + incl
    return frames


def is_offer(f):
    return len(f) > 282 and f[12:14] == b'\x08\x00' and f[23] == 17 and f[36:38] == b'\x00\x44'


def is_arp_reply(f):
    return len(f) >= 42 and f[12:14] == b'\x08\x06' and f[20:22] == b'\x00\x02'


def framed(frame):
    return struct.pack('>H', len(frame)) + frame


def write(target, name, data):
    d = os.path.join(CORPUS, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, 'seed-' + name), 'wb') as f:
        f.write(data)


def main():
    frames = {}
    for p in sorted(glob.glob(os.path.join(CAPTURES, 'eth*.pcap'))):
        frames[os.path.basename(p)[:-5]] = read_pcap(p)
    offers, replies, seen = [], [], set()
    for port, fs in frames.items():
        for f in fs:
            if f in seen:
                continue
            seen.add(f)
            if is_offer(f):
                offers.append(f)
            elif is_arp_reply(f):
                replies.append(f)
    if not offers or not replies:
        sys.exit('pcap_seeds: the captures hold no OFFER or no ARP reply')

    # ---- dhcp_offer: xid of the context, br-lan's MAC, frames.
    servers = {b'\x00': 'dnsmasq-owner', b'\x01': 'udhcpd', b'\x02': 'dhcpd', b'\x03': 'kea',
               b'\x04': 'dnsmasq'}
    for i, f in enumerate(offers):
        name = servers.get(f[11:12], 'server') + '-%d' % i
        xid = f[46:50]
        write('dhcp_offer', 'lab-' + name, xid + BR_MAC + framed(f))
        # The same OFFER for another client first, then br-lan's own MAC, then
        # the real one; and a truncated copy.
        other = bytearray(f)
        other[46] ^= 0xff
        own = bytearray(f)
        own[6:12] = BR_MAC
        write('dhcp_offer', 'lab-%s-after-others' % name,
              xid + BR_MAC + framed(bytes(other)) + framed(bytes(own)) + framed(f))
        write('dhcp_offer', 'lab-%s-cut' % name, xid + BR_MAC + framed(f[:285]))
    f = offers[0]
    write('dhcp_offer', 'arp-then-offer', f[46:50] + BR_MAC + framed(replies[0]) + framed(f))
    pad = bytearray(f)
    pad[282] = 0
    write('dhcp_offer', 'leading-pad', f[46:50] + BR_MAC + framed(bytes(pad)))
    write('dhcp_offer', 'empty-read', f[46:50] + BR_MAC + framed(b'') + framed(f))

    # ---- arp_check: ports, count byte, frames (attempt bit, port).
    owner = [r for r in replies if r[28:32] == BR_IP]
    others = [r for r in replies if r[28:32] != BR_IP]
    announce = [f for fs in frames.values() for f in fs
                if len(f) >= 42 and f[12:14] == b'\x08\x06' and f[20:22] == b'\x00\x01']
    own = owner[0]
    write('arp_check', 'lab-owner-port0', b'\x03\x00' + b'\x00' + framed(own))
    write('arp_check', 'lab-owner-two-ports', b'\x03\x00' + b'\x00' + framed(own) + b'\x02' + framed(own))
    write('arp_check', 'lab-owner-attempt2', b'\x03\x00' + b'\x81' + framed(own))
    write('arp_check', 'lab-other-then-owner',
          b'\x01\x00' + b'\x01' + framed(others[0]) + b'\x01' + framed(announce[0]) + b'\x01' + framed(own))
    write('arp_check', 'lab-nothing', b'\x03\x00')
    write('arp_check', 'count-short', b'\x03\x82' + b'\x00' + framed(own))
    write('arp_check', 'count-long', b'\x01\x86' + b'\x00' + framed(own))
    write('arp_check', 'cut-reply', b'\x00\x00' + b'\x00' + framed(own[:30]))

    # ---- arp_sweep: mode, entries, frames.  Entry byte: port | (last << 2),
    # the lab host behind port N being 192.168.1.(10+N) with MAC ..:01:0N.
    by_host = {}
    for r in others:
        by_host.setdefault(r[27], r)
    entries = bytes([((10 + n) << 2) | n for n in (1, 2, 3)])
    replies3 = b''.join(bytes([n]) + framed(by_host[n]) for n in (1, 2, 3) if n in by_host)
    for mode, name in ((0x08, 'async-all'), (0x0a, 'async-all-timeup'), (0x09, 'blocking-all')):
        write('arp_sweep', 'lab-' + name, bytes([mode]) + entries + replies3)
    one = bytes([1]) + framed(by_host[1])
    write('arp_sweep', 'lab-async-one-of-three', b'\x08' + entries + one)
    write('arp_sweep', 'lab-blocking-one-of-three', b'\x09' + entries + one)
    moved = bytearray(by_host[1])
    moved[28:32] = bytes([10, 0, 0, 7])
    write('arp_sweep', 'moved-out-of-subnet', b'\x01' + entries[:1] + b'\x01' + framed(bytes(moved)))
    write('arp_sweep', 'moved-out-async', b'\x00' + entries[:1] + b'\x01' + framed(bytes(moved)))
    wrong_src = bytearray(by_host[1])
    wrong_src[6:12] = bytes.fromhex('021a00000109')
    write('arp_sweep', 'wrong-eth-source', b'\x01' + entries[:1] + b'\x01' + framed(bytes(wrong_src)))

    # ---- uci: key, newline, file text.
    texts = {}
    for p in sorted(glob.glob(os.path.join(CAPTURES, 'network')) + glob.glob(os.path.join(CAPTURES, 'switch'))):
        texts['lab-' + os.path.basename(p)] = open(p, 'rb').read()
    for p in sorted(glob.glob(os.path.join(CONFIGS, '*'))):
        texts[os.path.basename(p)] = open(p, 'rb').read()
    keys = [b'network.lan.ifname', b'network.@interface[1].ifname', b'network.@interface[-1].proto',
            b'network.wan.dns', b'switch.@switch_port[0].label', b'switch.wan.switch_port',
            b'network.lan', b'nosuch.lan.ifname', b'network.@[2]']
    for name, text in texts.items():
        for i, key in enumerate(keys):
            write('uci', '%s-key%d' % (name, i), key + b'\n' + text)

    # ---- fdb: port numbers of eth0..eth3, then brforward.
    fdb = open(os.path.join(CAPTURES, 'brforward'), 'rb').read()
    write('fdb', 'lab-ports-1-4', bytes([1, 2, 3, 4]) + fdb)
    write('fdb', 'lab-unknown-ports', bytes([0xff, 0xff, 9, 0]) + fdb)
    write('fdb', 'lab-partial-record', bytes([1, 2, 3, 4]) + fdb + fdb[:7])
    write('fdb', 'seventy-records', bytes([1, 2, 3, 4]) + (fdb * 7))
    write('fdb', 'empty', bytes([1, 2, 3, 4]))

    # ---- cmdline: NUL-separated argv.
    cmdlines = [
        ['lanprobe'], ['lanprobe', '-d', '7'], ['lanprobe', '-d', '7', '-t', '5000', '-v', 'eth1'],
        ['lanprobe', '--debug', '3abc', '--time_ms', '20001', '--device', 'eth0'],
        ['lanprobe', '-h', '-t', '5000'], ['lanprobe', '-t', '5000', '-h'], ['lanprobe', '-x'],
        ['lanprobe', '-d'], ['lanprobe', '-v', "eth'; reboot; '" + 'x' * 40], ['lanprobe', '-t', ' +5000ms'],
        ['lanprobe', '-d', '0', '-d', '8', '-d', '7', '-d', '7'], ['lanprobe', '--help'],
        ['lanprobe', '--time_ms=abc', 'extra', '--debug=5'],
    ]
    for i, argv in enumerate(cmdlines):
        write('cmdline', 'argv%d' % i, b'\0'.join(a.encode() for a in argv))


if __name__ == '__main__':
    main()
