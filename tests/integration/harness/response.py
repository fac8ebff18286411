"""Answers written out byte by byte, for tests that decide each call of the daemon's parser."""

BOUNDARY = "frontier"
DELIMITER = f"--{BOUNDARY}"
START = "start-part"
CONTENT_TYPE = f'multipart/related; type="text/xml"; start="{START}"; boundary="{BOUNDARY}"'
CLOSING = f"\r\n{DELIMITER}--\r\n"


def document(*results, status='status="ok"'):
    """An SlpResponse; a result is a content id for request 1, or (oid, content id)."""
    pairs = [("1", each) if isinstance(each, str) else each for each in results]
    elements = "".join(f'<result oid="{oid}" href="cid:{name}"/>' for oid, name in pairs)
    return slp_response(elements, status)


def slp_response(content, attributes='status="ok"'):
    """An SlpResponse element with this content, in its root element."""
    response = f"<SlpResponse {attributes}>{content}</SlpResponse>"
    return f"<SimpleLocationProtocol>{response}</SimpleLocationProtocol>"


def start_part(*results):
    """The start part without the line break that belongs to the next delimiter."""
    return start_part_with(document(*results))


def start_part_with(text):
    """A start part that holds this text."""
    return part(START, text)


def part(name, data, *headers):
    """A part from its delimiter on."""
    lines = "".join(f"{line}\r\n" for line in (f"Content-Id: {name}", *headers))
    return f"{DELIMITER}\r\n{lines}\r\n{data}"


def answer(*pieces, **values):
    """A behaviour: the answer whose body comes in these pieces, each one call of the parser."""
    return {"answer": {"content_type": CONTENT_TYPE, "body": list(pieces), **values}}


def wait(event):
    """An item between two pieces: the answer goes on when the test says so."""
    return {"do": "wait", "event": event}
