"""Clients that are asked for data and do not give them: their part ends after five seconds.

Rows that wait long.
"""

import dataclasses
import functools
import time

import pytest

from harness import matrix
from harness.fault import QUESTION, Answered, Fault, Seen, rows
from harness.moment import ASKED, BEGUN, HALF, ExchangeOver, Uploaded
from harness.settings import patience

pytestmark = pytest.mark.waits

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

WAIT = 5  # seconds


@dataclasses.dataclass
class EndsAfter(Seen):
    """The last part of the upload ends so many seconds after the row's client was last heard of."""

    seconds: float

    def check(self, scene):
        scene.server.wait(scene.server.last, "upload-end", seconds=30)
        passed = time.monotonic() - scene.heard
        assert self.seconds - 0.1 < passed < self.seconds + patience(1), passed


def stay_silent(scene, **parameters):
    scene.request(**parameters).wait_until_asked()
    scene.heard = time.monotonic()


def silent(kind):
    return functools.partial(stay_silent, kind=kind)


def fall_silent(scene):
    BEGUN.reach(scene)
    scene.heard = time.monotonic()


def send_nothing(scene):
    """Data without a byte begin the wait anew."""
    ASKED.reach(scene)
    time.sleep(2)  # the part of the wait that is begun anew
    assert scene.requests[0].send(b"", last=False) == 0
    scene.heard = time.monotonic()


def keep_others_waiting(scene):
    """The second request's turn comes when the first one's wait has ended."""
    scene.client().wait_for_status(1)
    second = scene.request(attached=True, kind="other")
    stay_silent(scene, kind="position")
    second.give(QUESTION)


def vanish(moment, scene):
    """Nobody goes on with the request; another client gets its answer."""
    moment.reach(scene)
    first = scene.requests[0]
    first.client.close()
    scene.heard = time.monotonic()
    first.client = scene.client()


@rows(
    Fault(
        "position",
        server={},
        act=silent("position"),
        sees=[EndsAfter(WAIT), Answered([b""]), Uploaded(0)],
    ),
    Fault("no-type", server={}, act=silent(""), sees=[EndsAfter(WAIT), Answered([b""]), Uploaded(0)]),
    Fault(
        "half-sent",
        server=BEGUN.server,
        act=fall_silent,
        sees=[EndsAfter(WAIT), Answered([QUESTION[:HALF]]), Uploaded(HALF)],
    ),
    Fault("empty", server={}, act=send_nothing, sees=[EndsAfter(WAIT), Answered([b""]), Uploaded(0)]),
    Fault(
        "first-of-two",
        server={},
        platform={"connections": [(2, True, False)]},
        act=keep_others_waiting,
        sees=[EndsAfter(WAIT), Answered(), Answered([b""], request=1)],
    ),
    Fault(
        "vanishes-when-asked",
        server={},
        act=functools.partial(vanish, ASKED),
        sees=[EndsAfter(WAIT), Answered([b""]), ExchangeOver()],
    ),
    Fault(
        "vanishes-half-sent",
        server=BEGUN.server,
        act=functools.partial(vanish, BEGUN),
        sees=[EndsAfter(WAIT), Answered([QUESTION[:HALF]]), ExchangeOver()],
    ),
)
def test_silent_client(fault, scene):
    fault.play(scene)
