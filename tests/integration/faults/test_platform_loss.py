"""The connection is lost while a request is in each of its states, and its client waits, or not."""

from harness import matrix
from harness.changes import KIND_ONE, NONE, Changed, Holds, NothingElse
from harness.fault import Fault, rows
from harness.states import COURSES, InState, lost, received, received_and_over

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

LOST = Changed(Holds(connections=[]), [NONE])
BACK = Changed(Holds(connections=[(1, True, False)]), [KIND_ONE])
# A call for an answer that is there is answered at once: nobody can wait then.
NOBODY_WAITS = received, received_and_over


def row(state):
    sees = [LOST, *lost(state, BACK), NothingElse()]
    return Fault(f"lost-when-{state.name}", act=state, sees=sees)


ROWS = [row(InState(course)) for course in COURSES]
ROWS += [row(InState(course, asks=True)) for course in COURSES if course not in NOBODY_WAITS]


@rows(*ROWS)
def test_platform_loss(fault, scene):
    fault.play(scene)
