"""The built-in time-outs of a minute and more, in real time: scripts/test --long."""

import time

import pytest

from harness.settings import patience

pytestmark = [pytest.mark.long, pytest.mark.timeout(400)]


def asked(client, **parameters):
    """A request whose client has been asked for its data: connection and request id."""
    connection = client.connect(**parameters)
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    return connection, request


def expect_error(client, code, message, connection, request, after, within):
    """Waits for the error of this request and checks how long it took."""
    began = time.monotonic()
    arguments = client.wait_for_signal("errorSignal", seconds=within)
    assert arguments == (code, message, f"{connection}:{request}")
    assert after - 1 < time.monotonic() - began < after + patience(6)


def test_transfer_ends_after_sixty_seconds(server, client):
    server.queue({"on": [{"at": "upload-end", "do": "hang"}]})
    connection, request = asked(client)
    assert client.sendData(connection, request, b"x") == 0
    expect_error(client, 2204, "Timeout was reached", connection, request, 60, 90)


def test_connecting_ends_after_thirty_seconds(server, client):
    server.queue({"on": [{"at": "accept", "do": "hang"}]})
    connection = client.connect()
    request = client.prepare(connection)
    expect_error(client, 2204, "Timeout was reached", connection, request, 30, 60)


def test_silent_fingerprint_is_waited_for_ninety_seconds_and_fails_the_transfer(client):
    # The transfer's own sixty seconds have passed when the wait ends; libcurl notices it then.
    connection, request = asked(client, kind="fingerprint")
    expect_error(client, 2204, "Timeout was reached", connection, request, 90, 120)


def test_empty_pieces_keep_a_transfer_open_beyond_its_sixty_seconds(client):
    connection, request = asked(client, kind="other")
    began = time.monotonic()
    while time.monotonic() - began < 75:
        assert client.sendData(connection, request, b"", last=False) == 0
        time.sleep(4)  # the daemon waits for five
    assert client.sendData(connection, request, b"x") == 0
    expect_error(client, 2204, "Timeout was reached", connection, request, 0, 10)


def test_daemon_serves_others_while_it_waits_for_a_fingerprint(client, make_client):
    connection, request = asked(client, kind="fingerprint")
    other = make_client()
    assert other.status() == 3
    assert client.sendData(connection, request, b"late") == 0
    _, code = client.fetch_part(connection, request)
    assert code == 2303
