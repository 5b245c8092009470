"""The suites of a test. After it no process of it is left, and a sanitizer report of any program fails it."""

import contextlib
import socket
from pathlib import Path

import pytest

from client_suite import ClientSuite
from scratch import ROOT, clear, reports, scratch


def pytest_addoption(parser):
    parser.addoption("--build", type=lambda name: Path(name).resolve(), default=ROOT / "build")


@pytest.fixture
def suites(request):
    """Makes a suite."""
    directory, made = scratch(), []

    def make():
        made.append(ClientSuite(request.config.getoption("build"), directory / f"suite{len(made)}"))
        return made[-1]

    yield make
    try:
        with contextlib.ExitStack() as ends:
            for suite in made:
                ends.callback(suite.close)
    finally:
        found = reports(directory)
        clear(directory, False)
        assert not found, "\n".join(found)


@pytest.fixture
def suite(suites):
    return suites()


@pytest.fixture
def second(suites):
    """A second scheduler, which runs already."""
    suite = suites()
    suite.start()
    return suite


@pytest.fixture
def nobody():
    """An address without a listener. The port stays bound, so that no other test gets it."""
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        yield f"127.0.0.1:{taken.getsockname()[1]}"
