"""What the lab scenarios and the fault runs share: a lab brought up and torn
down with lab.sh, and the outputs one daemon run leaves (see
scripts/lab/nsinit.py)."""
import json
import os
import re
import shutil
import subprocess
import tempfile

TOP = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LAB = os.path.join(TOP, 'scripts', 'lab', 'lab.sh')
NSINIT = os.path.join(TOP, 'scripts', 'lab', 'nsinit.py')
PY = '/usr/bin/python3'
LOG_LINE = re.compile(r'^\[lanprobe\]\[(\w+)\]\[-?\d+\]\[[^\]]*:\d+\]: (.*)$')


class Failure(Exception):
    pass


def check(cond, what):
    if not cond:
        raise Failure(what)


def host_mac(n):
    return '02:1A:00:00:01:%02X' % n


def pool(n):
    return ['192.168.1.%d' % (100 + 20 * n + i) for i in range(20)]


def log_lines(text):
    """(level, message) of every log line in text."""
    return [m.groups() for m in map(LOG_LINE.match, text.splitlines()) if m]


class Run:
    """What one daemon run left behind in its output directory."""

    def __init__(self, out):
        self.out = out
        with open(os.path.join(out, 'status.json')) as f:
            self.status = json.load(f)
        self.raw_result = self._read('result')
        # Log lines still buffered when logging ends may reach the inherited
        # standard output instead of the log file: both count as the log.
        self.log_text = (self._read('lanprobe.log') or '') + (self._read('stdout.txt') or '')
        self.console = self._read('console.txt') or ''
        self.lines = log_lines(self.log_text)

    def _read(self, name):
        try:
            with open(os.path.join(self.out, name), encoding='utf-8', errors='replace') as f:
                return f.read()
        except OSError:
            return None

    def count(self, text, level=None):
        return sum(1 for lv, m in self.lines if m == text and (level is None or lv == level))

    def index(self, text, start=0):
        for i in range(start, len(self.lines)):
            if self.lines[i][1] == text:
                return i
        return -1


class Lab:
    """A lab brought up by lab.sh in a fresh directory below opts.workdir.
    Used as a context manager it is torn down on leaving; its outputs are
    kept when an exception leaves it and opts.keep is set."""
    prefix = 'lanprobe-lab.'

    def __init__(self, layout, opts):
        self.opts = opts
        self.layout = layout
        self.base = tempfile.mkdtemp(prefix=self.prefix, dir=opts.workdir)
        self.state = os.path.join(self.base, 'state')
        self.runs = 0
        subprocess.run(['bash', LAB, 'up', self.state] + layout, check=True,
                       env=dict(os.environ, LAB_QUIET='1'))

    def keep_outputs(self):
        return self.opts.keep

    def down(self, keep=False):
        subprocess.run(['bash', LAB, 'down', self.state], check=False)
        if not (keep or self.keep_outputs()):
            shutil.rmtree(self.base, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, kind, value, tb):
        self.down(keep=kind is not None and self.opts.keep)
        return False
