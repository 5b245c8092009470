#!/usr/bin/python3
"""Runs the whole system for a while, disturbs it, and accounts for every message, every command and every log line.

Usage: accounts.py [--seed N] [--seconds S] [--build DIR] [--keep]

Each round raises numbered messages while operators send commands, lock and log in. It draws at random what happens
meanwhile: the scheduler, the client or a module is killed, an operator restarts the scheduler, files are replaced, a
log is moved away, the disk is full for a moment. In other rounds nobody is connected, and there may be more messages
than the scheduler keeps. After each round the messages must add up. The number that was raised must be the sum of:
those that were shown; those kept for the next status; those counted as lost; those queued in a killed scheduler, or on
the way to its queues; and information that was raised while nobody was connected. Each command must have its last line,
and each log line must be whole and occur once. Exit status 1 otherwise.
"""

import argparse
import collections
import contextlib
import fcntl
import os
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import termios
import threading
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "client"))
from scratch import LIBC, PATIENCE, ROOT, Scheduler, clear, descendants, scratch, wait_for  # noqa: E402

RING = 127  # messages that wait for one connection
MESSAGE = re.compile(rb"[EWI]0113:n(\d+)\.")
LOST = re.compile(rb"(\d+) messages were lost")
EVENT_LINE = re.compile(rb"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d : [EWI]0113:n\d+\.x*(\.\.\.)?")
TRACE_LINE = re.compile(rb"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d thr:[0-9a-f]{8} .*")
# What operators send, and the lines that may end the answer.
OVER = rb"__over__ 0 0"
COMMANDS = {"parts\tstatus": (OVER,), "parts\tslow": (OVER,), "parts\tfail": (rb"__over__ 7 0",), "show\tip": (OVER,),
            "parts\tlong": (OVER,), "brief\thang": (rb"__timeout__",), "nosuch": (rb"__unsupported__",),
            "lock": (OVER, rb"__busy__"), "unlock": (OVER, rb"__busy__"), "status": (OVER,), "modcntl": (OVER,)}
MODULE_COMMANDS = ("parts", "brief")
DEEDS = ("kill scheduler", "restart", "kill client", "kill module", "kill module", "replace files", "move a log",
         "full disk", "login")
END = re.compile(rb"(__over__ -?\d+ -?\d+|__timeout__|__busy__|__unsupported__)\r\n")


class Log(threading.Thread):
    """Reads all lines of a log across its rotations. A line without a newline is left: it may be removed again."""

    def __init__(self, path, form):
        super().__init__(daemon=True)
        self.path, self.form, self.lines, self.torn, self.files, self.read_before = path, form, [], [], {}, 0
        self.start()

    def run(self):
        names = [f"{self.path}.{i}" for i in (3, 2, 1, 0)] + [f"{self.path}.moved", str(self.path)]
        while True:
            opened = {}
            for name in names:
                with contextlib.suppress(OSError):
                    file = os.open(name, os.O_RDONLY)
                    number = os.fstat(file).st_ino
                    if number in opened:
                        os.close(file)
                    elif number in self.files:
                        os.close(file)
                        opened[number] = self.files[number]
                    else:
                        opened[number] = [file, 0]
            # Files without a name: renamed during the search, or gone. They come first, so that they are dropped first.
            self.files = {n: place for n, place in self.files.items() if n not in opened} | opened
            for place in self.files.values():
                self.read(place)
            while len(self.files) > 8:
                os.close(self.files.pop(next(iter(self.files)))[0])
            time.sleep(0.02)

    def forget(self):
        """Drops the lines so far and keeps only their number."""
        known = len(self.lines)
        self.read_before += known
        del self.lines[:known]

    def read(self, place):
        with contextlib.suppress(OSError):
            data = os.pread(place[0], 1 << 22, place[1])
            whole = data[:data.rfind(b"\n") + 1]
            place[1] += len(whole)
            lines = whole.splitlines()
            self.lines += lines
            self.torn += [line for line in lines if not self.form.fullmatch(line)]


