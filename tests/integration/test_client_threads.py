"""The client library in threads, in every form, as the build has it: also under the sanitizers."""

import os
import shutil
import subprocess

import pytest

from harness import observe
from harness.client import BusError
from harness.settings import BUILD_DIR, ROOT, patience

PROGRAM = BUILD_DIR / "bin" / "orvexclient_threads"
TSAN = [
    "exitcode=66",
    # GLib's locks are futexes, which the sanitizer does not see: it judges the library's own accesses, which
    # are under locks that it does.
    "ignore_noninstrumented_modules=1",
    f"suppressions={ROOT / 'tests' / 'tsan.supp'}",
]


@pytest.fixture
def environment(bus):
    return {
        **os.environ,
        "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
        "LC_ALL": "C.UTF-8",
        "G_DEBUG": "fatal-criticals",
        "G_SLICE": "always-malloc",
        "ASAN_OPTIONS": "detect_leaks=1:exitcode=66",
        "TSAN_OPTIONS": ":".join(TSAN),
    }


def run(environment, *command, seconds=60):
    """Runs it; it has to succeed without a word."""
    done = subprocess.run(
        list(map(str, command)),
        env=environment,
        capture_output=True,
        text=True,
        timeout=patience(seconds),
        check=False,
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def expect_nothing_left(daemon, client, before):
    """The daemon holds no more than before, once its last exchange is swept up."""
    with pytest.raises(BusError):
        client.prepare(1)
    client.exchange(b"the last one", kind="other")
    observe.wait_until_idle(daemon.pid, 30)
    held = daemon.ledger.read()
    assert held.get("requests", 0) <= before.get("requests", 0) + 1, held
    assert held.get("connections", 0) <= before.get("connections", 0) + 1, held


def test_every_form_works_in_several_threads_and_leaves_nothing_behind(environment, daemon, client):
    before = daemon.ledger.read()
    run(environment, PROGRAM, 3, 2)
    expect_nothing_left(daemon, client, before)


@pytest.mark.long
@pytest.mark.skipif(not shutil.which("valgrind"), reason="no valgrind")
def test_every_form_runs_clean_under_memcheck(environment, daemon):  # pylint: disable=unused-argument
    options = ["--quiet", "--error-exitcode=99", "--leak-check=full", "--errors-for-leak-kinds=definite"]
    options += ["--show-leak-kinds=definite"]
    run(environment, "valgrind", *options, PROGRAM, 2, 1, seconds=300)
