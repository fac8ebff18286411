"""The test server keeps its own promises: what other tests build on."""

import hashlib
import http.client
import json
import re
import socket
import ssl
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from harness.settings import EXAMPLES, SERVER_HOST, TEST_SERVER
from harness.slp_peer import BOUNDARY, Request, SlpPeer

FINGERPRINT = (EXAMPLES / "fingerprint.xml").read_bytes()


@pytest.fixture
def peer(server, keys):
    """Makes connections to the server; they are closed at the end."""
    peers = []

    def make(**options):
        peers.append(SlpPeer(server.port, keys, **options))
        return peers[-1]

    yield make
    for each in peers:
        each.close()


# -- the ordinary answer ---------------------------------------------------------------------------


def test_position_carries_the_numbers_of_its_fingerprint(server, peer):
    reply = peer().open().ask(("fingerprint", FINGERPRINT))

    assert reply.status == 200
    question = ElementTree.fromstring(reply.parts()["answer-1"]).find("question")
    assert question.attrib == {
        "oid": "1",
        "wifi": "8",
        "cell": "3",
        "bytes": str(len(FINGERPRINT)),
        "sha256": hashlib.sha256(FINGERPRINT).hexdigest(),
    }
    assert server.wait(1)["findings"] == []


def test_slp_response_names_every_request(peer):
    reply = peer().open().ask(("fingerprint", FINGERPRINT), ("other", b"a"), ("other", b"b"))

    document = ElementTree.fromstring(reply.parts()["slpResponse"])
    response = document[0]
    assert response.attrib == {"status": "ok"}
    assert [(result.get("oid"), result.get("href")) for result in response] == [
        ("1", "cid:answer-1"),
        ("2", "cid:answer-2"),
        ("3", "cid:answer-3"),
    ]


@pytest.mark.parametrize(
    "data",
    [
        pytest.param(b"", id="empty"),
        pytest.param(b"x", id="one"),
        pytest.param(b"\r\n", id="crlf"),
        pytest.param(b"\r", id="cr"),
        pytest.param(b"\n--\r\n", id="dashes"),
        pytest.param(bytes(range(256)) * 300, id="binary"),
        pytest.param(b"\r\n--" + BOUNDARY[:69].encode(), id="nearly-a-delimiter"),
    ],
)
def test_other_types_come_back_as_they_were_sent(server, peer, data):
    reply = peer().open().ask(("other", data))

    assert reply.parts()["answer-1"] == data
    assert server.wait(1)["findings"] == []


def test_data_can_ask_for_a_size(server, peer):
    reply = peer().open().ask(("other", b"size: 100000"))

    data = reply.parts()["answer-1"]
    assert data == (bytes(range(251)) * 400)[:100000]
    sent = {"id": "answer-1", "bytes": 100000, "sha256": hashlib.sha256(data).hexdigest()}
    assert server.wait(1)["answer"]["parts"] == [sent]


def test_body_cut_into_single_bytes_is_understood(server, peer):
    each = peer().open()
    request = Request(("fingerprint", FINGERPRINT[:400]), ("other", b"\r\n\r\n--"))
    each.sock.sendall(request.head)
    for byte in request.body():
        each.send_piece(bytes([byte]))
    each.sock.sendall(b"0\r\n\r\n")

    assert each.reply().parts()["answer-2"] == b"\r\n\r\n--"
    record = server.wait(1)
    assert record["chunks"] == [1] * len(request.body())
    assert record["findings"] == ["part 'part1': the fingerprint is not XML"]


def test_second_request_on_the_same_connection_is_an_exchange_of_its_own(server, peer):
    each = peer().open()
    each.ask(("other", b"first"))
    assert each.ask(("other", b"second")).parts()["answer-1"] == b"second"
    assert [record["connection"] for record in server.exchanges()] == [1, 1]


def test_request_that_is_no_slp_gets_400_and_the_reasons(server, peer):
    each = peer().open()
    each.sock.sendall(b"POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello")
    reply = each.reply()
    assert reply.status == 400
    assert b"the request body is not chunked" in reply.body
    assert server.wait(1)["answer"]["status"] == 400


