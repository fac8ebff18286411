"""The example clients that speak raw D-Bus, against the real daemon: both do the same, word for word."""

import hashlib
import os
import signal
import xml.etree.ElementTree as ElementTree

import pytest

from harness.client import BusError
from harness.process import Process
from harness.settings import BUILD_DIR, EXAMPLES
from harness.waiting import wait_for

PROGRAMS = {
    "cpp": BUILD_DIR / "bin" / "orvexd-example-client",
    "python": EXAMPLES / "raw" / "python" / "client.py",
}
FINGERPRINT = EXAMPLES / "fingerprint.xml"
HELD_ANSWER = {"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]}
NO_SUCH_CONNECTION = 1001

pytestmark = pytest.mark.usefixtures("daemon")


@pytest.fixture(params=PROGRAMS)
def start(request, bus, tmp_path, reported):
    """Starts one of the examples with these words."""
    runs = []

    def run(*words):
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address, "LC_ALL": "C.UTF-8"}
        words = [PROGRAMS[request.param], *words]
        runs.append(Process(words, tmp_path, f"example{len(runs)}", environment))
        return reported("example", runs[-1])

    yield run
    for each in runs:
        each.release()


def is_closed(client, connection):
    """Whether the daemon has forgotten a connection."""
    with pytest.raises(BusError) as error:
        # Positioning is asked about first, so this is for tests that permit it.
        client.attach(connection)
    return error.value.code == NO_SUCH_CONNECTION


def expect_failure(run, client, *words):
    """It ends with status 1, says why, prints nothing else, and leaves nothing with the daemon."""
    assert run.wait(30) == 1, run.report()
    for word in words:
        assert word in run.stderr, run.report()
    assert run.stderr.count("\n") == 1 and run.stdout == "", run.report()
    assert is_closed(client, 1)


def test_an_example_prints_the_answer_to_its_file(start):
    run = start(FINGERPRINT)
    assert run.wait(30) == 0, run.report()
    found = ElementTree.fromstring(run.stdout).find("question").attrib
    assert found["sha256"] == hashlib.sha256(FINGERPRINT.read_bytes()).hexdigest()
    assert run.stderr == ""


@pytest.mark.parametrize("size", [0, 65535, 65536, 65537, 1_000_000])
def test_an_example_sends_a_file_of_any_size_whole(start, tmp_path, size):
    question = tmp_path / "question"
    question.write_bytes(bytes(number % 251 for number in range(size)))
    run = start(question)
    assert run.wait(30) == 0, run.report()
    found = ElementTree.fromstring(run.stdout).find("question").attrib
    assert int(found["bytes"]) == size
    assert found["sha256"] == hashlib.sha256(question.read_bytes()).hexdigest()


def test_an_example_prints_every_part_of_the_answer_in_order(start, server):
    first = "first " * 40000  # several chunks
    server.default(
        {
            "answer": {
                "multipart": {
                    "results": [{"oid": "1", "href": "cid:a"}],
                    "parts": [
                        {"id": "a", "headers": [["X-SLP-Next-part-ID", "b"]], "body": first},
                        {"id": "b", "body": "second"},
                    ],
                }
            }
        }
    )
    run = start(FINGERPRINT)
    assert run.wait(30) == 0, run.report()
    assert run.stdout == first + "second"


def test_an_example_leaves_no_connection_behind(start, client):
    assert start(FINGERPRINT).wait(30) == 0
    assert is_closed(client, 1)


def test_an_example_minds_its_own_request_only(start, client):
    connection = client.connect()
    first = client.prepare(connection)
    client.wait_for_request_data(connection, first)
    run = start(FINGERPRINT)
    # No data are wanted yet, so this tells nothing but whether there is such a request.
    wait_for(lambda: run.status is not None or client.sendData(2, 2, b"") == 57, 10, "its request")
    last = client.prepare(connection)
    assert client.sendData(connection, first, b"first") == 0
    client.fetch(connection, first)
    # Both travel together: the daemon asks the example first, then this client.
    client.wait_for_request_data(connection, last)
    assert run.status is None, run.report()
    assert client.sendData(connection, last, b"last") == 0
    client.fetch(connection, last)
    assert run.wait(30) == 0, run.report()


def test_an_example_reports_a_failure_of_the_server(start, server, client):
    server.default({"answer": {"status": 500, "body": "broken", "content_type": "text/plain"}})
    expect_failure(start(FINGERPRINT), client, "code 2001")


def test_an_example_reports_that_there_is_no_network(start, platform, client):
    platform.write(connections=[])
    client.wait_for_status(0)
    expect_failure(start(FINGERPRINT), client, "code 2204", "Connection error")


def test_an_example_reports_a_refused_request(start, platform, client):
    platform.write(connections=[(2, True, True)])
    client.wait_for_status(5)
    expect_failure(start(FINGERPRINT), client, "prepare", "(2204)")


def test_an_example_reports_that_the_daemon_went_away(start, server, daemon):
    server.default(HELD_ANSWER)
    run = start(FINGERPRINT)
    server.wait(1, "upload-end")
    daemon.expect_end()
    daemon.process.send_signal(signal.SIGKILL)
    assert run.wait(10) == 1, run.report()
    assert "getData: " in run.stderr, run.report()
    daemon.abandon()
    daemon.process = None


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_an_interrupted_example_closes_its_connection(start, server, client, number):
    server.default(HELD_ANSWER)
    run = start(FINGERPRINT)
    server.wait(1, "upload-end")
    run.send_signal(number)
    expect_failure(run, client, "Interrupted")
    server.give("answer")


def test_an_example_reports_a_file_that_is_not_there(start, tmp_path, client):
    expect_failure(start(tmp_path / "nothing"), client, "nothing")


def test_an_example_wants_one_word(start):
    run = start()
    assert run.wait(10) == 2
    assert run.stderr.startswith("usage: ")
