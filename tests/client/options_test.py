"""The options and variables of schedctl, and their limits."""

import socket

from client_suite import in_order


class Options:
    def LimitsHold(self, suite):
        def listed(use):
            variables, _, options = use.rpartition("S ") if "S " in use else ("", "", use)
            return suite.ctl(options + " --list", "env", *variables.split())

        for right in ("--parallel 1 -p 1 -t 0", "--parallel 10000 -p 65535 -t 86400", "watch -n 3600",
                      "check --timeout-state ok", "check --timeout-state Warning",
                      "SCHED_TIMEOUT=0 SCHED_PORT=1 SCHED_HOST= S ", "SCHED_TIMEOUT=86400 SCHED_PORT=65535 S "):
            assert listed(right) == "127.0.0.1\ncode 0\n", right
        for wrong in ("--parallel 0", "--parallel 10001", "-p 0", "-p 65536", "-t 86401", "watch -n 0", "watch -n 3601",
                      "metrics -o x --listen 1", "status -j", "--jsn status", "SCHED_TIMEOUT=1:x S ",
                      "SCHED_TIMEOUT=-1 S ", "SCHED_TIMEOUT=86401 S ", "SCHED_PORT=0 S ", "SCHED_PORT=65536 S ",
                      "SCHED_HOST=1:x S "):
            said = listed(wrong)
            assert said.startswith("schedctl: " + (wrong.partition("=")[0] if "S " in wrong else "")), wrong
            assert said.endswith("\ncode 200\n"), wrong
        with socket.create_server(("127.0.0.1", 0)) as taken:
            for wrong in ("--json", "-H a,b metrics", "metrics --listen 127.0.0.1:0", "--hosts none metrics --listen 1",
                          f"metrics --listen 127.0.0.1:{taken.getsockname()[1]}"):
                assert suite.ctl(wrong).endswith("\ncode 200\n"), wrong
        in_order(suite.ctl("--help"), "WORD... | COMMAND", "=127.0.0.1 ", "=64\n", "=9980\n", "=0\n",
                 "Exit codes: see schedctl(1).\n")
        assert "=2\n" in suite.ctl("watch --help")
