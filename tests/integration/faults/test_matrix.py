"""The matrix itself: a row that leaves something behind, or sees something else, fails."""

import pytest
from gi.repository import GLib

from harness import curl, matrix, observe, waiting
from harness.fault import PROTOCOL, TRANSPORT, Answered, Failed, Fault, Over, one_request
from harness.moment import SENT
from harness.settings import has_statistics

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

REFUSED = {"answer": {"status": 404, "multipart": {"parts": []}}}
KIND_ONE_ONLY = 0

counted = pytest.mark.skipif(not has_statistics(), reason="this build does not count")


def leave_behind(scene):
    """A client's request that no exchange takes along, which the scene is not told of."""
    client = scene.client()
    client.attach(client.connect(kind="other"), KIND_ONE_ONLY)


def leave_behind_in_secret(scene):
    """As `leave_behind`, but the scene's clients do not know its ids either."""
    connection = scene.client().connect(kind="other")
    scene.raw_client().call("attach", GLib.Variant("(uuu)", (connection, KIND_ONE_ONLY, 0)))


@pytest.fixture
def attached_requests_wait(platform, scene):
    platform.write(connections=[(2, True, False)])
    scene.client().wait_for_status(1)
    scene.settle_seconds = 0.2


@counted
@pytest.mark.usefixtures("attached_requests_wait")
def test_ledger_counts_connections_requests_and_held_calls(scene):
    scene.prepare()
    ledger = scene.daemon.ledger
    before = ledger.read()

    requests = [scene.request(attached=True) for _ in range(3)]
    for number in range(2):
        scene.ask(number)
    scene.clients[0].settle()
    ledger.expect_more(before, requests=3, connections=3, held_calls=2)

    for request in requests:
        scene.clients[0].disconnect(request.connection)
    scene.clients[0].settle()
    ledger.expect_more(before)


@counted
def test_ledger_counts_a_running_exchange(scene):
    scene.prepare()
    ledger = scene.daemon.ledger
    before = ledger.read()
    scene.set_up(**SENT.set_up())
    SENT.reach(scene)
    ledger.expect_more(before, requests=1, connections=1, exchanges=1)
    SENT.let_go(scene)
    scene.fetch()
    observe.wait_until_idle(scene.daemon.pid)
    ledger.expect_more(before, connections=1)


@pytest.mark.usefixtures("attached_requests_wait")
@pytest.mark.parametrize(
    "leave, seen",
    [
        pytest.param(leave_behind, "is still there", id="of-a-client"),
        pytest.param(leave_behind_in_secret, "'requests': 1", marks=counted, id="in-secret"),
    ],
)
def test_row_that_leaves_a_request_behind_fails(leave, seen, scene):
    def leak(scene):
        leave(scene)
        one_request(scene)

    with pytest.raises(AssertionError, match=seen):
        Fault("leak", act=leak, sees=[Answered()]).play(scene)


@pytest.mark.parametrize(
    "seen",
    [
        pytest.param([], id="nothing"),
        pytest.param([Failed(TRANSPORT, curl.RECV_ERROR)], id="another-code"),
        pytest.param([Failed(PROTOCOL, curl.text_of(curl.RECV_ERROR))], id="another-text"),
        pytest.param([Failed(PROTOCOL, "missing MIME parts", of=[])], id="another-request"),
    ],
)
def test_row_that_sees_something_else_fails(scene, seen):
    with pytest.raises(AssertionError):
        Fault("refused", server=REFUSED, sees=seen).play(scene)


def test_row_whose_held_call_is_answered_unexpectedly_fails(scene):
    with pytest.raises(AssertionError, match="was answered"):
        Fault("answered", sees=[Over()]).play(scene)


def test_daemon_that_failed_a_row_does_not_serve_the_next_one(scene):
    pid = scene.daemon.pid
    scene.prepare()
    scene.close()
    assert scene.daemon.pid != pid
    scene.daemon.guard()


def test_end_that_is_wanted_fails_no_wait(scene):
    scene.daemon.guard()
    scene.daemon.guard()
    scene.daemon.expect_end()
    assert not waiting.guards


def test_script_of_a_failed_row_does_not_wait_on(scene):
    scene.prepare()
    scene.server.queue({"on": [{"at": "accept", "do": "wait", "event": "never"}]})
    number = scene.server.last + 1
    scene.request()
    scene.server.wait(number, "accept")
    scene.close()
    assert scene.server.wait(number)["outcome"] is not None


def test_row_may_end_the_daemon(scene):
    def stop(scene):
        scene.client().quit()

    pid = scene.daemon.pid
    Fault("quit", act=stop, ends=0).play(scene)
    assert scene.daemon.pid != pid
