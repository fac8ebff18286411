"""Composes answers, ordinary and scripted, and sends them piece by piece."""

import hashlib
import http
import secrets
from xml.sax.saxutils import quoteattr

from . import slp
from .items import PIECE, Action, Mark, cut_at, cut_by_size, joined, made_up, pack, pieces
from .script import POINTS

XML_TYPE = "text/xml; charset=UTF-8"


class Part:
    """A data part to send: header lines, and data that are made when they are needed."""

    def __init__(self, content_id, headers, blocks):
        self.content_id = content_id
        self.headers = headers
        self.blocks = blocks


class Multipart:
    """A multipart answer; `upload` is the request that it answers."""

    def __init__(self, spec, upload, splits_parts):
        self._spec = spec
        self._upload = upload
        self._splits_parts = splits_parts
        self._begun = False
        self.boundary = spec.get("boundary") or f"slp-{secrets.token_hex(12)}"
        self.start = spec.get("start") or "slpResponse"
        self.sent = []

    @property
    def content_type(self):
        return (
            f'multipart/related; type="text/xml"; start="{self.start}"; boundary="{self.boundary}"'
        )

    def pieces(self):
        spec, order = self._spec, self._spec.get("order", "start-first")
        for piece in pieces(spec.get("preamble")):
            self._begun = True
            yield piece
        if order == "start-first":
            yield from self._start_part()
        for number, part in enumerate(self._parts(), 1):
            yield from self._data_part(number, part)
        if order == "start-last":
            yield from self._start_part()
        yield Mark("closing")
        closing = spec.get("closing")
        yield (f"\r\n--{self.boundary}--\r\n" if closing is None else closing).encode()
        yield from pieces(spec.get("epilogue"))

    # -- parts ---------------------------------------------------------------------------------

    def _start_part(self):
        headers = self._spec.get("start_headers") or [
            ["Content-Type", XML_TYPE],
            ["Content-Transfer-Encoding", "8bit"],
            ["Content-Id", self.start],
        ]
        if "document" in self._spec:
            blocks = pieces(self._spec["document"])
        else:
            blocks = iter([self._document()])
        yield from self._head_and_blocks(headers, blocks)

    def _document(self):
        status = self._spec.get("status", "ok")
        attribute = "" if status is None else f" status={quoteattr(status)}"
        namespace = self._upload.slp.namespace if self._upload.slp else ""
        lines = [
            '<?xml version="1.0" encoding="UTF-8"?>',
            f'<SimpleLocationProtocol version="2.0" xmlns={quoteattr(namespace)}>',
            f"  <SlpResponse{attribute}>",
        ]
        for oid, href in self._results():
            lines.append(f"    <result oid={quoteattr(oid)} href={quoteattr(href)}/>")
        lines += ["  </SlpResponse>", "</SimpleLocationProtocol>", ""]
        return "\r\n".join(lines).encode()

    def _results(self):
        if "results" not in self._spec:
            requests = self._upload.slp.requests if self._upload.slp else []
            for number, request in enumerate(requests, 1):
                yield request.get("oid", ""), f"cid:answer-{number}"
            return
        for result in self._spec["results"]:
            for number in range(1, result.get("times", 1) + 1):
                yield result.get("oid", ""), _counted(result.get("href", ""), result, number)

    def _parts(self):
        if "parts" not in self._spec:
            yield from self._ordinary_parts()
            return
        for part in self._spec["parts"]:
            for number in range(1, part.get("times", 1) + 1):
                content_id = _counted(part["id"], part, number) if "id" in part else None
                headers = [["Content-Id", content_id]] if content_id is not None else []
                headers += [[n, _counted(v, part, number)] for n, v in part.get("headers", [])]
                body = part.get("body", "")
                if isinstance(body, str):
                    body = _counted(body, part, number)
                yield Part(content_id, headers, pieces(body))

    def _ordinary_parts(self):
        if self._upload.slp is None:
            return
        asked = {}
        for part in self._upload.data_parts:
            asked.setdefault(part.header("Content-Id"), part)
        for number, request in enumerate(self._upload.slp.requests, 1):
            part = asked.get(request.get("href", "")[4:])
            if part is not None:
                yield self._ordinary_part(f"answer-{number}", request, part)

    def _ordinary_part(self, content_id, request, asked):
        counter = self._upload.counter_of(asked)
        media_type = asked.header("Content-Type") or "application/octet-stream"
        size = slp.wished_size(bytes(asked.kept)) if asked.size < 64 else None
        if counter:
            media_type = "application/xml"
            blocks = iter([slp.position_document(request.get("oid", ""), asked, counter)])
        elif size is not None:
            media_type = "application/octet-stream"
            blocks = made_up(size)
        else:
            blocks = _file_blocks(self._upload.payloads.get(id(asked)))
        headers = [
            ["Content-Type", media_type],
            ["Content-Transfer-Encoding", "binary"],
            ["Content-Id", content_id],
        ]
        return Part(content_id, headers, blocks)

    # -- pieces --------------------------------------------------------------------------------

    def _data_part(self, number, part):
        digest, size, shown = hashlib.sha256(), 0, False
        blocks = part.blocks
        if self._splits_parts:
            blocks = _halved(blocks)

        def counted():
            nonlocal size
            for block in blocks:
                if isinstance(block, bytes):
                    digest.update(block)
                    size += len(block)
                yield block

        for piece in self._head_and_blocks(part.headers, counted()):
            yield piece
            if isinstance(piece, bytes) and not shown:
                shown = True
                yield Mark("part", number)
        if len(self.sent) < 1000:
            entry = {"id": part.content_id, "bytes": size, "sha256": digest.hexdigest()}
            self.sent.append(entry)

    def _head_and_blocks(self, headers, blocks):
        """The delimiter, the header block and the first data in one piece, then the other data."""
        front = "\r\n" if self._begun else ""
        self._begun = True
        lines = "".join(f"{name}: {value}\r\n" for name, value in headers)
        head = f"{front}--{self.boundary}\r\n{lines}\r\n".encode()
        first = next(blocks, b"")
        if isinstance(first, bytes) and len(head) + len(first) <= PIECE:
            yield head + first
        else:
            yield head
            yield first
        yield from blocks


