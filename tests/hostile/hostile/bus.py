"""A bus connection on a bare socket, which any process may open, whatever its user and its files."""

import itertools
import os
import select
import socket
import time
from typing import Callable, Iterator, Optional

from . import message
from .message import Blob, Message

NAME = "com.kelvra.orvexd"
PATH = "/com/kelvra/orvexd"
PEER = "org.freedesktop.DBus.Peer"
PROPERTIES = "org.freedesktop.DBus.Properties"
_BUS = "org.freedesktop.DBus"
_RECEIVE = 1 << 20
_TO_DAEMON = {"interface": NAME, "path": PATH, "destination": NAME}
_TO_BUS = {"interface": _BUS, "path": "/org/freedesktop/DBus", "destination": _BUS}
ALL_SIGNALS = f"type='signal',interface='{NAME}'"


class Late(Exception):
    """What was waited for has not come in time."""


class BusGone(Exception):
    """The bus has ended the connection."""


class Refused(Exception):
    """A call was answered with an error."""

    def __init__(self, answer: Message):
        super().__init__(f"{answer.error}: {' '.join(map(str, answer.values))}")
        self.name = answer.error


def call(member, signature="", *values, **where) -> Blob:
    """A call of the daemon; another interface or flags may be named."""
    return Blob(member, signature, *values, **{**_TO_DAEMON, **where})


def signal(member, signature="", *values) -> Blob:
    """A broadcast signal on the daemon's interface."""
    return Blob(member, signature, *values, interface=NAME, path=PATH, kind=message.SIGNAL)


def bus_call(member, signature="", *values) -> Blob:
    """A call of the bus itself."""
    return Blob(member, signature, *values, **_TO_BUS)


def get_status() -> Blob:
    """The property Get that honest clients make."""
    return call("Get", "ss", NAME, "connectionStatus", interface=PROPERTIES)


class Bus:
    """One connection. What nobody has waited for stays in `waiting`."""

    def __init__(self, path: str, descriptors: bool = False, signals: bool = False):
        self.waiting: list[Message] = []
        self.serials = itertools.count(1)
        self._data = bytearray()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(path)
        self._authenticate(descriptors)
        self.ask(bus_call("Hello"))
        if signals:
            self.ask(bus_call("AddMatch", "s", ALL_SIGNALS))

    def close(self) -> None:
        self.socket.close()

    def fileno(self) -> int:
        return self.socket.fileno()

    # -- sending -------------------------------------------------------------------------------

    def send(self, blob: Blob) -> int:
        """Sends it and returns its serial."""
        serial = next(self.serials)
        try:
            self.socket.sendall(blob.numbered(serial))
        except OSError as error:
            raise BusGone(str(error)) from error
        return serial

    def ask(self, blob: Blob, seconds: float = 25) -> tuple:
        """Sends a call and returns the values of its answer."""
        return self.answer(self.send(blob), seconds)

    # -- receiving -----------------------------------------------------------------------------

    def answer(self, serial: int, seconds: float = 25) -> tuple:
        """The values of the answer to a call."""
        found = self.wait(lambda each: each.reply_to == serial, seconds)
        if found.kind == message.ERROR:
            raise Refused(found)
        return found.values

    def wait(self, wanted: Callable[[Message], bool], seconds: float) -> Message:
        """Waits for a message and takes it out of `waiting`."""
        deadline = time.monotonic() + seconds
        seen = 0
        while True:
            for each in self.waiting[seen:]:
                if wanted(each):
                    self.waiting.remove(each)
                    return each
            seen = len(self.waiting)
            left = deadline - time.monotonic()
            if left <= 0 or not self._readable(left):
                raise Late(f"nothing within {seconds} s")
            self.waiting += self.arrived()

    def arrived(self) -> list[Message]:
        """Reads once and returns the messages that are whole; blocks when there is nothing."""
        try:
            data = self.socket.recv(_RECEIVE)
        except BlockingIOError:
            return []
        except OSError as error:
            raise BusGone(str(error)) from error
        if not data:
            raise BusGone("the bus ended the connection")
        self._data += data
        return list(self._whole_messages())

    def _whole_messages(self) -> Iterator[Message]:
        at = 0
        while len(self._data) - at >= 16:
            size = message.size_of(self._data[at : at + 16])
            if len(self._data) - at < size:
                break
            yield message.parse(bytes(self._data[at : at + size]))
            at += size
        del self._data[:at]

    def _readable(self, seconds: float) -> bool:
        return bool(select.select([self.socket], [], [], seconds)[0])

    def _authenticate(self, descriptors: bool) -> None:
        uid = str(os.geteuid()).encode().hex().encode()
        self.socket.sendall(b"\0AUTH EXTERNAL %b\r\n" % uid)
        self._expect_line(b"OK ")
        if descriptors:
            self.socket.sendall(b"NEGOTIATE_UNIX_FD\r\n")
            self._expect_line(b"AGREE_UNIX_FD")
        self.socket.sendall(b"BEGIN\r\n")

    def _expect_line(self, start: bytes) -> None:
        line = b""
        while not line.endswith(b"\r\n"):
            byte = self.socket.recv(1)
            if not byte:
                raise BusGone("the bus ended the connection")
            line += byte
        if not line.startswith(start):
            raise BusGone(f"the bus answered {line!r}")


