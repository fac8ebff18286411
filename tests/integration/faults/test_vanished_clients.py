"""Clients whose bus connection ends at some moment of their request's life.

The daemon does not notice: whoever knows the ids goes on with the request, and gets what is left of its
answer. Requests that nobody goes on with are in test_silent_clients.
"""

import functools

from gi.repository import GLib

from harness import matrix
from harness.fault import Answered, Fault, one_request, rows
from harness.moment import DELIVERED, FETCHED_LATE, MOMENTS, SENT, WAITING, ExchangeOver

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

GO = b"go"
CONNECT = GLib.Variant("(ayayayayayu)", (b"ask", b"other", b"1.0", b"binary", b"text/plain", 1000))


def vanish(moment, scene):
    """The client leaves behind a call that is held, as far as one can be."""
    moment.reach(scene)
    heir = scene.client()
    first = scene.requests[0]
    if not moment.ready:
        first.ask()
        first.client.settle()
    first.client.close()
    first.client = heir


def go_on(moment, scene):
    """The heir's call takes the place of the one that is held."""
    vanish(moment, scene)
    request = scene.requests[0]
    scene.ask()
    if moment is WAITING:
        scene.request(request.client, kind="position").give(GO)
    request.client.settle()
    moment.let_go(scene)
    moment.send_rest(scene)


def outcome(moment):
    """What the heir sees."""
    if moment in (DELIVERED, FETCHED_LATE):
        return [ExchangeOver()]  # and silence: a call behind the last chunk is held
    companion = [Answered([GO], request=1)] if moment is WAITING else []
    return [Answered(moment.left), *companion, ExchangeOver()]


def vanished(moment):
    return Fault(
        f"vanishes-{moment.name}",
        **moment.set_up(),
        act=functools.partial(go_on, moment),
        sees=outcome(moment),
    )


# -- calls without their callers -------------------------------------------------------------------


def lose_a_chunk(scene):
    """The answer's first chunk goes to the client that has left."""
    number = scene.server.last + 1
    scene.request(kind="position", chunk_size=3).wait_until_asked().send(b"question")
    scene.server.wait(number, "upload-end")
    vanish_with_call(scene)
    scene.server.give("go")
    ExchangeOver().check(scene)


def vanish_with_call(scene):
    first = scene.requests[0]
    first.ask()
    first.client.settle()
    heir = scene.client()
    first.client.close()
    heir.settle()
    first.client = heir


def leave_unread(scene, calls, close):
    """Sends calls in one write and reads no answer."""
    raw = scene.raw_client()
    raw.send(*(raw.compose(*call) for call in calls))
    if close:
        raw.close()
    scene.client().settle()


def leave_connections(scene):
    """The bus passes on as many calls as it has read when it notices."""
    first = scene.client().connect()
    leave_unread(scene, [("connect", CONNECT)] * 200, close=True)
    one_request(scene)
    last = scene.clients[0].connect()
    assert last <= first + 200 + 2
    for connection in range(first, last + 1):
        if connection != scene.requests[0].connection:
            scene.clients[0].disconnect(connection)


def never_read(scene):
    unknown = GLib.Variant("(uu)", (2**32 - 1, 1))
    leave_unread(scene, [("getData", unknown)] * 2000, close=False)
    one_request(scene)


def break_off(scene):
    """The connection ends in the middle of a message for an asked request."""
    request = scene.request(kind="position").wait_until_asked()
    raw = scene.raw_client()
    data = GLib.Variant("(aybuu)", (b"x" * 1000, True, request.connection, request.id))
    raw.send_front(raw.compose("sendData", data), 500)
    raw.close()
    assert request.send(b"question") == 0


@rows(
    *map(vanished, MOMENTS),
    Fault(
        "held-call-takes-a-chunk-along",
        server=SENT.server,
        act=lose_a_chunk,
        sees=[Answered([b"stion"])],
    ),
    Fault("vanishes-with-200-calls-unanswered", server={}, act=leave_connections, sees=[Answered()]),
    Fault("never-reads-2000-answers", server={}, act=never_read, sees=[Answered()]),
    Fault("breaks-off-within-a-message", server={}, act=break_off, sees=[Answered()]),
)
def test_vanished_client(fault, scene):
    fault.play(scene)
