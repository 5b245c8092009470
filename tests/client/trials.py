#!/usr/bin/python3
"""Tries whether the client loses a message, whatever it is used for and however the use ends.

Usage: trials.py [--seed N] [--trials N] [--jobs N] [--only N] [--use REGEX] [--build DIR] [--keep]
       trials.py --stream SECONDS

A trial starts real schedulers in a scratch directory, raises numbered messages before, during and after one or two
drawn uses of schedctl, and runs "status" until nothing is left. Each message must have been shown exactly once; what
may be lost or shown twice stands in Trial.account(). Exit status 1 when a message was lost or shown twice against
that, or when a use hung, crashed or left a process. --stream raises 100 messages a second beside "status" in a loop.
"""

import argparse
import collections
import contextlib
import itertools
import multiprocessing
import os
import random
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import traceback
from pathlib import Path

sys.dont_write_bytecode = True
from scratch import (LIBC, NUMBER, PATIENCE, ROOT, Scheduler, clear, descendants, reports, scratch,  # noqa: E402
                     wait_for)
from uses import Use  # noqa: E402

DROPPED = re.compile(rb'(\d+) messages were lost|"lost":(\d+)|"count":(\d+)')
GARBAGE = random.Random(1).randbytes(3000) + b"\n+no record\n"
LETTER = f"+{1:020} 127.0.0.1:1 2026-01-31T12:00:00+00:00;W0104:not ours\n"  # as in a mailbox
NO_RESULT = {"counts": {}, "uses": [], "faults": [], "killed": 0, "text": "no result"}
OTHER_USER = 64321  # a user that no system has


def other_name():
    """A name of this host that has the mailbox of 127.0.0.1; without /etc/hosts that address itself."""
    with contextlib.suppress(OSError):
        socket.gethostbyname("localhost")
        return "LOCALHOST"
    return "127.0.0.1"


