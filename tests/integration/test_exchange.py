"""Whole exchanges: a D-Bus client, the daemon, the server, and back."""

import hashlib
import xml.etree.ElementTree as ElementTree

from harness import wire
from harness.client import PART_COMPLETE, RESPONSE_COMPLETE, Client
from harness.keys import fill_preinst, make_keys
from harness.request import Request
from harness.settings import EXAMPLES

FINGERPRINT = (EXAMPLES / "fingerprint.xml").read_bytes()


def question_of(position):
    """The numbers of the question that a position document repeats."""
    return ElementTree.fromstring(position).find("question").attrib


def test_fingerprint_becomes_a_position(client, server):
    connection = client.connect()
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    assert client.sendData(connection, request, FINGERPRINT) == 0

    position, code = client.fetch_part(connection, request)

    assert code == RESPONSE_COMPLETE
    assert question_of(position) == {
        "oid": "1",
        "wifi": "8",
        "cell": "3",
        "bytes": str(len(FINGERPRINT)),
        "sha256": hashlib.sha256(FINGERPRINT).hexdigest(),
    }
    assert server.wait(1)["findings"] == []


def test_request_document_describes_the_terminal(client, server):
    client.exchange(FINGERPRINT)

    slp = server.wait(1)["slp"]
    assert slp["namespace"] == "http://slp.kelvra.example/slp/2.0"
    assert slp["terminal"] == wire.TERMINAL
    assert slp["requests"] == [
        {
            "element": "fingerprintRequest",
            "type": "fingerprint",
            "version": "1.0",
            "oid": "1",
            "href": "cid:part1",
        }
    ]


def test_exchange_goes_through_the_proxy_with_the_client_certificate(client, server):
    client.exchange(FINGERPRINT)

    record = server.wait(1)
    assert record["proxy"]["target"] == "slp.kelvra.example:443"
    assert record["tls"]["asked_name"] == "slp.kelvra.example"
    assert record["tls"]["client_subject"].endswith("commonName=Throw-away terminal")
    assert record["request"]["line"] == "POST /slp/2.0 HTTP/1.1"


def test_bare_line_feeds_become_line_ends_unless_the_encoding_is_binary(client, server):
    client.exchange("one\ntwo\r\n", encoding="8bit")
    client.exchange("one\ntwo\r\n", encoding="binary")

    assert server.wait(1)["parts"][1]["bytes"] == len("one\r\ntwo\r\n")
    assert server.wait(2)["parts"][1]["bytes"] == len("one\ntwo\r\n")


def test_attached_request_travels_with_a_prepared_one(make_client, platform, server):
    # Over a connection of kind 2 an attached request starts nothing by itself.
    platform.write(connections=[(2, True, False)])
    first, second = make_client(), make_client()
    first.wait_for_status(1)
    waiting = second.connect(kind="other")
    attached = second.attach(waiting)
    connection = first.connect()
    prepared = first.prepare(connection)

    first.wait_for_request_data(connection, prepared)
    assert first.sendData(connection, prepared, FINGERPRINT) == 0
    second.wait_for_request_data(waiting, attached)
    assert second.sendData(waiting, attached, b"echo") == 0

    assert question_of(first.fetch(connection, prepared)[0])["oid"] == "1"
    assert second.fetch(waiting, attached) == [b"echo"]
    assert len(server.exchanges()) == 1


def test_answer_of_two_parts_ends_with_two_codes(client, server):
    parts = [
        {"id": "a", "headers": [["X-SLP-Next-part-ID", "b"]], "body": "first"},
        {"id": "b", "body": "second"},
    ]
    multipart = {"results": [{"oid": "1", "href": "cid:a"}], "parts": parts}
    server.queue({"answer": {"multipart": multipart}})
    connection = client.connect()
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    client.sendData(connection, request, b"question")

    assert client.fetch_part(connection, request) == (b"first", PART_COMPLETE)
    assert client.fetch_part(connection, request) == (b"second", RESPONSE_COMPLETE)


def test_answer_larger_than_the_chunk_size_comes_in_pieces(client):
    connection = client.connect(kind="other", chunk_size=1000)
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    client.sendData(connection, request, b"size: 100500")

    data, pieces = b"", 0
    while True:
        chunk = client.getData(connection, request).wait()
        assert len(chunk.data) <= 1000
        data, pieces = data + chunk.data, pieces + 1
        if chunk.code == RESPONSE_COMPLETE:
            break
    assert data == (bytes(range(251)) * 401)[:100500]
    assert pieces >= 101


def test_refused_proxy_is_reported_to_every_client(make_client, server):
    server.queue({"proxy": {"status": 403}})
    asking, listening = make_client(), make_client()
    connection = asking.connect()
    request = asking.prepare(connection)

    for each in (asking, listening):
        code, text, keys = each.wait_for_signal("errorSignal")
        assert (code, keys) == (2204, f"{connection}:{request}")
        assert text != ""


def test_wrong_pass_phrase_is_a_transport_failure(client, preinst, tmp_path, keys):
    # The daemon reads the key at each exchange.
    make_keys(tmp_path / "other", "--passphrase", "another8")
    (preinst / "SlpClient-key.pem").write_bytes((tmp_path / "other/SlpClient-key.pem").read_bytes())
    connection = client.connect()
    request = client.prepare(connection)
    assert client.wait_for_signal("errorSignal")[::2] == (2204, f"{connection}:{request}")

    fill_preinst(preinst, keys)
    assert client.exchange(FINGERPRINT)


def test_daemon_serves_one_exchange_after_the_other(client, server):
    for number in range(1, 6):
        position = client.exchange(FINGERPRINT + b"<!-- %d -->" % number)[0]
        assert question_of(position)["bytes"] == str(len(FINGERPRINT) + 10)
    server.wait(server.last)  # its record may end later than the answer
    assert [record["outcome"] for record in server.exchanges()] == ["answered"] * 5


