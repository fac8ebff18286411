"""Servers whose answer's head is faulty: Content-Type, folded lines, sheer size."""

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
)

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

BODY = start_part("a") + "\r\n", part("a", "data") + CLOSING
RELATED = "multipart/related"
ANSWERED = Answered([b"data"])
# Whatever was wrong with the head, the last finding is that the answer is missing.
LOST = Failed(PROTOCOL, MISSING)


def content_types_that_lose_the_answer():
    for name, content_type in {
        "without-a-value": "",
        "of-a-page": "text/html",
        "without-parameters": RELATED,
        "without-start": f'{RELATED}; boundary="{BOUNDARY}"',
        "without-boundary": f'{RELATED}; start="{START}"',
        "with-an-empty-start": f'{RELATED}; start=""; boundary="{BOUNDARY}"',
        "with-an-empty-boundary": f'{RELATED}; start="{START}"; boundary=""',
        "with-a-blank-before-the-boundary": f"{RELATED}; start={START}; boundary = {BOUNDARY}",
        "with-another-start": f'{RELATED}; start="other"; boundary="{BOUNDARY}"',
        "with-another-boundary": f'{RELATED}; start="{START}"; boundary="other"',
        "with-a-boundary-in-other-letters": f'{RELATED}; start="{START}"; boundary="FRONTIER"',
    }.items():
        yield Fault(
            f"content-type-{name}", server=answer(*BODY, content_type=content_type), sees=[LOST]
        )
    yield Fault(
        "content-type-with-a-blank-in-the-boundary",
        # The boundary ends there; the delimiters still begin with it, but none closes the answer.
        server=answer(*BODY, content_type=f'text/html; start="{START}"; boundary="fron tier"'),
        sees=[ANSWERED, Failed(PROTOCOL, "faulty MIME data", of=DELIVERED)],
    )
    yield Fault("content-type-missing", server=answer(*BODY, content_type=None), sees=[LOST])
    yield Fault(
        "content-type-misspelt",
        server=answer(*BODY, content_type=None, headers=[["Content-Typ", CONTENT_TYPE]]),
        sees=[LOST],
    )


def content_types_that_do_no_harm():
    for name, content_type in {
        "of-a-page-with-parameters": f'text/html; start="{START}; boundary={BOUNDARY}"',
        "with-unbalanced-quotes": f"{RELATED}; start=\"{START}; boundary='{BOUNDARY}",
        "with-equals-signs-in-values": f'{RELATED}; start="start=-part"; boundary="=frontier"',
        "in-other-letters": f"MULTIPART/RELATED; START={START}; BOUNDARY={BOUNDARY}",
        "with-longer-names": f"{RELATED}; restart={START}; the-boundary-is={BOUNDARY}",
        "with-100-kilobytes": f"{CONTENT_TYPE}; x={'y' * 90_000}",
    }.items():
        yield Fault(
            f"content-type-{name}",
            server=answer(*BODY, content_type=content_type),
            sees=[ANSWERED],
        )
    yield Fault(
        "content-type-twice",
        server=answer(*BODY, headers=[["Content-Type", "text/plain"]]),
        sees=[ANSWERED],
    )
    yield Fault(
        "content-type-in-another-header",
        server=answer(*BODY, content_type=None, headers=[["X-Content-Type", CONTENT_TYPE]]),
        sees=[ANSWERED],
    )


def errors_of_the_head():
    """Each finding about the head, hidden by that of the parts that were not understood."""
    start_missing = f'{RELATED}; boundary="{BOUNDARY}"'
    nameless = f"{DELIMITER}\r\nX: y\r\n\r\n{document('a')}\r\n"
    yield Fault(
        "error-start-attribute-not-found",
        # A part without a name is the start part then: neither has an id.
        server=answer(nameless, BODY[1], content_type=start_missing),
        sees=[ANSWERED, Failed(PROTOCOL, "'start' attribute not found", of=DELIVERED)],
    )
    yield Fault(
        "error-no-http-response-code",
        # libcurl reads the first number, the parser what stands behind the first blank.
        server=answer(
            *BODY,
            head=f"HTTP/2 {'9' * 30} OK\r\nContent-Type: {CONTENT_TYPE}\r\n\r\n",
            framing="raw",
            then="close",
        ),
        sees=[LOST],
    )
    yield Fault(
        "error-malformed-response",
        # Without a boundary the body is taken for a further head, which does not begin with HTTP.
        server=answer("no head\r\n\r\n", *BODY, content_type=f'text/html; start="{START}"'),
        sees=[LOST],
    )