class Trial:
    """Everything of one trial is drawn when it is made."""

    def __init__(self, options, number):
        draw = self.random = random.Random(f"{options.seed} {number}")
        self.options, self.number, self.faults = options, number, []
        windows = draw.choices((1, 2), (7, 3))[0]
        self.uses = [Use(self, f"{i}", windows == 2) for i in range(windows)]
        is_root = os.geteuid() == 0
        self.sharing = draw.choices(("one user", "private", "shared"), (8, 1, 1))[0] if is_root else "one user"
        self.users = [os.geteuid()] + [OTHER_USER] * (self.sharing != "one user")
        for use, user in zip(self.uses, reversed(self.users * 2)):
            use.user = user
        self.disk = draw.choices(("normal", "odd", "full", "tight"), (7, 1, is_root, is_root))[0]
        self.pause = draw.choice((0, 0, 0, 0, draw.uniform(0.1, 2.5)))  # seconds in which the scheduler is stopped
        self.pauses_at = draw.choice((0, 0, draw.uniform(0, 0.3)))
        if any("-t 1" in use.words for use in self.uses):
            self.pause, self.pauses_at = draw.uniform(1, 3), 0
        self.umasks = {user: draw.choice((0o077, 0o022)) for user in self.users}
        counts = draw.choice((0, 1, 3, 8)), draw.choice((0, 0, 2, 10, 60)), draw.choice((0, 0, 1, 3))
        if windows == 1 and draw.random() < 0.04 and not self.uses[0].is_screen:
            counts = 300, 0, 0  # more than the scheduler keeps
        self.messages = [("before", 0)] * counts[0] + [
            ("during", draw.uniform(0, draw.choice((0.05, 0.5, 1.5)))) for _ in range(counts[1])]
        self.messages = sorted(self.messages, key=lambda m: m[1]) + [("after", 0)] * counts[2]
        self.equal = 0.1 if not any(use.is_screen for use in self.uses) else 0  # share of messages with an equal text
        if any("restart" in use.words for use in self.uses):  # the scheduler ends with what it has not handed over
            self.messages = [m for m in self.messages if m[0] == "before"]
        self.phase, self.raised, self.owner = {}, collections.Counter(), {}
        self.shown, self.later, self.dropped = collections.Counter(), collections.Counter(), 0
        self.others_seen, self.odd = [], []

    def set_up(self, directory):
        self.dir = directory
        directory.chmod(0o777)
        self.places = {"dir": str(directory), "hosts": str(directory / "hosts"), "here": other_name()}
        words = " ".join(use.words for use in self.uses)
        self.schedulers = [Scheduler(self.options.build, directory / f"suite{i}", "restart" in words)
                           for i in range(2 if "{hosts}" in words else 1)]
        (directory / "hosts").write_text("".join(f"127.0.0.1:{s.port}\n" for s in self.schedulers))
        (directory / "right").write_text("secret\n")
        (directory / "wrong").write_text("mistaken\n")
        (directory / "letter").write_text(LETTER)
        self.states = {user: directory / f"state-{user}" for user in self.users}
        for user in self.users:
            for path in (directory / f"home-{user}", self.states[user]):
                path.mkdir()
                os.chown(path, user, user)
        shared = Path("/var/lib/schedctl")  # the package's directory, in our own mount namespace
        if self.sharing == "shared" and LIBC.mount(b"none", bytes(shared.parent), b"tmpfs", 0, b"mode=0755") == 0:
            shared.mkdir()
            os.chown(shared, 0, OTHER_USER)
            shared.chmod(0o2770)
            self.states = dict.fromkeys(self.users, shared)
        elif self.sharing == "shared":
            self.sharing = "private"
        state = self.states[self.uses[0].user]
        if self.disk in ("full", "tight"):
            mode = b"size=4m,mode=2770,gid=%d" % OTHER_USER
            if LIBC.mount(b"none", bytes(state), b"tmpfs", 0, mode) != 0:
                self.disk = "normal"
        if "127.0.0.2" in words or self.disk != "normal":  # makes the directories, and known that a login is needed
            login = ("-b", "127.0.0.2", "--password-file", directory / "right") if "127.0.0.2" in words else ()
            for use in self.uses:
                self.client(use.user, *login, "-p", self.schedulers[0].port, "status")
            wait_for(lambda: not self.clients(), "a client does not end")

    def user_options(self, user):
        env = {name: value for name, value in os.environ.items() if not name.startswith(("SCHED_", "XDG_"))}
        env |= {"HOME": str(self.dir / f"home-{user}"), "TERM": "xterm", "SCHED_PORT": str(self.schedulers[0].port),
                **({} if self.sharing == "shared" else {"XDG_STATE_HOME": str(self.states[user])})}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            env[name] = f"{os.environ.get(name, '')}:log_path={self.dir}/sanitizer"
        env["ASAN_OPTIONS"] += ":detect_leaks=0"  # takes longer than the client itself; other tests look for leaks
        options = {"env": env, "cwd": self.dir, "umask": self.umasks[user]}
        return options | ({} if user == os.geteuid() else {"user": user, "group": user, "extra_groups": []})

    def client(self, user, *words):
        return subprocess.run([self.options.client, *map(str, words)], stdin=subprocess.DEVNULL, timeout=PATIENCE,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **self.user_options(user)).stdout

    def clients(self):
        return [pid for pid, name in descendants().items() if name.startswith("schedctl")]

    def disturb_disk(self):
        state = self.states[self.uses[0].user]
        if self.disk in ("full", "tight"):
            filler = os.open(state / "filler", os.O_WRONLY | os.O_CREAT)
            with contextlib.suppress(OSError):
                while True:
                    os.write(filler, bytes(4096))
            os.ftruncate(filler, max(0, os.fstat(filler).st_size - (200_000 if self.disk == "tight" else 0)))
            os.close(filler)
        elif self.disk == "odd":
            self.odd = [path / f"9.9{suffix}" for path in state.rglob("*") if path.is_dir()
                        for suffix in (".mail", ".follow", ".box")]
            for path in self.odd:
                path.write_bytes(GARBAGE)
                os.mkfifo(path.with_stem("9.8"))
                path.with_stem("9.7").symlink_to(self.dir / "letter")
                path.with_stem("9.6").symlink_to("nowhere")
                path.with_stem("9.5").mkdir()

    def mend_disk(self):
        for state in self.states.values():
            (state / "filler").unlink(missing_ok=True)
        if any(path.read_bytes() != GARBAGE or not path.with_stem("9.7").is_symlink() or
               not path.with_stem("9.8").is_fifo() for path in self.odd):
            self.faults.append("files that are no mail were changed")
        if self.odd and (self.dir / "letter").read_text() != LETTER:
            self.faults.append("a file behind a link was changed")

    def add(self, phase):
        number = len(self.phase)
        if self.phase.get(number) != phase or self.random.random() >= self.equal:
            number += 1
        padding = "x" * self.random.choice((0, 0, 0, 40, 900)) if len(self.messages) < 100 else ""
        self.owner.setdefault(number, self.random.randrange(len(self.schedulers)))
        self.phase[number] = phase
        self.raised[number] += 1
        self.schedulers[self.owner[number]].add(f"W0104:n{number}.{padding}\n")

    def settle(self):
        wait_for(lambda: all(s.has_all() for s in self.schedulers), "the scheduler does not take its messages")

    def run(self):
        for phase, _ in [m for m in self.messages if m[0] == "before"]:
            self.add(phase)
        self.settle()
        self.disturb_disk()
        due = [m for m in self.messages if m[0] == "during"]
        start = time.monotonic()
        pauses = [(self.pauses_at, signal.SIGSTOP), (self.pauses_at + self.pause, signal.SIGCONT)] if self.pause else []
        while pauses and pauses[0][0] == 0:
            self.schedulers[0].signal(pauses.pop(0)[1])
        for use in self.uses:
            use.start()
        while due or pauses or any(use.is_alive() for use in self.uses):
            now = time.monotonic() - start
            while due and due[0][1] <= now:
                self.add(due.pop(0)[0])
            if pauses and pauses[0][0] <= now:
                self.schedulers[0].signal(pauses.pop(0)[1])
            time.sleep(0.003)
        for scheduler in self.schedulers:
            wait_for(scheduler.listens, "the scheduler does not come back")
        self.mend_disk()
        lingering = len(self.clients())
        for _ in [m for m in self.messages if m[0] == "after"]:
            self.add("during" if lingering > 1 else "after")
        self.settle()
        self.drain()
        return self.account()

    def status(self, user, scheduler):
        self.others_seen.append(self.client(user, "-H", "127.0.0.1", "-p", scheduler.port, "status"))
        return len(NUMBER.findall(self.others_seen[-1]))

    def drain(self):
        end = time.monotonic() + 30
        users = self.users if self.sharing == "private" else self.users[:1]
        while True:
            lingering = self.clients()
            if not sum(self.status(user, scheduler) for user in users for scheduler in self.schedulers):
                if not lingering:
                    break
                time.sleep(0.05)
            if time.monotonic() > end:
                self.faults.append(f"processes are left: {lingering}")
                break
        self.faults += [f"{use}: {fault}" for use in self.uses for fault in use.faults]
        self.faults += reports(self.dir)

    def look(self, text, one_screen=False):
        """Counts the messages of an output. A screen shows a message again and again."""
        numbers = [int(number) for number in NUMBER.findall(text)]
        self.dropped += sum(int(next(filter(None, groups))) for groups in DROPPED.findall(text) if not one_screen)
        for scheduler in range(len(self.schedulers)):
            own = [n for n in numbers if self.owner.get(n) == scheduler]
            alone = len(self.uses) == 1 and self.uses[0].signal != signal.SIGSTOP  # else another status ran beside it
            if own != sorted(own) and alone and not one_screen:
                self.faults.append(f"out of order: {own}")
        return collections.Counter(set(numbers) if one_screen else numbers)

    def account(self):
        """What became of the messages."""
        for use in self.uses:
            if use.words != "check":  # its line names the newest message, which stays
                self.shown += self.look(use.out, use.is_screen)
        for text in self.others_seen:
            self.later += self.look(text)
        killed = any(use.signal == signal.SIGKILL for use in self.uses)
        beside = len(self.uses) > 1 or any(use.signal == signal.SIGSTOP for use in self.uses)
        # Keys may get into a prompt for the password. What a refused connection took is lost.
        refused = any("wrong" in use.words or (use.kind == "prompt" and b"login refused" in use.out)
                      for use in self.uses)
        # A message is lost when the disk is full and the client no longer waits for it.
        no_room = self.disk in ("full", "tight") and any(
            use.signal or use.kind == "endless" or use.fails()
            or self.pause and (use.kind != "command" or "-t 1" in use.words)
            for use in self.uses)
        parts = sum(use.fails() for use in self.uses)  # a failed write may have put out one message
        result, at = collections.Counter(), collections.defaultdict(list)
        for number, count in self.raised.items():
            difference = self.shown[number] + self.later[number] - count
            is_early = self.phase[number] == "before"
            if difference == 0:
                continue
            if difference < 0:
                kind = "dropped" if result["dropped"] - difference <= self.dropped else "refused" if refused else \
                    "no room" if no_room else "killed" if killed else "lost"
            else:
                kind = "twice b" if killed else "twice a" if beside and not is_early else \
                    "twice c" if result["twice c"] + difference <= parts else "twice"
            result[kind] += abs(difference)
            at[kind].append(number)
        if not (killed or beside or refused or no_room) and result["dropped"] != self.dropped:
            self.faults.append(f"{self.dropped} messages are counted as lost, {result['dropped']} are")
        result["raised"], result["shown"] = self.raised.total(), self.shown.total()
        result["kept"] = self.later.total()
        return {"counts": result, "uses": [f"{use.kind} {use.words}" for use in self.uses], "faults": self.faults,
                "killed": killed and self.raised.total(), "text": self.text(at)}

    def text(self, at):
        phases = {kind: [f"{n} {self.phase[n]}" for n in numbers] for kind, numbers in at.items()}
        pause = f", scheduler stopped for {self.pause:.2f} s from {self.pauses_at:.2f} s" if self.pause else ""
        return f"disk {self.disk}, {self.sharing}{pause}; " + "; ".join(map(str, self.uses)) + f"\n    {phases}"


