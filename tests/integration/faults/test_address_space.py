"""Too little address space: allocations fail.

The daemon may end, by abort or by GLib's refusal to go on. It must not hang, crash in another way or hand
out a wrong byte; and what it answers must be one of the failures that its clients know. An answer for which
there is no memory is not sent: then it must serve others.
"""

import contextlib
import re
import resource
import signal

import pytest

from harness import curl, matrix, observe
from harness.client import RESPONSE_COMPLETE, BusError
from harness.fault import PROTOCOL, QUESTION, TRANSPORT, Answered, Fault
from harness.moment import ExchangeOver
from harness.settings import is_sanitized
from harness.waiting import wait_for

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

pytestmark = pytest.mark.skipif(
    is_sanitized(), reason="a sanitizer's address space is too large to be limited"
)

KIB, MIB = 1 << 10, 1 << 20
SIZE = 8 * MIB
PATTERN = (bytes(range(251)) * (SIZE // 251 + 1))[:SIZE]
WRITE_ERROR, OUT_OF_MEMORY = 23, 27  # libcurl's
# The transfer itself, or the worker around it.
NO_MEMORY = {
    (TRANSPORT, curl.text_of(WRITE_ERROR)),
    (TRANSPORT, curl.text_of(OUT_OF_MEMORY)),
    (PROTOCOL, "std::bad_alloc"),
}
# An exception that nobody catches; GLib's abort; GLib and libxml2 again, whose reports of a failed allocation
# need memory themselves and call each other until the stack ends.
ENDS = {-signal.SIGABRT, -signal.SIGTRAP, -signal.SIGSEGV}
# The libraries' own last words.
LAST_WORDS = re.compile(
    r"\s*(\(.*\): )?GLib-ERROR \*\*: .*failed to allocate [0-9]+ bytes\s*"
    r"|xmlGetGlobalState: out of memory\s*"
)
NOT_ASKED = 57
GONE = {
    "org.freedesktop.DBus.Error.NoReply",
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
}
SILENCE = 8  # seconds; longer than the wait for data


@contextlib.contextmanager
def room(pid, left):
    """The process may have so much more address space than it has now."""
    before = resource.prlimit(pid, resource.RLIMIT_AS)
    size = int(observe.status_field(pid, "VmSize").removesuffix(" kB")) * KIB
    resource.prlimit(pid, resource.RLIMIT_AS, (size + left, before[1]))
    try:
        yield
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, resource.RLIMIT_AS, before)


class Sufferer:
    """A client whose exchange may break off at any point. It notes how far it has come."""

    def __init__(self, scene):
        self.scene = scene
        self.client = scene.client()
        self.fetched = b""
        self.whole = False  # the answer has come to its end
        self.refused = None  # what sendData returned
        self.ignored = False  # no answer came, and yet the daemon serves

    @property
    def failures(self):
        return [each.arguments for each in self.client.signals if each.name == "errorSignal"]

    def has_ended(self):
        return self.scene.daemon.process.status is not None

    def wait(self, event):
        """Waits for the event, a failure or the daemon's end. @return whether it was the event."""
        try:
            wait_for(lambda: event() or self.failures or self.has_ended(), SILENCE, "any outcome")
        except AssertionError:
            self.client.settle()
            self.ignored = True
        return event()

    def exchange(self, data):
        """From prepare to the last byte, or as far as it goes. An error reply breaks it off."""
        with contextlib.suppress(BusError):
            request = self.scene.request(self.client, kind="position", chunk_size=MIB)
            asked = ("requestData", (request.connection, request.id))
            if self.wait(lambda: asked in self.client.signals):
                self.refused = request.send(data)
                self.fetch(request)

    def settle(self):
        """All that the daemon has told has come, or its end is certain."""
        try:
            self.client.settle()
        except BusError as error:
            assert error.name in GONE, error
            wait_for(self.has_ended, 10, "the end")

    def fetch(self, request):
        call = request.ask()
        while self.wait(lambda: call.done):  # pylint: disable=cell-var-from-loop
            chunk = call.wait()
            self.fetched += chunk.data
            self.whole = chunk.code == RESPONSE_COMPLETE
            if self.whole:
                return
            call = request.ask()


def expect_end(scene):
    """It has ended for want of memory, and serves when started anew."""
    process = scene.daemon.process
    assert process.status in ENDS, scene.daemon.report()
    said = process.stdout + process.stderr
    assert said == "" or LAST_WORDS.fullmatch(said), said
    scene.daemon.start()
    scene.expect_clean_exchange()


def expect_failure(sufferer):
    for code, text, _ in sufferer.failures:
        assert (code, text) in NO_MEMORY, (code, text)
    sufferer.client.signals.clear()


def suffer(scene, left, data, answer):
    """One exchange in so much room. Any outcome is right that is told to the client, or the end."""
    scene.prepare()
    scene.daemon.expect_end()
    sufferer = Sufferer(scene)
    with room(scene.daemon.pid, left):
        sufferer.exchange(data)
        sufferer.settle()
    if sufferer.refused == NOT_ASKED:
        answer = b""  # the data came when the wait for them was over
    assert answer.startswith(sufferer.fetched)
    if sufferer.has_ended():
        return sufferer
    if not sufferer.failures and not sufferer.ignored:
        assert sufferer.whole
        assert sufferer.fetched == answer
    expect_failure(sufferer)
    scene.daemon.guard()
    scene.expect_nothing_left()
    return sufferer


@pytest.mark.parametrize("left", [0, 16, 64, 256, 1024, 4 * 1024, 10 * 1024, 32 * 1024])
def test_answer_of_8_mib_with_so_many_kib(left, scene):
    sufferer = suffer(scene, left * KIB, b"size: %d" % SIZE, PATTERN)
    if sufferer.has_ended():
        expect_end(scene)


@pytest.mark.parametrize("left", [0, 4 * 1024, 32 * 1024])
def test_data_of_8_mib_with_so_many_kib(left, scene):
    """libdbus waits for memory for the message, the worker for the data, five seconds at most."""
    sufferer = suffer(scene, left * KIB, PATTERN, PATTERN)
    if sufferer.has_ended():
        expect_end(scene)


# -- no room for a thread --------------------------------------------------------------------------


def fail_to_prepare(client, connection):
    try:
        client.prepare(connection)
    except BusError as error:
        assert error.code == TRANSPORT
    else:
        raise AssertionError("a worker was started")


def start_without_a_stack(scene):
    """Refused, but the request stays, and the next exchange takes it along.

    The daemon is a new one: later the C library has a stack in stock.
    """
    scene.daemon.stop()
    scene.daemon.start()
    client = scene.client()
    connection = scene.connect(client, kind="position")
    with room(scene.daemon.pid, 4 * MIB):
        fail_to_prepare(client, connection)
    scene.request(client, connection=connection)
    refused = scene.requests[0].id - 1
    client.wait_for_request_data(connection, refused)
    assert client.sendData(connection, refused, b"refused") == 0
    scene.requests[0].give(QUESTION)
    assert client.fetch(connection, refused) == [b"refused"]


def test_no_room_for_the_workers_stack(scene):
    Fault(
        "no-stack", server={}, act=start_without_a_stack, sees=[Answered(), ExchangeOver()]
    ).play(scene)
