"""What the daemon holds for others is bounded, whatever its clients and the server do."""

import hashlib
import time

import pytest
from gi.repository import GLib

from harness import observe, shared
from harness.client import PART_COMPLETE, RESPONSE_COMPLETE
from harness.request import Request, expect_no_error
from harness.response import CLOSING, DELIMITER, START, answer, part, start_part
from harness.settings import is_sanitized, patience
from harness.waiting import wait_for

MIB = 1 << 20
BUDGET = 128 * MIB
SHARE = 96 * MIB  # of one answer, or of one request's data
PROMPT = 8 * MIB  # of a request's data, whose replies come at once
SLACK = 16 * MIB  # sockets, the message under way, blocks that are not full

NOT_ACCEPTING = 57
UNPARSABLE = (2001, "could not parse document")
FAULTY = (2001, "faulty MIME data")

bus, server, platform, preinst, daemon, fresh = shared.FIXTURES


@pytest.fixture
def memory(daemon):
    """How much more memory the daemon holds than at the beginning of the test."""
    before = observe.allocated_bytes(daemon.pid)

    def more():
        return observe.allocated_bytes(daemon.pid) - before

    return more


def expect_within(more, limit):
    if not is_sanitized():  # a sanitizer keeps what was freed
        assert more() <= limit + SLACK


def wait_until_stalled(pid, seconds=60):
    """Waits until the worker sleeps for longer than its pauses of 10 ms."""
    seen = [None, 0.0]

    def stalls():
        switches = {
            task: observe.status_field(pid, "voluntary_ctxt_switches", task)
            for task, name in observe.threads(pid).items()
            if name == "HttpClient"
        }
        if not switches or switches != seen[0]:
            seen[:] = [switches, time.monotonic()]
        return time.monotonic() - seen[1] > 0.5

    observe.poll_for(stalls, seconds, "the worker's stall")


def pattern(size):
    """The test server's made-up bytes."""
    block = bytes(range(251))
    return block * (size // 251) + block[: size % 251]


# -- downwards -------------------------------------------------------------------------------------


def test_answer_that_nobody_fetches_stops_the_server_and_goes_on_when_it_is_fetched(
    client, server, daemon, memory
):
    size = 160 * MIB
    server.queue({"answer": {"multipart": {"parts": [{"id": "answer-1", "body": {"bytes": size}}]}}})
    request = Request(client, kind="other", chunk_size=MIB).give(b"question")

    wait_until_stalled(daemon.pid)
    expect_within(memory, SHARE)
    if not is_sanitized():
        assert memory() > SHARE - SLACK
    digest = hashlib.sha256()
    received = 0
    code = None
    while code != RESPONSE_COMPLETE:
        chunk = request.ask().wait(30)
        code = chunk.code
        digest.update(chunk.data)
        received += len(chunk.data)
    assert received == size
    assert digest.hexdigest() == hashlib.sha256(pattern(size)).hexdigest()
    expect_no_error(client)
    expect_within(memory, 0)


def test_small_answers_that_came_before_can_be_fetched_meanwhile(client, server, platform, daemon):
    platform.write(connections=[(2, True, False)])  # an attached request waits for a prepared one
    client.wait_for_status(1)
    large = {"id": "answer-2", "body": {"bytes": SHARE + 8 * MIB}}
    small = {"id": "answer-1", "body": "small"}
    server.queue({"answer": {"multipart": {"parts": [small, large]}}})
    behind = Request(client, attached=True, kind="other", chunk_size=MIB)
    first = Request(client, kind="other").give(b"first")
    behind.give(b"behind")

    wait_until_stalled(daemon.pid)
    assert first.fetch() == [b"small"]
    assert sum(map(len, behind.fetch())) == SHARE + 8 * MIB
    expect_no_error(client)


def test_sixty_mebibytes_may_be_fetched_after_the_exchange(client, server, daemon):
    size = 60 * MIB
    server.queue({"answer": {"multipart": {"parts": [{"id": "answer-1", "body": {"bytes": size}}]}}})
    request = Request(client, kind="other", chunk_size=16 * MIB).give(b"question")

    server.wait(server.last or 1, seconds=60)
    observe.wait_until_idle(daemon.pid, 60)
    assert len(b"".join(request.fetch())) == size
    expect_no_error(client)


def test_cancelled_answer_gives_its_memory_back_at_once(client, server, daemon, memory):
    parts = [{"id": "answer-1", "body": {"bytes": SHARE + 8 * MIB}}]
    server.queue({"answer": {"multipart": {"parts": parts}}})
    request = Request(client, kind="other").give(b"question")

    wait_until_stalled(daemon.pid)
    request.cancel()
    observe.wait_until_idle(daemon.pid, 60)
    expect_within(memory, 0)
    expect_no_error(client)


# -- upwards ---------------------------------------------------------------------------------------


def paused_upload(client, server):
    """A request whose server reads the head and the first part, and then nothing for a while."""
    server.queue({"on": [{"at": "upload", "bytes": 1, "do": "wait", "event": "read"}]})
    return Request(client, kind="fingerprint", encoding="binary").wait_until_asked()


def send_later(request, data, last=False):
    arguments = GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(data), True)
    ids = [GLib.Variant("u", value) for value in (request.connection, request.id)]
    flag = GLib.Variant("b", last)
    return request.client.call_later("sendData", arguments, flag, *ids)


def result(pending, seconds=10):
    return pending.wait(seconds)[0]


