"""Held getData calls: who is answered with what, and who never."""

import signal

import pytest
from gi.repository import GLib

from harness import observe
from harness.client import BusError
from harness.raw_client import is_error, values

CONTINUES, PART_COMPLETE, COMPLETE = 2301, 2302, 2303
LARGEST = 2**32 - 1


def ids(connection, request):
    return GLib.Variant("(uu)", (connection, request))


def begin(client, kind="other", **connect):
    """Connects, prepares, and waits for the question for data: the ids."""
    connection = client.connect(kind=kind, **connect)
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    return connection, request


def finish(client, server, request_ids, data):
    """Sends the data and returns when the whole answer is in the daemon."""
    number = server.last
    assert client.sendData(*request_ids, data) == 0
    server.wait(number)


def refusal(client, connection, request):
    """The number with which getData is refused."""
    with pytest.raises(BusError) as refused:
        client.getData(connection, request).wait()
    return refused.value.code


def chunk(message):
    """Bytes and code of an answer to getData."""
    assert not is_error(message), values(message)
    data, code = message.get_body().get_child_value(0), message.get_body().get_child_value(1)
    return data.get_data_as_bytes().get_data() or b"", code.get_uint32()


def whole_part(raw, request_ids, held):
    """A part of the answer, whose first chunk answers a call that is held."""
    data, code = chunk(raw.answer(held))
    while code == CONTINUES:
        more, code = chunk(raw.call("getData", ids(*request_ids)))
        data += more
    return data


@pytest.fixture(name="waiting")
def fixture_waiting(client, platform):
    """An attached request that nothing makes travel: the ids."""
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    connection = client.connect(kind="other")
    return connection, client.attach(connection)


# -- one chunk per call ----------------------------------------------------------------------------


def test_call_is_held_until_there_is_an_answer(client):
    request = begin(client)
    held = client.getData(*request)
    client.settle()
    assert not held.done
    client.sendData(*request, b"data")
    assert held.wait().data != b""


def test_answer_waits_for_the_call(client, daemon, server):
    request = begin(client)
    finish(client, server, request, b"data")
    observe.wait_until_idle(daemon.pid)
    assert client.getData(*request).wait() == (b"data", COMPLETE)


def test_each_call_gets_one_chunk_and_no_more_come_unasked(raw, client, daemon, server):
    request = begin(client, chunk_size=4)
    finish(client, server, request, b"0123456789")
    observe.wait_until_idle(daemon.pid)
    pieces = [chunk(raw.call("getData", ids(*request))) for _ in range(3)]
    assert pieces == [(b"0123", CONTINUES), (b"4567", CONTINUES), (b"89", COMPLETE)]
    raw.settle()
    assert [m for m in raw.received if m.get_signature() == "ayu"] == []


@pytest.mark.parametrize(
    "size,pieces",
    [
        (1, [(b"a", CONTINUES), (b"b", CONTINUES), (b"c", CONTINUES), (b"d", COMPLETE)]),
        (3, [(b"abc", CONTINUES), (b"d", COMPLETE)]),
        (4, [(b"abcd", COMPLETE)]),
        (5, [(b"abcd", COMPLETE)]),
        (LARGEST, [(b"abcd", COMPLETE)]),
    ],
)
def test_chunk_size_is_the_most_that_one_call_gets(size, pieces, client, daemon, server):
    request = begin(client, chunk_size=size)
    finish(client, server, request, b"abcd")
    observe.wait_until_idle(daemon.pid)
    assert [client.getData(*request).wait() for _ in pieces] == pieces


def test_chunk_size_0_gives_empty_chunks_for_ever(client, daemon, server):
    request = begin(client, chunk_size=0)
    finish(client, server, request, b"data")
    observe.wait_until_idle(daemon.pid)
    for _ in range(20):
        assert client.getData(*request).wait() == (b"", CONTINUES)


def test_answer_that_ends_at_a_chunks_end_has_no_empty_chunk_behind_it(client, daemon, server):
    request = begin(client, chunk_size=4)
    finish(client, server, request, b"abcdefgh")
    observe.wait_until_idle(daemon.pid)
    assert client.getData(*request).wait() == (b"abcd", CONTINUES)
    assert client.getData(*request).wait() == (b"efgh", COMPLETE)


def test_empty_answer_is_one_empty_complete_chunk(client, daemon, server):
    request = begin(client)
    finish(client, server, request, b"")
    observe.wait_until_idle(daemon.pid)
    assert client.getData(*request).wait() == (b"", COMPLETE)