class Operator(threading.Thread):
    """Sends drawn commands on a connection of its own, and looks at the end of each answer."""

    def __init__(self, run, number):
        super().__init__(daemon=True)
        self.account, self.random = run, random.Random(run.random.random())
        self.number, self.seen, self.ends, self.odd = number, b"", collections.Counter(), []
        self.leaving = threading.Event()
        self.socket, self.rest = None, b""
        self.start()

    def connect(self):
        with contextlib.suppress(OSError):
            self.socket, self.rest = socket.create_connection(("127.0.0.1", self.account.scheduler.port), PATIENCE), b""
            return True

    def ask(self, command):
        """Returns the line that ends the answer; None when the connection has ended."""
        try:
            self.socket.sendall(command.encode() + b"\r")
            while not (found := END.search(self.rest)):
                piece = self.socket.recv(65536)
                if not piece:
                    raise ConnectionResetError
                self.rest += piece
            self.seen += self.rest[:found.end()] if command == "status" else b""
            self.rest = self.rest[found.end():]
            return found[1]
        except (ConnectionError, BrokenPipeError):
            self.seen += self.rest if command == "status" else b""
            return None

    def run(self):
        try:
            self.work()
        except Exception as error:
            self.odd.append(f"operator {self.number}: {error!r}")

    def work(self):
        while not (self.socket or self.leaving.is_set() or self.connect()):
            time.sleep(0.05)
        while not self.leaving.is_set():
            command = self.random.choice([*COMMANDS, "status", "parts\tslow"])
            end = self.ask(command)
            self.ends["sent"] += 1
            if end in COMMANDS[command]:
                self.ends["ended well"] += 1
            elif end == rb"__over__ 0 9" and command.split("\t")[0] in MODULE_COMMANDS:
                self.ends["module killed"] += 1
            elif end is None:
                self.ends["scheduler killed"] += 1
                self.socket.close()
                while not (self.leaving.is_set() or self.connect()):
                    time.sleep(0.05)
            else:
                self.odd.append(f"{command!r} ends with {end!r}")
            time.sleep(self.random.uniform(0, 0.1))

    def leave(self):
        """Fetches the last messages, because the scheduler drops the connection's queue when it is closed."""
        self.leaving.set()
        self.join(PATIENCE)
        self.ask("status")
        self.socket.close()


