"""What --check-answer says of recorded answers; the daemon says the same of them."""

import dataclasses
import subprocess

import pytest

from harness.request import Request
from harness.settings import BUILD_DIR, TEST_SERVER

CONTENT_TYPE = 'multipart/related; type="text/xml"; start="doc"; boundary="b-1"'
ROOT_ELEMENT = "<SimpleLocationProtocol>{}</SimpleLocationProtocol>"
RESULT = '<result oid="1" href="cid:a"/>'
MISSING = 'code 1003. Clients get errorSignal 2001, "missing MIME parts"'
UNDERSTOOD = "The daemon understands this answer."


def head(*lines, status="200 OK", content_type=CONTENT_TYPE):
    lines = [*lines, f"Content-Type: {content_type}"] if content_type else lines
    return "\r\n".join([f"HTTP/1.1 {status}", *lines, "", ""])


def part(content_id, data, *headers):
    return "\r\n".join(["\r\n--b-1", *headers, f"Content-Id: {content_id}", "", data])


def document(results=RESULT, status="ok", content_id="doc"):
    response = f'<SlpResponse status="{status}">{results}</SlpResponse>'
    return part(content_id, ROOT_ELEMENT.format(response), "Content-Type: text/xml")


ANSWER = part("a", "here you are")
END = "\r\n--b-1--\r\n"
BODY = document() + ANSWER + END


@dataclasses.dataclass
class Row:
    """An answer, and what is said of it: a text of the findings, and the verdict."""

    name: str
    head: str
    body: str
    finding: str
    verdict: str = MISSING


