"""The signal "cancel" and the call "disconnect" at each moment of a request's life.

An exchange that runs takes its course, but nothing more of its answer is delivered. The request is known
until the exchange ends, or until the next one when none runs. Nobody gets a signal.
"""

import functools

from harness import matrix
from harness.fault import QUESTION, Fault, Seen, rows
from harness.moment import (
    ANSWERED,
    ASKED,
    BEGUN,
    FETCHED_LATE,
    HALF,
    MOMENTS,
    QUEUED,
    WAITING,
    ExchangeOver,
    Uploaded,
)

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

REFUSED, UNKNOWN_CONNECTION = 57, 1001
# How much has come to the server when the connection is closed and the data are refused.
CUT_SHORT = {QUEUED: 0, ASKED: 0, BEGUN: HALF}


class Gone(Seen):
    """The daemon knows the request no more."""

    def check(self, scene):
        assert scene.requests[0].ask_error() == 41


class NoExchange(Seen):
    """None has been made since the row began."""

    def check(self, scene):
        client = scene.requests[0].client
        client.settle()
        assert {each.name for each in client.signals} <= {"connectionStatusChanged"}


def outcome(moment):
    """What is seen of a request that is taken back at this moment, besides silence."""
    if moment is WAITING:
        return [NoExchange(), Gone()]
    if moment in (ANSWERED, FETCHED_LATE):
        return []  # until the next exchange its calls are held, and never answered
    return [ExchangeOver(), Gone()]


def take_back(moment, scene, how):
    """Brings the request to the moment and takes it back, with a call that is held for ever."""
    moment.reach(scene)
    if not moment.ready:
        scene.ask()
    how(scene.requests[0])
    if moment.ready:
        scene.ask()



# -- cancel ----------------------------------------------------------------------------------------


def cancel(moment, scene):
    take_back(moment, scene, lambda request: request.cancel())
    if moment is WAITING:
        return
    request = scene.requests[0]
    if not moment.unsent or moment.asks:
        assert request.send(b"now") == REFUSED
    moment.let_go(scene)
    moment.send_rest(scene)


def cancelled(moment):
    uploaded = [Uploaded(len(QUESTION))] if moment.exchange else []
    return Fault(
        f"cancel-{moment.name}",
        **moment.set_up(),
        act=functools.partial(cancel, moment),
        sees=[*outcome(moment), *uploaded],
    )


# -- disconnect ------------------------------------------------------------------------------------


def disconnect(moment, scene):
    take_back(moment, scene, lambda request: request.client.disconnect(request.connection))
    request = scene.requests[0]
    assert request.send(b"now") == UNKNOWN_CONNECTION
    moment.let_go(scene)
    if moment.asks and moment is not WAITING:
        request.wait_until_asked()
        assert request.send(moment.unsent) == UNKNOWN_CONNECTION


def disconnected(moment):
    uploaded = [Uploaded(CUT_SHORT.get(moment, len(QUESTION)))] if moment.exchange else []
    return Fault(
        f"disconnect-{moment.name}",
        **moment.set_up(),
        act=functools.partial(disconnect, moment),
        sees=[*outcome(moment), *uploaded],
    )


@rows(*map(cancelled, MOMENTS), *map(disconnected, MOMENTS))
def test_request_that_is_taken_back(fault, scene):
    fault.play(scene)
