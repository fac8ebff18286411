"""trilba-platform, which tells how the library sees the machine."""

import json
import os
import subprocess

from harness.observe import poll_for
from harness.process import Process
from harness.settings import BUILD_DIR, patience

TOOL = BUILD_DIR / "bin" / "trilba-platform"


class Watching:
    """Prints again after each change, until stop()."""

    def __init__(self, directory, bus):
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address}
        self._process = Process([TOOL, "--json", "--watch"], directory, "watching", environment=environment)

    def wait_for(self, predicate, what):
        """Until what it has printed last is so."""
        poll_for(lambda: any(map(predicate, self._printed()[-1:])), 20, lambda: f"{what}, but {self._process.stdout}")

    def stop(self):
        """Its exit status."""
        return self._process.stop()

    def _printed(self):
        return [json.loads(line) for line in self._process.stdout.splitlines(True) if line.endswith("\n")]


def described(bus, *options, environment=None):
    """What the tool tells, and its exit status."""
    done = subprocess.run(
        [TOOL, "--json", *options],
        env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address, **(environment or {})},
        capture_output=True,
        text=True,
        timeout=patience(30),
        check=False,
    )
    assert done.stderr == "", done.stderr
    return json.loads(done.stdout), done.returncode
