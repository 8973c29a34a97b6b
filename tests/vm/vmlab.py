"""The virtual router as a target of the lab's rows (tests/lab/lab.py
--target vm:ARCH): the hosts are the lab's own; the router is a VM booted by
lab.sh up (tests/vm/router.sh), which runs the daemon once and powers off.
This module passes the row's run to the VM and unpacks what it left into
the files nsinit.py leaves on the host."""
import base64
import io
import os
import shlex
import tarfile
import time

# The first system call the forked child sleeps in during the ARP check's
# pause (musl's poll): ppoll on AArch64, poll on MIPS o32.
POLL = {'aarch64': '73', 'mipsel': '4188'}


def env(row, arch, vmdir):
    return {'LAB_VM': arch, 'LAB_VM_DIR': vmdir, 'LAB_VM_ARGS': ' '.join(shlex.quote(a) for a in row['args']),
            'LAB_VM_CONSOLE_LOG': '1' if row.get('console_log') else '0',
            'LAB_VM_TERM_IN': POLL[arch] if row.get('term_in') == 'poll' else '-'}


def running(pid):
    try:
        return open('/proc/%d/stat' % pid).read().rsplit(')', 1)[1].split()[0] != 'Z'
    except OSError:
        return False


def collect(state, out, args, limit=300):
    """Waits until the VM has powered off, then unpacks its run into out."""
    pid = next(int(l.split()[0]) for l in open(os.path.join(state, 'pids')) if l.split()[1] == 'vm')
    end = time.monotonic() + limit
    while running(pid) and time.monotonic() < end:
        time.sleep(0.2)
    serial = open(os.path.join(state, 'vm', 'serial.txt'), errors='replace').read().replace('\r', '')
    if 'lanprobe-vm: end' not in serial:
        raise OSError('the virtual router left no output: ...%s' % serial[-1500:])
    data = serial.split('lanprobe-vm: output\n', 1)[1].split('lanprobe-vm: end', 1)[0]
    tarfile.open(fileobj=io.BytesIO(base64.b64decode(data)), mode='r:gz').extractall(out)
    status = {'cmd': ['/lanprobe'] + args, 'parent_pid': None, 'parent': None, 'child_pid': None, 'child': None,
              'others': [], 'timed_out': False, 'placeholder': read(out, 'placeholder'),
              'tmp_files': sorted((read(out, 'tmp_files') or '').split())}
    for w in (l.split() for l in open(os.path.join(out, 'status'))):
        if w[0] in ('timed_out', 'term'):
            status[w[0]] = True if w[0] == 'timed_out' else int(w[1])
            continue
        rec = {'exit': None if w[2] == '-1' else int(w[2]), 'signal': None if w[3] == '-1' else int(w[3]),
               'ms': int(w[4])}
        if w[0] == 'other':
            status['others'].append(dict(rec, pid=int(w[1])))
        else:
            status[w[0] + '_pid'], status[w[0]] = int(w[1]), dict(rec, cpu_s=int(w[5]) / 1000.0)
    return status


def read(out, name):
    try:
        return open(os.path.join(out, name), errors='replace').read()
    except OSError:
        return None
