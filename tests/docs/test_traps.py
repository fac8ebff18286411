"""Each trap of the client guide has a test that shows the client library owning it."""

import ast
import re

from documents import GUIDE, read, section

TESTS = "tests/integration/test_client_traps.py"
OWNED = {
    "The daemon holds one `getData` for each request.": "test_one_call_for_the_answer_is_held_at_a_time",
    "A server that repeats a part makes an answer endless.": "test_endless_answer_ends_at_the_limit",
    "A chunk may be empty.": "test_empty_chunk_is_not_the_end",
    "An answer that broke off may look whole.": "test_answer_that_breaks_off_is_never_whole",
    "A call without an answer ends in a D-Bus time-out.": (
        "test_failure_ends_the_request_whose_call_is_never_answered"
    ),
    "Ids belong to users, not to senders.": "test_signals_about_other_requests_do_not_matter",
    "Everybody hears the signals.": "test_signals_of_somebody_else_than_the_daemon_do_not_matter",
    "The requests of a client stay when the client is gone.": (
        "test_given_up_request_is_cancelled_closed_and_disconnected_in_this_order"
    ),
    "An answer that you do not fetch stops the server.": (
        "test_answer_is_fetched_while_the_question_is_on_its_way"
    ),
    "`chunkSize` 0 never ends.": "test_chunk_size_is_never_zero_and_texts_have_no_zero_byte",
    "Text encodings change line ends.": "test_chunk_size_is_never_zero_and_texts_have_no_zero_byte",
    "A later `sendData` takes `lastPart` back.": (
        "test_question_ends_once_and_comes_in_pieces_of_bounded_size"
    ),
    "The server may answer half a question.": "test_answer_to_half_a_question_is_a_failure",
    "HTTP errors with a good body arrive as answers.": "test_error_status_behind_a_good_body_is_told",
}


def test_each_trap_has_a_test_of_the_library():
    traps = re.findall(r"^\* \*\*(.+?)\*\*", section(GUIDE, "Traps"), re.MULTILINE | re.DOTALL)
    assert [" ".join(trap.split()) for trap in traps] == list(OWNED)
    tests = {each.name for each in ast.parse(read(TESTS)).body if isinstance(each, ast.FunctionDef)}
    assert set(OWNED.values()) <= tests
