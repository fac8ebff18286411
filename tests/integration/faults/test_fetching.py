"""Clients that never fetch their answer, fetch it twice, or ask for it in odd ways."""

import os
import resource

from gi.repository import Gio, GLib

from harness import matrix, observe
from harness.client import PART_CONTINUES, RESPONSE_COMPLETE, BusError
from harness.fault import QUESTION, Answered, Fault, one_request, rows, sending
from harness.moment import SENT, WAITING, ExchangeOver
from harness.raw_client import values
from harness.settings import BUS_NAME, OBJECT_PATH

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

MIB = 1 << 20
MOST_DESCRIPTORS = 16  # in one message
UNKNOWN = (2**32 - 1, 1)
LIMIT = 1024  # descriptors of a process, as most systems set it


# -- never -----------------------------------------------------------------------------------------


def leave_unfetched(scene):
    """Three answers of a megabyte stay in the daemon; others are served meanwhile."""
    for _ in range(3):
        scene.request(kind="other").give(b"size: %d" % MIB)
        ExchangeOver().check(scene)


def fetch_late(scene):
    leave_unfetched(scene)
    scene.request(kind="other").give(QUESTION)


def pattern(size):
    return (bytes(range(251)) * (size // 251 + 1))[:size]


# -- twice -----------------------------------------------------------------------------------------


def fetch_twice_at_once(scene):
    """The second call takes the first one's place, which is never answered."""
    SENT.reach(scene)
    request = scene.requests[0]
    first = request.ask()
    scene.ask()
    request.client.settle()
    SENT.let_go(scene)
    assert scene.fetch() == [QUESTION]
    request.client.settle()
    assert not first.done


def fetch_twice_in_a_row(scene):
    one_request(scene)
    assert scene.fetch() == [QUESTION]
    ExchangeOver().check(scene)
    assert scene.requests[0].ask_error() == 41


def fetch_in_turn(scene):
    """Two clients that share a request get a chunk each."""
    request = scene.request(kind="other", chunk_size=3).give(QUESTION)
    others = scene.client()
    ExchangeOver().check(scene)
    mine, theirs = request.client, others
    chunks = [
        client.getData(request.connection, request.id).wait() for client in (mine, theirs, mine)
    ]
    assert chunks == [
        (QUESTION[:3], PART_CONTINUES),
        (QUESTION[3:6], PART_CONTINUES),
        (QUESTION[6:], RESPONSE_COMPLETE),
    ]


def fetch_a_hundred_times(scene):
    """One call at most is held, the last one. The bus lets a client wait for 128 answers."""
    SENT.reach(scene)
    request = scene.requests[0]
    before = scene.daemon.ledger.read()
    raw = scene.raw_client()
    ids = GLib.Variant("(uu)", (request.connection, request.id))
    calls = [raw.compose("getData", ids) for _ in range(100)]
    raw.send(*calls)
    raw.settle()
    scene.daemon.ledger.expect_more(before, held_calls=1)
    SENT.let_go(scene)
    answer = raw.answer(calls[-1].get_serial())
    assert bytes(values(answer)[0]) == QUESTION
    raw.settle()
    assert not any(raw.has_answer(call.get_serial()) for call in calls)


# -- with more than is asked for -------------------------------------------------------------------


def get_data(connection, request, *more, descriptors=0):
    """A call with further arguments, which nobody reads."""
    message = Gio.DBusMessage.new_method_call(BUS_NAME, OBJECT_PATH, BUS_NAME, "getData")
    ids = [GLib.Variant("u", connection), GLib.Variant("u", request)]
    numbers = [GLib.Variant("h", number) for number in range(descriptors)]
    message.set_body(GLib.Variant.new_tuple(*ids, *more, *numbers))
    if descriptors:
        copies = [os.dup(0) for _ in range(descriptors)]
        message.set_unix_fd_list(Gio.UnixFDList.new_from_array(copies))
    return message


def hold(scene, *more, **options):
    """Such a call for a request that waits. It is held and never answered."""
    request = scene.request(attached=True, kind="other")
    message = get_data(request.connection, request.id, *more, **options)
    request.client.bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
    request.client.settle()


def take_back(scene):
    for request in scene.requests:
        request.client.disconnect(request.connection)


def hold_large_calls(scene):
    """Together they are more than libdbus has in its hands at a time."""
    scene.client().wait_for_status(1)
    filling = GLib.Variant.new_from_bytes(
        GLib.VariantType("ay"), GLib.Bytes.new(bytes(30 * MIB)), True
    )
    for _ in range(3):
        hold(scene, filling)
    take_back(scene)


def hold_descriptors(scene):
    scene.client().wait_for_status(1)
    before = scene.daemon.resources()["fds"]
    for _ in range(5):
        hold(scene, descriptors=MOST_DESCRIPTORS)
    assert scene.daemon.resources()["fds"] == before
    take_back(scene)


def is_served(client):
    """The bus refuses calls while too many wait for the daemon."""
    try:
        client.settle()
    except BusError:
        return False
    return True


def flood_with_descriptors(scene):
    """More of them than the daemon may have, in calls that have come before it looks."""
    pid = scene.daemon.pid
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (LIMIT, before[1]))
    senders = [scene.client() for _ in range(40)]
    with observe.stopped(scene.daemon.process):
        for sender in senders:
            for _ in range(3):  # the bus reads no more of one client's at a time
                message = get_data(*UNKNOWN, descriptors=MOST_DESCRIPTORS)
                message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
                sender.bus.send_message(message, Gio.DBusSendMessageFlags.NONE)
        for sender in senders:
            sender.settle_bus()
    observe.poll_for(lambda: is_served(senders[-1]), 10, "the end of the flood")
    resource.prlimit(pid, resource.RLIMIT_NOFILE, before)


@rows(
    Fault("never", server=[{}, {}, {}], act=leave_unfetched),
    Fault(
        "late",
        server=[{}, {}, {}, {}],
        act=fetch_late,
        sees=[
            Answered(request=3),
            *(Answered([pattern(MIB)], request=number) for number in range(3)),
        ],
    ),
    Fault("twice-at-once", server=SENT.server, act=fetch_twice_at_once, sees=[ExchangeOver()]),
    Fault("twice-in-a-row", server={}, act=fetch_twice_in_a_row),
    Fault("two-clients-in-turn", server={}, act=fetch_in_turn),
    Fault("100-times-at-once", server=SENT.server, act=fetch_a_hundred_times, sees=[ExchangeOver()]),
    Fault("one-byte-at-a-time", server={}, act=sending(chunk_size=1), sees=[Answered()]),
    Fault("30-mib-of-further-arguments", platform=WAITING.platform, act=hold_large_calls),
    Fault("held-descriptors", platform=WAITING.platform, act=hold_descriptors),
    Fault("flood-of-descriptors", server={}, act=flood_with_descriptors),
)
def test_fetching(fault, scene):
    fault.play(scene)