def folded_lines():
    head = "HTTP/1.1 200 OK\r\n{}Transfer-Encoding: chunked\r\n\r\n"
    folded = head.format(
        f'Content-Type: multipart/related;\r\n start="{START}";\r\n\tboundary="{BOUNDARY}"\r\n'
    )
    yield Fault("content-type-folded", server=raw(folded), sees=[LOST])
    half = head.format(
        f'Content-Type: multipart/related; start="{START}";\r\n boundary="{BOUNDARY}"\r\n'
    )
    yield Fault("content-type-folded-before-the-boundary", server=raw(half), sees=[LOST])
    other = head.format(f"X: a\r\n b\r\n\tc\r\nContent-Type: {CONTENT_TYPE}\r\n")
    yield Fault("another-line-folded", server=raw(other), sees=[ANSWERED])
    first = head.format(f" folded\r\nContent-Type: {CONTENT_TYPE}\r\n")
    yield Fault(
        "first-line-folded",
        server=raw(first),
        sees=[Failed(TRANSPORT, curl.WEIRD_SERVER_REPLY)],
    )


def raw(head, *body):
    """An answer with this head and a chunked body."""
    chunks = "".join(f"{len(piece):x}\r\n{piece}\r\n" for piece in body or BODY)
    return answer(f"{chunks}0\r\n\r\n", head=head, framing="raw")


def strange_lines():
    for name, line in {
        "a-line-of-a-colon": ":",
        "a-line-in-latin-1": "X: \xe9",
        "a-bare-line-feed": "X: a\nY: b",
        "a-line-of-blanks": "X:          ",
    }.items():
        head = f"HTTP/1.1 200 OK\r\n{line}\r\nContent-Type: {CONTENT_TYPE}\r\n"
        item = {"latin1": head + "Transfer-Encoding: chunked\r\n\r\n"}
        yield Fault(f"head-with-{name}", server=raw(item), sees=[ANSWERED])
    yield Fault(
        "head-with-a-line-without-a-colon",
        server=raw(head_text().replace("Content-", "no colon\r\nContent-")),
        sees=[Failed(TRANSPORT, curl.WEIRD_SERVER_REPLY)],
    )
    bare = f"HTTP/1.1 200 OK\nContent-Type: {CONTENT_TYPE}\nTransfer-Encoding: chunked\n\n"
    # No empty line of CR LF: the head has no end.
    yield Fault("head-with-bare-line-feeds", server=raw(bare), sees=[LOST])
    single = list(head_text())
    yield Fault("head-one-byte-at-a-time", server=raw(single), sees=[ANSWERED])


def head_text():
    return f"HTTP/1.1 200 OK\r\nContent-Type: {CONTENT_TYPE}\r\nTransfer-Encoding: chunked\r\n\r\n"


def huge_heads():
    front, back = "HTTP/1.1 200 OK\r\n", head_text()[len("HTTP/1.1 200 OK\r\n") :]
    line = {"repeat": f"X: {'y' * 95}\r\n", "times": 2000}
    yield Fault("head-of-200-kilobytes", server=raw([front, line, back]), sees=[ANSWERED])
    yield Fault(
        "head-of-1-megabyte",
        server=raw([front, {**line, "times": 10_000}, back]),
        sees=[Failed(TRANSPORT, curl.RECV_ERROR)],
    )
    yield Fault(
        "head-of-10-megabytes-in-one-line",
        server=raw([front, "X: ", {"bytes": 10 << 20, "fill": "y"}, "\r\n", back]),
        sees=[Failed(TRANSPORT, curl.OUT_OF_MEMORY)],
    )
    yield Fault(
        "head-without-end",
        server=raw([front, {"endless": f"X: {'y' * 95}\r\n"}]),
        sees=[Failed(TRANSPORT, curl.RECV_ERROR)],
    )
    yield Fault("1,000-interim-heads", server=answer(*BODY, interim=[100] * 1000), sees=[ANSWERED])
    yield Fault(
        "100,000-interim-heads",
        server=answer(*BODY, interim=[100] * 100_000),
        sees=[Failed(TRANSPORT, curl.RECV_ERROR)],
    )


@rows(
    *content_types_that_lose_the_answer(),
    *content_types_that_do_no_harm(),
    *errors_of_the_head(),
    *folded_lines(),
    *strange_lines(),
    *huge_heads(),
)
def test_server_head(fault, scene):
    fault.play(scene)
