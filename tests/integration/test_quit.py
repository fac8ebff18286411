"""The daemon's end: quit, quitDelayed, signals, and what is under way at that moment."""

import signal
import time

import pytest
from gi.repository import GLib

from harness import observe
from harness.raw_client import is_error, values
from harness.settings import BUS_NAME, patience

NO_REPLY = "org.freedesktop.DBus.Error.NoReply"
CONNECT = GLib.Variant("(ayayayayayu)", (b"ask", b"other", b"1.0", b"binary", b"text/plain", 1000))
PREPARE = GLib.Variant("(uuu)", (1, 2, 0))
PROPERTIES = "org.freedesktop.DBus.Properties"
FOREVER = float("inf")
DELAY = 60_000  # ms


@pytest.fixture(name="platform")
def platform_without_server(platform_for_server):
    """Without a server there is no connection either, and prepared requests fail at once."""
    return platform_for_server


@pytest.fixture(name="ending")
def fixture_ending(daemon):
    """A running daemon that the test ends."""
    daemon.expect_end()
    return daemon


def begin(client, kind="other"):
    """Connects, prepares, and waits for the question for data: the ids."""
    connection = client.connect(kind=kind)
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    return connection, request


# -- quit ------------------------------------------------------------------------------------------


def test_quit_is_answered_and_ends_the_daemon_with_status_0(ending, raw):
    answer = raw.call("quit")
    assert (is_error(answer), values(answer)) == (False, ())
    assert ending.wait() == 0
    ending.expect_silence()


def test_quit_that_wants_no_answer_ends_the_daemon_too(ending, raw):
    raw.send(raw.compose("quit", no_reply=True))
    assert ending.wait() == 0


def test_quit_gives_the_name_back(ending, raw):
    raw.add_match(f"type='signal',member='NameOwnerChanged',arg0='{BUS_NAME}'")
    raw.call("quit")
    assert values(raw.signal("NameOwnerChanged"))[2] == ""
    assert ending.wait() == 0


def test_quit_gives_held_calls_up_without_an_answer_of_its_own(ending, raw):
    raw.call("connect", CONNECT)
    requests = [values(raw.call("attach", PREPARE))[0] for _ in range(3)]
    held = [raw.start("getData", GLib.Variant("(uu)", (1, request))) for request in requests]
    assert not is_error(raw.call("quit"))
    assert ending.wait() == 0
    for call in held:
        answer = raw.answer(call)
        assert answer.get_error_name() == NO_REPLY
        assert answer.get_sender() == "org.freedesktop.DBus"


def test_nothing_is_served_behind_quit(ending, raw, server):
    raw.call("connect", CONNECT)
    # In one write: the loop may still handle what is behind, but nothing may come of it.
    raw.send(raw.compose("quit"), *[raw.compose("prepare", PREPARE) for _ in range(5)])
    assert ending.wait() == 0
    ending.expect_silence()
    assert server.last == 0


@pytest.mark.parametrize("repetition", range(5))
def test_quit_right_behind_prepare_ends_the_starting_exchange(repetition, ending, raw, server):
    raw.call("connect", CONNECT)
    prepares = [raw.compose("prepare", PREPARE) for _ in range(repetition + 1)]
    raw.send(*prepares, raw.compose("quit"))
    assert ending.wait() == 0
    ending.expect_silence()
    assert server.last <= 1


@pytest.mark.usefixtures("server")
def test_quit_during_a_silent_requests_turn_waits_for_that_turns_end(ending, client):
    begin(client)
    observe.wait_until_worker_sleeps(ending.pid)
    began = time.monotonic()
    client.call_later("quit").wait(15)
    # It sleeps for five seconds when no data come, and nobody wakes it for a quit.
    assert time.monotonic() - began > 4.5
    assert ending.wait() == 0
    ending.expect_silence()


def test_quit_during_an_answer_waits_for_its_end(ending, client, server):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "go"}]})
    request = begin(client)
    client.sendData(*request, b"data")
    server.wait(1, "upload-end")
    quitting = client.call_later("quit")
    client.bus.flush_sync(None)
    observe.wait_until_joining(ending.pid)
    assert not quitting.done
    server.give("go")
    quitting.wait()
    assert ending.wait() == 0
    ending.expect_silence()


