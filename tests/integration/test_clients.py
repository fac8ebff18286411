"""Clients as the bus knows them: their first messages, their many names, their end."""

import os
import time

import pytest
from gi.repository import GLib

from harness.raw_client import RawClient, values
from harness.settings import BUS_NAME, patience

PROPERTIES = "org.freedesktop.DBus.Properties"
STATUS = GLib.Variant("(ss)", (BUS_NAME, "connectionStatus"))
TEXTS = (b"ask", b"other", b"1.0", b"binary", b"text/plain")
CONNECT = GLib.Variant("(ayayayayayu)", (*TEXTS, 1000))


def numbers(*given):
    return GLib.Variant(f"({'u' * len(given)})", given)


@pytest.fixture(name="waiting_platform")
def fixture_waiting_platform(platform):
    """A network over which attached requests wait."""
    platform.write(connections=[(2, True, False)])


# -- the first messages of a name on the bus -------------------------------------------------------


def test_first_calls_of_a_client_are_answered_in_order(waiting_platform, raw):
    # pylint: disable=unused-argument
    calls = [
        raw.compose("attach", numbers(1, 2)),
        raw.compose("connect", CONNECT),
        raw.compose("attach", numbers(1, 2, 0)),
        raw.compose("Get", STATUS, interface=PROPERTIES),
        raw.compose("disconnect", GLib.Variant("(s)", ("1",))),
        raw.compose("Get", numbers(1, 2), interface=PROPERTIES),
        raw.compose("attach", numbers(2, 2, 0)),
    ]
    raw.send(*calls)
    answers = [raw.answer(call.get_serial()) for call in calls]
    arrived = [each for each in raw.history if each in answers]
    assert [each.get_reply_serial() for each in arrived] == [each.get_serial() for each in calls]
    bad, connection, request, status, zero, unknown, none = map(values, answers)
    assert (connection, request, status) == ((1,), (1,), (1,))
    assert [each[0][:6] for each in (bad, zero, none)] == ["(2002)", "(0) un", "(1001)"]
    assert unknown[0].startswith('Method "Get" with signature "')


def test_first_call_may_have_further_arguments_and_descriptors(bus, daemon):
    # pylint: disable=unused-argument
    client = RawClient(bus.address, descriptors=True)
    body = GLib.Variant("(ayayayayayuhs)", (*TEXTS, 1000, 0, "more"))
    message = client.compose("connect", body)
    read_end, write_end = os.pipe()
    client.send_with_descriptors(message, read_end)
    assert values(client.answer(message.get_serial())) == (1,)
    os.close(read_end)
    del message  # the message has a copy of its own
    client.settle()
    with pytest.raises(BrokenPipeError):
        os.write(write_end, b"x")
    os.close(write_end)
    client.close()


def test_each_call_of_a_request_may_come_from_another_name(client, make_client, server):
    def once(member, *arguments):
        caller = make_client()
        try:
            return getattr(caller, member)(*arguments)
        finally:
            caller.close()

    number = server.last + 1
    connection = once("connect", "ask", "other")
    request = once("prepare", connection)
    client.wait_for_request_data(connection, request)
    assert once("sendData", connection, request, b"first ", False) == 0
    assert once("sendData", connection, request, b"second", True) == 0
    server.wait(number)
    assert client.fetch(connection, request) == [b"first second"]
    once("disconnect", connection)


# -- a client that is killed -----------------------------------------------------------------------


@pytest.mark.waits
def test_daemon_waits_5_seconds_for_a_fingerprint_client_that_is_gone(client, make_client, server):
    killed = make_client()
    connection = killed.connect(kind="fingerprint")
    request = killed.prepare(connection)
    client.wait_for_request_data(connection, request)
    number = server.last
    begin = time.monotonic()
    killed.close()
    assert client.exchange(b"question", kind="other") == [b"question"]
    server.wait(number)
    assert 4.9 < time.monotonic() - begin < 5 + patience(5)


@pytest.mark.waits
def test_daemon_waits_longer_for_a_fingerprint_client_that_is_there(client, server):
    number = server.last + 1
    connection = client.connect(kind="fingerprint")
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    time.sleep(6)  # the wait for a client that has left, and a second
    assert client.sendData(connection, request, b"question") == 0
    server.wait(number)
    assert client.fetch(connection, request) != [b""]


@pytest.mark.waits
def test_daemon_asks_whether_the_fingerprint_client_has_left_before(client, make_client, server):
    """It opened the connection and left; another client of the same user goes on."""
    opener = make_client()
    connection = opener.connect(kind="fingerprint")
    opener.close()
    number = server.last + 1
    begin = time.monotonic()
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    server.wait(number, "upload-end")
    assert 4.9 < time.monotonic() - begin < 5 + patience(5)
