"""Schedulers and clients in a scratch directory, and the processes that they leave; shared by the trials."""

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
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
LIBC = ctypes.CDLL(None, use_errno=True)
PATIENCE = 60  # seconds after which a program that should have ended is killed
NUMBER = re.compile(rb"W0104:n(\d+)\.")  # of a message
MODULE = "#!/bin/sh\ncase $1 in slow) sleep 0.4 ;; fail) exit 7 ;; long) seq 30000 ;; hang) sleep 5 ;; esac\n"


def wait_for(condition, what, limit=PATIENCE):
    end = time.monotonic() + limit
    while not (found := condition()):
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(0.01)
    return found


def state_of(pid):
    """The letter of a process's state, its parent and its name; X when it is gone."""
    try:
        head, _, tail = Path(f"/proc/{pid}/stat").read_text().rpartition(") ")
        return tail[0], int(tail.split()[1]), head.partition("(")[2]
    except OSError:
        return "X", 0, ""


def descendants():
    """The names of living processes that this one has started, also of those that outlived their parents."""
    states = {int(pid): state_of(pid) for pid in os.listdir("/proc") if pid.isdigit()}

    def is_ours(pid):
        parent = states.get(pid, "X0")[1]
        return parent == os.getpid() or (parent in states and is_ours(parent))

    return {pid: name for pid, (letter, _, name) in states.items() if letter not in "XZ" and is_ours(pid)}


def free_port():
    for port in random.SystemRandom().sample(range(10000, 20000), 500):
        with contextlib.suppress(OSError), socket.socket() as probe:
            probe.bind(("0.0.0.0", port))
            return port
    raise OSError("no free port")


class Scheduler:
    """A scheduler in a suite directory of its own."""

    def __init__(self, build, directory, supervised=False):
        self.dir, self.port, self.raised = directory, free_port(), 0
        env = dict(os.environ, VGD_PIPE=str(directory / "pipe"))
        for name in ("bin", "config", "temp", "update", "data", "log"):
            (directory / name).mkdir(parents=True)
            env[f"VGD_{name}"] = str(directory / name)
        (directory / "bin/module").write_text(MODULE)
        (directory / "bin/module").chmod(0o755)
        modules = "allmodcall parts prognosis diag devconf confchg analysis qmx ehello"
        internal = "status modcntl debug quit restart lock unlock show hello login ipset send res_data res_send"
        lines = [f"{word} module on 60\n" for word in modules.split()] + ["brief module on 1\n"]
        (directory / "config/vgd_modules").write_text("".join(lines + [f"{w} - on 0\n" for w in internal.split()]))
        (directory / "config/timer_jobs").touch()
        os.mkfifo(directory / "pipe")
        self.pipe = os.open(directory / "pipe", os.O_RDWR)
        subprocess.run([build / "schedpasswd", "--stdin"], env=env, input=b"secret\n", check=True,
                       stdout=subprocess.DEVNULL)
        self.env, self.supervised = env, supervised
        self.command = [build / "sched", *([] if supervised else ["-D"]), "-N", "0", "-p", str(self.port)]
        self.start()
        wait_for(self.listens, "the scheduler does not listen")

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

    def signal(self, number):
        with contextlib.suppress(ProcessLookupError):  # it ends after "restart sched", and the file stays
            os.kill(int((self.dir / "log/sched.pid").read_text()), number)

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


def clear(directory, keep):
    while found := descendants():
        for pid in found:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        time.sleep(0.01)
    if not keep:
        shutil.rmtree(directory, ignore_errors=True)  # a mount in it is in our namespace, and ends with us