def spoiled(old, new):
    body = Request(("other", b"data")).body()
    assert body.count(old) == 1
    return body.replace(old, new)


@pytest.mark.parametrize(
    "body, finding",
    [
        (spoiled(b'oid="1"', b'oid="2"'), "start part: request 1 has the oid '2'"),
        (spoiled(b"Content-Id: part1", b"Content-Id: part2"), "the start part names the parts"),
        (spoiled(b"?>", b"?"), "start part: "),
        (spoiled(b"<SlpRequest", b"<SlpWish").replace(b"/SlpR", b"/SlpW"), "start part: "),
        (spoiled(BOUNDARY.encode() + b"--\r\n", b""), "email: CloseBoundaryNotFoundDefect"),
        (b"front" + Request(("other", b"data")).body(), "multipart: 5 bytes before"),
        (Request(("other", b"data")).body() + b"back", "multipart: b'\\r\\nback' behind"),
    ],
    ids=["oid", "content-id", "xml", "element", "closing", "preamble", "epilogue"],
)
def test_fault_in_the_request_is_found(server, peer, body, finding):
    each = peer().open()
    each.sock.sendall(Request().head)
    each.send_piece(body)
    each.sock.sendall(b"0\r\n\r\n")
    each.reply()
    findings = server.wait(1)["findings"]
    assert any(text.startswith(finding) for text in findings), findings


# -- the record ------------------------------------------------------------------------------------


def test_record_holds_what_was_received(server, peer):
    request = Request(("fingerprint", FINGERPRINT))
    each = peer().open()
    each.send(request)
    each.reply()

    record = server.wait(1)
    assert record["proxy"]["target"] == f"{SERVER_HOST}:443"
    assert record["tls"]["client_subject"] == (
        "organizationName=Kelvra test, commonName=Throw-away terminal"
    )
    assert record["request"]["line"] == "POST /slp/2.0 HTTP/1.1"
    assert record["request"]["head"].encode() == request.head
    assert record["chunks"] == [len(piece) for piece in request.pieces()]
    assert server.body(1) == request.body()
    assert record["parts"][1] == {
        "headers": [
            ["Content-Type", "application/octet-stream"],
            ["Content-Transfer-Encoding", "binary"],
            ["Content-Id", "part1"],
        ],
        "bytes": len(FINGERPRINT),
        "sha256": hashlib.sha256(FINGERPRINT).hexdigest(),
        "complete": True,
    }
    assert record["slp"]["requests"][0]["element"] == "ask"
    assert record["outcome"] == "answered"


def test_record_goes_to_files_too(make_server, keys, tmp_path):
    server = make_server("--record", str(tmp_path / "record"), "--keep-bytes", "10")
    request = Request(("other", b"payload"))
    with SlpPeer(server.port, keys) as peer:
        peer.send(request)
        peer.reply()
    server.wait(1)
    server.stop()
    assert (tmp_path / "record" / "exchange-00001.body").read_bytes() == request.body()
    record = json.loads((tmp_path / "record" / "exchange-00001.json").read_text())
    assert (record["outcome"], record["body_kept"]) == ("answered", 10)


def test_only_the_newest_records_are_kept(make_server, keys):
    server = make_server("--keep", "2")
    with SlpPeer(server.port, keys) as peer:
        for _ in range(4):
            peer.ask(("other", b"x"))
    server.wait(4)
    assert [record["number"] for record in server.exchanges()] == [3, 4]


# -- TLS -------------------------------------------------------------------------------------------


def test_client_without_certificate_is_refused(server, peer):
    with pytest.raises(ssl.SSLError):
        peer(certificate=None).open().ask(("other", b"x"))
    assert server.wait(1)["outcome"] == "tls failed"


def test_server_can_do_without_client_certificate(server, peer):
    server.queue({"client_certificate": "none"})
    assert peer(certificate=None).open().ask(("other", b"x")).status == 200
    assert server.wait(1)["tls"]["client_subject"] is None


