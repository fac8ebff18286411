"""A name server that does not answer: the exchange is given up after the thirty seconds of connecting.

The C library asks it for two and a half minutes; the thread that waits for it must hold up nobody.
"""

import time

import pytest

from harness import curl, observe, silent_names
from harness.preload import SteppedClock
from harness.request import Request
from harness.settings import patience

CONNECTING = 30  # seconds
FAILURE = (2204, curl.text_of(curl.OPERATION_TIMEDOUT))


@pytest.fixture
def daemon(make_daemon, platform, tmp_path):
    """Has no proxy, so that it looks up the server's name itself."""
    platform.write(proxy=None)
    daemon = make_daemon()
    daemon.program = silent_names.wrapped(tmp_path, daemon.program)
    daemon.clock = SteppedClock(daemon, tmp_path)
    return daemon.start()


@pytest.fixture
def request_in_look_up(client, daemon):
    """A request whose exchange looks up the server's name."""
    request = Request(client)
    wait_for_look_up(daemon)
    return request


def wait_for_look_up(daemon, number=1):
    """Waits until so many threads ask the name server, the worker beside them."""

    def asking():
        names = observe.threads(daemon.pid)  # a thread starts with the name of the one that starts it
        return sum(name == "HttpClient" for name in names.values()) == number + 1

    observe.poll_for(asking, 10, lambda: f"a look-up; {observe.threads(daemon.pid)}")


def let_connecting_time_pass(daemon):
    """libcurl looks at its clock several times a second; the C library has one of its own."""
    daemon.clock.step_to(monotonic=CONNECTING)


def expect_end(daemon):
    """At once, with the look-up under way as before, and without a word."""
    assert daemon.wait(5) == 0
    daemon.expect_silence()


def test_exchange_fails_when_the_time_for_connecting_is_over(daemon, request_in_look_up):
    let_connecting_time_pass(daemon)
    assert request_in_look_up.wait_for_failure() == FAILURE
    daemon.stop(5)


def test_next_exchange_does_not_wait_for_the_look_up_before(daemon, client, request_in_look_up):
    let_connecting_time_pass(daemon)
    assert request_in_look_up.wait_for_failure() == FAILURE
    daemon.clock.step_to(monotonic=2 * CONNECTING)
    request = Request(client)
    wait_for_look_up(daemon, 2)
    daemon.clock.step_to(monotonic=3 * CONNECTING)
    assert request.wait_for_failure() == FAILURE
    daemon.stop(5)


@pytest.mark.usefixtures("request_in_look_up")
def test_end_waits_for_the_time_for_connecting_only(daemon):
    daemon.send_signal(15)
    observe.wait_until_joining(daemon.pid)
    let_connecting_time_pass(daemon)
    expect_end(daemon)


@pytest.mark.long
def test_exchange_fails_after_thirty_seconds(client, daemon):
    began = time.monotonic()
    request = Request(client)
    assert request.wait_for_failure(CONNECTING + 20) == FAILURE
    assert CONNECTING - 1 < time.monotonic() - began < CONNECTING + patience(4)
    daemon.stop(5)


@pytest.mark.long
@pytest.mark.usefixtures("request_in_look_up")
def test_end_comes_within_thirty_seconds(daemon):
    asked = time.monotonic()
    daemon.send_signal(15)
    assert daemon.wait(CONNECTING + 20) == 0
    assert time.monotonic() - asked < CONNECTING + patience(4)
    daemon.expect_silence()
