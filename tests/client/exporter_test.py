"""`metrics --listen`: what the exporter answers, and that it takes no message away from the operator."""

import contextlib
import http.client
import os
import resource
import shlex
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from client_suite import agent_of, assert_idle, unread
from scratch import PATIENCE, free_port, send_signal, wait_for

ENDLESS = [b"a" * 100_000] * 1000


def text_of(answer):
    """Its body and its status."""
    return f"{answer.read().decode()}{answer.status}"


class Exporter:
    def __init__(self, suite, options, address):
        self.port, self.host = free_port(), address.partition(":")[0] or "127.0.0.1"
        self.errors = suite.dir / "errors"
        command = [suite.client, *shlex.split(options), "metrics", "--listen", f"{address}{self.port}"]
        hosts = suite.dir / "hosts"
        hosts.touch()
        with self.errors.open("w") as errors, hosts.open() as stdin:
            self.process = subprocess.Popen(command, env=suite.env, stdin=stdin, stdout=subprocess.DEVNULL,
                                            stderr=errors)
        self.pid = self.process.pid

    def listens(self):
        assert self.process.poll() is None, self.errors.read_text()
        with contextlib.suppress(OSError):
            return self.get("/-/healthy") == "OK\n200"

    def request(self, path):
        connection = http.client.HTTPConnection(self.host, self.port, timeout=PATIENCE)
        connection.request("GET", path)
        return connection

    def get(self, path):
        return text_of(self.request(path).getresponse())

    def raw(self, *pieces):
        """All that the server sends to these bytes."""
        answer = b""
        with socket.create_connection(("127.0.0.1", self.port), PATIENCE) as connection:
            with contextlib.suppress(ConnectionError):
                for piece in pieces:
                    connection.sendall(piece)
            with contextlib.suppress(ConnectionError):
                while piece := connection.recv(65536):
                    answer += piece
        return answer.decode()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def most_memory(self):
        """In kB, since its start."""
        return int(Path(f"/proc/{self.pid}/status").read_text().partition("VmHWM:")[2].split()[0])

    def end(self):
        self.process.terminate()
        assert self.process.wait(PATIENCE) == 0


