#!/usr/bin/python3
"""The application behind a web server: reads an SLP request and answers each of its requests.

It listens on 127.0.0.1:8080 and leaves TLS and client certificates to the web server in front. Every request
gets its own data back; put something useful into `answer_to`. docs/server-guide.md tells why the answer looks as
it does.
"""

import http.server
import secrets
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import quoteattr

ADDRESS = ("127.0.0.1", 8080)

# Bytes up to which an answer reaches the daemon in one piece, whatever web server is in between. A longer one is cut
# anywhere, and the daemon does not recognise a delimiter that is cut. So a longer answer ends without the closing
# delimiter: the daemon completes the last part when the body is over, and one line break at its end is no data.
SHORT = 6000


def answer_to(request, data):
    """The media type and the bytes with which a request is answered; `request` has its attributes."""
    del request
    return "application/octet-stream", data


def parts_of(body, content_type):
    """The parts of a multipart body: bytes by Content-Id."""
    boundary = content_type.partition('boundary="')[2].partition('"')[0]
    parts = {}
    for text in body.split(b"\r\n--" + boundary.encode())[1:]:
        headers, _, data = text.partition(b"\r\n\r\n")
        for line in headers.decode("latin-1").split("\r\n"):
            name, _, value = line.partition(":")
            if name.lower() == "content-id":
                parts[value.strip()] = data
    return parts


class Answer:
    """The head and the body of an answer."""

    def __init__(self, namespace):
        # Letters and digits: no "=", and nothing that could stand in the data.
        self.boundary = "slp" + secrets.token_hex(16)
        self.content_type = f'multipart/related; type="text/xml"; start="slp"; boundary="{self.boundary}"'
        self._namespace = namespace
        self._results = []
        self._parts = []

    def add(self, oid, media_type, data):
        """Answers the request with this number by one part."""
        content_id = f"answer{oid}"  # the same bytes in both places, and no angle brackets
        self._results.append(f"<result oid={quoteattr(oid)} href={quoteattr('cid:' + content_id)}/>")
        self._parts.append(self._part(content_id, media_type, data))

    def pieces(self):
        """The body. A delimiter and the header block behind it are in one piece, whatever comes then."""
        document = (
            f"<SimpleLocationProtocol version=\"2.0\" xmlns={quoteattr(self._namespace)}>"
            f"<SlpResponse status=\"ok\">{''.join(self._results)}</SlpResponse></SimpleLocationProtocol>"
        )
        yield self._part("slp", "text/xml; charset=UTF-8", document.encode())
        yield from self._parts
        if sum(map(len, self._parts)) <= SHORT:
            yield f"\r\n--{self.boundary}--\r\n".encode()
        else:
            yield b"\r\n"  # see SHORT

    def _part(self, content_id, media_type, data):
        lines = (f"\r\n--{self.boundary}", f"Content-Type: {media_type}", f"Content-Id: {content_id}", "", "")
        return "\r\n".join(lines).encode() + data


class Handler(http.server.BaseHTTPRequestHandler):
    """One connection of the web server."""

    protocol_version = "HTTP/1.1"

    def do_POST(self):
        """Answers one message."""
        parts = parts_of(self._read_body(), self.headers["Content-Type"])
        root = ElementTree.fromstring(parts.pop("slpHeaderPart"))
        answer = Answer(root.tag.partition("}")[0].lstrip("{"))
        for request in root[0]:
            data = parts.get(request.get("href").partition(":")[2], b"")
            answer.add(request.get("oid"), *answer_to(request, data))
        self.send(answer)

    def send(self, answer):
        """Sends the whole answer with its length, which proxies in between keep."""
        body = b"".join(answer.pieces())
        self.send_response(200)
        self.send_header("Content-Type", answer.content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def _read_body(self):
        if "chunked" not in self.headers.get("Transfer-Encoding", ""):
            return self.rfile.read(int(self.headers["Content-Length"]))
        body = b""
        while size := int(self.rfile.readline().partition(b";")[0], 16):
            body += self.rfile.read(size)
            self.rfile.readline()
        while self.rfile.readline().strip():
            pass
        return body

    def log_message(self, *_arguments):
        """The web server in front has a log."""


if __name__ == "__main__":
    http.server.ThreadingHTTPServer(ADDRESS, Handler).serve_forever()
