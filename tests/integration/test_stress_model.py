"""The model with which tests/stress judges: what it takes for a violation, and what not."""

import random
import sys

import pytest

from harness.settings import ROOT

sys.path.append(str(ROOT / "tests" / "stress"))

# pylint: disable=wrong-import-position
from stress.mood import FIXED, random_mood
from stress.request import COMPLETE, CONTINUES, CONNECTION_ERROR
from stress.request import Connection, Request, Violation


def make_request(kind="other", encoding="binary", chunk_size=1000, prepared=True):
    request = Request(Connection(1, "tag", kind, encoding, chunk_size), 7, prepared, [])
    request.open_calls = 2
    return request


@pytest.fixture(name="request_")
def fixture_request():
    """A request whose data have been sent."""
    request = make_request()
    request.on("asked")
    request.on_sent(b"0123", 0)
    request.on_sent(b"456\r\n", 0)
    return request


def test_echo_ends_a_request(request_):
    request_.on_chunk(b"01234", CONTINUES)
    assert not request_.over
    request_.on_chunk(b"56\r\n", COMPLETE)
    assert request_.ended
    assert request_.outcome == "answered"


def test_refused_data_are_not_part_of_the_echo(request_):
    request_.on_sent(b"more", 57)
    request_.on_chunk(b"0123456\r\n", COMPLETE)
    assert request_.outcome == "answered"


def test_size_wish_is_answered_by_the_pattern():
    request = make_request()
    request.on_sent(b"size: 300", 0)
    request.on_chunk(bytes(range(251)) + bytes(range(49)), COMPLETE)
    assert request.outcome == "answered"


def test_wrong_bytes_are_a_violation_before_the_end(request_):
    with pytest.raises(Violation, match="wrong bytes from 2 on"):
        request_.on_chunk(b"01x", CONTINUES)


def test_bytes_behind_the_echo_are_a_violation(request_):
    with pytest.raises(Violation, match="wrong bytes"):
        request_.on_chunk(b"0123456\r\n!", COMPLETE)


def test_missing_end_wants_an_explanation(request_):
    request_.on_chunk(b"0123", COMPLETE)
    assert request_.truncated
    assert request_.outcome == "answered in part"


def test_line_ends_of_a_text_may_change():
    request = make_request(encoding="8bit")
    request.on_sent(b"a\nb\r\n", 0)
    request.on_chunk(b"a\r\nb\r\n", COMPLETE)
    assert not request.truncated


def test_other_bytes_of_a_text_may_not_change():
    request = make_request(encoding="8bit")
    request.on_sent(b"a\nb\r\n", 0)
    with pytest.raises(Violation, match="wrong bytes"):
        request.on_chunk(b"a\r\nc\r\n", COMPLETE)


def test_fixed_answers_of_two_exchanges_are_a_violation(request_):
    with pytest.raises(Violation, match="several answers"):
        request_.on_chunk(FIXED + b"7.0 " + FIXED + b"8.1 ", COMPLETE)


def test_position_names_the_digest_of_the_question():
    request = make_request(kind="fingerprint")
    request.on_sent(b"wifi", 0)
    with pytest.raises(Violation, match="another question"):
        request.on_chunk(b'bytes="4" sha256="00" </positionResponse>', COMPLETE)


LOST, FAILED = ("named", CONNECTION_ERROR.encode()), ("named", b"Timeout was reached")
NOT_ALLOWED = ("named", b"Current network connection not allowed")
RULES = {  # the last event is the violation
    "data-are-asked-for-once": (("asked",), ("asked",), "twice"),
    "senddata-has-three-results": (("sent", 43, True), "another result"),
    "closed-connection-sends-nothing": (("sent", 0, False), "closed connection"),
    "getdata-is-refused-as-unknown-only": (("refused", 57), "another code"),
    "nothing-comes-behind-the-last-chunk": (("chunk", 9, 2303), ("chunk", 0, 2301), "the last one"),
    "nothing-comes-behind-an-error": (FAILED, ("chunk", 0, 2301), "behind an error"),
    "a-call-has-one-chunk": (*[("chunk", 1, 2302)] * 3, "no getData"),
    "chunk-has-one-of-three-codes-from-2301": (("chunk", 1, 2300), "delivery code"),
    "chunk-has-one-of-three-codes-to-2303": (("chunk", 1, 2304), "delivery code"),
    "chunk-is-no-larger-than-wanted": (("chunk", 1001, 2301), "larger than wanted"),
    "exchange-names-a-request-once": (FAILED, FAILED, "named twice"),
    "lost-connection-names-a-request-once": (LOST, LOST, "named twice"),
    "nothing-names-what-a-failed-exchange-named": (FAILED, LOST, "after"),
    "nothing-names-what-was-not-allowed": (NOT_ALLOWED, LOST, "after"),
    "what-is-being-exchanged-is-allowed": (("asked",), NOT_ALLOWED, "being exchanged"),
}


@pytest.mark.parametrize("events", RULES.values(), ids=RULES)
def test_rule(events):
    request = make_request()
    *before, violation, text = events
    for event in before:
        request.on(*event)
    with pytest.raises(Violation, match=text):
        request.on(*violation)


def test_attached_request_waits_for_another_network():
    with pytest.raises(Violation, match="but attached"):
        make_request(prepared=False).on(*NOT_ALLOWED)


def test_lost_connection_and_then_its_exchange_may_name_a_request(request_):
    request_.on(*LOST)
    request_.on(*FAILED)
    assert request_.outcome == f"named: {CONNECTION_ERROR}"


@pytest.mark.parametrize("unknown", [("refused", 41), ("sent", 41, True)])
def test_vanished_request_wants_an_explanation(request_, unknown):
    request_.on(*unknown)
    assert request_.needs_explanation(0)
    request_.on(*FAILED)
    assert request_.ended and not request_.needs_explanation(0)


def test_request_that_its_client_ended_may_vanish(request_):
    request_.end("cancelled")
    request_.on("refused", 41)
    assert not request_.gone


def test_data_without_room_is_tried_again_for_a_while(request_):
    assert request_.may_retry(30)
    assert request_.may_retry(0)  # counts from the first time
    assert not make_request().may_retry(-1)


def test_servers_read_slowly_only_where_memory_is_short():
    def names(is_slow):
        dice = random.Random(3)
        return {random_mood(dice, number, is_slow).name for number in range(300)}

    assert names(True) - names(False) == {"slow reader"}


def test_same_seed_gives_the_same_moods():
    def moods():
        dice = random.Random(3)
        return [random_mood(dice, number) for number in range(100)]

    assert moods() == moods()
