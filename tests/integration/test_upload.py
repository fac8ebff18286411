"""The request as it stands on the wire: head, SLP document, parts, line ends, chunks."""

import hashlib
import itertools
import random
import re
import time

import pytest

from harness import wire
from harness.client import RESPONSE_COMPLETE
from harness.request import Request, expect_no_error
from harness.waiting import dispatch_pending

QUESTION = b"where am I?"
SIGNS = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz+_=?"


def sent(server, number=1):
    """The record of an exchange, its boundary and its whole body."""
    record = server.wait(number, "upload-end")
    body = server.body(number)
    assert len(body) == record["body_bytes"]
    return record, wire.boundary_of(record), body


def chunks_of(record, body):
    """The body cut into its HTTP chunks."""
    ends = list(itertools.accumulate(record["chunks"]))
    return [body[end - size : end] for size, end in zip(record["chunks"], ends)]


def platform_of(server, number=1):
    """The attributes of SlpRequest."""
    return server.wait(number)["slp"]["terminal"]


# -- head ------------------------------------------------------------------------------------------


def test_head_consists_of_these_lines(client, server):
    client.exchange(QUESTION)

    record, boundary, _ = sent(server)
    assert record["request"]["head"] == (
        "POST /slp/2.0 HTTP/1.1\r\n"
        "Host: slp.kelvra.example\r\n"
        "Accept: */*\r\n"
        'Content-Type: multipart/related; type="text/xml"; '
        f'boundary="{boundary}"; start="slpHeaderPart"\r\n'
        "Transfer-Encoding: chunked\r\n\r\n"
    )


def test_server_that_offers_http_2_gets_http_1_1(client, server):
    server.queue({"alpn": ["h2", "http/1.1"]})
    client.exchange(QUESTION)

    record = server.wait(1)
    assert record["tls"]["alpn"] == "http/1.1"
    assert record["request"]["line"].endswith("HTTP/1.1")


def test_boundary_is_new_in_each_exchange_and_has_70_signs(client, server):
    for _ in range(5):
        client.exchange(QUESTION)

    boundaries = [wire.boundary_of(record) for record in server.exchanges()]
    assert len(set(boundaries)) == 5
    for boundary in boundaries:
        assert len(boundary) == 70
        assert set(boundary) <= set(SIGNS)


# -- the SLP part ----------------------------------------------------------------------------------


def test_body_of_one_request(client, server):
    client.exchange(QUESTION, element="ask", kind="other", version="2.5", content_type="text/x")

    _, boundary, body = sent(server)
    assert body == (
        f"\r\n--{boundary}\r\n"
        "Content-Type: text/xml; charset=UTF-8\r\n"
        "Content-Transfer-Encoding: 8bit\r\n"
        "Content-Id: slpHeaderPart\r\n"
        "\r\n"
        '<?xml version="1.0"?>\r\n'
        '<SimpleLocationProtocol version="2.0" xmlns="http://slp.kelvra.example/slp/2.0">\r\n'
        '  <SlpRequest type="terminal" platform="linux-test" swId="oem.ubuntu"'
        ' swVersion="3.0.1415" imsi="262011234567890" imei="490154203237518" fwId="fw-1.0">\r\n'
        '    <ask type="other" version="2.5" oid="1" href="cid:part1"/>\r\n'
        "  </SlpRequest>\r\n"
        "</SimpleLocationProtocol>\r\n"
        f"\r\n--{boundary}\r\n"
        "Content-Type: text/x\r\n"
        "Content-Transfer-Encoding: binary\r\n"
        "Content-Id: part1\r\n"
        "\r\n"
        "where am I?"
        f"\r\n--{boundary}--\r\n"
    ).encode()


