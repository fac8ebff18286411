"""Fixtures of the tests with the real network services. They run inside tests/platform-live/enter."""

import contextlib
import os
import pathlib

import pytest

from harness import observe
from harness.client import Client
from harness.daemon import Daemon
from harness.keys import fill_preinst
from harness.private_bus import PrivateBus
from harness.reports import (  # pylint: disable=unused-import
    keys,
    no_guards_left,
    preinst,
    pytest_runtest_makereport,
    reported,
)
from harness.settings import TIME_FACTOR, is_sanitized
from harness.slp_server import TestServer
from live import cables
from live.manager import NetworkManager
from live.mock import MockedNetworkManager, PlayedService
from live.modem import Modem, ModemManager

MOST_GROWTH = 2 << 20  # bytes
PLATFORM_FILE = pathlib.Path("/etc/trilba/platform.conf")


def pytest_collection_modifyitems(config, items):
    """The long ones run on demand. Slow builds get more time as a whole."""
    if not os.environ.get("ORVEXD_LONG_TESTS"):
        long_ones = [item for item in items if item.get_closest_marker("long")]
        config.hook.pytest_deselected(items=long_ones)
        items[:] = [item for item in items if item not in long_ones]
    for item in items:
        if item.get_closest_marker("timeout") is None:
            item.add_marker(pytest.mark.timeout(300 * TIME_FACTOR))


@pytest.fixture(scope="session", autouse=True)
def cables_laid():
    """The networks, and the certainty that no machine in use is touched."""
    assert os.path.ismount("/etc"), "to be run by tests/platform-live/enter"
    cables.lay()


@pytest.fixture
def make_bus(tmp_path, reported):
    buses = []

    def make():
        directory = tmp_path / f"bus{len(buses)}"
        directory.mkdir()
        buses.append(reported("bus", PrivateBus(directory)))
        return buses[-1]

    yield make
    for bus in buses:
        if bus.process.status is None:
            bus.stop()


@pytest.fixture
def bus(make_bus):
    return make_bus()


@pytest.fixture(scope="session")
def session_server(tmp_path_factory, keys):
    """On the other side of the cables, on the port of the built-in address."""
    server = TestServer(
        tmp_path_factory.mktemp("server"),
        keys,
        "--port",
        "443",
        host="0.0.0.0",
        control_host=cables.CONTROL,
        prefix=cables.THERE,
    )
    yield server
    server.stop()


@pytest.fixture
def server(session_server, reported):
    session_server.clear()
    session_server.forget_events()
    return reported("test server", session_server)


@pytest.fixture
def manager(tmp_path, bus, reported):
    """A NetworkManager that is not started yet and has the connections of no other test."""
    directory = tmp_path / "nm"
    directory.mkdir()
    manager = reported("NetworkManager", NetworkManager(directory, bus))
    manager.forget()
    for device in cables.NETWORKS:
        cables.plug(device)
    yield manager
    manager.stop()


@pytest.fixture
def wired(manager):
    """A running NetworkManager whose first network is up."""
    manager.start()
    manager.add("nmv0")
    manager.up("nmv0")
    return manager


@pytest.fixture
def modems(tmp_path, bus, reported):
    """A ModemManager that is not started yet."""
    directory = tmp_path / "mm"
    directory.mkdir()
    modems = reported("ModemManager", ModemManager(directory, bus))
    yield modems
    modems.close()


@pytest.fixture
def modem():
    modem = Modem(f"modem{os.urandom(4).hex()}")
    yield modem
    modem.close()


@pytest.fixture
def mocked(tmp_path, bus, reported):
    """A NetworkManager that is played."""
    directory = tmp_path / "mock"
    directory.mkdir()
    mocked = reported("mocked NetworkManager", MockedNetworkManager(directory, bus))
    yield mocked
    mocked.stop()


@pytest.fixture
def played(bus):
    """Makes services that answer as a test says."""
    services = []

    def make(name):
        services.append(PlayedService(bus, name))
        return services[-1]

    yield make
    for service in services:
        service.close()


@pytest.fixture
def platform_file():
    """Writes the platform file of the machine; there is none before and after."""

    def write(text):
        PLATFORM_FILE.parent.mkdir(exist_ok=True)
        aside = PLATFORM_FILE.with_suffix(".new")
        aside.write_text(text, "utf-8")
        aside.replace(PLATFORM_FILE)

    yield write
    PLATFORM_FILE.unlink(missing_ok=True)


def daemon_without_a_platform_file(directory, bus, preinst):
    directory.mkdir()
    daemon = Daemon(directory, bus, "", preinst)
    del daemon.environment["TRILBA_PLATFORM_CONF"]
    return daemon


@pytest.fixture(scope="session")
def idle(tmp_path_factory, keys, session_server):
    """What a daemon with a network holds after its first exchange, when it is idle."""
    directory = tmp_path_factory.mktemp("idle")
    with contextlib.ExitStack() as stack:
        bus = PrivateBus(directory)
        stack.callback(bus.stop)
        manager = NetworkManager(directory, bus)
        stack.callback(manager.stop)
        manager.forget()
        manager.start()
        manager.add("nmv0")
        manager.up("nmv0")
        daemon = daemon_without_a_platform_file(directory / "daemon", bus, fill_preinst(directory / "preinst", keys))
        stack.callback(daemon.stop)
        daemon.start()
        client = Client(bus.address)
        stack.callback(client.close)
        client.wait_for_status(3)
        session_server.clear()
        assert client.exchange(b"first", kind="other") == [b"first"]
        observe.wait_until_idle(daemon.pid)
        return {**daemon.resources(), "memory": observe.allocated_bytes(daemon.pid)}


def expect_nothing_left(daemon, idle):
    """Whatever the network did, the daemon holds no more than one that has seen nothing of it.

    One descriptor watches the folder of a platform file; GLib keeps one thread of its pool for some seconds.
    """
    observe.wait_until_idle(daemon.pid, 70)  # an exchange without a network takes its 60 s
    held = daemon.resources()
    assert all(held[name] <= idle[name] + 1 for name in held), f"{held}, but {idle} when idle"
    grown = observe.allocated_bytes(daemon.pid) - idle["memory"]
    assert is_sanitized() or grown < MOST_GROWTH, f"{grown} bytes more than when idle"


@pytest.fixture
def make_daemon(tmp_path, preinst, reported, idle):
    """Makes daemons that no platform file is named to; what each holds, and its end, are checked."""
    daemons = []

    def make(bus):
        daemon = daemon_without_a_platform_file(tmp_path / f"daemon{len(daemons)}", bus, preinst)
        daemons.append(reported("daemon", daemon))
        return daemon

    yield make
    try:
        for daemon in daemons:
            if daemon.process is not None and daemon.process.status is None:
                expect_nothing_left(daemon, idle)
            daemon.stop(120)
    finally:
        for daemon in daemons:
            daemon.abandon()


@pytest.fixture
def daemon(make_daemon, bus):
    return make_daemon(bus).start()


@pytest.fixture
def client_of():
    clients = []

    def make(bus):
        clients.append(Client(bus.address))
        return clients[-1]

    yield make
    for client in clients:
        client.close()


@pytest.fixture
def client(daemon, client_of, bus):  # pylint: disable=unused-argument
    return client_of(bus)
