"""How much the daemon holds for its clients, where the build counts it (see src/support/Statistics.h)."""

import pathlib
import struct

from .settings import has_statistics

KINDS = "requests", "connections", "held_calls", "exchanges", "posts"  # in the daemon's order
EVENTS = "room_waits", "refused_data"  # behind them
_NUMBERS = struct.Struct(f"={len(KINDS) + len(EVENTS)}q")


class Ledger:
    """Keeps the ledger of a daemon that is not started yet, in this directory."""

    def __init__(self, environment, directory):
        self._path = directory / "statistics"
        if has_statistics():
            environment["ORVEXD_STATISTICS"] = str(self._path)

    def open(self):
        """Begins anew, for a daemon that is about to start."""
        self._path.unlink(missing_ok=True)  # a process that still has it mapped keeps the old one
        self._path.write_bytes(bytes(_NUMBERS.size))

    def read(self):
        """The numbers by their kinds; none where the build does not count."""
        return self._read(slice(len(KINDS)), KINDS)

    def events(self):
        """How often these have happened, likewise."""
        return self._read(slice(len(KINDS), None), EVENTS)

    def _read(self, part, names):
        if not has_statistics():
            return {}
        numbers = _NUMBERS.unpack(self._path.read_bytes())[part]
        return dict(zip(names, numbers, strict=True))

    def expect_more(self, before, **more):
        """So many more than `before`, and no more of other kinds, where the build counts."""
        assert self.read() == {kind: count + more.get(kind, 0) for kind, count in before.items()}

    def expect_kept(self, pid):
        """The process writes into the ledger, if its build counts."""
        maps = pathlib.Path(f"/proc/{pid}/maps").read_text("utf-8")
        assert not has_statistics() or f" {self._path}\n" in maps, "nobody keeps the ledger"
