"""Schedulers and clients in a scratch directory, and the processes that they leave; for the trials and the tests."""

import collections
import contextlib
import ctypes
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
LIBC = ctypes.CDLL(None, use_errno=True)
# Seconds that any wait may take before the test fails. scripts/mutate sets a shorter time.
PATIENCE = int(os.environ.get("TEST_PATIENCE", 60))
NUMBER = re.compile(rb"W0104:n(\d+)\.")  # of a message
KILLED_IN_CHECK = re.compile(r"(==\d+==Unable to get registers from thread \d+\.\n)+")  # LeakSanitizer was killed too
MODULE = "#!/bin/sh\ncase $1 in slow) sleep 0.4 ;; fail) exit 7 ;; long) seq 30000 ;; hang) sleep 5 ;; esac\n"


def wait_for(condition, what, limit=PATIENCE):
    end = time.monotonic() + limit
    while not (found := condition()):
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(0.02)
    return found


def state_of(pid):
    """The letter of a process's state, its parent and its name; X when it is gone."""
    try:
        with open(f"/proc/{pid}/stat", errors="replace") as file:
            head, _, tail = file.read().rpartition(") ")
        return tail[0], int(tail.split()[1]), head.partition("(")[2]
    except OSError:
        return "X", 0, ""


def send_signal(pid, number):
    """When it stops the process, waits until all threads have stopped: on a busy machine they run for a while."""
    os.kill(pid, number)
    if number == signal.SIGSTOP:
        threads = [f"{pid}/task/{thread}" for thread in os.listdir(f"/proc/{pid}/task")]
        wait_for(lambda: all(state_of(thread)[0] in "TZX" for thread in threads), "it does not stop")


def descendants():
    """The names of living processes that this one has started, also of those that outlived their parents."""
    states = {int(pid): state_of(pid) for pid in os.listdir("/proc") if pid.isdigit()}

    def is_ours(pid):
        parent = states.get(pid, "X0")[1]
        return parent == os.getpid() or (parent in states and is_ours(parent))

    return {pid: name for pid, (letter, _, name) in states.items() if letter not in "XZ" and is_ours(pid)}


def bound(port):
    """A socket with this port; None when it is taken."""
    probe = socket.socket()
    try:
        probe.bind(("0.0.0.0", port))
        return probe
    except OSError:
        probe.close()


def drawn_ports():
    """Yields free ports. The first of each twenty is kept bound, so that no test beside this one takes the others."""
    claims = collections.deque(maxlen=2)
    while True:
        first = random.SystemRandom().randrange(10000, 20000, 20)
        if claim := bound(first):
            claims.append(claim)
            for port in range(first + 1, first + 20):
                if probe := bound(port):
                    probe.close()
                    yield port


PORTS = drawn_ports()
PORTS_LOCK = threading.Lock()


def free_port():
    with PORTS_LOCK:  # two uses of a trial ask at once
        return next(PORTS)


class Suite:
    """A suite directory with a port; start() starts its scheduler. The words of modules all call bin/module."""

    def __init__(self, build, directory):
        self.build, self.dir, self.port, self.process, self.supervised = build, directory, free_port(), None, False
        self.env = dict(os.environ, VGD_PIPE=str(directory / "pipe"))
        for name in ("bin", "config", "temp", "update", "data", "log"):
            (directory / name).mkdir(parents=True)
            self.env[f"VGD_{name}"] = str(directory / name)
        modules = "allmodcall parts prognosis diag devconf confchg analysis qmx ehello"
        internal = "status modcntl debug quit restart lock unlock show hello login ipset send res_data res_send"
        lines = [f"{word} module on 60\n" for word in modules.split()] + ["brief module on 1\n"]
        (directory / "config/vgd_modules").write_text("".join(lines + [f"{w} - on 0\n" for w in internal.split()]))
        (directory / "config/timer_jobs").touch()
        self.module("module", MODULE)
        os.mkfifo(directory / "pipe")
        self.pipe = os.open(directory / "pipe", os.O_RDWR)
        self.command = [build / "sched", "-D", "-N", "0", "-p", str(self.port)]

    def module(self, name, script):
        (self.dir / "bin" / name).write_text(script)
        (self.dir / "bin" / name).chmod(0o755)

    def password(self):
        subprocess.run([self.build / "schedpasswd", "--stdin"], env=self.env, input=b"secret\n", check=True,
                       stdout=subprocess.DEVNULL, timeout=PATIENCE)

    def start(self):
        with (self.dir / "log/trace").open("w") as trace:
            self.process = subprocess.Popen(self.command, env=self.env, cwd=self.dir, stdin=subprocess.DEVNULL,
                                            stdout=trace, stderr=trace)

    def listens(self):
        code = self.process.poll()
        if code == 0 and self.supervised:  # after "restart sched", as the service does
            self.start()
        elif code is not None:
            raise RuntimeError(f"the scheduler ended with {code}")
        return f":{self.port:04X} 00000000:0000 0A" in Path("/proc/net/tcp").read_text()

    def pid(self):
        return int((self.dir / "log/sched.pid").read_text())

    def signal(self, number):
        with contextlib.suppress(ProcessLookupError):  # it ends after "restart sched", and the file stays
            send_signal(self.pid(), number)


class Scheduler(Suite):
    """A scheduler that is started, with a password."""

    def __init__(self, build, directory, supervised=False):
        super().__init__(build, directory)
        self.supervised, self.raised = supervised, 0
        if supervised:
            self.command.remove("-D")
        self.password()
        self.start()
        wait_for(self.listens, "the scheduler does not listen")

    def add(self, text):
        os.write(self.pipe, text.encode())
        self.raised += 1

    def has_all(self):
        """True when all that was raised has been handed to the connections, or waits for the first one."""
        logs = (self.dir / "log").glob("event_log*")
        return sum(len(NUMBER.findall(log.read_bytes())) for log in logs) == self.raised


def scratch():
    """A directory, in a mount namespace of this process where that is allowed."""
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):  # the clients inherit what is ignored
        signal.signal(number, signal.SIG_DFL)
    LIBC.prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER: processes that outlive their parents become our children
    if LIBC.unshare(0x20000) == 0:  # CLONE_NEWNS
        LIBC.mount(b"none", b"/", None, 0x44000, None)  # MS_REC | MS_PRIVATE
    return Path(tempfile.mkdtemp(prefix="sched-trial-"))


def reports(directory):
    """The reports of sanitizers below the directory."""
    texts = [path.read_text(errors="replace") for path in directory.rglob("sanitizer*")]
    return [text for text in texts if not KILLED_IN_CHECK.fullmatch(text)]


def clear(directory, keep):
    while found := descendants():
        for pid in found:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        time.sleep(0.01)
    if not keep:
        shutil.rmtree(directory, ignore_errors=True)  # a mount in it is in our namespace, and ends with us
