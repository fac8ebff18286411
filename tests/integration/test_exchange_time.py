"""The sixty seconds of an exchange: libcurl looks at them between two calls of the read callback.

While the callback waits for a client nobody looks. Each piece of data begins a new wait, and an empty one gives
the callback nothing to return with. The daemon's clock is stepped over the sixty seconds.
"""

import pytest

from harness import curl, observe
from harness.preload import SteppedClock
from harness.request import Request, errors, expect_no_error

EXCHANGE = 60  # seconds
FAILURE = (2204, curl.text_of(curl.OPERATION_TIMEDOUT))


@pytest.fixture
def daemon(make_daemon, tmp_path):
    daemon = make_daemon()
    daemon.clock = SteppedClock(daemon, tmp_path)
    return daemon.start()


@pytest.fixture
def overdue(client, daemon):
    """A request that has sent its first byte; the time of its exchange is over and nobody has looked."""
    request = Request(client, kind="other").wait_until_asked()
    give(daemon, request, b"x")  # the part's header went out with it
    daemon.clock.step_to(monotonic=EXCHANGE)
    return request


def give(daemon, request, data):
    """A piece that is not the last, after which the worker waits again."""
    observe.wait_until_worker_sleeps(daemon.pid)
    before = worker_wake_ups(daemon)
    assert request.send(data, last=False) == 0
    observe.poll_for(lambda: worker_wake_ups(daemon) > before, 3, "the worker's next wait")
    observe.wait_until_worker_sleeps(daemon.pid)


def worker_wake_ups(daemon):
    names = observe.threads(daemon.pid)
    return sum(n for task, n in observe.wake_ups(daemon.pid).items() if names[task] == "HttpClient")


@pytest.mark.parametrize(
    ("data", "last"),
    [(b"y", False), (b"y", True), (b"", True)],
    ids=["a byte", "the last byte", "the end"],
)
def test_empty_pieces_keep_an_exchange_open_until_something_goes_out(
    client, daemon, overdue, data, last
):
    for _ in range(3):
        give(daemon, overdue, b"")
    client.settle()
    assert errors(client) == []
    assert overdue.send(data, last) == 0
    assert overdue.wait_for_failure(3) == FAILURE
    expect_no_error(client)