def test_chunks_of_several_parts_tell_their_ends(client, daemon, server):
    parts = [
        {"id": "a", "headers": [["X-SLP-Next-part-ID", "b"]], "body": "12345"},
        {"id": "b", "body": "678"},
    ]
    multipart = {"results": [{"oid": "1", "href": "cid:a"}], "parts": parts}
    server.queue({"answer": {"multipart": multipart}})
    request = begin(client, chunk_size=3)
    finish(client, server, request, b"data")
    observe.wait_until_idle(daemon.pid)
    assert [client.getData(*request).wait() for _ in range(3)] == [
        (b"123", CONTINUES),
        (b"45", PART_COMPLETE),
        (b"678", COMPLETE),
    ]


def test_chunks_come_in_the_order_of_the_bytes(client):
    connection, request = begin(client, chunk_size=700)
    client.sendData(connection, request, b"size: 200000")
    data, code = client.fetch_part(connection, request)
    assert code == COMPLETE
    assert data == (bytes(range(251)) * 800)[:200000]


def test_one_chunk_is_16_mib_at_most(client, daemon, server):
    request = begin(client, chunk_size=LARGEST)
    size = 16 * 2**20 + 1
    finish(client, server, request, b"size: %d" % size)
    observe.wait_until_idle(daemon.pid)
    first, second = (client.getData(*request).wait() for _ in range(2))
    assert (len(first.data), first.code) == (size - 1, CONTINUES)
    assert (len(second.data), second.code) == (1, COMPLETE)


# -- at most one held call -------------------------------------------------------------------------


def test_second_call_replaces_the_held_one_which_is_never_answered(raw, client):
    request = begin(client)
    first = raw.start("getData", ids(*request))
    second = raw.start("getData", ids(*request))
    raw.settle()
    client.sendData(*request, b"data")
    assert whole_part(raw, request, second) == b"data"
    raw.settle()
    assert not raw.has_answer(first)


def test_call_of_another_client_replaces_the_held_one_too(client, make_client):
    request = begin(client)
    first = client.getData(*request)
    client.settle()
    second = make_client().getData(*request)
    client.settle()
    client.sendData(*request, b"data")
    assert second.wait().data != b""
    client.settle()
    assert not first.done


def test_each_request_has_a_held_call_of_its_own(raw, client, waiting):
    connection, attached = waiting
    prepared = client.prepare(connection)
    calls = [raw.start("getData", ids(connection, request)) for request in (attached, prepared)]
    for request in (prepared, attached):
        client.wait_for_request_data(connection, request)
        client.sendData(connection, request, b"data of %d" % request)
    answers = zip((attached, prepared), calls)
    for request, call in answers:
        assert whole_part(raw, (connection, request), call) == b"data of %d" % request


def test_two_calls_at_once_lose_a_chunk_and_an_answer(raw, client, daemon, server):
    request = begin(client, chunk_size=1)
    finish(client, server, request, b"abc")
    observe.wait_until_idle(daemon.pid)
    # Both are there before the first one's chunk gets its turn: it answers the second call, and
    # the second one's chunk finds nobody.
    daemon.process.send_signal(signal.SIGSTOP)
    calls = [raw.compose("getData", ids(*request)) for _ in range(2)]
    raw.send(*calls)
    raw.settle_bus()
    daemon.process.send_signal(signal.SIGCONT)
    first, second = (call.get_serial() for call in calls)
    assert chunk(raw.answer(second)) == (b"a", CONTINUES)
    raw.settle()
    assert not raw.has_answer(first)
    assert chunk(raw.call("getData", ids(*request))) == (b"c", COMPLETE)


# -- calls that are dropped ------------------------------------------------------------------------


def assert_dropped(raw, held):
    raw.settle()
    assert not raw.has_answer(held)


def test_call_of_a_cancelled_waiting_request_is_dropped(raw, client, waiting):
    held = raw.start("getData", ids(*waiting))
    raw.settle()
    client.cancel(*waiting)
    assert refusal(client, *waiting) == 41
    assert_dropped(raw, held)


def test_call_of_a_disconnected_waiting_request_is_dropped(raw, client, waiting):
    held = raw.start("getData", ids(*waiting))
    raw.settle()
    client.disconnect(waiting[0])
    assert refusal(client, *waiting) == 41
    assert_dropped(raw, held)


