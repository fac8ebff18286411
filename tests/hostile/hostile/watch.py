"""What an attack costs the daemon, read from /proc; the guard of the machine's memory."""

import re
import time
from pathlib import Path

MIB = 1 << 20
KIB = 1024


def resident(pid: int) -> tuple[int, int]:
    """Resident bytes now, and the most since `forget_peak`."""
    text = Path(f"/proc/{pid}/status").read_text("ascii")
    kilobytes = dict(re.findall(r"^(VmRSS|VmHWM):\s+(\d+) kB$", text, re.MULTILINE))
    return int(kilobytes["VmRSS"]) * KIB, int(kilobytes["VmHWM"]) * KIB


def forget_peak(pid: int) -> None:
    Path(f"/proc/{pid}/clear_refs").write_text("5", "ascii")


def processor_seconds(pid: int) -> float:
    """Seconds of all its threads, ended ones included."""
    return time.clock_gettime((~pid) << 3 | 2)


class Watch:
    """Follows one daemon from an idle moment on. A daemon that has ended keeps its last figures."""

    def __init__(self, pid: int, ceiling: int):
        self._pid = pid
        self._ceiling = ceiling
        forget_peak(pid)
        self.idle = self.now = self.peak = resident(pid)[0]
        self._seconds_before = self._seconds = processor_seconds(pid)
        self.alive = True

    def sample(self) -> None:
        """Looks once; to be called about every 50 ms."""
        try:
            self.now, self.peak = resident(self._pid)
            self._seconds = processor_seconds(self._pid)
        except (OSError, KeyError):  # a process that has ended has no memory to tell of
            self.alive = False

    @property
    def over_ceiling(self) -> bool:
        return self.now > self._ceiling

    @property
    def out_of_hand(self) -> bool:
        """It grows on although the attack was ended at the ceiling."""
        return self.now > 2 * self._ceiling

    @property
    def processor_time(self) -> float:
        """Seconds since the watch began."""
        return self._seconds - self._seconds_before

    @property
    def peak_above_idle(self) -> int:
        return max(0, self.peak - self.idle)

    @property
    def left_above_idle(self) -> int:
        return max(0, self.now - self.idle)
