"""The model with which tests/stress judges: what it takes for a violation, and what not."""

import random
import sys

import pytest

from harness.settings import ROOT

sys.path.append(str(ROOT / "tests" / "stress"))

# pylint: disable=wrong-import-position
from stress.mood import FIXED, random_mood
from stress.request import COMPLETE, CONTINUES, CONNECTION_ERROR, NOT_ALLOWED
from stress.request import Connection, Request, Violation


def make_request(kind="other", encoding="binary", chunk_size=1000, prepared=True):
    return Request(Connection(1, "tag", kind, encoding, chunk_size), 7, prepared, [])


@pytest.fixture(name="request_")
def fixture_request():
    """A request whose data have been sent."""
    request = make_request()
    request.on_asked()
    request.on_sent(b"0123", 0)
    request.on_sent(b"456\r\n", 0)
    return request


def test_echo_ends_a_request(request_):
    request_.on_chunk(b"01234", CONTINUES)
    assert not request_.ended
    request_.on_chunk(b"56\r\n", COMPLETE)
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


def test_nothing_comes_behind_the_last_chunk(request_):
    request_.on_chunk(b"0123456\r\n", COMPLETE)
    with pytest.raises(Violation, match="behind the last one"):
        request_.on_chunk(b"", CONTINUES)


def test_nothing_comes_behind_an_error(request_):
    request_.on_named("Timeout was reached")
    with pytest.raises(Violation, match="has failed"):
        request_.on_chunk(b"0123", CONTINUES)


def test_chunk_is_no_larger_than_wanted():
    request = make_request(chunk_size=3)
    with pytest.raises(Violation, match="larger than wanted"):
        request.on_chunk(b"0123", CONTINUES)


def test_data_are_asked_for_once(request_):
    with pytest.raises(Violation, match="twice"):
        request_.on_asked()


def test_exchange_names_a_request_once(request_):
    request_.on_named("Timeout was reached")
    with pytest.raises(Violation, match="named twice"):
        request_.on_named("missing MIME parts")


def test_lost_connection_and_then_its_exchange_may_name_a_request(request_):
    request_.on_named(CONNECTION_ERROR)
    request_.on_named("Timeout was reached")
    assert request_.outcome == f"named: {CONNECTION_ERROR}"


def test_exchange_and_then_a_lost_connection_may_not(request_):
    request_.on_named("Timeout was reached")
    with pytest.raises(Violation, match="after"):
        request_.on_named(CONNECTION_ERROR)


def test_attached_request_waits_for_another_network():
    request = make_request(prepared=False)
    with pytest.raises(Violation, match="waits for another network"):
        request.on_named(NOT_ALLOWED)


@pytest.mark.parametrize("code", [2, 1001, 57])
def test_getdata_is_refused_with_one_code_only(request_, code):
    with pytest.raises(Violation, match="was refused with"):
        request_.on_refused(code)


def test_vanished_request_wants_an_explanation(request_):
    request_.on_refused(41)
    assert request_.needs_explanation(0)
    request_.on_named("Timeout was reached")
    assert not request_.needs_explanation(0)


def test_request_that_its_client_ended_may_vanish(request_):
    request_.ended_by = "cancelled"
    request_.on_refused(41)
    assert not request_.needs_explanation(0)


def test_same_seed_gives_the_same_moods():
    def moods():
        dice = random.Random(3)
        return [random_mood(dice, number) for number in range(100)]

    assert moods() == moods()
