"""The method "quit" and SIGTERM at each moment of a request's life.

The end waits for the exchange that is under way, and the exchange for the server. While the daemon waits
for a client's data: test_end_while_waiting_for_data.
"""

import functools

from gi.repository import GLib

from harness import matrix
from harness.ending import QUIT, SIGTERM, HeldCallEnds
from harness.fault import Fault, rows
from harness.moment import ASKED, BEGUN, MOMENTS
from harness.raw_client import values

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

IN_THE_MIDDLE = [moment for moment in MOMENTS if moment not in (ASKED, BEGUN)]
ENDINGS = (QUIT, SIGTERM)


def end(moment, ending, scene):
    moment.reach(scene)
    if not moment.ready:
        scene.held = scene.requests[0].ask()
        scene.requests[0].client.settle()
    ending.ask(scene)
    if moment.held:
        ending.expect_blocked(scene)
        moment.let_go(scene)


def ended(moment, ending):
    held = [] if moment.ready else [HeldCallEnds()]
    return Fault(
        f"{ending.name}-{moment.name}",
        **moment.set_up(),
        act=functools.partial(end, moment, ending),
        sees=[ending, *held],
        ends=0,
    )


def end_behind_the_answer(ending, scene):
    """The exchange is over, and the main loop has not heard of it yet."""
    scene.request(kind="position").give(b"question")
    assert scene.fetch() == [b"question"]
    ending.ask(scene)


def quit_with_arguments(scene):
    scene.daemon.expect_end()
    body = GLib.Variant("(suv)", ("now", 1, GLib.Variant("s", "please")))
    assert values(scene.raw_client().call("quit", body)) == ()


def quit_without_an_answer(scene):
    scene.daemon.expect_end()
    raw = scene.raw_client()
    raw.send(raw.compose("quit", no_reply=True))


@rows(
    *(ended(moment, ending) for moment in IN_THE_MIDDLE for ending in ENDINGS),
    *(
        Fault(
            f"{ending.name}-behind-the-answer",
            server={},
            act=functools.partial(end_behind_the_answer, ending),
            sees=[ending],
            ends=0,
        )
        for ending in ENDINGS
    ),
    Fault("quit-with-arguments", act=quit_with_arguments, ends=0),
    Fault("quit-without-an-answer", act=quit_without_an_answer, ends=0),
)
def test_end(fault, scene):
    fault.play(scene)
