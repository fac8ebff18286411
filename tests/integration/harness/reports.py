"""What every suite has in its conftest: the reports of failed tests, and keys.

Import all of it there.
"""

import pytest

from . import waiting
from .daemon import Daemon, DaemonDefect
from .keys import fill_preinst, make_keys


def defect_of(failure, reporters):
    """What is wrong with the daemon of a failed test, or None."""
    if failure.errisinstance(DaemonDefect):
        return str(failure.value).splitlines()[0]
    daemons = (reporter for _, reporter in reporters if isinstance(reporter, Daemon))
    return next(filter(None, (daemon.defect() for daemon in daemons)), None)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Adds what the daemon and the server have to say to the report of a failed test."""
    report = (yield).get_result()
    if not report.failed:
        return
    reporters = getattr(item, "reporters", [])
    if defect := defect_of(call.excinfo, reporters):
        # scripts/test tries no test with this property again.
        item.user_properties.append(("defect", defect))
    for name, reporter in reporters:
        try:
            report.sections.append((name, reporter.report()))
        except Exception as error:  # pylint: disable=broad-except
            report.sections.append((name, f"no report: {error}"))


@pytest.fixture(autouse=True)
def no_guards_left():
    """A daemon that was given up must not make the next test fail."""
    yield
    waiting.guards.clear()


@pytest.fixture
def reported(request):
    """Call it with a name and an object that has report(): shown when the test fails."""
    request.node.reporters = []

    def add(name, reporter):
        request.node.reporters.append((name, reporter))
        return reporter

    return add


@pytest.fixture(scope="session")
def keys(tmp_path_factory):
    """A directory with a set of throw-away keys."""
    directory = tmp_path_factory.mktemp("keys")
    make_keys(directory)
    return directory


@pytest.fixture
def preinst(tmp_path, keys):
    """A preinstalled-files directory of the test's own, which it may spoil."""
    return fill_preinst(tmp_path / "preinst", keys)
