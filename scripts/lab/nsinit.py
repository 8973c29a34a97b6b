#!/usr/bin/python3
"""PID 1 of the lab router's private PID and mount namespace.

Gives the daemon the file system of a router: the lab's fixture files on
/etc/config, a fresh tmpfs on /tmp (with /tmp/lanprobe.log present unless
--console-log), and a FIFO on /dev/console that is drained here.  Starts the
daemon, reaps every process with waitpid(-1), and so sees its parent exit
(right after the fork) and its forked child end, with their exit statuses.
Collects into OUT:
  status.json   exit statuses, the result file as seen right after the parent
                exited (the placeholder), the files left in /tmp, timings
  result        /tmp/lanprobe_result at the end (when present)
  lanprobe.log  /tmp/lanprobe.log at the end (when present)
  console.txt   everything written to /dev/console
  stdout.txt    the daemon's inherited standard output and error
"""
import argparse
import json
import os
import select
import signal
import subprocess
import sys
import time


def sh(*argv):
    subprocess.run(argv, check=True)


def read_text(path):
    try:
        with open(path, 'rb') as f:
            return f.read().decode('utf-8', 'replace')
    except OSError:
        return None


def decode_status(status):
    if os.WIFEXITED(status):
        return {'exit': os.WEXITSTATUS(status), 'signal': None}
    return {'exit': None, 'signal': os.WTERMSIG(status)}


def ppid_of(pid):
    stat = read_text('/proc/%d/stat' % pid)
    if not stat:
        return None
    return int(stat.rsplit(')', 1)[1].split()[1])


def other_pids():
    return [int(p) for p in os.listdir('/proc') if p.isdigit() and int(p) != 1]


def prepare_mounts(config_dir, console_log):
    # A scratch tmpfs holds the overlay's upper layer and the console FIFO.
    # /etc gets an overlay so that /etc/config can exist here without being
    # created on the host; the scratch mount is detached again at once (the
    # overlay and the bind mount keep it alive).
    scratch = '/mnt'
    sh('mount', '-t', 'tmpfs', '-o', 'mode=0700', 'labscratch', scratch)
    for d in ('upper', 'work'):
        os.mkdir(os.path.join(scratch, d))
    os.mkfifo(os.path.join(scratch, 'console'), 0o600)
    sh('mount', '-t', 'overlay', 'labetc', '-o',
       'lowerdir=/etc,upperdir=%s/upper,workdir=%s/work' % (scratch, scratch), '/etc')
    os.makedirs('/etc/config', exist_ok=True)
    sh('mount', '--bind', config_dir, '/etc/config')
    sh('mount', '--bind', os.path.join(scratch, 'console'), '/dev/console')
    sh('umount', '-l', scratch)
    # The FIFO is held open for reading and writing: the daemon's opens of
    # /dev/console never block and reading never sees an end of file.
    console = os.open('/dev/console', os.O_RDWR | os.O_NONBLOCK)
    sh('mount', '-t', 'tmpfs', '-o', 'mode=1777', 'labtmp', '/tmp')
    if not console_log:
        # The log goes to /tmp/lanprobe.log only when that file already exists.
        open('/tmp/lanprobe.log', 'w').close()
    return console


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--config', required=True, help='directory bound over /etc/config')
    ap.add_argument('--out', required=True, help='output directory')
    ap.add_argument('--console-log', action='store_true',
                    help='no /tmp/lanprobe.log, so that the log goes to the console')
    ap.add_argument('--limit', type=float, default=60.0,
                    help='seconds after which everything left is killed')
    ap.add_argument('cmd', nargs=argparse.REMAINDER)
    a = ap.parse_args()
    cmd = a.cmd[1:] if a.cmd and a.cmd[0] == '--' else a.cmd
    if os.getpid() != 1:
        sys.exit('nsinit: must be PID 1 of a new PID namespace')
    # Interrupted: leave at once; the end of PID 1 ends every process of the namespace.
    for s in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(s, lambda *_: os._exit(130))

    # The output directory may lie below /tmp, which is about to be hidden:
    # keep a descriptor and write everything relative to it.
    outfd = os.open(a.out, os.O_RDONLY | os.O_DIRECTORY)

    def out_open(name, mode='wb'):
        return open(name, mode, opener=lambda p, f: os.open(p, f, 0o644, dir_fd=outfd))

    console = prepare_mounts(a.config, a.console_log)
    console_out = out_open('console.txt')
    stdout = out_open('stdout.txt')

    def drain():
        while True:
            try:
                data = os.read(console, 65536)
            except BlockingIOError:
                return
            if not data:
                return
            console_out.write(data)

    status = {'cmd': cmd, 'parent_pid': None, 'parent': None, 'child_pid': None,
              'child': None, 'placeholder': None, 'others': [], 'timed_out': False}
    t0 = time.monotonic()
    pid = os.fork()
    if pid == 0:
        os.dup2(os.open('/dev/null', os.O_RDONLY), 0)
        os.dup2(stdout.fileno(), 1)
        os.dup2(stdout.fileno(), 2)
        for s in (signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
            signal.signal(s, signal.SIG_DFL)
        try:
            os.execv(cmd[0], cmd)
        finally:
            os._exit(127)
    status['parent_pid'] = pid

    while True:
        drain()
        try:
            while True:
                rpid, st = os.waitpid(-1, os.WNOHANG)
                if rpid == 0:
                    break
                now = round((time.monotonic() - t0) * 1000)
                if rpid == status['parent_pid']:
                    status['parent'] = dict(decode_status(st), ms=now)
                    # The child, if any, has just been handed to us: it is the
                    # one process whose parent is now PID 1.
                    kids = [p for p in other_pids() if ppid_of(p) == 1]
                    if kids:
                        status['child_pid'] = min(kids)
                    status['placeholder'] = read_text('/tmp/lanprobe_result')
                elif rpid == status['child_pid']:
                    status['child'] = dict(decode_status(st), ms=now)
                else:
                    status['others'].append(dict(decode_status(st), pid=rpid, ms=now))
        except ChildProcessError:
            break
        if time.monotonic() - t0 > a.limit and not status['timed_out']:
            status['timed_out'] = True
            for p in other_pids():
                try:
                    os.kill(p, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        select.select([console], [], [], 0.05)
    drain()

    status['elapsed_ms'] = round((time.monotonic() - t0) * 1000)
    status['tmp_files'] = sorted(os.listdir('/tmp'))
    for src, dst in (('/tmp/lanprobe_result', 'result'), ('/tmp/lanprobe.log', 'lanprobe.log')):
        data = read_text(src)
        if data is not None:
            with out_open(dst, 'w') as f:
                f.write(data)
    with out_open('status.json', 'w') as f:
        json.dump(status, f, indent=1)
    console_out.close()
    stdout.close()


if __name__ == '__main__':
    main()
