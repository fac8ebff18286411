"""What the guide for servers claims of nginx, Apache and HAProxy."""

import socket
import ssl
import time
from pathlib import Path

import pytest

from harness.observe import poll_for
from harness.request import Request
from web_servers import EXAMPLES

NOSNIFF = "X-Content-Type-Options"
MODSECURITY = """\
LoadModule security2_module /usr/lib/apache2/modules/mod_security2.so
Include {settings}
SecRuleEngine On
SecDataDir {directory}
Include /etc/modsecurity/crs/crs-setup.conf
{exclusions}
Include /usr/share/modsecurity-crs/rules/*.conf
"""
IN_THE_LOCATION = [
    ("    SSLVerifyClient require\n", ""),
    ('    <Location "/slp/2.0">\n', '    <Location "/slp/2.0">\n        SSLVerifyClient require\n'),
]
TLS_1_2 = ("    SSLEngine on\n", "    SSLEngine on\n    SSLProtocol TLSv1.2\n")

SERVERS = ["nginx", "apache", "haproxy"]
QUESTION = b"where am I?"
LARGE = bytes(range(251)) * 8400  # 2 MiB
MISSING = (2001, "missing MIME parts")


def failure_of(client, data=QUESTION):
    """With what the exchange of a request fails."""
    return Request(client, kind="other").give(data).wait_for_failure(30)


@pytest.mark.parametrize("server", SERVERS)
def test_exchange_with_the_example(kitchen, application, client, server):
    assert application
    getattr(kitchen, server)()
    assert client.exchange(QUESTION) == [QUESTION]
    assert client.exchange(LARGE) == [LARGE]


@pytest.mark.parametrize("server", SERVERS)
def test_client_without_a_certificate_is_refused(kitchen, keys, server):
    getattr(kitchen, server)()
    context = ssl.create_default_context(cafile=keys / "Positioning_CA.pem")
    with socket.create_connection(("127.0.0.1", 443), 10) as plain:
        with pytest.raises((ssl.SSLError, ConnectionError, ValueError)):
            with context.wrap_socket(plain, server_hostname="slp.kelvra.example") as connection:
                connection.sendall(b"POST /slp/2.0 HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n")
                answer = connection.recv(4096)
                if answer.split(b" ")[1:2] == [b"400"]:
                    raise ValueError(answer)


# -- headers of the answer -------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("server", "change"),
    [
        ("nginx", ("    location", f"    add_header {NOSNIFF} nosniff always;\n    location")),
        ("apache", ("Header always unset X", "Header set X-Content-Type-Options nosniff\n    # X")),
        ("haproxy", ("    default_", f"    http-response set-header {NOSNIFF} nosniff\n    default_")),
    ],
)
def test_header_that_comes_behind_content_type_does_no_harm(kitchen, application, client, server, change):
    assert application
    getattr(kitchen, server)([change])
    assert client.exchange(QUESTION) == [QUESTION]


def test_header_always_set_of_apache_comes_in_front_and_spoils_the_answer(kitchen, application, client):
    assert application
    kitchen.apache([("Header always unset X-Content-Type-Options", "")], f"Header always set {NOSNIFF} nosniff")
    assert failure_of(client) == MISSING


def test_example_for_apache_takes_such_a_header_of_the_whole_server_back(kitchen, application, client):
    assert application
    kitchen.apache(more=f"Header always set {NOSNIFF} nosniff")
    assert client.exchange(QUESTION) == [QUESTION]


def test_nothing_is_compressed_unasked(kitchen, application, client):
    assert application
    kitchen.nginx(more="gzip on; gzip_types *; gzip_min_length 1; gzip_proxied any;")
    assert client.exchange(QUESTION) == [QUESTION]


# -- limits of the upload --------------------------------------------------------------------------


def test_nginx_refuses_more_than_1_mib_unless_told(kitchen, application, client):
    assert application
    server = kitchen.nginx([("    client_max_body_size 64m;\n", "")])
    code, _ = failure_of(client, LARGE)
    assert code in (2001, 2204)
    assert "too large chunked body" in server.process.stderr
    assert client.exchange(QUESTION) == [QUESTION]


def test_server_that_answers_during_the_upload_and_closes_is_understood(kitchen, application, client):
    assert application
    kitchen.nginx([("        proxy_pass", "        return 503;\n        proxy_pass")])
    assert failure_of(client, LARGE) == MISSING


