"""Servers whose SLP response document is faulty or hostile."""

import contextlib
import dataclasses
import socket

import pytest

from harness import matrix
from harness.documents import FAULTS, RESULT
from harness.fault import (
    DELIVERED,
    MISSING,
    PROTOCOL,
    Answered,
    Failed,
    Fault,
    rows,
)
from harness.open_watch import AddressWatch, FileWatch
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

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

GOOD_START = start_part("a") + "\r\n"
GOOD_PART = part("a", "data") + "\r\n"
END = DELIMITER + "--\r\n"
ANSWERED = Answered([b"data"])
LOST = Failed(PROTOCOL, MISSING)


def start_part_holding(item):
    """A start part of one piece, whatever kind of item its document is."""
    return {"join": [part(START, ""), item]}


def rejected_documents():
    """The requests get no ids from such a document, and that is the last finding."""
    for name, (item, _) in FAULTS.items():
        yield Fault(
            f"document-{name}".replace(" ", "-"),
            server=answer({"join": [start_part_holding(item), "\r\n", GOOD_PART]}, END),
            sees=[LOST],
        )


def rejected_second_documents():
    """When the first document was good and all parts have come, the second one's fault is told."""
    for name, (item, text) in FAULTS.items():
        yield Fault(
            f"second-document-{name}".replace(" ", "-"),
            server=answer(GOOD_START, {"join": [GOOD_PART, start_part_holding(item), CLOSING]}),
            sees=[ANSWERED, Failed(PROTOCOL, text, of=DELIVERED)],
        )
    # A piece that looks like a further head makes the parser forget what came before it.
    headless = f"{DELIMITER}HTTP: x\r\nContent-Id: {START}\r\n\r\n<Sim"
    yield Fault(
        "second-document-without-header-block",
        server=answer(GOOD_START, GOOD_PART + headless, f"HTTP{CLOSING}"),
        sees=[ANSWERED, Failed(PROTOCOL, "Invalid SLP header part", of=DELIVERED)],
    )
    busy = start_part_with(slp_response("", 'status="busy"'))
    yield Fault(
        "second-document-and-status-503",
        server=answer(GOOD_START, GOOD_PART + busy + CLOSING, status=503),
        sees=[ANSWERED, Failed(PROTOCOL, "busy", of=DELIVERED)],
    )


def large_documents():
    for name, text in {
        "2-megabyte-comment": slp_response(f"{RESULT}<!-- {'x' * (2 << 20)} -->"),
        "20,000-results": slp_response(RESULT + '<result oid="7" href="cid:z"/>' * 20_000),
        "attribute-of-1-megabyte": slp_response(RESULT.replace("/>", f' x="{"y" * (1 << 20)}"/>')),
    }.items():
        body = start_part_with(text) + "\r\n", GOOD_PART + END
        yield Fault(f"document-with-a-{name}", server=answer(*body), sees=[ANSWERED])
    for name, text in {
        "100,000-attributes": slp_response(
            RESULT.replace("/>", "".join(f' a{n}=""' for n in range(100_000)) + "/>")
        ),
        "garbage-behind-11,000-attributes": document("a").replace(
            "SlpResponse ", "SlpResponse " + "".join(f'a{n}="" ' for n in range(11_000)), 1
        )
        + "garbage <",
        "declarations-of-40,000-bytes": f"<!DOCTYPE x [{' ' * 40_000}]>" + document("a"),
        "700,000-names": slp_response(RESULT + "".join(f"<a{n}/>" for n in range(700_000))),
        "element-name-of-7-megabytes": f"<{'x' * (7 << 20)}/>",
    }.items():
        item = {"join": [part(START, ""), text, "\r\n", GOOD_PART]}
        yield Fault(f"document-with-{name}", server=answer(item, END), sees=[LOST])
    for name, item in {
        "an-attribute-of-20-megabytes": f'<x y="{"z" * (20 << 20)}"/>',
        "text-of-9-megabytes": slp_response(RESULT + "x" * (9 << 20)),
        "no-end": {"bytes": 20 << 20, "fill": "<!-- -->"},
    }.items():
        yield Fault(
            f"document-with-{name}",
            server=answer(part(START, ""), item, "\r\n" + GOOD_PART, END),
            sees=[Failed(PROTOCOL, "could not parse document")],
        )


