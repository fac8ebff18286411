"""One bus, server and daemon for all tests of a module, where each test is one exchange of many.

A module that says

    bus, server, platform, preinst, daemon, fresh = shared.FIXTURES

puts these in the place of the fixtures that start everything anew for each test.
"""

import pytest

from .client import Client
from .daemon import Daemon
from .keys import fill_preinst
from .platform_file import Platform
from .private_bus import PrivateBus
from .slp_server import TestServer

STATUS = 3  # of the platform file as it is at the beginning


@pytest.fixture(scope="module")
def bus(tmp_path_factory):
    bus = PrivateBus(tmp_path_factory.mktemp("bus"))
    yield bus
    bus.stop()


@pytest.fixture(scope="module")
def server(tmp_path_factory, keys):
    server = TestServer(tmp_path_factory.mktemp("server"), keys)
    yield server
    server.stop()


@pytest.fixture(scope="module")
def platform(tmp_path_factory, server):
    platform = Platform(tmp_path_factory.mktemp("platform") / "platform.conf")
    platform.write(proxy=("127.0.0.1", server.port))
    return platform


@pytest.fixture(scope="module")
def preinst(tmp_path_factory, keys):
    return fill_preinst(tmp_path_factory.mktemp("preinst"), keys)


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    yield from running(Daemon(tmp_path_factory.mktemp("daemon"), bus, platform.path, preinst))


def running(daemon):
    """Starts a daemon, yields it, and checks its end."""
    daemon.start()
    try:
        yield daemon
        daemon.stop(120)
    finally:
        daemon.abandon()


@pytest.fixture(autouse=True)
def fresh(bus, server, platform, daemon, reported):
    """Gives each test what it would find after a start, whatever the test before has left."""
    for name, each in (("bus", bus), ("test server", server), ("daemon", daemon)):
        reported(name, each)
    server.clear()
    server.forget_events()
    if server.last:
        server.wait(server.last)
    daemon.guard()
    if platform.connections != [(1, True, False)]:
        platform.write(connections=[(1, True, False)])
    watcher = Client(bus.address)
    watcher.wait_for_status(STATUS)
    watcher.close()


FIXTURES = bus, server, platform, preinst, daemon, fresh