class Pump:
    """Sends calls without end, so many of them unanswered at a time, and counts what comes back.

    `made` gives the next blob, or None when there are no more; `answered` hears of each answer.
    """

    def __init__(
        self,
        bus: Bus,
        made: Callable[[], Optional[Blob]],
        answered: Callable[[Message], None],
        window: int = 100,
    ):  # 128 unanswered calls are what a bus allows
        self._bus = bus
        self._made = made
        self._answered = answered
        self._window = window
        self._open: set[int] = set()
        self._out = memoryview(b"")
        self._ended = False
        bus.socket.setblocking(False)

    def run(self) -> None:
        """Until there is nothing more to send and all is answered."""
        while not (self._ended and not self._open and not self._out):
            self.step(1)

    def step(self, seconds: float) -> None:
        """One round of reading and writing."""
        self._refill()
        writers = [self._bus] if self._out else []
        readable, writable, _ = select.select([self._bus], writers, [], seconds)
        if readable:
            for each in self._bus.arrived():
                if each.reply_to in self._open:
                    self._open.discard(each.reply_to)
                    self._answered(each)
        if writable:
            self._write()

    def _refill(self) -> None:
        batch = []
        while not self._out and not self._ended and len(self._open) < self._window and len(batch) < 64:
            blob = self._made()
            if blob is None:
                self._ended = True
                break
            serial = next(self._bus.serials)
            self._open.add(serial)
            batch.append(blob.numbered(serial))
            if len(batch[-1]) > 65536:
                break
        if batch:
            self._out = memoryview(b"".join(batch))

    def _write(self) -> None:
        try:
            self._out = self._out[self._bus.socket.send(self._out) :]
        except BlockingIOError:
            pass
        except OSError as error:
            raise BusGone(str(error)) from error


class Hose:
    """Sends without waiting for anything, over many connections, and throws away what comes back."""

    def __init__(self, buses: list[Bus], made: Callable[[], bytes]):
        self._buses = buses
        self._made = made
        self._out = {bus: memoryview(b"") for bus in buses}
        for bus in buses:
            bus.socket.setblocking(False)

    def step(self, seconds: float) -> None:
        """One round over all connections that can take or give something."""
        readable, writable, _ = select.select(self._buses, self._buses, [], seconds)
        for bus in readable:
            self._drain(bus)
        for bus in writable:
            self._write(bus)

    def _drain(self, bus: Bus) -> None:
        try:
            if not bus.socket.recv(_RECEIVE):
                raise BusGone("the bus ended the connection")
        except BlockingIOError:
            pass
        except OSError as error:
            raise BusGone(str(error)) from error

    def _write(self, bus: Bus) -> None:
        out = self._out[bus] or memoryview(self._made())
        try:
            self._out[bus] = out[bus.socket.send(out) :]
        except BlockingIOError:
            self._out[bus] = out
        except OSError as error:
            raise BusGone(str(error)) from error
