"""The platform file goes, or can be read no more: when nothing happens, and during an exchange."""

from harness import matrix
from harness.changes import (
    KIND_ONE,
    NONE,
    Changed,
    Holds,
    NothingElse,
    Says,
    is_a_directory,
    is_emptied,
    is_removed,
)
from harness.fault import TRANSPORT, Answered, Failed, Fault, Seen, one_request, rows
from harness.moment import (
    ASKED,
    ATTACHED_BEHIND,
    PREPARED_BEHIND,
    QUEUED,
    RECEIVING,
    SENT,
    At,
    as_if_nothing_were,
    lost,
)

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

# Then everything has its default: there is no connection.
GONE = {"removed": is_removed, "emptied": is_emptied}
# Then what the file said before holds, its proxy included.
UNUSABLE = {
    "garbage": Says(bytes(range(1, 256)) * 16),
    "zeros": Says(bytes(4096)),
    "half-a-line": Says(b"[Connections\nList="),
    "a-directory": is_a_directory,
}
BACK = Changed(Holds(), [KIND_ONE])

MOMENTS = PREPARED_BEHIND, ATTACHED_BEHIND, QUEUED, ASKED, SENT, RECEIVING


class Acts(Seen):
    """Nothing is seen: only now the clients act."""

    def __init__(self, act):
        self._act = act

    def check(self, scene):
        self._act(scene)


def only_look(scene):
    """A client that has no request yet."""
    scene.client()


def gone_when_idle(name):
    sees = [
        Changed(GONE[name], [NONE]),
        Acts(lambda scene: scene.request()),
        Failed(TRANSPORT, "Connection error"),
        BACK,
        NothingElse(),
    ]
    return Fault(f"{name}-when-idle", act=only_look, sees=sees)


def unusable_when_idle(name):
    sees = [Changed(UNUSABLE[name]), Acts(one_request), Answered()]
    return Fault(f"{name}-when-idle", act=only_look, sees=sees)


def gone_at(at, name):
    return at.row(name, [Changed(GONE[name], [NONE]), *lost(at, BACK), NothingElse()])


def unusable_at(moment, name):
    sees = [Changed(UNUSABLE[name]), *as_if_nothing_were(moment), NothingElse()]
    return At(moment).row(name, sees)


ROWS = [gone_when_idle(name) for name in GONE]
ROWS += [unusable_when_idle(name) for name in UNUSABLE]
ROWS += [
    gone_at(At(moment, asks), name)
    for moment in MOMENTS
    for name in GONE
    for asks in (False, True)
]
ROWS += [unusable_at(moment, name) for moment in MOMENTS for name in UNUSABLE]


@rows(*ROWS)
def test_platform_contents(fault, scene):
    fault.play(scene)
