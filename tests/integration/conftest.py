"""Fixtures of the integration tests. See harness/settings.py for the environment."""

import os
import shutil

import pytest

from harness.become_root import become_root
from harness.client import Client
from harness.daemon import Daemon
from harness.platform_file import Platform
from harness.private_bus import PrivateBus
from harness.raw_client import RawClient
from harness.reports import (  # pylint: disable=unused-import
    keys,
    no_guards_left,
    preinst,
    pytest_runtest_makereport,
    reported,
)
from harness.settings import BUS_NAME, DAEMON, TIME_FACTOR, is_sanitized
from harness.slp_server import TestServer
from harness.stand_in import StandIn


# Python itself has no sanitizer, so it cannot load a library that has one; test_client_threads.py is for those.
collect_ignore = ["test_client_library.py", "test_client_mends.py", "test_client_traps.py"] if is_sanitized() else []


@pytest.hookimpl(tryfirst=True)
def pytest_cmdline_main(config):
    """The daemon wants root."""
    become_root(config)


def pytest_collection_modifyitems(config, items):
    """Tests of the built-in time-outs run on demand. Slow builds get more time as a whole."""
    if not os.environ.get("ORVEXD_LONG_TESTS"):
        long_ones = [item for item in items if item.get_closest_marker("long")]
        config.hook.pytest_deselected(items=long_ones)
        items[:] = [item for item in items if item not in long_ones]
    items.sort(key=lambda item: item.get_closest_marker("waits") is None)
    for item in items:
        if item.get_closest_marker("timeout") is None:
            item.add_marker(pytest.mark.timeout(300 * TIME_FACTOR))


@pytest.fixture
def make_bus(tmp_path, reported):
    """Starts private buses, each in a directory of its own."""
    buses = []

    def make(**options):
        directory = tmp_path / f"bus{len(buses)}"
        directory.mkdir()
        # A socket path has room for 107 bytes only, which a deep directory would exceed.
        assert len(str(directory / "bus")) < 100, directory
        buses.append(reported("bus", PrivateBus(directory, **options)))
        return buses[-1]

    yield make
    for bus in buses:
        bus.stop()


@pytest.fixture
def bus(make_bus):
    """A private bus of type system."""
    return make_bus()


@pytest.fixture
def make_server(tmp_path, keys, reported):
    """Starts test positioning servers; the arguments are command-line options."""
    servers = []

    def make(*options):
        directory = tmp_path / f"server{len(servers)}"
        directory.mkdir()
        servers.append(reported("test server", TestServer(directory, keys, *options)))
        return servers[-1]

    yield make
    for server in servers:
        server.stop()


@pytest.fixture
def server(make_server):
    """The test positioning server."""
    return make_server()


@pytest.fixture(scope="session")
def shared_server(tmp_path_factory, keys):
    """A test server for all tests that neither tell it what to do nor look at its record."""
    server = TestServer(tmp_path_factory.mktemp("server"), keys)
    yield server
    server.stop()


@pytest.fixture
def platform(tmp_path, request, reported):
    """The platform file: one active connection of kind 1, the test server as the proxy."""
    wanted = "server" if "server" in request.fixturenames else "shared_server"
    server = request.getfixturevalue(wanted)
    if wanted == "shared_server":
        reported("shared test server", server)
    platform = Platform(tmp_path / "platform.conf")
    platform.write(proxy=("127.0.0.1", server.port))
    return platform


@pytest.fixture
def make_daemon(tmp_path, bus, platform, preinst, reported):
    """Makes daemons that are not started yet; the end of each is checked."""
    daemons = []

    def make():
        directory = tmp_path / f"daemon{len(daemons)}"
        directory.mkdir()
        daemon = Daemon(directory, bus, platform.path, preinst)
        daemons.append(reported("daemon", daemon))
        return daemon

    yield make
    try:
        for daemon in daemons:
            daemon.stop(120)
    finally:
        for daemon in daemons:
            daemon.abandon()


@pytest.fixture
def daemon(make_daemon):
    """A running daemon that owns its name."""
    return make_daemon().start()


@pytest.fixture
def client_of(bus):
    """Connects clients to the bus, for the daemon that a test has started itself."""
    clients = []

    def make(_daemon):
        clients.append(Client(bus.address))
        return clients[-1]

    yield make
    for client in clients:
        client.close()


@pytest.fixture
def make_client(client_of, daemon):
    """Connects clients to the bus; the daemon is running by then."""
    return lambda: client_of(daemon)


@pytest.fixture
def client(make_client):
    """One client."""
    return make_client()


@pytest.fixture
def make_raw_client(bus):
    """Connects clients that compose their messages themselves."""
    clients = []

    def make(address=bus.address):
        clients.append(RawClient(address))
        return clients[-1]

    yield make
    for client in clients:
        client.close()


@pytest.fixture
def raw(make_raw_client, daemon):  # pylint: disable=unused-argument
    """One such client, which sees every signal of the daemon; the daemon is running by then."""
    client = make_raw_client()
    client.add_match(f"type='signal',sender='{BUS_NAME}'")
    return client


@pytest.fixture
def stand_in(bus):
    """In the daemon's place, with ids 7 and 9 for connection and request."""
    stand_in = StandIn(bus.address)
    yield stand_in
    stand_in.close()


def pytest_report_header():
    """Tells which programs are tested."""
    missing = [name for name in ("dbus-daemon", "openssl", "setpriv") if not shutil.which(name)]
    return [f"daemon: {DAEMON}"] + [f"missing: {name}" for name in missing]


@pytest.fixture(name="platform_for_server")
def make_platform_for_server(tmp_path, request):
    """Connected if the test has a server; nothing is connected where it has none."""
    platform = Platform(tmp_path / "platform.conf")
    platform.connections = []
    if "server" in request.fixturenames:
        platform.connections = [(1, True, False)]
        platform.proxy = ("127.0.0.1", request.getfixturevalue("server").port)
    platform.write()
    return platform