class E2eExporter:
    @pytest.fixture
    def serve(self, suite):
        served = []

        def start(options="", address=":"):
            served.append(Exporter(suite, options, address))
            wait_for(served[-1].listens, "the exporter does not listen")
            return served[-1]

        suite.start()
        suite.here = f"127.0.0.1:{suite.port}"
        yield start
        for exporter in served:
            if exporter.process.poll() is None:
                exporter.end()

    def AnswersOnlyForAValidTarget(self, suite, serve, nobody):
        exporter, here = serve(address="localhost:"), suite.here
        assert "\nsched_up 1\n" in exporter.get(f"/metrics?target={here}")
        open_before = exporter.descriptors()  # with the file of the mailbox
        for request, answer in (
            (f"/metrics?target={nobody}", "\nsched_up 0\n"),
            (f"/metrics?target={'a' * 255}:12345", "\nsched_up 0\n"),
            ("/metrics", "\nsched_exporter_errors_total 0\n"),
        ):
            assert answer in exporter.get(request), request
        for target in ("", "-V", "a%20b:1", f"{here}%00", f"{here}&target=localhost", "a" * 256 + ":12345"):
            assert exporter.get(f"/metrics?target={target}") == "expected: /metrics?target=HOST:PORT\n400", target
        for target in "127.0.0.1:0", "127.0.0.1:99999":
            assert exporter.get(f"/metrics?target={target}").endswith("\n400"), target
        for path, code, kind, text in (
            (f"/metrics?target={here}", 200, "text/plain; version=0.0.4; charset=utf-8", "\nsched_up 1\n"),
            ("/metrics", 200, "text/plain; version=0.0.4; charset=utf-8", "sched_exporter_errors_total"),
            ("/other", 404, "text/plain; charset=utf-8", "not found\n"),
            ("/", 200, "text/html; charset=utf-8", '<a href="/metrics">'),
            ("/targets", 200, "application/json", "[]\n"),
            ("/-/healthy", 200, "text/plain; charset=utf-8", "OK\n"),
        ):
            answer = exporter.request(path).getresponse()
            assert (answer.status, answer.headers["Content-Type"]) == (code, kind) and text in answer.read().decode()
        wait_for(lambda: exporter.descriptors() <= open_before, "descriptors stay open")
        # Its messages are not kept from the operator while it runs.
        suite.message_alone("E0101:for the operator")
        exporter.get(f"/metrics?target={here}")
        wait_for(lambda: "E0101:for the operator" in suite.ctl("status"), "the message is not shown")

    def FaultOfItsOwnIsStatus500(self, suite, serve):
        suite.write("state", "")
        exporter = serve(address="0x7f000001:")  # not known as loopback
        assert exporter.get("/metrics?target=127.0.0.1:1") == f"only port {suite.port} may be asked\n400"
        answer = exporter.get(f"/metrics?target={suite.here}")
        assert "sched_up" not in answer and answer.endswith("500")
        assert "\nsched_exporter_errors_total 1\n" in exporter.get("/metrics")

    def AnswersStayInItsMemoryNoLongerThanNeeded(self, suite, serve):
        suite.write("hosts", f"db1 of={'a' * 100_000}\n")
        exporter = serve(f"--hosts {suite.path('hosts')}")
        before = exporter.most_memory()
        for _ in range(300):
            assert exporter.raw(b"HEAD /targets HTTP/1.1\r\nHost: x\r\n\r\n").startswith("HTTP/1.1 200 OK")
        # Another sanitizer keeps what is freed, and reports what is not.
        assert exporter.most_memory() - before < 10_000 or b"__asan_init" in Path(suite.client).read_bytes()

    def HostsFileSaysWhatMayBeAsked(self, suite, serve):
        suite.write("hosts", f"{suite.here} rack=7 room=b\nDB1:99 # far\n")
        exporter = serve("--hosts -", address="")
        assert exporter.get("/targets") == (
            f'[{{"targets":["{suite.here}"],"labels":{{"rack":"7","room":"b"}}}},'
            '{"targets":["db1:99"],"labels":{}}]\n200')
        assert "\nsched_up 1\n" in exporter.get(f"/metrics?target=localhost:{suite.port}")
        assert exporter.get("/metrics?target=db2:99") == "only targets of the hosts file may be asked\n400"

    def CostOfARequestIsBounded(self, suite, serve):
        exporter, target = serve(), f"/metrics?target={suite.here}"
        before = exporter.most_memory()
        for name, request, answer in (
            ("HTTP/1.0", [f"GET {target} HTTP/1.0\r\n\r\n".encode()], "\nsched_up 1\n"),
            ("HEAD", [f"HEAD {target} HTTP/1.1\r\nHost: x\r\n\r\n".encode()], "HTTP/1.1 200 OK"),
            ("a body", [b"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n", *ENDLESS[:10]],
             "HTTP/1.1 200 OK"),
            ("a method", [b"POST / HTTP/1.1\r\nHost: x\r\n\r\n"], "\r\nAllow: GET, HEAD\r\n"),
            ("no host", [b"GET / HTTP/1.1\r\n\r\n"], "HTTP/1.1 400"),
            ("a long line", [b"GET /", *ENDLESS], ""),  # judged by the memory, below
            ("a long header", [b"GET / HTTP/1.1\r\nHost: ", *ENDLESS], ""),
        ):
            assert answer in exporter.raw(*request), name
        pipelined = exporter.raw(b"GET / HTTP/1.1\r\nHost: x\r\n\r\n" * 2)
        assert pipelined.count(" 200 OK") == 1
        # A thousand requests that never end delay no other, and end.
        _, most_files = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most_files, most_files))  # of this process
        with contextlib.ExitStack() as slow:
            for _ in range(1000):
                connection = slow.enter_context(socket.create_connection(("127.0.0.1", exporter.port), PATIENCE))
                connection.send(b"GET / HTTP/1.1\r\nX: ")
            begin = time.monotonic()
            wait_for(lambda: exporter.descriptors() > 1000, "they are not accepted")
            assert "\nsched_up 1\n" in exporter.get(target)
            # ThreadSanitizer has records of its own of each byte.
            most = 80_000 if b"__tsan_init" in Path(suite.client).read_bytes() else 20_000
            assert exporter.most_memory() - before < most
            connection.settimeout(PATIENCE)
            assert connection.recv(1) == b"" and time.monotonic() - begin >= 11.5  # 10 s for HTTP and 2 s for a scheduler
            wait_for(lambda: exporter.descriptors() < 100, "they do not end")

    def SilentSchedulerDelaysNobodyAndLosesNoMessage(self, suite, serve):
        exporter, target = serve(), f"/metrics?target={suite.here}"
        assert "\nsched_up 1\n" in exporter.get(target)
        suite.message_alone("E0101:while it hung")
        suite.signal(signal.SIGSTOP)
        for at_least, at_most in (2, 8), (0, 2):  # at once, the second time
            begin = time.monotonic()
            assert "\nsched_up 0\n" in exporter.get(target)
            assert at_least <= time.monotonic() - begin < at_most
        assert_idle(exporter)
        exporter.end()
        suite.signal(signal.SIGCONT)
        wait_for(lambda: "E0101:while it hung" in suite.ctl("status"), "the message is not shown")

    def EndOfItsAgentIsReported(self, suite, serve):
        """A request that waits is answered before the exporter ends with the reason."""
        exporter = serve()
        suite.signal(signal.SIGSTOP)
        waiting = exporter.request(f"/metrics?target={suite.here}")
        wait_for(lambda: not unread(exporter.port, "server"), "the request is not read")
        os.kill(agent_of(exporter), signal.SIGKILL)
        assert text_of(waiting.getresponse()) == "the exporter ends\n503"
        assert exporter.process.wait(PATIENCE) == 200
        assert "has ended" in exporter.errors.read_text()

    def RequestThatComesAtTheEndIsRefused(self, serve):
        exporter = serve()
        late = http.client.HTTPConnection(exporter.host, exporter.port, timeout=PATIENCE)
        late.connect()
        assert exporter.get("/-/healthy") == "OK\n200"  # so it has accepted the other connection
        send_signal(exporter.pid, signal.SIGSTOP)  # so it sees both at once
        late.request("GET", "/")
        exporter.process.terminate()
        os.kill(exporter.pid, signal.SIGCONT)
        assert text_of(late.getresponse()) == "the exporter ends\n503"
        assert exporter.process.wait(PATIENCE) == 0

    def SecondRequestJoinsTheVisit(self, suite, second, serve):
        exporter = serve(f"-t {PATIENCE}")
        before = suite.connections()
        suite.signal(signal.SIGSTOP)
        requests = [exporter.request(f"/metrics?target={suite.here}") for _ in range(2)]
        wait_for(lambda: not unread(exporter.port, "server"), "the requests are not read")
        assert exporter.get("/-/healthy") == "OK\n200"
        assert "\nsched_up 1\n" in exporter.get(f"/metrics?target=127.0.0.1:{second.port}")
        assert_idle(exporter)
        suite.signal(signal.SIGCONT)
        assert all("\nsched_up 1\n" in text_of(request.getresponse()) for request in requests)
        assert suite.connections() == before + 1