@pytest.mark.parametrize(
    "certificate, reason",
    [
        ("expired", "certificate has expired"),
        ("not-yet-valid", "certificate is not yet valid"),
        ("wrong-host", "Hostname mismatch"),
        ("self-signed", "self-signed certificate"),
        ("unknown-ca", "unable to get local issuer certificate"),
    ],
)
def test_each_bad_certificate_is_bad_in_its_own_way(server, peer, certificate, reason):
    server.queue({"certificate": certificate})
    with pytest.raises(ssl.SSLCertVerificationError, match=reason):
        peer().open()
    assert server.wait(1)["outcome"] in ("tls failed", "peer closed", "peer reset")


def test_unknown_authority_is_known_to_its_own_clients(server, peer):
    server.queue({"certificate": "unknown-ca"})
    assert peer(authority="Other").open().ask(("other", b"x")).status == 200


def test_tls_without_a_proxy_is_understood(server, peer):
    assert peer(direct=True).open().ask(("other", b"x")).status == 200
    assert server.wait(1)["proxy"] is None


def test_h2_is_offered_when_asked_for(server, peer):
    server.queue({"alpn": ["h2", "http/1.1"]}, {"alpn": ["h2", "http/1.1"]})
    new, old = peer(), peer()
    new.context.set_alpn_protocols(["h2", "http/1.1"])
    old.context.set_alpn_protocols(["http/1.1"])
    assert new.open().sock.selected_alpn_protocol() == "h2"
    assert old.open().ask(("other", b"x")).status == 200


def test_tls_version_can_be_chosen(server, peer):
    server.queue({"tls_version": "1.2"})
    assert peer().open().sock.version() == "TLSv1.2"


# -- the proxy -------------------------------------------------------------------------------------


@pytest.mark.parametrize("status", [403, 407])
def test_connect_can_be_refused(server, peer, status):
    headers = [["Proxy-Authenticate", 'Basic realm="test"']]
    server.queue({"proxy": {"status": status, "reason": "No", "headers": headers, "body": "why"}})
    each = peer()
    seen, head = each.tunnel()
    assert seen == status
    assert b'Proxy-Authenticate: Basic realm="test"\r\nContent-Length: 3\r\n' in head
    assert each.sock.recv(100) == b"why"
    assert server.wait(1)["outcome"] == "CONNECT refused"


def test_connect_can_be_answered_with_any_bytes(server, peer):
    server.queue({"proxy": {"raw": "HTTP/1.0 299 Fine\r\nX: y\r\n\r\n"}})
    assert peer().tunnel()[1] == b"HTTP/1.0 299 Fine\r\nX: y\r\n\r\n"


def test_only_connect_is_proxied(server, peer):
    each = peer()
    each.sock.sendall(b"GET http://localhost/ HTTP/1.1\r\n\r\n")
    assert each.sock.recv(100).startswith(b"HTTP/1.1 400 ")
    assert server.wait(1)["outcome"] == "plain request refused"


# -- scripted answers ------------------------------------------------------------------------------


def chunks_of(data):
    """The HTTP chunks of a response body, in the order of the TLS records that carried them."""
    found = []
    for record in data:
        while record:
            size, _, rest = record.partition(b"\r\n")
            size = int(size, 16)
            found.append(rest[:size])
            assert rest[size : size + 2] == b"\r\n"
            record = rest[size + 2 :]
    return found


def records_after_head(each):
    records = list(each.records())
    head = records.pop(0)
    assert head.endswith(b"\r\n\r\n")
    return head, records


def test_every_piece_is_a_chunk_and_a_record_of_its_own(server, peer):
    body = ["one", {"hex": "0d0a"}, {"repeat": "ab", "times": 2}, {"join": ["x", "y"]}]
    server.queue({"answer": {"body": body, "then": "close"}})
    each = peer().open()
    each.send(Request(("other", b"x")))
    _, records = records_after_head(each)
    assert len(records) == 6
    assert chunks_of(records) == [b"one", b"\r\n", b"ab", b"ab", b"xy", b""]


