"""How many requests and held calls the daemon has, counted in its process (see tests/ledger)."""

import struct

from .settings import BUILD_DIR

LIBRARY = BUILD_DIR / "lib" / "libLedger.so"
_NUMBERS = struct.Struct("=qq")


class Ledger:
    """Keeps the ledger of a daemon that is not started yet, in this directory."""

    def __init__(self, daemon, directory):
        assert LIBRARY.exists(), f"{LIBRARY} is not built"
        self._path = directory / "ledger"
        preloaded = [str(LIBRARY), *daemon.environment.get("LD_PRELOAD", "").split()]
        daemon.environment["LD_PRELOAD"] = " ".join(preloaded)
        daemon.environment["ORVEXD_LEDGER"] = str(self._path)
        self.open()

    def open(self):
        """Begins anew, for a daemon that is about to start."""
        self._path.write_bytes(_NUMBERS.pack(0, 0))

    def read(self):
        """The requests with a fixed number of other things, and the held calls."""
        locks, calls = _NUMBERS.unpack(self._path.read_bytes())
        return {"requests": locks, "held calls": calls}
