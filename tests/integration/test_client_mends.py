"""What the client library does in rare situations: lost calls, other users, contexts that never run, odd ends."""

import os
import subprocess
import sys
from pathlib import Path

import pytest
from gi.repository import Gio, GLib

from harness import agents, library
from harness.library import Orvex, ask, matches, new_request, next_part, question_of, read_all, send
from harness.observe import poll_for
from harness.private_bus import PERMISSIVE_POLICY, PrivateBus
from harness.script import COMPLETE, CONTINUES, PART_COMPLETE, Script
from harness.settings import BUILD_DIR, patience
from harness.stand_in import CONNECTION, REQUEST
from harness.waiting import wait_for

directory = agents.FIXTURES[0]


@pytest.fixture
def bus_options():
    """Of the bus of a test."""
    return {}


@pytest.fixture
def bus(directory, reported, bus_options, monkeypatch):
    """A bus that other users can reach, and what the library takes for the system bus."""
    bus = PrivateBus(directory, **bus_options)
    monkeypatch.setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address)
    yield reported("bus", bus)
    bus.stop()


@pytest.fixture
def orvex(daemon):  # pylint: disable=unused-argument
    """A client of the library, with the real daemon."""
    return Orvex.Client.new()


@pytest.fixture
def script(stand_in):
    return Script(stand_in)


def init(client):
    """Connects a client that exists; the stand-in is served meanwhile."""
    made = library.Pending()
    client.init_async(
        GLib.PRIORITY_DEFAULT, None, lambda source, result: made.take(lambda: source.init_finish(result))
    )
    return made


def client_on(connection):
    client = Orvex.Client(connection=connection)
    init(client).wait()
    return client


def answer(script, pending, *pieces, last=b"answer"):
    """Plays the rest of a request up to its last chunk."""
    script.wait_for_call()
    script.want_data()
    for piece in pieces:
        script.deliver(piece, CONTINUES)
    script.deliver(last, COMPLETE)
    return pending


def bus_call(connection, member, *arguments):
    value = GLib.Variant(f"({'s' * len(arguments)})", arguments)
    return connection.call_sync(
        "org.freedesktop.DBus", "/", "org.freedesktop.DBus", member, value, None, 0, -1, None
    ).unpack()[0]


# -- the daemon never answers the held call of a request that has failed ---------------------------

FEW_REPLIES = {"limits": {"max_replies_per_connection": 16}}
ANY_LIMIT = pytest.mark.parametrize("bus_options", [{}, FEW_REPLIES], ids=["usual", "few replies"])


def give_up(client, requests_held, **properties):
    """Cancels a request whose answer is awaited."""
    stop = Gio.Cancellable()
    pending = ask(client, request=new_request(**properties), cancellable=stop)
    wait_for(requests_held, 10, "a held call")
    stop.cancel()
    assert pending.failure().matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)


@ANY_LIMIT
def test_client_works_after_hundreds_of_cancelled_requests(script):
    for _ in range(200):
        give_up(script.client, lambda: script.fetches)
        script.fetches.clear()
    assert len(script.called("disconnect")) == 200
    assert answer(script, ask(script.client)).wait() == b"answer"


def test_hundreds_of_requests_at_once_do_not_meet_the_limits_of_the_bus(orvex, platform, client):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    names = bus_call(orvex.get_connection(), "ListNames")
    requests = [new_request(attach=True) for _ in range(200)]
    attached = [ask(orvex, f"{number}".encode(), each) for number, each in enumerate(requests)]
    wait_for(lambda: all(each.dup_key() for each in requests), 30, "the attached requests")
    assert ask(orvex, b"first").wait(30) == b"first"
    assert [each.wait(30) for each in attached] == [f"{number}".encode() for number in range(200)]
    poll_for(
        lambda: len(bus_call(orvex.get_connection(), "ListNames")) <= len(names),
        10,
        "the end of the connections that were needed for a moment",
    )


@pytest.mark.parametrize("bus_options", [FEW_REPLIES])
def test_limit_of_a_given_connection_is_told_in_the_words_of_the_bus(script, bus):
    client = client_on(library.connect(bus.address))
    for _ in range(16):
        give_up(client, lambda: script.fetches)
        script.fetches.clear()
    request = new_request()
    error = ask(client, request=request).failure()
    assert matches(error, Orvex.Error.LIMITS)
    assert "replies" in request.dup_error_detail()
    assert len(script.called("disconnect")) == 16


# -- other users -----------------------------------------------------------------------------------


