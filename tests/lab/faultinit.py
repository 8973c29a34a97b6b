#!/usr/bin/python3
"""The lab router's PID 1 (scripts/lab/nsinit.py) for the fault rows:
  --tmp-full blocks|inodes   /tmp is a small tmpfs with no room for data
                             (blocks) or for a new file (inodes)
  --strace OPTS              run the daemon under strace with these options
                             (to deliver a signal on entering a given call)
  --strace-child OPTS        attach strace with these options to the forked
                             child as soon as it is seen
"""
import os
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '..', '..', 'scripts', 'lab'))
import nsinit  # noqa: E402


class FaultRunner(nsinit.Runner):
    def tmp_options(self):
        # One page: files can be made but cannot grow; or few inodes: no file at all.
        return {'blocks': 'mode=1777,size=4k', 'inodes': 'mode=1777,nr_inodes=16'}.get(self.a.tmp_full, 'mode=1777')

    def fill_tmp(self):
        """Leaves no room for data or for a new inode; the fillers are dot files."""
        try:
            if self.a.tmp_full == 'blocks':
                with open('/tmp/.filler', 'wb', buffering=0) as f:
                    while f.write(b'x' * 512):
                        pass
            for n in range(1 << 20) if self.a.tmp_full == 'inodes' else ():
                os.mkdir('/tmp/.d%d' % n)
        except OSError:
            pass

    def command(self, cmd):
        if not self.a.strace:
            return cmd
        return ['strace', '-f', '-qq', '-o', '/proc/self/fd/2'] + self.a.strace.split() + ['--'] + cmd

    def watch(self):
        return bool(self.a.strace or self.a.strace_child)

    def child_found(self, pid, status):
        if self.a.strace_child:
            status['strace_child_pid'] = subprocess.Popen(
                ['strace', '-qq', '-o', os.path.join(self.a.out, 'strace-child.txt'), '-p', str(pid)]
                + self.a.strace_child.split(), stdin=subprocess.DEVNULL).pid


if __name__ == '__main__':
    ap = nsinit.options()
    ap.add_argument('--tmp-full', choices=['blocks', 'inodes'])
    ap.add_argument('--strace')
    ap.add_argument('--strace-child')
    args = ap.parse_args()
    nsinit.main(args, FaultRunner(args))
