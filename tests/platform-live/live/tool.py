"""trilba-platform, which tells how the library sees the machine."""

import json
import os
import subprocess

from harness.settings import BUILD_DIR, patience

TOOL = BUILD_DIR / "bin" / "trilba-platform"


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
