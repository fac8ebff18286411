"""What is measured of an attack, and the goals that it has to meet."""

import math
import re
from dataclasses import dataclass
from pathlib import Path
from typing import Optional, Sequence

MIB = 1 << 20
DEFAULT_BUDGET = 128 * MIB  # what the daemon may hold for others, where the build does not say
SLOWER = 10  # how many times as long as on an idle daemon the 99th percentile of a Get may take
# But never less: with busy processors the scheduler lets each of client, bus and daemon wait for some milliseconds.
LEAST_ALLOWED = 0.025
MOST_REFUSED = 0.01  # of the Gets


def percentile(values: Sequence[float], share: float) -> float:
    """The smallest value that at least this share of all values does not exceed; 0 of none."""
    if not values:
        return 0.0
    return sorted(values)[max(0, math.ceil(share * len(values)) - 1)]


def memory_budget(cache: Path) -> int:
    """Bytes: ORVEXD_MEMORY_BUDGET of a build, in bytes or with K, M or G behind it; below 1 MiB they are MiB."""
    text = cache.read_text("utf-8") if cache.exists() else ""
    found = re.search(r"^ORVEXD_MEMORY_BUDGET:\w+=\s*(\d+)\s*([KMG]?)i?B?\s*$", text, re.MULTILINE)
    if not found:
        return DEFAULT_BUDGET
    number = int(found[1]) << {"": 0, "K": 10, "M": 20, "G": 30}[found[2]]
    return number * MIB if number < MIB else number


@dataclass
class Row:  # pylint: disable=too-many-instance-attributes
    """One attack. Times are in seconds, memory in bytes above idle."""

    name: str
    title: str
    seconds: float = 0.0  # how long it ran
    stopped: str = ""  # why before its time
    peak: int = 0
    left: int = 0  # afterwards
    processor: float = 0.0
    longest: float = 0.0
    p99: float = 0.0
    bus_p99: float = 0.0
    gets: int = 0
    refused: int = 0  # of them
    idle_p99: float = 0.0
    reads_judged: bool = True  # no when the attack fills the one queue in which the bus delivers
    honest: Optional[float] = None  # an honest request; None when it had no answer
    honest_error: str = ""
    honest_waited: float = 0.0  # how long it was waited for, when it had no answer
    honest_limit: Optional[float] = None  # None: not judged
    foreign: int = 0  # what an attacker got of another user
    got: str = ""  # what the attacker got, in words
    alive: bool = True


def misses(row: Row, budget: int) -> list[str]:
    """The goals that this attack has missed."""
    found = []
    if row.peak > budget:
        found.append(f"memory {row.peak / MIB:.0f} MiB above idle, allowed {budget / MIB:.0f}")
    if not row.alive:
        found.append("the daemon has ended")
    allowed = max(SLOWER * row.idle_p99, LEAST_ALLOWED)
    if row.reads_judged and row.p99 > allowed:
        found.append(f"p99 of Get {row.p99 * 1000:.1f} ms, allowed {allowed * 1000:.1f}")
    if row.reads_judged and row.refused > MOST_REFUSED * row.gets:
        found.append(f"{row.refused} of {row.gets} Gets were refused")
    found += _honest_miss(row)
    if row.foreign:
        found.append(f"the attacker got what is another user's ({row.foreign} times)")
    return found


def _honest_miss(row: Row) -> list[str]:
    """An answer that the run did not wait long enough for is no miss."""
    if row.honest_limit is None:
        return []
    if row.honest_error:
        return [f"honest request: {row.honest_error[:120]}"]
    if row.honest is None and row.honest_waited >= row.honest_limit:
        return [f"honest request without answer in {row.honest_waited:.0f} s, allowed {row.honest_limit:.0f}"]
    if row.honest is not None and row.honest > row.honest_limit:
        return [f"honest request answered in {row.honest:.1f} s, allowed {row.honest_limit:.0f}"]
    return []
