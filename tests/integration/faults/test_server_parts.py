"""Servers whose answer's parts are wrong, missing, too many, or cut in the wrong places."""

import dataclasses

from harness import curl, matrix
from harness.client import PART_COMPLETE, PART_CONTINUES
from harness.fault import (
    DELIVERED,
    MISSING,
    PROTOCOL,
    TRANSPORT,
    Answered,
    Asks,
    Chunk,
    Event,
    Failed,
    Fault,
    Seen,
    rows,
)
from harness.response import (
    BOUNDARY,
    CLOSING,
    DELIMITER,
    answer,
    part,
    slp_response,
    start_part,
    start_part_with,
    wait,
)

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

START = start_part("a") + "\r\n"
DATA = part("a", "data")
ANSWERED = Answered([b"data"])
LOST = Failed(PROTOCOL, MISSING)
FAULTY = "faulty MIME data"
TWO = {"connections": [(2, True, False)]}  # attached requests wait for a prepared one


@dataclasses.dataclass
class NotAnswered(Seen):
    """The client asks, and gets neither an answer nor an error."""

    def check(self, scene):
        scene.ask(self.request)
        scene.expect_clean_exchange()


@dataclasses.dataclass
class SweptUp(Seen):
    """Nothing is seen: another exchange passes."""

    def check(self, scene):
        scene.expect_clean_exchange()


def two_requests(scene):
    """Two clients ask for their answers; the second one's request travels with the first one's."""
    first, second = scene.client(), scene.client()
    first.wait_for_status(1)
    scene.request(second, attached=True)
    scene.request(first)
    scene.requests.reverse()  # in the order of the transfer
    for number in range(2):
        scene.ask(number)
    for request in scene.requests:
        request.give(b"question")


# -- ids -------------------------------------------------------------------------------------------


def strange_ids():
    stranger = part("stranger", "?") + "\r\n"
    yield Fault(
        "unknown-id-first", server=answer(START, stranger + DATA + CLOSING), sees=[ANSWERED]
    )
    yield Fault(
        "unknown-id-last",
        server=answer(START, DATA + "\r\n", stranger + DELIMITER + "--\r\n"),
        sees=[ANSWERED],
    )
    yield Fault(
        "unknown-id-in-many-pieces",
        server=answer(START, part("stranger", ""), "un", "known", "\r\n", DATA + CLOSING),
        sees=[ANSWERED],
    )
    yield Fault("unknown-id-only", server=answer(START, stranger[:-2] + CLOSING), sees=[LOST])
    yield Fault(
        "unknown-oid", server=answer(start_part(("2", "a")) + "\r\n", DATA + CLOSING), sees=[LOST]
    )
    yield Fault(
        "unknown-oid-beside-a-good-one",
        server=answer(start_part(("7", "z"), "a") + "\r\n", DATA + CLOSING),
        sees=[ANSWERED],
    )
    for name, line in {
        "in-angle-brackets": "Content-Id: <a>",
        "with-a-blank": "Content-Id: a ",
        "in-another-case": "Content-Id: A",
        "of-another-header": "Id: a",
        "missing": "X: y",
    }.items():
        body = f"{DELIMITER}\r\n{line}\r\n\r\ndata"
        yield Fault(f"id-{name}", server=answer(START, body + CLOSING), sees=[LOST])
    yield Fault(
        "id-of-15-kilobytes",
        server=answer(start_part("a" * 15_000) + "\r\n", part("a" * 15_000, "data") + CLOSING),
        sees=[ANSWERED],
    )


