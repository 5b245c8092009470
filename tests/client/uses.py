"""One drawn use of the client: its input, its output, and a signal at a drawn moment."""

import contextlib
import os
import pty
import random
import re
import select
import signal
import subprocess
import threading
import time
import urllib.request
from pathlib import Path

from scratch import PATIENCE, free_port, state_of, wait_for

# Kind, options and words, exit code, weight. A "command" ends by itself, a "session" reads lines from a pipe, a
# "prompt" gets keys, an "endless" one is ended by a signal, by its terminal or by the end of its reader.
USES = [
    ("command", "status", 0, 6), ("command", "--json status", 0, 3), ("command", "-H {here} status", 0, 1),
    ("command", "--hosts {hosts} status", 0, 4), ("command", "--hosts {hosts} --json status", 0, 2),
    ("command", "--hosts {hosts} --as-it-comes status", 0, 1), ("command", "parts status", 0, 3),
    ("command", "parts slow", 0, 2), ("command", "parts fail", 7, 1), ("command", "parts long", 0, 2),
    ("command", "brief hang", 203, 1), ("command", "--hosts {hosts} parts slow", 0, 2), ("command", "show ip", 0, 2),
    ("command", "-u trial modcntl", 0, 2), ("command", "--hosts {hosts} modcntl", 0, 3),
    ("command", "check", None, 3), ("command", "metrics", 0, 2), ("command", "metrics --output {dir}/prom", 0, 2),
    ("command", "quit", 0, 1), ("command", "restart sched", 0, 1), ("command", "--complete modcntl", 0, 1),
    ("command", "-t 1 status", 0, 2), ("command", "-t 1 --hosts {hosts} status", 0, 1),
    ("command", "-b 127.0.0.2 --password-file {dir}/right status", 0, 2),
    ("command", "-b 127.0.0.2 --password-file {dir}/wrong parts status", 204, 1),
    ("session", "", None, 6), ("prompt", "", None, 8), ("prompt", "-b 127.0.0.2", None, 2),
    ("endless", "watch -n 1", None, 5), ("endless", "--hosts {hosts} watch -n 1", None, 3),
    ("endless", "follow -n 1", 0, 3), ("endless", "watch --json -n 1", 0, 2),
    ("endless", "--hosts {hosts} watch --json -n 1", 0, 2), ("endless", "metrics --listen 127.0.0.1:{free}", None, 1),
]
LINES = ["status", "status", "parts status", "parts slow", "parts fail", "show ip", "modcntl", "nosuch", "parts long"]
KEYS = [*[line + "\r" for line in LINES], "status\r", "pa\t", "\t\t", "\x03", "sta\t\r"]


