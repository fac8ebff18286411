"""The matrix itself: a row that leaves something behind, or sees something else, fails."""

import pytest
from gi.repository import GLib

from harness import curl, matrix, waiting
from harness.fault import PROTOCOL, TRANSPORT, Answered, Failed, Fault, Over, one_request

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

REFUSED = {"answer": {"status": 404, "multipart": {"parts": []}}}


def held_call(scene):
    """A call for a request that waits, which the scene knows nothing of; its ids."""
    client = scene.client()
    connection = client.connect(kind="other")
    request = client.attach(connection, 2)
    client.call_later("getData", GLib.Variant("u", connection), GLib.Variant("u", request))
    client.settle()
    return connection, request


def test_ledger_counts_each_request_and_each_held_call(platform, scene):
    platform.write(connections=[(2, True, False)])  # attached requests wait
    scene.client().wait_for_status(1)
    scene.prepare()
    before = scene.holdings()

    ids = [held_call(scene) for _ in range(3)]
    after = scene.holdings()
    assert after["requests"] == before["requests"] + 3
    assert after["held calls"] == before["held calls"] + 3

    for connection, _ in ids:
        scene.clients[0].disconnect(connection)
    scene.clients[0].settle()
    assert scene.holdings() == before


def test_row_that_leaves_a_request_behind_fails(platform, scene):
    platform.write(connections=[(2, True, False)])
    scene.client().wait_for_status(1)
    scene.settle_seconds = 0.2

    def leak(scene):
        held_call(scene)
        one_request(scene)

    row = Fault("leak", act=leak, sees=[Answered()])
    with pytest.raises(AssertionError, match="waited|oid"):
        row.play(scene)


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