@pytest.mark.skipif("member" not in agents.PREFIXES, reason="no other user ids here")
def test_only_the_same_user_and_root_can_cancel(script, bus):
    pending = ask(script.client)
    script.wait_for_call()
    for kind in ("member", "root"):
        assert not pending.done
        agent = agents.Agent(kind, bus.address)
        agent.do("emit", "cancel", f"(@u {CONNECTION}, @u {REQUEST})")
        agent.do("received")
        script.settle()
        script.settle()
        if kind == "root":
            assert matches(pending.failure(), Orvex.Error.CANCELLED)
        agent.close()


BUS = "org.freedesktop.DBus"
NOBODY_KNOWS = f'<deny send_interface="{BUS}" send_member="GetConnectionUnixUser"/>\n  </policy>'


@pytest.fixture
def passer_by(client_of):
    return client_of(None)


@pytest.mark.parametrize("bus_options", [{"policy": PERMISSIVE_POLICY.replace("</policy>", NOBODY_KNOWS)}])
def test_cancelling_by_somebody_whom_the_bus_does_not_know_any_more_is_found_out(script, passer_by):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    script.settle()
    script.result = GLib.Variant("(i)", (57,))  # the exchange goes on
    passer_by.emit("cancel", GLib.Variant("(uu)", (CONNECTION, REQUEST)))
    wait_for(lambda: len(script.pieces) == 3, 10, "two questions whether it is known")
    assert not pending.done
    script.result = GLib.Variant("(i)", (41,))  # it is over
    assert matches(pending.failure(), Orvex.Error.CANCELLED)


@pytest.mark.parametrize("bus_options", [{"policy": PERMISSIVE_POLICY.replace("</policy>", NOBODY_KNOWS)}])
def test_cancelling_that_the_daemon_does_not_obey_changes_nothing(script, passer_by):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    script.settle()
    passer_by.emit("cancel", GLib.Variant("(uu)", (CONNECTION, REQUEST)))
    wait_for(lambda: len(script.pieces) == 2, 10, "the question whether it is known")
    script.deliver(b"answer", COMPLETE)
    assert pending.wait() == b"answer"


# -- contexts that never run -----------------------------------------------------------------------


class NeverRunning:
    """A main context that is the thread's default one, and never runs."""

    def __enter__(self):
        self.context = GLib.MainContext.new()
        self.context.push_thread_default()

    def __exit__(self, *_):
        self.context.pop_thread_default()


def test_who_waits_for_the_network_hears_of_the_end_of_a_given_connection(script, bus):
    script.stand_in.status = 0
    with NeverRunning():
        connection = library.connect(bus.address)
    client = client_on(connection)
    waiting = library.Pending()
    client.wait_usable_async(
        Orvex.Policy.ANY,
        None,
        lambda source, result: waiting.take(lambda: source.wait_usable_finish(result)),
    )
    asked = library.Pending()
    client.query_status_async(
        None, lambda source, result: asked.take(lambda: source.query_status_finish(result))
    )
    asked.wait()
    bus.stop()
    assert matches(waiting.failure(), Orvex.Error.NO_BUS)


def test_change_that_nobody_hears_does_not_keep_the_connection(script):
    never = NeverRunning()
    with never:
        client = Orvex.Client()
    init(client).wait()
    name = client.get_connection().get_unique_name()
    script.stand_in.emit("connectionStatusChanged", GLib.Variant("(u)", (0,)))
    poll_for(lambda: client.get_status() == 0, 10, "the change")
    del client
    poll_for(lambda: not bus_call(script.stand_in.bus, "NameHasOwner", name), 10, "the end")


# -- what speaks against an answer -----------------------------------------------------------------


def test_question_whether_the_request_is_known_leaves_its_end_in_place(script):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    script.settle()
    script.fail(2204, "Failure when receiving data from the peer", "")
    wait_for(lambda: len(script.pieces) == 2, 10, "the question whether it is known")
    assert script.pieces == [(b"question", True), (b"", True)]
    script.deliver(b"answer", COMPLETE)
    assert pending.wait() == b"answer"


@pytest.mark.parametrize("words", ["Connection error", "Current network connection not allowed"])
def test_failure_of_a_request_that_finds_no_network_does_not_speak_against_an_answer(words, script):
    pending = answer(script, ask(script.client), b"begin ", last=b"")
    script.fail(2204, words, "1:1")
    assert pending.wait() == b"begin "


def test_daemon_that_leaves_before_the_answer_is_known_to_be_whole_is_told(script):
    pending = answer(script, ask(script.client), b"begin ", last=b"")
    script.stand_in.close()
    assert matches(pending.failure(), Orvex.Error.DAEMON_GONE)


# -- streams ---------------------------------------------------------------------------------------