def test_quit_with_answers_that_nobody_has_fetched(ending, client, server):
    request = begin(client)
    client.sendData(*request, b"size: 1000000")
    server.wait(1)
    client.quit()
    assert ending.wait() == 0


def test_daemon_can_be_started_again_after_quit(make_daemon, client_of):
    daemon = make_daemon()
    for _ in range(3):
        daemon.start()
        daemon.expect_end()
        client_of(daemon).quit()
        assert daemon.wait() == 0


# -- signals ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signal_during_an_answer_lets_it_end(number, ending, client, server):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "go"}]})
    request = begin(client)
    held = client.getData(*request)
    client.sendData(*request, b"data")
    server.wait(1, "upload-end")
    ending.send_signal(number)
    observe.wait_until_default(ending.pid, number)
    assert ending.process.status is None
    server.give("go")
    assert ending.wait() == 0
    assert server.wait(1)["outcome"] == "answered"
    ending.expect_silence()
    assert not held.answer


def test_second_signal_ends_a_blocked_shutdown(ending, client, server):
    server.queue({"on": [{"at": "upload-end", "do": "hang"}]})
    request = begin(client)
    client.sendData(*request, b"data")
    server.wait(1, "upload-end")
    ending.send_signal(signal.SIGTERM)
    observe.wait_until_default(ending.pid, signal.SIGTERM)
    assert ending.process.status is None
    ending.send_signal(signal.SIGTERM)
    assert ending.wait() == -signal.SIGTERM
    ending.expect_silence()


def test_both_signals_end_the_daemon_once(ending):
    ending.send_signal(signal.SIGSTOP)
    ending.send_signal(signal.SIGTERM)
    ending.send_signal(signal.SIGINT)
    ending.send_signal(signal.SIGCONT)
    assert ending.wait() == 0


def test_signal_with_waiting_requests_and_held_calls(ending, raw):
    raw.call("connect", CONNECT)
    for _ in range(10):
        request = values(raw.call("attach", PREPARE))[0]
        raw.start("getData", GLib.Variant("(uu)", (1, request)))
    raw.call("quitDelayed")
    ending.send_signal(signal.SIGTERM)
    assert ending.wait() == 0
    ending.expect_silence()


def test_end_of_the_bus_does_not_wait_for_an_exchange(ending, client, bus, server):
    server.queue({"on": [{"at": "upload-end", "do": "hang"}]})
    request = begin(client)
    client.sendData(*request, b"data")
    server.wait(1, "upload-end")
    bus.stop()
    assert ending.wait() == 1
    ending.expect_silence()


# -- quitDelayed -----------------------------------------------------------------------------------


def test_quitdelayed_is_answered_and_starts_a_timer_of_a_minute(daemon, raw):
    assert observe.next_timer(daemon.pid) == FOREVER
    answer = raw.call("quitDelayed")
    assert (is_error(answer), values(answer)) == (False, ())
    assert DELAY - 5_000 < observe.next_timer(daemon.pid) <= DELAY


def test_second_quitdelayed_does_not_start_the_timer_again(daemon, raw):
    began = time.monotonic()
    raw.call("quitDelayed")
    time.sleep(0.3)  # what has passed since the first call is what is looked for
    raw.call("quitDelayed")
    passed = 1000 * (time.monotonic() - began)
    left = observe.next_timer(daemon.pid)
    assert DELAY - passed - 5_000 < left <= DELAY - 290