def _halved(blocks):
    """Divides the first block, so that there is a place within the part."""
    first = next(blocks, b"")
    if isinstance(first, bytes):
        yield first[: len(first) // 2]
        yield first[len(first) // 2 :]
    else:
        yield first
    yield from blocks


def _file_blocks(file):
    if file is None:
        return
    file.seek(0)
    while block := file.read(PIECE - 512):
        yield block


def _counted(text, spec, number):
    return text.replace("{n}", str(number)) if "times" in spec else text


class Answer:
    """One answer on its way out. `act(step)` and `reach(point, part)` carry out the script."""

    def __init__(self, behaviour, upload, stream, exchange, act, reach):
        self._behaviour = behaviour
        self._spec = behaviour.answer
        self._upload = upload
        self._stream = stream
        self._exchange = exchange
        self._act = act
        self._reach = reach
        self._multipart = None
        if "body" not in self._spec:
            self._multipart = Multipart(
                self._spec.get("multipart", {}), upload, bool(behaviour.steps_at("part"))
            )
        self._status = self._spec.get("status", 200)
        self._framing = self._spec.get("framing") or (
            "none" if self._status in (204, 304) else "chunked"
        )

    def send(self):
        """Sends all of it; True when the connection can carry another request."""
        self._exchange.answer["status"] = self._status
        body = self._body()
        if self._framing == "length":
            body = list(body)
        for interim in self._spec.get("interim", []):
            self._stream.write(_interim_head(interim))
        self._send_head(body)
        self._reach("response-head")
        complete = True
        if self._framing != "none":
            complete = self._send_body(body)
        if self._multipart:
            self._exchange.answer["parts"] = self._multipart.sent
        return complete and self._framing in ("chunked", "length", "none")

    # -- head ----------------------------------------------------------------------------------

    def _send_head(self, body):
        if "head" in self._spec:
            for piece in pieces(self._spec["head"]):
                self._send(piece)
            return
        version = self._spec.get("version", "HTTP/1.1")
        reason = joined(self._spec["reason"]) if "reason" in self._spec else _reason(self._status)
        lines = [f"{version} {self._status} ".encode() + reason]
        for name, value in self._headers(body):
            lines.append(name.encode("latin-1") + b": " + joined(value))
        self._stream.write(b"\r\n".join(lines) + b"\r\n\r\n")

    def _headers(self, body):
        content_type = self._multipart.content_type if self._multipart else None
        content_type = self._spec.get("content_type", content_type)
        if content_type is not None and self._framing != "none":
            yield "Content-Type", content_type
        if self._framing == "chunked":
            yield "Transfer-Encoding", "chunked"
        elif self._framing == "length":
            size = sum(len(piece) for piece in body if isinstance(piece, bytes))
            yield "Content-Length", str(size)
        elif self._framing == "close":
            yield "Connection", "close"
        yield from self._spec.get("headers", [])

    # -- body ----------------------------------------------------------------------------------

    def _body(self):
        if self._multipart:
            body = self._multipart.pieces()
        else:
            body = pieces(self._spec["body"])
        cut = self._spec.get("cut", {})
        if cut or "pack" in self._spec:
            # A mark divides: only those stay where something is to be done.
            body = (piece for piece in body if not self._is_idle_mark(piece))
        if "size" in cut:
            body = cut_by_size(body, cut["size"])
        elif "at" in cut:
            body = cut_at(body, cut["at"])
        if "pack" in self._spec:
            body = pack(body, self._spec["pack"])
        return body

    def _is_idle_mark(self, piece):
        if not isinstance(piece, Mark) or piece.point not in POINTS:
            return False
        return not self._behaviour.steps_at(piece.point)

    def _send_body(self, body):
        """False when the script wants only the front of the body."""
        room = self._spec.get("stop_after")
        for piece in body:
            if room is not None and isinstance(piece, bytes):
                piece = piece[: room - self._exchange.answer["bytes"]]
            self._send(piece, self._framing == "chunked")
            if room is not None and self._exchange.answer["bytes"] >= room:
                return False
        if self._framing == "chunked":
            self._stream.write(b"0\r\n\r\n")
        return True

    def _send(self, piece, chunked=None):
        if isinstance(piece, Mark):
            self._reach(piece.point, piece.part)
        elif isinstance(piece, Action):
            self._act(piece.step)
        elif chunked is None:
            self._stream.write(piece)
        elif piece:
            self._exchange.answer["bytes"] += len(piece)
            self._exchange.answer["chunks"] += 1
            self._stream.write(b"%x\r\n%b\r\n" % (len(piece), piece) if chunked else piece)


def _interim_head(interim):
    spec = interim if isinstance(interim, dict) else {"status": interim}
    reason = spec["reason"].encode() if "reason" in spec else _reason(spec["status"])
    lines = [b"HTTP/1.1 %d " % spec["status"] + reason]
    lines += [f"{name}: {value}".encode("latin-1") for name, value in spec.get("headers", [])]
    return b"\r\n".join(lines) + b"\r\n\r\n"


def _reason(status):
    try:
        return http.HTTPStatus(status).phrase.encode()
    except ValueError:
        return b"Unnamed"
