"""Small driver around scripts/lab/lab.sh for the benchmarks.

Every lab lives in namespaces that lab.sh creates and is taken down by
lab.sh itself; processes started here are stopped by their PID.
"""
import os
import shutil
import subprocess
import tempfile
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LAB = os.path.join(TOP, 'scripts', 'lab', 'lab.sh')

# Servers that offer at once (no ping or ARP check before the offer).
FAST_SERVERS = ('dnsmasq', 'dhcpd', 'kea', 'dnsmasq')


def server_kinds(n, kinds=FAST_SERVERS):
    return ['eth%d=%s' % (i, kinds[i % len(kinds)]) for i in range(n)]


def workdir(tag):
    # Outside /tmp: the daemon's runner mounts a fresh tmpfs there.
    base = os.environ.get('LAB_WORKDIR', '/var/tmp')
    return tempfile.mkdtemp(prefix='lanprobe-bench-%s.' % tag, dir=base)


class Lab:
    def __init__(self, work, hosts, up_args=()):
        self.state = os.path.join(work, 'lab')
        self.hosts = list(hosts)
        env = dict(os.environ, LAB_QUIET='1')
        t0 = time.monotonic()
        subprocess.run(['bash', LAB, 'up', self.state] + list(up_args) + self.hosts,
                       check=True, env=env)
        self.up_seconds = time.monotonic() - t0
        env_file = dict(l.strip().split('=', 1) for l in open(os.path.join(self.state, 'lab.env'))
                        if '=' in l)
        self.router_ns = env_file['ROUTER_NS']

    def learn(self):
        subprocess.run(['bash', LAB, 'learn', self.state], check=True,
                       env=dict(os.environ, LAB_QUIET='1'))

    def run(self, out, bin_path, daemon_args, limit=60.0):
        os.makedirs(out, exist_ok=True)
        cmd = ['bash', LAB, 'run', self.state, out, '--bin', bin_path, '--limit=%g' % limit, '--']
        subprocess.run(cmd + list(daemon_args), check=True)

    def popen(self, name, argv, **kw):
        return subprocess.Popen(['bash', LAB, 'exec', self.state, name] + list(argv), **kw)

    def exec(self, name, argv, **kw):
        return subprocess.run(['bash', LAB, 'exec', self.state, name] + list(argv), **kw)

    def ifindexes(self):
        """ifindex -> interface name in the router namespace."""
        out = subprocess.run(['ip', '-n', self.router_ns, '-o', 'link'], check=True,
                             capture_output=True, text=True).stdout
        res = {}
        for line in out.splitlines():
            idx, name = line.split(':', 2)[:2]
            res[int(idx)] = name.strip().split('@')[0]
        return res

    def down(self):
        subprocess.run(['bash', LAB, 'down', self.state], check=False)


def stop(proc, sig=15, timeout=5.0):
    """Stops a process this module started, by its PID."""
    if proc.poll() is None:
        proc.send_signal(sig)
        try:
            proc.wait(timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


def wrapper_script(path, argv):
    """An executable shell script that execs argv followed by its own arguments."""
    with open(path, 'w') as f:
        f.write('#!/bin/sh\nexec %s "$@"\n' % ' '.join("'%s'" % a for a in argv))
    os.chmod(path, 0o755)
    return path


def cleanup(work):
    if not os.environ.get('BENCH_KEEP'):
        shutil.rmtree(work, ignore_errors=True)
