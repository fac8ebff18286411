"""One device for all tests of a module that spoil it: each test finds it mended.

A module takes the fixtures as those of shared.py, behind which they stand.
"""

import dataclasses
import os
import re

import pytest

from . import shared
from .daemon import DEVICE, Daemon
from .keys import make_keys, restore_preinst
from .preload import SteppedClock

SYSTEM = {"PlatformId": "linux-test", "Imei": "352099001761481", "Imsi": "262011234567890", "Mmf": "fw-1.0"}


@dataclasses.dataclass
class Device:
    """What a set-up can spoil."""

    server: object
    platform: object
    preinst: object
    keys: object
    other_keys: object  # made by another authority
    identity: object  # path of the file of the five variables
    clock: object  # of daemon and doctor

    def write_identity(self, **changes):
        values = {**DEVICE, "TRILBA_PLATFORM_CONF": self.platform.path, **changes}
        self.identity.write_text("".join(f'{name}="{value}"\n' for name, value in values.items()), "utf-8")
        self.identity.chmod(0o600)

    def mend(self):
        """Makes everything good, whatever it was."""
        self.server.clear()
        self.server.forget_events()
        self.server.default({})
        restore_preinst(self.preinst, self.keys)
        for file in self.preinst.iterdir():
            file.chmod(0o600)
        proxy = ("127.0.0.1", self.server.port)
        self.platform.restore(
            {"system": dict(SYSTEM), "positioning": True, "connections": [(1, True, False)], "proxy": proxy}
        )
        os.chown(self.platform.path, 0, 0)
        self.write_identity()
        self.clock.step_to()

    def edit_platform(self, pattern, replacement):
        text = self.platform.text()
        changed = re.sub(pattern, replacement, text, count=1)
        assert changed != text, pattern
        self.platform.write_text(changed)


@pytest.fixture(name="clock_and_daemon", scope="module")
def _clock_and_daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    daemon = Daemon(directory, bus, platform.path, preinst)
    clock = SteppedClock(daemon, directory)
    for each in shared.running(daemon):
        yield clock, each


@pytest.fixture(name="daemon", scope="module")
def _daemon(clock_and_daemon):
    return clock_and_daemon[1]


@pytest.fixture(name="other_keys", scope="module")
def _other_keys(tmp_path_factory):
    directory = tmp_path_factory.mktemp("other-keys")
    make_keys(directory)
    return directory


@pytest.fixture(name="device")
def _device(server, platform, preinst, keys, other_keys, clock_and_daemon, tmp_path, reported):
    """A sound set-up, whatever the test before has made of it."""
    clock, daemon = clock_and_daemon
    for name, each in (("test server", server), ("daemon", daemon)):
        reported(name, each)
    device = Device(server, platform, preinst, keys, other_keys, tmp_path / "identity", clock)
    device.mend()
    yield device
    device.mend()


FIXTURES = _clock_and_daemon, _daemon, _other_keys, _device
