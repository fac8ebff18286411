"""Data that clients send at the wrong time, for the wrong request, or in odd pieces."""

import functools

from gi.repository import GLib

from harness import matrix
from harness.client import BusError
from harness.fault import QUESTION, Answered, Fault, rows, sending
from harness.moment import DELIVERED, FETCHED_LATE, MOMENTS, QUEUED, WAITING, ExchangeOver, Uploaded
from harness.raw_client import values
from harness.response import CLOSING, answer, part, start_part
from harness.waiting import wait_for

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

ACCEPTED, UNKNOWN_REQUEST, NOT_ASKED, UNKNOWN_CONNECTION = 0, 41, 57, 1001
MIB = 1 << 20


def send_data(data, last, request):
    return GLib.Variant.new_tuple(
        GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(data), True),
        GLib.Variant("b", last),
        GLib.Variant("u", request.connection),
        GLib.Variant("u", request.id),
    )


def asked(scene, **parameters):
    return scene.request(**{"kind": "position"} | parameters).wait_until_asked()


# -- at the wrong time -----------------------------------------------------------------------------


def send_before_asked(scene):
    QUEUED.reach(scene)
    request = scene.requests[0]
    for last in (False, True):
        assert request.send(b"early", last) == NOT_ASKED
    QUEUED.let_go(scene)
    request.give(QUESTION)


def send_out_of_turn(scene):
    """Of two requests in one exchange the second has to wait for its turn."""
    scene.client().wait_for_status(1)
    second = scene.request(attached=True, kind="position")
    first = asked(scene)
    assert second.send(b"early") == NOT_ASKED
    assert first.send(b"first") == ACCEPTED
    second.give(b"second")


def send_too_late(moment, scene):
    moment.reach(scene)
    for data in (b"late", b""):
        assert scene.requests[0].send(data) == NOT_ASKED
    moment.let_go(scene)


def too_late(moment):
    left = [] if moment in (DELIVERED, FETCHED_LATE) else [Answered(moment.left)]
    return Fault(
        f"after-the-last-{moment.name}",
        **moment.set_up(),
        act=functools.partial(send_too_late, moment),
        sees=[*left, ExchangeOver(), Uploaded(len(QUESTION))],
    )


def send_when_gone(scene):
    asked(scene).send(QUESTION)
    assert scene.fetch() == [QUESTION]
    ExchangeOver().check(scene)
    assert scene.requests[0].send(b"late") == UNKNOWN_REQUEST


def send_the_last_twice(scene):
    """The second is taken when the worker has not noticed the first, and refused otherwise."""
    request = asked(scene)
    raw = scene.raw_client()
    calls = [raw.compose("sendData", send_data(data, True, request)) for data in (b"one", b"two")]
    raw.send(*calls)
    first, second = (values(raw.answer(call.get_serial()))[0] for call in calls)
    assert first == ACCEPTED
    assert second in (ACCEPTED, NOT_ASKED)
    assert scene.fetch() == [b"onetwo" if second == ACCEPTED else b"one"]


# -- for the wrong request -------------------------------------------------------------------------


def send_for_others(scene):
    """The ids decide, whoever sends: wrong pairs are refused and the data are dropped."""
    request = asked(scene)
    foreigner = scene.client()
    own = scene.connect(foreigner)
    waiting = foreigner.attach(own)
    largest = 2**32 - 1
    for connection, number, result in (
        (own, request.id, UNKNOWN_REQUEST),
        (request.connection, waiting, UNKNOWN_REQUEST),
        (request.connection, 0, UNKNOWN_REQUEST),
        (request.connection, largest, UNKNOWN_REQUEST),
        (0, request.id, UNKNOWN_CONNECTION),
        (largest, request.id, UNKNOWN_CONNECTION),
        (own, waiting, NOT_ASKED),
    ):
        assert foreigner.sendData(connection, number, b"foreign") == result
    foreigner.cancel(own, waiting)
    foreigner.settle()
    assert request.send(QUESTION) == ACCEPTED


def send_for_another_client(scene):
    request = asked(scene)
    assert scene.client().sendData(request.connection, request.id, b"foreign") == ACCEPTED


# -- odd pieces ------------------------------------------------------------------------------------


def send_pieces(*pieces):
    def act(scene):
        request = asked(scene)
        for number, piece in enumerate(pieces, 1):
            assert request.send(piece, number == len(pieces)) == ACCEPTED

    return act


def send_more_than_the_bus_takes(scene):
    """The bus ends the connection of a client whose message is longer than it allows."""
    request = asked(scene, kind="fingerprint")  # its client has time
    sender = scene.client()
    try:
        sender.sendData(request.connection, request.id, bytes(64 * MIB))
    except BusError:
        wait_for(sender.bus.is_closed)
    assert sender.bus.is_closed()
    assert request.send(QUESTION) == ACCEPTED


@rows(
    Fault(
        "before-asked",
        server=QUEUED.server,
        act=send_before_asked,
        sees=[Answered(), Uploaded(len(QUESTION))],
    ),
    Fault(
        "out-of-turn",
        server={},
        platform=WAITING.platform,
        act=send_out_of_turn,
        sees=[Answered([b"second"]), Answered([b"first"], request=1)],
    ),
    *(too_late(moment) for moment in MOMENTS if not moment.unsent),
    Fault("when-gone", server={}, act=send_when_gone),
    Fault("last-twice", server={}, act=send_the_last_twice),
    Fault("wrong-ids", server={}, act=send_for_others, sees=[Answered(), Uploaded(len(QUESTION))]),
    Fault("another-client", server={}, act=send_for_another_client, sees=[Answered([b"foreign"])]),
    Fault("empty-last", server={}, act=sending(b""), sees=[Answered([b""]), Uploaded(0)]),
    Fault("empty-then-data", server={}, act=send_pieces(b"", QUESTION), sees=[Answered()]),
    Fault("data-then-empty", server={}, act=send_pieces(QUESTION, b""), sees=[Answered()]),
    Fault("1000-empty", server={}, act=send_pieces(*[b""] * 1000, QUESTION), sees=[Answered()]),
    Fault(
        "1000-of-one-byte",
        server={},
        act=send_pieces(*[b"x"] * 1000),
        sees=[Answered([b"x" * 1000])],
    ),
    Fault(
        "64-mib-on-a-bus-that-takes-32",
        server=answer(start_part("a"), "\r\n" + part("a", "received") + CLOSING),
        act=send_more_than_the_bus_takes,
        sees=[Answered([b"received"]), Uploaded(len(QUESTION))],
    ),
)
def test_client_data(fault, scene):
    fault.play(scene)
