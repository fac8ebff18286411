"""The client library against the real daemon, as a Python program sees it."""

import hashlib
import os
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree

import pytest
from gi.repository import Gio, GLib

from harness import library
from harness.client import BusError
from harness.library import Orvex, ask, matches, new_request, next_part, question_of, read_all, send
from harness.settings import BUILD_DIR, EXAMPLES, patience
from harness.waiting import wait_for

FINGERPRINT = EXAMPLES / "fingerprint.xml"
HELD_ANSWER = {"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]}
NO_SUCH_CONNECTION = 1001


@pytest.fixture(autouse=True)
def private_bus(bus, monkeypatch):
    """What the library takes for the system bus."""
    monkeypatch.setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address)


@pytest.fixture
def orvex(daemon):  # pylint: disable=unused-argument
    """A client of the library; the daemon is running by then."""
    return Orvex.Client.new()


def expect_closed(client, connection=1):
    """The daemon comes to know a connection no more."""

    def closed():
        try:
            return client.sendData(connection, 4294967295, b"") == NO_SUCH_CONNECTION
        except BusError:
            return False

    wait_for(closed, 10, f"the end of connection {connection}")


def two_parts(first="first", second="second"):
    """An answer of the test server."""
    return {
        "answer": {
            "multipart": {
                "results": [{"oid": "1", "href": "cid:a"}],
                "parts": [
                    {"id": "a", "headers": [["X-SLP-Next-part-ID", "b"]], "body": first},
                    {"id": "b", "body": second},
                ],
            }
        }
    }


# -- question and answer ---------------------------------------------------------------------------


def test_ask_returns_the_answer(orvex):
    request = Orvex.Request.new("fingerprintRequest", "fingerprint", "1.0", "application/xml")
    answer = orvex.ask(request, GLib.Bytes.new(FINGERPRINT.read_bytes()))
    found = ElementTree.fromstring(answer.get_data().decode()).find("question").attrib
    assert found["sha256"] == hashlib.sha256(FINGERPRINT.read_bytes()).hexdigest()


@pytest.mark.parametrize("size", [0, 1, 65535, 65536, 65537, 3_000_001])
def test_question_of_any_size_travels_whole(orvex, size):
    data = os.urandom(size)
    request = new_request()
    assert read_all(orvex.send(request, question_of(data))) == data
    assert (request.get_bytes_sent(), request.get_bytes_received()) == (size, size)


def test_question_and_answer_travel_from_a_main_loop(orvex):
    data = os.urandom(1_000_000)
    request = new_request()
    stream = send(orvex, data, request).wait()
    pieces = []
    while not pieces or pieces[-1]:
        pieces.append(library.read(stream).wait())
    assert b"".join(pieces) == data
    assert next_part(request).wait() is None


def test_answer_comes_part_by_part(orvex, server):
    server.queue(two_parts("first " * 40000))
    request = new_request()
    first = orvex.send(request, question_of(b""))
    assert read_all(first) == b"first " * 40000
    assert read_all(request.next_part()) == b"second"
    assert request.next_part() is None
    assert first.read_bytes(1, None).get_size() == 0


def test_rest_of_a_part_is_left_out_when_the_next_one_is_wanted(orvex, server):
    server.queue(two_parts("first " * 40000))
    request = new_request()
    first = orvex.send(request, question_of(b""))
    assert read_all(request.next_part()) == b"second"
    assert first.read_bytes(1, None).get_size() == 0


def test_ask_joins_the_parts(orvex, server):
    server.queue(two_parts())
    assert orvex.ask(new_request(), GLib.Bytes.new(b"")).get_data() == b"firstsecond"


