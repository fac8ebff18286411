"""The connection becomes another one while a request is in each of its states."""

from harness import matrix
from harness.changes import FLAGGED, KIND_ONE, KIND_TWO, Changed, Holds, NothingElse
from harness.fault import rows
from harness.moment import (
    ATTACHED_BEHIND,
    PREPARED_BEHIND,
    UNFINISHED,
    WAITING,
    At,
    Waits,
    as_if_nothing_were,
)

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

BACK = Holds(connections=[(1, True, False)])
CHANGES = {
    "kind-2": (Holds(connections=[(2, True, False)]), KIND_TWO),
    "kind-2-flagged": (Holds(connections=[(2, True, True)]), FLAGGED),
    "kind-7": (Holds(connections=[(7, True, False)]), FLAGGED),
    "kind-1-flagged": (Holds(connections=[(1, True, True)]), KIND_ONE),
    "kind-1-behind-another": (Holds(connections=[(2, False, False), (1, True, False)]), KIND_ONE),
}
# Requests that cannot travel over the new connection. All others go on as if nothing were.
HELD_UP = {
    WAITING: {"kind-2", "kind-2-flagged", "kind-7", "kind-1-flagged"},
    ATTACHED_BEHIND: {"kind-2", "kind-2-flagged", "kind-7", "kind-1-flagged"},
    PREPARED_BEHIND: {"kind-2-flagged", "kind-7"},
}


def row(moment, change):
    how, status = CHANGES[change]
    before = KIND_TWO if moment is WAITING else KIND_ONE
    meanwhile = []
    if change in HELD_UP.get(moment, ()):
        meanwhile = [Waits(moment), Changed(BACK, statuses(status, KIND_ONE))]
    goes_on = as_if_nothing_were(moment, *meanwhile)
    return At(moment).row(change, [Changed(how, statuses(before, status)), *goes_on, NothingElse()])


def statuses(before, after):
    """What is announced: nothing when the status stays the same."""
    return [after] if after != before else []


@rows(*(row(moment, change) for moment in UNFINISHED for change in CHANGES))
def test_platform_kind(fault, scene):
    fault.play(scene)