def test_delimiters_and_header_blocks_of_the_ordinary_answer_are_never_divided(server, peer):
    server.queue({"answer": {"then": "close"}})
    each = peer().open()
    each.send(Request(("other", b"size: 40000"), ("other", b"short")))
    head, records = records_after_head(each)
    boundary = b"--" + re.search(rb'boundary="([^"]*)"', head)[1]
    chunks = chunks_of(records)
    assert [boundary in chunk for chunk in chunks].count(True) == 4
    assert all(b"\r\n\r\n" in c for c in chunks if boundary in c and boundary + b"--" not in c)
    assert max(map(len, records)) <= 16384


@pytest.mark.parametrize(
    "cut, lengths",
    [
        ({"cut": {"size": 4}}, [4, 4, 2]),
        ({"cut": {"at": [1, 9]}}, [1, 8, 1]),
        ({"pack": 7}, [6, 4]),
        ({"stop_after": 5}, [3, 2]),
    ],
)
def test_body_can_be_cut_otherwise(server, peer, cut, lengths):
    server.queue({"answer": {"body": ["abc", "def", "ghij"], "then": "close", **cut}})
    each = peer().open()
    each.send(Request(("other", b"x")))
    _, records = records_after_head(each)
    assert [len(chunk) for chunk in chunks_of(records) if chunk] == lengths


def test_head_can_be_any_bytes(server, peer):
    head = [{"latin1": "HTTP/1.1 abc f\xfcr\r\n"}, "X: 1\r\n 2\r\n\r\n"]
    server.queue({"answer": {"head": head, "framing": "raw", "body": "end", "then": "close"}})
    each = peer().open()
    each.send(Request(("other", b"x")))
    assert b"".join(each.records()) == b"HTTP/1.1 abc f\xfcr\r\nX: 1\r\n 2\r\n\r\nend"


def test_status_interim_heads_and_headers_are_sent(server, peer):
    interim = [100, {"status": 103, "reason": "Soon", "headers": [["Link", "x"]]}]
    server.queue(
        {
            "answer": {
                "interim": interim,
                "status": "099",
                "reason": {"latin1": "\xe9"},
                "headers": [["X-Long", {"repeat": "a", "times": 5}]],
                "content_type": None,
                "framing": "length",
                "body": "four",
                "then": "close",
            }
        }
    )
    each = peer().open()
    each.send(Request(("other", b"x")))
    assert b"".join(each.records()) == (
        b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Soon\r\nLink: x\r\n\r\n"
        b"HTTP/1.1 099 \xe9\r\nContent-Length: 4\r\nX-Long: aaaaa\r\n\r\nfour"
    )


def test_204_has_no_body(server, peer):
    server.queue({"answer": {"status": 204, "then": "close"}})
    each = peer().open()
    each.send(Request(("other", b"x")))
    assert b"".join(each.records()) == b"HTTP/1.1 204 No Content\r\n\r\n"


def test_multipart_answer_can_be_changed_everywhere(server, peer):
    multipart = {
        "boundary": "B",
        "start": "s",
        "status": None,
        "results": [{"oid": "1", "href": "cid:p{n}", "times": 2}, {"oid": "x"}],
        "start_headers": [["Content-Id", "s"]],
        "parts": [{"id": "p{n}", "headers": [["X-N", "{n}"]], "body": "d{n}", "times": 2}],
        "order": "start-last",
        "preamble": "pre",
        "epilogue": "post",
        "closing": "\r\n--B-",
    }
    server.queue({"answer": {"multipart": multipart}})
    body = peer().open().ask(("other", b"x")).body.decode()
    parts = "".join(f"\r\n--B\r\nContent-Id: p{n}\r\nX-N: {n}\r\n\r\nd{n}" for n in (1, 2))
    assert body.startswith(f"pre{parts}\r\n--B\r\nContent-Id: s\r\n\r\n<?xml")
    assert body.endswith("</SimpleLocationProtocol>\r\n\r\n--B-post")
    assert "<SlpResponse>" in body
    assert re.findall('<result oid="(.*)" href="(.*)"/>', body) == [
        ("1", "cid:p1"),
        ("1", "cid:p2"),
        ("x", ""),
    ]