def test_stream_of_a_part_may_be_dropped_while_the_next_part_is_awaited(script):
    request = new_request()
    pending = send(script.client, request=request)
    script.wait_for_call()
    script.want_data()
    script.deliver(b"one", CONTINUES)
    stream = pending.wait()
    second = next_part(request)
    stream.close(None)
    script.deliver(b"rest", PART_COMPLETE)
    script.deliver(b"two", COMPLETE)
    assert library.read(second.wait()).wait() == b"two"


def is_read(path):
    """Whether a thread of this process waits for bytes of a file."""
    read = {"x86_64": "0"}[os.uname().machine]
    for task in os.listdir("/proc/self/task"):
        try:
            words = Path(f"/proc/self/task/{task}/syscall").read_text("utf-8").split()
            if words[0] == read and os.readlink(f"/proc/self/fd/{int(words[1], 16)}") == str(path):
                return True
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread has just ended
    return False


def test_end_of_a_request_comes_behind_the_last_read_of_its_question(script, tmp_path):
    path = tmp_path / "fifo"
    os.mkfifo(path)
    writing = os.open(path, os.O_RDWR)
    question = Gio.File.new_for_path(str(path)).read(None)  # each read blocks a thread
    pending = send(script.client, question)
    script.wait_for_call()
    poll_for(lambda: is_read(path), 10, "the read")  # before, the end would take it back
    script.fail(2204, "Operation timed out", f"{CONNECTION}:{REQUEST}")
    wait_for(lambda: script.called("disconnect"), 10, "the end at the daemon")
    script.settle()
    assert not pending.done
    os.write(writing, b"at last")
    pending.failure()
    assert not question.has_pending()
    os.close(writing)


def test_finishing_late_gives_the_answer_of_the_run_that_was_started(orvex, server):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]})
    request = new_request()
    first = send(orvex, b"first", request)
    poll_for(lambda: request.get_state() == Orvex.RequestState.SENT, 10, "the question's end")
    server.give("answer")
    # From here on the main context does not run, so the first one's result waits there.
    second = send_when_free(orvex, request, b"second")
    assert read_all(first.wait()) == b"first"
    assert read_all(second) == b"second"


def send_when_free(client, request, data):
    while True:
        try:
            return client.send(request, question_of(data))
        except GLib.Error as error:
            assert error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.PENDING)


# -- beginnings and ends ---------------------------------------------------------------------------

PROGRAM = """
import ctypes, sys
sys.path.insert(0, {path!r})
from harness.library import Orvex, ask
pending = ask(Orvex.Client.new())
sys.stdin.read()
print("ends", flush=True)
ctypes.CDLL(None).exit(0)  # at once; the interpreter would tidy up first, and the answer come meanwhile
"""


def test_connection_that_is_being_made_when_the_process_ends_is_closed(script):
    held = []
    script.stand_in.answers["connect"] = held.append
    path = os.path.dirname(os.path.abspath(__file__))
    with subprocess.Popen(
        [sys.executable, "-c", PROGRAM.format(path=path)],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
    ) as program:
        wait_for(lambda: held, patience(10), "connect")
        program.stdin.close()
        assert program.stdout.readline() == b"ends\n"
        held[0].return_value(GLib.Variant("(u)", (CONNECTION,)))
        poll_for(lambda: program.poll() is not None, patience(10), "the end of the program")
    wait_for(lambda: script.called("disconnect") == [(CONNECTION,)], 10, "its last call")


def test_texts_that_are_left_out_are_empty(script):
    request = Orvex.Request(element=None, type="t", version=None, content_type=None)
    assert (request.get_element(), request.get_request_type(), request.get_version()) == ("", "t", "")
    assert answer(script, ask(script.client, request=request)).wait() == b"answer"


NO_PROPERTIES = '  <deny send_interface="org.freedesktop.DBus.Properties"/>\n  </policy>'


@pytest.mark.parametrize("bus_options", [{"policy": PERMISSIVE_POLICY.replace("</policy>", NO_PROPERTIES)}])
def test_client_that_could_not_be_made_is_not_connected(stand_in):  # pylint: disable=unused-argument
    client = Orvex.Client()
    for _ in range(2):
        with pytest.raises(GLib.Error) as raised:
            client.init(None)
        assert matches(raised.value, Orvex.Error.ACCESS_DENIED)
        assert client.get_connection() is None


def test_client_that_is_made_twice_at_once_is_made_once(script):
    client = Orvex.Client()
    made = [init(client), init(client)]
    assert [each.wait() for each in made] == [True, True]
    assert answer(script, ask(client)).wait() == b"answer"


def test_library_is_never_unmapped_under_its_thread():
    command = ["readelf", "-d", str(BUILD_DIR / "lib" / "liborvexclient-1.0.so.0")]
    assert "NODELETE" in subprocess.run(command, capture_output=True, text=True, check=True).stdout