# -- what a document asks to be fetched ------------------------------------------------------------


@dataclasses.dataclass
class Outside:
    """A file and an address that a document names, and who looks at them."""

    file: object
    address: object
    path: object

    def place(self, kind):
        return {
            "path": str(self.path),
            "file-url": f"file://{self.path}",
            "http-url": f"http://127.0.0.1:{self.address.port}/x",
            "ftp-url": f"ftp://127.0.0.1:{self.address.port}/x",
        }[kind]

    def close(self):
        self.file.close()
        self.address.close()


@pytest.fixture(name="outside")
def fixture_outside(tmp_path):
    path = tmp_path / "outside.dtd"
    path.write_text(f'<!ENTITY e "ok"><!ATTLIST result oid CDATA "1">{RESULT}', "utf-8")
    with contextlib.closing(Outside(FileWatch(path), AddressWatch(), path)) as outside:
        yield outside


PLACES = ["path", "file-url", "http-url", "ftp-url"]
GOOD = slp_response(f"{RESULT}&e;")
FETCHES = {
    "external-entity": ('<!DOCTYPE x [<!ENTITY e SYSTEM "{}">]>' + GOOD, ANSWERED),
    "public-entity": ('<!DOCTYPE x [<!ENTITY e PUBLIC "-//x//y" "{}">]>' + GOOD, ANSWERED),
    "external-entity-in-an-attribute": (
        '<!DOCTYPE x [<!ENTITY e SYSTEM "{}">]>' + document("a").replace('"ok"', '"&e;"'),
        LOST,
    ),
    "external-subset": ('<!DOCTYPE x SYSTEM "{}">' + document("a"), ANSWERED),
    "parameter-entity": (
        '<!DOCTYPE x [<!ENTITY % p SYSTEM "{}"> %p;]>' + document("a"),
        ANSWERED,
    ),
    "inclusion": (
        slp_response(
            RESULT
            + '<i:include xmlns:i="http://www.w3.org/2001/XInclude" href="{}" parse="text"/>'
        ),
        LOST,
    ),
    "style-sheet": ('<?xml-stylesheet type="text/xsl" href="{}"?>' + document("a"), ANSWERED),
    "schema": (
        document("a").replace(
            "Protocol>",
            'Protocol xmlns:s="http://www.w3.org/2001/XMLSchema-instance" s:schemaLocation="x {}">',
            1,
        ),
        ANSWERED,
    ),
}


def fetching_documents():
    for name, (text, seen) in FETCHES.items():
        for place in PLACES:
            yield Fault(f"document-with-{name}-by-{place}", server=(text, place), sees=[seen])


@rows(*rejected_documents(), *rejected_second_documents(), *large_documents())
def test_server_document(fault, scene):
    fault.play(scene)


@rows(*fetching_documents())
def test_server_document_fetches_nothing(fault, scene, outside):
    text, place = fault.server
    whole = text.replace("{}", outside.place(place))
    body = start_part_with(whole) + "\r\n" + GOOD_PART, END
    dataclasses.replace(fault, server=answer(*body)).play(scene)

    assert not outside.file.was_opened()
    assert not outside.address.was_visited()


def test_watches_notice_what_they_watch(outside):
    outside.path.read_bytes()
    with socket.create_connection(("127.0.0.1", outside.address.port)):
        pass
    assert outside.file.was_opened()
    assert outside.address.was_visited()
    assert not outside.file.was_opened()
    assert not outside.address.was_visited()
