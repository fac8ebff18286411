"""Ratios from pairs that ran in turn."""

import statistics
from dataclasses import dataclass


@dataclass(frozen=True)
class Spread:
    """A median between its quartiles."""

    low: float
    median: float
    high: float
    count: int

    @staticmethod
    def of(values):
        ordered = sorted(values)
        if len(ordered) == 1:
            return Spread(ordered[0], ordered[0], ordered[0], 1)
        low, median, high = statistics.quantiles(ordered, n=4, method="inclusive")
        return Spread(low, median, high, len(ordered))

    def scaled(self, factor):
        return Spread(self.low * factor, self.median * factor, self.high * factor, self.count)


@dataclass(frozen=True)
class Paired:
    """What both sides of a comparison took, and their ratio."""

    ours: Spread
    peer: Spread
    ratio: Spread


def paired(ours, peer):
    """From two lists of equal length, the ratio of each pair."""
    ratios = [left / right for left, right in zip(ours, peer, strict=True)]
    return Paired(Spread.of(ours), Spread.of(peer), Spread.of(ratios))


def percentile(values, percent):
    """The value that `percent` of the values do not exceed."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * percent / 100))]
