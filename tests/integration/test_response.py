"""Answers of the server, piece by piece: each piece is one call of the daemon's parser."""

import random

import pytest

from harness import shared
from harness.client import PART_COMPLETE, PART_CONTINUES, RESPONSE_COMPLETE
from harness.request import Request, errors, expect_no_error
from harness.response import (
    BOUNDARY,
    CLOSING,
    CONTENT_TYPE,
    DELIMITER,
    START,
    answer,
    document,
    part,
    start_part,
    wait,
)

MISSING = (2001, "missing MIME parts")
FAULTY = (2001, "faulty MIME data")

START_A = start_part("a") + "\r\n"
bus, server, platform, preinst, daemon, fresh = shared.FIXTURES

DELIVERED = ""  # the key list of a failure after whose parts nothing is left to deliver


@pytest.fixture
def ask(client, server):
    """Sends a request that gets the given answer; its first chunk is asked for already."""

    def ask(*pieces, chunk_size=65536, **values):
        server.queue(answer(*pieces, **values))
        request = Request(client, kind="other", chunk_size=chunk_size)
        request.first = request.ask()
        return request.give(b"question")

    return ask


def next_chunk(request, event, server):
    """Asks for the next chunk, and lets the server go on when the daemon has heard of that."""
    pending = request.ask()
    request.client.settle()
    server.give(event)
    return pending


def expect_delivered_and_failed(request, data, code, text):
    """The whole answer came, and so did an error that has no request left to name."""
    assert request.first.wait() == (data, RESPONSE_COMPLETE)
    assert request.client.wait_for_signal("errorSignal") == (code, text, DELIVERED)
    expect_no_error(request.client)


# -- delivery --------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "chunk_size, sizes",
    [
        (1, [1] * 8),
        (3, [3, 3, 2]),
        (4, [4, 4]),
        (7, [7, 1]),
        (8, [8]),
        (9, [8]),
        (0xFFFFFFFF, [8]),
    ],
)
def test_no_chunk_is_larger_than_the_client_wants(ask, chunk_size, sizes):
    request = ask(START_A, part("a", "12345678") + CLOSING, chunk_size=chunk_size)

    chunks = [request.first.wait()]
    while chunks[-1].code != RESPONSE_COMPLETE:
        chunks.append(request.ask().wait())
    assert b"".join(chunk.data for chunk in chunks) == b"12345678"
    # The last bytes carry the code themselves: no empty chunk follows.
    assert [len(chunk.data) for chunk in chunks] == sizes
    assert {chunk.code for chunk in chunks[:-1]} <= {PART_CONTINUES}


def test_chunk_size_0_gives_empty_chunks_for_ever(ask):
    request = ask(START_A, part("a", "12345678") + CLOSING, chunk_size=0)
    assert request.first.wait() == (b"", PART_CONTINUES)
    for _ in range(5):
        assert request.ask().wait() == (b"", PART_CONTINUES)


def test_parts_of_one_request_end_with_2302_and_the_last_with_2303(ask):
    parts = [part(name, data) + "\r\n" for name, data in [("a", "one"), ("b", ""), ("c", "three")]]
    end = DELIMITER + "--\r\n"
    request = ask(start_part("a", "b", "c") + "\r\n", *parts[:-1], parts[-1] + end)

    first = request.first.wait()
    parts = [(first.data, first.code)]
    if first.code == PART_CONTINUES:
        data, code = request.fetch_part()
        parts = [(first.data + data, code)]
    parts += [request.fetch_part(), request.fetch_part()]
    assert parts == [
        (b"one", PART_COMPLETE),
        (b"", PART_COMPLETE),
        (b"three", RESPONSE_COMPLETE),
    ]


def test_bytes_are_delivered_while_their_part_still_arrives(ask, server):
    request = ask(START_A, part("a", "begin"), wait("go"), " end" + CLOSING)

    assert request.first.wait() == (b"begin", PART_CONTINUES)
    assert next_chunk(request, "go", server).wait() == (b" end", RESPONSE_COMPLETE)