def test_document_can_be_any_text(server, peer):
    server.queue({"answer": {"multipart": {"document": "<no/>", "order": "start-first"}}})
    assert peer().open().ask(("other", b"x")).parts()["slpResponse"] == b"<no/>"


@pytest.mark.parametrize("fill", ["pattern", "zeros", "random", "abc"])
def test_made_up_bytes_do_not_depend_on_their_pieces(server, peer, fill):
    wanted = {"bytes": 50000, "fill": fill}
    # Random bytes are drawn piece by piece, so only they keep the piece size.
    other = {} if fill == "random" else {"piece": 999}
    server.queue({"answer": {"body": wanted}}, {"answer": {"body": {**wanted, **other}}})
    each = peer().open()
    first, second = each.ask(("other", b"x")).body, each.ask(("other", b"x")).body
    assert len(first) == 50000
    assert first == second


# -- faults ----------------------------------------------------------------------------------------


def come_to(each, point):
    """Drives a client to the given point of an exchange, or to the end that comes before."""
    if point in ("accept", "connect"):
        each.sock.sendall(b"CONNECT a:1 HTTP/1.1\r\n\r\n")
        return
    each.tunnel()
    # Not a byte of it is needed for the points up to server-flight, but their handshakes fail.
    plain = each.sock.dup()
    try:
        each.sock = each.context.wrap_socket(each.sock, server_hostname=SERVER_HOST)
    except OSError:
        each.sock = plain
        return
    plain.close()
    request = Request(("other", b"x" * 100))
    each.sock.sendall(request.head)
    if point != "head":
        each.send_piece(request.body())
    if point not in ("head", "upload"):
        each.sock.sendall(b"0\r\n\r\n")


POINTS = (
    "accept",
    "connect",
    "tunnel",
    "client-hello",
    "server-flight",
    "handshake",
    "head",
    "upload",
    "upload-end",
    "response-head",
    "part",
    "closing",
    "answered",
)


def end_at(server, peer, point, action):
    """One exchange that the server ends at this point: whether by a reset, and the record."""
    server.queue({"on": [{"at": point, "do": action}]})
    was_reset = drive_to_the_end(peer, point)
    record = server.wait(1)
    assert record["milestones"][-1] in (point, f"{point}:1")
    return was_reset, record


def drive_to_the_end(peer, point):
    """Makes a client run into the end at this point; whether that was a reset."""
    try:
        each = peer()
    except ConnectionResetError:
        return True  # even before connect() returned
    try:
        come_to(each, point)
    except OSError:
        pass  # the end came while the client was sending
    return each.ended_with_reset()


@pytest.mark.parametrize("point", POINTS)
def test_reset_at_each_point(server, peer, point):
    was_reset, record = end_at(server, peer, point, "reset")
    assert was_reset
    assert record["outcome"] == "reset by server"


@pytest.mark.parametrize("point", POINTS)
@pytest.mark.parametrize("action", ["close", "cut"])
def test_orderly_end_at_each_point(server, peer, point, action):
    was_reset, record = end_at(server, peer, point, action)
    assert not was_reset
    assert record["outcome"] == ("closed by server" if action == "close" else "cut by server")


def test_close_sends_the_tls_closing_message_and_cut_does_not(server, peer):
    server.queue(*({"on": [{"at": "head", "do": action}]} for action in ("close", "cut")))
    closed, cut = peer(), peer()
    for each in (closed, cut):
        each.context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF
        each.open()
        each.sock.suppress_ragged_eofs = False
        each.sock.sendall(Request().head)
    assert closed.sock.recv(1) == b""
    with pytest.raises(ssl.SSLError, match="UNEXPECTED_EOF"):
        cut.sock.recv(1)


def test_end_in_the_middle_of_an_upload(server, peer):
    server.queue({"on": [{"at": "upload", "bytes": 5000, "do": "reset"}]})
    each = peer().open()
    each.sock.sendall(Request().head)
    each.send_piece(b"a" * 4999)
    assert server.wait(1, "head")["outcome"] is None
    each.send_piece(b"b")
    assert each.ended_with_reset()
    assert server.wait(1)["body_bytes"] == 5000


