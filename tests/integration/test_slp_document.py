"""The SLP response document: what it may say. Its faults stand in faults/test_server_document.py."""

import pytest

from harness import shared
from harness.client import PART_COMPLETE, RESPONSE_COMPLETE
from harness.documents import RESULT
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
GOOD_START = start_part("a") + "\r\n"
GOOD_PART = part("a", "data") + "\r\n"

@pytest.fixture
def ask(client, server):
    """Sends a request that gets the given answer; its first chunk is asked for already."""

    def ask(*pieces):
        server.queue(answer(*pieces))
        request = Request(client, kind="other")
        request.first = request.ask()
        return request.give(b"question")

    return ask


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
        pytest.param(
            slp_response(RESULT, 'status="ok"' + "".join(f' a{n}=""' for n in range(10_000))),
            id="10,000 attributes",
        ),
        pytest.param(
            f"<!-- {'x' * 10_000} -->"
            + '<!DOCTYPE x [<!ENTITY ok "ok">]>'
            + document("a").replace('"ok"', '"&ok;"'),
            id="declarations far behind the start",
        ),
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


# Takes libxml2 itself to a loop without end: entities of sevens in declarations of a parameter entity.
ENDLESS = (
    "<!DOCTYPE r [<!ENTITY a ''>"
    + "".join(f"<!ENTITY {n} '{f'&{m};' * 7}'>" for m, n in zip("abcde", "bcdef"))
    + "<!ENTITY % p '<!ATTLIST r a CDATA \"&f;\" b CDATA \"\"> '><!ENTITY % q ' &#37;p; '>%q;]>"
)
# A comment that ends for libxml2 where the character is that XML does not allow.
CROWD = "".join(f" a{n}=''" for n in range(250_000))
HIDDEN = f"<!-- \ufffe <b{CROWD}/> -->"


@pytest.mark.parametrize("hostile", [ENDLESS, HIDDEN], ids=["endless", "hidden"])
def test_hostile_document_fails_at_once_and_other_calls_are_served(ask, client, hostile):
    request = ask(start_part_with(hostile + document("a")) + "\r\n", GOOD_PART + DELIMITER + "--\r\n")

    assert client.status()
    assert request.wait_for_failure(seconds=3) == MISSING
    expect_no_error(client)
