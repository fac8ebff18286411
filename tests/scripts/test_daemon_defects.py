"""What no daemon may do fails a run for good, wherever in the run it is seen."""

import pytest

from suite import INTEGRATION, Suite

# The parts that the harness has for modules whose tests share a daemon.
SHARED = """
from harness import shared
from harness.settings import DAEMON

bus, server, platform, preinst, daemon, fresh = shared.FIXTURES

def test_served(daemon): pass
"""
PRINTS = """
from harness.daemon import Daemon

@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    daemon = Daemon(tmp_path_factory.mktemp("daemon"), bus, platform.path, preinst)
    if not pathlib.Path("printed").exists():
        pathlib.Path("printed").write_text("x")
        daemon.program = ["sh", "-c", 'echo word; exec "$0" "$@"', DAEMON]
    yield from shared.running(daemon)
"""
DIES_LAST = """
import os
import signal

@pytest.fixture(scope="module", autouse=True)
def killer(daemon):
    yield
    if not pathlib.Path("died").exists():
        pathlib.Path("died").write_text("x")
        os.kill(daemon.pid, signal.SIGSEGV)
        daemon.process.wait()
"""
# What the tests say is about something else.
DIES_MEANWHILE = """
import os
import signal

def kill(daemon):
    if not pathlib.Path("died").exists():
        pathlib.Path("died").write_text("x")
        os.kill(daemon.pid, signal.SIGSEGV)
        assert daemon.process.wait() == 0, "something about an answer"

def test_dies(daemon):
    kill(daemon)

def test_next(daemon): pass
"""
DIES_AS_IT_ENDS = DIES_MEANWHILE.replace("    kill(", "    daemon.expect_end()\n    kill(").replace(
    "def test_next(daemon): pass", ""
)


@pytest.fixture
def suite(tmp_path):
    return Suite(tmp_path)


@pytest.mark.parametrize(
    "more, first_line, last_line",
    [
        (PRINTS, "the daemon has printed something", "0 passed, 1 failed"),
        (DIES_LAST, "the daemon had ended before", "0 passed, 1 failed"),
        (DIES_MEANWHILE, "something about an answer", "1 passed, 2 failed"),
        (DIES_AS_IT_ENDS, "something about an answer", "1 passed, 1 failed"),
    ],
    ids=["prints a word", "crashes at the very end", "crashes under a test", "crashes as it ends"],
)
def test_run_fails_though_all_would_be_well_a_second_time(suite, more, first_line, last_line):
    suite.add("test_it", SHARED + more)
    # The fixtures and hooks of the integration tests, in a folder of other tests.
    suite.run("-p", "conftest", environment={"PYTHONPATH": str(INTEGRATION)})
    assert suite.status == 1
    assert first_line in suite.output
    assert "again" not in suite.output
    assert suite.last_line == last_line


def test_harness_serves_a_small_suite(suite):
    suite.add("test_it", SHARED)
    suite.run("-p", "conftest", environment={"PYTHONPATH": str(INTEGRATION)})
    assert suite.last_line == "1 passed, 0 failed", suite.output
