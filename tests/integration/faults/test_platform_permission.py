"""Positioning over the network is forbidden while a request is in each of its states."""

from harness import matrix
from harness.changes import KIND_ONE, Changed, Holds, NothingElse, Refuses
from harness.fault import Fault, rows
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

WITHDRAWN = Changed(Holds(positioning=False))
GIVEN = Changed(Holds(positioning=True))
CONNECTED = Changed(Holds(connections=[(1, True, False)]), [KIND_ONE])
REFUSED = [Refuses(2205), Refuses(2205, attached=True)]


def row(moment):
    goes_on = as_if_nothing_were(moment, *held_up(moment))
    return At(moment).row("withdrawn", [WITHDRAWN, *REFUSED, *goes_on, NothingElse()])


def held_up(moment):
    """Only the start of an exchange needs the permission."""
    if moment in (WAITING, PREPARED_BEHIND, ATTACHED_BEHIND):
        connected = [CONNECTED] if moment is WAITING else []
        return [*connected, Waits(moment), *REFUSED, GIVEN]
    return []


def only_look(scene):
    """A client that has no request."""
    scene.client()


IDLE = Fault(
    "withdrawn-when-idle",
    act=only_look,
    sees=[WITHDRAWN, *REFUSED, GIVEN, NothingElse()],
)


@rows(IDLE, *map(row, UNFINISHED))
def test_platform_permission(fault, scene):
    fault.play(scene)
