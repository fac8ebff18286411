"""The SLP response document: what it may say, and what becomes of its faults."""

import pytest

from harness import shared
from harness.client import PART_COMPLETE, RESPONSE_COMPLETE
from harness.request import Request, expect_no_error
from harness.response import (
    CLOSING,
    DELIMITER,
    START,
    answer,
    document,
    part,
    slp_response,
    start_part,
    start_part_with,
)

bus, server, platform, preinst, daemon, fresh = shared.FIXTURES

MISSING = (2001, "missing MIME parts")
RESULT = '<result oid="1" href="cid:a"/>'
GOOD_START = start_part("a") + "\r\n"
GOOD_PART = part("a", "data") + "\r\n"

NO_DOCUMENT = "could not parse document"
NO_ROOT = "SimpleLocationProtocol element faulty or does not exist"
NO_RESPONSE = "SlpResponse element faulty or does not exist"
STRANGE_ELEMENT = "SlpResponse included other elements than results"
NO_ATTRIBUTE = "oid or cid not found from result"
BAD_OID = "oid attribute has invalid value"
BAD_CID = "cid attribute has invalid value"
EMPTY_CID = "cid attribute has zero value"

FAULTS = {
    "empty": ("", NO_DOCUMENT),
    "no XML": ("{}", NO_DOCUMENT),
    "unclosed": (document("a")[:-1], NO_DOCUMENT),
    "two roots": (document("a") * 2, NO_DOCUMENT),
    "not UTF-8": ({"latin1": document("a").replace("ok", "\xe9")}, NO_DOCUMENT),
    "NUL bytes": ({"hex": document("a").replace("ok", "o\0k").encode().hex()}, NO_DOCUMENT),
    "unknown entity": (document("a").replace("ok", "&ok;"), NO_DOCUMENT),
    "wrong root": (document("a").replace("Location", "Position"), NO_ROOT),
    "root in lower case": (document("a").replace("SimpleL", "simpleL"), NO_ROOT),
    "empty root": ("<SimpleLocationProtocol/>", NO_RESPONSE),
    "text in the root": ("<SimpleLocationProtocol>ok</SimpleLocationProtocol>", NO_RESPONSE),
    "response in lower case": (document("a").replace("SlpR", "slpR"), NO_RESPONSE),
    "response is second": (document("a").replace("<SlpR", "<x/><SlpR"), NO_RESPONSE),
    "status in upper case": (slp_response(RESULT, 'status="OK"'), "OK"),
    "status with a blank": (slp_response(RESULT, 'status="ok "'), "ok "),
    "empty status": (slp_response(RESULT, 'status=""'), ""),
    "other status": (slp_response(RESULT, 'status="käputt &lt;1&gt;"'), "käputt <1>"),
    "no status": (slp_response(RESULT, ""), ""),
    "status in another case": (slp_response(RESULT, 'Status="ok"'), ""),
    "other element": (slp_response(f"{RESULT}<other/>"), STRANGE_ELEMENT),
    "other element first": (slp_response(f"<other/>{RESULT}"), STRANGE_ELEMENT),
    "result in upper case": (slp_response('<Result oid="1" href="cid:a"/>'), STRANGE_ELEMENT),
    "no oid": (slp_response('<result href="cid:a"/>'), NO_ATTRIBUTE),
    "no href": (slp_response('<result oid="1"/>'), NO_ATTRIBUTE),
    "neither": (slp_response(f"{RESULT}<result/>"), NO_ATTRIBUTE),
    "negative oid": (slp_response('<result oid="-1" href="cid:a"/>'), BAD_OID),
    "oid with a blank": (slp_response('<result oid="1 " href="cid:a"/>'), BAD_OID),
    "oid in hexadecimal": (slp_response('<result oid="0x1" href="cid:a"/>'), BAD_OID),
    "bad oid comes before bad cid": (slp_response('<result oid="x" href="a"/>'), BAD_OID),
    "no cid": (slp_response('<result oid="1" href="a"/>'), BAD_CID),
    "empty href": (slp_response('<result oid="1" href=""/>'), BAD_CID),
    "short href": (slp_response('<result oid="1" href="cid"/>'), BAD_CID),
    "blank before cid": (slp_response('<result oid="1" href=" cid:a"/>'), BAD_CID),
    "nothing behind cid": (slp_response('<result oid="1" href="cid:"/>'), EMPTY_CID),
    "second result": (slp_response(RESULT + '<result oid="1" href="CID:"/>'), EMPTY_CID),
    "billion laughs": (
        "<!DOCTYPE r ["
        + '<!ENTITY a "0123456789">'
        + "".join(f'<!ENTITY {n} "{f"&{m};" * 10}">' for m, n in zip("abcdefghi", "bcdefghij"))
        + "]>"
        + document("a").replace("ok", "&j;"),
        NO_DOCUMENT,
    ),
    "10,000 nested elements": ("<x>" * 10_000 + "</x>" * 10_000, NO_DOCUMENT),
}


@pytest.fixture
def ask(client, server):
    """Sends a request that gets the given answer; its first chunk is asked for already."""

    def ask(*pieces):
        server.queue(answer(*pieces))
        request = Request(client, kind="other")
        request.first = request.ask()
        return request.give(b"question")

    return ask


def start_part_holding(item):
    """A start part of one piece, whatever kind of item its document is."""
    return {"join": [part(START, ""), item]}


def test_every_fault_of_the_document_is_overwritten_by_the_parts_that_are_missing(ask, client):
    for name, (item, _) in FAULTS.items():
        first = {"join": [start_part_holding(item), "\r\n", GOOD_PART]}
        request = ask(first, DELIMITER + "--\r\n")
        assert request.wait_for_failure() == MISSING, name
        assert not request.first.done
    expect_no_error(client)


