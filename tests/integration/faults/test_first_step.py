"""What happens between the start of the worker and its first step.

A preloaded library (tests/preload) holds the new thread there. The last row does without: it sends
"prepare" and "quit" in one write again and again, and hits that moment only now and then.
"""

import functools

import pytest
from gi.repository import GLib

from harness import matrix, shared
from harness.daemon import Daemon
from harness.ending import QUIT, SIGTERM
from harness.fault import QUESTION, Answered, Fault, Seen, rows
from harness.moment import ExchangeOver, Uploaded
from harness.preload import ThreadGate, wait_until_thread_held

bus, server, platform, preinst, _, fresh, scene = matrix.FIXTURES

TRIES = 20
CONNECT = GLib.Variant(
    "(ayayayayayu)", (b"ask", b"position", b"1.0", b"binary", b"text/plain", 1000)
)
PREPARE = GLib.Variant("(uuu)", (1, 2, 0))


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    daemon = Daemon(directory, bus, platform.path, preinst)
    daemon.gate = ThreadGate(daemon, directory)
    yield from shared.running(daemon)


class NothingUploaded(Seen):
    """No exchange since the row began has sent a byte of its body."""

    def check(self, scene):
        for record in scene.server.exchanges(scene.exchanges_before):
            assert record["chunks"] == [], record


def hold(scene):
    """Prepares a request whose worker has not taken its first step."""
    scene.exchanges_before = scene.server.last
    scene.request(kind="position")
    wait_until_thread_held(scene.daemon.pid)


def end(ending, scene):
    with scene.daemon.gate.shut():
        hold(scene)
        ending.ask(scene)
        ending.expect_blocked(scene)


def cancel(scene):
    """The exchange takes its course; nothing of its answer is delivered."""
    with scene.daemon.gate.shut():
        hold(scene)
        scene.ask()
        scene.requests[0].cancel()
        scene.clients[0].settle()
    scene.requests[0].give(QUESTION)


def prepare_more(scene):
    """A request that comes at that moment waits for the next exchange."""
    with scene.daemon.gate.shut():
        hold(scene)
        scene.request(kind="position")
        assert [request.send(b"early") for request in scene.requests] == [57, 57]
    for request in scene.requests:
        request.give(QUESTION)


def lose_connection(scene):
    """The request has been handed over: without a call that is held nobody tells its client."""
    with scene.daemon.gate.shut():
        hold(scene)
        scene.platform.write(connections=[])
        scene.clients[0].wait_for_status(0)
    scene.requests[0].give(QUESTION)


def try_luck(scene):
    scene.exchanges_before = scene.server.last
    for _ in range(TRIES):
        scene.daemon.expect_end()
        raw = scene.raw_client()
        calls = (("connect", CONNECT), ("prepare", PREPARE), ("quit",))
        raw.send(*(raw.compose(*call) for call in calls))
        assert scene.daemon.wait() == 0
        scene.daemon.expect_silence()
        scene.daemon.start()
    scene.daemon.expect_end()
    scene.raw_client().call("quit")


@rows(
    *(
        Fault(
            ending.name,
            server={},
            act=functools.partial(end, ending),
            sees=[ending, NothingUploaded()],
            ends=0,
        )
        for ending in (QUIT, SIGTERM)
    ),
    Fault("cancel", server={}, act=cancel, sees=[ExchangeOver(), Uploaded(len(QUESTION))]),
    Fault("prepare", server=[{}, {}], act=prepare_more, sees=[Answered(), Answered(request=1)]),
    Fault("connection-lost", server={}, act=lose_connection, sees=[Answered()]),
    Fault("prepare-and-quit-at-once", act=try_luck, sees=[NothingUploaded()], ends=0),
)
def test_first_step(fault, scene):
    fault.play(scene)
