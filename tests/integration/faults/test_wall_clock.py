"""The wall clock is stepped while the daemon runs; what it waits for follows the monotonic clock.

A preloaded library (tests/preload) steps the clock of the daemon's process only. That the step reaches it
is shown by certificates that are not valid any more, or not yet. Rows that wait for five seconds stand
among the others.
"""

import functools
import time

import pytest

from harness import curl, matrix, observe, shared
from harness.daemon import Daemon
from harness.fault import TRANSPORT, Answered, Failed, Fault, one_request, rows
from harness.moment import ASKED, MOMENTS, ExchangeOver
from harness.preload import SteppedClock
from harness.settings import patience

bus, server, platform, preinst, _, fresh, scene = matrix.FIXTURES

HOUR = 3600
DAY = 24 * HOUR
STEPS = {"forward": HOUR, "backward": -HOUR}
WAIT = 5  # seconds
DELAY = 60_000  # ms


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    daemon = Daemon(directory, bus, platform.path, preinst)
    daemon.clock = SteppedClock(daemon, directory)
    yield from shared.running(daemon)


@pytest.fixture(autouse=True)
def right_clock(daemon):
    yield
    daemon.clock.step_to()


def step_at(moment, step, scene):
    """The exchange takes its course."""
    moment.reach(scene)
    scene.daemon.clock.step_to(step)
    moment.let_go(scene)
    moment.send_rest(scene)


def step_while_waiting(step, scene):
    """The wait for a silent client's data is as long as ever."""
    ASKED.reach(scene)
    asked = time.monotonic()
    observe.wait_until_worker_sleeps(scene.daemon.pid)
    scene.daemon.clock.step_to(step)
    assert scene.fetch() == [b""]
    assert WAIT - 0.1 < time.monotonic() - asked < WAIT + patience(1)


def step_under_a_timer(step, scene):
    """A delayed quit comes a minute after its call, and is called off as ever."""
    client = scene.client()
    client.quitDelayed()
    scene.daemon.clock.step_to(step)
    client.settle()
    assert DELAY - 5_000 < observe.next_timer(scene.daemon.pid) <= DELAY
    client.disconnect(client.connect())
    assert observe.next_timer(scene.daemon.pid) == float("inf")


def step_and_change_platform(step, scene):
    """The platform file is watched on."""
    client = scene.client()
    client.wait_for_status(3)
    scene.daemon.clock.step_to(step)
    scene.platform.write(connections=[(2, True, False)])
    client.wait_for_status(1, 2)
    scene.platform.write_text("")
    client.wait_for_status(0, 3)


def step_again_and_again(scene):
    """A thousand steps to and fro during one exchange."""
    ASKED.reach(scene)
    for number in range(1000):
        scene.daemon.clock.step_to(HOUR if number % 2 else -HOUR)
        if number % 100 == 0:
            assert scene.requests[0].send(b"x", last=False) == 0
    assert scene.requests[0].send(b"") == 0


def step_beyond(step, scene):
    """The certificates are checked by the stepped clock."""
    scene.daemon.clock.step_to(step)
    one_request(scene)
    scene.daemon.clock.step_to()


def steps():
    for name, step in STEPS.items():
        for moment in MOMENTS:
            if moment.exchange and moment.left:
                yield Fault(
                    f"{name}-{moment.name}",
                    **moment.set_up(),
                    act=functools.partial(step_at, moment, step),
                    sees=[Answered(moment.left), ExchangeOver()],
                )
        for what, act, server_behaviour in (
            ("waiting-for-data", step_while_waiting, {}),
            ("delayed-quit", step_under_a_timer, None),
            ("platform-file", step_and_change_platform, None),
        ):
            yield Fault(
                f"{name}-{what}", server=server_behaviour, act=functools.partial(act, step)
            )


def invalid(name, step):
    return Fault(
        name,
        server={},
        act=functools.partial(step_beyond, step),
        sees=[Failed(TRANSPORT, curl.PEER_FAILED_VERIFICATION)],
    )


@rows(
    *steps(),
    Fault("again-and-again", server={}, act=step_again_and_again, sees=[Answered([b"x" * 10])]),
    invalid("before-the-certificates", -30 * DAY),
    invalid("behind-the-certificates", 3 * 365 * DAY),
)
def test_wall_clock(fault, scene):
    fault.play(scene)
