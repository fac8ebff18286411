"""Reads one HTTP request and checks what it carries."""

import email
import tempfile

from .multipart import Splitter
from .slp import FingerprintCounter, SlpRequest
from .wire import PeerGone

START_PART_LIMIT = 16 << 20
MIME_CHECK_LIMIT = 4 << 20
CHUNKS_NOTED = 200_000
SPOOL = 4 << 20
# The e-mail parser would decode these; the daemon carries them as they are.
CODED = ("base64", "quoted-printable", "x-uuencode", "uuencode", "uue", "x-uue")


class Head:
    """Request line and header lines."""

    def __init__(self, text):
        self.text = text.decode("latin-1")
        lines = self.text.rstrip("\r\n").split("\r\n")
        self.line = lines[0]
        self.headers = []
        for line in lines[1:]:
            name, _, value = line.partition(":")
            self.headers.append([name.strip(), value.strip()])

    @property
    def method(self):
        return self.line.partition(" ")[0]

    @property
    def target(self):
        return (self.line.split(" ") + [""])[1]

    def header(self, name):
        """The value of the first header line of that name, or None."""
        return next((v for k, v in self.headers if k.lower() == name.lower()), None)

    def snapshot(self):
        return {"line": self.line, "headers": self.headers, "head": self.text}


