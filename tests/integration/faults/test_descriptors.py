"""The limit of file descriptors, reached by the running daemon, and messages that bring many of them."""

import contextlib
import functools
import resource

import pytest
from gi.repository import GLib

from harness import curl, matrix, observe
from harness.client import BusError
from harness.fault import TRANSPORT, Answered, Failed, Fault, one_request, rows
from harness.moment import ASKED, BEGUN, RECEIVING
from harness.private_bus import PrivateBus
from harness.raw_client import values

_, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

# A transfer without so many free descriptors fails: for want of its socket, or of its certificate when
# the socket was the last one. libcurl does without its own pair of descriptors, if it has to.
ENOUGH = 4
FAILURES = {
    0: curl.COULDNT_CONNECT,
    1: curl.SSL_CERTPROBLEM,
    2: curl.COULDNT_CONNECT,
    3: curl.SSL_CERTPROBLEM,
}

MOST_AT_ONCE = 253  # that the kernel hands over in one piece


@pytest.fixture(scope="module")
def bus(tmp_path_factory):
    """It passes as many descriptors in a message as the kernel does."""
    kinds = ("max_message_unix_fds", "max_incoming_unix_fds", "max_outgoing_unix_fds")
    bus = PrivateBus(tmp_path_factory.mktemp("bus"), limits=dict.fromkeys(kinds, 1024))
    yield bus
    bus.stop()


@contextlib.contextmanager
def few_descriptors(pid, left):
    """The process may open so many more than it has."""
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    taken = observe.file_descriptors(pid)
    gaps = set(range(max(taken))) - set(taken)
    assert len(gaps) <= left, taken
    limit = max(taken) + 1 + left - len(gaps)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, before[1]))
    try:
        yield
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, resource.RLIMIT_NOFILE, before)


def start_with(left, scene):
    """The limit is in force until the exchange is over."""
    with few_descriptors(scene.daemon.pid, left):
        one_request(scene)
        observe.wait_until_idle(scene.daemon.pid)


def run_dry(moment, scene):
    """None is left from this moment on. An exchange that has its connection needs no more."""
    moment.reach(scene)
    with few_descriptors(scene.daemon.pid, 0):
        moment.let_go(scene)
        moment.send_rest(scene)
        assert scene.fetch() == list(moment.left)


def change_platform(scene):
    """A platform file that cannot be opened leaves the last good state in force."""
    client = scene.client()
    client.wait_for_status(1)
    connection = scene.connect(client)
    with few_descriptors(scene.daemon.pid, 0):
        scene.platform.write(positioning=False)
        waiting = client.attach(connection)
    try:
        client.attach(connection)
    except BusError as error:
        assert error.code == 2205
    else:
        raise AssertionError("the new file was not read")
    client.cancel(connection, waiting)
    client.settle()


def pass_descriptor(scene):
    """libdbus takes a descriptor that it cannot receive for the end of the bus."""
    scene.daemon.expect_end()
    raw = scene.raw_client(descriptors=True)
    with few_descriptors(scene.daemon.pid, 0):
        raw.send_with_descriptors(raw.compose("getData", GLib.Variant("(h)", (0,))), 0)
        assert scene.daemon.wait() == 1


def pass_many(count, scene):
    """The call is answered; what is checked after each row tells that all of them were closed."""
    raw = scene.raw_client(descriptors=True)
    call = raw.compose("getData", GLib.Variant("(ah)", (range(count),)))
    raw.send_with_descriptors(call, *[0] * count)
    assert values(raw.answer(call.get_serial())) == ("(2002) unspecifiedError",)


def failed(left, text):
    return Fault(
        f"{left}-left",
        server={},
        act=functools.partial(start_with, left),
        sees=[Failed(TRANSPORT, text)],
    )


@rows(
    *(failed(left, text) for left, text in FAILURES.items()),
    Fault(f"{ENOUGH}-left", server={}, act=functools.partial(start_with, ENOUGH), sees=[Answered()]),
    *(
        Fault(f"none-left-{moment.name}", **moment.set_up(), act=functools.partial(run_dry, moment))
        for moment in (ASKED, BEGUN, RECEIVING)
    ),
    Fault(
        "none-left-for-the-platform-file",
        platform={"connections": [(2, True, False)]},
        act=change_platform,
    ),
    *(
        Fault(f"{count}-in-a-message", act=functools.partial(pass_many, count))
        for count in (17, MOST_AT_ONCE)
    ),
    Fault("none-left-for-a-message", act=pass_descriptor, ends=1),
)
def test_descriptors(fault, scene):
    fault.play(scene)
