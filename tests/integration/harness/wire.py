"""What the request body must look like on the wire, composed independently of the daemon."""

import re

LIMIT = 64500  # bytes of a message taken at a time: libcurl's buffer less a reserve of 1024
CAPACITY = 65524  # libcurl's buffer
BOUNDARY_SIZE = 70
NAMESPACE = "http://slp.kelvra.example/slp/2.0"
TERMINAL = {
    "type": "terminal",
    "platform": "linux-test",
    "swId": "oem.ubuntu",
    "swVersion": "3.0.1415",
    "imsi": "262011234567890",
    "imei": "490154203237518",
    "fwId": "fw-1.0",
}
IDENTITY = " ".join(f'{name}="{value}"' for name, value in TERMINAL.items())


def normalized(piece):
    """Bare line feeds become CR LF, except one at the very front."""
    return re.sub(rb"(?<=[^\r])\n", b"\r\n", piece)


def slices(data, text=True):
    """Data that are there as a whole, as they leave the daemon: one HTTP chunk per entry."""
    chunks = []
    for at in range(0, len(data), LIMIT):
        piece = data[at : at + LIMIT]
        piece = normalized(piece) if text else piece
        chunks += [piece[at : at + CAPACITY] for at in range(0, len(piece), CAPACITY)]
    return chunks


def part_header(boundary, number, encoding="binary", content_type="application/xml"):
    """Delimiter and header block of a data part."""
    return (
        f"\r\n--{boundary}\r\nContent-Type: {content_type}\r\n"
        f"Content-Transfer-Encoding: {encoding}\r\nContent-Id: part{number}\r\n\r\n"
    ).encode()


def part(boundary, number, data, encoding="binary", content_type="application/xml"):
    """The chunks of a data part whose data were given in one call."""
    header = part_header(boundary, number, encoding, content_type)
    return slices(header + data, encoding != "binary")


def sent_data(data, number=1, encoding="8bit", content_type="application/xml"):
    """The data of a part as the server gets them."""
    boundary = "b" * BOUNDARY_SIZE
    header = part_header(boundary, number, encoding, content_type)
    return b"".join(part(boundary, number, data, encoding, content_type))[len(header) :]


def start_part(boundary, requests, identity=IDENTITY):
    """The chunks of the start part; `requests` are (element, type, version)."""
    lines = [
        "",
        f"--{boundary}",
        "Content-Type: text/xml; charset=UTF-8",
        "Content-Transfer-Encoding: 8bit",
        "Content-Id: slpHeaderPart",
        "",
    ]
    head = "\r\n".join(lines) + "\r\n"
    elements = "".join(
        f'    <{element} type="{kind}" version="{version}" oid="{k}" href="cid:part{k}"/>\n'
        for k, (element, kind, version) in enumerate(requests, 1)
    )
    document = (
        '<?xml version="1.0"?>\n'
        f'<SimpleLocationProtocol version="2.0" xmlns="{NAMESPACE}">\n'
        f"  <SlpRequest {identity}>\n{elements}  </SlpRequest>\n</SimpleLocationProtocol>\n"
    )
    return slices((head + document).encode())


def closing(boundary):
    """The chunk that ends the body."""
    return [f"\r\n--{boundary}--\r\n".encode()]


def boundary_of(record):
    """The boundary that the head of an exchange announced."""
    return re.search(r'boundary="([^"]*)"', record["request"]["head"])[1]
