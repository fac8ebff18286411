"""Cuts a multipart body into parts while it arrives, whatever pieces it arrives in."""

import hashlib

PREAMBLE, AFTER_DELIMITER, HEADERS, DATA, EPILOGUE = range(5)
HEADER_LIMIT = 1 << 20


class Part:
    """One part: its header lines, and what is kept of its data."""

    def __init__(self, header_block):
        self.header_block = header_block
        self.headers = [_split_header(line) for line in header_block.split(b"\r\n") if line]
        self.size = 0
        self.complete = False
        self.kept = bytearray()
        self.keep_limit = 65536
        self.consumers = []
        self._digest = hashlib.sha256()

    def header(self, name):
        """The value of the first header line of that name, or an empty text."""
        wanted = name.lower()
        return next((value for key, value in self.headers if key.lower() == wanted), "")

    def take(self, data):
        self.size += len(data)
        self._digest.update(data)
        if len(self.kept) < self.keep_limit:
            self.kept += data[: self.keep_limit - len(self.kept)]
        for consume in self.consumers:
            consume(data)

    @property
    def sha256(self):
        return self._digest.hexdigest()


def _split_header(line):
    name, _, value = line.decode("latin-1").partition(":")
    return name.strip(), value.strip()


class Splitter:
    """Feed it the body; it calls `on_part(part)` at each header block, `on_end(part)` after it."""

    def __init__(self, boundary, on_part, on_end):
        self._delimiter = b"\r\n--" + boundary.encode("latin-1")
        self._on_part = on_part
        self._on_end = on_end
        self._state = PREAMBLE
        # A delimiter at the very front has no line break of its own before it.
        self._rest = b"\r\n"
        self._part = None
        self.parts = []
        self.preamble = 0
        self.epilogue = b""
        self.findings = []

    @property
    def closed(self):
        return self._state == EPILOGUE

    def feed(self, block):
        data, at = self._rest + block, 0
        while (moved := self._step(data, at)) is not None:
            at = moved
        self._rest = data[at:]

    def finish(self):
        """Call once after the last byte."""
        if self._state == DATA:
            self._part.take(self._rest)
            self._on_end(self._part)
        if not self.closed:
            self.findings.append("multipart: the closing delimiter is missing")
        elif self.epilogue != b"\r\n":
            self.findings.append(f"multipart: {self.epilogue[:40]!r} behind the closing delimiter")
        if self.preamble > 2:
            self.findings.append(f"multipart: {self.preamble - 2} bytes before the first delimiter")

    def _step(self, data, at):
        """Handles what it can from `at` on; the new position, or None to wait for more."""
        if self._state == EPILOGUE:
            self.epilogue += data[at : at + 64]
            return None if at == len(data) else len(data)
        if self._state == AFTER_DELIMITER:
            return self._after_delimiter(data, at)
        if self._state == HEADERS:
            return self._header_block(data, at)
        return self._data(data, at)

    def _after_delimiter(self, data, at):
        if len(data) - at < 2:
            return None
        follows = data[at : at + 2]
        if follows == b"--":
            self._state = EPILOGUE
        else:
            if follows != b"\r\n":
                self.findings.append(f"multipart: {follows!r} behind a delimiter")
            # The line break stays: an empty header block is a line break of its own.
            self._state = HEADERS
            return at
        return at + 2

    def _header_block(self, data, at):
        end = data.find(b"\r\n\r\n", at)
        if end < 0:
            if len(data) - at > HEADER_LIMIT:
                self.findings.append("multipart: a header block without end")
                self._state = EPILOGUE
            return None
        self._part = Part(data[at + 2 : end])
        self.parts.append(self._part)
        self._on_part(self._part)
        self._state = DATA
        # An empty part's delimiter may use the line break that ends the header block.
        return end + 4

    def _data(self, data, at):
        found = data.find(self._delimiter, at)
        if found >= 0:
            self._hand_on(data, at, found)
            if self._part:
                self._part.complete = True
                self._on_end(self._part)
                self._part = None
            self._state = AFTER_DELIMITER
            return found + len(self._delimiter)
        # Only what could be the front of a delimiter waits for the next block.
        safe = data.find(b"\r", max(at, len(data) - len(self._delimiter) + 1))
        safe = len(data) if safe < 0 else safe
        if safe == at:
            return None
        self._hand_on(data, at, safe)
        return safe

    def _hand_on(self, data, begin, end):
        if self._state == PREAMBLE:
            self.preamble += end - begin
        elif end > begin:
            self._part.take(data[begin:end])
