"""`watch` and `follow`: what they show of each change, and that no message is lost when they end."""

import itertools
import os
import signal
import socket
import subprocess
import time
from glob import glob
from pathlib import Path

import pytest

from client_suite import OVER, ScriptedHost, agent_of, assert_idle, in_order, unread
from scratch import PATIENCE, send_signal, state_of, wait_for

UP, DOWN = "\x1b[A", "\x1b[B"
READER = "its reader ends"


def ask(port, line):
    """Sends the line on a connection of its own, and returns when it is answered."""
    with socket.create_connection(("127.0.0.1", port), PATIENCE) as operator:
        operator.sendall(line.encode() + b"\r")
        answer = b""
        while b"__over__" not in answer:
            assert (piece := operator.recv(4096)), answer
            answer += piece


def follow_changes(suite, second, several):
    here, there = f'"port":{suite.port},', f'"port":{second.port},'
    options = f"-H 127.0.0.1:{second.port},127.0.0.1" if several else ""  # the first host answers, so no limit runs for it
    follower = suite.piped(f"{options} -t 1 follow -n 1")
    for i in (1, 2):  # it may be started before the scheduler, and sees it come and go
        follower.until('"disconnected"', 2 * i - 1, here)
        suite.write("config/timer_jobs", "0 3 1 1 * diag\tstatus\n" * i)
        suite.start()
        follower.until('"connected"', 2 * i - 1, here)
        suite.message(f"E0101:fan {i}")
        follower.until(f'"text":"E0101:fan {i}', 1, here)
        follower.until('"name":"error","set":true}', i, here)
        checked = suite.ctl("check")
        assert "CRITICAL" in checked and f"E0101:fan {i}" in checked
        metrics = suite.ctl("metrics")
        assert f'_total{{severity="error"}} {i}\n' in metrics and f"\nsched_timer_jobs {i}\n" in metrics
        before = suite.connections()
        suite.signal(signal.SIGSTOP)  # its connection is kept, and what comes late is written
        follower.until("no answer in time", i, here)
        suite.event(f"W0104:late {i}\n")
        second.message(f"W0104:second {i}")
        follower.until(f"W0104:second {i}", 1 if several else 0, there)
        assert "no answer in time" in suite.ctl("check")
        suite.signal(signal.SIGCONT)
        follower.until(f"W0104:late {i}", 1, here)
        follower.until('"connected"', 2 * i, here)
        assert suite.connections() == before
        ask(suite.port, "parts\tclear")
        follower.until('"name":"error","set":false}', i, here)
        suite.stop()
    follower.until('"disconnected"', 5, here)
    assert "CRITICAL - no connection" in suite.ctl("check")
    assert follower.ended() == 0
    assert follower.shown('"connected"', there) == (1 if several else 0)
    assert not (suite.dir / f"state/schedctl/127.0.0.1:{suite.port}.json").exists()


class E2eFollower:
    def WritesEachChangeOfOneHostAndServesTheChecks(self, suite, second):
        follow_changes(suite, second, several=False)

    def WritesEachChangeOfSeveralHostsAndServesTheChecks(self, suite, second):
        follow_changes(suite, second, several=True)

    def AnswersTheChecksWithoutAConnection(self, suite, second):
        suite.start()
        follower = suite.piped("follow -n 60")
        follower.until('"connected"')
        wait_for((suite.dir / f"state/schedctl/127.0.0.1:{suite.port}.json").exists, "there is no state file")
        before, other = suite.connections(), second.connections()
        for words in "check", "metrics", f"-H 127.0.0.1,127.0.0.1:{second.port} check":
            assert suite.ctl(words).endswith("code 0\n")
        assert (suite.connections(), second.connections()) == (before, other + 1)
        follower.ended()