def test_end_within_a_part_comes_after_some_of_its_data(server, peer):
    server.queue({"on": [{"at": "part", "part": 2, "do": "cut"}]})
    each = peer().open()
    each.send(Request(("other", b"first"), ("other", b"0123456789")))
    assert b"".join(each.records()).endswith(b"Content-Id: answer-2\r\n\r\n01234\r\n")
    assert server.wait(1)["milestones"][-1] == "part:2"


def test_answer_before_the_upload_ended(server, peer):
    server.queue({"on": [{"at": "upload", "part": 1, "do": "answer"}], "answer": {"body": "early"}})
    each = peer().open()
    request = Request(("other", b"data"))
    each.sock.sendall(request.head)
    pieces = list(request.pieces())
    for piece in pieces[:2]:
        each.send_piece(piece)
    assert each.reply().body == b"early"
    assert server.exchange(1)["outcome"] is None
    for piece in pieces[2:]:
        each.send_piece(piece)
    each.sock.sendall(b"0\r\n\r\n")
    record = server.wait(1)
    assert (record["outcome"], record["upload_complete"]) == ("answered", True)


def test_hanging_server_says_nothing_until_the_client_goes(server, peer):
    server.queue({"on": [{"at": "head", "do": "hang"}]})
    each = peer().open()
    each.send(Request(("other", b"x")))
    assert server.wait(1)["outcome"] == "hung"
    each.sock.settimeout(0.2)
    with pytest.raises(TimeoutError):
        each.sock.recv(1)


def test_hanging_server_can_stop_reading(server, peer):
    server.queue({"on": [{"at": "accept", "do": "hang", "read": False}]})
    each = peer()
    server.wait(1)
    each.sock.setblocking(False)
    with pytest.raises(BlockingIOError):
        for _ in range(100000):
            each.sock.send(b"x" * 65536)


def test_endless_body_ends_with_the_client(server, peer):
    server.queue({"answer": {"body": {"endless": {"bytes": 16000, "fill": "zeros"}}}})
    each = peer().open()
    each.send(Request(("other", b"x")))
    assert len(each.sock.recv(65536)) > 0
    each.close()
    assert server.wait(1)["outcome"] in ("peer closed", "peer reset")


def test_script_waits_for_an_event(server, peer):
    server.queue({"answer": {"body": ["first", {"do": "wait", "event": "go on"}, "second"]}})
    each = peer().open()
    each.send(Request(("other", b"x")))
    response = http.client.HTTPResponse(each.sock, method="POST")
    response.begin()
    assert response.read(5) == b"first"
    assert server.exchange(1)["outcome"] is None
    server.give("go%20on")
    assert response.read() == b"second"


def test_scripts_that_wait_end_when_events_are_forgotten(server, peer):
    server.queue({"on": [{"at": "head", "do": "wait", "event": "never"}], "repeat": 2})
    each = peer().open()
    each.send(Request(("other", b"x")))
    server.wait(1, "head")
    server.forget_events()
    assert server.wait(1)["outcome"] == "stopped"
    assert each.sock.recv(1) == b""

    server.give("never")
    server.forget_events()  # and what was given counts no more
    other = peer().open()
    other.send(Request(("other", b"x")))
    server.wait(2, "head")
    assert server.exchange(2)["outcome"] is None


def test_pause_takes_its_time(server, peer):
    server.queue({"on": [{"at": "head", "do": "pause", "seconds": 0.3}]})
    peer().open().ask(("other", b"x"))
    assert server.wait(1)["seconds"] >= 0.3


# -- control ---------------------------------------------------------------------------------------


def test_behaviours_are_used_in_order_and_then_the_default(server, peer):
    server.default({"answer": {"body": "default"}})
    server.queue({"answer": {"body": "twice"}, "repeat": 2, "label": "L"})
    each = peer().open()
    assert [each.ask(("other", b"")).body for _ in range(3)] == [b"twice", b"twice", b"default"]
    assert [record["label"] for record in server.exchanges()] == ["L", "L", None]


def test_queue_can_be_emptied(server):
    server.queue({}, {})
    assert server.status()["queue"] == 2
    server.clear()
    assert server.status()["queue"] == 0


