"""What a row of the table is, and what a measurement gets to work with."""

from dataclasses import dataclass, field

from .pairs import Spread


@dataclass
class Row:
    """One line of the table. `ratio` is a number or a Spread, None where nothing is compared."""

    number: str
    measure: str
    ours: str
    peer: str = ""
    ratio: object = None
    goal: str = ""
    met: bool | None = None

    def ratio_text(self):
        if self.ratio is None:
            return ""
        if isinstance(self.ratio, Spread):
            low, median, high = (f"{value:.2f}" for value in self._values())
            return f"{median} ({low}–{high})"
        return f"{self.ratio:.3f}"

    def _values(self):
        return self.ratio.low, self.ratio.median, self.ratio.high

    def met_text(self):
        return {None: "", True: "yes", False: "no"}[self.met]


def at_most(number, measure, ours, peer, ratio, limit, **more):
    """A row whose ratio must not exceed `limit`."""
    value = ratio.median if isinstance(ratio, Spread) else ratio
    return Row(number, measure, ours, peer, ratio, f"≤ {limit}", value <= limit, **more)


def at_least(number, measure, ours, peer, ratio, limit, **more):
    """A row whose ratio must reach `limit`."""
    value = ratio.median if isinstance(ratio, Spread) else ratio
    return Row(number, measure, ours, peer, ratio, f"≥ {limit}", value >= limit, **more)


@dataclass
class Run:
    """One run of the benchmarks: how thorough it is, where it works, what it has found."""

    workshop: object
    quick: bool = False
    before: object = None  # path of an earlier build's daemon
    rows: list = field(default_factory=list)
    series: dict = field(default_factory=dict)  # data of the plots, by plot
    failures: int = 0  # measurements that could not be made

    @property
    def pairs(self):
        return 3 if self.quick else 15

    def add(self, row):
        self.rows.append(row)


KIB = 1024
MIB = 1024 * 1024


def milliseconds(seconds):
    value = seconds * 1e3
    return f"{value:.0f} ms" if value >= 100 else f"{value:.2f} ms"


def microseconds(seconds):
    return f"{seconds * 1e6:.0f} µs"


def speed(seconds, size):
    return f"{size / MIB / seconds:.0f} MiB/s"


def memory(kib):
    return f"{kib / 1024:.2f} MiB"


def size_name(size):
    return f"{size // MIB} MiB" if size >= MIB else f"{size // KIB} KiB"