def test_properties_travel_as_their_exact_bytes(orvex, server):
    request = new_request("écho", "other", "1 & 2", "text/x-odd; a=b", encoding="8bit")
    orvex.ask(request, GLib.Bytes.new(b"question"))
    record = server.wait(1)
    assert record["slp"]["requests"][0]["version"] == "1 & 2"
    headers = dict(record["parts"][1]["headers"])
    assert headers["Content-Type"] == "text/x-odd; a=b"
    assert headers["Content-Transfer-Encoding"] == "8bit"


def test_attached_request_travels_with_a_prepared_one(orvex, platform, client, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    request = new_request(attach=True)
    along = ask(orvex, b"along", request)
    wait_for(request.dup_key, 10, "the attached request")
    assert ask(orvex, b"first").wait() == b"first"
    assert along.wait() == b"along"
    assert len(server.exchanges()) == 1


def test_states_are_told_in_order_and_progress_to_the_last_byte(orvex):
    request = new_request()
    states, progress = [], []
    request.connect("state-changed", lambda _request, state: states.append(state.value_nick))
    request.connect("progress", lambda _request, *moved: progress.append(moved))
    ask(orvex, bytes(200_000), request).wait()
    wait_for(lambda: states[-1:] == ["answered"], 10, "the last state")
    assert states[:3] == ["connecting", "waiting", "sending"]
    assert progress == sorted(progress) and progress[-1] == (200_000, 200_000)
    assert request.get_state() == Orvex.RequestState.ANSWERED


def test_progress_is_told_fifty_times_a_second_at_the_most(orvex):
    request = new_request(piece_size=500)
    progress = []
    request.connect("progress", lambda _request, *moved: progress.append(moved))
    begin = time.monotonic()
    send(orvex, bytes(200_000), request).wait()
    assert len(progress) <= (time.monotonic() - begin) * 50 + 5


def test_many_requests_at_once_on_one_client(orvex):
    questions = [f"question {number}".encode() * 5000 for number in range(60)]
    pending = [ask(orvex, question) for question in questions]
    assert [each.wait(30) for each in pending] == questions


def test_several_clients_in_one_process(orvex):
    others = [Orvex.Client.new() for _ in range(3)]
    pending = [ask(client, f"{number}".encode()) for number, client in enumerate([orvex, *others])]
    assert [each.wait() for each in pending] == [b"0", b"1", b"2", b"3"]
    assert len({client.get_connection().get_unique_name() for client in [orvex, *others]}) == 4


def test_client_uses_a_connection_that_it_is_given(bus, daemon):
    connection = library.connect(bus.address)
    client = Orvex.Client.new_for_connection(connection, None)
    assert client.get_connection() == connection
    assert client.ask(new_request(), GLib.Bytes.new(b"a")).get_data() == b"a"
    del client
    assert not connection.is_closed()


def test_client_is_made_from_a_main_loop(daemon):
    made = library.Pending()
    Orvex.Client.new_async(
        None, None, lambda _source, result: made.take(lambda: Orvex.Client.new_finish(result))
    )
    assert ask(made.wait(), b"a").wait() == b"a"


def test_request_can_be_sent_again(orvex):
    request = new_request()
    assert ask(orvex, b"once", request).wait() == b"once"
    assert ask(orvex, b"again", request).wait() == b"again"


def test_request_cannot_be_sent_while_it_is_on_its_way(orvex):
    request = new_request()
    first = ask(orvex, b"first", request)
    second = ask(orvex, b"second", request).failure()
    assert second.matches(Gio.io_error_quark(), Gio.IOErrorEnum.PENDING)
    assert first.wait() == b"first"


def test_blocking_call_runs_no_main_loop_of_the_caller(orvex):
    ran = []
    GLib.idle_add(lambda: ran.append(True))
    orvex.ask(new_request(), GLib.Bytes.new(b"question"))
    assert not ran
    wait_for(lambda: ran, 10, "the source that waits")


def test_question_is_sent_while_the_program_is_busy(orvex, server):
    pending = ask(orvex, bytes(1_000_000))
    server.wait(1, "upload-end")  # runs no main loop
    assert pending.wait() == bytes(1_000_000)


def test_growing_stream_is_answered_when_it_ends(orvex):
    reading, writing = os.pipe()
    question = Gio.UnixInputStream.new(reading, True)
    pending = send(orvex, question)
    for piece in (b"one ", b"two ", b"three"):
        os.write(writing, piece)
        GLib.MainContext.default().iteration(False)
    os.close(writing)
    assert read_all(pending.wait()) == b"one two three"


# -- status ----------------------------------------------------------------------------------------


def test_properties_tell_whether_the_daemon_is_there_and_its_network(orvex, platform, daemon):
    assert orvex.get_running()
    assert orvex.get_status() == Orvex.Status.CONNECTED | Orvex.Status.KIND_ONE
    told = []
    orvex.connect("notify::status", lambda client, _: told.append(int(client.get_status())))
    orvex.connect("notify::running", lambda client, _: told.append(client.get_running()))
    platform.write(connections=[(2, True, True)])
    wait_for(lambda: told == [5], 10, "the change")
    daemon.expect_end()
    daemon.send_signal(signal.SIGTERM)
    wait_for(lambda: len(told) == 3, 10, "the end")
    assert sorted(map(int, told)) == [0, 0, 5]
    assert not orvex.get_running()


@pytest.mark.parametrize(
    "policy, connections",
    [
        (Orvex.Policy.KIND_ONE, [(1, True, False)]),
        (Orvex.Policy.NOT_FLAGGED, [(2, True, False)]),
        (Orvex.Policy.ANY, [(2, True, True)]),
    ],
)
def test_wait_usable_ends_when_the_network_fits(policy, connections, platform, make_daemon):
    platform.write(connections=[])
    make_daemon().start()
    orvex = Orvex.Client.new()
    waiting = library.Pending()
    orvex.wait_usable_async(
        policy, None, lambda source, result: waiting.take(lambda: source.wait_usable_finish(result))
    )
    assert orvex.query_status(None) == (True, Orvex.Status.NONE)
    assert not waiting.done
    platform.write(connections=connections)
    assert waiting.wait() is True


@pytest.mark.parametrize("is_reset", [False, True])
def test_wait_usable_can_be_cancelled(is_reset, platform, make_daemon):
    platform.write(connections=[])
    make_daemon().start()
    stop = Gio.Cancellable()
    waiting = library.Pending()
    Orvex.Client.new().wait_usable_async(
        Orvex.Policy.ANY, stop, lambda source, result: waiting.take(lambda: source.wait_usable_finish(result))
    )
    Orvex.Client.new()  # behind it, the library waits
    stop.cancel()
    if is_reset:
        stop.reset()
    assert library.is_cancelled(waiting.failure())


# -- whatever ends a request takes it back ---------------------------------------------------------


def test_answered_request_leaves_nothing_behind(orvex, client):
    ask(orvex).wait()
    expect_closed(client)


def test_cancelling_ends_the_request_at_the_daemon(orvex, server, client):
    server.default(HELD_ANSWER)
    stop = Gio.Cancellable()
    pending = ask(orvex, cancellable=stop)
    server.wait(1, "upload-end")
    stop.cancel()
    assert pending.failure().matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    assert client.sendData(1, 1, b"") == NO_SUCH_CONNECTION
    server.give("answer")


def test_cancelling_ends_the_request_while_its_answer_is_read(orvex, client):
    stop = Gio.Cancellable()
    stream = send(orvex, bytes(3_000_000), cancellable=stop).wait()
    stop.cancel()
    with pytest.raises(GLib.Error) as raised:
        read_all(stream)
    assert raised.value.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    expect_closed(client)


def test_cancelled_read_leaves_the_request_alone(orvex, server):
    server.default({"answer": {"multipart": {"parts": [
        {"id": "answer-1", "body": ["begin", {"do": "wait", "event": "rest"}, "end"]}
    ]}}})
    stream = send(orvex).wait()
    assert library.read(stream).wait() == b"begin"
    stop = Gio.Cancellable()
    reading = library.read(stream, cancellable=stop)
    stop.cancel()
    assert reading.failure().matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    server.give("rest")
    assert read_all(stream) == b"end"


@pytest.mark.parametrize("how", ["drop", "close"])
def test_leaving_the_stream_ends_the_request_at_the_daemon(how, orvex, client):
    stream = send(orvex, bytes(3_000_000)).wait()
    assert library.read(stream, 1).wait() == b"\0"
    if how == "close":
        stream.close(None)
    del stream
    expect_closed(client)


def test_stream_keeps_its_request_and_the_bus_alive(daemon):
    stream = Orvex.Client.new().send(new_request(), question_of(bytes(3_000_000)))
    assert read_all(stream) == bytes(3_000_000)


PROGRAM = """
import ctypes, sys
sys.path.insert(0, {path!r})
from harness.library import Orvex, new_request, question_of
stream = Orvex.Client.new().send(new_request(), question_of(bytes(3000000)))
{end}
"""
# Dropped by the interpreter's own clean-up, or by nobody.
ENDS = {"dropped": "pass", "kept": "ctypes.pythonapi.Py_IncRef(ctypes.py_object(stream)); sys.exit()"}


@pytest.mark.parametrize("end", ENDS)
def test_end_of_the_process_ends_its_requests_at_the_daemon(end, daemon, client):
    program = PROGRAM.format(path=os.path.dirname(os.path.abspath(__file__)), end=ENDS[end])
    subprocess.run([sys.executable, "-c", program], timeout=patience(30), check=True)
    assert client.sendData(1, 1, b"") == NO_SUCH_CONNECTION


def test_hundreds_of_requests_leave_no_descriptor_and_no_connection_behind(orvex, client):
    def held():
        return len(os.listdir("/proc/self/fd"))

    ask(orvex).wait()
    before = held()
    for round_ in range(10):
        pending = [ask(orvex, f"{round_}.{number}".encode()) for number in range(20)]
        for each in pending:
            each.wait(30)
    wait_for(lambda: held() <= before, 10, "as few descriptors as before")
    expect_closed(client, 201)


# -- failures --------------------------------------------------------------------------------------


def expect_failure(orvex, value, code=0, detail=None, **properties):
    """A request fails with this value, and tells the daemon's number and words apart from it."""
    request = new_request(**properties)
    error = ask(orvex, request=request).failure(20)
    assert matches(error, value), error
    assert request.get_error_code() == code
    assert request.dup_error_detail() == detail
    assert detail is None or detail not in error.message
    assert request.get_state() == Orvex.RequestState.FAILED


def test_missing_network_is_told(platform, make_daemon):
    platform.write(connections=[])
    make_daemon().start()
    expect_failure(Orvex.Client.new(), Orvex.Error.NO_NETWORK, 2204, "Connection error")


@pytest.mark.parametrize("policy", [Orvex.Policy.KIND_ONE, Orvex.Policy.NOT_FLAGGED])
def test_network_that_the_policy_forbids_is_told(policy, platform, make_daemon):
    platform.write(connections=[(2, True, True)])
    make_daemon().start()
    expect_failure(Orvex.Client.new(), Orvex.Error.NOT_ALLOWED, 2204, policy=policy)


def test_forbidden_positioning_is_told(platform, make_daemon):
    platform.write(positioning=False)
    make_daemon().start()
    expect_failure(Orvex.Client.new(), Orvex.Error.NOT_PERMITTED, 2205)


def test_unusable_answer_of_the_server_is_told(orvex, server):
    server.queue({"answer": {"multipart": {"results": [{"oid": "1", "href": "cid:nowhere"}], "parts": []}}})
    expect_failure(orvex, Orvex.Error.SERVER, 2001, "missing MIME parts")


def test_server_that_cannot_be_reached_is_told(orvex, server):
    server.queue({"on": [{"at": "tunnel", "do": "close"}]})
    request = new_request()
    assert matches(ask(orvex, request=request).failure(), Orvex.Error.NOT_REACHED)
    assert request.get_error_code() == 2204 and request.dup_error_detail()


def test_missing_daemon_is_told(bus):
    orvex = Orvex.Client.new()
    assert not orvex.get_running() and orvex.get_status() == Orvex.Status.NONE
    assert matches(ask(orvex).failure(), Orvex.Error.NOT_INSTALLED)


def test_missing_bus_is_told(tmp_path, monkeypatch):
    monkeypatch.setenv("DBUS_SYSTEM_BUS_ADDRESS", f"unix:path={tmp_path}/nothing")
    with pytest.raises(GLib.Error) as raised:
        Orvex.Client.new()
    assert matches(raised.value, Orvex.Error.NO_BUS)


def test_answer_that_is_too_long_is_not_collected(orvex):
    error = ask(orvex, bytes(200_000), new_request(answer_limit=100_000)).failure()
    assert matches(error, Orvex.Error.TOO_LONG)


def test_client_goes_on_with_the_next_daemon(orvex, make_daemon, daemon, server):
    server.queue(HELD_ANSWER)
    lost = ask(orvex)
    server.wait(1, "upload-end")
    daemon.send_signal(signal.SIGKILL)
    assert matches(lost.failure(), Orvex.Error.DAEMON_GONE)
    daemon.wait()
    make_daemon().start()
    assert ask(orvex, b"again").wait() == b"again"


def test_error_of_the_question_s_stream_ends_the_request(orvex, client, tmp_path):
    directory = os.open(tmp_path, os.O_RDONLY)
    error = send(orvex, Gio.UnixInputStream.new(directory, True)).failure()
    assert error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.IS_DIRECTORY)
    expect_closed(client)


