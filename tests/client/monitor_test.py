"""Metrics and checks: what they show, and that they take no message away from the operator."""

import fcntl
import os
import re
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from client_suite import OVER, ScriptedHost, agent_of
from scratch import PATIENCE, descendants, wait_for

EOL = b"\r\n"
DATE = b"confdate 2026-11-25T10:00:00+00:00\r\n"


def connections_to(port):
    """How many there are, also those that the scheduler has not accepted."""
    rows = (row.split() for row in Path("/proc/net/tcp").read_text().splitlines())
    return sum(row[3] == "01" and row[2].endswith(f":{port:04X}") for row in rows)


def processor_time(pid):
    """In seconds."""
    user, system = Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()[11:13]
    return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")


def shown_once(suite, text, earlier=()):
    shown = list(earlier)

    def is_shown():
        shown.append(suite.ctl("status"))
        return text in "".join(shown)

    wait_for(is_shown, (text, shown))
    shown.append(suite.ctl("status"))
    return "".join(shown).count(text) == 1


class E2eMonitor:
    def CheckThatIsCutShortLosesNoMessage(self, suite):
        suite.start()
        suite.message_alone("E0101:counted")
        suite.ctl("check")
        suite.message_alone("E0101:while it hung")
        suite.signal(signal.SIGSTOP)
        checked = suite.ctl("-t 1 check")
        assert "SCHED UNKNOWN - no answer in time" in checked and checked.endswith("code 3\n")
        assert suite.ctl("-t 3 check --timeout-state critical").endswith("code 2\n")
        metrics = suite.ctl("-t 1 metrics")
        assert metrics.startswith("schedctl: no answer in time\n") and "\nsched_up 0\n" in metrics
        assert '{severity="error"} 1\n' in metrics and "sched_condition" not in metrics
        suite.signal(signal.SIGCONT)
        assert shown_once(suite, "while it hung")
        suite.message_alone("E0101:when its caller was killed")
        suite.signal(signal.SIGSTOP)
        # A script may run the client while it holds a lock: the agent does not keep the lock when it goes on alone.
        lock = ["flock", "-n", suite.path("lock")]
        subprocess.run([*lock, "timeout", "-s", "KILL", "2", suite.client, "check"], env=suite.env,
                       stdout=subprocess.PIPE, timeout=PATIENCE)  # SIGKILL to the group: the check and timeout itself
        assert subprocess.run([*lock, "true"], timeout=PATIENCE).returncode == 0
        suite.signal(signal.SIGCONT)
        assert shown_once(suite, "when its caller was killed")
        suite.signal(signal.SIGSTOP)
        check = suite.piped("check")
        agent = agent_of(check.process)

        def ignores_signals():
            ignored = int(Path(f"/proc/{agent}/status").read_text().partition("SigIgn:")[2].split()[0], 16)
            return all(ignored >> number - 1 & 1 for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT,
                                                                signal.SIGPIPE, signal.SIGTERM))

        wait_for(ignores_signals, "a signal to its group would end the agent")
        os.kill(agent, signal.SIGKILL)
        check.until("SCHED UNKNOWN - ")
        assert check.process.wait(PATIENCE) == 3
        suite.signal(signal.SIGCONT)

    def NewConnectionWaitsAMomentForAnOlderOne(self, suite):
        suite.start()
        suite.message("E0101:shown once")
        suite.signal(signal.SIGSTOP)
        shown = [suite.ctl("-t 1 status")]  # its agent waits for the last answer
        begin = time.monotonic()
        status = suite.piped("status")
        wait_for(lambda: connections_to(suite.port) == 2, "it does not connect")
        assert time.monotonic() - begin >= 0.99
        suite.signal(signal.SIGCONT)
        wait_for(lambda: status.output() is not None and status.at_end, "it does not end")
        assert shown_once(suite, "E0101:shown once", [*shown, status.output()])

    def QuestionWithoutAnAnswerGivesItsPlaceToTheNextHost(self, suite, second):
        """A command does not: the operator limits at how many hosts it runs at once."""
        suite.start()
        suite.signal(signal.SIGSTOP)
        silent, other = f"127.0.0.1:{suite.port}", f"127.0.0.1:{second.port}"
        uses = {words: suite.piped(f"--parallel 1 -H {silent},{other} -t 60 {words}")
                for words in ("show allowed_ip", "debug timer", "modcntl", "status", "parts show", "modcntl parts on",
                              "lock")}
        wait_for(lambda: second.connections() >= 4, "the next hosts are not asked")
        def processes():
            return [pid for pid, name in descendants().items() if name == "schedctl"]
        wait_for(lambda: len(processes()) == 2 * len(uses), "there are more processes, or fewer")
        before = {pid: processor_time(pid) for pid in processes()}
        time.sleep(3)
        assert all(processor_time(pid) - earlier < 1 for pid, earlier in before.items()), "one is busy while it waits"
        assert second.connections() == 4, second.read("log/trace")
        for use in uses.values():
            use.ended(signal.SIGINT, errors=None)
        suite.signal(signal.SIGCONT)

    def EachSilentHostIsGivenUpInItsTime(self, suite):
        with socket.create_server(("127.0.0.1", 0)) as first, socket.create_server(("127.0.0.1", 0)) as last:
            hosts = [f"127.0.0.1:{host.getsockname()[1]}" for host in (first, last)]
            assert suite.ctl(f"-t 2 --parallel 1 -H {','.join(hosts)} status") == "".join(
                f"schedctl: {host}: no answer in time\n" for host in hosts) + "code 206\n"

    def LockedBoxIsWaitedForAMomentAndThenAnotherOneIsUsed(self, suite):
        suite.start()
        box = suite.dir / f"state/schedctl/mail/127.0.0.1:{suite.port}"
        suite.message("E0101:number 0.")
        suite.ctl("check")
        for number, frees in ((1, True), (2, False)):
            suite.message_alone(f"E0101:number {number}.")
            with open(f"{box}.1.box", "r+") as held:
                fcntl.flock(held, fcntl.LOCK_EX)
                check, begin = suite.piped("check"), time.monotonic()
                if frees:
                    time.sleep(0.5)
                    assert check.process.poll() is None, "it does not wait for the lock"
                    fcntl.flock(held, fcntl.LOCK_UN)
                assert check.process.wait(PATIENCE) == 2
                assert frees or time.monotonic() - begin > 0.9
            assert Path(f"{box}.2.box").exists() == (not frees)
        shown = suite.ctl("status")
        assert all(shown.count(f"number {number}.") == 1 for number in range(3)), shown

    def OnlyTheDirectoryOfAGroupIsShared(self, suite):
        suite.start()
        for mode, files in ((0o2770, 0o660), (0o2750, 0o600), (0o770, 0o600)):
            directory = suite.dir / oct(mode) / "schedctl"
            directory.mkdir(parents=True)
            directory.chmod(mode)
            suite.env["XDG_STATE_HOME"] = str(directory.parent)
            suite.message_alone("E0101:fan")
            suite.ctl("check")
            box = directory / f"mail/127.0.0.1:{suite.port}.1.box"
            assert box.stat().st_mode & 0o7777 == files, oct(mode)

    def LossThatIsReportedAtTheEndOfAConnectionIsCounted(self, suite):
        lost = b"W0100: message queue overflow, 3 messages were lost.\r\n"
        host = ScriptedHost([[DATE + OVER, DATE + lost + OVER, b"Good-bye.\r\n"]])
        assert " lost=3c;" in suite.ctl(f"-p {host.port} -u otto check")
        assert host.requests == [b"status", b"status", b"quit"]  # without a greeting

    def CheckLeavesASchedulerThatHasAnswered(self, suite):
        """While another host is silent, it does not stay connected, and holds no message that it has shown."""
        suite.start()
        suite.message_alone("E0101:stored")
        suite.ctl("check")
        before = suite.connections()
        with socket.create_server(("127.0.0.1", 0)) as silent:
            check = suite.piped(f"-t {2 * PATIENCE} -H 127.0.0.1,127.0.0.1:{silent.getsockname()[1]} check")
            wait_for(lambda: suite.connections() > before, "it does not connect")
            wait_for(suite.all_are_gone, "it stays connected")
            assert "E0101:stored" in suite.ctl("status")
            check.ended(signal.SIGKILL)

    def MessageThatCannotBeStoredIsPrinted(self, suite):
        """The state directory is lost after room was reserved."""
        def answer():
            suite.lose_state()
            return DATE + b"2026-11-25T10:00:00+00:00;E0101:fan\r\n" + OVER

        host = ScriptedHost([[answer, DATE + OVER, b"Good-bye.\r\n"]])
        assert re.fullmatch("schedctl: /.*: Not a directory; messages that could not be stored:\n"
                            "2026-11-25T10:00:00[+]00:00;E0101:fan\n"
                            "SCHED OK - no condition is set; newest message: E0101:fan [|] .*\ncode 0\n",
                            suite.ctl(f"-p {host.port} check"))

    def DetailThatIsNotKnownHasNoMetric(self, suite):
        status = DATE + b"error 1970-01-01T00:00:00+00:00" + EOL + OVER
        host = ScriptedHost([[OVER, b"__busy__" + EOL, b"__unsupported__" + EOL, status, status, b"Good-bye." + EOL]])
        metrics = suite.ctl(f"-p {host.port} metrics")
        assert host.requests == [b"show\tip", b"modcntl", b"debug\ttimer", b"status", b"status", b"quit"]
        for line in "sched_up 1", "sched_connected_operators 0", 'sched_condition{name="error"} 1':
            assert f"\n{line}\n" in metrics
        assert "module" not in metrics and "jobs" not in metrics
        metrics = suite.ctl(f"-p {host.port} metrics")  # it has answered never to this process
        assert "\nsched_up 0\n" in metrics and "sched_status_age" not in metrics

    def FaultOfOurOwnIsNoSchedulerThatIsDown(self, suite):
        suite.start()
        file = suite.path("sched.prom")
        assert suite.ctl(f"metrics -o {file}") == "code 0\n"
        written = suite.read("sched.prom")
        assert "\nsched_collect_error 0\n" in written and "\nsched_up 1\n" in written
        before = suite.connections()
        shutil.rmtree(suite.dir / "state")  # nothing can be stored any more
        suite.write("state", "")
        checked = suite.ctl("check")
        assert "SCHED UNKNOWN - " in checked and checked.endswith("code 3\n")
        metrics = suite.ctl("metrics")
        assert "sched_" not in metrics and metrics.endswith("code 200\n")
        assert suite.ctl(f"metrics -o {file}").endswith("code 200\n")
        written = suite.read("sched.prom")
        assert "\nsched_collect_error 1\n" in written and "sched_up" not in written
        assert suite.connections() == before

    def UptimeOfTheServiceIsThatOfItsPortOnly(self, suite):
        """In namespaces of its own, where the service has run for an hour and nothing can be connected to."""
        env = {name: value for name, value in suite.env.items() if name not in ("VGD_data", "SCHED_PORT")}
        script = ("mount -t tmpfs none /var/lib && mkdir /var/lib/sched && echo 60 >/var/lib/sched/up_time && "
                  'exec "$@"')

        def inside(*command):
            return subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "--net", "sh", "-c", script, "x",
                                   *command], env=env, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                  timeout=PATIENCE).stdout.splitlines()

        if inside("echo", "made") != ["made"]:
            pytest.skip("no namespaces here")
        for host in ("localhost", "127.0.0.1:9979", "db1"):
            lines = inside(suite.client, "-t", "1", "-H", host, "metrics")
            assert "sched_up 0" in lines
            uptime = [line for line in lines if line.startswith("sched_uptime")]
            assert uptime == ["sched_uptime_seconds_total 3600"] * (host == "localhost"), host
        # The package's directory is used by those who may write it; a user's own is not needed then.
        env["HOME"] = suite.path("")
        del env["XDG_STATE_HOME"]
        for mode, entries in (("2770", ["live"]), ("0500", []), ("0600", [])):
            assert inside("sh", "-c", f"install -d -m {mode} /var/lib/schedctl; setpriv --bounding-set -all "
                          f"{suite.client} -t 1 status; ls /var/lib/schedctl") == entries, mode

    def CheckStateFollowsTheConditionsAndThresholds(self, suite, nobody):
        suite.start()
        here, unused = f"127.0.0.1:{suite.port}", nobody.partition(":")[2]
        refusing = f"127.0.0.1:{ScriptedHost([[b'__unsupported__' + EOL]] * 6).port}"  # its state is not known
        suite.write("hosts", f"{here} rack=7\n{nobody}\n")
        both = f"--hosts {suite.path('hosts')}"
        for message, words, code, line in (  # the message is sent before
            ("", "check", 0, "SCHED OK - no condition is set | error=0;;0;0;1 prevent=0;0;;0;1 "),
            ("W0104:bar | bar", "check", 1, "SCHED WARNING - conf since "),
            ("", "-t 86400 check -w none", 0, "newest message: W0104:bar / bar | error=0"),
            ("", "check -w diag,snap -c none", 0, "SCHED OK - conf since "),
            ("", "check -c all", 2, "SCHED CRITICAL - conf since "),
            ("E0101:fan", "check", 2, "newest message: E0101:fan | error=1"),
            ("", "check -c none", 1, "SCHED WARNING - error since "),
            ("", "check -c fan", 3, "fan not in"),
            ("", f"-p {unused} check", 2, "Connection refused"),
            ("", f"{both} check -c none -w none", 2, f"SCHED OK - {here}: error since "),
            ("", f"{both} check -c none", 2, f"\nSCHED CRITICAL - {nobody}: "),
            *(("", f"-H {hosts} check -c none {level}", code, "; newest message: ")
              for level, other, code in (("-w none", refusing, 3), ("-w error", refusing, 1), ("-c error", refusing, 2),
                                         ("-w error", nobody, 2))
              for hosts in (f"{here},{other}", f"{other},{here}")),
        ):
            if message:
                suite.message_alone(message)
            checked = suite.ctl(words)
            assert line in checked and checked.endswith(f"\ncode {code}\n"), words
        assert os.listdir(suite.dir / "state/schedctl/mail") == [f"{here}.1.box"]

    def MetricsAreCompleteAndWellFormed(self, suite):
        suite.write("data/up_time", "1440\n")
        suite.write("config/timer_jobs", "0 3 * * * diag\tstatus\n")
        suite.listed('other odd name 60\na\\b"c odd name 60')
        suite.start()
        suite.ctl("modcntl other off")
        suite.message_alone("E0101:fan")
        file = suite.path("sched.prom")
        with socket.create_connection(("127.0.0.1", suite.port)):
            assert suite.ctl(f"metrics --output {file}") == "code 0\n"
        assert os.stat(file).st_mode & 0o7777 == 0o644
        written = suite.read("sched.prom")
        version = re.search(r"CMAKE_PROJECT_VERSION:STATIC=(.*)", (suite.build / "CMakeCache.txt").read_text())[1]
        for line in ("sched_up 1", "sched_messages_lost_total 0",
                     'sched_messages_total{severity="warning"} 0', 'sched_messages_total{severity="info"} 0',
                     'sched_module_enabled{module="other"} 0', r'sched_module_enabled{module="a\\b\"c"} 1',
                     "sched_timer_jobs 1", "sched_connected_operators 1", 'sched_condition{name="error"} 1',
                     'sched_condition{name="snap"} 0',
                     "# TYPE sched_messages_lost_total counter",
                     "# TYPE sched_build_info gauge", f'sched_build_info{{version="{version}"}} 1'):
            assert f"\n{line}\n" in written
        # A minute may have ended since the start.
        assert re.search("\nsched_uptime_seconds_total 864[06]0\n", written)
        assert re.search("\nsched_status_age_seconds [0-9](\\.[0-9]+)?(e-[0-9]+)?\n", written)
        assert re.search("\nsched_configuration_timestamp_seconds [0-9.]+(e.09)?\n", written)
        assert "\nsched_answer_seconds 0\n" not in written
        assert written.count('\nsched_condition_since_timestamp_seconds{name="') == 1
        printed = suite.ctl("metrics")
        assert printed.endswith("# EOF\ncode 0\n") and "sched_collect_error" not in printed
        assert suite.ctl("metrics --output /no/where").endswith("/no: No such file or directory\ncode 200\n")
        with open("/dev/full", "w") as full:
            assert subprocess.run([suite.client, "metrics"], env=suite.env, stdout=full, stderr=full,
                                  timeout=PATIENCE).returncode == 200
        os.mkfifo(suite.dir / "fifo")
        refused = suite.ctl(f"metrics --output {suite.path('fifo')}")
        assert refused.endswith("not a regular file\ncode 200\n")
        assert suite.read("sched.prom") == written
        if shutil.which("promtool"):
            judged = subprocess.run(["promtool", "check", "metrics"], input=written, text=True, timeout=PATIENCE,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            assert judged.stdout == ""
        parser = pytest.importorskip("prometheus_client.openmetrics.parser", reason="needs python3-prometheus-client")
        families = parser.text_string_to_metric_families(printed.removesuffix("code 0\n"))
        assert any(sample.labels.get("module") == 'a\\b"c' for family in families for sample in family.samples)

    def StatusThatIsReadLateTakesNoFurtherMessage(self, suite):
        """The connection of a status must not stay open, and collect messages, while a pager shows the answer."""
        suite.start()
        for _ in range(100):
            suite.event(f"E0101:{'x' * 1000}\n")
        suite.await_events(100)
        before = suite.connections()
        pager, output = os.pipe()
        status = subprocess.Popen([suite.client, "status"], env=suite.env, stdin=subprocess.DEVNULL, stdout=output,
                                  stderr=subprocess.DEVNULL)
        wait_for(lambda: suite.connections() > before, "it does not connect")
        wait_for(suite.all_are_gone, "it stays connected", min(20, PATIENCE))
        assert status.poll() is None, "it does not wait for the pager"
        suite.message("E0110:while the pager waits")
        assert suite.ctl("status").count("E0110:while the pager waits") == 1
        status.kill()
        status.wait(PATIENCE)
        os.close(pager)
        os.close(output)
