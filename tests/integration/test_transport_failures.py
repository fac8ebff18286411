"""Exchanges that the network, TLS or the proxy end: what libcurl calls it reaches the clients."""

import socket

import pytest

from harness import curl, shared
from harness.keys import CLIENT_FILES, fill_preinst, make_keys
from harness.request import Request, expect_no_error
from harness.settings import patience

bus, server, platform, preinst, daemon, fresh = shared.FIXTURES

DATA = b"x" * 300_000  # more than fits into the buffers on the way


@pytest.fixture(autouse=True)
def whole_files(preinst, keys):
    """Puts the client's files back."""
    yield
    fill_preinst(preinst, keys)


# Fails before the daemon asks anybody for data.
BROKEN = {"on": [{"at": "tunnel", "do": "close"}]}


def wait_for_failure(request):
    """Gives data if the daemon asks for them before it fails: the arguments of the errorSignal."""
    while True:
        signal = request.client.wait_for_any("requestData", "errorSignal")
        if signal.name == "errorSignal":
            return signal.arguments
        request.send(DATA)


def expect_failure(client, *numbers):
    """The next exchange fails with one of these libcurl codes, and the one after it succeeds."""
    request = Request(client, kind="other")
    code, text, keys = wait_for_failure(request)

    assert (code, keys) == (2204, request.key)
    assert text in [curl.text_of(number) for number in numbers]
    assert request.ask_error() == 41
    expect_no_error(client)


# -- the connection ends ---------------------------------------------------------------------------


BEFORE_TLS = {"close": {curl.SSL_CONNECT_ERROR}, "reset": {curl.SSL_CONNECT_ERROR}}
PROXY_ENDS = {"close": {curl.RECV_ERROR}, "reset": {curl.RECV_ERROR, curl.SEND_ERROR}}
BEFORE_ANSWER = {
    "close": {curl.GOT_NOTHING, curl.SEND_ERROR},
    "reset": {curl.RECV_ERROR, curl.SEND_ERROR},
}
IN_ANSWER = {"close": {curl.PARTIAL_FILE}, "reset": {curl.RECV_ERROR}}

POINTS = {
    "accept": {**PROXY_ENDS, "reset": {*PROXY_ENDS["reset"], curl.COULDNT_CONNECT}},
    "connect": PROXY_ENDS,
    "tunnel": BEFORE_TLS,
    "client-hello": BEFORE_TLS,
    "handshake": BEFORE_ANSWER,
    "head": BEFORE_ANSWER,
    "upload": BEFORE_ANSWER,
    "upload-end": BEFORE_ANSWER,
    "response-head": IN_ANSWER,
    "part": IN_ANSWER,
    "closing": IN_ANSWER,
}


@pytest.mark.parametrize("action", ["close", "cut", "reset"])
@pytest.mark.parametrize("point", POINTS)
def test_end_of_the_connection_at_each_point(client, server, point, action):
    server.queue({"on": [{"at": point, "do": action}]})
    expect_failure(client, *POINTS[point]["close" if action == "cut" else action])


@pytest.mark.parametrize("action", ["close", "cut", "reset"])
def test_end_in_the_middle_of_the_handshake(client, server, action):
    server.queue({"on": [{"at": "server-flight", "bytes": 100, "do": action}]})
    expect_failure(client, curl.SSL_CONNECT_ERROR)


@pytest.mark.parametrize("action", ["close", "cut", "reset"])
def test_end_in_the_middle_of_the_upload(client, server, action):
    server.queue({"on": [{"at": "upload", "bytes": 100_000, "do": action}]})
    expect_failure(client, *BEFORE_ANSWER["close" if action == "cut" else action])


@pytest.mark.parametrize("action", ["close", "cut", "reset"])
def test_end_after_the_answer_is_no_failure(client, server, action):
    server.queue({"on": [{"at": "answered", "do": action}]})
    assert client.exchange(DATA[:1000], kind="other") == [DATA[:1000]]
    expect_no_error(client)


def test_each_exchange_opens_and_ends_a_connection_of_its_own(client, server):
    first = server.last + 1
    for _ in range(3):
        client.exchange(b"question", kind="other")

    connections = [server.wait(number)["connection"] for number in range(first, first + 3)]
    assert len(set(connections)) == 3


@pytest.mark.parametrize(
    "head",
    ["SIP/2.0 200 OK", "ICY 200 OK", "HTTP/0.9 200 OK", "HTTP/1.1 abc", "HTTP/1.1 99999 x", "?"],
)
def test_answer_that_is_no_http(client, server, head):
    server.queue({"answer": {"head": f"{head}\r\n\r\n", "framing": "raw", "then": "close"}})
    expect_failure(client, curl.UNSUPPORTED_PROTOCOL)


