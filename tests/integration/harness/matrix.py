"""The programs of the fault matrix: one bus, server and daemon for all rows of a module.

A module of rows says

    bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES
"""

import pytest

from . import shared
from .daemon import Daemon
from .ledger import Ledger
from .scene import Scene

bus, server, platform, preinst, _, fresh = shared.FIXTURES


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    daemon = Daemon(directory, bus, platform.path, preinst)
    daemon.ledger = Ledger(daemon, directory)
    yield from shared.running(daemon)


@pytest.fixture
def scene(bus, server, platform, preinst, keys, daemon):
    scene = Scene(bus, server, platform, preinst, keys, daemon)
    yield scene
    scene.close()


FIXTURES = bus, server, platform, preinst, daemon, fresh, scene
