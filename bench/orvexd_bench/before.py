"""The daemon beside an earlier build of it: what a change costs those who gain nothing by it."""

import statistics

from .pairs import paired
from .processes import settle
from .rows import KIB, at_most, microseconds, milliseconds

LIMIT = 1.03
CONNECTS = 64  # in one round


def hidden_costs(run):
    """Row 20, when an earlier build is at hand."""
    if run.before is None:
        return
    run.workshop.server.answer(4 * KIB)
    with run.workshop.stage() as now, run.workshop.stage() as before:
        sides = [Side(now, now.orvexd_command()), Side(before, before.orvexd_command(run.before))]
        for number in range(4 * run.pairs):
            for side in sides if number % 2 else reversed(sides):
                side.measure()
    ours, theirs = sides
    _add(run, "exchange end to end, 1 KiB up, 4 KiB down", ours.exchanges, theirs.exchanges, milliseconds)
    _add(run, "`connect`", ours.connects, theirs.connects, microseconds)


def _add(run, measure, ours, theirs, unit):
    result = paired(ours, theirs)
    run.add(
        at_most(
            "20",
            measure,
            unit(result.ours.median),
            f"{unit(result.peer.median)} an earlier build",
            result.ratio,
            LIMIT,
        )
    )


class Side:
    """A daemon with its client, and the seconds that things took."""

    def __init__(self, stage, command):
        stage.start(command)
        self._client = stage.client()
        self.exchanges, self.connects = [], []
        self._client.exchange(KIB, 4 * KIB)
        self._client.command("connects", CONNECTS)

    def measure(self):
        settle()
        self.exchanges.append(self._client.exchange(KIB, 4 * KIB)["done"] / 1e9)
        times = self._client.command("connects", CONNECTS)
        self.connects.append(statistics.median(times) / 1e9)