ROWS = [
    Row("good", head(), BODY, "", UNDERSTOOD),
    Row(
        "boundary with =",
        head(content_type=CONTENT_TYPE.replace("b-1", "==b-1==")),
        BODY.replace("b-1", "==b-1=="),
        'line 2: the boundary is "==b-1==", but the daemon reads "b-1"',
    ),
    Row(
        "boundary with a blank",
        head(content_type=CONTENT_TYPE.replace("b-1", "b 1")),
        BODY.replace("b-1", "b 1"),
        'line 2: the boundary is "b 1", but the daemon reads "b"',
        'code 1003. Clients get errorSignal 2001, "faulty MIME data"',
    ),
    Row(
        "angle brackets around the id of the document",
        head(),
        document(content_id="<doc>") + ANSWER + END,
        'it is "<doc>" here; one of them is in angle brackets',
    ),
    Row(
        "angle brackets around the ids of all parts",
        head(content_type=CONTENT_TYPE.replace("doc", "<doc>")),
        document(content_id="<doc>") + part("<a>", "here you are") + END,
        'nobody expects the Content-Id "<a>"; announced is "a": one of them is in angle brackets',
    ),
    Row(
        "start-info before start",
        head(content_type=CONTENT_TYPE.replace("start=", 'start-info="x"; start=')),
        BODY,
        'the daemon finds the first "start": it reads "x"; put start in front of start-info',
    ),
    Row(
        "start-info behind start",
        head(content_type=CONTENT_TYPE + '; start-info="x"'),
        BODY,
        "",
        UNDERSTOOD,
    ),
    Row(
        "another header with content-type in its name",
        head("X-Content-Type-Options: nosniff"),
        BODY,
        'line 2: the daemon takes the first line with "content-type" in it for Content-Type',
    ),
    Row(
        "that header behind Content-Type",
        head(f"Content-Type: {CONTENT_TYPE}", "X-Content-Type-Options: nosniff", content_type=None),
        BODY,
        "",
        UNDERSTOOD,
    ),
    Row(
        "interim head that names a boundary",
        head(status="103 Early Hints", content_type='multipart/mixed; boundary="x"') + head(),
        BODY,
        "line 1: an interim head, or a proxy's, that names a boundary",
    ),
    Row("interim head", head(status="103 Early Hints", content_type=None) + head(), BODY, "", UNDERSTOOD),
    Row(
        "compressed body",
        head("Content-Encoding: gzip"),
        "\x1f\x08 what nobody can read",
        "line 2: the daemon does not ask for \"Content-Encoding: gzip\" and undoes nothing",
    ),
    Row(
        "404 with a page",
        head(status="404 Not Found", content_type="text/html"),
        "<html>no</html>",
        "line 1: the status 404 is code 43; clients read it only if nothing else is wrong",
    ),
    Row(
        "404 with an answer",
        head(status="404 Not Found"),
        BODY,
        "line 1: the status 404 is code 43",
        'code 43. Clients get errorSignal 2204, "Not Found',
    ),
    Row(
        "503 with an answer",
        head(status="503 Service Unavailable"),
        BODY,
        "line 1: the status 503 is code 55",
        'code 55. Clients get errorSignal 2001, "Service Unavailable',
    ),
    Row("no Content-Type", head(content_type=None), BODY, "line 1: the head has no Content-Type"),
    Row(
        "Content-Type in two lines",
        head(content_type=CONTENT_TYPE.replace("; boundary", ";\r\n boundary")),
        BODY,
        "line 3: the daemon reads Content-Type to the end of its line only",
    ),
    Row(
        "lines without a carriage return",
        head(),
        BODY.replace("\r\n", "\n"),
        "line 5: lines have to end in CR LF; these end in LF",
    ),
    Row("no result", head(), document("") + ANSWER + END, "the SLP document has no result"),
    Row(
        "result for another request",
        head(),
        document('<result oid="2" href="cid:a"/>') + ANSWER + END,
        "no result has the oid 1; one request without a result spoils the answer of all",
    ),
    Row(
        "percent-encoded link",
        head(),
        document('<result oid="1" href="cid:a%40b"/>') + part("a@b", "x") + END,
        'nobody expects the Content-Id "a@b"; announced is "a%40b": one of them is percent-encoded',
    ),
    Row(
        "other case",
        head(),
        document() + part("A", "x") + END,
        'nobody expects the Content-Id "A"; announced is "a": upper and lower case differ',
    ),
    Row(
        "blank behind the id",
        head(),
        document() + part("a ", "x") + END,
        "there are blanks at its end, which the daemon keeps",
    ),
    Row(
        "data before the document",
        head(),
        ANSWER + document() + END,
        "line 5: the part comes before the SLP document, which has to be the first",
    ),
    Row(
        "part that does not come",
        head(),
        document() + END,
        'the part "a" is announced for request 1 and does not come',
    ),
    Row(
        "part that nobody expects",
        head(),
        document() + part("other", "x") + ANSWER + END,
        'note: nobody expects the Content-Id "other"; the part is dropped',
        UNDERSTOOD,
    ),
    Row(
        "encoded part",
        head(),
        document() + part("a", "aGVyZQ==", "Content-Transfer-Encoding: base64") + END,
        "note: the part is encoded as base64, and the daemon decodes nothing",
        UNDERSTOOD,
    ),
    Row(
        "no closing delimiter",
        head(),
        document() + ANSWER,
        "note: the closing delimiter is missing; the daemon takes the last part for complete",
        UNDERSTOOD,
    ),
    Row(
        "refusal",
        head(),
        document(status="busy") + ANSWER + END,
        'the SLP document is refused: "busy"',
    ),
    Row(
        "document that is none",
        head(),
        part("doc", "<SimpleLocationProtocol>") + ANSWER + END,
        "the SLP document cannot be parsed as XML",
    ),
    Row(
        "announced next part",
        head(),
        document() + part("a", "x", "X-SLP-Next-part-ID: b") + part("b", "y") + END,
        "",
        UNDERSTOOD,
    ),
    Row(
        "delimiter within data",
        head(),
        document() + part("a", "here --b-1 you are") + END,
        "line 13: the delimiter is not at the beginning of a line; the daemon takes it for one",
        'code 1003. Clients get errorSignal 2001, "faulty MIME data"',
    ),
    Row(
        "another header with content-id in its name",
        head(),
        document() + part("a", "x", "X-Content-Id: y") + END,
        'the daemon takes the first "content-id" of a header block for Content-Id',
    ),
    Row(
        "two parts for a request",
        head(),
        document(RESULT + '<result oid="1" href="cid:b"/>') + ANSWER + part("b", "and more") + END,
        "",
        UNDERSTOOD,
    ),
    Row("text in front of the parts", head(), "preamble" + BODY, "", UNDERSTOOD),
    Row(
        "text behind the parts",
        head(),
        BODY + "epilogue",
        "only CR LF may come behind the closing delimiter",
        'code 1003. Clients get errorSignal 2001, "faulty MIME data"',
    ),
    Row("no delimiter", head(), "nothing here", 'the body has no delimiter "--b-1"'),
]


