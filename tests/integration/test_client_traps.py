"""What the client library does about the traps that the client guide lists: one test for each, and more."""

import os
import time

import pytest
from gi.repository import Gio, GLib

from harness import library
from harness.library import Orvex, ask, is_cancelled, matches, new_request, next_part, question_of, send
from harness.script import ACCEPTED, COMPLETE, CONTINUES, PART_COMPLETE, Script
from harness.stand_in import CONNECTION, REQUEST
from harness.settings import patience
from harness.waiting import wait_for



@pytest.fixture(autouse=True)
def private_bus(bus, monkeypatch):
    """What the library takes for the system bus."""
    monkeypatch.setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address)


@pytest.fixture
def orvex(daemon):  # pylint: disable=unused-argument
    """A client of the library, with the real daemon."""
    return Orvex.Client.new()


@pytest.fixture
def script(stand_in):
    return Script(stand_in)


def begin_answer(script, chunk, code=CONTINUES, request=None):
    """Sends a request, and delivers the first chunk of its answer. Returns its stream."""
    pending = send(script.client, request=request)
    script.wait_for_call()
    script.want_data()
    script.deliver(chunk, code)
    return pending.wait()


# -- the daemon holds one getData for each request -------------------------------------------------


def test_one_call_for_the_answer_is_held_at_a_time(script):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    for _ in range(5):
        script.deliver(b"piece ", CONTINUES)
        script.wait_for_call()
        assert len(script.fetches) == 1
    script.deliver(b"end", COMPLETE)
    assert pending.wait() == b"piece " * 5 + b"end"
    assert len(script.called("getData")) == 6


def test_reader_that_stops_gets_two_chunks_and_no_more(script):
    request = new_request()
    stream = begin_answer(script, b"one", request=request)
    script.deliver(b"two", CONTINUES)
    script.settle()
    script.settle()
    assert script.fetches == []
    assert library.read(stream).wait() == b"one"
    script.deliver(b"three", COMPLETE)
    assert library.read(stream).wait() == b"two"
    assert library.read(stream).wait() == b"three"
    assert library.read(stream).wait() == b""
    assert next_part(request).wait() is None


# -- a server that repeats a part makes an answer endless ------------------------------------------


def test_endless_answer_ends_at_the_limit(orvex, server):
    endless = {"id": "answer-1", "body": {"endless": "more and more "}}
    server.queue({"answer": {"multipart": {"parts": [endless]}}})
    error = ask(orvex, request=new_request(answer_limit=1_000_000)).failure(20)
    assert matches(error, Orvex.Error.TOO_LONG)


def test_answer_without_an_end_times_out(script):
    pending = ask(script.client, request=new_request(timeout=1))
    script.wait_for_call()
    script.want_data()
    script.deliver(b"part", PART_COMPLETE)
    script.deliver(b"the same part", PART_COMPLETE)
    assert matches(pending.failure(), Orvex.Error.TIMED_OUT)


# -- a chunk may be empty --------------------------------------------------------------------------


def test_empty_chunk_is_not_the_end(script):
    pending = send(script.client)
    script.wait_for_call()
    script.want_data()
    script.deliver(b"", CONTINUES)
    script.deliver(b"", CONTINUES)
    script.deliver(b"bytes", CONTINUES)
    stream = pending.wait()
    assert library.read(stream).wait() == b"bytes"
    script.deliver(b"", CONTINUES)
    script.deliver(b"", COMPLETE)
    assert library.read(stream).wait() == b""


def test_part_without_bytes_is_a_part(script):
    request = new_request()
    stream = begin_answer(script, b"", PART_COMPLETE, request=request)
    assert library.read(stream).wait() == b""
    script.deliver(b"second", COMPLETE)
    stream = next_part(request).wait()
    assert library.read(stream).wait() == b"second"
    assert library.read(stream).wait() == b""
    assert next_part(request).wait() is None


# -- a call without an answer ----------------------------------------------------------------------