class Use(threading.Thread):
    """One run of schedctl: its input, its output, a signal at a drawn moment."""

    def __init__(self, trial, name, one_of_two):
        super().__init__(daemon=True, name=name)
        draw = self.random = random.Random(trial.random.random())
        fits = [use for use in USES if re.search(trial.options.use, f"{use[0]} {use[1]}")]
        if one_of_two:  # a restart takes the other's messages, and both must log in or none
            fits = [use for use in fits if "restart" not in use[1] and "127.0.0.2" not in use[1]] or fits
        self.kind, self.words, self.code, _ = draw.choices(fits, [use[3] for use in fits])[0]
        self.trial, self.out, self.faults, self.exit, self.seconds = trial, b"", [], None, 0
        self.begins = draw.choice((0, draw.uniform(0, 0.6))) if one_of_two else 0
        self.life = draw.uniform(0.05, 2.5)  # of an endless one, or of the keys and lines
        self.signal = draw.choices((0, signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL, signal.SIGSTOP),
                                   (5, 2, 2, 1, 1, 1))[0]
        self.signal_at = draw.choice((draw.uniform(0, 0.03), draw.uniform(0, 1.2)))
        outputs = ["pipe", "late", "closes", "terminal", "full", "closed"]
        self.output = "terminal" if self.kind == "prompt" else draw.choices(outputs, (6, 1, 2, 2, 1, 1))[0]
        self.kind = "prompt" if (self.kind, self.output) == ("session", "terminal") else self.kind
        self.lines = draw.choice((0, 0, 1, 2, 5))  # before the reader ends
        self.hangs_up = self.output == "terminal" and draw.random() < 0.25
        self.stops = self.kind == "prompt" and not self.hangs_up and draw.random() < 0.2  # Ctrl-Z and fg of a shell
        if self.stops:
            self.signal = 0
        self.is_screen = self.output == "terminal" and "watch" in self.words and "json" not in self.words
        self.reader = self.input = self.master = -1

    def __str__(self):
        sent = f", {signal.Signals(self.signal).name} after {self.signal_at:.3f} s" if self.signal else ""
        output = self.output + (f" after {self.lines} lines" if self.output == "closes" else "")
        return (f"{self.kind} [{self.words}], output {output}{' that hangs up' if self.hangs_up else ''}"
                f"{', Ctrl-Z' if self.stops else ''}{sent}: exit {self.exit} after {self.seconds:.2f} s")

    def fails(self):
        return self.output in ("full", "closed", "closes") or self.hangs_up

    def start_client(self):
        command = [self.trial.options.client, *self.words.format(**self.trial.places, free=free_port()).split()]
        standard = {}
        if self.output == "terminal":
            self.reader, end = pty.openpty()
            self.input = self.reader
            if self.stops:
                # Bash leaves a loop when its job stops.
                command = ["bash", "-mc", '"$@"' + "; fg 2>/dev/null" * 6, "x", *command]
            standard, command = dict.fromkeys(("stdin", "stdout", "stderr"), end), ["setsid", "-c", *command]
        else:
            self.reader, end = os.pipe()
            standard["stdout"] = os.open("/dev/full", os.O_WRONLY) if self.output == "full" else end
            standard["stderr"] = os.open(self.trial.dir / f"errors-{self.name}", os.O_WRONLY | os.O_CREAT, 0o600)
            standard["stdin"], self.input = os.pipe()
            if self.output == "closed":
                command = ["sh", "-c", 'exec "$@" >&-', "x", *command]
        if self.output == "closes" and self.lines == 0:
            self.drop_reader()
        self.process = subprocess.Popen(command, **standard, **self.trial.user_options(self.user),
                                        start_new_session=self.output != "terminal")
        for fd in {*standard.values(), end}:
            os.close(fd)

    def send(self, *signals):
        for number in signals:
            if self.process.poll() is None:
                self.process.send_signal(number)

    def type(self, text):
        with contextlib.suppress(OSError):
            os.write(self.input, text.encode())

    def ends_input(self):
        if self.input not in (-1, self.reader):
            os.close(self.input)
            self.input = -1

    def plan(self):
        """What happens to the client: seconds since its start, and the deed."""
        if self.signal:
            yield self.signal_at, lambda: self.send(self.signal)
        if self.signal == signal.SIGSTOP:
            yield self.signal_at + 1.5, lambda: self.send(signal.SIGCONT)
            yield self.signal_at + 0.2, self.look_while_stopped
        if self.hangs_up:
            yield self.random.uniform(0, self.life), self.close_reader
        if self.kind in ("prompt", "session"):
            words = [line + "\n" for line in LINES] if self.kind == "session" else KEYS + ["\x1a"] * 3 * self.stops
            times = sorted(self.random.uniform(0, self.life) for _ in range(self.random.randrange(6)))
            if "-b" in self.words:
                times = [0.5 + when for when in times]
                yield 0.5, lambda: self.type("secret\r")
            for when in times:
                yield when, lambda word=self.random.choice(words): self.type(word)
        if self.kind == "session":
            last = self.random.choice(("", "quit\n", "status\n"))
            yield self.life, lambda: (self.type(last), self.ends_input())
        elif self.kind == "prompt":
            last = self.random.choice(("\x04", "quit\r"))
            yield from ((self.life + 0.7 + i, lambda i=i: self.type(last if i % 3 < 2 else "\x03")) for i in range(40))
        elif self.kind == "endless":
            ends = [lambda: self.send(signal.SIGINT), lambda: self.send(signal.SIGTERM)]
            if self.output == "terminal":
                ends += [lambda: self.type("q"), lambda: self.type("\x03")]
            end = self.random.choice(ends)
            if "listen" in self.words:
                yield self.life / 2 + 0.1, self.scrape
            yield from ((self.life + 2.5 * i, end if i < 3 else ends[0]) for i in range(12))
        else:
            yield 0, self.ends_input

    def scrape(self):
        port = Path(f"/proc/{self.process.pid}/cmdline").read_text().rpartition(":")[2].rstrip("\0")
        target = f"http://127.0.0.1:{port}/metrics?target=127.0.0.1:{self.trial.schedulers[0].port}"
        with contextlib.suppress(OSError):
            urllib.request.urlopen(target, timeout=5).read()

    def look_while_stopped(self):
        start = time.monotonic()
        self.trial.status(self.user, self.trial.schedulers[0])
        if time.monotonic() - start > 5 and not self.trial.pause:
            self.faults.append(f"status waited {time.monotonic() - start:.1f} s for a stopped process")

    def read(self, seconds):
        """Returns False at the end of the output, and when nothing came."""
        if not select.select([self.reader], [], [], seconds)[0]:
            return False
        with contextlib.suppress(OSError):  # of a terminal at its end
            if piece := os.read(self.reader, 65536):
                self.out += piece
                return True
        self.drop_reader()
        return False

    def drop_reader(self):
        if self.reader >= 0:
            os.close(self.reader)
        self.input = -1 if self.input == self.reader else self.input
        self.reader = -1

    def close_reader(self):
        """What has reached the reader counts as shown, so the client is stopped while that is read."""
        self.send(signal.SIGSTOP)
        wait_for(lambda: state_of(self.process.pid)[0] in "TXZ", "the client does not stop")
        while self.reader >= 0 and self.read(0.05):
            pass
        self.drop_reader()
        self.send(signal.SIGCONT)

    def run(self):
        try:
            time.sleep(self.begins)
            self.start_client()
            self.attend(sorted(self.plan(), key=lambda step: step[0]))
        except Exception as error:
            self.faults.append(repr(error))

    def attend(self, plan):
        start, ended_at = time.monotonic(), 0
        while self.reader >= 0 or not ended_at:
            now = time.monotonic() - start
            while plan and plan[0][0] <= now and not ended_at:
                plan.pop(0)[1]()
            if not ended_at and self.process.poll() is not None:
                ended_at, self.seconds, self.exit = now, now, self.process.returncode
            reading = self.reader >= 0 and (self.output != "late" or now > 1.3)
            if not (reading and self.read(0.01)):
                time.sleep(0.005)
            if self.reader >= 0 and self.output == "closes" and self.out.count(b"\n") >= self.lines > 0:
                self.close_reader()
            if now > (ended_at or PATIENCE) + 5:
                self.faults.append("holds its output open" if ended_at else "hangs")
                self.process.kill()
                break
        self.ends_input()
        if self.output != "terminal":
            self.out += (self.trial.dir / f"errors-{self.name}").read_bytes()
        if self.exit in (-signal.SIGSEGV, -signal.SIGABRT):
            self.faults.append("crashed")
        # A busy machine may take so long for the start that the signal came before the client waits for signals.
        ended_early = (self.kind == "endless" and self.exit in (-signal.SIGINT, -signal.SIGTERM) and
                       self.out in (b"", b"^C"))
        undisturbed = not (ended_early or self.signal or self.fails() or self.trial.pause or
                           self.trial.disk != "normal")
        if undisturbed and self.code is not None and self.exit != self.code:
            self.faults.append(f"exit code {self.exit} instead of {self.code}: {self.out[-200:]!r}")