def check(answer, *options, status=None):
    """What is said of these bytes; the test server hands them on to the program."""
    done = subprocess.run(
        [TEST_SERVER, "--check-answer", "-", *options],
        input=answer if isinstance(answer, bytes) else answer.encode("latin-1"),
        capture_output=True,
        env={"ORVEXD_BUILD_DIR": str(BUILD_DIR), "LC_ALL": "C.UTF-8", "PATH": "/usr/bin:/bin"},
        check=False,
    )
    assert done.stderr == b"" or status == 2, done.stderr
    text = done.stdout.decode()
    assert done.returncode == (status if status is not None else 0 if UNDERSTOOD in text else 1), done
    return text + done.stderr.decode()


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row.name)
def test_answer_is_explained(row):
    text = check(row.head + row.body)
    assert row.verdict in text
    assert row.finding in text
    if not row.finding:
        assert text.splitlines()[0].startswith("request 1: a part of ")


def test_daemon_makes_of_every_answer_what_is_said(client, server):
    for row in ROWS:
        answer = {"head": {"latin1": row.head}, "framing": "raw", "body": {"latin1": row.body}}
        server.queue({"label": row.name, "answer": {**answer, "then": "close"}})
        request = Request(client, kind="other").give(b"?")
        if row.verdict == UNDERSTOOD:
            assert request.fetch(), row.name
        else:
            code, text = request.wait_for_failure()
            assert f'errorSignal {code}, "{text.splitlines()[0]}'.startswith(
                row.verdict.partition("Clients get ")[2].rstrip('"')
            ), row.name


def test_chunks_are_put_together():
    chunks = "".join(f"{len(piece):x}\r\n{piece}\r\n" for piece in (BODY[:40], BODY[40:]))
    text = check(head("Transfer-Encoding: chunked") + chunks + "0\r\n\r\n")
    assert text == (
        "The body was in chunks; its lines are counted without them.\n"
        f"request 1: a part of 12 bytes\n{UNDERSTOOD}\n"
    )


def test_size_of_a_chunk_that_no_file_has_is_no_size():
    text = check(head("Transfer-Encoding: chunked") + f"{2**64 - 1:x}\r\n" + BODY, status=0)
    assert UNDERSTOOD in text


def test_chunks_that_the_recorder_has_put_together_are_no_chunks():
    assert UNDERSTOOD in check(head("Transfer-Encoding: chunked") + BODY)


def test_body_alone_wants_its_type():
    assert "there is no head" in check(BODY)
    assert check(BODY, "--content-type", CONTENT_TYPE) == f"request 1: a part of 12 bytes\n{UNDERSTOOD}\n"


def test_message_may_have_had_more_requests():
    assert "no result has the oid 2" in check(head() + BODY, "--requests", "2")


def test_delimiter_that_falls_between_two_reads_is_data():
    whole = head() + BODY
    assert UNDERSTOOD in check(whole, "--pieces", "1000")
    assert "The daemon refuses this answer" in check(whole, "--pieces", "7")


def test_text_of_the_server_does_not_reach_the_terminal_as_it_is():
    text = check(head(content_type=CONTENT_TYPE.replace("b-1", "\x1b[2J=")) + BODY)
    assert "\x1b" not in text and "\\x1b" in text


@pytest.mark.parametrize("options", [["--requests", "0"], ["--pieces", "x"], ["--unknown"], ["more"]])
def test_wrong_arguments_are_refused(options):
    assert "usage: slp-check-answer" in check(head() + BODY, *options, status=2)


def test_file_that_is_not_there_is_told():
    done = subprocess.run(
        [BUILD_DIR / "bin" / "slp-check-answer", "/nowhere"], capture_output=True, text=True, check=False
    )
    assert (done.returncode, done.stderr) == (2, "slp-check-answer: cannot read /nowhere\n")