class Upload:
    """The body of one request. It is read step by step, so that a script can act in between."""

    def __init__(self, stream, head, exchange, echo):
        """`echo` keeps the data of the parts, so that they can be sent back."""
        self._stream = stream
        self._head = head
        self._exchange = exchange
        self._echo = echo
        self._blocks = self._read_blocks()
        self._media = _media_type(head.header("Content-Type"))
        self._splitter = None
        self._counters = {}
        self.complete = False
        self.slp = None
        self.data_parts = []
        self.payloads = {}

    def read(self, enough=lambda: False):
        """Reads until the body has ended or `enough` says so."""
        while not self.complete and not enough():
            block = next(self._blocks, None)
            if block is None:
                self._end()
            else:
                self._exchange.keep_body(block)
                self._split(block)

    def counter_of(self, part):
        """The entry counts of a part that is a fingerprint, otherwise None."""
        return self._counters.get(id(part))

    @property
    def usable(self):
        """Whether the request can be answered at all."""
        return self.slp is not None

    def close(self):
        for payload in self.payloads.values():
            payload.close()

    # -- the body's framing --------------------------------------------------------------------

    def _read_blocks(self):
        if (self._head.header("Transfer-Encoding") or "").lower() == "chunked":
            yield from self._read_chunks()
        else:
            self._find("the request body is not chunked")
            yield from self._read_exactly(int(self._head.header("Content-Length") or 0))

    def _read_chunks(self):
        while True:
            line = self._line().partition(b";")[0].strip()
            try:
                size = int(line, 16)
            except ValueError as error:
                raise PeerGone("bad request", f"chunk size {line[:40]!r}") from error
            if size == 0:
                break
            if len(self._exchange.chunks) < CHUNKS_NOTED:
                self._exchange.chunks.append(size)
            yield from self._read_exactly(size)
            if self._line() != b"":
                raise PeerGone("bad request", "a chunk is longer than announced")
        while self._line() != b"":
            pass

    def _read_exactly(self, size):
        while size:
            block = self._stream.read_some(size)
            if not block:
                raise PeerGone("peer closed")
            size -= len(block)
            yield block

    def _line(self):
        line = self._stream.read_through(b"\r\n", 16384)
        if line is None:
            raise PeerGone("peer closed")
        return line[:-2]

    # -- the body's parts ----------------------------------------------------------------------

    def _split(self, block):
        if self._splitter is None:
            boundary = self._media.get_boundary("")
            if not boundary:
                return
            self._splitter = Splitter(boundary, self._on_part, self._on_part_end)
            self._exchange.parts = self._splitter.parts
        self._splitter.feed(block)

    def _on_part(self, part):
        if len(self._splitter.parts) == 1:
            part.keep_limit = START_PART_LIMIT
            return
        self.data_parts.append(part)
        request = self.slp.request_of(part.header("Content-Id")) if self.slp else None
        if request is None:
            return
        if request.get("type") == "fingerprint":
            counter = self._counters[id(part)] = FingerprintCounter()
            part.consumers.append(counter.take)
        elif self._echo:
            payload = self.payloads[id(part)] = tempfile.SpooledTemporaryFile(SPOOL)
            part.consumers.append(payload.write)

    def _on_part_end(self, part):
        if part is self._splitter.parts[0]:
            self._read_start_part(part)
        elif id(part) in self._counters:
            self._counters[id(part)].finish()
            if not self._counters[id(part)].readable:
                self._find(f"part {part.header('Content-Id')!r}: the fingerprint is not XML")

    def _read_start_part(self, part):
        wanted = self._media.get_param("start") or ""
        if part.header("Content-Id") != wanted:
            self._find(f"the first part is {part.header('Content-Id')!r}, not the start part")
        try:
            self.slp = SlpRequest(bytes(part.kept))
        except ValueError as error:
            self._find(str(error))
            return
        self._exchange.slp = self.slp.snapshot()
        for finding in self.slp.findings():
            self._find(finding)

    # -- the check at the end ------------------------------------------------------------------

    def _end(self):
        self.complete = self._exchange.upload_complete = True
        if self._media.get_content_type() != "multipart/related":
            self._find(f"the request is {self._media.get_content_type()}")
        if (self._media.get_param("type") or "").lower() != "text/xml":
            self._find("Content-Type: the type parameter is not text/xml")
        if self._splitter is None:
            self._find("no boundary, or an empty body")
            return
        self._splitter.finish()
        self._exchange.findings.extend(self._splitter.findings)
        self._match_parts()
        self._check_with_email()

    def _match_parts(self):
        if self.slp is None:
            return
        wanted = [request.get("href", "")[4:] for request in self.slp.requests]
        found = [part.header("Content-Id") for part in self.data_parts]
        if wanted != found:
            self._find(f"the start part names the parts {wanted}, the body holds {found}")

    def _check_with_email(self):
        """A second opinion by a parser that shares nothing with the splitter."""
        whole = len(self._exchange.body) == self._exchange.body_bytes <= MIME_CHECK_LIMIT
        body = bytes(self._exchange.body) if whole else self._condensed_body()
        header = b"Content-Type: %s\r\n\r\n" % self._head.header("Content-Type").encode("latin-1")
        message = email.message_from_bytes(header + body)
        for part in [message, *(message.get_payload() if message.is_multipart() else [])]:
            for defect in part.defects:
                self._find(f"email: {type(defect).__name__}")
        parts = message.get_payload() if message.is_multipart() else []
        ours = self._splitter.parts
        if len(parts) != len(ours):
            self._find(f"email: {len(parts)} parts, the splitter found {len(ours)}")
        for mine, theirs in zip(ours, parts):
            self._compare(mine, theirs, whole)

    def _compare(self, mine, theirs, whole):
        name = mine.header("Content-Id")
        if (theirs.get("Content-Id") or "") != name:
            self._find(f"email: part {name!r} is called {theirs.get('Content-Id')!r}")
        coded = mine.header("Content-Transfer-Encoding").lower() in CODED
        if coded or theirs.is_multipart() or not whole or mine.size > len(mine.kept):
            return
        data = theirs.get_payload(decode=True)
        if data != bytes(mine.kept):
            self._find(f"email: part {name!r} holds {len(data)} bytes, not {mine.size}")

    def _condensed_body(self):
        """The body with shortened parts: enough for a parser that holds everything in memory."""
        delimiter = b"--" + self._media.get_boundary("").encode("latin-1")
        pieces = []
        for part in self._splitter.parts:
            data = bytes(part.kept[:1024])
            pieces.append(delimiter + b"\r\n" + part.header_block + b"\r\n\r\n" + data + b"\r\n")
        if self._splitter.closed:
            pieces.append(delimiter + b"--\r\n")
        return b"".join(pieces)

    def _find(self, text):
        self._exchange.findings.append(text)


def _media_type(value):
    # The compat32 policy returns parameters as they stand, whatever else is wrong with the line.
    return email.message_from_string(f"Content-Type: {value or 'none/none'}\r\n\r\n")
