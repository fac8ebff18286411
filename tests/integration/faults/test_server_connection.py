"""Servers that end the connection: refused, reset, cut off, and closed in order, at every point."""

import dataclasses
import socket

from harness import curl, matrix
from harness.client import PART_CONTINUES
from harness.fault import (
    DELIVERED,
    TRANSPORT,
    Answered,
    Asks,
    Chunk,
    Event,
    Failed,
    Fault,
    Seen,
    one_request,
    rows,
    sending,
)
from harness.response import CLOSING, answer, part, start_part, wait

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

UPLOAD = b"x" * 300_000  # more than fits into the buffers on the way
START = start_part("a") + "\r\n"

# The ends of a connection: in order, with the closing message of TLS; by a FIN alone; by a reset.
ENDS = {"closes": "close", "ends-without-goodbye": "cut", "resets": "reset"}
HANDSHAKE_BROKEN = {end: {curl.SSL_CONNECT_ERROR} for end in ENDS}
NO_ANSWER = {
    "closes": {curl.GOT_NOTHING, curl.SEND_ERROR},
    "ends-without-goodbye": {curl.GOT_NOTHING, curl.SEND_ERROR},
    "resets": {curl.RECV_ERROR, curl.SEND_ERROR},
}
HALF_AN_ANSWER = {
    "closes": {curl.PARTIAL_FILE},
    "ends-without-goodbye": {curl.PARTIAL_FILE},
    "resets": {curl.RECV_ERROR},
}

# Where no byte of the answer has reached its client.
POINTS = {
    "before-the-handshake": ({"at": "tunnel"}, HANDSHAKE_BROKEN),
    "when-the-client-has-greeted": ({"at": "client-hello"}, HANDSHAKE_BROKEN),
    "in-the-middle-of-the-handshake": ({"at": "server-flight", "bytes": 100}, HANDSHAKE_BROKEN),
    "after-the-handshake": ({"at": "handshake"}, NO_ANSWER),
    "after-the-request-head": ({"at": "head"}, NO_ANSWER),
    "at-the-first-byte-of-the-upload": ({"at": "upload"}, NO_ANSWER),
    "in-the-middle-of-the-upload": ({"at": "upload", "bytes": 100_000}, NO_ANSWER),
    "after-the-upload": ({"at": "upload-end"}, NO_ANSWER),
    "after-the-response-head": ({"at": "response-head"}, HALF_AN_ANSWER),
}


def before_the_answer():
    for point, (step, texts) in POINTS.items():
        for end, action in ENDS.items():
            yield Fault(
                f"{end}-{point}",
                server={"on": [{**step, "do": action}]},
                act=sending(UPLOAD),
                sees=[Failed(TRANSPORT, texts[end])],
            )


def within_the_answer():
    """The client has what came; it does not ask again, so its request fails."""
    places = {
        "in-the-start-part": ([START[:60]], None),
        "before-the-first-data-part": ([START], None),
        "in-a-part": ([START, part("a", "half")], b"half"),
        "in-a-delimiter": ([START, part("a", "data"), "\r\n--fron"], b"data"),
        "before-the-closing-delimiter": ([START, part("a", "data")], b"data"),
    }
    for place, (pieces, seen) in places.items():
        for end, action in ENDS.items():
            chunks = [Chunk(seen, PART_CONTINUES)] if seen else []
            yield Fault(
                f"{end}-{place}",
                server=answer(*pieces, wait("go"), {"do": action}),
                sees=[*chunks, Event("go"), Failed(TRANSPORT, HALF_AN_ANSWER[end])],
            )


def before_a_waiting_client():
    """What came of the part is the part for a client that asks for more; then nobody is named."""
    for end, action in ENDS.items():
        yield Fault(
            f"{end}-in-a-part-that-is-waited-for",
            server=answer(START, part("a", "half"), wait("go"), {"do": action}),
            sees=[
                Chunk(b"half", PART_CONTINUES),
                Asks(),
                Event("go"),
                Chunk(b""),
                Failed(TRANSPORT, HALF_AN_ANSWER[end], of=DELIVERED),
            ],
        )


def after_the_answer():
    for end, action in ENDS.items():
        yield Fault(
            f"{end}-after-the-answer",
            server={"on": [{"at": "answered", "do": action}]},
            sees=[Answered()],
        )


def ends_of_an_answer_without_length():
    body = START + part("a", "data")
    yield Fault(
        "closes-an-answer-without-length",
        server=answer(body + CLOSING, framing="close"),
        sees=[Answered([b"data"])],
    )
    yield Fault(
        "closes-an-answer-without-length-before-the-closing-delimiter",
        server=answer(body, framing="close"),
        sees=[Answered([b"data"])],
    )
    # libcurl takes a missing closing message of TLS for an end like any other.
    yield Fault(
        "ends-an-answer-without-length-without-goodbye",
        server=answer(body + CLOSING, framing="close", then="cut"),
        sees=[Answered([b"data"])],
    )


@dataclasses.dataclass
class Speaks(Seen):
    """The application protocol that the handshake agreed on."""

    protocol: str | None

    def check(self, scene):
        assert scene.server.wait(scene.server.last)["tls"]["alpn"] == self.protocol


def offers():
    yield Fault(
        "offers-HTTP-2-first",
        server={"alpn": ["h2", "http/1.1"]},
        sees=[Answered(), Speaks("http/1.1")],
    )
    yield Fault("offers-HTTP-2-only", server={"alpn": ["h2"]}, sees=[Answered(), Speaks(None)])
    yield Fault(
        "offers-HTTP-2-by-an-upgrade",
        server={"answer": {"headers": [["Upgrade", "h2"], ["Connection", "Upgrade"]]}},
        sees=[Answered()],
    )
    yield Fault("offers-others-only", server={"alpn": ["spdy/3"]}, sees=[Answered(), Speaks(None)])


def refuse(scene):
    """The address is one where nobody listens."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = listener.getsockname()[1]
    scene.platform.write(proxy=("127.0.0.1", port))
    one_request(scene)


@rows(
    Fault("refuses-the-connection", act=refuse, sees=[Failed(TRANSPORT, curl.COULDNT_CONNECT)]),
    *offers(),
    *before_the_answer(),
    *within_the_answer(),
    *before_a_waiting_client(),
    *after_the_answer(),
    *ends_of_an_answer_without_length(),
)
def test_server_connection(fault, scene):
    fault.play(scene)
