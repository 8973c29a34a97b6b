"""Readers for the two clocks of a detection: strace -f -ttt -T output of the
daemon and a tcpdump capture (-i any, SLL2 link type, nanosecond stamps) of
the router namespace.  Both carry CLOCK_REALTIME stamps, so their events can
be merged into one timeline."""
import re
import struct

SYSCALL = re.compile(r'^(\d+)\s+(\d+\.\d+)\s+(\w+)\((.*)\)\s+=\s+(-?\d+|\?|0x[0-9a-f]+)(.*?)(?:<(\d+\.\d+)>)?$')
UNFINISHED = re.compile(r'^(\d+)\s+(\d+\.\d+)\s+(\w+)\((.*)\s+<unfinished \.\.\.>$')
RESUMED = re.compile(r'^(\d+)\s+(\d+\.\d+)\s+<\.\.\. (\w+) resumed>(.*)\)\s+=\s+(-?\d+|\?|0x[0-9a-f]+)(.*?)(?:<(\d+\.\d+)>)?$')
EXITED = re.compile(r'^(\d+)\s+(\d+\.\d+)\s+\+\+\+ (exited with|killed by) (\S+)')


class Call:
    __slots__ = ('pid', 't', 'name', 'args', 'ret', 'dur', 'extra')

    def __init__(self, pid, t, name, args, ret, dur, extra=''):
        self.pid, self.t, self.name, self.args = int(pid), float(t), name, args
        self.ret = ret
        self.dur = float(dur) if dur else 0.0
        self.extra = extra

    @property
    def end(self):
        return self.t + self.dur

    def iret(self):
        try:
            return int(self.ret, 0)
        except ValueError:
            return None

    def __repr__(self):
        return '%d %.6f %s(%s) = %s <%.6f>' % (self.pid, self.t, self.name, self.args[:60],
                                               self.ret, self.dur)


def read_strace(path):
    """Returns (calls, exits): calls in start order, exits as {pid: (t, how)}."""
    calls, exits, pending = [], {}, {}
    for line in open(path, errors='replace'):
        line = line.rstrip('\n')
        m = SYSCALL.match(line)
        if m:
            pid, t, name, args, ret, extra, dur = m.groups()
            calls.append(Call(pid, t, name, args, ret, dur, extra))
            continue
        m = UNFINISHED.match(line)
        if m:
            pid, t, name, args = m.groups()
            pending[int(pid)] = (t, name, args)
            continue
        m = RESUMED.match(line)
        if m:
            pid, t, name, rest, ret, extra, dur = m.groups()
            start = pending.pop(int(pid), (t, name, ''))
            # The duration strace prints on the resumed line counts from the start.
            calls.append(Call(pid, start[0], name, start[2] + rest, ret, dur, extra))
            continue
        m = EXITED.match(line)
        if m:
            exits[int(m.group(1))] = (float(m.group(2)), m.group(3) + ' ' + m.group(4))
    calls.sort(key=lambda c: c.t)
    return calls, exits


SLL2 = 276
ETH_P_ARP = 0x0806
ETH_P_IP = 0x0800
PKT_OUTGOING = 4


class Frame:
    __slots__ = ('t', 'ifindex', 'pkttype', 'proto', 'data')

    def __init__(self, t, ifindex, pkttype, proto, data):
        self.t, self.ifindex, self.pkttype, self.proto, self.data = t, ifindex, pkttype, proto, data

    @property
    def outgoing(self):
        return self.pkttype == PKT_OUTGOING

    def udp_dport(self):
        d = self.data
        if self.proto != ETH_P_IP or len(d) < 24 or d[9] != 17:
            return None
        ihl = (d[0] & 15) * 4
        return struct.unpack('!H', d[ihl + 2:ihl + 4])[0] if len(d) >= ihl + 4 else None

    def dhcp_xid(self):
        d = self.data
        ihl = (d[0] & 15) * 4
        off = ihl + 8 + 4
        return d[off:off + 4].hex() if len(d) >= off + 4 else None


def read_pcap(path):
    frames = []
    with open(path, 'rb') as f:
        hdr = f.read(24)
        if len(hdr) < 24:
            return frames
        magic = struct.unpack('<I', hdr[:4])[0]
        if magic == 0xa1b23c4d:
            scale = 1e-9
        elif magic == 0xa1b2c3d4:
            scale = 1e-6
        else:
            raise ValueError('not a little-endian pcap file: %s' % path)
        linktype = struct.unpack('<I', hdr[20:24])[0]
        if linktype != SLL2:
            raise ValueError('capture link type %d, expected SLL2 (tcpdump -i any)' % linktype)
        while True:
            rh = f.read(16)
            if len(rh) < 16:
                break
            sec, frac, incl, _orig = struct.unpack('<IIII', rh)
            pkt = f.read(incl)
            if len(pkt) < 20:
                continue
            proto, _res, ifindex, _hatype, pkttype, _halen = struct.unpack('!HHIHBB', pkt[:12])
            frames.append(Frame(sec + frac * scale, ifindex, pkttype, proto, pkt[20:]))
    return frames