class Round:
    """What happens in one round is drawn when it is made."""

    def __init__(self, run, number):
        self.run, self.number = run, number
        draw = run.random
        self.kind = run.next_of(("busy", "busy", "busy", "alone", "overflow"))
        self.length = draw.uniform(1, 4)
        self.deeds = [run.next_of(DEEDS) for _ in range(draw.randrange(1, 4))] if self.kind == "busy" else []
        if not run.has_disk:
            self.deeds = [deed for deed in self.deeds if deed != "full disk"]
        self.client = draw.choice(("follow", "status")) if self.kind == "busy" else ""
        self.ends = [deed for deed in self.deeds if deed in ("kill scheduler", "restart")]
        self.raised, self.in_full, self.terms = {}, set(), collections.Counter()
        self.is_full, self.out, self.faults = False, b"", []

    def add(self, kind):
        run = self.run
        if self.kind == "busy" and len(self.raised) == RING:
            return  # a full ring would drop messages for an operator who asks late
        run.last += 1
        padding = "x" * run.random.choice((0, 0, 30, 900))
        pipe = os.open(run.scheduler.dir / "pipe", os.O_WRONLY | os.O_NONBLOCK)  # as modules do; fails without a reader
        os.set_blocking(pipe, True)
        os.write(pipe, f"{kind}0113:n{run.last}.{padding}\n".encode())
        os.close(pipe)
        self.raised[run.last] = kind
        if self.is_full:
            self.in_full.add(run.last)

    def go(self):
        run = self.run
        if self.kind == "busy":
            self.busy()
        else:
            wait_for(lambda: not run.connections(), "somebody stays connected")
            kinds = "EWI" if self.kind == "alone" else "EW"
            for _ in range(run.random.randrange(1, RING) if self.kind == "alone" else run.random.randrange(RING, 400)):
                self.add(run.random.choice(kinds))
            run.settle()
        self.late = run.drain()
        self.account()

    def busy(self):
        run, draw = self.run, self.run.random
        operators = [Operator(run, i) for i in range(2)]
        wait_for(lambda: all(operator.socket for operator in operators), "an operator is not admitted")
        follow = run.start_client("follow", "-n", "1") if self.client == "follow" else None
        kinds = "EW" if self.ends or "kill client" in self.deeds else "EWI"
        plan = [(draw.uniform(0, self.length), lambda: self.add(draw.choice(kinds)))
                for _ in range(draw.randrange(100))]
        plan += [(draw.uniform(0, self.length), lambda deed=deed: self.do(deed, follow)) for deed in self.deeds]
        if self.client == "status":
            plan += [(at / 2, lambda: self.status()) for at in range(int(2 * self.length))]
        start = time.monotonic()
        for at, deed in sorted(plan, key=lambda step: step[0]):
            time.sleep(max(0, start + at - time.monotonic()))
            deed()
        run.settle()
        for operator in operators:
            operator.leave()
            self.out += operator.seen
            self.faults += operator.odd
            run.commands += operator.ends
            self.terms["cut"] += operator.ends["scheduler killed"]
            self.terms["signals"] += operator.ends["module killed"]
            shown = MESSAGE.findall(operator.seen)
            self.expect(len(shown) == len(set(shown)), "an operator was shown a message twice")
        if follow:
            follow.send_signal(signal.SIGINT)
            by_client = follow.communicate(timeout=PATIENCE)[0]
            self.out += by_client
            shown = MESSAGE.findall(by_client)
            self.expect(len(shown) == len(set(shown)), "the follower showed a message twice")

    def status(self):
        self.out += self.run.client("status")

    def do(self, deed, follow):
        run = self.run
        if deed in ("kill scheduler", "restart"):
            pid = int((run.scheduler.dir / "log/sched.pid").read_text())
            if deed == "kill scheduler":
                os.kill(pid, signal.SIGKILL)
                for _ in range(run.random.randrange(40)):  # these wait in the pipe
                    self.add("E")
            else:
                run.settle()  # the supervisor ends too, so nobody keeps the pipe
                address = "127.0.0.1", run.scheduler.port
                with contextlib.suppress(OSError), socket.create_connection(address) as operator:
                    operator.sendall(b"restart\tsched\r")
                    operator.recv(100)
            run.deeds[deed] += 1
            wait_for(lambda: run.is_another(pid), "the scheduler is not started again")
        elif deed == "kill client" and follow:
            follow.kill()
            run.deeds[deed] += 1
        elif deed == "kill module":
            for pid in [pid for pid, name in descendants().items() if name == "module"]:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
                    run.deeds[deed] += 1
        elif deed == "replace files":
            for name in ("vgd_modules", "timer_jobs"):
                path = run.scheduler.dir / "config" / name
                path.with_suffix(".new").write_text(path.read_text() + "# another\n")
                path.with_suffix(".new").rename(path)
            run.deeds[deed] += 1
        elif deed == "move a log":
            run.settle()
            for log in run.logs:
                with contextlib.suppress(FileNotFoundError):
                    os.rename(log.path, f"{log.path}.moved")
            run.deeds[deed] += 1
        elif deed == "full disk":
            self.full_disk()
        elif deed == "login":
            self.out += run.client("-b", "127.0.0.2", "--password-file", run.dir / "right", "status")
            run.deeds[deed] += 1

    def full_disk(self):
        run = self.run
        run.settle()
        filler = run.scheduler.dir / "filler"
        self.is_full = True
        with contextlib.suppress(OSError), filler.open("wb", 0) as file:
            while True:
                file.write(bytes(4096))
        for _ in range(run.random.randrange(20)):
            self.add(run.random.choice("EW"))
            time.sleep(0.02)
        run.settle()
        filler.unlink()
        self.is_full = False
        run.deeds["full disk"] += 1

    def account(self):
        """Each term is counted by itself; together they must be what was raised."""
        run, terms = self.run, self.terms
        out = collections.Counter(int(n) for n in MESSAGE.findall(self.out))
        late = collections.Counter(int(n) for n in MESSAGE.findall(self.late))
        logged = collections.Counter(int(n) for line in run.logs[0].lines for n in MESSAGE.findall(line))
        traced = collections.Counter(int(n) for line in run.logs[1].lines if b"event:vgdmsg" in line
                                     for n in MESSAGE.findall(line))
        for log in run.logs:
            log.forget()
        terms["raised"] = len(self.raised)
        terms["shown"] = sum(1 for n in self.raised if out[n])
        terms["kept"] = sum(1 for n in self.raised if late[n] and not out[n])
        terms["lost"] = sum(map(int, LOST.findall(self.out + self.late)))
        terms["nobody"] = sum(kind == "I" for kind in self.raised.values()) if self.kind == "alone" else 0
        gone = [n for n in self.raised if not out[n] and not late[n]]
        if self.ends:
            # While the disk was full, queued messages may be missing in the event log.
            terms["ring"] = sum(1 for n in gone if logged[n] or n in self.in_full)
            terms["on the way"] = len(gone) - terms["ring"]
        if "kill client" in self.deeds:
            terms["client"] = len(gone) - terms["ring"] - terms["on the way"]
        sums = sum(terms[term] for term in ("shown", "kept", "lost", "nobody", "ring", "on the way", "client"))
        self.expect(sums == terms["raised"], f"{sums} messages instead of {terms['raised']}; gone: {gone[:9]}")
        self.expect(terms["ring"] <= RING * len(self.ends), f"{terms['ring']} messages in the rings at a kill")
        self.expect(terms["on the way"] <= len(self.ends), f"{terms['on the way']} messages on the way at a kill")
        self.expect(terms["client"] <= 2, f"{terms['client']} messages lost with a killed client")
        # An operator may come back before the scheduler is gone.
        self.expect(terms["cut"] <= 4 * len(self.ends), f"{terms['cut']} commands cut by a killed scheduler")
        self.expect(terms["signals"] == 0 or "kill module" in self.deeds, "a module was ended by an unexpected signal")
        for what, counts in (("event log", logged), ("trace", traced)):
            wrong = [n for n in self.raised if counts[n] != 1 and not (n in self.in_full and counts[n] == 0)]
            self.expect(len(wrong) <= len(self.ends), f"not once in the {what}: {[(n, counts[n]) for n in wrong[:9]]}")
            terms[f"not in the {what}"] = sum(1 for n in self.raised if not counts[n])
        self.expect(not (set(out) | set(late) | set(logged)) - set(self.raised), "a message of another round")
        for log in run.logs:
            self.expect(not log.torn, f"torn lines in {log.path.name}: {[line[:99] for line in log.torn[:3]]}")

    def expect(self, holds, what):
        if not holds:
            self.faults.append(what)


