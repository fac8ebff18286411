"""Servers that answer with a status that is not 200, and heads that are none."""

from harness import curl, matrix
from harness.fault import (
    DELIVERED,
    MISSING,
    PROTOCOL,
    TRANSPORT,
    Answered,
    Failed,
    Fault,
    rows,
)
from harness.response import CLOSING, CONTENT_TYPE, answer, part, start_part

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

BODY = start_part("a") + "\r\n", part("a", "data") + CLOSING
ANSWERED = Answered([b"data"])
LOST = Failed(PROTOCOL, MISSING)

# What the failed statuses are called on the bus.
REFUSALS = {
    400: PROTOCOL,
    401: PROTOCOL,
    402: TRANSPORT,
    403: PROTOCOL,
    404: TRANSPORT,
    407: TRANSPORT,
    499: TRANSPORT,
    500: PROTOCOL,
    503: PROTOCOL,
    599: PROTOCOL,
}


def told(reason):
    """The text of a failed status: the head behind the code."""
    return f"{reason}\r\nContent-Type: {CONTENT_TYPE}\r\nTransfer-Encoding: chunked"


def failed_statuses():
    for status, code in REFUSALS.items():
        yield Fault(
            f"status-{status}-with-a-valid-answer",
            server=answer(*BODY, status=status, reason="No such luck"),
            sees=[ANSWERED, Failed(code, told("No such luck"), of=DELIVERED)],
        )
        yield Fault(
            f"status-{status}-with-a-page",
            server={"answer": {"status": status, "content_type": "text/html", "body": "<p>no</p>"}},
            sees=[LOST],
        )
        yield Fault(
            f"status-{status}-without-a-body",
            server={
                "answer": {
                    "status": status,
                    "content_type": None,
                    "body": "",
                    "framing": "length",
                }
            },
            sees=[LOST],
        )


def reasons():
    """Whatever stands behind the code of a failed status, its text is valid on the bus."""
    for name, reason, text in [
        ("latin-1", {"latin1": "Nicht verf\xfcgbar \xa9"}, "Nicht verf\ufffdgbar \ufffd"),
        ("utf-8", "Nicht verf\xfcgbar \u20ac", "Nicht verf\xfcgbar \u20ac"),
        ("half-a-sign", {"hex": "4e6f20e282"}, "No \ufffd\ufffd"),
        ("no-characters", {"hex": "c0 ed a0 f4 90"}, "\ufffd" * 5),
        ("empty", "", ""),
        ("20,000-signs", "why " * 5000, "why " * 5000),
    ]:
        yield Fault(
            f"status-503-with-a-reason-of-{name}",
            server=answer(*BODY, status=503, reason=reason),
            sees=[ANSWERED, Failed(PROTOCOL, told(text), of=DELIVERED)],
        )


def statuses_below_400():
    yield Fault("status-204", server=answer("", status=204), sees=[LOST])
    yield Fault(
        "status-204-with-an-answer",
        server=answer(*BODY, status=204, framing="chunked"),
        sees=[LOST],
    )
    moved = [["Location", "https://elsewhere.example/"]]
    yield Fault(
        "status-301-with-a-valid-answer",
        server=answer(*BODY, status=301, headers=moved),
        sees=[ANSWERED],
    )
    yield Fault(
        "status-301-with-a-page",
        server=answer("moved", status=301, headers=moved, content_type="text/html"),
        sees=[LOST],
    )


def interim_statuses():
    for name, interim in {
        "100": [100],
        "103": [103],
        "103-with-headers": [
            {"status": 103, "headers": [["Link", "</x>"], ["Content-Length", "7"]]}
        ],
        "100-ten-times": [100] * 10,
    }.items():
        yield Fault(f"status-{name}-first", server=answer(*BODY, interim=interim), sees=[ANSWERED])
    for status in (100, 103):
        yield Fault(
            f"status-{status}-and-then-the-end",
            server=answer("", status=status, content_type=None, framing="raw", then="close"),
            sees=[Failed(TRANSPORT, curl.GOT_NOTHING)],
        )
        yield Fault(
            f"status-{status}-with-an-answer",
            server=answer(*BODY, status=status, then="close"),
            sees=[Failed(TRANSPORT, curl.UNSUPPORTED_PROTOCOL)],
        )


def statuses_that_are_none():
    for status in ("0", "000", "099", "99999", "abc", "", "9" * 30, "-200", "20"):
        yield Fault(
            f"status-{status or 'nothing'}",
            server=answer(*BODY, status=status, then="close"),
            sees=[Failed(TRANSPORT, curl.UNSUPPORTED_PROTOCOL)],
        )
    yield Fault(
        "status-999",
        server=answer(*BODY, status="999", reason="x"),
        sees=[ANSWERED, Failed(PROTOCOL, told("x"), of=DELIVERED)],
    )


def heads_that_are_none():
    for name, text in {
        "SIP": "SIP/2.0 200 OK",
        "ICY": "ICY 200 OK",
        "HTTP-0.9": "HTTP/0.9 200 OK",
        "a-question-mark": "?",
        "an-empty-line": "",
        "HTTP-alone": "HTTP",
    }.items():
        yield Fault(
            f"head-of-{name}",
            server=answer(*BODY, head=f"{text}\r\n\r\n", framing="raw", then="close"),
            sees=[Failed(TRANSPORT, curl.UNSUPPORTED_PROTOCOL)],
        )
    nul = {"hex": b"HTTP/1.1 200 OK\r\nX: \0\r\n\r\n".hex()}
    yield Fault(
        "head-with-a-NUL-byte",
        server=answer(*BODY, head=nul, framing="raw", then="close"),
        sees=[Failed(TRANSPORT, curl.WEIRD_SERVER_REPLY)],
    )


@rows(
    *failed_statuses(),
    *reasons(),
    *statuses_below_400(),
    *interim_statuses(),
    *statuses_that_are_none(),
    *heads_that_are_none(),
)
def test_server_status(fault, scene):
    fault.play(scene)
