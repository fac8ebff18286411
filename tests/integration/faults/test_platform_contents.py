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
from harness.states import (
    InState,
    as_if_nothing_were,
    asked_for_its_data,
    attached_behind_an_exchange,
    lost,
    prepared_behind_an_exchange,
    queued_while_connecting,
    receiving,
    sent,
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

COURSES = [
    prepared_behind_an_exchange,
    attached_behind_an_exchange,
    queued_while_connecting,
    asked_for_its_data,
    sent,
    receiving,
]


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


def gone_in(state, name):
    sees = [Changed(GONE[name], [NONE]), *lost(state, BACK), NothingElse()]
    return Fault(f"{name}-when-{state.name}", act=state, sees=sees)


def unusable_in(state, name):
    sees = [Changed(UNUSABLE[name]), *as_if_nothing_were(state), NothingElse()]
    return Fault(f"{name}-when-{state.name}", act=state, sees=sees)


ROWS = [gone_when_idle(name) for name in GONE]
ROWS += [unusable_when_idle(name) for name in UNUSABLE]
ROWS += [
    gone_in(InState(course, asks), name)
    for course in COURSES
    for name in GONE
    for asks in (False, True)
]
ROWS += [unusable_in(InState(course), name) for course in COURSES for name in UNUSABLE]


@rows(*ROWS)
def test_platform_contents(fault, scene):
    fault.play(scene)