def run_trial(options, number):
    """Runs one trial. Called in a process of its own."""
    directory = scratch()
    try:
        trial = Trial(options, number)
        trial.set_up(directory)
        result = trial.run()
    except Exception:
        result = NO_RESULT | {"faults": [traceback.format_exc()[-1500:]]}
    finally:
        clear(directory, options.keep)
    return result | ({"text": f"{result['text']}\n    {directory}"} if options.keep else {})


def stream(options):
    """100 messages a second beside "status" in a loop."""
    directory = scratch()
    try:
        options.seed, options.use = 0, "command status"
        trial = Trial(options, 0)
        trial.disk, trial.sharing, trial.users, trial.pause, trial.equal = "normal", "one user", [os.geteuid()], 0, 0
        trial.messages, trial.uses = [0] * 1000, trial.uses[:1]
        trial.uses[0].user, trial.umasks = os.geteuid(), {os.geteuid(): 0o022}
        trial.set_up(directory)
        end, rounds = time.monotonic() + options.stream, itertools.count(1)

        def raise_all():
            start = time.monotonic()
            for number in range(int(100 * options.stream)):
                time.sleep(max(0, start + number / 100 - time.monotonic()))
                trial.add("during")

        raiser = threading.Thread(target=raise_all)
        raiser.start()
        while time.monotonic() < end or raiser.is_alive():
            trial.status(os.geteuid(), trial.schedulers[0])
            done = next(rounds)
        trial.settle()
        trial.drain()
        counts = trial.account()["counts"]
    finally:
        clear(directory, options.keep)
    print(f"{counts['raised']} messages beside {done} times status: {counts['lost']} lost, {counts['twice']} twice, "
          f"{counts['dropped']} counted as lost", *trial.faults, sep="\n")
    sys.exit(1 if counts["lost"] or counts["twice"] or counts["dropped"] or trial.faults else 0)