def test_call_of_a_cancelled_request_under_way_is_dropped_at_the_end(raw, client, daemon, server):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "go"}]})
    request = begin(client)
    held = raw.start("getData", ids(*request))
    raw.settle()
    client.sendData(*request, b"data")
    client.cancel(*request)
    raw.settle()
    # It stays until the exchange ends: further calls are held, not refused.
    later = raw.start("getData", ids(*request))
    raw.settle()
    assert not raw.has_answer(later)
    server.give("go")
    server.wait(1)
    observe.wait_until_idle(daemon.pid)
    assert refusal(client, *request) == 41
    assert not raw.has_answer(held) and not raw.has_answer(later)


def test_call_of_a_failed_request_is_dropped(raw, client, server):
    server.queue({"answer": {"content_type": "text/plain", "body": "no multipart"}})
    request = begin(client)
    held = raw.start("getData", ids(*request))
    raw.settle()
    client.sendData(*request, b"data")
    client.wait_for_signal("errorSignal")
    assert refusal(client, *request) == 41
    assert_dropped(raw, held)


def test_call_behind_the_last_chunk_is_dropped_at_the_end_of_the_exchange(
    raw, client, daemon, server
):
    multipart = {"epilogue": {"do": "wait", "event": "go"}}
    server.queue({"answer": {"multipart": multipart}})
    request = begin(client)
    client.sendData(*request, b"data")
    assert client.fetch(*request) == [b"data"]
    held = raw.start("getData", ids(*request))
    raw.settle()
    assert not raw.has_answer(held)
    server.give("go")
    server.wait(1)
    observe.wait_until_idle(daemon.pid)
    assert refusal(client, *request) == 41
    assert_dropped(raw, held)


def test_call_behind_an_answer_that_was_fetched_late_waits_for_the_next_exchange(
    raw, client, daemon, server
):
    request = begin(client)
    finish(client, server, request, b"data")
    observe.wait_until_idle(daemon.pid)
    assert client.getData(*request).wait() == (b"data", COMPLETE)
    # Neither answered nor refused, until somebody starts an exchange.
    held = raw.start("getData", ids(*request))
    raw.settle()
    assert not raw.has_answer(held)
    assert client.exchange(b"other", kind="other") == [b"other"]
    assert refusal(client, *request) == 41
    assert_dropped(raw, held)


def test_answer_that_nobody_has_fetched_stays(client, daemon, server):
    request = begin(client)
    finish(client, server, request, b"data")
    observe.wait_until_idle(daemon.pid)
    for _ in range(2):
        assert client.exchange(b"other", kind="other") == [b"other"]
        observe.wait_until_idle(daemon.pid)
    assert client.fetch(*request) == [b"data"]


def test_held_call_of_a_client_that_leaves_does_no_harm(raw, client, make_client):
    request = begin(client)
    gone = make_client()
    gone.getData(*request)
    gone.settle()
    gone.close()
    client.sendData(*request, b"data")
    # The first piece went to the one that left.
    assert b"data".endswith(client.fetch(*request)[0])
    raw.settle()


# -- calls that are refused ------------------------------------------------------------------------


def test_refused_calls_leave_no_memory_behind(make_daemon, make_raw_client):
    daemon = make_daemon()
    # What is freed shall be free at once, also under the address sanitizer. The thread sanitizer's
    # history grows to its full length first, unless it is short.
    daemon.environment["ASAN_OPTIONS"] += ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0"
    daemon.environment["TSAN_OPTIONS"] += ":history_size=0"
    daemon.start()
    raw = make_raw_client()

    def refuse(first, count):
        for start in range(first, first + count, 100):
            calls = [raw.compose("getData", ids(start + n, n)) for n in range(100)]
            raw.send(*calls)
            for call in calls:
                assert values(raw.answer(call.get_serial())) == ("(41) unspecifiedError",)
            raw.history.clear()

    refuse(1, 1000)
    before = observe.allocated_bytes(daemon.pid)
    refuse(10_000, 10_000)
    assert observe.allocated_bytes(daemon.pid) - before < 256 * 1024


def test_refused_call_is_answered_once(raw, client):
    refused = raw.start("getData", ids(1, 1))
    assert is_error(raw.answer(refused))
    # The key exists from now on; nothing is held under it.
    request = begin(client)
    assert request == (1, 1)
    client.sendData(*request, b"data")
    assert client.fetch(*request) == [b"data"]
    raw.settle()
    assert not raw.has_answer(refused)