@pytest.mark.parametrize("item, text", FAULTS.values(), ids=FAULTS)
def test_fault_of_a_second_document_is_told_when_all_parts_have_come(ask, client, item, text):
    request = ask(GOOD_START, {"join": [GOOD_PART, start_part_holding(item), CLOSING]})

    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    assert client.wait_for_signal("errorSignal") == (2001, text, "")
    expect_no_error(client)


def test_start_part_that_loses_its_header_block_is_invalid(ask, client):
    # A piece that looks like a further head makes the parser forget what came before it.
    second = f"{DELIMITER}HTTP: x\r\nContent-Id: {START}\r\n\r\n<Sim"
    request = ask(GOOD_START, GOOD_PART + second, f"HTTP{CLOSING}")

    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    assert client.wait_for_signal("errorSignal") == (2001, "Invalid SLP header part", "")
    expect_no_error(client)


def test_fault_of_the_document_replaces_that_of_the_status_line(ask, client, server):
    second = start_part_with(slp_response("", 'status="busy"'))
    server.queue(answer(GOOD_START, GOOD_PART + second + CLOSING, status=503))
    request = Request(client, kind="other")
    first = request.ask()
    request.give(b"question")

    assert first.wait() == (b"data", RESPONSE_COMPLETE)
    assert client.wait_for_signal("errorSignal") == (2001, "busy", "")


# -- what is accepted ------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "text",
    [
        pytest.param(slp_response('<result oid="01" href="cid:a"/>'), id="oid with zeros"),
        pytest.param(slp_response('<result oid="1" href="CiD:a"/>'), id="cid in any case"),
        pytest.param(
            slp_response(f'{RESULT}<result oid="7" href="cid:z"/>'), id="oid of no request"
        ),
        pytest.param(slp_response(f'{RESULT}<result oid="" href="cid:z"/>'), id="empty oid"),
        pytest.param(
            slp_response(f'{RESULT}<result oid="99999999999" href="cid:z"/>'), id="oid too long"
        ),
        pytest.param(
            slp_response(f"<!-- a --> text {RESULT}<?pi?> more <![CDATA[x]]>"), id="no elements"
        ),
        pytest.param(
            slp_response('<result oid="1" href="cid:a" status="bad"><other/></result>'),
            id="more in a result",
        ),
        pytest.param(
            document("a").replace("</SlpResponse>", "</SlpResponse><SlpResponse/>"),
            id="more in the root",
        ),
        pytest.param(
            document("a").replace("Protocol>", 'Protocol xmlns="urn:x" version="9">', 1),
            id="any namespace",
        ),
        pytest.param(
            '<s:SimpleLocationProtocol xmlns:s="urn:s"><s:SlpResponse status="ok">'
            '<s:result oid="1" href="cid:a"/></s:SlpResponse></s:SimpleLocationProtocol>',
            id="prefixes",
        ),
        pytest.param('<?xml version="1.0" encoding="UTF-8"?>\n' + document("a"), id="declaration"),
        pytest.param(
            '<!DOCTYPE x [<!ENTITY ok "ok">]>' + document("a").replace('"ok"', '"&ok;"'),
            id="harmless entity",
        ),
        pytest.param(slp_response(f"{RESULT}<!-- {'x' * 2_000_000} -->"), id="two megabytes"),
    ],
)
def test_document_is_accepted(ask, client, text):
    request = ask(start_part_with(text) + "\r\n", GOOD_PART + DELIMITER + "--\r\n")
    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_several_results_with_one_oid_announce_parts_in_their_order(ask, client):
    text = slp_response(RESULT + '<result oid="2" href="cid:x"/><result oid="1" href="CID:B"/>')
    parts = part("B", "second") + "\r\n" + GOOD_PART
    request = ask(start_part_with(text) + "\r\n", parts + DELIMITER + "--\r\n")

    # The parts are delivered in the order of their arrival.
    assert request.first.wait() == (b"second", PART_COMPLETE)
    assert request.fetch_part() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_response_without_results_is_a_missing_answer(ask, client):
    request = ask(start_part_with(slp_response("")) + "\r\n", GOOD_PART + DELIMITER + "--\r\n")
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)


def test_external_entity_is_not_fetched(ask, client, tmp_path):
    secret = tmp_path / "secret"
    secret.write_text("ok")
    text = f'<!DOCTYPE x [<!ENTITY ok SYSTEM "file://{secret}">]>'
    text += slp_response(f"{RESULT}&ok;")
    request = ask(start_part_with(text) + "\r\n", GOOD_PART + DELIMITER + "--\r\n")

    assert request.first.wait() == (b"data", RESPONSE_COMPLETE)
    expect_no_error(client)


def test_start_part_comes_in_many_pieces(client, server):
    # Only the header block must stay together.
    text = start_part(*[f"p{number}" for number in range(200)]) + "\r\n"
    parts = "".join(part(f"p{number}", str(number)) + "\r\n" for number in range(200))
    header = text.index("\r\n\r\n") + 4
    cuts = list(range(header, len(text), 7))
    server.queue(answer(text + parts + DELIMITER + "--\r\n", cut={"at": [*cuts, len(text)]}))

    expected = [str(number).encode() for number in range(200)]
    assert client.exchange(b"question", kind="other") == expected


def test_later_start_part_adds_to_what_was_announced(ask, client):
    first = start_part("never", "a") + "\r\n"
    parts = part("a", "one") + "\r\n" + start_part("b") + "\r\n" + part("b", "two")
    request = ask(first, parts + CLOSING)

    # Results add up: what the first document promised is still expected.
    assert request.first.wait() == (b"one", PART_COMPLETE)
    assert request.wait_for_failure() == MISSING
    expect_no_error(client)
