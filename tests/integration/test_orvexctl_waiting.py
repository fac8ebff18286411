"""orvexctl --timeout: it says what was waited for in vain. And --verbose, which says so all the time."""

import os
import re
import signal
import socket
import subprocess

import pytest

from harness import orvexctl
from harness.orvexctl import ECHO, wait_for_output
from harness.settings import EXAMPLES, patience

start_fixture = orvexctl.FIXTURE

pytestmark = pytest.mark.waits

TIMED_OUT = 5
SHORT = str(round(patience(1)))  # longer than any step that goes on
COMMANDS = pytest.mark.parametrize(
    "words", [["status"], ["request", *ECHO], ["cancel", "1", "1"], ["quit"]], ids=lambda words: words[0]
)
FINGERPRINT = [
    *["request", "--element", "fingerprintRequest", "--type", "fingerprint", "--request-version", "1.0"],
    *["--content-type", "application/xml"],
]


def held(point, **more):
    """A server that goes on from there when the test says so."""
    return {"on": [{"at": point, "do": "wait", "event": "on", **more}]}


def expect_overdue(run, what):
    assert run.wait() == TIMED_OUT, run.report()
    assert re.search(f"No progress for {SHORT} seconds?: waited for {what}\\.", run.stderr), run.stderr


@pytest.fixture
def hung(daemon):
    """A daemon that was stopped in the middle of its work."""
    os.kill(daemon.pid, signal.SIGSTOP)
    yield daemon
    os.kill(daemon.pid, signal.SIGCONT)


@COMMANDS
def test_bus_that_says_nothing_is_named(words, start, tmp_path):
    with socket.socket(socket.AF_UNIX) as silent:
        silent.bind(str(tmp_path / "silent"))
        silent.listen()
        run = start(*words, "--timeout", SHORT, address=f"unix:path={tmp_path}/silent")
        expect_overdue(run, "the bus")


@pytest.mark.parametrize(
    "words, what",
    [
        (["status"], "the daemon's answer to a call"),
        (["request", *ECHO], "the daemon's answer to a call"),
        (["cancel", "1", "1"], "the daemon's answer to a call"),
        (["quit"], "the end of the daemon"),
    ],
    ids=["status", "request", "cancel", "quit"],
)
def test_daemon_that_hangs_is_named(words, what, start, hung):
    hung.expect_end()
    expect_overdue(start(*words, "--timeout", SHORT), what)


@pytest.mark.parametrize(
    "connections, status, what",
    [
        ([(2, True, False)], 1, "the exchange of another request"),
        ([(2, True, True)], 5, "a network connection that the request may use"),
        ([], 0, "a network connection that the request may use"),
    ],
    ids=["usable", "restricted", "none"],
)
def test_request_that_travels_with_others_waits_for_them_or_a_network(
    connections, status, what, start, platform, client
):
    platform.write(connections=connections)
    client.wait_for_status(status)
    expect_overdue(start("request", *ECHO, "--attach", "--timeout", SHORT), what)


def test_proxy_that_says_nothing_is_told_from_the_server(start, daemon, server):
    server.queue(held("connect"))
    run = start("request", *ECHO, "--timeout", SHORT)
    expect_overdue(run, "the connection to the server")
    server.give("on")


def test_input_that_does_not_come_is_named(start, daemon):
    run = start(*FINGERPRINT, "--timeout", SHORT, stdin=subprocess.PIPE)
    run.child.stdin.write(b"begin")
    run.child.stdin.flush()
    expect_overdue(run, "the next piece of the input")
    run.child.stdin.close()


def test_server_that_takes_no_more_is_named(start, daemon, server, tmp_path):
    server.queue(held("upload", bytes=1))
    source = tmp_path / "source"
    source.write_bytes(bytes(20_000_000))
    run = start("request", *ECHO, "--timeout", SHORT, "--input", source)
    expect_overdue(run, "the server to take more of the input")
    server.give("on")


def test_answer_that_does_not_come_is_named(start, daemon, server):
    server.queue(held("upload-end"))
    expect_overdue(start("request", *ECHO, "--timeout", SHORT), "the server's answer")
    server.give("on")


def test_answer_that_stops_in_the_middle_is_named(start, daemon, server):
    server.queue(held("part", part=1))
    run = start(*FINGERPRINT, "--timeout", SHORT, "--input", EXAMPLES / "fingerprint.xml")
    expect_overdue(run, "the rest of the answer")
    server.give("on")


def test_zero_means_for_ever(start, daemon, server):
    server.queue(held("upload-end"))
    run = start("request", *ECHO, "--timeout", "0", "--verbose")
    wait_for_output(lambda: "the input is sent" in run.stderr, "the whole input", run)
    server.give("on")
    assert run.wait() == 0, run.report()


def test_verbose_tells_each_step_with_its_time(start, daemon, tmp_path):
    source = tmp_path / "source"
    source.write_bytes(b"0123456789")
    run = start("request", *ECHO, "--verbose", "--input", source)
    assert run.wait() == 0, run.report()
    told = re.findall(r"^orvexctl: +(\d+\.\d) ms  (.*)$", run.stderr, re.MULTILINE)
    assert [step for _, step in told] == [
        "the bus is there, and the daemon: connected, kind 1 (3)",
        "the daemon is asked to take the request",
        "the daemon has taken it as request 1:1",
        "the daemon has reached the server and asks for the input",
        "the input is sent, 10 bytes",
        "the answer begins",
        "the answer is complete, 10 bytes",
        "part 1 is written",
        "the output is in its place",
    ]
    assert len(told) == run.stderr.count("\n")
    times = [float(time) for time, _ in told]
    assert times == sorted(times)


def test_verbose_tells_how_far_a_request_came_that_fails(start, daemon, server):
    server.queue({"answer": {"status": 404, "content_type": "text/html", "body": "<html>"}})
    run = start("request", *ECHO, "--verbose")
    assert run.wait() == 28
    lines = run.stderr.splitlines()
    assert lines[-2].endswith("the request has failed") and "missing MIME parts" in lines[-1]
    assert any("the input is sent" in line for line in lines)