def repeated_ids():
    twice = DATA + "\r\n" + part("a", "more") + CLOSING
    yield Fault(
        "same-id-twice",
        # The client waits, so the first one is its whole answer.
        server=answer(
            START, DATA + "\r\n" + DELIMITER, wait("go"), "\r\n", part("a", "x") + CLOSING
        ),
        sees=[ANSWERED, Event("go"), NotAnswered()],
    )
    yield Fault(
        "same-id-twice-and-nobody-waits",
        # More parts came than were announced: the answer never counts as complete.
        server=answer(START, twice),
        act=lambda scene: scene.request().give(b"question"),
        sees=[SweptUp(), Chunk(b"datamore", PART_COMPLETE), NotAnswered()],
    )
    yield Fault(
        "same-id-announced-twice",
        server=answer(start_part("a", "a") + "\r\n", DATA + CLOSING),
        sees=[Chunk(b"data", PART_COMPLETE), LOST],
    )
    yield Fault(
        "same-id-announced-twice-and-sent-twice",
        server=answer(start_part("a", "a") + "\r\n", twice),
        sees=[Chunk(b"data", PART_COMPLETE), Chunk(b"more")],
    )
    yield Fault(
        "same-id-for-two-requests",
        # The first request in the order of the transfer gets it.
        platform=TWO,
        server=answer(start_part(("2", "a"), ("1", "a")) + "\r\n", DATA + CLOSING),
        act=two_requests,
        sees=[ANSWERED, Failed(PROTOCOL, MISSING, of=[1])],
    )


# -- what is missing -------------------------------------------------------------------------------


def missing_parts():
    yield Fault("start-part-missing", server=answer(DATA + CLOSING), sees=[LOST])
    yield Fault(
        "start-part-last", server=answer(DATA + "\r\n", start_part("a") + CLOSING), sees=[LOST]
    )
    yield Fault(
        "parts-before-and-behind-the-start-part",
        server=answer(part("a", "early") + "\r\n", START, DATA + CLOSING),
        sees=[ANSWERED],
    )
    yield Fault(
        "start-part-without-header-block",
        server=answer(f"{DELIMITER}\r\n{START[len(DELIMITER):]}", DATA + CLOSING),
        sees=[LOST],
    )
    yield Fault("status-attribute-absent", server=absent_status(), sees=[LOST])
    yield Fault(
        "status-attribute-absent-in-a-second-start-part",
        server=answer(START, DATA + "\r\n" + start_part_with(slp_response("", "")) + CLOSING),
        sees=[ANSWERED, Failed(PROTOCOL, "", of=DELIVERED)],
    )
    yield Fault("no-results", server=answer(start_part() + "\r\n", DATA + CLOSING), sees=[LOST])
    yield Fault(
        "announced-part-missing",
        server=answer(start_part("a", "b") + "\r\n", DATA + CLOSING),
        sees=[Chunk(b"data", PART_COMPLETE), LOST],
    )
    yield Fault(
        "promised-next-part-missing",
        server=answer(START, part("a", "data", "X-SLP-Next-part-ID: b") + CLOSING),
        sees=[Chunk(b"data", PART_COMPLETE), LOST],
    )
    yield Fault(
        "part-of-one-of-two-requests-missing",
        platform=TWO,
        server=answer(start_part(("1", "a")) + "\r\n", DATA + CLOSING),
        act=two_requests,
        sees=[ANSWERED, Failed(PROTOCOL, MISSING, of=[1])],
    )
    yield Fault(
        "all-parts-of-two-requests-missing",
        platform=TWO,
        server=answer(start_part() + CLOSING),
        act=two_requests,
        sees=[LOST],
    )
    yield Fault(
        "closing-delimiter-missing",
        server=answer(START, part("a", "da"), wait("go"), "ta"),
        sees=[
            Chunk(b"da", PART_CONTINUES),
            Asks(),
            Event("go"),
            Chunk(b"ta", PART_CONTINUES),
            Chunk(b""),
        ],
    )
    yield Fault("empty-body", server=answer(""), sees=[LOST])
    yield Fault("delimiters-only", server=answer((f"{DELIMITER}\r\n") * 1000), sees=[LOST])
    yield Fault("closing-delimiter-only", server=answer(CLOSING), sees=[LOST])


def absent_status():
    return {"answer": {"multipart": {"status": None}}}


# -- cuts ------------------------------------------------------------------------------------------


