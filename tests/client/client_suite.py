"""A scheduler with its client, which runs as a command, at a terminal or in a pipe."""

import array
import collections
import contextlib
import fcntl
import os
import shlex
import shutil
import signal
import socket
import subprocess
import termios
import threading
import time
from pathlib import Path

import pexpect

from scratch import PATIENCE, Suite, descendants, state_of, wait_for

OVER = b"__over__ 0 0\r\n"


def in_order(text, *parts):
    """Fails unless the text has all parts in this order."""
    place = 0
    for part in parts:
        place = text.find(part, place)
        assert place >= 0, f"{part!r} is missing or not in its place in:\n{text}"
        place += len(part)


def unread(port, end):
    """Whether bytes wait unread on a connection to this port. end: the side that has to read, "server" or "client"."""
    rows = (row.split() for row in Path("/proc/net/tcp").read_text().splitlines())
    column = {"server": 1, "client": 2}[end]
    return any(row[3] == "01" and row[column].endswith(f":{port:04X}") and not row[4].endswith(":00000000")
               for row in rows)


def agent_of(client):
    """The client's agent: its process that holds the connections."""
    return wait_for(lambda: next((pid for pid in descendants() if state_of(pid)[1] == client.pid), 0), "no agent")


def processor_wanted(pid):
    """Seconds in which it ran, or wanted to while others ran: a busy loop never waits, on a loaded machine, too."""
    return sum(map(int, Path(f"/proc/{pid}/schedstat").read_text().split()[:2])) / 1e9


def is_idle(*pids):
    """Whether the main thread of none of these processes is busy for a whole second."""
    before = [processor_wanted(pid) for pid in pids]
    time.sleep(1)
    return all(processor_wanted(pid) - earlier < 0.9 for pid, earlier in zip(pids, before))


def assert_idle(*clients):
    """Fails when one of these processes or its agent does not wait most of the time, or draws all the time."""
    processes = {pid: processor_wanted(pid) for client in clients for pid in (client.pid, agent_of(client))}
    begin, drawings = time.monotonic(), collections.Counter()
    while time.monotonic() < begin + 3:
        time.sleep(0.02)
        for client in clients:
            if isinstance(client, Terminal):
                with contextlib.suppress(pexpect.TIMEOUT):
                    drawings[client.pid] += client.read_nonblocking(65536, 0).count("\x1b[H")
    seconds = time.monotonic() - begin
    assert [pid for pid, before in processes.items() if processor_wanted(pid) - before > 0.9 * seconds] == []
    assert max(drawings.values(), default=0) < 100


def passed_on(pid):
    """The descriptors that a program started by this process would get, such as an editor started by libedit."""
    infos = {int(path.name): path.read_text() for path in Path(f"/proc/{pid}/fdinfo").iterdir()}
    return [fd for fd, info in infos.items() if fd > 2 and not int(info.split()[3], 8) & os.O_CLOEXEC]


class ScriptedHost(threading.Thread):
    """Serves these connections one after the other, each a list of answers, and refuses further ones.

    An answer may be a function that returns it. The last answer of a connection and its end are one packet, so the
    client reads both at once.
    """

    def __init__(self, connections):
        super().__init__(daemon=True)
        self.listener, self.connections, self.requests = socket.create_server(("127.0.0.1", 0)), connections, []
        self.port = self.listener.getsockname()[1]
        self.start()

    def run(self):
        with self.listener:
            for answers in self.connections:
                connection, _ = self.listener.accept()
                with connection:
                    for number, answer in enumerate(answers, 1):
                        self.requests.append(b"")
                        while byte := connection.recv(1).strip(b"\r"):
                            self.requests[-1] += byte
                        answer = answer() if callable(answer) else answer
                        connection.send(answer, socket.MSG_MORE if number == len(answers) else 0)