def test_failure_ends_the_request_whose_call_is_never_answered(script):
    request = new_request()
    pending = ask(script.client, request=request)
    script.wait_for_call()
    script.fail(2204, "Operation timed out", f"1:1 {CONNECTION}:{REQUEST}")
    assert matches(pending.failure(), Orvex.Error.NOT_REACHED)
    assert request.dup_error_detail() == "Operation timed out"
    assert script.fetches and script.called("disconnect") == [(CONNECTION,)]


def test_cancelling_by_somebody_else_is_told(orvex, server, client):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]})
    pending = ask(orvex)
    server.wait(1, "upload-end")
    client.cancel(1, 1)
    assert matches(pending.failure(), Orvex.Error.CANCELLED)
    server.give("answer")


def test_silence_ends_the_request_after_its_time(script):
    pending = ask(script.client, request=new_request(timeout=1))
    assert matches(pending.failure(), Orvex.Error.TIMED_OUT)
    assert script.called("disconnect") == [(CONNECTION,)]


def test_reader_that_stops_is_no_silence(script):
    pending = send(script.client, request=new_request(timeout=1))
    script.wait_for_call()
    script.want_data()
    script.deliver(b"one", CONTINUES)
    script.deliver(b"two", CONTINUES)
    stream = pending.wait()
    script.pause(1.5)
    assert library.read(stream).wait() == b"one"


def test_time_in_which_the_reader_pauses_does_not_count(script):
    pending = send(script.client, request=new_request(timeout=2))
    script.wait_for_call()
    script.want_data()
    script.deliver(b"one", CONTINUES)
    script.wait_for_call()
    script.deliver(b"two", CONTINUES)
    stream = pending.wait()
    script.pause(1.6)
    assert library.read(stream).wait() == b"one"
    script.wait_for_call()
    script.pause(1.2)
    script.deliver(b"three", COMPLETE)
    assert [library.read(stream).wait() for _ in range(3)] == [b"two", b"three", b""]


@pytest.mark.long
def test_answer_may_take_longer_than_a_call_usually_lasts(orvex, server):
    server.queue({"on": [{"at": "upload-end", "do": "pause", "seconds": 30}]})
    assert ask(orvex).wait(60) == b"question"


# -- ids, and signals that everybody hears ---------------------------------------------------------


def test_signals_about_other_requests_do_not_matter(script):
    pending = ask(script.client)
    script.wait_for_call()
    for connection, request in ((CONNECTION, 1), (1, REQUEST), (REQUEST, CONNECTION)):
        script.want_data(connection, request)
        script.stand_in.emit("cancel", GLib.Variant("(uu)", (connection, request)))
    script.fail(2001, "not mine", "7:99 17:9 7:91 1:1")
    script.settle()
    assert not pending.done and not [piece for piece in script.pieces if piece[0]]
    script.want_data()
    script.deliver(b"answer", COMPLETE)
    assert pending.wait() == b"answer"


def test_signals_of_somebody_else_than_the_daemon_do_not_matter(script, client):
    pending = ask(script.client)
    script.wait_for_call()
    client.emit("errorSignal", GLib.Variant("(uss)", (2001, "not the daemon", f"{CONNECTION}:{REQUEST}")))
    script.settle()
    assert not pending.done
    script.want_data()
    script.deliver(b"answer", COMPLETE)
    assert pending.wait() == b"answer"


@pytest.fixture
def client(client_of):
    return client_of(None)


def test_signals_that_come_before_the_reply_which_names_the_request_count(script):
    def prepare(invocation):
        script.want_data()
        invocation.return_value(GLib.Variant("(u)", (REQUEST,)))

    script.stand_in.answers["prepare"] = prepare
    pending = ask(script.client, b"early")
    wait_for(lambda: script.pieces, 10, "the question")
    script.deliver(b"answer", COMPLETE)
    assert pending.wait() == b"answer"
    assert script.pieces == [(b"early", True)]


def test_failure_that_comes_before_the_reply_which_names_the_request_counts(script):
    def prepare(invocation):
        script.fail(2204, "Connection error", "7:8 7:9")
        invocation.return_value(GLib.Variant("(u)", (REQUEST,)))

    script.stand_in.answers["prepare"] = prepare
    assert matches(ask(script.client).failure(), Orvex.Error.NO_NETWORK)


