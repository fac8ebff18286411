"""The connection is lost while a request is in each of its states, and its client waits, or not."""

from harness import matrix
from harness.changes import KIND_ONE, NONE, Changed, Holds, NothingElse
from harness.fault import rows
from harness.moment import UNFINISHED, At, lost

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

LOST = Changed(Holds(connections=[]), [NONE])
BACK = Changed(Holds(connections=[(1, True, False)]), [KIND_ONE])


def row(at):
    return at.row("lost", [LOST, *lost(at, BACK), NothingElse()])


ROWS = [row(At(moment)) for moment in UNFINISHED]
# A call for an answer that is there is answered at once: nobody can wait then.
ROWS += [row(At(moment, asks=True)) for moment in UNFINISHED if not moment.ready]


@rows(*ROWS)
def test_platform_loss(fault, scene):
    fault.play(scene)
