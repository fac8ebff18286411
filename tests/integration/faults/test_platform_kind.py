"""The connection becomes another one while a request is in each of its states."""

from harness import matrix
from harness.changes import FLAGGED, KIND_ONE, KIND_TWO, Changed, Holds, NothingElse
from harness.fault import Fault, rows
from harness.states import (
    COURSES,
    InState,
    Waits,
    as_if_nothing_were,
    attached_behind_an_exchange,
    prepared_behind_an_exchange,
    waiting_for_a_connection,
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
WAITING = {
    waiting_for_a_connection: {"kind-2", "kind-2-flagged", "kind-7", "kind-1-flagged"},
    attached_behind_an_exchange: {"kind-2", "kind-2-flagged", "kind-7", "kind-1-flagged"},
    prepared_behind_an_exchange: {"kind-2-flagged", "kind-7"},
}


def row(state, change):
    how, status = CHANGES[change]
    before = KIND_TWO if state.course is waiting_for_a_connection else KIND_ONE
    sees = [Changed(how, statuses(before, status))]
    if change in WAITING.get(state.course, ()):
        sees += [Waits(state), Changed(BACK, statuses(status, KIND_ONE))]
    sees += [*as_if_nothing_were(state), NothingElse()]
    return Fault(f"{change}-when-{state.name}", act=state, sees=sees)


def statuses(before, after):
    """What is announced: nothing when the status stays the same."""
    return [after] if after != before else []


@rows(*(row(InState(course), change) for course in COURSES for change in CHANGES))
def test_platform_kind(fault, scene):
    fault.play(scene)
