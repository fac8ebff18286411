"""An answer that costs processor time and brings next to nothing is given up: 10 s for each MiB.

The clock of the worker's processor time is stepped, so that no processor has to be kept busy.
"""

import pytest

from harness.preload import SteppedClock
from harness.request import Request, expect_no_error
from harness.response import CLOSING, DELIMITER, answer, start_part

MIB = 1 << 20
OWN_PART = f"\r\n{DELIMITER}\r\nContent-Id: a\r\n\r\n"
PIECES = 200  # the daemon does not look at its clock at every piece


@pytest.fixture
def daemon(make_daemon, tmp_path):
    daemon = make_daemon()
    daemon.clock = SteppedClock(daemon, tmp_path)
    return daemon.start()


def answered_in_tiny_pieces(client, server, first):
    """A request whose answer stops behind its first bytes until the event "rest"."""
    rest = {"do": "wait", "event": "rest"}
    server.queue(answer(start_part("a"), OWN_PART, first, rest, *["x"] * PIECES, CLOSING))
    return Request(client, kind="other", chunk_size=2 * MIB).give(b"question")


def fetch(request, size):
    received = 0
    while received < size:
        received += len(request.ask().wait()[0])
    return received


def test_an_answer_that_costs_too_much_is_given_up(client, server, daemon):
    request = answered_in_tiny_pieces(client, server, "x")
    fetch(request, 1)
    daemon.clock.step_to(processor=10)
    server.give("rest")
    assert request.wait_for_failure(10) == (2001, "faulty MIME data")
    expect_no_error(client)


@pytest.mark.parametrize(
    ("first", "seconds"), [(1, 9), (MIB, 10)], ids=["9 s for a byte", "10 s for a MiB"]
)
def test_an_answer_within_the_limit_goes_on(client, server, daemon, first, seconds):
    request = answered_in_tiny_pieces(client, server, {"bytes": first})
    fetch(request, first)
    daemon.clock.step_to(processor=seconds)
    server.give("rest")
    assert fetch(request, PIECES) == PIECES
    expect_no_error(client)
