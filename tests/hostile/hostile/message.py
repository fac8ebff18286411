"""D-Bus messages as bytes. A flood must cost its sender little, so no library composes them."""

import struct
from dataclasses import dataclass, field

CALL, RETURN, ERROR, SIGNAL = 1, 2, 3, 4
NO_REPLY = 1
_SERIAL_AT = 8
_FIXED = {"y": "<B", "b": "<I", "n": "<h", "q": "<H", "i": "<i", "u": "<I", "x": "<q", "t": "<Q", "d": "<d"}
_ALIGNMENT = {"y": 1, "g": 1, "v": 1, "n": 2, "q": 2, "x": 8, "t": 8, "d": 8}
_PATH, _INTERFACE, _MEMBER, _ERROR, _REPLY_TO, _DESTINATION, _SIGNATURE, _FDS = 1, 2, 3, 4, 5, 6, 8, 9


@dataclass
class Message:
    """What has arrived."""

    kind: int
    fields: dict = field(default_factory=dict)
    values: tuple = ()

    @property
    def reply_to(self) -> int:
        return self.fields.get(_REPLY_TO, 0)

    @property
    def member(self) -> str:
        return self.fields.get(_MEMBER, "")

    @property
    def error(self) -> str:
        """The name of the error, or an empty text."""
        return self.fields.get(_ERROR, "")


class Blob:
    """A call or signal that is composed once and sent many times."""

    def __init__(self, member, signature="", *values, **where):
        self._bytes = bytearray(compose(member, signature, *values, **where))

    def numbered(self, serial: int) -> bytes:
        """The bytes with this serial."""
        struct.pack_into("<I", self._bytes, _SERIAL_AT, serial)
        return bytes(self._bytes)

    def __len__(self) -> int:
        return len(self._bytes)


def compose(
    member,
    signature="",
    *values,
    interface=None,
    path="/",
    destination=None,
    kind=CALL,
    flags=0,
    serial=1,
    fds=0,
) -> bytes:  # pylint: disable=too-many-arguments
    """A whole message."""
    body = _marshalled(signature, values)
    fields = [(_PATH, "o", path), (_MEMBER, "s", member), (_INTERFACE, "s", interface)]
    fields += [(_DESTINATION, "s", destination), (_SIGNATURE, "g", signature or None), (_FDS, "u", fds or None)]
    array = b""
    for code, type_, value in fields:
        if value is not None:
            array += b"\0" * (-len(array) % 8) + bytes([code, 1, ord(type_), 0])
            array += _one(type_, value, len(array))
    head = struct.pack("<BBBBIII", ord("l"), kind, flags, 1, len(body), serial, len(array)) + array
    return head + b"\0" * (-len(head) % 8) + body


def size_of(front: bytes) -> int:
    """How long the message is that begins with these 16 bytes or more."""
    order = "<" if front[0] == ord("l") else ">"
    body, _, array = struct.unpack_from(f"{order}III", front, 4)
    return 16 + array + (-array % 8) + body


def parse(data: bytes) -> Message:
    """A whole message of this machine's byte order, as the bus and the daemon send them."""
    (array,) = struct.unpack_from("<I", data, 12)
    fields, at = {}, 16
    while at < 16 + array:
        at += -at % 8
        code = data[at]
        value, at = _read("v", data, at + 1)
        fields[code] = value
    at += -at % 8
    values = []
    for type_ in _types(fields.get(_SIGNATURE, "")):
        value, at = _read(type_, data, at)
        values.append(value)
    return Message(data[1], fields, tuple(values))


def _types(signature):
    """The single complete types of a signature without structures."""
    at = 0
    while at < len(signature):
        end = at + 1
        while signature[end - 1] == "a":
            end += 1
        yield signature[at:end]
        at = end


def _alignment(type_):
    return _ALIGNMENT.get(type_[0], 4)


def _marshalled(signature, values):
    pieces, size = [], 0
    for type_, value in zip(_types(signature), values, strict=True):
        padding = b"\0" * (-size % _alignment(type_))
        piece = _one(type_, value, size + len(padding))
        pieces += [padding, piece]
        size += len(padding) + len(piece)
    return b"".join(pieces)


def _one(type_, value, at):
    """`at` is where the value begins."""
    if type_ in _FIXED:
        padding = b"\0" * (-at % _alignment(type_))
        return padding + struct.pack(_FIXED[type_], value)
    if type_ == "ay":
        return struct.pack("<I", len(value)) + bytes(value)
    text = value.encode()
    length = bytes([len(text)]) if type_ == "g" else b"\0" * (-at % 4) + struct.pack("<I", len(text))
    return length + text + b"\0"


def _read(type_, data, at):
    """A value and the place behind it."""
    at += -at % _alignment(type_)
    if type_ in _FIXED:
        (value,) = struct.unpack_from(_FIXED[type_], data, at)
        return value, at + struct.calcsize(_FIXED[type_])
    if type_ == "v":
        signature, at = _read("g", data, at)
        return _read(signature, data, at)
    if type_ == "g":
        end = at + 1 + data[at]
        return data[at + 1 : end].decode(), end + 1
    (size,) = struct.unpack_from("<I", data, at)
    at += 4
    if type_ == "ay":
        return bytes(data[at : at + size]), at + size
    if type_.startswith("a"):
        end, values = at + size, []
        while at < end:
            value, at = _read(type_[1:], data, at)
            values.append(value)
        return values, at
    return data[at : at + size].decode("utf-8", "replace"), at + size + 1
