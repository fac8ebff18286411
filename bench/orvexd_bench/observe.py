"""What the kernel knows about a process."""

import os
import time
from pathlib import Path


def processor_time(pid):
    """Seconds of all its threads, ended ones included."""
    return time.clock_gettime((~pid) << 3 | 2)


def private_dirty(pid):
    """KiB."""
    return _number(Path(f"/proc/{pid}/smaps_rollup").read_text("ascii"), "Private_Dirty:")


def resident(pid):
    """KiB."""
    return _number(Path(f"/proc/{pid}/status").read_text("ascii"), "VmRSS:")


def peak_resident(pid):
    """KiB since `forget_peak`."""
    return _number(Path(f"/proc/{pid}/status").read_text("ascii"), "VmHWM:")


def forget_peak(pid):
    Path(f"/proc/{pid}/clear_refs").write_text("5", "ascii")


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def wake_ups(pid):
    """How often any of its threads has begun to run."""
    tasks = Path(f"/proc/{pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text("ascii").split()[2]) for task in tasks)


def _number(text, name):
    line = next(line for line in text.splitlines() if line.startswith(name))
    return int(line.split()[1])