class E2eWatch:
    def UnansweredOrRefusedFirstQuestionEndsOnlyWatchOfOneHost(self, suite, nobody):
        refused = suite.ctl(f"-H {nobody} watch")
        assert refused.endswith(f"{nobody}: no connection: Connection refused\ncode 205\n")
        suite.password()
        suite.start()
        for command in ("follow", "watch"):  # from this address a login is required
            assert suite.ctl(f"-b 127.0.0.2 {command}").endswith("\ncode 204\n")
        # With more schedulers than descriptors, an idle connection is closed for the next one.
        hosts = [f"127.0.0.{i}" for i in range(1, 9)]
        follower = suite.piped(f"-H {','.join(hosts)} follow -n 1", "prlimit", "--nofile=12")
        wait_for(lambda: all(follower.shown('"connected"', f'"host":"{host}"') for host in hosts), "not all connect")
        follower.ended(signal.SIGINT)
        follower = suite.piped("follow -n 1", "env", f"RUNTIME_DIRECTORY={suite.path('none')}")
        wait_for(lambda: "state file cannot be written: " in suite.read("errors"), "that is not reported")
        follower.ended(signal.SIGINT, errors=None)
        assert suite.read("errors").count("state file") == 1
        follower = suite.piped(f"-b 127.0.0.2 -H 127.0.0.1,{nobody} follow -n 1")
        follower.until("login refused")
        follower.until(f'"port":{nobody.partition(":")[2]},"event":"disconnected"')
        follower.ended(errors="schedctl: 127.0.0.1: login refused: there is no --password-file\n")
        before = suite.connections()
        view = suite.piped(f"-b 127.0.0.2 -H 127.0.0.1,{nobody} watch -n 1")
        view.until(f"{nobody}: 20")
        view.until("disconnected: login refused")
        assert view.ended() == 0
        assert suite.connections() <= before + 2  # the next try is in a minute

    def SignalEndsAFollowerWhoseReaderStalls(self, suite):
        reader, full = os.pipe()
        os.write(full, bytes(65536))
        follower = subprocess.Popen([suite.client, "-H", "127.0.0.1:1,127.0.0.1:2", "follow"], env=suite.env,
                                    stdout=full)

        def reads_signals():
            """It has blocked SIGTERM, which it reads from a descriptor."""
            assert follower.poll() is None
            blocked = Path(f"/proc/{follower.pid}/status").read_text().partition("SigBlk:")[2].split()[0]
            return int(blocked, 16) >> signal.SIGTERM - 1 & 1

        wait_for(reads_signals, "it does not block the signal")
        time.sleep(1)
        follower.send_signal(signal.SIGWINCH)
        time.sleep(0.3)
        follower.terminate()
        assert follower.wait(PATIENCE) == 0
        os.close(reader)
        os.close(full)

    def EndLosesNoMessage(self, suite):
        """A message is shown once: by the process that ends, by the one after it, or by an operator's command."""
        suite.start()
        several = "-H 127.0.0.1,127.0.0.1:1 "
        number = 0
        for words, end, after in (
            ("watch", signal.SIGTERM, "status"),
            (several + "watch", signal.SIGTERM, "status"),
            ("follow", signal.SIGTERM, "status"),
            ("follow", READER, "status"),
            ("watch", READER, "status"),
            (several + "follow", signal.SIGTERM, "status"),
            ("follow", signal.SIGKILL, "status"),
            ("watch", signal.SIGKILL, "status"),
            ("follow", READER, "follow -n 60"),
            ("follow", READER, "follow -n 1"),
        ):
            view = suite.piped(f"{words} -n 60")
            view.until("confdate")
            texts = [f"E0101:number {number + i}." for i in (1, 2)]
            number += 2
            for text in texts:  # they wait at the scheduler for the last answer
                suite.message(text)
            assert not view.shown("E0101:number"), "the next question is not due"
            code = view.drop() if end is READER else view.ended(end)
            assert code == (-end if end == signal.SIGKILL else 0), (words, end)
            # A follower writes the messages of an earlier one also while the scheduler is down.
            if after == "follow -n 1":
                suite.stop()
            shown = [view.output()]

            def all_shown():
                missing = any(text not in "".join(shown) for text in texts)
                if missing:  # a busy machine needs longer, so each attempt may take longer than the one before
                    shown.append(suite.ctl(after, "timeout", "-s", "INT", str(2 * len(shown))))
                return not missing

            wait_for(all_shown, (words, end, after, shown))
            shown.append(suite.ctl("status"))
            assert [text for text in texts if "".join(shown).count(text) != 1] == [], (words, end, after, shown)

    def MessageThatCannotBeStoredIsShown(self, suite, nobody):
        """The state directory is lost while the answer is under way."""
        plain, problem = b"confdate 2026-11-25T10:00:00+00:00\r\n" + OVER, "messages could not be stored: "

        def host(details, before_answer=lambda: None):
            def answer():
                before_answer()
                suite.lose_state()
                return b"2026-11-25T10:00:00+00:00;E0101:fan\r\nerror 2026-11-25T10:00:00+00:00\r\n" + plain

            (suite.dir / "state").unlink(missing_ok=True)
            return ScriptedHost([[*[OVER] * details, plain, answer]])

        for words in ("follow", "watch"):
            view = suite.piped(f"-p {host(3 * (words == 'follow')).port} {words} -n 1")
            view.until("E0101:fan")
            view.ended(errors=None)
            assert suite.read("errors").count(problem) == 1
        # One that cannot be written either goes to the errors.
        unread_host = host(0, lambda: os.kill(view.pid, signal.SIGSTOP))
        view = suite.piped(f"-p {unread_host.port} watch -n 1")
        wait_for(lambda: state_of(view.pid)[0] == "T", "it does not ask")
        unread_host.join(PATIENCE)
        wait_for(lambda: not unread(unread_host.port, "client"), "its agent does not read the answer")
        os.close(view.reader)
        view.reader = -1
        os.kill(view.pid, signal.SIGCONT)
        assert view.process.wait(PATIENCE) == 0
        assert suite.read("errors").startswith(f"2026-11-25T10:00:00+00:00 E0101:fan\nschedctl: {problem}")
        for other in "", f",{nobody}":
            screen = suite.terminal("-H", f"127.0.0.1:{host(0).port}{other}", "watch", "-n", "1")
            screen.resize(12, 150)
            assert "\x1b[33m" in screen.until(problem)
            screen.press("q")
            in_order(screen.ended()[1], "\x1b[?1049l", "2026-11-25T10:00:00+00:00 E0101:fan\r\n", problem)

    def WaitingCostsNoProcessorTime(self, suite, nobody):
        suite.start()
        silent = socket.create_server(("127.0.0.1", 0))
        several = f"-t 1 -H 127.0.0.1,{nobody},127.0.0.1:{silent.getsockname()[1]} "
        with silent:
            follower, watch = suite.piped(f"{several} follow -n 1"), suite.piped(f"{several} watch -n 60")
            for program in follower, watch:
                program.until("no answer")
                program.until("refused")
            one, all = suite.terminal("watch"), suite.terminal(*several.split(), "watch")
            one.until("confdate")
            one.press("x")
            all.until("1 down, 1 no answer, 1 ok")
            all.press("x")
            assert_idle(follower, watch, one, all)

    def EndShowsWhatItsLastAnswerBrings(self, suite):
        """Unless that takes longer than a second, so a busy machine needs more attempts."""
        suite.start()
        numbers = itertools.count()

        def shows_it(words):
            text = f"W0104:number {next(numbers)}."
            view = suite.piped(f"{words} -n 60") if words else suite.terminal("watch", "-n", "60")
            view.until("confdate")
            suite.message(text)
            if words:
                view.ended()
                return view.shown(text)
            view.press("q")
            rest = view.ended()[1]
            assert "\x1b[?1049h" not in rest
            return text in rest

        for words in "watch", "follow", "":
            wait_for(lambda: shows_it(words), words)

    def RefusalIsReportedOnceAndTriedAgainAfterAMinute(self, suite, nobody):
        """On a clock that is twenty times as fast."""
        library = glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
        if not library or b"san_init" in Path(suite.client).read_bytes():
            pytest.skip("no such clock here")
        refusal, answer = b"__unsupported__\r\n", b"confdate 2026-11-25T10:00:00+00:00\r\n" + OVER
        host = ScriptedHost([[refusal], [refusal], [answer], [b""], [refusal]])
        begin = time.monotonic()
        view = suite.piped(f"-t 1200 -H {nobody},127.0.0.1:{host.port} watch -n 2", "env", f"LD_PRELOAD={library[0]}",
                           "FAKETIME=+0 x20", "FAKETIME_NO_CACHE=1")
        view.until("unsupported: ", 2)  # in this outage and in the next one, which begins with another failure
        assert time.monotonic() - begin >= 6
        view.ended()
        for left in glob(f"/dev/shm/faketime_s*_{view.pid}"):
            os.unlink(left)
        assert len(host.requests) == 5 and view.shown("refused") == 1

    def StoredMessagesAreShownToTheirReadersOnly(self, suite):
        suite.start()
        for i in (1, 2):
            text = f"E0101:of a check {i}"
            suite.message(text)
            suite.ctl("check")
            follower = suite.piped("follow -n 60")
            follower.until('"connected"')
            follower.ended()
            assert not follower.shown(text)
            view = suite.piped("watch -n 60")
            view.until(f"message {text}")
            view.until("condition error set")
            view.ended()
            assert text not in suite.ctl("status")
        suite.message("E0101:under one name")
        suite.ctl("check")
        notice = f"1 message under the name 127.0.0.1:{suite.port}; "
        assert notice in suite.ctl("-H 127.1 status")
        several = suite.ctl("-H 127.1,127.0.0.2 status")
        assert "code 0" in several and notice not in several


