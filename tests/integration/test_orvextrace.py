"""orvextrace looks on while the release daemon works, through the probes of the program."""

import re
import shutil
import signal
import subprocess
import sys
import threading
import time

import pytest
from gi.repository import GLib

from harness import sandbox
from harness.request import Request
from harness.settings import BUILD_DIR, DAEMON, ROOT, is_sanitized, patience
from harness.waiting import wait_for

ORVEXTRACE = ROOT / "tools" / "orvextrace" / "orvextrace"
QUESTION = b"where am I?"
NOT_FOUND = {
    "answer": {"status": 404, "content_type": "text/html", "body": "<html>no such page</html>"}
}



def can_trace():
    """Whether bpftrace is here and the kernel lets it look on."""
    if shutil.which("bpftrace") is None:
        return False
    look = ["bpftrace", "-e", "BEGIN { exit(); }"]
    return subprocess.run(look, capture_output=True, check=False).returncode == 0


pytestmark = [
    pytest.mark.skipif(is_sanitized(), reason="about the daemon, not a sanitizer"),
    pytest.mark.skipif(not is_sanitized() and not can_trace(), reason="nothing can be traced here"),
]


class Trace:
    """One run of orvextrace; `lines` has what it has printed so far."""

    def __init__(self, *words):
        self.lines = []
        self._process = subprocess.Popen(
            [sys.executable, ORVEXTRACE, *map(str, words)], stdout=subprocess.PIPE, text=True
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.wait_for("Looking on")

    def _read(self):
        for line in self._process.stdout:
            self.lines.append(line.rstrip("\n"))
            GLib.MainContext.default().wakeup()

    def wait_for(self, text):
        """Waits for a line that holds this text."""
        wait_for(lambda: any(text in line for line in self.lines), 20, f"“{text}” of orvextrace")
        return self

    def end(self):
        """Ctrl-C; all that it has printed."""
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGINT)
        assert self._process.wait(patience(20)) == 0
        self._reader.join()
        return "\n".join(self.lines)


@pytest.fixture(name="trace")
def make_trace():
    """Starts orvextrace; nothing of it is left."""
    traces = []

    def make(*words):
        traces.append(Trace(*words))
        return traces[-1]

    yield make
    for each in traces:
        each.end()


def expect_in_order(text, *patterns):
    """The patterns are found one behind the other."""
    at = 0
    for pattern in patterns:
        found = re.search(pattern, text[at:])
        assert found, f"“{pattern}” is not behind what came before in\n{text}"
        at += found.end()


def stations(text):
    """The lines of a time line, but for its numbers, from the request to the errorSignal."""
    lines = re.findall(r"^ *[\d.]+ ms {2}(.*?) *$", text, re.MULTILINE)
    lines = [re.sub(r"[\d.]+", "N", line) for line in lines]
    begin = next(i for i, line in enumerate(lines) if "made by" in line)
    return lines[begin : next(i for i, line in enumerate(lines) if "errorSignal" in line) + 1]


def test_time_line_has_the_stations_of_an_exchange_in_their_order(trace, daemon, client):
    look = trace("exchange", "--pid", daemon.pid)
    client.exchange(QUESTION)
    text = look.wait_for("the exchange has succeeded").end()
    expect_in_order(
        text,
        r"1:1 +made by :\d+\.\d+ \(uid 0\), prepared, policy 2",
        r"1:1 +Created → Queued",
        r"an exchange of 1 request begins",
        r"TLS stands, the server's certificate is good",
        r"1:1 +Queued → Sending",
        r"1:1 +Sending → Sent",
        r"response head: HTTP/1.1 200 OK",
        r"the SLP document begins",
        r"the SLP document is over",
        r"1:1 +a part of the answer begins",
        r"1:1 +a part of the answer is over",
        r"ends of the phases in ms: name [\d.]+, connection [\d.]+, TLS [\d.]+, upload [\d.]+, first byte",
        r"libcurl code 0, HTTP status 200, \d+ bytes up, \d+ down",
        r"the exchange has succeeded",
    )
    assert re.search(r"1:1 +chunk of \d+ bytes delivered, 2303", text)


def test_time_line_tells_what_the_server_said_where_the_daemon_cannot(trace, daemon, client, server):
    server.queue(NOT_FOUND)
    look = trace("exchange", "--pid", daemon.pid)
    request = Request(client, kind="other").give(QUESTION)
    assert request.wait_for_failure() == (2001, "missing MIME parts")
    text = look.wait_for("errorSignal 2001: missing MIME parts").end()
    expect_in_order(text, "response head: HTTP/1.1 404 Not Found", "Content-Type: text/html")
    expect_in_order(text, "fault 1003: 'start' attribute not found", "fault 1003: missing MIME parts")
    assert stations(text) == stations((ROOT / "docs" / "tracing.md").read_text("utf-8"))


