"""In which order the daemon calls the platform and the system, at its start and at its end."""

import pytest

from harness.daemon import DEVICE
from harness.preload import preload

IDENTITY = ["getuid", "geteuid", *(f"getenv {variable}" for variable in DEVICE)]
LOOP = "g_main_loop_run"


class Calls:
    """The log of one run of the daemon."""

    def __init__(self, path):
        self._path = path
        path.touch()

    def all(self):
        calls = self._path.read_text("utf-8").splitlines()
        return [call for call in calls if call != "getenv ORVEXD_STATISTICS"]  # tests only

    def before_the_loop(self):
        calls = self.all()
        return calls[: calls.index(LOOP)]

    def after_the_loop(self):
        calls = self.all()
        return calls[calls.index(LOOP) + 1 :]


@pytest.fixture(name="platform")
def fixture_platform():
    """The library that stands in for the platform's reads no file."""

    class NoPlatform:
        path = "/nonexistent"

    return NoPlatform


@pytest.fixture(name="new_daemon")
def fixture_new_daemon(make_daemon, preinst, tmp_path):
    """A daemon that is not started yet, with a short command line."""
    daemon = make_daemon()
    daemon.arguments = ["--preinst-dir", preinst, "--storage-dir", tmp_path]
    return daemon


@pytest.fixture(name="calls")
def fixture_calls(new_daemon, tmp_path):
    path = tmp_path / "calls"
    preload(new_daemon, "LoggingPlatform", ORVEXD_CALL_LOG=path)
    return Calls(path)


def refused(daemon, calls):
    """What a daemon that does not start asks its environment."""
    assert daemon.launch().wait() == 1
    *seen, last = calls.all()
    assert last == "Debug::release"
    return seen[seen.index("getDefaultStoragePath") + 1 :]


def test_start_takes_its_steps_in_order(calls, new_daemon, preinst, tmp_path):
    new_daemon.start()
    assert calls.before_the_loop() == [
        "Debug::init",
        "getPlatformId",
        f"umask {0o77}",
        f"setPreinstalledFilesPath {preinst}",
        f"setDefaultStoragePath {tmp_path} false",
        "getPreinstalledFilesPath",
        "getDefaultStoragePath",
        *IDENTITY,
        "IConnectionManager::create",
        "ISystemLocationSettings::create",
        "dbus_bus_get",
        "dbus_bus_request_name",
        "getPreinstalledFilesPath",
        f"access {preinst}/orvexd.schema",
        "g_unix_signal_add 2",
        "g_unix_signal_add 15",
    ]


def test_end_takes_its_steps_in_order(calls, new_daemon):
    new_daemon.start()
    new_daemon.stop()
    assert calls.after_the_loop() == [
        "~ISystemLocationSettings",
        "dbus_connection_set_exit_on_disconnect 0",
        "dbus_bus_remove_match",
        "dbus_connection_remove_filter",
        "dbus_connection_unref",
        "~IConnectionManager",
        "Debug::release",
    ]


def test_version_asks_the_platform_for_its_name_only(calls, new_daemon):
    new_daemon.arguments = ["--version"]
    assert new_daemon.launch().wait() == 0
    new_daemon.abandon()  # it has printed its banner
    assert calls.all() == [
        "Debug::init",
        "getPlatformId",
        f"umask {0o77}",
        "getPlatformId",
        "Debug::release",
    ]


@pytest.mark.parametrize("last", IDENTITY)
def test_environment_is_asked_up_to_the_first_failure(last, calls, new_daemon):
    if last.startswith("getenv"):
        del new_daemon.environment[last.split()[1]]
    else:
        new_daemon.environment["ORVEXD_FAILING_CALL"] = last
    assert refused(new_daemon, calls) == IDENTITY[: IDENTITY.index(last) + 1]


def test_daemon_that_cannot_detach_starts_all_the_same(calls, new_daemon):
    new_daemon.arguments.insert(0, "--daemon")
    new_daemon.environment["ORVEXD_FAILING_CALL"] = "daemon"
    new_daemon.start()
    assert "daemon" in calls.before_the_loop()
    assert new_daemon.process.status is None