def results(options, numbers):
    with multiprocessing.get_context("fork").Pool(options.jobs, maxtasksperchild=1) as pool:
        running = [(number, pool.apply_async(run_trial, (options, number))) for number in numbers]
        for number, trial in running:
            try:
                yield number, trial.get(600)
            except multiprocessing.TimeoutError:
                yield number, NO_RESULT | {"faults": ["it does not end"]}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1_000_000))
    parser.add_argument("--trials", type=int, default=60)
    parser.add_argument("--jobs", type=int, default=2 * len(os.sched_getaffinity(0)))
    parser.add_argument("--only", type=int, help="one trial, by its number")
    parser.add_argument("--use", default="", help="only uses that match")
    parser.add_argument("--build", type=lambda name: Path(name).resolve(), default=ROOT / "build")
    parser.add_argument("--keep", action="store_true", help="leave the scratch directories")
    parser.add_argument("--stream", type=float, metavar="SECONDS")
    options = parser.parse_args()
    options.client = options.build / "schedctl"
    if options.stream:
        return stream(options)
    print(f"seed {options.seed}", flush=True)
    sums, table, bad, killed = collections.Counter(), collections.defaultdict(collections.Counter), 0, 0
    numbers = range(options.trials) if options.only is None else [options.only]
    for number, result in results(options, numbers):
        counts = collections.Counter(result["counts"])
        sums += counts
        killed += result["killed"]
        for use in result["uses"]:
            table[use] += counts + collections.Counter(trials=1)
        is_bad = bool(counts["lost"] or counts["twice"] or result["faults"])
        bad += is_bad
        if is_bad or options.only is not None:
            print(f"trial {number}: {dict(counts)}\n    {result['text']}", *result["faults"], sep="\n    ", flush=True)
    columns = ("trials", "raised", "shown", "kept", "lost", "twice", "killed", "twice a", "twice b", "twice c",
               "dropped", "refused", "no room")
    print(f"{'a message of two uses counts for both':<58}", *(f"{column:>7}" for column in columns))
    for use, counts in sorted(table.items()) + [("all", sums + collections.Counter(trials=len(numbers)))]:
        print(f"{use:<58}", *(f"{counts[column]:>7}" for column in columns))
    share = sums["killed"] / max(1, killed)
    print(f"lost with a killed client: {sums['killed']} of {killed}, {100 * share:.2f} %; bad trials: {bad}")
    sys.exit(1 if bad or share > 0.01 else 0)


if __name__ == "__main__":
    main()
