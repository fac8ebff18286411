"""An honest client that reads a property every few milliseconds, and times the daemon and the bus."""

import mmap
import time

from .bus import Bus, BusGone, Late, Refused, bus_call, get_status
from .judge import percentile
from .people import Person

_EVERY = 0.005  # seconds
_PATIENCE = 120.0
_ROOM = 1 << 17  # pairs


class _Series:
    """Times that one process writes and another reads. Cell 0 counts them, cell 1 is the open call's beginning,
    cell 2 counts the calls that were refused."""

    def __init__(self):
        self._cells = memoryview(mmap.mmap(-1, 8 * (_ROOM + 3))).cast("d")

    def begin(self) -> None:
        self._cells[1] = time.monotonic()

    def end(self) -> None:
        count = int(self._cells[0])
        if count < _ROOM:
            self._cells[3 + count] = time.monotonic() - self._cells[1]
            self._cells[0] = count + 1
        self._cells[1] = 0.0

    def values(self) -> list[float]:
        """Those that are over, and the one under way with what it has waited so far."""
        taken = self._cells[3 : 3 + int(self._cells[0])].tolist()
        begun = self._cells[1]
        return taken + ([time.monotonic() - begun] if begun else [])

    def refuse(self) -> None:
        self._cells[2] += 1

    @property
    def refused(self) -> int:
        return int(self._cells[2])

    @property
    def waits(self) -> bool:
        return self._cells[1] != 0


def _ask_for_ever(path: str, daemon: _Series, bus_times: _Series) -> None:
    bus = Bus(path)
    calls = ((get_status(), daemon), (bus_call("GetId"), bus_times))
    while True:
        for blob, series in calls:
            series.begin()
            try:
                bus.ask(blob, _PATIENCE)
            except Refused:
                series.refuse()
            except Late:
                pass  # its time tells
            except BusGone:
                return
            series.end()
        time.sleep(_EVERY)


class Probe:
    """Runs from construction to end()."""

    def __init__(self, user, path: str):
        self._daemon, self._bus = _Series(), _Series()
        self._person = Person(user, _ask_for_ever, path, self._daemon, self._bus)

    @property
    def waits(self) -> bool:
        """Whether a Get is under way."""
        return self._daemon.waits

    def figures(self) -> dict[str, float]:
        """The longest and the 99th percentile of the Gets so far, in seconds, and the same of the bus's own calls."""
        gets, bus = self._daemon.values(), self._bus.values()
        return {
            "longest": max(gets, default=0.0),
            "p99": percentile(gets, 0.99),
            "bus_longest": max(bus, default=0.0),
            "bus_p99": percentile(bus, 0.99),
            "gets": len(gets),
            "refused": self._daemon.refused,
        }

    def error(self) -> str:
        """What it failed with, if it did."""
        return (self._person.result() or {}).get("error", "")

    def end(self) -> None:
        self._person.end()