# -- an answer that you do not fetch stops the server ----------------------------------------------


def test_answer_is_fetched_while_the_question_is_on_its_way(script):
    script.result = None  # the daemon holds the reply to the first piece
    stream = send(script.client, b"question")
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    for _ in range(2):
        script.deliver(b"piece ", CONTINUES)
    assert library.read(stream.wait()).wait() == b"piece "
    script.wait_for_call()


# -- the requests of a client stay -----------------------------------------------------------------


def test_given_up_request_is_cancelled_closed_and_disconnected_in_this_order(script):
    told = []
    script.stand_in.bus.signal_subscribe(
        None, "com.kelvra.orvexd", "cancel", None, None, 0,
        lambda *signal: told.append(signal[5].unpack()),
    )
    script.result = None  # a piece stays under way
    stop = Gio.Cancellable()
    pending = ask(script.client, b"question", cancellable=stop)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    stop.cancel()
    assert pending.failure().matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)
    assert [name for name, _ in script.stand_in.called[-2:]] == ["sendData", "disconnect"]
    assert script.pieces[-1] == (b"", True)
    assert told == [(CONNECTION, REQUEST)]


def test_request_that_is_given_up_early_is_closed_when_it_has_its_numbers(script):
    held = []
    script.stand_in.answers["prepare"] = held.append
    stop = Gio.Cancellable()
    pending = ask(script.client, cancellable=stop)
    wait_for(lambda: held, 10, "prepare")
    stop.cancel()
    script.settle()
    held[0].return_value(GLib.Variant("(u)", (REQUEST,)))
    pending.failure()
    assert script.called("disconnect") == [(CONNECTION,)]


# -- chunk size and encoding -----------------------------------------------------------------------


def test_chunk_size_is_never_zero_and_texts_have_no_zero_byte(script):
    assert Orvex.Request.find_property("chunk-size").minimum == 1
    ask(script.client, request=Orvex.Request.new("e", "type", "1.0", "text/plain"))
    wait_for(lambda: script.called("connect"), 10, "connect")
    *texts, chunk_size = script.called("connect")[0]
    assert [bytes(each) for each in texts] == [b"e", b"type", b"1.0", b"binary", b"text/plain"]
    assert chunk_size == 65536


# -- a later sendData takes lastPart back ----------------------------------------------------------


@pytest.mark.parametrize("size", [0, 1, 65536, 65537, 300_000])
def test_question_ends_once_and_comes_in_pieces_of_bounded_size(size, script):
    data = bytes(number % 251 for number in range(size))
    pending = send(script.client, data, new_request(piece_size=65536))
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces and script.pieces[-1][1], 10, "the last piece")
    script.want_data()
    script.settle()
    assert b"".join(piece for piece, _ in script.pieces) == data
    assert max(len(piece) for piece, _ in script.pieces) <= 65536
    assert [last for _, last in script.pieces].count(True) == 1
    script.deliver(b"answer", COMPLETE)
    assert library.read(pending.wait()).wait() == b"answer"


@pytest.mark.parametrize("piece_size, ahead", [(64 * 1024, 256 * 1024), (192 * 1024, 192 * 1024)])
def test_slow_source_is_read_ahead_before_its_data_is_wanted(piece_size, ahead, script):
    question = question_of(bytes(1_000_000))
    send(script.client, question, new_request(piece_size=piece_size))
    script.wait_for_call()
    wait_for(lambda: question.tell() == ahead, 10, "what is read ahead")
    script.settle()
    assert question.tell() == ahead


def test_question_that_is_there_goes_in_pieces_of_192_kib(script):
    data = os.urandom(1_000_000)
    send(script.client, data)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces and script.pieces[-1][1], 10, "the last piece")
    assert b"".join(piece for piece, _ in script.pieces) == data
    assert [len(piece) for piece, _ in script.pieces[:5]] == [192 * 1024] * 5