# -- the library as a file -------------------------------------------------------------------------


def output_of(*command):
    return subprocess.run(list(map(str, command)), capture_output=True, text=True, check=True).stdout


def test_library_exports_what_is_listed_and_no_more():
    listed = (library.ROOT / "client" / "orvexclient.symbols").read_text("utf-8").splitlines()
    names = sorted(line.split()[0] for line in listed if not line.startswith("#"))
    shown = output_of("nm", "-D", "--defined-only", BUILD_DIR / "lib" / "liborvexclient-1.0.so.0")
    assert sorted(line.split()[-1] for line in shown.splitlines()) == names


def test_library_links_nothing_but_glib():
    shown = output_of("readelf", "-d", BUILD_DIR / "lib" / "liborvexclient-1.0.so.0")
    needed = {line.split("[")[1].rstrip("]") for line in shown.splitlines() if "(NEEDED)" in line}
    assert needed <= {f"lib{name}-2.0.so.0" for name in ("gio", "gobject", "glib")} | {"libc.so.6"}
    assert "[liborvexclient-1.0.so.0]" in shown


def test_every_public_symbol_is_documented():
    tree = ElementTree.parse(BUILD_DIR / "client" / "Orvex-1.0.gir").getroot()
    name = {"core": "{http://www.gtk.org/introspection/core/1.0}", "glib": "{http://www.gtk.org/introspection/glib/1.0}"}
    kinds = [name["core"] + kind for kind in ("class", "enumeration", "bitfield", "member", "method")]
    kinds += [name["core"] + kind for kind in ("constructor", "function", "property", "parameter")]
    kinds += [name["core"] + "return-value", name["glib"] + "signal"]
    bare = []
    for parent in tree.iter():
        for each in parent:
            is_void = each.find(f"{name['core']}type[@name='none']") is not None
            if each.tag in kinds and each.find(name["core"] + "doc") is None and not is_void:
                bare.append((parent.get("name"), each.tag.partition("}")[2], each.get("name")))
    assert not bare
