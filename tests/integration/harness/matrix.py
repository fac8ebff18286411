"""The programs of the fault matrix: one bus, server and daemon for all rows of a module.

A module of rows says

    bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES
"""

import pytest

from . import shared
from .scene import Scene

bus, server, platform, preinst, daemon, fresh = shared.FIXTURES


@pytest.fixture
def scene(bus, server, platform, preinst, keys, daemon):
    scene = Scene(bus, server, platform, preinst, keys, daemon)
    yield scene
    scene.close()


FIXTURES = bus, server, platform, preinst, daemon, fresh, scene