def test_slow_source_is_sent_piece_by_piece_as_it_comes(script):
    reading, writing = os.pipe()
    send(script.client, Gio.UnixInputStream.new(reading, True))
    script.wait_for_call()
    script.want_data()
    for number in range(1, 4):
        os.write(writing, b"piece")
        wait_for(lambda: len(script.pieces) == number, 10, "it")  # pylint: disable=cell-var-from-loop
    os.close(writing)
    wait_for(lambda: script.pieces[-1][1], 10, "the end")
    assert script.pieces == [(b"piece", False)] * 3 + [(b"", True)]


# -- the server may answer half a question ---------------------------------------------------------


@pytest.mark.parametrize("code, value", [(57, Orvex.Error.TOO_SLOW), (41, Orvex.Error.DROPPED)])
def test_refused_piece_ends_the_request(code, value, script):
    script.result = GLib.Variant("(i)", (code,))
    request = new_request()
    pending = ask(script.client, request=request)
    script.wait_for_call()
    script.want_data()
    assert matches(pending.failure(), value)
    assert request.get_error_code() == code


def test_answer_to_half_a_question_is_a_failure(script):
    reading, writing = os.pipe()
    request = new_request()
    pending = send(script.client, Gio.UnixInputStream.new(reading, True), request=request)
    script.wait_for_call()
    script.want_data()
    os.write(writing, b"half")
    wait_for(lambda: script.pieces, 10, "half a question")
    script.deliver(b"answer", COMPLETE)
    stream = pending.wait()
    assert library.read(stream).wait() == b"answer"
    script.result = GLib.Variant("(i)", (41,))
    os.write(writing, b"more")
    assert matches(library.read(stream).failure(), Orvex.Error.TOO_SLOW)
    assert request.get_error_code() == 57  # what a piece behind the part's end is told elsewhere
    os.close(writing)


def test_early_answer_ends_when_the_question_is_sent(script):
    reading, writing = os.pipe()
    pending = send(script.client, Gio.UnixInputStream.new(reading, True))
    script.wait_for_call()
    script.want_data()
    os.write(writing, b"begin")
    wait_for(lambda: script.pieces, 10, "the first bytes")
    script.deliver(b"answer", COMPLETE)
    stream = pending.wait()
    assert library.read(stream).wait() == b"answer"
    end = library.read(stream)
    script.settle()
    assert not end.done
    os.write(writing, b"end")
    os.close(writing)
    assert end.wait() == b""
    assert b"".join(piece for piece, _ in script.pieces) == b"beginend"


# -- a bare refusal, and its reason ----------------------------------------------------------------


def test_reason_that_comes_behind_a_bare_refusal_is_told(script):
    script.stand_in.answers["getData"] = 41
    request = new_request()
    pending = ask(script.client, request=request)
    wait_for(lambda: script.called("getData"), 10, "the refusal")
    script.settle()
    assert not pending.done
    script.fail(2001, "why", f"{CONNECTION}:{REQUEST}")
    assert matches(pending.failure(), Orvex.Error.SERVER)
    assert request.dup_error_detail() == "why"


def test_refusal_without_a_reason_is_told_in_the_end(script):
    script.stand_in.answers["getData"] = 41
    assert matches(ask(script.client).failure(), Orvex.Error.DROPPED)


def test_failure_that_leaves_out_a_dropped_request_is_found_out(script):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    script.settle()
    script.result = GLib.Variant("(i)", (41,))
    script.fail(2204, "Failure when receiving data from the peer", "")
    assert matches(pending.failure(), Orvex.Error.DROPPED)


@pytest.mark.parametrize(
    "code, value",
    [(2002, Orvex.Error.PROTOCOL), (2205, Orvex.Error.NOT_PERMITTED), (999, Orvex.Error.FAILED)],
)
def test_refused_request_is_told_and_its_connection_closed(code, value, script):
    script.stand_in.answers["prepare"] = code
    request = new_request()
    assert matches(ask(script.client, request=request).failure(), value)
    assert request.get_error_code() == code
    assert script.called("disconnect") == [(CONNECTION,)]


def test_limit_is_told(script):
    script.stand_in.answers["connect"] = lambda invocation: invocation.return_dbus_error(
        "org.freedesktop.DBus.Error.LimitsExceeded", "too many connections"
    )
    assert matches(ask(script.client).failure(), Orvex.Error.LIMITS)