class Run:
    def __init__(self, options):
        self.options, self.random = options, random.Random(options.seed)
        self.dir = scratch()
        (self.dir / "suite").mkdir()
        self.has_disk = LIBC.mount(b"none", bytes(self.dir / "suite"), b"tmpfs", 0, b"size=12m,mode=0755") == 0
        (self.dir / "right").write_text("secret\n")
        self.scheduler = Scheduler(options.build, self.dir / "suite", True)
        os.close(self.scheduler.pipe)  # only the supervisor keeps the pipe open
        self.logs = [Log(self.scheduler.dir / "log/event_log", EVENT_LINE),
                     Log(self.scheduler.dir / "log/sched_log", TRACE_LINE)]
        self.last, self.decks = 0, {}
        self.deeds, self.commands, self.terms = (collections.Counter() for _ in range(3))

    def next_of(self, all_of_them):
        """Draws each of them once before one comes again."""
        if not self.decks.get(all_of_them):
            self.decks[all_of_them] = self.random.sample(all_of_them, len(all_of_them))
        return self.decks[all_of_them].pop()

    def command(self, *words):
        return [self.options.build / "schedctl", "-p", str(self.scheduler.port), *map(str, words)]

    def environment(self):
        return os.environ | {"HOME": str(self.dir), "XDG_STATE_HOME": str(self.dir / "state")}

    def start_client(self, *words):
        return subprocess.Popen(self.command(*words), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, env=self.environment())

    def client(self, *words):
        return self.start_client(*words).communicate(timeout=PATIENCE)[0]

    def connections(self):
        return f":{self.scheduler.port:04X} " in "".join(
            line for line in Path("/proc/net/tcp").read_text().splitlines() if line.split()[3] == "01")

    def is_another(self, pid):
        with contextlib.suppress(ValueError):
            return self.scheduler.listens() and int((self.scheduler.dir / "log/sched.pid").read_text()) != pid

    def settle(self):
        """Waits until the pipe is empty and the last message has been dealt with."""
        def waiting():
            pipe = os.open(self.scheduler.dir / "pipe", os.O_RDONLY | os.O_NONBLOCK)
            try:
                return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)))[0]
            finally:
                os.close(pipe)
        wait_for(lambda: self.scheduler.listens() and not waiting(), "the scheduler does not take its messages")
        before = -1
        while before != len(self.logs[0].lines):
            before = len(self.logs[0].lines)
            time.sleep(0.2)

    def drain(self):
        """Returns what the client still shows."""
        text, end = b"", time.monotonic() + PATIENCE
        while time.monotonic() < end:
            lingering = [pid for pid, name in descendants().items() if name == "schedctl"]
            text += (piece := self.client("status"))
            if not MESSAGE.search(piece) and not lingering:
                break
        return text

    def go(self):
        bad, end, number = 0, time.monotonic() + self.options.seconds, 0
        while time.monotonic() < end:
            number += 1
            one = Round(self, number)
            one.go()
            self.terms += one.terms
            bad += bool(one.faults)
            if one.faults:
                print(f"round {number}, {one.kind} {one.client} {one.deeds}: {dict(one.terms)}", *one.faults,
                      sep="\n    ", flush=True)
        print(f"{number} rounds; deeds: {dict(self.deeds)}")
        print(f"messages: {dict(self.terms)}")
        print(f"commands: {dict(self.commands)}")
        print(f"lines: {self.logs[0].read_before} in the event log, {self.logs[1].read_before} in the trace; torn: "
              f"{sum(len(log.torn) for log in self.logs)}; bad rounds: {bad}")
        return 1 if bad or not self.terms["raised"] or not self.commands["ended well"] else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--build", type=lambda name: Path(name).resolve(), default=ROOT / "build")
    parser.add_argument("--keep", action="store_true")
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    run = Run(options)
    try:
        status = run.go()
    finally:
        clear(run.dir, options.keep)
    sys.exit(status)


if __name__ == "__main__":
    main()
