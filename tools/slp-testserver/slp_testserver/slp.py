"""The start part of a request, and the questions that its parts ask."""

import re
import xml.etree.ElementTree as ElementTree
import xml.parsers.expat

SIZE_WISH = re.compile(rb"\s*size:\s*(\d{1,12})\s*")


def local_name(tag):
    return tag.rpartition("}")[2]


class SlpRequest:
    """The document of the start part: the terminal's attributes and the numbered requests."""

    def __init__(self, document):
        """Raises ValueError with the reason when the document is not an SLP request."""
        try:
            root = ElementTree.fromstring(document)
        except ElementTree.ParseError as error:
            raise ValueError(f"start part: {error}") from error
        if local_name(root.tag) != "SimpleLocationProtocol":
            raise ValueError(f"start part: the root element is {local_name(root.tag)!r}")
        if len(root) == 0 or local_name(root[0].tag) != "SlpRequest":
            raise ValueError("start part: the element SlpRequest is missing")
        self.version = root.get("version", "")
        self.namespace = root.tag.rpartition("}")[0].lstrip("{")
        self.terminal = dict(root[0].attrib)
        self.requests = [
            {"element": local_name(element.tag), **element.attrib} for element in root[0]
        ]
        self._request_of = {}
        for request in self.requests:
            self._request_of.setdefault(request.get("href", "")[4:], request)

    def findings(self):
        """What a reader of the document has to object to."""
        if self.version != "2.0":
            yield f"start part: version {self.version!r}"
        for name in ("type", "platform", "swId", "swVersion"):
            if name not in self.terminal:
                yield f"start part: SlpRequest has no {name!r}"
        for position, request in enumerate(self.requests, 1):
            if request.get("oid") != str(position):
                yield f"start part: request {position} has the oid {request.get('oid')!r}"
            if not request.get("href", "").lower().startswith("cid:"):
                yield f"start part: request {position} has the href {request.get('href')!r}"

    def request_of(self, content_id):
        """The request whose data the part with this id carries, or None."""
        return self._request_of.get(content_id)

    def snapshot(self):
        return {
            "version": self.version,
            "namespace": self.namespace,
            "terminal": self.terminal,
            "requests": self.requests,
        }


class FingerprintCounter:
    """Counts the entries of a fingerprint while it arrives."""

    def __init__(self):
        self.wifi = 0
        self.cell = 0
        self.readable = True
        self._parser = xml.parsers.expat.ParserCreate()
        self._parser.StartElementHandler = self._on_element

    def take(self, data):
        if self.readable:
            try:
                self._parser.Parse(bytes(data), False)
            except xml.parsers.expat.ExpatError:
                self.readable = False

    def finish(self):
        try:
            self._parser.Parse(b"", True)
        except xml.parsers.expat.ExpatError:
            self.readable = False

    def _on_element(self, name, _attributes):
        name = name.rpartition(":")[2].lower()
        self.wifi += name == "wifi"
        self.cell += name == "cell"


def wished_size(payload):
    """The number of bytes that a payload such as "size: 1048576" asks for, or None."""
    match = SIZE_WISH.fullmatch(payload) if len(payload) < 64 else None
    return int(match[1]) if match else None


def position_document(oid, part, counter):
    """The answer to a fingerprint: a made-up place, and the numbers of the question."""
    # The same question always leads to the same place.
    latitude = 60 + int(part.sha256[:8], 16) / 2**32
    longitude = 24 + int(part.sha256[8:16], 16) / 2**32
    uncertainty = 15 + 400 // (1 + counter.wifi + counter.cell)
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\r\n'
        "<positionResponse>\r\n"
        f'  <position latitude="{latitude:.6f}" longitude="{longitude:.6f}"'
        f' uncertainty="{uncertainty}"/>\r\n'
        f'  <question oid="{oid}" wifi="{counter.wifi}" cell="{counter.cell}"'
        f' bytes="{part.size}" sha256="{part.sha256}"/>\r\n'
        "</positionResponse>\r\n"
    ).encode()
