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
status.json also holds the child's CPU time and the size of the log file.
The lab's fault rows run it through tests/lab/faultinit.py, which extends the
Runner below (a full /tmp, the daemon under strace).
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


def read_bytes(path):
    try:
        with open(path, 'rb') as f:
            return f.read()
    except OSError:
        return None


def read_text(path):
    data = read_bytes(path)
    return None if data is None else data.decode('utf-8', 'replace')


def decode_status(status):
    if os.WIFEXITED(status):
        return {'exit': os.WEXITSTATUS(status), 'signal': None}
    return {'exit': None, 'signal': os.WTERMSIG(status)}


def ppid_of(pid):
    stat = read_text('/proc/%d/stat' % pid)
    if not stat:
        return None
    return int(stat.rsplit(')', 1)[1].split()[1])


def comm_of(pid):
    return (read_text('/proc/%d/comm' % pid) or '').strip()


def other_pids():
    return [int(p) for p in os.listdir('/proc') if p.isdigit() and int(p) != 1]


def prepare_mounts(config_dir, console_log, runner):
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
    sh('mount', '-t', 'tmpfs', '-o', runner.tmp_options(), 'labtmp', '/tmp')
    if not console_log:
        # The log goes to /tmp/lanprobe.log only when that file already exists;
        # the daemon writes over what an earlier run left, from its first byte.
        with open('/tmp/lanprobe.log', 'w') as f:
            f.write('stale\n')
    runner.fill_tmp()
    return console


class Runner:
    """The plain run of the main job; a fault run overrides these."""

    def __init__(self, a):
        self.a = a

    def tmp_options(self):
        return 'mode=1777'

    def fill_tmp(self):
        pass

    def command(self, cmd):
        return cmd

    def watch(self):
        """Whether the forked child is looked for as soon as it exists (else
        it is taken when its parent ends)."""
        return False

    def child_found(self, pid, status):
        pass


def options():
    ap = argparse.ArgumentParser()
    ap.add_argument('--config', required=True, help='directory bound over /etc/config')
    ap.add_argument('--out', required=True, help='output directory')
    ap.add_argument('--console-log', action='store_true',
                    help='no /tmp/lanprobe.log, so that the log goes to the console')
    ap.add_argument('--limit', type=float, default=60.0,
                    help='seconds after which everything left is killed')
    ap.add_argument('cmd', nargs=argparse.REMAINDER)
    return ap


def main(a, runner):
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

    console = prepare_mounts(a.config, a.console_log, runner)
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

    run = runner.command(cmd)
    status = {'cmd': cmd, 'parent_pid': None, 'parent': None, 'child_pid': None,
              'child': None, 'placeholder': None, 'others': [], 'timed_out': False}
    t0 = time.monotonic()
    top = os.fork()
    if top == 0:
        os.dup2(os.open('/dev/null', os.O_RDONLY), 0)
        os.dup2(stdout.fileno(), 1)
        os.dup2(stdout.fileno(), 2)
        for s in (signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
            signal.signal(s, signal.SIG_DFL)
        try:
            os.execvp(run[0], run)
        finally:
            os._exit(127)
    # Run through another program (strace), the daemon is that one's child,
    # found by looking (its forked child may be handed to us before we look).
    daemon_parent = status['parent_pid'] = top if run == cmd else None
    watch = runner.watch()

    def child_found(pid):
        status['child_pid'] = pid
        runner.child_found(pid, status)

    while True:
        drain()
        if watch and status['child_pid'] is None:
            for p in other_pids():
                if p == top or comm_of(p) != 'lanprobe':
                    continue
                pp = ppid_of(p)
                if pp == top:
                    if daemon_parent is None:
                        daemon_parent = status['parent_pid'] = p
                elif pp == 1 or (daemon_parent is not None and pp == daemon_parent):
                    child_found(p)
        try:
            while True:
                rpid, st, ru = os.wait4(-1, os.WNOHANG)
                if rpid == 0:
                    break
                now = round((time.monotonic() - t0) * 1000)
                if rpid == top != daemon_parent:
                    status['strace'] = decode_status(st)
                elif rpid == daemon_parent:
                    status['parent'] = dict(decode_status(st), ms=now)
                    if status['child_pid'] is None:
                        # The child, if any, has just been handed to us: it is
                        # the one process of the daemon whose parent is now PID 1.
                        kids = [p for p in other_pids() if ppid_of(p) == 1 and p != top
                                and p != status.get('strace_child_pid')]
                        if kids:
                            child_found(min(kids))
                    status['placeholder'] = read_text('/tmp/lanprobe_result')
                elif rpid == status.get('strace_child_pid'):
                    status['strace_child'] = decode_status(st)
                elif rpid == status['child_pid']:
                    status['child'] = dict(decode_status(st), ms=now,
                                           cpu_s=round(ru.ru_utime + ru.ru_stime, 3))
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
    # Dot files (the fillers of a full /tmp) are left out.
    status['tmp_files'] = sorted(f for f in os.listdir('/tmp') if not f.startswith('.'))
    log = read_bytes('/tmp/lanprobe.log')
    status['log_bytes'] = None if log is None else len(log)
    for src, dst in (('/tmp/lanprobe_result', 'result'), ('/tmp/lanprobe.log', 'lanprobe.log')):
        data = read_bytes(src)
        if data is not None:
            with out_open(dst) as f:
                f.write(data)
    with out_open('status.json', 'w') as f:
        json.dump(status, f, indent=1)
    console_out.close()
    stdout.close()


if __name__ == '__main__':
    args = options().parse_args()
    main(args, Runner(args))