@pytest.mark.parametrize("name, key", [("imsi", "Imsi"), ("imei", "Imei"), ("fwId", "Mmf")])
def test_empty_identity_is_left_out(server, platform, name, key, request):
    platform.system[key] = ""
    platform.write()
    client = request.getfixturevalue("client")
    client.exchange(QUESTION)

    terminal = platform_of(server)
    assert name not in terminal
    everything = {"type", "platform", "swId", "swVersion", "imsi", "imei", "fwId"}
    assert set(terminal) == everything - {name}


def test_identity_that_was_missing_is_looked_for_at_each_connect(server, platform, request):
    platform.system["Imei"] = ""
    platform.write()
    client = request.getfixturevalue("client")
    client.exchange(QUESTION)
    platform.system["Imei"] = "356938035643809"
    platform.write(connections=[(1, True, False), (1, False, True)])
    client.wait_for_status(3)  # the new file has been read
    client.exchange(QUESTION)

    assert "imei" not in platform_of(server, 1)
    assert platform_of(server, 2)["imei"] == "356938035643809"


def test_platform_id_is_escaped_as_xml_wants(server, platform, request):
    platform.system["PlatformId"] = 'a"b<c>&é'
    platform.write()
    request.getfixturevalue("client").exchange(QUESTION)

    _, _, body = sent(server)
    assert platform_of(server)["platform"] == 'a"b<c>&é'
    assert b'platform="a&quot;b&lt;c&gt;&amp;&#xE9;"' in body


def test_empty_type_and_version_are_written_as_empty_attributes(client, server):
    client.exchange(QUESTION, element="ask", kind="", version="")

    assert b'<ask type="" version="" oid="1" href="cid:part1"/>' in sent(server)[2]


def test_part_header_carries_the_bytes_of_the_client_as_they_are(client, server):
    client.exchange(QUESTION, encoding="Quoted; x=1", content_type="text/x\r\nX-More: \t yes ")

    header = (
        b"\r\nContent-Type: text/x\r\nX-More: \t yes \r\n"
        b"Content-Transfer-Encoding: Quoted; x=1\r\nContent-Id: part1\r\n\r\nwhere am I?\r\n--"
    )
    assert header in sent(server)[2]


@pytest.mark.parametrize(
    "parameters",
    [{"element": ""}, {"element": "a b"}, {"element": b"\xff<"}, {"kind": b"\xff\xfe\x01"}],
    ids=str,
)
def test_names_that_xml_forbids_are_sent_all_the_same(client, server, parameters):
    # What libxml2 makes of them the server need not understand.
    Request(client, **{"kind": "other", **parameters}).give(QUESTION)

    record, _, body = sent(server)
    assert record["upload_complete"]
    assert body.count(QUESTION) == 1


# -- queue order -----------------------------------------------------------------------------------


def test_prepared_requests_come_before_attached_ones(make_client, platform, server):
    platform.write(connections=[(2, True, False)])
    first, second = make_client(), make_client()
    first.wait_for_status(1)
    # While a first exchange is held up, requests gather for the second one.
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "go"}]})
    blocker = Request(first, kind="other").give(b"")
    server.wait(1, "upload-end")
    gathered = [
        Request(client, attached, element=name, kind="other")
        for client, attached, name in [
            (first, True, "attached-a"),
            (second, False, "prepared-a"),
            (second, True, "attached-b"),
            (first, False, "prepared-b"),
        ]
    ]
    server.give("go")
    blocker.fetch()
    in_order = [gathered[place] for place in (1, 3, 0, 2)]
    for request in in_order:
        request.give(request.key.encode())

    for request in gathered:
        assert request.fetch() == [request.key.encode()]
    requests = server.wait(2)["slp"]["requests"]
    assert [each["element"] for each in requests] == [
        "prepared-a",
        "prepared-b",
        "attached-a",
        "attached-b",
    ]
    # The numbers begin at 1 in each exchange.
    assert [each["oid"] for each in requests] == ["1", "2", "3", "4"]