def faulty_data():
    """Everything arrived, and yet something stood where a part's header block is expected."""
    for name, pieces in {
        "delimiter-cut-between-CR-and-LF": [f"{DELIMITER}\r", DATA[len(DELIMITER) + 1 :] + CLOSING],
        "closing-delimiter-cut-between-its-hyphens": [DATA + f"\r\n{DELIMITER}-", "-\r\n"],
        "closing-delimiter-cut-before-its-line-feed": [DATA + f"\r\n{DELIMITER}--\r", "\n"],
        "header-block-cut": [f"{DELIMITER}\r\nX: y\r\n", "Content-Id: a\r\n\r\ndata" + CLOSING],
        "epilogue": [DATA + CLOSING + "epilogue"],
    }.items():
        yield Fault(
            name,
            server=answer(START, *pieces),
            sees=[ANSWERED, Failed(PROTOCOL, FAULTY, of=DELIVERED)],
        )


def cut_answers():
    body = START + DATA + CLOSING
    yield Fault("one-byte-at-a-time", server=answer(body, cut={"size": 1}), sees=[LOST])
    yield Fault("three-bytes-at-a-time", server=answer(body, cut={"size": 3}), sees=[LOST])
    yield Fault(
        "data-one-byte-at-a-time",
        # Only delimiters and header blocks must stay together.
        server=answer(START, part("a", ""), *"0123456789" * 50, CLOSING),
        sees=[Answered([b"0123456789" * 50])],
    )
    yield Fault(
        "document-one-byte-at-a-time",
        server=answer(part("start-part", ""), *START.split("\r\n\r\n")[1], DATA + CLOSING),
        sees=[ANSWERED],
    )
    yield Fault(
        "delimiter-cut-behind-a-part",
        # The delimiter becomes data, and the part goes on to the end.
        server=answer(START, DATA + "\r\n--fron", "tier--\r\n"),
        sees=[Answered([b"data\r\n--frontier--"])],
    )
    yield Fault(
        "delimiter-cut-before-the-start-part",
        server=answer(START[:4], START[4:], DATA + CLOSING),
        sees=[LOST],
    )
    yield Fault(
        "header-block-of-the-only-part-cut",
        server=answer(START, f"{DELIMITER}\r\nContent-Id: a\r\n", "\r\ndata" + CLOSING),
        sees=[LOST],
    )


# -- bodies that are none --------------------------------------------------------------------------


def zeros(count):
    return {"bytes": count, "fill": "zeros"}


def strange_bodies():
    yield Fault("body-of-zeros", server=answer(zeros(64 << 20)), sees=[LOST])
    yield Fault(
        "body-of-random-bytes", server=answer({"bytes": 1 << 20, "fill": "random"}), sees=[LOST]
    )
    yield Fault(
        "preamble-of-zeros", server=answer(zeros(16 << 20), START, DATA + CLOSING), sees=[ANSWERED]
    )
    yield Fault(
        "part-of-nobody-of-zeros",
        server=answer(START, part("stranger", ""), zeros(16 << 20), DATA + CLOSING),
        sees=[ANSWERED],
    )
    yield Fault(
        "epilogue-of-zeros", server=answer(START, DATA + CLOSING, zeros(16 << 20)), sees=[ANSWERED]
    )
    yield Fault(
        "start-part-of-zeros",
        server=answer(part("start-part", ""), zeros(7 << 20), "\r\n", DATA + CLOSING),
        sees=[LOST],
    )
    yield Fault(
        "body-of-delimiters",
        server=answer({"repeat": f"--{BOUNDARY}" * 1000, "times": 100}),
        sees=[LOST],
    )
    yield Fault("body-in-one-piece", server=answer(START + DATA + CLOSING), sees=[ANSWERED])
    yield Fault(
        "length-that-is-too-large",
        server=answer(
            START, DATA, framing="raw", headers=[["Content-Length", "99999"]], then="close"
        ),
        sees=[Chunk(b"data", PART_CONTINUES), Failed(TRANSPORT, curl.PARTIAL_FILE)],
    )
    yield Fault(
        "chunk-size-that-is-none",
        server=answer("xyz\r\n", framing="raw", headers=[["Transfer-Encoding", "chunked"]]),
        sees=[Failed(TRANSPORT, curl.RECV_ERROR)],
    )


@rows(
    *strange_ids(),
    *repeated_ids(),
    *missing_parts(),
    *faulty_data(),
    *cut_answers(),
    *strange_bodies(),
)
def test_server_parts(fault, scene):
    fault.play(scene)