def test_text_of_the_server_makes_no_line_of_its_own(trace, daemon, client, server):
    forged = "the exchange is forged"
    server.queue({"answer": {"status": 404, "content_type": f"text/html\\x0a{forged}", "body": "<html>"}})
    look = trace("exchange", "--pid", daemon.pid)
    assert Request(client, kind="other").give(QUESTION).wait_for_failure() == (2001, "missing MIME parts")
    text = look.wait_for("errorSignal 2001: missing MIME parts").end()
    assert f"Content-Type: text/html\\x0a{forged}" in text
    assert not re.search(rf"^ *{forged}", text, re.MULTILINE)


def test_time_line_tells_what_is_wrong_with_the_servers_certificate(trace, daemon, client, server):
    server.queue({"certificate": "expired"})
    look = trace("exchange", "--pid", daemon.pid)
    Request(client, kind="other").wait_for_failure()
    text = look.wait_for("the exchange has failed with code 43").end()
    assert "the server's certificate is refused: 10, expired" in text
    assert "libcurl code 60, no HTTP status" in text


def test_time_line_tells_for_whom_the_upload_waits_while_it_waits(trace, daemon, client):
    look = trace("exchange", "--pid", daemon.pid)
    request = Request(client, kind="fingerprint").wait_until_asked()
    look.wait_for("1:1     the upload waits for the client's data, at most 90.0 s")
    assert request.send(b"<fingerprint/>") == 0
    look.wait_for("data has come after")


def test_refused_call_is_told_with_its_code(trace, daemon, client, platform):
    platform.write(connections=[(2, True, True)])
    wait_for(lambda: client.status() == 5, 10, "the status of a restricted connection")
    look = trace("exchange", "--pid", daemon.pid)
    connection = client.connect()
    with pytest.raises(Exception, match="2204"):
        client.prepare(connection, 2)
    look.wait_for("prepare is answered with the error 2204")


def test_confined_daemon_is_traced_by_its_id(trace, make_daemon, client_of):
    daemon = make_daemon()
    confined = [sys.executable, sandbox.__file__, "--filter-system-calls", DAEMON]
    daemon.program = ["unshare", "--mount", *confined]
    client = client_of(daemon.start())
    look = trace("exchange", "--pid", daemon.pid)
    client.exchange(QUESTION)
    look.wait_for("the exchange has succeeded")


def test_histograms_count_each_phase_of_each_exchange(trace, make_daemon, client_of, tmp_path):
    # A program of its own: other tests run daemons, too.
    program = shutil.copy(DAEMON, tmp_path / "program")
    daemon = make_daemon()
    daemon.program = [program]
    daemon.environment["LD_LIBRARY_PATH"] = str(BUILD_DIR / "lib")
    client = client_of(daemon.start())
    look = trace("phases", "--program", program)
    for _ in range(3):
        client.exchange(QUESTION)
    text = look.end()
    assert "@exchanges: 3\n" in text
    for phase in ("look_up", "connect", "tls", "upload", "first_byte", "answer", "whole"):
        rows = re.search(rf"^@{phase}: \n((?:\[.*\n?)+)", text, re.MULTILINE)
        assert sum(map(int, re.findall(r"\) +(\d+) \|", rows[1]))) == 3, phase


def test_client_that_makes_others_wait_is_named(trace, daemon, make_client):
    look = trace("clients", "--pid", daemon.pid)
    quick, slow = make_client(), make_client()
    quick.exchange(QUESTION)
    request = Request(slow, kind="other").wait_until_asked()
    time.sleep(0.3)  # that is what makes it slow
    assert request.send(QUESTION) == 0
    request.fetch()
    text = look.end()
    assert f"@client[{request.connection}, {request.id}]: {slow.bus.get_unique_name()}\n" in text
    waited = dict(re.findall(r"@upload_waited\[(\d+, \d+)\]: (\d+)", text))
    assert int(waited[f"{request.connection}, {request.id}"]) >= 300
    # Whoever sends in time need not be waited for.
    assert int(waited.get("1, 1", 0)) < int(waited[f"{request.connection}, {request.id}"])


def test_process_that_is_not_there_is_told():
    done = subprocess.run(
        [sys.executable, ORVEXTRACE, "phases", "--pid", str(2**22 + 1)],
        capture_output=True,
        text=True,
        check=False,
    )
    assert (done.returncode, done.stderr) == (2, f"orvextrace: there is no process {2**22 + 1}\n")
