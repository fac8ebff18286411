"""A connection that comes and goes a thousand times in ten seconds, during an exchange."""

import os

import pytest
from gi.repository import GLib

from harness import matrix
from harness.changes import KIND_ONE, KIND_TWO, NONE, NothingElse, announced, replace
from harness.fault import QUESTION, TRANSPORT, Answered, Fault, Seen, rows
from harness.moment import SENT, At, as_if_nothing_were
from harness.waiting import wait_for

pytestmark = pytest.mark.waits

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

CHANGES = 1000
BURST = 11  # changes at once; an odd number, so that each burst ends unlike the one before
MILLISECONDS = 110  # from burst to burst: long enough for the platform to tell of each
FEWEST_TOLD = 20  # bursts may be told together on a busy machine


# -- what happens ----------------------------------------------------------------------------------


class Flaps(Seen):
    """The connection becomes these and one of kind 1 in turn, at last one of kind 1 for good."""

    def __init__(self, connections, status):
        self._connections = connections
        self._status = status

    def check(self, scene):
        flap(scene.platform, self._connections, [(1, True, False)])
        replace(scene.platform.path, scene.platform.text().encode())
        for client in scene.clients:
            client.settle()
            told = announced(client)
            assert len(told) >= FEWEST_TOLD, told
            assert told == [self._status, KIND_ONE] * (len(told) // 2), told
            client.signals[:] = [each for each in client.signals if each.name == "errorSignal"]


def flap(platform, *lists):
    """Has each of these connection lists in turn, the last of them at last."""
    texts = []
    for platform.connections in lists:
        texts.append(platform.text().encode())
    aside = platform.path.with_suffix(".aside")
    done = []

    def burst():
        for _ in range(BURST):
            aside.write_bytes(texts[len(done) % len(texts)])
            os.replace(aside, platform.path)
            done.append(None)
        return len(done) < CHANGES

    GLib.timeout_add(MILLISECONDS, burst)
    wait_for(lambda: len(done) >= CHANGES, 20, "the last change")


# -- who is there ----------------------------------------------------------------------------------

# Numbers of the requests: the first two are in the exchange, the others wait behind it.
WAITED_FOR, NOT_WAITED_FOR, PREPARED, ATTACHED = range(4)


def one_in_each_role(scene):
    """Two requests whose data were sent, one of them waited for, and two that come after them."""
    client = scene.client()
    scene.platform.write(connections=[(2, True, False)])  # over this one, attached requests wait
    client.wait_for_status(KIND_TWO)
    scene.server.queue(SENT.server)
    scene.request(kind="position", attached=True)
    scene.request(kind="position").give(QUESTION)
    scene.requests[WAITED_FOR].give(QUESTION)
    scene.server.wait(scene.server.last, "upload-end")
    scene.platform.write(connections=[(1, True, False)])
    client.wait_for_status(KIND_ONE)
    scene.ask(WAITED_FOR)
    scene.request(kind="position")
    scene.request(kind="position", attached=True)
    client.settle()
    client.signals.clear()


class FailedOnce(Seen):
    """One failure names the request that was waited for, and the prepared one."""

    def check(self, scene):
        keys = sorted(scene.requests[number].key for number in (WAITED_FOR, PREPARED))
        for client in scene.clients:
            failure = client.wait_for_signal("errorSignal")
            assert failure == (TRANSPORT, "Connection error", " ".join(keys))


class GoOn(Seen):
    """The server goes on; the attached request gets an exchange of its own."""

    def check(self, scene):
        SENT.let_go(scene)
        scene.requests[ATTACHED].give(QUESTION)


# -- rows ------------------------------------------------------------------------------------------

BETWEEN_NONE_AND_ONE = Fault(
    "between-none-and-kind-1",
    act=one_in_each_role,
    sees=[
        Flaps([], NONE),
        FailedOnce(),
        GoOn(),
        Answered([QUESTION], NOT_WAITED_FOR),
        Answered([QUESTION], ATTACHED),
        NothingElse(),
    ],
)

BETWEEN_KINDS = At(SENT, asks=True).row(
    "between-kind-2-and-kind-1",
    [Flaps([(2, True, False)], KIND_TWO), *as_if_nothing_were(SENT), NothingElse()],
)


@rows(BETWEEN_NONE_AND_ONE, BETWEEN_KINDS)
def test_platform_flapping(fault, scene):
    fault.play(scene)
