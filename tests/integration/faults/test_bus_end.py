"""The bus dies, at rest and at each moment of a request's life: the daemon ends at once, with status 1.

It does not wait for its worker. Each row has a bus and a daemon of its own.
"""

import functools
import signal
import time

import pytest

from harness import matrix, observe, shared
from harness.daemon import Daemon
from harness.fault import Answered, Event, Fault, Seen, rows
from harness.moment import MOMENTS, SENT
from harness.private_bus import PrivateBus
from harness.settings import patience

_, server, platform, preinst, _, fresh, scene = matrix.FIXTURES

AT_ONCE = 2  # seconds; less than any wait that a worker may be in


@pytest.fixture
def bus(tmp_path):
    bus = PrivateBus(tmp_path)
    yield bus
    bus.stop()


@pytest.fixture
def daemon(tmp_path, bus, platform, preinst):
    yield from shared.running(Daemon(tmp_path, bus, platform.path, preinst))


class EndsAtOnce(Seen):
    """The process is gone, worker and all."""

    def check(self, scene):
        scene.daemon.process.wait(AT_ONCE)
        assert time.monotonic() - scene.killed < patience(AT_ONCE)
        scene.bus.process.wait(AT_ONCE)  # its sockets are closed before it has ended


def kill_bus(scene, number=signal.SIGKILL):
    scene.daemon.expect_end()
    scene.killed = time.monotonic()
    scene.bus.process.send_signal(number)


def die(moment, scene):
    moment.reach(scene)
    if not moment.ready:
        scene.requests[0].ask()
        scene.requests[0].client.settle()
    if moment.unsent and moment.exchange and not moment.asks:
        observe.wait_until_worker_sleeps(scene.daemon.pid)
    kill_bus(scene)


def stop_in_order(scene):
    kill_bus(scene, signal.SIGTERM)


def freeze(scene):
    """A bus that stands still is no bus that has gone: the exchange goes on when it does."""
    SENT.reach(scene)
    scene.ask()
    scene.requests[0].client.settle()
    with observe.stopped(scene.bus.process):
        SENT.let_go(scene)
        scene.server.wait(scene.server.last)


def died(moment):
    server_goes_on = [Event("go")] if moment.held else []
    return Fault(
        f"killed-{moment.name}",
        **moment.set_up(),
        act=functools.partial(die, moment),
        sees=[EndsAtOnce(), *server_goes_on],
        ends=1,
    )


@rows(
    Fault("killed-at-rest", act=kill_bus, sees=[EndsAtOnce()], ends=1),
    Fault("ends-in-order-at-rest", act=stop_in_order, sees=[EndsAtOnce()], ends=1),
    *map(died, MOMENTS),
    Fault("stands-still", server=SENT.server, act=freeze, sees=[Answered()]),
)
def test_bus_end(fault, scene):
    fault.play(scene)