class ClientSuite(Suite):
    def __init__(self, build, directory):
        super().__init__(build, directory)
        self.command = ["setpriv", "--pdeathsig", "KILL", *self.command]  # the scheduler ends with the test
        self.client, self.programs = str(build / "schedctl"), []
        # The zone is west of UTC: a wrong sign of it shows as hours.
        self.env |= {"XDG_STATE_HOME": str(directory / "state"), "SCHED_PORT": str(self.port), "TZ": "XST4:30",
                     "LC_ALL": "C.UTF-8", "TERM": "xterm"}
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            self.env[name] = f"{os.environ.get(name, '')}:log_path={directory}/sanitizer"

    def path(self, name):
        return str(self.dir / name)

    def write(self, name, text):
        (self.dir / name).write_text(text)

    def read(self, name):
        """Its text, which is empty when there is no such file."""
        with contextlib.suppress(FileNotFoundError):
            return (self.dir / name).read_text(errors="replace")
        return ""

    def listed(self, line):
        self.write("config/vgd_modules", self.read("config/vgd_modules") + line + "\n")

    def start(self):
        super().start()
        wait_for(self.listens, "the scheduler does not listen")

    def stop(self):
        self.process.terminate()
        self.process.wait(PATIENCE)

    def connections(self):
        """How many were made since the start."""
        return self.read("log/trace").count(") is coming")

    def all_are_gone(self):
        return self.read("log/trace").count(") is gone.") == self.connections()

    def event(self, text):
        os.write(self.pipe, text.encode())

    def events(self):
        return sum(log.read_bytes().count(b"\n") for log in (self.dir / "log").glob("event_log*"))

    def lose_state(self):
        """Nothing can be stored any more."""
        def is_replaced():  # a follower may make the directory again
            shutil.rmtree(self.dir / "state", ignore_errors=True)
            with contextlib.suppress(OSError):
                self.write("state", "")
            return (self.dir / "state").is_file()
        wait_for(is_replaced, "the directory is made again and again")

    def await_events(self, count):
        wait_for(lambda: self.events() >= count, f"not {count} events but {self.events()}")
        assert self.events() == count

    def message(self, text):
        """Raises it, and returns when the scheduler has queued it."""
        before = self.events()
        self.event(text + "\n")
        self.await_events(before + 1)

    def message_alone(self, text):
        """The same while no client is connected. A connection that is just ending would take it."""
        wait_for(self.all_are_gone, "a client stays connected")
        self.message(text)

    def ctl(self, words, *prefix):
        """What the client prints on both outputs, then "code" and its exit code, which is negative for a signal."""
        done = subprocess.run([*prefix, self.client, *shlex.split(words)], env=self.env, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=PATIENCE)
        return done.stdout.decode(errors="replace") + f"code {done.returncode}\n"

    def terminal(self, *words, kind="xterm", program=None):
        """The client at a terminal, or another program."""
        self.programs.append(Terminal([program or self.client, *words], self.env | {"TERM": kind}))
        return self.programs[-1]

    def piped(self, words, *prefix):
        """The client with its output in a pipe."""
        self.programs.append(Piped([*prefix, self.client, *shlex.split(words)], self.env, self.dir / "errors"))
        return self.programs[-1]

    def close(self):
        for program in self.programs:
            program.end_now()
        if self.process:
            self.process.send_signal(signal.SIGCONT)  # a test that failed may have left it stopped
            self.stop()
        os.close(self.pipe)
        print("".join(self.read("log/trace").splitlines(True)[-60:]))  # shown when the test fails


class Terminal(pexpect.spawn):
    def __init__(self, command, env):
        # Python ignores the signal of a broken pipe, and what is ignored is inherited.
        super().__init__(command[0], command[1:], env=env, dimensions=(12, 70), timeout=PATIENCE, maxread=65536,
                         encoding="utf-8", codec_errors="surrogateescape",
                         preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_DFL))
        self.delaybeforesend, self.str_last_chars = None, 5000
        self.ptyproc.delayafterclose = 0

    def until(self, text):
        """Waits for the text and returns the output up to and including it."""
        self.expect_exact(text)
        return self.before + self.after

    def press(self, keys):
        """Types keys once the program reads single keys, which it does with the echo off.

        It must sleep, too: the prompt for a password does not notice a signal that comes just before it reads.
        """
        wait_for(lambda: not self.getecho() and state_of(self.pid)[0] == "S", "the program does not read single keys")
        self.send(keys)

    def resize(self, rows, columns):
        self.setwinsize(rows, columns)

    def ended(self):
        """Waits for its end. Returns its exit code, negative for a signal, and the rest of the output."""
        self.expect(pexpect.EOF)
        wait_for(lambda: state_of(self.pid)[0] in "ZX", "it does not end")
        self.wait()
        return self.exitstatus if self.signalstatus is None else -self.signalstatus, self.before

    def end_now(self):
        if not self.terminated:
            self.kill(signal.SIGKILL)
            self.wait()
        self.close()


class Piped:
    def __init__(self, command, env, errors):
        self.reader, writer = os.pipe()
        self.errors = errors
        with errors.open("w") as file:
            self.process = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=writer, stderr=file)
        self.pid = self.process.pid
        os.close(writer)
        os.set_blocking(self.reader, False)
        self.bytes, self.at_end = b"", False

    def waiting(self):
        """The number of bytes in the pipe."""
        size = array.array("i", [0])
        fcntl.ioctl(self.reader, termios.FIONREAD, size)
        return size[0]

    def output(self):
        """All that has come so far."""
        with contextlib.suppress(BlockingIOError):
            while not self.at_end:
                piece = os.read(self.reader, 65536)
                self.bytes += piece
                self.at_end = not piece
        return self.bytes.decode(errors="replace")

    def shown(self, part, of=""):
        """How often the part is in those lines that have the text "of"."""
        return sum(line.count(part) for line in self.output().splitlines() if of in line)

    def until(self, part, count=1, of=""):
        """Waits until it is shown so often."""
        def there():
            if (found := self.shown(part, of)) != count and self.at_end:
                raise EOFError
            return found == count
        try:
            wait_for(there, part)
        except (EOFError, TimeoutError):
            shown = self.output() + self.errors.read_text()
            raise AssertionError(f"not {count} times {part!r}, but:\n{shown}") from None

    def drop(self):
        """The reader ends; then the client must end too. Returns its exit code."""
        self.output()
        os.close(self.reader)
        self.reader, self.at_end = -1, True
        return self.process.wait(PATIENCE)

    def ended(self, number=signal.SIGTERM, errors=""):
        """Ends it by a signal, and waits for the end of its output. Returns its exit code.

        errors: all that it has written to standard error, which the next one in a pipe overwrites; None: anything.
        """
        self.process.send_signal(number)

        def is_over():
            self.output()
            return self.at_end
        wait_for(is_over, "its output does not end")
        code = self.process.wait(PATIENCE)
        assert errors in (None, self.errors.read_text())
        return code

    def end_now(self):
        self.process.kill()
        self.process.wait()
        if self.reader >= 0:
            os.close(self.reader)