class E2eWatchTerminal:
    @pytest.fixture
    def suite(self, suite):
        suite.write("config/timer_jobs", "0 3 1 1 * patrol\tstatus\n")
        suite.start()
        return suite

    def ShowsChangesReconnectsAndRestoresTheTerminal(self, suite):
        screen = suite.terminal("watch", "-n", "1")
        screen.expect("127.0.0.1:[0-9]+  [0-9]{2}:[0-9]{2}:[0-9]{2}  Ctrl-C quits")
        screen.until("confdate ")
        assert "\x1b[33m" not in screen.until("\npatrol ")  # it is no alarm
        suite.event("E0101:fan \x1b[31m 3 stopped\n")
        screen.until("\x1b[1;31merror ")
        screen.until("-04:30  ")
        assert len(screen.until("s")) <= 3  # its age, in seconds
        assert "\x1b[1;31m20" in screen.until("E0101:fan \\x1b[31m 3")
        screen.resize(9, 70)
        suite.event("E0103:a\nE0104:b\nI0107:c\n")
        screen.until("\x1b[33mconf ")
        screen.until("Messages: 4")
        assert "\x1b[33m" not in screen.until("I0107:c")
        screen.resize(9, 30)
        screen.until("  Ctr\x1b")  # the heading, cut at the new width
        screen.resize(0, 0)  # not known, as on a serial line: 24 rows of 80 columns
        suite.event("I0101:x\n" * 30 + "I0100:" + "x" * 80 + "\n")
        screen.until("Messages: 35")
        screen.until("\x1b[H")
        rows = screen.until("\x1b[J").split("\x1b[0m\x1b[K")
        assert len(rows) - 1 == 24
        assert max(len(row.lstrip("\r\n")) for row in rows if "I0100" in row) == 80
        screen.resize(9, 70)
        screen.press("\x1c")  # is no signal here
        for _ in range(2):
            suite.stop()
            screen.until("Connection refused; trying again")
            suite.start()
            while "no connection" in screen.until("Messages: 35"):
                pass
        screen.press("typed\x1a")  # not shown; Ctrl-Z restores the terminal, and the job goes on here
        assert "typed" not in screen.until("\x1b[?1049l")
        screen.until("\x1b[?1049h")
        screen.press("q")
        code, rest = screen.ended()
        assert code == 0
        assert "\x1b[?1049h" not in rest and screen.getecho()
        in_order(rest, "\x1b[?1049l", "E0101:fan \\x1b[31m 3 stopped\r\n", "E0103:a\r\n", "I0107:c\r\n")
        assert "E01" not in suite.ctl("status")

    def MessagesThatWereNeverDrawnStayUntilTheEndOfTheView(self, suite):
        """Only one message has room, and what was not drawn is not shown."""
        for killed in (True, False):
            screen = suite.terminal("watch", "-n", "1")
            screen.until("Messages: 0")
            screen.resize(6, 70)
            send_signal(screen.pid, signal.SIGSTOP)  # so one answer brings them all
            events = suite.events()
            suite.event("W0104:a\nW0104:b\nW0104:c\nW0104:d\n")
            suite.await_events(events + 4)
            screen.kill(signal.SIGCONT)
            screen.until("Messages: 4")
            assert "\x1b[33m20" in screen.until("W0104:d")
            if killed:
                screen.until("W0104:d")  # a second drawing: after the first, it left the mailbox
                screen.kill(signal.SIGKILL)
                assert screen.ended()[0] == -signal.SIGKILL
                shown = []

                def has_oldest():
                    shown.append(suite.ctl("status"))
                    return "W0104:a" in shown[-1]

                wait_for(has_oldest, shown)
                assert "W0104:d" not in "".join(shown)
            else:
                screen.press("\x03")
                code, rest = screen.ended()
                assert code == 0
                in_order(rest, "W0104:a\r\n", "W0104:d\r\n")
                assert "W0104:" not in suite.ctl("status")

    def OfSeveralHostsKeepsWhatTheScreenHasNotShown(self, second):
        """A message leaves the mailbox when its first character was on the screen, and its line was."""
        long = "a" * 45  # its label is longer than its column
        for rows, columns, is_shown in ((12, 84, False), (12, 85, True), (2, 100, False)):
            second.message_alone("W0104:of one host")
            screen = second.terminal("-H", f"127.0.0.1:{second.port},{long}", "watch", "-n", "1")
            screen.resize(rows, columns)
            for _ in range(2):  # the second drawing follows when the first has been reported
                if rows > 2:
                    screen.expect(f"127.0.0.1:{second.port} {{27}}conf [^ ]+ {{13,18}}20[-0-9]+T[:0-9]+ ")
                else:
                    screen.until("2 hosts, 1 down, 1 condition")
            agent = agent_of(screen)
            screen.kill(signal.SIGKILL)
            screen.ended()
            wait_for(lambda: state_of(agent)[0] in "ZX", "its agent does not end")
            assert ("W0104:of one host" in second.ctl("status")) != is_shown, (rows, columns)

    def OfSeveralHostsCountsSortsAndFilters(self, suite, second):
        a, b = (f"127.0.0.1:{each.port}" for each in (suite, second))
        second.event("W0199:filler\n" * 130)  # more than the scheduler keeps
        second.await_events(130)
        screen = suite.terminal("-t", "2", "-H", f"{a},{b}", "watch", "-n", "1")
        screen.resize(12, 100)
        screen.expect("2 hosts, 1 lost, 1 ok  [0-9]{2}:[0-9]{2}:[0-9]{2}  q quits, ")
        in_order(screen.until("W0199:filler"), f"{b}  ok ", "  lost 3  20")
        screen.until(f"{a}  ok, patrol ")
        second.event("E0101:fan \x1b[31m 3 stopped\n")
        drawn = screen.until("E0101:fan \\x1b[31m")
        in_order(drawn, "2 hosts, 1 error, 1 ok", f"{b}  error ", "  lost 3  20")
        for _ in range(2):
            suite.signal(signal.SIGSTOP)
            screen.until("2 hosts, 1 no answer, 1 error")
            in_order(screen.until(f"{b}  error "), f"{a}  no answer ", ", since 20")
            suite.signal(signal.SIGCONT)
            screen.until("2 hosts, 1 error, 1 ok")
            suite.stop()
            screen.until("2 hosts, 1 down, 1 error")
            in_order(screen.until(f"{b}  error "), f"{a}  down ", ", since 20", ": ")
            screen.expect(" down [3-9]s, since 20")  # since the first failure
            suite.start()
            while "down" in screen.until("2 hosts, 1 "):
                pass
        screen.press(DOWN * 2)  # all hosts are shown, so it moves nothing
        for _ in range(2):
            screen.until("2 hosts, 1 error, 1 ok")
        in_order(screen.until(f"{a}  ok"), f"{b}  error ")
        screen.press("/q\x7fFAN")
        screen.until("/FAN_  1 shown")
        screen.press(f"\x7f\x7f\x7f{a}\n")
        screen.until(f"/{a}  1 shown")
        screen.resize(2, 20)  # the heading and the first host, the others a line further down
        screen.press("\x1b")
        screen.until(b[:20])
        screen.press(DOWN * 2)
        screen.until(a[:20])
        screen.press(UP)
        screen.until(b[:20])
        screen.press("q")
        code, rest = screen.ended()
        assert code == 0
        in_order(rest, "\x1b[?1049l", f"{b}: 20", " E0101:fan \\x1b[31m 3 stopped\r\n")

        # No view: on a terminal without a type, too. Keys are read from a terminal only.
        for command in ("TERM= $C watch", "env -u TERM $C watch"):
            plain = suite.terminal("-c", command.replace("$C", suite.client), program="/bin/sh")
            plain.until("condition confdate set\r\n")
            plain.send("\x03")
            plain.ended()
        keyless = suite.terminal("-c", f"yes q | {suite.client} watch -n 1", program="/bin/sh")
        for _ in range(3):
            keyless.until("Messages: ")
        keyless.send("\x03")
        keyless.ended()

        plain = suite.terminal("-H", f"{a},{b}", "watch", "-n", "1", kind="dumb")
        plain.until("condition error set\r\n")
        plain.send("typed\n")
        suite.event("E0102:one\n")
        plain.until(f"{a}: 20")
        plain.until("message E0102:one\r\n")
        suite.stop()
        plain.until(" disconnected: ")
        suite.start()
        assert "confdate" not in plain.until(" connected\r\n")  # only changes are shown
        plain.send("\x03")
        assert plain.ended()[0] == 0
