#!/usr/bin/python3
"""Tries whether silent hosts delay the others: among healthy schedulers stand hosts that accept and say nothing, that
send half an answer, that send a byte a second, and that do not even answer the connection.

Usage: silent_hosts.py [--build DIR]. Exit status 1 when a healthy host's answer came late, or the client did not end
in its time or did not name each silent host.
"""

import argparse
import concurrent.futures
import contextlib
import os
import signal
import socket
import subprocess
import sys
import threading
import time
from pathlib import Path

sys.dont_write_bytecode = True
from scratch import ROOT, Scheduler, clear, scratch  # noqa: E402

ANSWER = b"confdate  2026-01-31T12:00:00+00:00\r\n"
HEALTHY = 3
PROMPT = 7  # seconds in which a healthy host's answer must be shown; behind a silent host it would take 10
# Words, the seconds after which the last silent host is given up, and whether a byte a second is an answer.
USES = (("status", 10, False), ("--json status", 10, False), ("modcntl", 10, False), ("-t 8 status", 8, False),
        ("-t 8 parts status", 8, True), ("--as-it-comes status", 10, False), ("watch", 0, False), ("follow", 0, False))


class SilentHost(threading.Thread):
    def __init__(self, kind):
        super().__init__(daemon=True)
        self.kind, self.socket, self.kept = kind, socket.socket(), []
        self.socket.bind(("127.0.0.1", 0))
        self.name = f"127.0.0.1:{self.socket.getsockname()[1]}"
        self.socket.listen(0 if kind == "full" else 100)
        if kind == "full":  # further connections are not answered
            for _ in range(4):
                self.kept.append(socket.socket())
                self.kept[-1].setblocking(False)
                self.kept[-1].connect_ex(self.socket.getsockname())
        else:
            self.start()

    def run(self):
        while True:
            self.kept.append(self.socket.accept()[0])
            if self.kind != "nothing":
                threading.Thread(target=self.answer, args=self.kept[-1:], daemon=True).start()

    def answer(self, connection):
        with contextlib.suppress(OSError):
            connection.recv(1000)
            if self.kind == "half":
                connection.sendall(ANSWER[:20])
            for byte in ANSWER * (self.kind == "drip"):
                connection.sendall(bytes([byte]))
                time.sleep(1)


def use(client, directory, hosts, healthy, words, limit, may_last):
    """Returns what is wrong."""
    env = dict(os.environ, XDG_STATE_HOME=str(directory / words.replace(" ", "")))
    (directory / words.replace(" ", "")).mkdir()
    command = [client, "--hosts", directory / "hosts", *words.split()]
    start, waiting, faults, last = time.monotonic(), set(healthy), [], 0
    with subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          text=True) as run:
        stop = threading.Timer(PROMPT if limit == 0 else limit + 10, run.send_signal, (signal.SIGINT,))
        stop.start()
        for line in run.stdout:
            for host in [host for host in waiting if host in line or host.rpartition(":")[2] in line]:
                waiting.remove(host)
                last = time.monotonic() - start
        errors = run.stderr.read()
        run.wait()
        stop.cancel()
    seconds = time.monotonic() - start
    if "parts" in words:
        waiting = {host for host in healthy if host in errors}  # the module prints nothing
    if waiting or last > PROMPT:
        faults.append(f"late or missing: {waiting}, the last after {last:.1f} s")
    # How long the healthy hosts took tells how slow this machine is now.
    if limit and not limit - 0.1 <= seconds <= limit + 6 + last + 10 * may_last:
        faults.append(f"ended after {seconds:.1f} s")
    if limit and not may_last and run.returncode != 206:
        faults.append("the exit code is not that of a time-out")
    missing = [host for kind, host in hosts if limit and host not in errors and not (may_last and kind == "drip")]
    if missing and "json" not in words:
        faults.append(f"not named: {missing}")
    print(f"{words:<24} last healthy host after {last:.2f} s, end after {seconds:.2f} s, exit code {run.returncode}",
          *faults, sep="\n    ", flush=True)
    return faults


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=lambda name: Path(name).resolve(), default=ROOT / "build")
    options = parser.parse_args()
    directory = scratch()
    try:
        schedulers = [Scheduler(options.build, directory / f"suite{i}") for i in range(HEALTHY)]
        healthy = [f"127.0.0.1:{scheduler.port}" for scheduler in schedulers]
        silent = [SilentHost(kind) for kind in ("nothing", "half", "drip", "full")]
        hosts = [(host.kind, host.name) for host in silent]
        (directory / "hosts").write_text("".join(f"{name}\n" for name in [*(name for _, name in hosts), *healthy]))
        with concurrent.futures.ThreadPoolExecutor() as pool:
            faults = list(pool.map(lambda row: use(options.build / "schedctl", directory, hosts, healthy, *row), USES))
    finally:
        clear(directory, False)
    sys.exit(1 if any(faults) else 0)


if __name__ == "__main__":
    main()
