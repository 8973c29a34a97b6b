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
For fault runs:
  --tmp-full blocks|inodes   /tmp is a small tmpfs with no room for data
                             (blocks) or for a new file (inodes)
  --strace OPTS              run the daemon under strace with these options
                             (to deliver a signal on entering a given call)
  --strace-child OPTS        attach strace with these options to the forked
                             child as soon as it is seen
status.json also holds the child's CPU time and the size of the log file.
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


def fill_tmp(how):
    """Leave /tmp (a small tmpfs) with no room for data or for a new inode.
    The fillers are dot files, left out of the /tmp listing."""
    if how == 'blocks':
        fd = os.open('/tmp/.filler', os.O_WRONLY | os.O_CREAT, 0o600)
        try:
            while os.write(fd, b'x' * 512) > 0:
                pass
        except OSError:
            pass
        os.close(fd)
    else:
        n = 0
        try:
            while True:
                os.mkdir('/tmp/.d%d' % n)
                n += 1
        except OSError:
            pass


def prepare_mounts(config_dir, console_log, tmp_full=None):
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
    if tmp_full == 'blocks':
        # One page, filled below: files can be made but cannot grow.
        sh('mount', '-t', 'tmpfs', '-o', 'mode=1777,size=4k', 'labtmp', '/tmp')
    elif tmp_full == 'inodes':
        # Few inodes, used up below: no file can be made at all.
        sh('mount', '-t', 'tmpfs', '-o', 'mode=1777,nr_inodes=16', 'labtmp', '/tmp')
    else:
        sh('mount', '-t', 'tmpfs', '-o', 'mode=1777', 'labtmp', '/tmp')
    if not console_log:
        # The log goes to /tmp/lanprobe.log only when that file already exists;
        # the daemon writes over what an earlier run left, from its first byte.
        with open('/tmp/lanprobe.log', 'w') as f:
            f.write('stale\n')
    if tmp_full:
        fill_tmp(tmp_full)
    return console


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--config', required=True, help='directory bound over /etc/config')
    ap.add_argument('--out', required=True, help='output directory')
    ap.add_argument('--console-log', action='store_true',
                    help='no /tmp/lanprobe.log, so that the log goes to the console')
    ap.add_argument('--limit', type=float, default=60.0,
                    help='seconds after which everything left is killed')
    ap.add_argument('--tmp-full', choices=['blocks', 'inodes'],
                    help='/tmp without room for data, or for a new file')
    ap.add_argument('--strace', help='run the daemon under strace with these options, blank-separated')
    ap.add_argument('--strace-child', help='the same, attached to the forked child once it is seen')
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

    console = prepare_mounts(a.config, a.console_log, a.tmp_full)
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

    if a.strace:
        cmd = ['strace', '-f', '-qq', '-o', '/proc/self/fd/2'] + a.strace.split() + ['--'] + cmd
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
            os.execvp(cmd[0], cmd)
        finally:
            os._exit(127)
    # Under strace the daemon is strace's child, found by looking (its forked
    # child may be handed to us before we look).
    daemon_parent = status['parent_pid'] = None if a.strace else top
    # The forked child is looked for as soon as it exists only when something
    # must be done to it while it runs; otherwise it is taken when its parent ends.
    watch = bool(a.strace or a.strace_child)

    def child_found(pid):
        status['child_pid'] = pid
        if a.strace_child:
            attach = subprocess.Popen(
                ['strace', '-qq', '-o', os.path.join(a.out, 'strace-child.txt'), '-p', str(pid)]
                + a.strace_child.split(), stdin=subprocess.DEVNULL)
            status['strace_child_pid'] = attach.pid

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
                if rpid == top and a.strace:
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
    tmp_files = os.listdir('/tmp')
    if a.tmp_full:
        tmp_files = [f for f in tmp_files if not f.startswith('.')]
    status['tmp_files'] = sorted(tmp_files)
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
    main()