def test_body_of_several_requests_of_several_clients(make_client, platform, server):
    platform.write(connections=[(2, True, False)])
    first, second = make_client(), make_client()
    first.wait_for_status(1)
    plans = [
        ("raw", "binary", "text/a", b"one\ntwo\n"),
        ("lines", "8bit", "text/b", b"one\ntwo\n"),
        ("none", "7bit", "text/c", b""),
    ]

    def make(plan, client, attached):
        element, encoding, content_type, _ = plan
        parameters = {"element": element, "encoding": encoding, "content_type": content_type}
        return Request(client, attached, kind="other", **parameters)

    # The first one is prepared last, when the others are there already.
    attached = [make(plans[1], first, True), make(plans[2], second, True)]
    prepared = make(plans[0], second, False)
    for request, plan in zip([prepared, *attached], plans):
        request.give(plan[3])

    record, boundary, body = sent(server)
    expected = wire.start_part(boundary, [(plan[0], "other", "1.0") for plan in plans])
    for number, (_, encoding, content_type, data) in enumerate(plans, 1):
        expected += wire.part(boundary, number, data, encoding, content_type)
    expected += wire.closing(boundary)
    assert body == b"".join(expected)
    assert record["chunks"] == [len(chunk) for chunk in expected]


def test_data_are_asked_for_one_request_after_the_other(client, platform):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    later = Request(client, attached=True, kind="other")
    first = Request(client, kind="other")
    first.wait_until_asked()

    assert later.send(b"too early") == 57
    assert ("requestData", (later.connection, later.id)) not in client.signals
    assert first.send(b"first") == 0
    later.give(b"later")
    assert (first.fetch(), later.fetch()) == ([b"first"], [b"later"])


def test_data_after_the_last_are_refused(client, server):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "go"}]})
    request = Request(client, kind="other").give(b"all")
    server.wait(1, "upload-end")

    assert request.send(b"more") == 57
    server.give("go")
    assert request.fetch() == [b"all"]


# -- announcements ---------------------------------------------------------------------------------


@pytest.mark.parametrize("kind, announced", [("other", 1), ("positions", 1), ("position", 0)])
def test_status_is_announced_before_a_part_unless_it_is_a_position(client, kind, announced):
    client.status()
    client.exchange(QUESTION, kind="fingerprint")
    client.signals.clear()

    request = Request(client, kind=kind).give(QUESTION)
    assert request.fetch() == [QUESTION]
    changes = [signal for signal in client.signals if signal.name == "connectionStatusChanged"]
    assert [signal.arguments for signal in changes] == [(3,)] * announced


# -- line ends -------------------------------------------------------------------------------------


@pytest.mark.parametrize("encoding", ["8bit", "7bit", "base64", "", "Binary", "binary ", "BINARY"])
def test_bare_line_feeds_grow_unless_the_encoding_is_exactly_binary(client, server, encoding):
    client.exchange(b"a\nb\r\nc\rd\n\n\re\n", kind="other", encoding=encoding)

    assert b"\r\n\r\na\r\nb\r\nc\rd\r\n\r\n\re\r\n\r\n--" in sent(server)[2]


def test_binary_data_are_sent_byte_for_byte(client, server):
    data = bytes(range(256)) * 4 + b"\n\r\n\r\r\n\n"
    assert client.exchange(data, kind="other", encoding="binary") == [data]

    assert server.wait(1)["parts"][1]["sha256"] == hashlib.sha256(data).hexdigest()


def test_line_feed_at_the_front_of_a_slice_stays_bare(client, server):
    header = len(wire.part_header("b" * wire.BOUNDARY_SIZE, 1, "8bit"))
    front = b"x" * (wire.LIMIT - header)
    client.exchange(front + b"\nafter\n", encoding="8bit", kind="other")

    record, boundary, body = sent(server)
    assert b"xxx\nafter\r\n\r\n--" + boundary.encode() in body
    assert record["chunks"][1:3] == [wire.LIMIT, len(b"\nafter\r\n")]