def test_apache_gives_up_a_client_that_takes_its_time_unless_told(kitchen, application, client):
    assert application
    server = kitchen.apache([("RequestReadTimeout body=60", "RequestReadTimeout body=1")])
    request = Request(client, kind="fingerprint").wait_until_asked()
    assert request.send(b"<fingerprint>", last=False) == 0
    poll_for(lambda: "prefetch request body failed" in server.process.stderr, 20, "Apache's impatience")
    request.send(b"</fingerprint>")
    assert request.wait_for_failure(30) == MISSING


def test_client_may_take_its_time_with_the_example(kitchen, application, client):
    assert application
    kitchen.apache()
    request = Request(client, kind="fingerprint").wait_until_asked()
    assert request.send(b"<fingerprint>", last=False) == 0
    time.sleep(1.5)
    assert request.send(b"</fingerprint>") == 0
    assert request.fetch() == [b"<fingerprint></fingerprint>"]


# -- certificates asked for late -------------------------------------------------------------------


@pytest.mark.parametrize("more", [[], [TLS_1_2]], ids=["TLS 1.3", "TLS 1.2"])
def test_certificate_may_be_asked_for_late_if_little_is_sent(kitchen, application, client, more):
    assert application
    kitchen.apache(IN_THE_LOCATION + more)
    assert client.exchange(QUESTION) == [QUESTION]


@pytest.mark.parametrize("more", [[], [TLS_1_2]], ids=["TLS 1.3", "TLS 1.2"])
def test_certificate_that_is_asked_for_late_needs_a_buffer_for_the_upload(kitchen, application, client, more):
    assert application
    server = kitchen.apache(IN_THE_LOCATION + more)
    failure_of(client, LARGE)
    assert "request body exceeds maximum size (131072) for SSL buffer" in server.process.stderr


# -- ModSecurity -----------------------------------------------------------------------------------


def modsecurity(kitchen, exclusions):
    """Debian's settings and rules, with the log where there is a place for it."""
    settings = Path("/etc/modsecurity/modsecurity.conf-recommended").read_text("utf-8")
    settings = settings.replace("/var/log/apache2", str(kitchen.directory))
    settings = settings.replace("unicode.mapping", "/etc/modsecurity/unicode.mapping")
    return MODSECURITY.format(
        settings=kitchen.write("modsecurity.conf", settings),
        directory=kitchen.directory,
        exclusions=exclusions,
    )


def test_core_rules_refuse_every_message(kitchen, application, client):
    assert application
    server = kitchen.apache(more=modsecurity(kitchen, ""))
    assert failure_of(client) == MISSING
    assert '[id "921421"]' in server.process.stderr


def test_example_for_modsecurity_lets_messages_pass(kitchen, application, client):
    assert application
    kitchen.apache(more=modsecurity(kitchen, f"Include {EXAMPLES}/modsecurity.conf"))
    assert client.exchange(QUESTION) == [QUESTION]
    assert client.exchange(LARGE) == [LARGE]


# -- how the answer is cut -------------------------------------------------------------------------

# Answers that reach the ends of buffers with their last bytes.
SIZES = [*range(7500, 8300, 16), *range(15600, 16400, 16)]


def answers(application, client, sizes):
    """The lengths of answers that should have these lengths."""
    lengths = []
    for size in sizes:
        application.answer = b"z" * size
        lengths.append(len(b"".join(client.exchange(QUESTION))))
    return lengths


@pytest.fixture(name="sized")
def answer_with_sizes(application, monkeypatch):
    """The application answers with what the test gives it."""
    monkeypatch.setattr("backend.answer_to", lambda _request, _data: ("text/plain", application.answer))
    return application


@pytest.mark.parametrize("server", SERVERS)
def test_answer_of_the_example_arrives_however_long_it_is(kitchen, sized, client, server):
    getattr(kitchen, server)()
    assert answers(sized, client, SIZES) == SIZES


def test_closing_delimiter_that_is_cut_is_data(kitchen, sized, client, monkeypatch):
    monkeypatch.setattr("backend.SHORT", 1 << 20)  # so that every answer has one
    kitchen.nginx()
    lengths = answers(sized, client, SIZES)
    longer = [length - size for length, size in zip(lengths, SIZES) if length != size]
    assert longer and set(longer) == {len("\r\n--slp--") + 32}
