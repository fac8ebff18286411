"""What the commands of the documents find: programs, a bus, a server, a daemon."""

import os

import pytest

from harness.become_root import become_root
from harness.daemon import Daemon
from harness.keys import fill_preinst, make_keys
from harness.platform_file import Platform
from harness.private_bus import PrivateBus
from harness.settings import BUILD_DIR, ROOT
from harness.slp_server import TestServer

COMMANDS = ROOT / "tests" / "docs" / "commands"
# Those that build, test, install or take long; see README.md.
STOOD_IN_SCRIPTS = ("api-docs", "test", "package", "setup", "lint", "bench", "fuzz", "stress", "soak", "hostile")


@pytest.hookimpl(tryfirst=True)
def pytest_cmdline_main(config):
    """The daemon wants root."""
    become_root(config)


@pytest.fixture(scope="session")
def bus_address(tmp_path_factory):
    """The address of a bus with a daemon on it, which reaches a test server."""

    def directory(name):
        return tmp_path_factory.mktemp(name)

    keys = directory("keys")
    make_keys(keys)
    bus = PrivateBus(directory("bus"))
    server = TestServer(directory("server"), keys)
    platform = Platform(directory("platform") / "platform.conf")
    platform.write(proxy=("127.0.0.1", server.port))
    preinst = fill_preinst(directory("preinst"), keys)
    daemon = Daemon(directory("daemon"), bus, platform.path, preinst)
    try:
        daemon.start()
        yield bus.address
        daemon.stop(120)
    finally:
        daemon.abandon()
        server.stop()
        bus.stop()


@pytest.fixture(scope="session")
def folder_of(tmp_path_factory):
    """The folder in which the blocks of a document run: the tree, by links, and its own build/."""
    folders = {}

    def make(document):
        if document not in folders:
            folder = folders[document] = tmp_path_factory.mktemp("tree")
            for path in ROOT.iterdir():
                if path.name not in ("build", "scripts", ".git"):
                    (folder / path.name).symlink_to(path)
            (folder / "build").mkdir()
            (folder / "build" / "release").symlink_to(BUILD_DIR)
            (folder / "scripts").mkdir()
            for path in (ROOT / "scripts").iterdir():
                target = COMMANDS / "stand-in" if path.name in STOOD_IN_SCRIPTS else path
                (folder / "scripts" / path.name).symlink_to(target)
        return folders[document]

    return make


@pytest.fixture
def environment(bus_address):
    """Stand-ins come first on the PATH, then the tested programs."""
    return {
        **os.environ,
        "PATH": f"{COMMANDS}:{BUILD_DIR}/bin:/usr/sbin:/usr/bin:/sbin:/bin",
        "LC_ALL": "C.UTF-8",
        "DBUS_SYSTEM_BUS_ADDRESS": bus_address,
        "GI_TYPELIB_PATH": f"{BUILD_DIR}/client",
        "LD_LIBRARY_PATH": f"{BUILD_DIR}/lib",
        "ORVEXD_DEMO_STAGE": "run",
        "DOCS_TOP": str(ROOT),
        "DOCS_BUILD": str(BUILD_DIR),
    }
