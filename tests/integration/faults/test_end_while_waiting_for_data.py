"""The method "quit" and SIGTERM while the worker waits for a client's data.

Nobody wakes it: the end comes when the five seconds of the wait have passed. Rows that wait long.
"""

import functools
import time

import pytest

from harness import matrix, observe
from harness.ending import QUIT, SIGTERM, HeldCallEnds
from harness.fault import Fault, Seen, rows
from harness.moment import ASKED, BEGUN
from harness.settings import patience

pytestmark = pytest.mark.waits

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

WAIT = 5  # seconds


class EndsWithTheWait(Seen):
    """Not earlier than the wait, and not later either."""

    def check(self, scene):
        scene.daemon.wait(30)
        passed = time.monotonic() - scene.heard
        assert WAIT - 0.1 < passed < WAIT + patience(1), passed


def end(moment, ending, scene):
    moment.reach(scene)
    scene.heard = time.monotonic()
    scene.held = scene.requests[0].ask()
    scene.requests[0].client.settle()
    observe.wait_until_worker_sleeps(scene.daemon.pid)
    ending.ask(scene)
    ending.expect_blocked(scene)


@rows(
    *(
        Fault(
            f"{ending.name}-{moment.name}",
            server=moment.server,
            act=functools.partial(end, moment, ending),
            sees=[EndsWithTheWait(), ending, HeldCallEnds()],
            ends=0,
        )
        for moment in (ASKED, BEGUN)
        for ending in (QUIT, SIGTERM)
    )
)
def test_end_while_waiting_for_data(fault, scene):
    fault.play(scene)
