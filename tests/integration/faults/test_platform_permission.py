"""Positioning over the network is forbidden while a request is in each of its states."""

from harness import matrix
from harness.changes import KIND_ONE, Changed, Holds, NothingElse, Refuses
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

WITHDRAWN = Changed(Holds(positioning=False))
GIVEN = Changed(Holds(positioning=True))
CONNECTED = Changed(Holds(connections=[(1, True, False)]), [KIND_ONE])
REFUSED = [Refuses(2205), Refuses(2205, attached=True)]


def row(state):
    sees = [WITHDRAWN, *REFUSED, *outcome(state), NothingElse()]
    return Fault(f"withdrawn-when-{state.name}", act=state, sees=sees)


def outcome(state):
    """What becomes of the request: only the start of an exchange needs the permission."""
    if state.course is waiting_for_a_connection:
        return [CONNECTED, Waits(state), *REFUSED, GIVEN, *as_if_nothing_were(state)]
    if state.course in (prepared_behind_an_exchange, attached_behind_an_exchange):
        return [Waits(state), *REFUSED, GIVEN, *as_if_nothing_were(state)]
    return as_if_nothing_were(state)


def only_look(scene):
    """A client that has no request."""
    scene.client()


IDLE = Fault(
    "withdrawn-when-idle",
    act=only_look,
    sees=[WITHDRAWN, *REFUSED, GIVEN, NothingElse()],
)


@rows(IDLE, *(row(InState(course)) for course in COURSES))
def test_platform_permission(fault, scene):
    fault.play(scene)