def test_line_feed_at_the_front_of_later_data_stays_bare(client, server):
    mark = {"at": "upload", "part": 1, "do": "pause", "seconds": 0}
    server.queue({"on": [mark]})
    request = Request(client, kind="other", encoding="8bit").wait_until_asked()
    assert request.send(b"line", last=False) == 0
    server.wait(1, "upload")  # the first data have left
    assert request.send(b"\nnext\n") == 0

    assert b"\r\n\r\nline\nnext\r\n\r\n--" in sent(server)[2]


SHORT_LINES = {
    "60 bytes": b"x" * 59 + b"\n",
    "ten bytes": b"x" * 9 + b"\n",
    "only line feeds": b"\n",
    "two line feeds and a pair": b"\n\n\r\n",
    "prime": b"x" * 36 + b"\n",
}


@pytest.mark.parametrize("size", [64000, 65536, 200_000])
@pytest.mark.parametrize("line", SHORT_LINES.values(), ids=SHORT_LINES)
def test_text_of_short_lines_outgrows_its_slices_unharmed(client, server, line, size):
    data = (line * (size // len(line) + 1))[:size]
    client.exchange(data, kind="other", encoding="8bit")

    record, boundary, body = sent(server)
    expected = wire.start_part(boundary, [("fingerprintRequest", "other", "1.0")])
    expected += wire.part(boundary, 1, data, "8bit") + wire.closing(boundary)
    assert body == b"".join(expected)
    assert record["chunks"] == [len(chunk) for chunk in expected]
    assert max(record["chunks"]) <= wire.CAPACITY


def test_text_at_random_is_sent_as_the_rules_say(client, server):
    generator = random.Random(7)
    for number in range(1, 11):
        words = [b"\n", b"\r\n", b"\r", b"word", b"x" * 50]
        weights = [generator.random() for _ in words]
        data = b"".join(generator.choices(words, weights, k=generator.randrange(40_000)))
        client.exchange(data, kind="other", encoding="8bit")

        _, boundary, body = sent(server, number)
        assert b"".join(wire.part(boundary, 1, data, "8bit") + wire.closing(boundary)) in body


# -- sizes and streaming ---------------------------------------------------------------------------


@pytest.mark.parametrize("size", [0, 1, 64499, 64500, 64501, 129_000, 1_000_000])
def test_data_leave_in_chunks_of_64500_bytes(client, server, size):
    data = random.Random(size).randbytes(size)
    client.exchange(data, kind="other", encoding="binary")

    record, boundary, body = sent(server)
    expected = wire.part(boundary, 1, data) + wire.closing(boundary)
    assert chunks_of(record, body)[1:] == expected
    assert max(record["chunks"]) <= wire.LIMIT


def test_twenty_megabytes_stream_through_in_many_calls(client, server):
    generator = random.Random(20)
    digest = hashlib.sha256()
    request = Request(client, kind="fingerprint", encoding="binary").wait_until_asked()
    sizes = [1 << 20] * 19 + [(1 << 20) - 12345, 12345, 0, 1]
    for number, size in enumerate(sizes, 1):
        data = generator.randbytes(size)
        digest.update(data)
        assert request.send(data, last=number == len(sizes)) == 0
    request.fetch()

    record = server.wait(1)
    assert record["parts"][1]["bytes"] == sum(sizes)
    assert record["parts"][1]["sha256"] == digest.hexdigest()
    assert max(record["chunks"]) <= wire.LIMIT


def test_data_leave_while_the_client_still_has_more(client, server):
    mark = {"at": "upload", "part": 1, "do": "pause", "seconds": 0}
    server.queue({"on": [mark]})
    request = Request(client, kind="other").wait_until_asked()
    assert request.send(b"first ", last=False) == 0

    assert not server.wait(1, "upload")["upload_complete"]
    assert request.send(b"second", last=True) == 0
    assert request.fetch() == [b"first second"]


@pytest.mark.parametrize("pieces", [(b"",), (b"", b""), (b"", b"data"), (b"data", b"")], ids=str)
def test_empty_data_count_like_any_other(client, pieces):
    request = Request(client, kind="other").give(*pieces)
    assert request.fetch() == [b"".join(pieces)]


def test_silent_position_client_leaves_an_empty_part_after_five_seconds(client, server):
    begun = time.monotonic()
    request = Request(client, kind="position")
    request.wait_until_asked()
    assert request.fetch() == [b""]

    assert 5 <= time.monotonic() - begun < 7
    _, boundary, body = sent(server)
    assert body.endswith(b"".join(wire.part(boundary, 1, b"") + wire.closing(boundary)))
    assert server.wait(1)["findings"] == []
    expect_no_error(client)


# -- answers that do not wait for the end of the upload --------------------------------------------


EARLY = {"on": [{"at": "upload", "part": 1, "do": "answer"}]}


def keep_sending(request, call):
    """Sends one byte after the other until `call` is answered.

    The transfer looks for an answer whenever it has sent something, not while it waits for data.
    """
    while not call.done:
        assert request.send(b".", last=False) == 0
        dispatch_pending()
    return call.wait()


def test_answer_that_comes_early_is_delivered_while_the_upload_goes_on(client, server):
    parts = [{"id": "answer-1", "body": "early"}]
    server.queue({**EARLY, "answer": {"multipart": {"parts": parts}, "pack": 16000}})
    request = Request(client, kind="other").wait_until_asked()
    answer = request.ask()

    # The chunk carries the code of the whole answer although data are still to be sent.
    assert keep_sending(request, answer) == (b"early", RESPONSE_COMPLETE)
    assert request.send(b"end") == 0
    assert server.wait(1)["upload_complete"]
    assert re.search(rb"\r\n\r\n\.+end\r\n--", sent(server)[2])
    expect_no_error(client)
    assert request.ask_error() == 41, "the end of the exchange has swept it"


@pytest.fixture(name="early")
def two_requests_that_are_answered_early(client, platform, server):
    """The first is being asked for its data."""
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    parts = [{"id": "answer-1", "body": "one"}, {"id": "answer-2", "body": "two"}]
    server.queue({**EARLY, "answer": {"multipart": {"parts": parts}, "pack": 16000}})
    later = Request(client, attached=True, kind="other")
    return Request(client, kind="other").wait_until_asked(), later


def test_request_behind_an_early_answer_is_still_asked_for_its_data(early, client, server):
    first, later = early
    answers = first.ask(), later.ask()
    assert keep_sending(first, answers[0]) == (b"one", RESPONSE_COMPLETE)
    assert keep_sending(first, answers[1]) == (b"two", RESPONSE_COMPLETE)

    assert first.send(b"end") == 0
    later.give(b"data")
    assert re.search(rb"\.end\r\n--.*\r\n\r\ndata\r\n--", sent(server)[2], re.DOTALL)
    expect_no_error(client)
    assert [each.ask_error() for each in (first, later)] == [41, 41]


def test_early_answer_that_is_fetched_late_has_not_lost_its_code(early, client, server):
    first, later = early
    # The second part has come, so the first one has as well.
    assert keep_sending(first, later.ask()) == (b"two", RESPONSE_COMPLETE)
    assert first.send(b"end") == 0
    later.give(b"data")
    server.wait(1)

    assert first.fetch_part() == (b"one", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_early_refusal_ends_the_upload(client, server):
    server.queue({**EARLY, "answer": {"status": 503, "content_type": "text/plain", "body": "no"}})
    request = Request(client, kind="other").wait_until_asked()
    while (result := request.send(b".", last=False)) == 0:
        dispatch_pending()

    assert result == 41
    assert request.wait_for_failure() == (2001, "missing MIME parts")
    assert not server.wait(1)["upload_complete"]
    expect_no_error(client)
