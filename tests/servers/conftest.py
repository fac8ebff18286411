"""Fixtures of the tests with real servers."""

import http.server
import tempfile
import threading
from pathlib import Path

import backend
import own_network
import pytest
from web_servers import Kitchen

from harness.client import Client
from harness.daemon import Daemon
from harness.keys import fill_preinst, make_keys
from harness.platform_file import Platform
from harness.private_bus import PrivateBus
from harness.waiting import guards


@pytest.hookimpl(tryfirst=True)
def pytest_cmdline_main(config):
    """A network in which the server's name and ports are this machine's."""
    own_network.enter(config)


@pytest.fixture(scope="session", name="keys")
def make_keys_once(tmp_path_factory):
    """A directory with a set of throw-away keys."""
    directory = tmp_path_factory.mktemp("keys")
    make_keys(directory)
    return directory


@pytest.fixture(name="application")
def start_application():
    """The example's application; a test may give it another handler."""

    class Handler(backend.Handler):
        """Of this test alone."""

    server = http.server.ThreadingHTTPServer(backend.ADDRESS, Handler)
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.02})
    thread.start()
    yield Handler
    server.shutdown()
    thread.join()
    server.server_close()


@pytest.fixture(name="kitchen")
def make_kitchen(keys, request):
    """Starts servers. Their users have to reach their files, so it is no directory of pytest's own."""
    with tempfile.TemporaryDirectory(prefix="orvexd-servers-") as directory:
        kitchen = Kitchen(Path(directory), keys)
        yield kitchen
        if getattr(request.node, "failed", False):
            print(kitchen.report())
        kitchen.close()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Remembers a failure, so that the servers' output is shown."""
    report = (yield).get_result()
    if call.when == "call" and report.failed:
        item.failed = True


@pytest.fixture(name="platform")
def write_platform(tmp_path):
    """One connection of kind 1, and no proxy."""
    platform = Platform(tmp_path / "platform.conf")
    platform.write()
    return platform


@pytest.fixture(name="client")
def make_client(tmp_path, keys, platform):
    """A client on a bus with a running daemon."""
    bus = PrivateBus(tmp_path)
    daemon = Daemon(tmp_path, bus, platform.path, fill_preinst(tmp_path / "preinst", keys))
    try:
        daemon.start()
        client = Client(bus.address)
        yield client
        client.close()
        daemon.stop(120)
    finally:
        daemon.abandon()
        bus.stop()
        guards.clear()