def test_lost_daemon_is_told_at_once_and_its_numbers_are_not_used_again(script, bus):
    pending = ask(script.client)
    script.wait_for_call()
    script.stand_in.close()
    assert matches(pending.failure(), Orvex.Error.DAEMON_GONE)


def test_lost_bus_is_told_at_once(script, bus):
    pending = ask(script.client)
    script.wait_for_call()
    bus.stop()
    assert matches(pending.failure(), Orvex.Error.DAEMON_GONE)
    assert matches(ask(script.client).failure(), Orvex.Error.NO_BUS)


# -- an answer that broke off ----------------------------------------------------------------------


@pytest.mark.parametrize("code", [2204, 2001])
def test_failure_right_behind_the_last_chunk_means_a_truncated_answer(code, script):
    pings = script.hold_pings()
    request = new_request()
    stream = begin_answer(script, b"begin", request=request)
    script.deliver(b"", COMPLETE)
    script.fail_behind_the_answer(pings, code)
    assert library.read(stream).wait() == b"begin"
    assert matches(library.read(stream).failure(), Orvex.Error.TRUNCATED)
    assert (request.get_error_code(), request.dup_error_detail()) == (code, "Transferred a partial file")


def test_failure_that_names_only_a_later_request_means_it_too(script):
    pings = script.hold_pings()
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    script.deliver(b"begin", CONTINUES)
    script.deliver(b"", COMPLETE)
    script.fail_behind_the_answer(pings, keys="1:1")
    assert matches(pending.failure(), Orvex.Error.TRUNCATED)


LONG = b"x" * 1000  # longer than a boundary


def test_failure_of_others_means_no_answer_that_came_whole(script):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: script.pieces, 10, "the question")
    script.deliver(LONG, COMPLETE)
    script.fail(2204, "Transferred a partial file", "1:1")
    assert pending.wait() == LONG


@pytest.mark.parametrize("begins_empty", [False, True], ids=["first call", "second call"])
def test_answer_whose_call_may_have_found_it_stored_may_have_broken_off(begins_empty, script):
    held = []
    pings = script.hold_pings()
    script.stand_in.answers["sendData"] = held.append
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: held, 10, "the question")
    if begins_empty:
        script.deliver(b"", CONTINUES)
        script.wait_for_call()
        held[0].return_value(ACCEPTED)
    script.deliver(LONG, COMPLETE)
    if not begins_empty:
        held[0].return_value(ACCEPTED)
    script.fail_behind_the_answer(pings, keys="1:1")
    assert matches(pending.failure(), Orvex.Error.TRUNCATED)


@pytest.mark.parametrize("turn", range(5))
def test_cancelled_request_is_never_whole_though_its_cancellable_is_reset(turn, script):  # pylint: disable=unused-argument
    stop = Gio.Cancellable()
    pending = ask(script.client, cancellable=stop)
    script.wait_for_call()
    script.want_data()
    script.deliver(b"half", CONTINUES)
    script.wait_for_call()
    stop.cancel()
    stop.reset()
    assert is_cancelled(pending.failure())


@pytest.mark.parametrize("turn", range(5))
def test_cancelled_read_is_no_end_though_its_cancellable_is_reset(turn, script):  # pylint: disable=unused-argument
    stop = Gio.Cancellable()
    stream = begin_answer(script, b"begin")
    assert library.read(stream).wait() == b"begin"
    reading = library.read(stream, cancellable=stop)
    script.settle()
    stop.cancel()
    stop.reset()
    assert is_cancelled(reading.failure())


def test_blocking_read_heeds_a_cancellable_that_is_cancelled_already(script):
    stop = Gio.Cancellable()
    stop.cancel()
    stream = begin_answer(script, b"begin")
    with pytest.raises(GLib.Error) as raised:
        stream.read_bytes(10, stop)
    assert is_cancelled(raised.value)
    assert stream.read_bytes(10, None).get_data() == b"begin"


