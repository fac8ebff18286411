"""Each exit status that the manual lists is reached by a fault that can happen; and there are no others."""

import os
import re
import signal
import subprocess
import time

import pytest

from harness import orvexctl, shared
from harness.daemon import Daemon, NameWatch
from harness.observe import poll_for, wait_until_idle
from harness.orvexctl import ECHO, wait_for_output
from harness.private_bus import PERMISSIVE_POLICY
from harness.request import Request
from harness.settings import BUS_NAME, ROOT
from harness.stand_in import StandIn
from harness.waiting import wait_for

bus, server, platform, preinst, shared_daemon, fresh = shared.FIXTURES
start_fixture = orvexctl.FIXTURE

MANUAL = ROOT / "docs" / "man" / "orvexctl.1"
HELD_ANSWER = {"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]}
REACHED = set()


def reaches(*statuses):
    """The test gets each of them, and has a fault that leads to it."""
    REACHED.update(statuses)
    return pytest.mark.parametrize("status", statuses)


def test_manual_lists_the_statuses_that_are_reached():
    text = MANUAL.read_text("utf-8").split(".Sh EXIT STATUS")[1].split(".Sh ")[0]
    listed = re.findall(r"^\.It (.*)$", text, re.MULTILINE)
    assert {int(number) for line in listed for number in line.split(" , ")} == REACHED


@pytest.fixture(name="held")
def fixture_held(start, server):
    """A request whose answer is held back."""
    before = server.last
    server.queue(HELD_ANSWER)
    run = start("request", *ECHO, "--verbose")
    server.wait(before + 1, "upload-end")
    yield run
    server.give("answer")


@pytest.fixture(name="asked")
def fixture_asked(start):
    """A request whose input the daemon asks for."""
    run = start("request", *ECHO, "--verbose", stdin=subprocess.PIPE)
    wait_for_output(lambda: "asks for the input" in run.stderr, "the question for the input", run)
    yield run
    run.child.stdin.close()


def ids_of(run):
    """Connection and request, as --verbose tells them."""
    wait_for_output(lambda: "as request " in run.stderr, "the ids", run)
    return tuple(map(int, re.search(r"as request (\d+):(\d+)", run.stderr).groups()))


@reaches(0)
def test_answered_request(status, start):
    assert start("request", *ECHO).wait() == status


@reaches(1)
def test_input_that_is_not_there(status, start, tmp_path):
    assert start("request", *ECHO, "--input", tmp_path / "missing").wait() == status


@reaches(2)
def test_wrong_command_line(status, start):
    assert start("request", "--unknown").wait() == status


@reaches(3)
def test_bus_without_a_daemon(status, start, make_bus):
    assert start("request", *ECHO, address=make_bus().address).wait() == status


@pytest.fixture(name="daemon_on")
def fixture_daemon_on(platform, preinst, tmp_path):
    """Starts a daemon on a bus on which it may be that nobody can call it."""
    daemons = []

    def begin(bus):
        watch = NameWatch(bus.address)
        daemons.append(Daemon(tmp_path, bus, platform.path, preinst).launch())
        wait_for(lambda: watch.owner, 20, "the daemon's name")
        watch.close()

    yield begin
    for each in daemons:
        each.abandon()


@reaches(4)
def test_bus_that_lets_nobody_in(status, start, make_bus, daemon_on):
    rule = f'<policy context="default"><deny send_destination="{BUS_NAME}"/></policy>'
    closed = make_bus(policy=PERMISSIVE_POLICY + rule)
    daemon_on(closed)
    assert start("request", *ECHO, address=closed.address).wait() == status


@reaches(5)
def test_silent_server(status, start, server):
    server.queue(HELD_ANSWER)
    assert start("request", *ECHO, "--timeout", "1").wait() == status
    server.give("answer")


@reaches(6)
def test_bus_that_allows_no_further_call(status, start, make_bus, daemon_on):
    full = make_bus(limits={"max_replies_per_connection": 0})
    daemon_on(full)
    assert start("quit", address=full.address).wait() == status


@reaches(7)
def test_request_that_another_client_cancels(status, held, client):
    client.cancel(*ids_of(held))
    assert held.wait() == status


@reaches(8)
def test_answer_that_breaks_off_in_its_last_piece(status, start, server):
    """Whether that piece goes out before the failure is chance."""
    parts = [{"id": "answer-1", "body": {"bytes": 4000}}]
    server.default({"answer": {"multipart": {"parts": parts}, "stop_after": 2200, "then": "cut"}})
    try:
        poll_for(lambda: start("request", *ECHO, "--output", os.devnull).wait() == status, 20, "such an end")
    finally:
        server.default({})


@reaches(20)
def test_answer_that_a_later_failure_sweeps_away(status, start, server, client, daemon):
    """Its exchange has ended well, but it has not been fetched, and the failure does not name it."""
    before = server.last
    body = {"multipart": {"parts": [{"id": "answer-1", "body": {"bytes": 8 << 20}}]}}
    server.queue({**HELD_ANSWER, "answer": body}, {"on": [{"at": "upload-end", "do": "reset"}]})
    run = start("request", *ECHO)
    server.wait(before + 1, "upload-end")
    os.kill(run.child.pid, signal.SIGSTOP)
    server.give("answer")
    wait_until_idle(daemon.pid, 20)
    Request(client, kind="other").give(b"question").wait_for_failure()
    os.kill(run.child.pid, signal.SIGCONT)
    assert run.wait() == status


@reaches(25)
def test_input_slower_than_the_daemons_patience(status, asked):
    asked.child.stdin.write(b"begin")
    asked.child.stdin.flush()
    time.sleep(6)  # the daemon's five seconds are what this is about
    asked.child.stdin.write(b"end")
    asked.child.stdin.close()
    # Also when the server has answered the torso by then.
    assert asked.wait() == status, asked.report()


@reaches(26)
def test_connection_that_another_client_closes(status, asked, client):
    client.disconnect(ids_of(asked)[0])
    asked.child.stdin.write(b"late")
    asked.child.stdin.flush()
    assert asked.wait() == status


@reaches(28)
def test_server_that_has_no_answer(status, start, server):
    server.queue({"answer": {"status": 404, "content_type": "text/html", "body": "<html>"}})
    assert start("request", *ECHO).wait() == status


@reaches(64)
def test_wrong_command_line_of_doctor(status, start):
    assert start("doctor", "--unknown").wait() == status


@reaches(74)
def test_findings_that_cannot_be_written(status, daemon):
    with open("/dev/full", "wb") as full:
        command = [orvexctl.ORVEXCTL, "doctor", "--local"]
        done = subprocess.run(command, env=daemon.environment, stdout=full, stderr=subprocess.PIPE, check=False)
    assert done.returncode == status


@reaches(29, 32)
def test_daemon_of_another_version(status, start, make_bus):
    """The stand-in is one: it does not know the call, or has codes that nobody knows."""
    other = make_bus()
    stand_in = StandIn(other.address)
    stand_in.answers["connect"] = {29: 2002, 32: 999}[status]
    assert start("request", *ECHO, address=other.address).wait() == status
    stand_in.close()


@reaches(30)
def test_device_without_a_network(status, start, platform, client):
    platform.write(connections=[])
    client.wait_for_status(0)
    assert start("request", *ECHO).wait() == status


@reaches(31)
def test_device_that_must_not_be_located(status, start, platform):
    platform.write(positioning=False)
    try:
        assert start("request", *ECHO).wait() == status
    finally:
        platform.write(positioning=True)


@reaches(129, 130, 143)
def test_signal(status, held):
    held.child.send_signal(status - 128)
    assert held.wait() == status
