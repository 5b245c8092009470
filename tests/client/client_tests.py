#!/usr/bin/python3
"""client_tests.py [--build DIR] [PYTEST-ARGUMENT ...]: runs the client's Python tests with pytest.

All, or those of FILE or FILE::CLASS::TEST. The exit status is 77 when every test was skipped.
"""

import os
import sys
from pathlib import Path

sys.dont_write_bytecode = True
os.environ["PYTEST_DISABLE_PLUGIN_AUTOLOAD"] = "1"  # plugins that happen to be installed change nothing
import pytest  # noqa: E402

OPTIONS = ["-vv", "-rs", "--tb=short", "-p", "no:cacheprovider",
           "-o", "python_classes=E2e* Manual Options", "-o", "python_functions=[A-Z]*"]
arguments = sys.argv[1:]
if not any("_test.py" in argument for argument in arguments):
    arguments.insert(0, str(Path(__file__).resolve().parent))
outcomes = set()


class Outcomes:
    def pytest_runtest_logreport(self, report):
        if report.when == "call" or report.outcome != "passed":
            outcomes.add(report.outcome)


status = pytest.main(OPTIONS + arguments, plugins=[Outcomes()])
sys.exit(77 if status == 0 and outcomes == {"skipped"} else status)
