"""Libraries of tests/preload under a daemon that is not started yet."""

import contextlib
import fcntl
import mmap
import os
import struct

from . import observe
from .settings import BUILD_DIR

_FLOCK = {"x86_64": "73"}.get(os.uname().machine)
_STEPS = struct.Struct("=qqq")


def preload(daemon, name, **environment):
    """Puts the library under the daemon, which finds these variables."""
    library = BUILD_DIR / "lib" / f"lib{name}.so"
    assert library.exists(), f"{library} is not built"
    others = daemon.environment.get("LD_PRELOAD", "").split()
    daemon.environment["LD_PRELOAD"] = " ".join([str(library), *others])
    daemon.environment.update({key: str(value) for key, value in environment.items()})


class ThreadGate:
    """New threads of the daemon wait in front of it while it is shut."""

    def __init__(self, daemon, directory):
        self._path = directory / "thread-gate"
        self._path.touch()
        preload(daemon, "HeldThread", ORVEXD_HELD_THREADS=self._path)

    @contextlib.contextmanager
    def shut(self):
        with open(self._path, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            yield


def wait_until_thread_held(pid):
    """Waits until a thread of the daemon stands in front of the gate."""
    assert _FLOCK is not None, "the number of flock is known for x86-64 only"

    def held():
        calls = [observe.system_call(pid, task) for task in observe.threads(pid)]
        return _FLOCK in calls

    observe.poll_for(held, 10, "a thread in front of the gate")


class SteppedClock:
    """The daemon's clocks, which a test may step while the daemon runs."""

    def __init__(self, daemon, directory):
        path = directory / "stepped-clock"
        path.write_bytes(_STEPS.pack(0, 0, 0))
        preload(daemon, "SteppedClock", ORVEXD_STEPPED_CLOCK=path)
        with open(path, "r+b") as file:
            self._memory = mmap.mmap(file.fileno(), _STEPS.size)

    def step_to(self, wall=0, monotonic=0, processor=0):
        """Lets the daemon's clocks be so many seconds ahead of the machine's."""
        _STEPS.pack_into(self._memory, 0, wall, monotonic, processor)