def test_one_get_data_gets_one_chunk(ask, client, server):
    request = ask(START_A, part("a", "one"), wait("go"), "two", wait("go"), "three" + CLOSING)
    assert request.first.wait() == (b"one", PART_CONTINUES)

    server.give("go", 2)
    server.wait(server.last)
    assert request.fetch_part() == (b"twothree", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_answers_of_several_requests_reach_their_clients(make_client, platform, server):
    platform.write(connections=[(2, True, False)])
    clients = [make_client() for _ in range(3)]
    clients[0].wait_for_status(1)
    results = start_part(("3", "c"), ("1", "a"), ("2", "b")) + "\r\n"
    parts = "\r\n".join([part("b", "for two"), part("c", "for three"), part("a", "for one")])
    server.queue(answer(results, parts + CLOSING))
    attached = [Request(client, attached=True, kind="other") for client in clients[1:]]
    requests = [Request(clients[0], kind="other"), *attached]
    for request in requests:
        request.give(b"question")

    fetched = [request.fetch() for request in requests]
    assert fetched == [[b"for one"], [b"for two"], [b"for three"]]


@pytest.mark.parametrize(
    "data", ["", "\n", "x\n", "x\r", "\r", "x\r\n", "\r\n\r\n", "\r\r\n", "--", "\r\n--", "HTTP/1.1"]
)
def test_one_line_break_belongs_to_the_delimiter(ask, data):
    request = ask(START_A, part("a", data) + CLOSING)
    assert request.first.wait() == (data.encode(), RESPONSE_COMPLETE)


@pytest.mark.parametrize("data", ["x", "x\n", "x\r"])
def test_part_need_not_end_with_a_line_break(ask, data):
    request = ask(START_A, part("a", data) + DELIMITER + "--\r\n")
    assert request.first.wait() == (data.encode(), RESPONSE_COMPLETE)


@pytest.mark.parametrize(
    "pieces",
    [
        ["x\r", "\ny"],
        ["x\r\n", "y"],
        ["\r", "\n", "\r", "\n"],
        ["x\r\n", "\r\n"],
        ["HTTP/1.1 200 OK\r\n\r\n", "HTTP"],
        ["\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n"],
        ["-", "-", "front", "-", "--"],
    ],
    ids=str,
)
def test_data_arrive_unchanged_whatever_ends_their_pieces(ask, server, pieces):
    # A waiting client must not get a line break that turns out to be the delimiter's.
    request = ask(START_A, part("a", ""), *pieces, wait("go"), CLOSING)
    chunk = request.first.wait()
    server.give("go")

    data, code = request.fetch_part()
    assert (chunk.data + data, code) == ("".join(pieces).encode(), RESPONSE_COMPLETE)


def test_line_break_in_front_of_the_delimiter_never_reaches_a_waiting_client(ask, server):
    request = ask(START_A, part("a", "data\r\n"), wait("go"), DELIMITER + "--\r\n")

    assert request.first.wait() == (b"data", PART_CONTINUES)
    assert next_chunk(request, "go", server).wait() == (b"", RESPONSE_COMPLETE)


def test_response_may_end_without_a_closing_delimiter(ask):
    request = ask(START_A, part("a", "all of it\r\n"))
    chunks = [request.first.wait(), *request.fetch_chunks()]
    assert b"".join(chunk.data for chunk in chunks) == b"all of it"


def test_whole_body_in_one_piece(ask, client):
    body = START_A + part("a", "data") + CLOSING
    assert ask(body).first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_five_megabytes_come_through(client, server):
    pieces = {"bytes": 5 << 20, "fill": "random", "seed": 5}
    multipart = {"parts": [{"id": "answer-1", "body": pieces}]}
    server.queue({"answer": {"multipart": multipart}})
    data = client.exchange(b"question", kind="other", chunk_size=1 << 20)

    generator = random.Random(5)
    sizes = [16000] * ((5 << 20) // 16000) + [(5 << 20) % 16000]
    assert data == [b"".join(map(generator.randbytes, sizes))]


def test_cuts_outside_delimiters_and_header_blocks_change_nothing(client, server):
    generator = random.Random(34)
    words = ["\r\n", "\r", "\n", "--", "HTTP", "data", "-", "\r\n\r\n", "x" * 40]
    for _ in range(30):
        count = generator.randrange(1, 5)
        names = [f"p{number}" for number in range(count)]
        texts = ["".join(generator.choices(words, k=generator.randrange(12))) for _ in names]
        body, places = start_part(*names) + "\r\n", []
        for name, text in zip(names, texts):
            body += part(name, "")
            # The line break in front of the next delimiter may be divided as well.
            places += range(len(body) + 1, len(body) + len(text) + 3)
            body += text + "\r\n"
        body += DELIMITER + "--\r\n"
        cuts = sorted(generator.sample(places, min(len(places), generator.randrange(1, 9))))
        server.queue(answer(body, cut={"at": cuts}))

        got = client.exchange(b"question", kind="other", chunk_size=generator.choice([5, 65536]))
        assert got == [text.encode() for text in texts], (body, cuts)
    assert errors(client) == []


# -- which part belongs to whom --------------------------------------------------------------------


def test_next_part_id_extends_the_answer_part_by_part(ask):
    parts = [
        part("a", "one", "X-SLP-Next-part-ID: b"),
        part("b", "two", "x-slp-next-part-id:c"),
        part("c", "three"),
    ]
    request = ask("\r\n".join([start_part("a"), *parts]) + CLOSING)

    assert request.first.wait() == (b"one", PART_COMPLETE)
    assert request.fetch_part() == (b"two", PART_COMPLETE)
    assert request.fetch_part() == (b"three", RESPONSE_COMPLETE)


def test_promised_next_part_that_never_comes_is_missed(ask):
    request = ask(START_A, part("a", "one", "X-SLP-Next-part-ID: b") + CLOSING)

    assert request.first.wait() == (b"one", PART_COMPLETE)
    assert request.wait_for_failure() == MISSING
    expect_no_error(request.client)


@pytest.mark.parametrize(
    "pieces",
    [
        ["unknown" + "\r\n"],
        ["un", "known", "\r\n"],
        ["un\r\n\r\nContent-Id: a\r\n\r\nknown\r\n"],
        ["un", "\r\nContent-Id: a\r\n\r\nknown\r\n"],
        ["un", "HTTP/1.1 200 OK\r\n", "known\r\n"],
    ],
    ids=str,
)
def test_part_that_nobody_expects_is_dropped(ask, client, pieces):
    request = ask(START_A, part("stranger", ""), *pieces, part("a", "data") + CLOSING)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_parts_before_the_start_part_are_lost(ask, client):
    request = ask(part("a", "data") + "\r\n", start_part("a") + CLOSING)
    assert request.wait_for_failure() == MISSING
    assert not request.first.done
    expect_no_error(client)


def test_part_before_the_start_part_may_come_again_behind_it(ask, client):
    request = ask(part("a", "early") + "\r\n", START_A, part("a", "late") + CLOSING)
    assert request.first.wait() == (b"late", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_part_that_was_not_sent_is_missed(ask, client):
    request = ask(start_part("a", "b") + "\r\n", part("a", "data") + CLOSING)
    assert request.first.wait() == (b"data", PART_COMPLETE)
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


@pytest.fixture(name="two")
def two_requests_of_which_one_is_answered(make_client, platform, server):
    """The lucky one and the unlucky one, each of a client of its own."""
    platform.write(connections=[(2, True, False)])
    first, second = make_client(), make_client()
    first.wait_for_status(1)
    server.queue(answer(start_part(("1", "a")) + "\r\n", part("a", "data") + CLOSING))
    unlucky = Request(second, attached=True, kind="other")
    return Request(first, kind="other"), unlucky


def test_request_without_answer_fails_the_others_too(two):
    lucky, unlucky = two
    for request in (lucky, unlucky):
        request.give(b"question")

    # The keys stand in the order of the transfer.
    arguments = (*MISSING, f"{lucky.key} {unlucky.key}")
    assert lucky.client.wait_for_signal("errorSignal") == arguments
    assert unlucky.client.wait_for_signal("errorSignal") == arguments
    expect_no_error(lucky.client)


def test_delivered_request_is_not_named_when_another_fails(two):
    lucky, unlucky = two
    pending = lucky.ask()
    for request in (lucky, unlucky):
        request.give(b"question")

    assert pending.wait() == (b"data", RESPONSE_COMPLETE)
    assert lucky.client.wait_for_signal("errorSignal") == (*MISSING, unlucky.key)
    expect_no_error(lucky.client)


def test_repeated_part_is_added_while_the_first_is_not_delivered(client, server):
    server.queue(answer(START_A, part("a", "one") + "\r\n" + part("a", "two") + CLOSING))
    request = Request(client, kind="other").give(b"question")
    expect_no_error(client)

    # More parts have come than were announced: the answer never counts as complete.
    assert request.fetch_part() == (b"onetwo", PART_COMPLETE)
    pending = request.ask()
    expect_no_error(client)
    assert not pending.done


def test_repeated_part_after_the_delivery_is_ignored(ask, client, server):
    closing = part("a", "two") + CLOSING
    request = ask(START_A, part("a", "one") + "\r\n" + DELIMITER, wait("go"), "\r\n", closing)
    assert request.first.wait() == (b"one", RESPONSE_COMPLETE)
    pending = request.ask()
    server.give("go")

    expect_no_error(client)
    assert not pending.done


@pytest.mark.parametrize(
    "line, name",
    [
        ("content-id:a", "a"),
        ("CONTENT-ID ::  a", "a"),
        ("X-Content-Id: a", "a"),
        ("Content-Id: <a>", "&lt;a&gt;"),
        ("Content-Id: a ", "a "),
        ("Content-Id: a:b c", "a:b c"),
        ("Content-Id: a\nb", "a&#10;b"),
    ],
)
def test_content_id_is_read_as_it_stands(ask, line, name):
    header = f"{DELIMITER}\r\n{line}\r\nX: y\r\n\r\ndata"
    request = ask(start_part(name) + "\r\n", header + CLOSING)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)


@pytest.mark.parametrize("line", ["Content-Id: <a>", "Content-Id: a ", "Content-Id: A", "Id: a"])
def test_content_id_that_differs_in_any_byte_is_a_stranger(ask, client, line):
    request = ask(START_A, f"{DELIMITER}\r\n{line}\r\n\r\ndata" + CLOSING)
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


# -- cuts in the wrong places ----------------------------------------------------------------------


def test_delimiter_cut_at_the_end_becomes_data(ask, client):
    request = ask(START_A, part("a", "data") + "\r\n--fron", "tier--\r\n")
    chunks = [request.first.wait(), *request.fetch_chunks()]
    assert b"".join(chunk.data for chunk in chunks) == b"data\r\n--frontier--"
    expect_no_error(client)


def test_delimiter_cut_between_two_parts_joins_them(ask, client):
    body = part("a", "data") + "\r\n" + part("stranger", "more") + CLOSING
    at = body.index(DELIMITER, 1) + 5
    request = ask(START_A, body[:at], body[at:])

    data = request.first.wait().data + request.fetch_part()[0]
    assert data == f"data\r\n{DELIMITER}\r\nContent-Id: stranger\r\n\r\nmore".encode()
    expect_no_error(client)


def test_part_behind_a_cut_delimiter_is_missed(ask, client):
    body = part("a", "data") + "\r\n" + part("b", "more") + CLOSING
    at = body.index(DELIMITER, 1) + 5
    request = ask(start_part("a", "b") + "\r\n", body[:at], body[at:])
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


def test_delimiter_cut_in_front_of_the_start_part_loses_everything(ask, client):
    request = ask(START_A[:4], START_A[4:], part("a", "data") + CLOSING)
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


def test_answer_in_single_bytes_is_not_understood(ask, client):
    request = ask(START_A, part("a", "data") + CLOSING, cut={"size": 1})
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


@pytest.mark.parametrize(
    "pieces",
    [
        pytest.param(
            [f"{DELIMITER}\r", "\nContent-Id: a\r\n\r\ndata" + CLOSING],
            id="between CR and LF of a delimiter",
        ),
        pytest.param(
            [f"{DELIMITER}\r\nX: y\r\n", "Content-Id: a\r\n\r\ndata" + CLOSING],
            id="between two header lines",
        ),
        pytest.param(
            [f"{DELIMITER}\r\nX: ", "y\r\nContent-Id: a\r\n\r\ndata" + CLOSING],
            id="in a header line",
        ),
        pytest.param(
            [part("a", "data") + f"\r\n{DELIMITER}-", "-\r\n"],
            id="between the hyphens of the closing delimiter",
        ),
        pytest.param(
            [part("a", "data") + f"\r\n{DELIMITER}--\r", "\n"],
            id="in the line break behind the closing delimiter",
        ),
        pytest.param(
            [part("a", "data") + CLOSING + "epilogue"],
            id="epilogue in the piece of the closing delimiter",
        ),
    ],
)
def test_all_data_arrived_and_yet_the_mime_data_are_faulty(ask, pieces):
    request = ask(START_A, *pieces)
    expect_delivered_and_failed(request, b"data", *FAULTY)


@pytest.mark.parametrize(
    "front",
    ["\r\nContent", "\r\nContent-Id: a\r", "\r\nContent-Id: a", "\r\nContent-Id: a\r\n", "\r\nC"],
)
def test_part_whose_header_block_is_cut_loses_its_name(ask, client, front):
    rest = "\r\nContent-Id: a\r\n\r\ndata"[len(front) :]
    request = ask(START_A, DELIMITER + front, rest + CLOSING)
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


@pytest.mark.parametrize(
    "pieces",
    [
        pytest.param(["epilogue"], id="text"),
        pytest.param(["epi", "logue\r\n\r\nContent-Id: a\r\n\r\nmore"], id="text and a header"),
        pytest.param([part("a", "more")], id="a part"),
    ],
)
def test_epilogue_in_later_pieces_is_ignored(ask, client, pieces):
    request = ask(START_A, part("a", "data") + CLOSING, *pieces)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


@pytest.mark.parametrize("preamble", ["This is a message.\r\n", "HTTP/1.1 200 OK\r\n\r\n", "\r\n"])
def test_preamble_is_ignored(ask, client, preamble):
    request = ask(preamble, START_A, part("a", "data") + CLOSING)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


@pytest.mark.parametrize(
    "pieces",
    [
        [DELIMITER, "\r\nContent-Id: a\r\n\r\ndata" + CLOSING],
        [DELIMITER, "\r\nContent-Id: a\r\n\r\n", "data", CLOSING],
        [DELIMITER + "\r\n", "Content-Id: a\r\n\r\ndata" + CLOSING],
        [DELIMITER + "\r\n", "Content-Id: a\r\n\r\n", "data" + CLOSING],
        [DELIMITER, "\r", "\nConte", "nt-Id: a", "\r\n\r", "\ndata" + CLOSING],
        [DELIMITER + "\r\n", "Content-Id:", " a\r\n\r\ndata", CLOSING],
        [DELIMITER + "\r\n", "Content-Id: a\r\n", "\r\n", "da", "ta", CLOSING],
    ],
    ids=str,
)
def test_header_block_may_follow_a_piece_that_ended_with_the_delimiter(ask, client, pieces):
    request = ask(START_A, *pieces)
    data, first = request.first.wait()
    if first != RESPONSE_COMPLETE:
        data += request.fetch_part()[0]
    assert data == b"data"
    expect_no_error(client)


def test_closing_delimiter_may_be_cut_behind_the_boundary(ask, client):
    request = ask(START_A, part("a", "data") + "\r\n" + DELIMITER, "--\r\n")
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_two_bytes_behind_a_delimiter_are_skipped_when_the_end_is_in_sight(ask, client):
    request = ask(START_A, f"{DELIMITER}??Content-Id: a\r\n\r\ndata{CLOSING}")
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_thousands_of_delimiters_in_one_piece(ask, client):
    content_type = f'multipart/related; start="{START}"; boundary="x"'
    delimiters = "\r\n--x\r\n" * 2000
    request = ask(
        START_A.replace(BOUNDARY, "x"),
        part("a", "data").replace(BOUNDARY, "x") + delimiters,
        *[delimiters] * 10,
        "--x--\r\n",
        content_type=content_type,
    )
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


# -- Content-Type ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "content_type",
    [
        f"multipart/related; start={START}; boundary={BOUNDARY}",
        f"multipart/related; boundary='{BOUNDARY}'; start='{START}'",
        f'multipart/related;START="{START}";Boundary="{BOUNDARY}"',
        f'multipart/related; restart="{START}"; the-boundary-is={BOUNDARY}',
        f'text/html; start="{START}; boundary={BOUNDARY}"',
        'multipart/related; start="start=-part"; boundary="front=ier"',
    ],
)
def test_parameters_of_the_content_type_are_read_in_many_forms(ask, client, content_type):
    request = ask(START_A, part("a", "data") + CLOSING, content_type=content_type)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


@pytest.mark.parametrize(
    "content_type",
    [
        None,
        "",
        "text/html",
        f'multipart/related; boundary="{BOUNDARY}"',
        f'multipart/related; start="{START}"',
        f'multipart/related; start="{START}"; boundary=""',
        f"multipart/related; start={START}; boundary = {BOUNDARY}",
        f'multipart/related; start="other"; boundary="{BOUNDARY}"',
        f'multipart/related; start="{START}"; boundary="other"',
    ],
    ids=str,
)
def test_content_type_without_usable_parameters_loses_the_answer(ask, client, content_type):
    request = ask(START_A, part("a", "data") + CLOSING, content_type=content_type)
    # Whatever was wrong with the head, the last finding is that the answer is missing.
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


def test_missing_start_parameter_is_told_when_all_parts_came_nevertheless(ask):
    # A part without a name is the start part then: neither has an id.
    nameless = f"{DELIMITER}\r\nX: y\r\n\r\n{document('a')}\r\n"
    content_type = f'multipart/related; boundary="{BOUNDARY}"'
    request = ask(nameless, part("a", "data") + CLOSING, content_type=content_type)
    expect_delivered_and_failed(request, b"data", 2001, "'start' attribute not found")


def test_content_type_may_stand_in_any_line_and_case(ask, client):
    headers = [["X-Long", "y" * 5000], ["cOnTeNt-TyPe", CONTENT_TYPE]]
    request = ask(START_A, part("a", "data") + CLOSING, content_type=None, headers=headers)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


# -- status and other lines of the head ------------------------------------------------------------


def head_text(reason):
    """The text of a failed status: the head behind the code."""
    return f"{reason}\r\nContent-Type: {CONTENT_TYPE}\r\nTransfer-Encoding: chunked"


@pytest.mark.parametrize(
    "status, code",
    [
        (400, 2001),
        (401, 2001),
        (402, 2204),
        (403, 2001),
        (404, 2204),
        (407, 2204),
        (451, 2204),
        (499, 2204),
        (500, 2001),
        (503, 2001),
        (599, 2001),
        (999, 2001),
    ],
)
def test_answer_with_a_failed_status_is_delivered_and_then_reported(ask, status, code):
    request = ask(START_A, part("a", "data") + CLOSING, status=status, reason="No such luck")
    expect_delivered_and_failed(request, b"data", code, head_text("No such luck"))


@pytest.mark.parametrize("status", [200, 201, 203, 206, 226, 299, 300, 301, 302, 308, 399])
def test_status_below_400_is_as_good_as_200(ask, client, status):
    headers = [["Location", "https://elsewhere.example/"]]
    request = ask(START_A, part("a", "data") + CLOSING, status=status, headers=headers)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


@pytest.mark.parametrize("status", [204, 304, 200, 400, 404, 401, 500])
def test_status_without_a_multipart_body_is_a_missing_answer(ask, client, status):
    framing = "none" if status in (204, 304) else "length"
    request = ask("", status=status, content_type="text/plain", framing=framing)
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


def test_undelivered_answer_with_a_failed_status_is_lost(client, server):
    server.queue(answer(START_A, part("a", "data") + CLOSING, status=500, reason="Sorry"))
    request = Request(client, kind="other").give(b"question")

    assert request.wait_for_failure() == (2001, head_text("Sorry"))
    assert request.ask_error() == 41
    expect_no_error(client)


def test_latin_1_reason_of_a_failed_status_is_made_valid_text(ask):
    reason = {"latin1": "Nicht verf\xfcgbar \xa9"}
    request = ask(START_A, part("a", "data") + CLOSING, status=503, reason=reason)
    expect_delivered_and_failed(request, b"data", 2001, head_text("Nicht verf\ufffdgbar \ufffd"))


def test_utf_8_reason_of_a_failed_status_is_kept(ask):
    reason = "Nicht verf\xfcgbar \u20ac"
    request = ask(START_A, part("a", "data") + CLOSING, status=503, reason=reason)
    expect_delivered_and_failed(request, b"data", 2001, head_text(reason))


def test_reason_may_be_empty_and_long(ask, client):
    request = ask(START_A, part("a", "data") + CLOSING, status=500, reason="")
    expect_delivered_and_failed(request, b"data", 2001, head_text(""))
    request = ask(START_A, part("a", "data") + CLOSING, status=500, reason="why " * 5000)
    expect_delivered_and_failed(request, b"data", 2001, head_text("why " * 5000))


@pytest.mark.parametrize(
    "interim",
    [
        [100],
        [102, 103],
        [100] * 10,
        [{"status": 103, "headers": [["Link", "</x>; rel=preload"], ["Content-Length", "7"]]}],
    ],
    ids=str,
)
def test_interim_heads_do_not_count(ask, client, interim):
    request = ask(START_A, part("a", "data") + CLOSING, interim=interim)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


@pytest.mark.parametrize("framing", ["chunked", "length", "close"])
def test_body_may_be_framed_in_every_way(ask, client, framing):
    request = ask(START_A + part("a", "data") + CLOSING, framing=framing)
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_old_version_of_http_is_accepted(ask, client):
    body = START_A + part("a", "data") + CLOSING
    request = ask(body, version="HTTP/1.0", framing="close")
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_trailers_of_a_chunked_body_never_reach_the_answer(ask, client):
    body = START_A + part("a", "data") + CLOSING
    chunks = f"{len(body):x}\r\n{body}\r\n0\r\nX-Trailer: y\r\n\r\n"
    request = ask(chunks, framing="raw", headers=[["Transfer-Encoding", "chunked"]])
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


# -- answers that break off ------------------------------------------------------------------------


def test_part_that_breaks_off_counts_as_complete_for_a_waiting_client(ask, client, server):
    # The request has its answer then, and the failure names nobody.
    request = ask(START_A, part("a", "half"), wait("go"), {"do": "reset"})
    assert request.first.wait() == (b"half", PART_CONTINUES)

    assert next_chunk(request, "go", server).wait() == (b"", RESPONSE_COMPLETE)
    code, text, keys = client.wait_for_signal("errorSignal")
    assert (code, keys) == (2204, DELIVERED)
    assert text != ""
    expect_no_error(client)


def test_part_that_breaks_off_is_lost_for_a_client_that_does_not_wait(ask, client, server):
    request = ask(START_A, part("a", "half"), wait("go"), {"do": "reset"})
    assert request.first.wait() == (b"half", PART_CONTINUES)

    server.give("go")
    assert request.wait_for_failure()[0] == 2204
    assert request.ask_error() == 41
    expect_no_error(client)


def test_held_call_of_a_failed_request_is_never_answered(ask, client, server):
    request = ask(START_A, wait("go"), CLOSING)
    server.give("go")

    assert request.wait_for_failure() == MISSING
    expect_no_error(client)
    assert not request.first.done


def test_answers_that_were_delivered_before_a_failure_stay_delivered(make_client, platform, server):
    platform.write(connections=[(2, True, False)])
    first, second = make_client(), make_client()
    first.wait_for_status(1)
    results = start_part(("1", "a"), ("2", "b")) + "\r\n"
    body = [results, part("a", "data") + "\r\n" + part("b", "ha"), wait("go"), {"do": "reset"}]
    server.queue(answer(*body))
    unlucky = Request(second, attached=True, kind="other")
    lucky = Request(first, kind="other")
    pending = lucky.ask()
    for request in (lucky, unlucky):
        request.give(b"question")
    assert pending.wait() == (b"data", RESPONSE_COMPLETE)

    server.give("go")
    code, _, keys = first.wait_for_signal("errorSignal")
    assert (code, keys) == (2204, unlucky.key)
    expect_no_error(first)