def test_step_to_the_next_part_that_is_cancelled_before_leaves_the_part_alone(script):
    stop = Gio.Cancellable()
    stop.cancel()
    request = new_request()
    stream = begin_answer(script, b"begin", PART_COMPLETE, request=request)
    assert is_cancelled(next_part(request, stop).failure())
    assert library.read(stream).wait() == b"begin"


def test_part_whose_bytes_were_left_out_has_no_end(script):
    stop = Gio.Cancellable()
    request = new_request()
    stream = begin_answer(script, b"begin", request=request)
    step = next_part(request, stop)
    script.wait_for_call()
    stop.cancel()
    assert is_cancelled(step.failure())
    script.deliver(b"end", PART_COMPLETE)
    assert library.read(stream).failure().matches(Gio.io_error_quark(), Gio.IOErrorEnum.CLOSED)
    script.wait_for_call()
    script.deliver(b"second", COMPLETE)
    second = next_part(request).wait()
    assert library.read(second).wait() == b"second"


@pytest.mark.parametrize("end", ["reset", "cut"])
@pytest.mark.parametrize("size, stop", [(4000, 2200), (3_000_000, 2_000_000)])
def test_answer_that_breaks_off_is_never_whole(size, stop, end, orvex, server):
    parts = [{"id": "answer-1", "body": {"bytes": size}}]
    broken = {"answer": {"multipart": {"parts": parts}, "stop_after": stop, "then": end}}
    server.queue(*[broken] * 5)
    for _ in range(5):
        pending = ask(orvex)
        wait_for(lambda: pending.done, 20, "an end")  # pylint: disable=cell-var-from-loop
        error = pending.error
        assert error is not None, "a broken answer looks whole"
        assert matches(error, Orvex.Error.TRUNCATED) or matches(error, Orvex.Error.NOT_REACHED), error


def test_error_status_behind_a_good_body_is_told(orvex, server):
    server.queue({"answer": {"status": 500}})
    error = ask(orvex, b"x" * 1000).failure()
    assert matches(error, Orvex.Error.TRUNCATED) or matches(error, Orvex.Error.SERVER)


def test_end_of_a_whole_answer_is_held_back_for_a_moment_only(script):
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    script.deliver(b"begin", CONTINUES)
    script.deliver(b"", COMPLETE)
    begin = time.monotonic()
    pending.wait()
    # 30 ms at the most, and what it takes here.
    assert time.monotonic() - begin < patience(0.5)


@pytest.fixture
def pings(script):
    """The calls behind an answer of two chunks, which the daemon has not answered yet."""
    held = script.hold_pings()
    script.pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    script.deliver(b"begin ", CONTINUES)
    script.deliver(b"end", COMPLETE)
    wait_for(lambda: len(held) == 2, 10, "two calls behind the answer")
    return held


def test_answer_is_not_whole_before_the_daemon_has_answered_behind_it(pings, script):
    script.pause(0.1)  # its main loop is busy
    script.fail_behind_the_answer(pings)
    assert matches(script.pending.failure(), Orvex.Error.TRUNCATED)


def test_answer_is_whole_as_soon_as_a_busy_daemon_has_answered_behind_it(pings, script):
    script.pause(0.1)
    assert not script.pending.done
    for ping in pings:
        ping.return_value(None)
    assert script.pending.wait(1) == b"begin end"


def test_answer_counts_when_the_daemon_hangs_behind_it(pings, script):
    assert len(pings) == 2
    assert script.pending.wait() == b"begin end"


def test_answer_is_not_whole_when_the_daemon_leaves_before_it_has_answered_behind_it(script):
    pings = script.hold_pings()
    held = []
    script.stand_in.answers["sendData"] = held.append
    pending = ask(script.client)
    script.wait_for_call()
    script.want_data()
    wait_for(lambda: held, 10, "the question")
    script.deliver(LONG, COMPLETE)  # perhaps what was there of it when the call came
    held[0].return_value(ACCEPTED)
    wait_for(lambda: len(pings) == 2, 10, "two calls behind the answer")
    script.stand_in.close()
    assert matches(pending.failure(), Orvex.Error.DAEMON_GONE)