def test_replies_are_late_while_the_server_reads_nothing(client, server, memory):
    request = paused_upload(client, server)
    piece = pattern(MIB)
    sent = 0
    while sent <= PROMPT:
        assert result(send_later(request, piece), 4) == 0
        sent += MIB
        if sent > PROMPT + 8 * MIB:
            raise AssertionError("no reply is late")
        late = send_later(request, piece)
        client.settle()
        if not late.done:
            break
        sent += MIB
    expect_within(memory, PROMPT)
    server.give("read")
    begin = time.monotonic()
    assert result(late) == 0
    assert time.monotonic() - begin < patience(4)
    assert request.send(b"", last=True) == 0
    request.fetch()
    expect_no_error(client)


def test_upload_of_256_mebibytes_takes_little_memory_while_its_server_pauses(client, server, memory):
    size = 256 * MIB if not is_sanitized() else 32 * MIB
    pauses = [{"at": "upload", "bytes": size // 8 * n, "do": "pause", "seconds": 1} for n in (1, 4, 7)]
    server.queue({"on": pauses})
    request = Request(client, kind="fingerprint", encoding="binary").wait_until_asked()
    piece = pattern(256 * 1024)
    most = 0
    for _ in range(size // len(piece)):
        assert request.send(piece, last=False) == 0
        most = max(most, memory())
    assert request.send(b"", last=True) == 0
    assert b'bytes="%d"' % size in b"".join(request.fetch())
    if not is_sanitized():
        assert PROMPT // 2 < most < 16 * MIB
    expect_no_error(client)


def test_no_reply_is_later_than_five_seconds(client, server):
    request = paused_upload(client, server)
    begin = time.monotonic()
    assert request.send(pattern(30 * MIB), last=True) == 0  # stored whole, although it is more
    assert 4 < time.monotonic() - begin < 5 + patience(5)
    server.give("read")
    answer = b"".join(request.fetch())
    assert b'bytes="%d"' % (30 * MIB) in answer
    expect_no_error(client)


def test_data_beyond_the_share_is_refused_and_not_stored(client, server, memory):
    request = paused_upload(client, server)
    piece = pattern(8 * MIB)
    calls = [send_later(request, piece) for _ in range(14)]
    wait_for(lambda: calls[-1].done, 20, "the refusal")
    refused = [call for call in calls if call.done and call.answer == (NOT_ACCEPTING,)]
    assert 1 <= len(refused) <= 3
    assert calls[-1] in refused
    expect_within(memory, SHARE + len(piece))
    server.give("read")
    accepted = [call for call in calls if call not in refused]
    assert [result(call) for call in accepted] == [0] * len(accepted)
    assert request.send(b"", last=True) == 0
    answer = b"".join(request.fetch())
    assert b'bytes="%d"' % (len(accepted) * len(piece)) in answer
    expect_no_error(client)


def test_replies_that_are_held_go_out_when_the_exchange_fails(client, server):
    server.queue({"on": [{"at": "upload", "bytes": 1, "do": "wait", "event": "read"},
                         {"at": "upload", "bytes": 1, "do": "reset"}]})
    request = Request(client, kind="fingerprint", encoding="binary").wait_until_asked()
    late = send_later(request, pattern(30 * MIB))
    client.settle()
    assert not late.done
    server.give("read")
    begin = time.monotonic()
    assert result(late) == 0
    assert time.monotonic() - begin < patience(4)
    assert request.wait_for_failure()[0] == 2204
    expect_no_error(client)


# -- what a server sends without end ---------------------------------------------------------------

HEADERS = "Content-Id: a\r\nX: "


@pytest.mark.parametrize(
    "pieces, failure",
    [
        pytest.param(
            [part(START, "<SimpleLocationProtocol>"), {"endless": " " * 16000}],
            UNPARSABLE,
            id="start part",
        ),
        pytest.param(
            [part(START, "<SimpleLocationProtocol><SlpResponse status='ok'>"),
             {"endless": "<result oid='1' href='cid:a'/>" * 500}],
            UNPARSABLE,
            id="results",
        ),
        pytest.param(
            [start_part("a") + "\r\n" + DELIMITER, "\r\n" + HEADERS, {"endless": "x" * 16000}],
            FAULTY,
            id="header block",
        ),
        pytest.param(
            [start_part("a") + "\r\n", {"endless": (part("a", "x") + "\r\n") * 200}],
            FAULTY,
            id="parts",
        ),
        pytest.param(
            [start_part("a") + "\r\n",
             {"endless": (part("a", "x", "X-Slp-Next-Part-Id: a") + "\r\n") * 150}],
            FAULTY,
            id="announcements",
        ),
    ],
)
def test_structure_without_end_fails_at_once(client, server, memory, pieces, failure):
    server.queue(answer(*pieces))
    request = Request(client, kind="other").give(b"question")

    assert request.wait_for_failure(50) == failure
    expect_within(memory, SHARE)
    expect_no_error(client)


def test_head_without_end_fails_at_once(client, server, memory):
    head = ["HTTP/1.1 200 OK\r\n", {"endless": "X: " + "x" * 1000 + "\r\n"}]
    server.queue({"answer": {"head": head}})
    request = Request(client, kind="other").give(b"question")

    code, _ = request.wait_for_failure(30)
    assert code in (2001, 2204)  # libcurl's limit or the parser's, whichever comes first
    expect_within(memory, 0)
    expect_no_error(client)


def test_a_hundred_thousand_parts_may_wait_for_their_client(client, server, daemon):
    count = 100_000 if not is_sanitized() else 10_000
    parts = [{"id": "p{n}", "body": "x", "times": count}]
    results = [{"oid": "1", "href": "cid:p{n}", "times": count}]
    server.queue({"answer": {"multipart": {"parts": parts, "results": results}, "pack": 16000}})
    request = Request(client, kind="other").give(b"question")

    observe.wait_until_idle(daemon.pid, 60)
    assert [request.fetch_part() for _ in range(100)] == [(b"x", PART_COMPLETE)] * 100
    client.disconnect(request.connection)
    expect_no_error(client)