def test_second_exchange_succeeds_after_a_failed_one(client, server):
    server.queue({"on": [{"at": "upload", "part": 1, "do": "reset"}]})
    connection = client.connect()
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    assert client.sendData(connection, request, FINGERPRINT) == 0
    assert client.wait_for_signal("errorSignal")[::2] == (2204, f"{connection}:{request}")

    assert question_of(client.exchange(FINGERPRINT)[0])["wifi"] == "8"


def test_clients_come_and_go(bus, daemon, server):  # pylint: disable=unused-argument
    for _ in range(3):
        client = Client(bus.address)
        assert client.exchange(FINGERPRINT)
        client.close()


# -- when an exchange begins -----------------------------------------------------------------------


HOLD = {"on": [{"at": "upload-end", "do": "wait", "event": "go"}]}


def held_up(client, server):
    """A request whose exchange goes no further until the event "go"."""
    server.queue(HOLD)
    request = Request(client, kind="other").give(b"held up")
    server.wait(server.last, "upload-end")
    return request


def test_requests_prepared_during_an_exchange_share_the_next_one(make_client, server):
    first, second = make_client(), make_client()
    held = held_up(first, server)
    waiting = [Request(client, kind="other") for client in (second, first, second)]
    assert [record["number"] for record in server.exchanges()] == [1]

    server.give("go")
    assert held.fetch() == [b"held up"]
    for request in waiting:
        request.give(request.key.encode())
    assert [request.fetch() for request in waiting] == [[each.key.encode()] for each in waiting]
    assert [len(record["slp"]["requests"]) for record in server.exchanges()] == [1, 3]


def test_next_exchange_begins_also_after_a_failed_one(client, server):
    server.queue({"on": [*HOLD["on"], {"at": "response-head", "do": "reset"}]})
    failing = Request(client, kind="other").give(b"held up")
    server.wait(1, "upload-end")
    waiting = Request(client, kind="other")

    server.give("go")
    code, _, keys = client.wait_for_signal("errorSignal")
    assert (code, keys) == (2204, failing.key)
    assert waiting.give(b"next").fetch() == [b"next"]


def test_attached_request_starts_an_exchange_over_a_connection_of_kind_1(client, server):
    client.wait_for_status(3)
    request = Request(client, attached=True, kind="other").give(b"attached")
    assert request.fetch() == [b"attached"]
    assert server.last == 1


def test_attached_request_waits_until_the_status_has_been_asked_for_once(client, server):
    waiting = Request(client, attached=True, kind="other")
    assert server.last == 0
    client.wait_for_status(3)
    assert server.last == 0

    # The next request takes it along.
    starting = Request(client, attached=True, kind="other")
    for request in (waiting, starting):
        assert request.give(request.key.encode())
    for request in (waiting, starting):
        assert request.fetch() == [request.key.encode()]
    assert server.last == 1


def test_attached_request_that_came_during_an_exchange_gets_its_own_over_kind_1(client, server):
    held = held_up(client, server)
    waiting = Request(client, attached=True, kind="other")
    server.give("go")

    assert held.fetch() == [b"held up"]
    assert waiting.give(b"attached").fetch() == [b"attached"]
    assert server.last == 2


def test_attached_request_that_came_during_an_exchange_waits_over_kind_2(client, platform, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    held = held_up(client, server)
    waiting = Request(client, attached=True, kind="other")
    server.give("go")
    assert held.fetch() == [b"held up"]

    prepared = Request(client, kind="other").give(b"prepared")
    assert waiting.give(b"attached").fetch() == [b"attached"]
    assert prepared.fetch() == [b"prepared"]
    assert [len(record["slp"]["requests"]) for record in server.exchanges()] == [1, 2]


def test_attached_request_leaves_when_a_connection_of_kind_1_comes(client, platform, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    waiting = Request(client, attached=True, kind="other")
    assert server.last == 0

    platform.write(connections=[(1, True, False)])
    assert waiting.give(b"attached").fetch() == [b"attached"]


def test_request_cancelled_during_its_exchange_is_forgotten_at_its_end(client, server):
    held = held_up(client, server)
    held.cancel()
    pending = held.ask()
    server.give("go")

    assert client.exchange(b"next", kind="other") == [b"next"]
    assert not pending.done
    assert held.ask_error() == 41


def test_answer_can_be_fetched_long_after_its_exchange(client):
    request = Request(client, kind="other").give(b"question")
    for _ in range(3):
        assert client.exchange(b"other", kind="other") == [b"other"]
    assert request.fetch() == [b"question"]


def test_request_that_was_fetched_after_its_exchange_goes_with_the_next_sweep(client):
    early = Request(client, kind="other").give(b"early")
    running = Request(client, kind="other").wait_until_asked()  # so the exchange before is over
    assert early.fetch() == [b"early"]

    # Until something is swept, more is neither given nor refused.
    pending = early.ask()
    assert running.send(b"running") == 0
    assert running.fetch() == [b"running"]
    assert client.exchange(b"next", kind="other") == [b"next"]
    assert not pending.done
    assert early.ask_error() == 41


def test_environment_does_not_choose_the_proxy(bus, make_daemon, server):
    daemon = make_daemon()
    for name in ("no_proxy", "NO_PROXY"):
        daemon.environment[name] = "*,slp.kelvra.example,127.0.0.1"
    for name in ("http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"):
        daemon.environment[name] = "http://127.0.0.1:9"
    daemon.start()
    client = Client(bus.address)

    assert client.exchange(FINGERPRINT)
    assert server.wait(1)["proxy"]["target"] == "slp.kelvra.example:443"
    client.close()