CALLS_THAT_KEEP = {
    "connect": ("connect", CONNECT),
    "connect with wrong arguments": ("connect", None),
    "attach": ("attach", PREPARE),
    "attach with wrong arguments": ("attach", None),
    "attach to an unknown connection": ("attach", GLib.Variant("(uuu)", (9, 2, 0))),
    "prepare": ("prepare", PREPARE),
    "prepare with wrong arguments": ("prepare", None),
    "prepare on an unknown connection": ("prepare", GLib.Variant("(uuu)", (9, 2, 0))),
    "prepare that no connection allows": ("prepare", GLib.Variant("(uuu)", (1, 0, 0))),
}
CALLS_THAT_DO_NOT_KEEP = {
    "sendData": ("sendData", GLib.Variant("(aybuu)", (b"d", True, 1, 1))),
    "sendData with wrong arguments": ("sendData", None),
    "getData": ("getData", GLib.Variant("(uu)", (1, 9))),
    "getData with wrong arguments": ("getData", None),
    "disconnect": ("disconnect", GLib.Variant("(u)", (1,))),
    "quitDelayed": ("quitDelayed", None),
    "unknown": ("unknown", None),
}


@pytest.mark.parametrize("name", CALLS_THAT_KEEP)
def test_call_calls_a_delayed_quit_off(name, daemon, raw):
    raw.call("connect", CONNECT)
    raw.call("quitDelayed")
    assert observe.next_timer(daemon.pid) != FOREVER
    raw.call(*CALLS_THAT_KEEP[name])
    raw.settle()
    assert observe.next_timer(daemon.pid) == FOREVER


@pytest.mark.parametrize("member", ["attach", "prepare"])
def test_call_without_permission_calls_a_delayed_quit_off(member, daemon, raw, platform):
    raw.call("connect", CONNECT)
    platform.write(positioning=False)
    raw.call("quitDelayed")
    assert values(raw.call(member, PREPARE)) == ("(2205) unspecifiedError",)
    # The platform file's own timer ends by itself.
    observe.poll_for(lambda: observe.sleeping_for(daemon.pid) == FOREVER)


@pytest.mark.parametrize("name", CALLS_THAT_DO_NOT_KEEP)
def test_call_leaves_a_delayed_quit_alone(name, daemon, raw):
    raw.call("connect", CONNECT)
    raw.call("quitDelayed")
    raw.call(*CALLS_THAT_DO_NOT_KEEP[name])
    raw.settle()
    assert DELAY - 5_000 < observe.next_timer(daemon.pid) <= DELAY


def test_cancel_and_questions_for_the_status_leave_a_delayed_quit_alone(daemon, raw):
    raw.call("quitDelayed")
    raw.emit("cancel", GLib.Variant("(uu)", (1, 1)))
    status = GLib.Variant("(ss)", (BUS_NAME, "connectionStatus"))
    raw.call("Get", status, interface=PROPERTIES)
    raw.settle()
    assert observe.next_timer(daemon.pid) != FOREVER


def test_delayed_quit_can_be_asked_for_again_after_it_was_called_off(daemon, raw):
    for _ in range(3):
        raw.call("quitDelayed")
        assert observe.next_timer(daemon.pid) != FOREVER
        raw.call("connect", CONNECT)
        raw.settle()
        assert observe.next_timer(daemon.pid) == FOREVER


def test_quit_does_not_wait_for_a_delayed_one(ending, raw):
    raw.call("quitDelayed")
    assert not is_error(raw.call("quit"))
    assert ending.wait() == 0


@pytest.mark.long
def test_quitdelayed_ends_the_daemon_a_minute_after_the_first_call(ending, raw):
    raw.call("connect", CONNECT)
    raw.call("attach", PREPARE)
    began = time.monotonic()
    raw.call("quitDelayed")
    time.sleep(30)
    raw.call("quitDelayed")
    held = raw.start("getData", GLib.Variant("(uu)", (1, 1)))
    assert ending.wait(120) == 0
    assert 59 < time.monotonic() - began < 60 + patience(5)
    ending.expect_silence()
    assert raw.answer(held).get_error_name() == NO_REPLY


@pytest.mark.long
def test_daemon_whose_delayed_quit_was_called_off_goes_on(daemon, raw):
    raw.call("quitDelayed")
    raw.call("connect", CONNECT)
    time.sleep(65)
    assert not is_error(raw.call("connect", CONNECT))
    assert daemon.process.status is None
