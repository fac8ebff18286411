"""The command-line client: against the real daemon, and for codes that are rare against a stand-in."""

import json
import os
import pty
import re
import signal
import subprocess
import termios
import time

import pytest
from gi.repository import GLib

from harness import orvexctl
from harness.client import BusError
from harness.observe import poll_for
from harness.orvexctl import ECHO, wait_for_output
from harness.settings import BUS_NAME, EXAMPLES, ROOT, patience
from harness.waiting import wait_for

MANUAL = ROOT / "docs" / "man" / "orvexctl.1"
COMPLETION = ROOT / "tools" / "orvexctl" / "completion" / "orvexctl"
FINGERPRINT = EXAMPLES / "fingerprint.xml"

start_fixture = orvexctl.FIXTURE

COMMANDS = ["status", "request", "monitor", "cancel", "quit", "doctor"]
POSITION = [
    *["--element", "fingerprintRequest", "--type", "fingerprint", "--request-version", "1.0"],
    *["--content-type", "application/xml"],
]
TWO_PARTS = {
    "answer": {
        "multipart": {
            "results": [{"oid": "1", "href": "cid:a"}],
            "parts": [
                {"id": "a", "headers": [["X-SLP-Next-part-ID", "b"]], "body": "first"},
                {"id": "b", "body": "second"},
            ],
        }
    }
}
HELD_ANSWER = {"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]}

def exit_statuses():
    """The list of the manual: the daemon's codes with the status of each."""
    text = MANUAL.read_text("utf-8")
    found = re.findall(r"^\.It (\d+)\n.*\((?:code )?(\d+)\)\.$", text, re.MULTILINE)
    return {int(code): int(status) for status, code in found}


def subscribed(run, client):
    """Waits until a monitor prints signals; what it has printed then are probes."""
    end = time.monotonic() + patience(10)
    while not run.stdout:
        assert time.monotonic() < end, run.report()
        client.cancel(4294967295, 4294967295)
        time.sleep(0.01)


# -- request ---------------------------------------------------------------------------------------


def test_request_writes_the_position_that_answers_the_file(start, daemon, server, tmp_path):
    output = tmp_path / "position.xml"
    run = start("request", *POSITION, "--input", FINGERPRINT, "--output", output)
    assert run.wait() == 0, run.report()
    assert f'bytes="{FINGERPRINT.stat().st_size}"' in output.read_text("utf-8")
    assert run.stdout == b"" and run.stderr == ""
    assert server.wait(1)["findings"] == []


def test_request_streams_a_pipe_of_unknown_length(start, daemon):
    data = os.urandom(3_000_001)
    run = start("request", *ECHO, stdin=subprocess.PIPE)
    run.child.stdin.write(data)
    run.child.stdin.close()
    assert run.wait() == 0, run.report()
    assert run.stdout == data


def test_empty_input_is_a_request(start, daemon):
    run = start("request", *ECHO)
    assert run.wait() == 0, run.report()
    assert run.stdout == b""


def test_option_texts_travel_as_their_exact_bytes(start, daemon, server):
    options = ["--element", "echo", "--type", "other", "--request-version", "1 & 2"]
    run = start("request", *options, "--content-type", "text/x-odd; a=b", "--encoding", "8bit")
    assert run.wait() == 0, run.report()
    record = server.wait(1)
    assert record["slp"]["requests"][0]["version"] == "1 & 2"
    headers = dict(record["parts"][1]["headers"])
    assert headers["Content-Type"] == "text/x-odd; a=b"
    assert headers["Content-Transfer-Encoding"] == "8bit"


def test_memory_does_not_grow_with_the_input(start, daemon, tmp_path):
    def peak(size):
        source, answer = tmp_path / "source", tmp_path / "answer"
        source.write_bytes(os.urandom(size))
        run = start("request", *ECHO, "--input", source, "--output", answer, measured=True)
        assert run.wait(60) == 0, run.report()
        assert answer.read_bytes() == source.read_bytes()
        return int(run.stdout)

    mebibyte = 1 << 20
    assert peak(40 * mebibyte) - peak(1) < 16 * 1024


def test_parts_go_in_order_into_one_output(start, daemon, server):
    server.queue(TWO_PARTS)
    run = start("request", *ECHO)
    assert run.wait() == 0, run.report()
    assert run.stdout == b"firstsecond"


def test_parts_go_into_files_of_their_own(start, daemon, server, tmp_path):
    server.queue(TWO_PARTS)
    run = start("request", *ECHO, "--output-pattern", tmp_path / "part-%d.txt")
    assert run.wait() == 0, run.report()
    assert (tmp_path / "part-1.txt").read_text() == "first"
    assert (tmp_path / "part-2.txt").read_text() == "second"
    assert run.stdout == b""


@pytest.mark.parametrize("size", [1, 999, 100_000])
def test_chunk_size_does_not_change_the_answer(size, start, daemon):
    run = start("request", *ECHO, "--chunk-size", size, stdin=subprocess.PIPE)
    run.child.stdin.write(b"0123456789" * 100)
    run.child.stdin.close()
    assert run.wait() == 0, run.report()
    assert run.stdout == b"0123456789" * 100


def test_attached_request_travels_with_a_prepared_one(start, platform, client, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    run = start("request", *ECHO, "--attach", stdin=subprocess.PIPE)
    run.child.stdin.write(b"along")
    run.child.stdin.close()
    # Nobody was asked for data yet, so this changes nothing but tells when the request is there.
    wait_for_output(lambda: client.sendData(1, 1, b"") == 57, "the attached request", run)

    client.exchange(FINGERPRINT.read_bytes())

    assert run.wait() == 0, run.report()
    assert run.stdout == b"along"
    assert len(server.exchanges()) == 1


def test_early_answer_does_not_cut_the_input_short(start, stand_in):
    sent = []

    def send(invocation):
        sent.append(invocation.get_parameters().get_child_value(0).n_children())
        invocation.return_value(GLib.Variant("(i)", (0,)))

    fetches = []
    stand_in.answers["sendData"] = send
    stand_in.answers["getData"] = fetches.append
    run = start("request", *ECHO, stdin=subprocess.PIPE)
    wait_for(lambda: fetches, 10, "the request")
    stand_in.emit("requestData", GLib.Variant("(uu)", (7, 9)))
    run.child.stdin.write(b"begin")
    run.child.stdin.flush()
    wait_for(lambda: sent, 10, "the first bytes")
    fetches[0].return_value(GLib.Variant("(ayu)", (b"answer", 2303)))
    wait_for_output(lambda: run.stdout == b"answer", "the answer", run)
    run.child.stdin.write(b"end")
    run.child.stdin.close()
    assert run.wait() == 0, run.report()
    assert sum(sent) == len("beginend")


def test_request_closes_its_connection(start, daemon, client):
    assert start("request", *ECHO).wait() == 0
    assert client.sendData(1, 1, b"") == 1001


# -- what goes wrong -------------------------------------------------------------------------------


def test_network_that_the_policy_forbids_is_explained(start, platform, make_daemon):
    platform.write(connections=[(2, True, True)])
    make_daemon().start()
    run = start("request", *ECHO, "--policy", "2")
    assert run.wait() == 30
    assert "--policy" in run.stderr


def test_missing_network_is_explained_with_the_daemons_words(start, platform, make_daemon):
    platform.write(connections=[])
    make_daemon().start()
    run = start("request", *ECHO)
    assert run.wait() == 30
    assert '"Connection error"' in run.stderr


def test_forbidden_positioning_is_explained(start, platform, make_daemon):
    platform.write(positioning=False)
    make_daemon().start()
    run = start("request", *ECHO)
    assert run.wait() == 31
    assert "location settings" in run.stderr


def test_unusable_answer_of_the_server_is_explained(start, daemon, server):
    multipart = {"results": [{"oid": "1", "href": "cid:nowhere"}], "parts": []}
    server.queue({"answer": {"multipart": multipart}})
    run = start("request", *ECHO)
    assert run.wait() == 28
    assert '"missing MIME parts"' in run.stderr


def test_failure_in_the_middle_of_a_long_upload_is_explained(start, daemon, server, tmp_path):
    server.queue({"on": [{"at": "upload", "bytes": 100_000, "do": "reset"}]})
    source = tmp_path / "source"
    source.write_bytes(bytes(30_000_000))
    run = start("request", *ECHO, "--input", source)
    assert run.wait() == 30, run.report()


def test_answer_that_breaks_off_has_a_status_of_its_own(start, stand_in):
    fetches = []
    stand_in.answers["getData"] = fetches.append
    run = start("request", *ECHO)
    wait_for(lambda: fetches, 10, "the request")
    stand_in.emit("requestData", GLib.Variant("(uu)", (7, 9)))
    fetches.pop().return_value(GLib.Variant("(ayu)", (b"begin", 2301)))
    wait_for(lambda: fetches, 10, "the next call")
    fetches.pop().return_value(GLib.Variant("(ayu)", (b"", 2303)))
    stand_in.emit("errorSignal", GLib.Variant("(uss)", (2204, "Transferred a partial file", "")))
    assert run.wait() == 8
    assert run.stdout == b"begin"
    assert '"Transferred a partial file"' in run.stderr


def test_vanishing_daemon_ends_the_request_at_once(start, daemon, server):
    server.queue(HELD_ANSWER)
    run = start("request", *ECHO)
    server.wait(1, "upload-end")
    daemon.send_signal(signal.SIGKILL)
    assert run.wait(5) == 3
    assert "left the bus" in run.stderr
    daemon.wait()


def test_vanishing_bus_ends_the_request_at_once(start, stand_in, bus):
    run = start("request", *ECHO)
    wait_for(lambda: "prepare" in [name for name, _ in stand_in.called], 10, "the request")
    bus.stop()
    assert run.wait(5) == 3


def test_cancelling_by_somebody_else_ends_the_request(start, daemon, server, client):
    server.queue(HELD_ANSWER)
    run = start("request", *ECHO)
    server.wait(1, "upload-end")
    cancel = start("cancel", "1", "1")
    assert cancel.wait() == 0, cancel.report()
    assert run.wait() == 7
    server.give("answer")


@pytest.mark.parametrize("number, status", [("INT", 130), ("TERM", 143), ("HUP", 129)])
def test_signal_cancels_and_disconnects_before_it_ends(number, status, start, stand_in):
    cancelled = []
    stand_in.bus.signal_subscribe(
        None, BUS_NAME, "cancel", None, None, 0, lambda *signal: cancelled.append(signal[5].unpack())
    )
    run = start("request", *ECHO)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    run.child.send_signal(getattr(signal, f"SIG{number}"))
    assert run.wait() == status
    assert cancelled == [(7, 9)]
    assert stand_in.called[-1] == ("disconnect", (7,))


def test_signal_before_the_request_has_its_id_waits_for_the_id(start, stand_in):
    held = []
    stand_in.answers["prepare"] = held.append
    run = start("request", *ECHO)
    wait_for(lambda: held, 10, "prepare")
    run.interrupt()
    held[0].return_value(GLib.Variant("(u)", (9,)))
    assert run.wait() == 130
    assert stand_in.called[-1] == ("disconnect", (7,))


def test_interrupted_upload_is_closed_so_that_nobody_waits_for_it(start, stand_in):
    run = start("request", *ECHO, stdin=subprocess.PIPE)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    stand_in.emit("requestData", GLib.Variant("(uu)", (7, 9)))
    run.child.stdin.write(b"begin")
    run.child.stdin.flush()
    wait_for(lambda: "sendData" in [name for name, _ in stand_in.called], 10, "the first bytes")
    run.interrupt()
    assert run.wait() == 130
    assert [name for name, _ in stand_in.called[-2:]] == ["sendData", "disconnect"]
    run.child.stdin.close()


def test_signals_before_the_reply_that_names_the_request_count(start, stand_in):
    def prepare(invocation):
        error = GLib.Variant("(uss)", (2204, "Connection error", "7:8 7:9"))
        stand_in.emit("errorSignal", error)
        invocation.return_value(GLib.Variant("(u)", (9,)))

    stand_in.answers["prepare"] = prepare
    run = start("request", *ECHO)
    assert run.wait() == 30


def test_errors_of_other_requests_do_not_matter(start, stand_in):
    run = start("request", *ECHO)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    stand_in.emit("errorSignal", GLib.Variant("(uss)", (2001, "", "7:99 17:9 7:91")))
    stand_in.emit("errorSignal", GLib.Variant("(uss)", (2204, "mine", "7:1 7:9")))
    assert run.wait() == 30
    assert '"mine"' in run.stderr


def test_at_most_one_fetch_and_one_piece_of_bounded_size_are_under_way(start, stand_in, tmp_path):
    sizes, fetches, most = [], [], []

    def send(invocation):
        sizes.append(invocation.get_parameters().get_child_value(0).n_children())
        last = invocation.get_parameters().get_child_value(1).get_boolean()
        most.append(len(fetches))
        invocation.return_value(GLib.Variant("(i)", (0,)))
        if last:
            fetches.pop().return_value(GLib.Variant("(ayu)", (b"answer", 2303)))

    stand_in.answers["sendData"] = send
    stand_in.answers["getData"] = fetches.append
    source = tmp_path / "source"
    source.write_bytes(bytes(300_000))
    run = start("request", *ECHO, "--input", source)
    wait_for(lambda: fetches, 10, "the first fetch")
    stand_in.emit("requestData", GLib.Variant("(uu)", (7, 9)))
    assert run.wait() == 0, run.report()
    assert run.stdout == b"answer"
    assert sum(sizes) == 300_000 and max(sizes) <= 65536
    assert set(most) == {1} and not fetches


@pytest.mark.parametrize("code", sorted(exit_statuses()))
def test_every_code_has_a_sentence_and_the_status_of_the_manual(code, start, stand_in):
    stand_in.answers["connect"] = code
    run = start("request", *ECHO)
    assert run.wait() == exit_statuses()[code]
    assert f"(code {code})" in run.stderr
    assert len(run.stderr.split()) > 10


@pytest.mark.parametrize("code", [41, 57, 1001])
def test_refused_data_ends_the_request_with_its_code(code, start, stand_in):
    stand_in.answers["sendData"] = GLib.Variant("(i)", (code,))
    run = start("request", *ECHO)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    stand_in.emit("requestData", GLib.Variant("(uu)", (7, 9)))
    assert run.wait() == exit_statuses()[code]


def test_error_signal_explains_a_refusal_that_comes_first(start, stand_in):
    stand_in.answers["getData"] = 41
    run = start("request", *ECHO)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    stand_in.emit("errorSignal", GLib.Variant("(uss)", (2001, "why", "7:9")))
    assert run.wait() == 28
    assert '"why"' in run.stderr


def test_code_that_is_not_known_has_a_status_of_its_own(start, stand_in):
    stand_in.answers["connect"] = 999
    run = start("request", *ECHO)
    assert run.wait() == 32
    assert "(code 999)" in run.stderr


def test_text_of_the_server_cannot_control_the_terminal(start, stand_in):
    run = start("request", *ECHO)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    stand_in.emit("errorSignal", GLib.Variant("(uss)", (2001, "\x1b[2Jgone", "7:9")))
    assert run.wait() == 28
    assert "\x1b" not in run.stderr and "\\x1b[2Jgone" in run.stderr


@pytest.mark.parametrize(
    "words", [["status"], ["request", *ECHO], ["cancel", "1", "1"], ["quit"]], ids=lambda words: words[0]
)
def test_missing_daemon_is_explained(words, start):
    run = start(*words)
    assert run.wait() == 3
    assert "not running" in run.stderr


@pytest.mark.parametrize("words", [["status"], ["monitor"], ["quit"]], ids=lambda words: words[0])
def test_missing_bus_is_explained(words, start, tmp_path):
    run = start(*words, address=f"unix:path={tmp_path}/nothing")
    assert run.wait() == 3
    assert "DBUS_SYSTEM_BUS_ADDRESS" in run.stderr


@pytest.mark.parametrize("option", ["--input", "--output"])
def test_file_that_cannot_be_opened_is_named(option, start, tmp_path):
    path = tmp_path / "missing" / "file"
    run = start("request", *ECHO, option, path)
    assert run.wait() == 1
    assert str(path) in run.stderr


def test_output_that_takes_nothing_ends_the_request(start, daemon, tmp_path):
    source = tmp_path / "source"
    source.write_bytes(b"bytes")
    run = start("request", *ECHO, "--input", source, "--output", "/dev/full")
    assert run.wait() == 1
    assert "/dev/full" in run.stderr


# -- files -----------------------------------------------------------------------------------------

REFUSING = {"answer": {"status": 413, "content_type": "text/html", "body": "<html>"}}
# Breaks off behind the second of three parts.
BREAKING_OFF = {
    "answer": {
        "multipart": {
            "results": [{"oid": "1", "href": "cid:a"}],
            "parts": [
                {"id": "a", "headers": [["X-SLP-Next-part-ID", "b"]], "body": "first"},
                {"id": "b", "headers": [["X-SLP-Next-part-ID", "c"]], "body": {"bytes": 200_000}},
                {"id": "c", "body": "third"},
            ],
        }
    },
    "on": [
        {"at": "part", "part": 2, "do": "wait", "event": "seen"},
        {"at": "part", "part": 2, "do": "cut"},
    ],
}


@pytest.fixture
def folder(tmp_path):
    """Holds nothing but what orvexctl writes."""
    path = tmp_path / "folder"
    path.mkdir()
    return path


def test_output_may_be_the_input(start, daemon, folder):
    both = folder / "both"
    both.write_bytes(b"0123456789" * 100_000)
    run = start("request", *ECHO, "--input", both, "--output", both)
    assert run.wait() == 0, run.report()
    assert both.read_bytes() == b"0123456789" * 100_000


def test_old_output_stays_when_the_request_fails(start, daemon, server, folder):
    output = folder / "answer"
    output.write_text("old")
    server.queue(REFUSING)
    assert start("request", *ECHO, "--output", output).wait() == 28
    assert output.read_text() == "old"
    assert os.listdir(folder) == ["answer"]


def test_no_output_appears_when_the_request_is_interrupted(start, stand_in, folder):
    run = start("request", *ECHO, "--output", folder / "answer")
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    run.interrupt()
    assert run.wait() == 130
    assert not os.listdir(folder)


def break_off(start, server, folder, *words):
    """A request whose answer breaks off when its first part has been written."""
    server.queue(BREAKING_OFF)
    run = start("request", *ECHO, "--output-pattern", folder / "part-%d", *words)
    poll_for(lambda: any(each.stat().st_size for each in folder.iterdir()), 10, "the first part")
    server.give("seen")
    assert run.wait() == 30


def test_partial_answer_is_kept_on_demand(start, daemon, server, folder):
    break_off(start, server, folder, "--keep-partial")
    assert (folder / "part-1.partial").read_text() == "first"
    assert not (folder / "part-1").exists()


def test_no_part_gets_its_name_before_the_answer_is_complete(start, daemon, server, folder):
    break_off(start, server, folder)
    assert not os.listdir(folder)


def test_new_output_keeps_the_rights_of_the_old_one(start, daemon, folder):
    output = folder / "answer"
    output.write_text("old")
    output.chmod(0o640)
    assert start("request", *ECHO, "--output", output).wait() == 0
    assert output.stat().st_mode & 0o7777 == 0o640


def test_output_that_is_a_link_stays_one(start, daemon, folder):
    (folder / "file").write_text("old")
    (folder / "link").symlink_to("file")
    assert start("request", *ECHO, "--output", folder / "link").wait() == 0
    assert (folder / "link").is_symlink()
    assert (folder / "file").read_text() == ""


def test_advice_follows_the_daemons_text(start, daemon, server):
    server.queue(REFUSING)
    run = start("request", *ECHO)
    assert run.wait() == 28
    assert "orvexctl doctor --exchange" in run.stderr


def test_text_of_the_daemon_ends_with_its_first_line(start, stand_in):
    run = start("request", *ECHO)
    wait_for(lambda: "getData" in [name for name, _ in stand_in.called], 10, "the request")
    text = "No such luck\r\nContent-Type: text/html"
    stand_in.emit("errorSignal", GLib.Variant("(uss)", (2001, text, "7:9")))
    assert run.wait() == 28
    assert 'The daemon says: "No such luck".' in run.stderr


# -- the other commands ----------------------------------------------------------------------------


def test_monitor_prints_every_signal_as_json(start, platform, client):
    monitor = start("monitor", "--json")
    subscribed(monitor, client)
    run = start("request", *ECHO)
    assert run.wait() == 0, run.report()
    platform.write(connections=[])
    wait_for_output(lambda: b'"status":0' in monitor.stdout, "the change", monitor)
    platform.write(connections=[])
    client.cancel(5, 6)
    connection = client.connect()
    request = client.prepare(connection)
    wait_for_output(lambda: b"errorSignal" in monitor.stdout, "the error", monitor)
    monitor.interrupt()
    assert monitor.wait() == 0

    events = [json.loads(line) for line in monitor.lines()]
    assert all(re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}", each["time"]) for each in events)
    assert all(each["sender"].startswith(":") for each in events)
    found = {each["signal"]: each for each in events}
    assert (found["requestData"]["connection"], found["requestData"]["request"]) == (1, 1)
    assert (found["cancel"]["connection"], found["cancel"]["request"]) == (5, 6)
    assert found["connectionStatusChanged"]["words"] == "not connected"
    error = found["errorSignal"]
    assert (error["code"], error["message"]) == (2204, "Connection error")
    assert error["requests"] == [f"{connection}:{request}"]


def test_monitor_prints_lines_for_people(start, stand_in):
    monitor = start("monitor")
    end = time.monotonic() + patience(10)
    while not monitor.stdout and time.monotonic() < end:
        stand_in.emit("errorSignal", GLib.Variant("(uss)", (2001, "a\nb", "3:17")))
        time.sleep(0.01)
    monitor.interrupt()
    assert monitor.wait() == 0
    assert monitor.lines()[0].endswith('errorSignal  code 2001, "a\\x0ab", requests "3:17"')


def test_further_interrupts_change_nothing(start, client):
    for _ in range(5):
        monitor = start("monitor")
        subscribed(monitor, client)
        while monitor.child.poll() is None:
            monitor.interrupt()
        assert monitor.wait() == 0


def test_cancel_removes_a_request_that_waits(start, platform, client):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    connection = client.connect()
    request = client.attach(connection)
    run = start("cancel", connection, request)
    assert run.wait() == 0, run.report()
    with pytest.raises(BusError) as refused:
        client.getData(connection, request).wait()
    assert "(41) " in refused.value.text


def test_quit_ends_the_daemon(start, daemon):
    daemon.expect_end()
    run = start("quit")
    assert run.wait() == 0, run.report()
    assert daemon.wait() == 0


def test_quit_delayed_calls_only_quit_delayed(start, stand_in):
    stand_in.answers["quitDelayed"] = GLib.Variant("()", ())
    run = start("quit", "--delayed")
    assert run.wait() == 0, run.report()
    assert [name for name, _ in stand_in.called] == ["quitDelayed"]


# -- command line ----------------------------------------------------------------------------------


@pytest.mark.parametrize("words", [[], *([command] for command in COMMANDS)], ids=" ".join)
def test_help_is_printed_for_the_whole_and_for_each_command(words, start):
    run = start(*words, "--help")
    assert run.wait() == 0
    assert run.lines()[1].startswith(" ".join(["  orvexctl", *words, "["]))
    assert run.stderr == ""


@pytest.mark.parametrize(
    "words",
    [
        [],
        ["unknown"],
        ["--unknown"],
        ["status", "word"],
        ["status", "--unknown"],
        ["request"],
        ["request", *ECHO[2:]],
        ["request", *ECHO, "word"],
        ["request", *ECHO, "--policy", "4"],
        ["request", *ECHO, "--chunk-size", "0"],
        ["request", *ECHO, "--timeout", "soon"],
        ["request", *ECHO, "--content-type", "text/xml\r\nX-More: 1"],
        ["request", *ECHO, "--encoding", "binary\n"],
        ["request", *ECHO, "--quiet", "--verbose"],
        ["status", "--timeout", "-1"],
        ["request", *ECHO, "--output-pattern", "no-number"],
        ["request", *ECHO, "--output", "a", "--output-pattern", "%d"],
        ["cancel", "1"],
        ["cancel", "1", "-2"],
        ["cancel", "1", "4294967296"],
        ["quit", "now"],
        ["doctor", "word"],
        ["doctor", "--local", "--exchange"],
        ["doctor", "--timeout", "0"],
    ],
    ids=" ".join,
)
def test_wrong_command_line_is_refused_before_anything_is_called(words, start):
    run = start(*words)
    assert run.wait() == (64 if words[:1] == ["doctor"] else 2)  # 2 is a verdict of doctor's
    assert run.stderr.startswith("orvexctl: ")


def on_a_terminal(start, *words, columns=0):
    """Runs orvexctl with standard error on a terminal; returns what appeared there. A width of 0 is
    that of a terminal that does not tell."""
    master, slave = pty.openpty()
    termios.tcsetwinsize(slave, (24, columns))
    run = start(*words, stderr=slave)
    os.close(slave)
    assert run.wait() == 0
    shown = b""
    try:
        while data := os.read(master, 65536):
            shown += data
    except OSError:  # the terminal's other end is closed and everything was read
        pass
    os.close(master)
    return shown.decode()


def test_progress_is_shown_on_a_terminal(start, daemon, tmp_path):
    source = tmp_path / "source"
    source.write_bytes(bytes(5 * 1024))
    shown = on_a_terminal(start, "request", *ECHO, "--input", source, "--output", os.devnull)
    assert re.search(
        r"request 1:1  done  up 100 % of 5\.0 KiB  down 5\.0 KiB  [\d.]+ \w+/s  0:0",
        shown.replace("\xa0", " "),
    )


@pytest.mark.parametrize(
    "columns, last",
    [
        (64, r"done  up 100 % of 5.0 KiB  down 5.0 KiB  [\d.]+ \w+/s  0:0"),
        (46, "done  up 100 % of 5.0 KiB  down 5.0 KiB  0:0"),
        (21, "done  up 100 % of 5."),
        (1, ""),
    ],
)
def test_progress_stays_on_one_line_of_a_narrow_terminal(columns, last, start, daemon, tmp_path):
    source = tmp_path / "source"
    source.write_bytes(bytes(5 * 1024))
    words = ["request", *ECHO, "--input", source, "--output", os.devnull]
    shown = on_a_terminal(start, *words, columns=columns).replace("\xa0", " ")
    lines = [line.removesuffix("\x1b[K") for line in shown.rstrip("\r\n").split("\r")]
    assert max(map(len, lines)) < columns
    assert re.match(last, lines[-1])


def test_quiet_shows_no_progress(start, daemon):
    assert on_a_terminal(start, "request", *ECHO, "--quiet") == ""


def test_verbose_takes_the_place_of_progress(start, daemon):
    shown = on_a_terminal(start, "request", *ECHO, "--verbose")
    assert "the answer is complete" in shown and "\x1b[K" not in shown


@pytest.mark.parametrize("command", ["", *COMMANDS])
def test_completion_knows_every_option(command, start):
    run = start(*filter(None, [command]), "--help")
    run.wait()
    options = set(re.findall(r"^  (?:-\w, )?(--[\w-]+)", run.stdout.decode(), re.MULTILINE))
    script = (
        f"source {COMPLETION}; COMP_WORDS=(orvexctl {command} --); "
        "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _orvexctl; printf '%s\\n' \"${COMPREPLY[@]}\""
    )
    done = subprocess.run(
        ["bash", "-c", script], capture_output=True, text=True, timeout=patience(10), check=True
    )
    assert set(done.stdout.split()) == options


@pytest.mark.parametrize("command", COMMANDS)
def test_manual_names_every_option(command, start):
    run = start(command, "--help")
    run.wait()
    manual = MANUAL.read_text("utf-8")
    for option in re.findall(r"--([\w-]+)", run.stdout.decode().split("Application Options")[-1]):
        assert f"-{option}" in manual
