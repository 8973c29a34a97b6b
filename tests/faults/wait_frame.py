#!/usr/bin/python3
"""Waits, inside the lab router, until a DHCP request (UDP to port 67) has
left one of its ports, then exits 0; exits 1 when none came in time.
Prints "ready" once it listens, so that the caller can start the daemon."""
import argparse
import select
import socket
import sys
import time

ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4


def is_dhcp_request(frame):
    # Ethernet + IPv4 with a 20-byte header + UDP to port 67.
    return (len(frame) >= 42 and frame[12:14] == b'\x08\x00' and frame[23] == 17
            and frame[36:38] == b'\x00\x43')


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--port', required=True)
    ap.add_argument('--count', type=int, default=1, help='how many requests to wait for')
    ap.add_argument('--timeout', type=float, default=20.0)
    a = ap.parse_args()
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    s.bind((a.port, 0))
    print('ready', flush=True)
    seen = 0
    end = time.monotonic() + a.timeout
    while seen < a.count:
        left = end - time.monotonic()
        if left <= 0 or not select.select([s], [], [], left)[0]:
            print('none', flush=True)
            return 1
        frame, addr = s.recvfrom(2048)
        if addr[2] == PACKET_OUTGOING and is_dhcp_request(frame):
            seen += 1
    print('seen', flush=True)
    return 0


if __name__ == '__main__':
    sys.exit(main())