def test_nul_byte_in_the_head(client, server):
    head = {"hex": b"HTTP/1.1 200 OK\r\nX: \0\r\n\r\n".hex()}
    server.queue({"answer": {"head": head, "framing": "raw", "then": "close"}})
    expect_failure(client, curl.WEIRD_SERVER_REPLY)


def test_status_number_that_fits_nowhere(client, server):
    server.queue({"answer": {"status": "9" * 30, "then": "close"}})
    expect_failure(client, curl.UNSUPPORTED_PROTOCOL)


# -- TLS and its files -----------------------------------------------------------------------------


@pytest.mark.parametrize(
    "certificate", ["expired", "not-yet-valid", "wrong-host", "self-signed", "unknown-ca"]
)
def test_server_certificate_that_proves_nothing(client, server, certificate):
    server.queue({"certificate": certificate})
    expect_failure(client, curl.PEER_FAILED_VERIFICATION)


@pytest.mark.parametrize("version", ["1.2", "1.3"])
def test_version_of_tls_is_negotiated(client, server, version):
    server.queue({"tls_version": version})
    assert client.exchange(b"question", kind="other") == [b"question"]
    assert server.wait(server.last)["tls"]["version"] == f"TLSv{version}"


def test_client_certificate_is_shown_when_the_server_wants_it(client, server):
    client.exchange(b"question", kind="other")
    subject = server.wait(server.last)["tls"]["client_subject"]
    assert subject == "organizationName=Kelvra test, commonName=Throw-away terminal"


def test_server_need_not_want_a_client_certificate(client, server):
    server.queue({"client_certificate": "none"})
    assert client.exchange(b"question", kind="other") == [b"question"]
    assert server.wait(server.last)["tls"]["client_subject"] is None


FILE_ERRORS = {
    "SlpClient.pem": curl.SSL_CERTPROBLEM,
    "SlpClient-key.pem": curl.SSL_CERTPROBLEM,
    "Positioning_CA.pem": curl.SSL_CACERT_BADFILE,
}


def expect_failure_of_files(client, preinst, keys, number):
    """The next exchange fails with this code, and the one after the files are whole succeeds."""
    request = Request(client, kind="other")
    assert request.wait_for_failure() == (2204, curl.text_of(number))
    # They are read at each exchange.
    fill_preinst(preinst, keys)
    expect_no_error(client)


@pytest.mark.parametrize("name", CLIENT_FILES)
def test_missing_file(client, preinst, keys, name):
    (preinst / name).unlink()
    expect_failure_of_files(client, preinst, keys, FILE_ERRORS[name])