@pytest.mark.parametrize(
    "behaviour, complaint",
    [
        ({"anser": {}}, "behaviour: unknown key 'anser'"),
        ({"certificate": "none"}, "certificate: 'none' is none of"),
        ({"on": [{"at": "lunch", "do": "close"}]}, "at: 'lunch' is none of"),
        ({"on": [{"at": "head", "do": "dance"}]}, "do: 'dance' is none of"),
        ({"on": [{"at": "head", "do": "wait"}]}, "wait: the key 'event' is missing"),
        ({"on": [{"at": "part", "do": "answer"}]}, "at of an answer: 'part' is none of"),
        ({"answer": {"body": {"byte": 3}}}, "item: {'byte': 3} is none"),
        ({"answer": {"multipart": {"parts": [{"name": "x"}]}}}, "parts: unknown key 'name'"),
    ],
)
def test_behaviour_that_makes_no_sense_is_refused(server, behaviour, complaint):
    with pytest.raises(AssertionError, match=re.escape(complaint)):
        server.queue(behaviour)


def test_waiting_for_an_exchange_ends_at_its_deadline(server):
    with pytest.raises(AssertionError, match="exchange 1 did not come to its end"):
        server.wait(1, seconds=0.1)


def test_script_file_is_loaded(make_server, keys, tmp_path):
    script = tmp_path / "script.json"
    answers = {"default": {"answer": {"body": "D"}}, "queue": [{"answer": {"body": "Q"}}]}
    script.write_text(json.dumps(answers))
    server = make_server("--script", str(script))
    with SlpPeer(server.port, keys) as peer:
        assert [peer.ask(("other", b"")).body for _ in range(2)] == [b"Q", b"D"]


def test_server_ends_while_connections_are_busy(make_server, keys):
    server = make_server()
    server.queue(
        {"on": [{"at": "accept", "do": "hang"}]},
        {"on": [{"at": "head", "do": "wait", "event": "never"}]},
        {"on": [{"at": "head", "do": "pause", "seconds": 1000}]},
    )
    idle = socket.create_connection(("127.0.0.1", server.port))
    server.wait(1)
    peers = [SlpPeer(server.port, keys).open() for _ in range(2)]
    for peer in peers:
        peer.sock.sendall(Request().head)
    for number in (2, 3):
        server.wait(number, "head")
    server.stop()
    for each in (idle, *(peer.sock for peer in peers)):
        each.close()


def test_wrong_key_directory_is_told(tmp_path):
    done = subprocess.run(
        [TEST_SERVER, "--keys", tmp_path], capture_output=True, text=True, timeout=30, check=False
    )
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith("slp-testserver: ")


@pytest.mark.parametrize("option", ["--help", "--help-script", "--help-control"])
def test_help_is_printed(option):
    done = subprocess.run(
        [TEST_SERVER, option], capture_output=True, text=True, timeout=30, check=False
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.count("\n") > 10


def test_hundred_thousand_tiny_parts(server, peer):
    multipart = {"parts": [{"id": "p{n}", "body": "d", "times": 100000}], "results": []}
    server.queue({"answer": {"multipart": multipart, "pack": 15000}})
    reply = peer().open().ask(("other", b"x"))
    assert reply.body.count(b"\r\n\r\nd") == 100000
    assert server.wait(1)["answer"]["chunks"] < 1000


# -- size ------------------------------------------------------------------------------------------


def test_large_upload_is_hashed_and_not_held(server, peer):
    block = bytes(range(256)) * 256
    each = peer().open()
    each.send(Request(("fingerprint", (block for _ in range(512)))))
    each.reply()
    record = server.wait(1, seconds=60)
    digest = hashlib.sha256(block * 512).hexdigest()
    assert (record["parts"][1]["bytes"], record["parts"][1]["sha256"]) == (1 << 25, digest)
    assert record["body_kept"] == 1 << 20


def test_large_upload_comes_back(server, peer):
    data = bytes(range(256)) * 65536
    assert peer().open().ask(("other", data)).parts()["answer-1"] == data
    assert server.wait(1)["findings"] == []
