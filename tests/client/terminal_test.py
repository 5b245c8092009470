"""schedctl and schedpasswd at a pseudo-terminal: session, password prompts."""

import os
import re
import signal
import socket
import subprocess
import time

import pexpect
import pytest

from client_suite import OVER, ScriptedHost, agent_of, in_order, is_idle, passed_on, unread
from scratch import PATIENCE, send_signal, wait_for
from silent_hosts import SilentHost

DELETED, UP, INTERRUPT, END, SUSPEND = "\x7f", "\x1b[A", "\x03", "\x04", "\x1a"
ODD = r"""#!/bin/sh
case $1 in
text) printf "$2" ;;
split) printf 'm\342\202'; sleep 0.1; printf '\254r\n' ;;
mark) : >"$2" ;;
o=d) echo complete ;;
drip) echo drop; for second in 1 2 3 4 5 6 7 8; do sleep 1; echo; done ;;
quiet) sleep 4 ;;
flood) yes | head -c 5000000 ;;
wait) echo begin; while [ -e "$0" ] && [ ! -e "$2" ]; do sleep 0.1; done; yes | head -c 300000 ;;
esac
"""


class E2eClientTerminal:
    @pytest.fixture
    def suite(self, suite):
        suite.module("odd", ODD)
        suite.listed("odd odd on 60\noddity odd yes 60\no=d odd yes 60")  # listed words can be completed
        suite.password()
        suite.start()
        suite.prompt = f"127.0.0.1:{suite.port}> "
        return suite

    def SessionCompletesShowsControlCharactersAndKeepsItsHistory(self, suite):
        # The file has more lines than are kept, and two sessions end one after the other.
        (suite.dir / "state/schedctl").mkdir(parents=True)
        suite.write("state/schedctl/history", "_HiStOrY_V2_\n" + "an\\040old\\040line\n" * 30000)
        suite.message("E0101:stored")
        suite.ctl("check")
        other = suite.terminal()
        in_order(other.until(suite.prompt), "Tab completes", "E0101:stored")
        screen = suite.terminal()
        screen.until(suite.prompt)
        screen.send("modcntl\n")  # from now on completion knows the modules
        screen.until("oddity on")
        screen.until(suite.prompt)
        screen.press("o=\to=d\n")
        screen.until("complete")
        screen.press("oddi\ttext 'two words '\n")
        screen.until("two words \r\n")
        screen.send("oddity text '\\033[2Jevil\\tt\udcc3.äg \\302\\233 \\377\\rz\\n'\n")
        screen.until("\\x1b[2Jevil")
        screen.until("täg \\xc2\\x9b \\xffz\r\n")
        screen.send("oddity split\n")
        screen.until("m€r\r\n")
        screen.send("no such\n")
        screen.until("[unsupported")
        screen.press("modcntl oddity o\t\tff\n")  # the second key lists "on" and "off"
        screen.until("off  on")
        screen.until(suite.prompt)
        screen.send("oddity text x\n")
        screen.until("[busy")
        screen.press("a dropped line" + INTERRUPT)
        screen.until("^C")
        screen.press("hel\t\t")
        assert "busy" not in screen.until("hello  help")
        screen.until(suite.prompt + "hel")
        screen.press(SUSPEND)  # the job goes on here; it sets the terminal and draws the prompt as after `fg`
        screen.until(suite.prompt + "hel")
        screen.press("p\n")
        screen.until("conditions and messages")
        screen.press("dropped after that" + INTERRUPT)
        screen.until("^C")
        screen.send("lock\nshow ip\n")
        screen.until("locked=1")
        screen.press(END)
        screen.until("quit")
        assert screen.ended()[0] == 0
        wait_for(lambda: "by quit command." in suite.read("log/trace"), "the session does not say that it ends")
        other.press("oddi\ttext x\n")  # the modules are those of the last listing, whatever was asked since
        other.until("[busy")
        other.press("debug timer\ndebug timer\n  \nexi\t\n")
        assert other.ended()[0] == 0
        assert len(suite.read("state/schedctl/history")) < 100_000

        named = suite.terminal("-u", "otto")
        named.until("otto@" + suite.prompt)
        named.press(UP * 4 + "\n")  # the last line of the first session, before those of the other
        named.until("user=otto")
        named.until(suite.prompt)
        named.kill(signal.SIGTERM)
        assert named.ended()[0] == 0

        # A file is cut when it has many bytes, not many lines, and then to 1000 lines. Nothing is doubled.
        for lines in ("short\n" * 2000, "{}\n".format("l" * 1000) * 300):
            suite.write("state/schedctl/history", "_HiStOrY_V2_\n" + lines)
            session = suite.terminal()
            session.press("exit\n")
            assert session.ended()[0] == 0
            assert suite.read("state/schedctl/history") == f"_HiStOrY_V2_\n{lines}exit\n"

        # A shell that stops it has the terminal as it was.
        shell = suite.terminal("-mc", f"{suite.client}; stty -a; fg", program="/bin/bash")
        shell.until(suite.prompt)
        shell.press(SUSPEND)
        in_order(shell.until(" echoctl "), " icanon ", " echo ")
        shell.until(suite.prompt)
        shell.press("exit\n")
        assert shell.ended()[0] == 0

        piped = suite.terminal("-c", f"{suite.client} | cat", program="/bin/sh")
        piped.until("reading commands from the terminal")
        piped.send("odd text answer\n")
        piped.until("answer\r\n")

    def InterruptEndsTheWaitAndTheSessionGoesOn(self, suite):
        screen = suite.terminal()
        screen.until(suite.prompt)
        # The rest of the answer arrives while the next line is typed, and is dropped.
        screen.send(f"odd wait {suite.path('go1')}\n")
        assert "(" not in screen.until("begin\r\n")
        screen.send(SUSPEND)  # the job goes on here; there is no prompt to draw again
        time.sleep(0.2)
        screen.send(INTERRUPT)
        assert suite.prompt not in screen.until("[stopped waiting]\r\n(its answer, when it comes, will be dropped)")
        screen.until(suite.prompt)
        screen.send("sta")
        suite.write("go1", "")
        assert "y\r\ny" not in screen.until("(the answer given up earlier is complete)")
        screen.until(suite.prompt + "sta")
        screen.send("tus\n")
        screen.until("confdate")
        # A second interrupt takes the next command back, because its answer would come behind the late one.
        screen.send(f"odd wait {suite.path('go2')}\n")
        assert "(" not in screen.until("begin\r\n")
        screen.send(INTERRUPT)
        screen.until(suite.prompt)
        screen.send(f"odd mark {suite.path('called')}\n")
        screen.until("(waiting for the answer")
        screen.send(INTERRUPT)
        screen.until("(it was not sent)")
        suite.write("go2", "")
        screen.until("(the answer given up earlier is complete)")
        screen.send("status\n")
        assert "(" not in screen.until("confdate")
        assert not (suite.dir / "called").exists()
        # The scheduler ends and is started again.
        screen.until(suite.prompt)
        suite.stop()
        screen.until("(the scheduler closed the connection)")
        for _ in range(2):
            screen.send("status\n")
            assert "(" not in screen.until("Connection refused]")
            screen.until(suite.prompt)
        suite.start()
        screen.send("status\n")
        screen.until("confdate")
        screen.until(suite.prompt)
        # The answer is on its way when the operator stops waiting for it.
        agent = agent_of(screen)
        assert is_idle(screen.pid, agent)
        assert not passed_on(screen.pid) and not passed_on(agent)
        suite.message("E0101:fan")
        suite.signal(signal.SIGSTOP)
        screen.send("status\n")
        wait_for(lambda: unread(suite.port, "server"), "nothing is sent")
        send_signal(agent, signal.SIGSTOP)
        suite.signal(signal.SIGCONT)
        wait_for(lambda: unread(suite.port, "client"), "nothing is answered")
        screen.send(INTERRUPT)
        screen.until("[stopped waiting]")
        os.kill(agent, signal.SIGCONT)
        screen.until("(the answer given up earlier is complete)")
        screen.send("status\n")
        screen.until("E0101:fan")

    def InterruptIsTheExitCodeOfACommandAndOfASessionInAPipe(self, suite):
        suite.signal(signal.SIGSTOP)
        status = suite.piped("status")
        wait_for(lambda: unread(suite.port, "server"), "nothing is sent")
        assert is_idle(status.process.pid, agent_of(status.process))
        assert status.ended(signal.SIGINT, errors="schedctl: stopped waiting\n") == 130
        suite.signal(signal.SIGCONT)
        with subprocess.Popen([suite.client], env=suite.env, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as session:
            session.stdin.write(f"status\nodd wait {suite.path('go')}\n".encode())
            session.stdin.flush()
            while session.stdout.readline() != b"begin\n":
                assert session.poll() is None
            session.send_signal(signal.SIGINT)
            assert session.wait(PATIENCE) == 130
        suite.write("go", "")
        pager = suite.piped("odd flood")  # which does not read yet
        wait_for(lambda: is_idle(pager.process.pid, agent_of(pager.process)), "they do not wait for the pager")
        wait_for(lambda: pager.output() and pager.at_end, "the output does not end")
        assert len(pager.bytes) == 5_000_000
        pager = suite.piped("odd flood")
        wait_for(lambda: pager.waiting() and is_idle(pager.process.pid, agent_of(pager.process)), "nothing waits")
        assert pager.ended(signal.SIGINT, errors="schedctl: stopped waiting\n") == 130
        assert len(pager.bytes) > 65536, "what has come and waits is not written"

    def EndSaysThatMessagesWait(self, suite):
        for count, notice in ((1, "1 new message; schedctl status shows it"),
                              (2, "2 new messages; schedctl status shows them")):
            suite.message_alone(f"E0101:number {count}")
            command = suite.terminal("parts")
            command.until(notice + "\r\n")
            assert command.ended() == (0, "")
        assert "new message" not in suite.ctl("parts")
        status = suite.terminal("status")
        status.until("E0101:number 2")
        assert "new message" not in status.ended()[1]

    def PasswordFileIsFoundByTheSettingsOfTheService(self, suite):
        program = str(suite.build / "schedpasswd")
        env = {name: value for name, value in suite.env.items() if name != "VGD_data"}
        script = ('mount -t tmpfs none "${1%/*/*}" && mkdir "${1%/*}" && echo "$2" >"$1" && '
                  f"echo secret | exec {program} --stdin --check")

        def inside(settings, *lines):
            return subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "sh", "-c", script, "x", settings,
                                   "\n".join(lines)], env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  timeout=PATIENCE, text=True).stdout

        unset = subprocess.run([program], env=env, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=PATIENCE,
                               text=True)
        assert unset.returncode == 2
        settings = re.search("set neither here nor in (/.*); name the file", unset.stderr)[1]
        found = inside(settings, "# VGD_data=/no", "VGD_temp=/no", f'VGD_data="{suite.path("data")}"')
        if "unshare" in found:
            pytest.skip("no namespaces here")
        assert found == "The password is right.\n"

    def EndOfItsAgentLeavesTheTerminalAsItWas(self, suite):
        session = suite.terminal()
        session.until(suite.prompt)
        wait_for(lambda: not session.getecho(), "the session does not read single keys")
        os.kill(agent_of(session), signal.SIGKILL)
        wait_for(session.getecho, "the terminal shows no keys")
        code, rest = session.ended()
        assert code == 200 and "has ended" in rest

    def SessionReconnectsCleanly(self, suite):
        """Bytes that no request asked for, and a connection that is closed before the first answer."""
        host = ScriptedHost([[OVER, OVER, OVER + b"left over"], [OVER, b"new\r\n" + OVER], []])
        screen = suite.terminal("-p", str(host.port), "-u", "otto")
        screen.until("> ")
        screen.send("parts\nparts\n")
        screen.until("(the scheduler closed the connection)")
        screen.send("parts\n")
        assert "left over" not in screen.until("new\r\n")
        screen.until("(the scheduler closed the connection)")
        screen.send("parts\n")
        screen.until("its table of connections may be full")
        assert host.requests == [b"hello\totto", b"parts", b"parts", b"hello\totto", b"parts"]

    def SilenceEndsInATimeOut(self, suite, second):
        second.module("module", ODD)
        silent = socket.create_server(("127.0.0.1", 0))
        status = suite.piped(f"-p {silent.getsockname()[1]} status")
        full = SilentHost("full")
        refused = f"schedctl: {full.name}: no connection: Connection timed out\ncode 205\n"
        assert suite.ctl(f"-t 1 -H {full.name} status") == refused
        slow = [suite.piped(f"-p {second.port} -t 5 parts drip")]  # neither is given up
        slow[0].until("drop")
        slow.append(suite.piped(f"-p {second.port} diag quiet"))  # behind the other one
        session = suite.terminal("-t", "2")
        session.until(suite.prompt)

        def has_ended():
            session.resize(33 - session.getwinsize()[0], 70)
            return session.expect_exact(["[no answer in time]", pexpect.TIMEOUT], timeout=0) == 0

        for file in ("first", "second"):
            # Signals that keep coming do not prolong a time-out.
            session.send(f"odd wait {suite.path(file)}\n")
            session.until("begin\r\n")
            wait_for(has_ended, "the time-out does not come")
            suite.write(file, "")
            session.until("(the answer given up earlier is complete)")
            session.until(suite.prompt)
        # An answer that was given up is not taken for that of the next command. A line is as wide as the new window.
        session.resize(20, 250)
        session.press(f"odd wait {suite.path('later')} {'x' * 100}\n")
        assert "x" * 100 in session.until("begin\r\n")
        session.send(INTERRUPT)
        session.until("[stopped waiting]")
        suite.write("later", "")
        session.send("status\n")
        assert "y\r\ny" not in session.until("confdate")
        for command in slow:
            assert command.process.wait(PATIENCE) == 0
        assert status.process.wait(PATIENCE) == 206
        silent.close()

    def PasswordsAreAskedAgainAndNeverShown(self, suite, nobody):
        first = suite.terminal()
        first.until(suite.prompt)
        first.send("ipset 10.0.0.5\nshow ip\n")
        seen = first.until("Password for 127.0.0.1: ")
        first.press(INTERRUPT)
        seen += first.until("[login refused: no password given]")
        # Now a login is known to be required: a connection without a password would take messages.
        known = suite.connections()
        screen = suite.terminal("-t", "5")
        screen.until(suite.prompt)
        screen.send("status\n")
        seen += screen.until("Password for 127.0.0.1: ")
        assert suite.connections() == known
        screen.press(INTERRUPT)
        screen.until("[login refused: no password given]")
        screen.until(suite.prompt)
        suite.message("E0101:left meanwhile")  # shown also when it is refused again
        suite.ctl(f"-H 127.0.0.1,{nobody} check")
        screen.send("status\n")
        screen.until("Password for 127.0.0.1: ")
        screen.press(INTERRUPT)
        in_order(screen.until("[login refused: no password given]"), "E0101:left meanwhile")
        screen.until(suite.prompt)
        screen.send("show ip\n")
        screen.until("Password for 127.0.0.1: ")
        screen.press(INTERRUPT)
        screen.until("[login refused: no password given]")
        screen.until(suite.prompt)
        screen.send("ipset 10.0.0.5\n")
        seen += screen.until("Password for 127.0.0.1: ")
        screen.press("mistaken\n")
        screen.until(suite.prompt)
        screen.send("show ip\n")
        seen += screen.until("[login refused: wrong password]")
        screen.until(suite.prompt)
        screen.send("ipset 10.0.0.5\nshow ip\n")
        screen.until("Password for ")
        time.sleep(6)  # typing may take longer than an answer
        screen.press("secret\n")
        seen += screen.until("ip=10.0.0.5")
        screen.send("status\n")
        assert "Password" not in screen.until("confdate")
        assert "mistaken" not in seen
        assert "secret" not in seen
        for given in (INTERRUPT, "mistaken\n", "secret\n"):
            earlier = suite.connections()
            view = suite.terminal("-b", "127.0.0.2", "watch")
            view.until("Password for 127.0.0.1: ")
            assert suite.connections() == earlier
            view.press(given)
            if given == "secret\n":
                view.until("Messages: ")
                view.press("q")
            code, rest = view.ended()
            assert code == (0 if given == "secret\n" else 204), rest

        before = suite.read("data/password")
        owner = 12345 if os.geteuid() == 0 else os.geteuid()
        os.chown(suite.dir / "data/password", owner, -1)
        long = "x" * 513
        for typed, again, says in (("fresh", "otherwise", "the passwords differ"), ("", "", "no password given"),
                                   ("fresh", "", "no password given"),
                                   (long, long, "a password has at most 512 bytes"), ("fresh", "fresh", " is written;")):
            passwd = suite.terminal(suite.path("data/password"), program=str(suite.build / "schedpasswd"))
            passwd.until("New password: ")
            passwd.press(typed + "\n")
            if typed:
                passwd.until("Verifying - New password: ")
                passwd.press(again + "\n")
            code, rest = passwd.ended()
            assert code == (0 if again == "fresh" else 2)
            assert says in rest
            assert os.stat(suite.dir / "data/password").st_uid == owner
            assert not again or again not in rest
            assert (suite.read("data/password") != before) == (again == "fresh")