@pytest.mark.parametrize("name", CLIENT_FILES)
def test_truncated_file(client, preinst, keys, name):
    text = (preinst / name).read_bytes()
    (preinst / name).write_bytes(text[: len(text) // 2])
    expect_failure_of_files(client, preinst, keys, FILE_ERRORS[name])


@pytest.mark.parametrize("name", CLIENT_FILES)
def test_file_that_is_a_directory(client, preinst, keys, name):
    (preinst / name).unlink()
    (preinst / name).mkdir()
    request = Request(client, kind="other")
    assert request.wait_for_failure() == (2204, curl.text_of(FILE_ERRORS[name]))
    (preinst / name).rmdir()
    fill_preinst(preinst, keys)
    expect_no_error(client)


def test_key_with_another_pass_phrase(client, preinst, keys, tmp_path):
    make_keys(tmp_path / "other", "--passphrase", "another8")
    name = "SlpClient-key.pem"
    (preinst / name).write_bytes((tmp_path / "other" / name).read_bytes())
    expect_failure_of_files(client, preinst, keys, curl.SSL_CERTPROBLEM)


def test_key_that_belongs_to_another_certificate(client, preinst, keys, tmp_path):
    make_keys(tmp_path / "other")
    name = "SlpClient-key.pem"
    (preinst / name).write_bytes((tmp_path / "other" / name).read_bytes())
    expect_failure_of_files(client, preinst, keys, curl.SSL_CERTPROBLEM)


def test_client_certificate_that_the_server_does_not_know(client, preinst, keys, tmp_path):
    make_keys(tmp_path / "other")
    for name in ("SlpClient.pem", "SlpClient-key.pem"):
        (preinst / name).write_bytes((tmp_path / "other" / name).read_bytes())

    request = Request(client, kind="other")
    # Under TLS 1.3 the refusal comes when the request is on its way.
    code, text, keys_ = wait_for_failure(request)
    assert (code, keys_) == (2204, request.key)
    failures = (curl.SEND_ERROR, curl.RECV_ERROR, curl.GOT_NOTHING, curl.SSL_CONNECT_ERROR)
    assert text in [curl.text_of(number) for number in failures]
    fill_preinst(preinst, keys)
    expect_no_error(client)


# -- the proxy -------------------------------------------------------------------------------------


@pytest.mark.parametrize("status", [302, 400, 403, 407, 500, 502])
def test_proxy_that_refuses(client, server, status):
    server.queue({"proxy": {"status": status, "body": "no"}})
    expect_failure(client, curl.RECV_ERROR)


@pytest.mark.parametrize("raw", ["SIP/2.0 200 OK\r\n\r\n", "HTTP/1.1 abc\r\n\r\n", "\0"], ids=repr)
def test_proxy_that_is_none(client, server, raw):
    server.queue({"proxy": {"raw": raw}, "on": [{"at": "tunnel", "do": "close"}]})
    expect_failure(client, curl.RECV_ERROR)


def test_head_of_the_proxy_does_not_count(client, server):
    server.queue({"proxy": {"headers": [["Via", "1.1 x"], ["Content-Length", "7"]]}})
    assert client.exchange(b"question", kind="other") == [b"question"]
    expect_no_error(client)


def test_nobody_listens(client, server, platform):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = listener.getsockname()[1]
    platform.write(proxy=("127.0.0.1", port))
    request = Request(client, kind="other")
    assert request.wait_for_failure() == (2204, curl.text_of(curl.COULDNT_CONNECT))

    # The proxy is looked up at each exchange.
    platform.write(proxy=("127.0.0.1", server.port))
    expect_no_error(client)


def test_connection_has_small_segments(client, server, platform):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(patience(10))
        platform.write(proxy=listener.getsockname())
        request = Request(client, kind="other")
        connection, _ = listener.accept()
        with connection:
            head = connection.recv(1000)
            size = connection.getsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG)
    assert head.startswith(b"CONNECT slp.kelvra.example:443 HTTP/1.1\r\n")
    # Time stamps take their share of the 1200 bytes that the daemon announces.
    assert 1100 < size <= 1200
    assert request.wait_for_failure()[0] == 2204
    platform.write(proxy=("127.0.0.1", server.port))
    expect_no_error(client)


# -- around a failure ------------------------------------------------------------------------------


def test_failure_names_every_request_in_the_order_of_the_transfer(make_client, platform, server):
    platform.write(connections=[(2, True, False)])
    first, second = make_client(), make_client()
    first.wait_for_status(1)
    server.queue(BROKEN)
    attached = [Request(client, attached=True) for client in (first, second, first)]
    prepared = Request(second)

    expected = " ".join(request.key for request in [prepared, *attached])
    for client in (first, second):
        code, _, keys = client.wait_for_signal("errorSignal")
        assert (code, keys) == (2204, expected)
    for request in (prepared, *attached):
        assert request.ask_error() == 41
        assert request.send(b"late") == 41
    expect_no_error(first)


def test_failure_forgets_answers_of_earlier_exchanges_without_a_word(client, server):
    answered = Request(client, kind="other").give(b"question")
    expect_no_error(client)  # the exchange is over, and nobody has fetched the answer
    server.queue(BROKEN)
    failed = Request(client, kind="other")

    assert failed.wait_for_failure()[0] == 2204
    assert answered.ask_error() == 41
    expect_no_error(client)


def test_request_prepared_in_the_moment_of_a_failure_is_served(client, server):
    # The failed exchange is swept up a moment later, which must not touch the next one.
    for _ in range(10):
        hold = {"at": "head", "do": "pause", "seconds": 0.1}
        server.queue(BROKEN, {"on": [hold]})
        failed = Request(client, kind="other")
        assert failed.wait_for_failure()[0] == 2204
        request = Request(client, kind="other")
        assert request.give(b"question").fetch() == [b"question"]
    expect_no_error(client)


def test_request_cancelled_just_after_a_failure_stays_until_its_own_exchange_ends(client, server):
    # The failed exchange's end comes 50 ms late, in the middle of the next one.
    pause = {"at": "head", "do": "pause", "seconds": 0.2}
    hold = {"at": "upload-end", "do": "wait", "event": "go"}
    server.queue(BROKEN, {"on": [pause, hold]})
    failed = Request(client, kind="other")
    assert failed.wait_for_failure()[0] == 2204
    request = Request(client, kind="other").give(b"question")
    request.cancel()
    server.wait(server.last, "upload-end")

    pending = request.ask()
    client.status()  # the answer to what was sent before would be here
    assert not pending.done
    server.give("go")
    expect_no_error(client)
    assert not pending.done
    assert request.ask_error() == 41
