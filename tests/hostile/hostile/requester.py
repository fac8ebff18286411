"""What an orderly client does, on a connection without a library: one request from connect to its answer."""

import time
from typing import Optional

from .bus import Bus, Refused, call
from .message import RETURN, Message

CONTINUES, COMPLETE, WHOLE = 2301, 2302, 2303
_FOREVER = 86400.0
_QUEUE_IS_FULL = "destination has a full message queue"


def connect_call(kind: str = "other", element: bytes = b"ask", **where):
    """The call that opens a connection."""
    return call("connect", "ayayayayayu", element, kind.encode(), b"1.0", b"binary", b"text/plain", 65536, **where)


def send_call(data: bytes, last: bool, connection: int, request: int, **where):
    """The call that gives data of a request."""
    return call("sendData", "aybuu", data, last, connection, request, **where)


class Failed(Exception):
    """An errorSignal named the request."""


class Requester:
    """One request at a time on one bus connection, which has to hear the daemon's signals."""

    def __init__(self, bus: Bus, kind: str = "other"):
        self.bus = bus
        (self.connection,) = self._ask(connect_call(kind))
        self.request = 0

    @property
    def key(self) -> str:
        return f"{self.connection}:{self.request}"

    def create(self, member: str = "prepare", policy: int = 2) -> None:
        """Creates a request by `prepare` or `attach`."""
        (self.request,) = self._ask(call(member, "uuu", self.connection, policy, 0))

    def wait_until_asked(self, seconds: float = _FOREVER) -> None:
        """Waits until the daemon wants the request's data."""
        self._raise_failure(
            self.bus.wait(
                lambda each: self._fails(each)
                or (each.member == "requestData" and each.values == (self.connection, self.request)),
                seconds,
            )
        )

    def give(self, data: bytes, last: bool = True, seconds: float = 25) -> int:
        """Sends data; 0 or the number of the refusal."""
        (code,) = self._ask(send_call(data, last, self.connection, self.request), seconds)
        return code

    def fetch_chunk(self, seconds: float = _FOREVER) -> tuple[bytes, int]:
        """The next chunk of the answer and its code."""
        serial = self.bus.send(call("getData", "uu", self.connection, self.request))
        found = self.bus.wait(lambda each: each.reply_to == serial or self._fails(each), seconds)
        self._raise_failure(found)
        if found.kind != RETURN and _QUEUE_IS_FULL in str(Refused(found)):
            time.sleep(0.05)
            return self.fetch_chunk(seconds)
        if found.kind != RETURN:
            raise Refused(found)
        data, code = found.values
        return data, code

    def fetch(self, seconds: float = _FOREVER) -> bytes:
        """The whole answer."""
        pieces, code, deadline = [], CONTINUES, time.monotonic() + seconds
        while code != WHOLE:
            data, code = self.fetch_chunk(max(0.0, deadline - time.monotonic()))
            pieces.append(data)
        return b"".join(pieces)

    def close(self) -> None:
        """Closes its connection."""
        self._ask(call("disconnect", "u", self.connection))

    def wait_for_failure(self, seconds: float = _FOREVER) -> None:
        """Waits until an errorSignal names the request."""
        self.bus.wait(self._fails, seconds)

    def _ask(self, blob, seconds: float = 25):
        """The answer's values. What the bus has no room for at the moment is asked again."""
        while True:
            try:
                return self.bus.ask(blob, seconds)
            except Refused as refused:
                if _QUEUE_IS_FULL not in str(refused):
                    raise
                time.sleep(0.05)

    def _fails(self, each: Message) -> bool:
        return each.member == "errorSignal" and self.key in each.values[2].split()

    def _raise_failure(self, found: Message) -> None:
        if found.member == "errorSignal":
            raise Failed(f"({found.values[0]}) {found.values[1][:60]}")


def small_request(path: str, data: bytes = b"are you there?", patience: float = 120) -> Optional[float]:
    """A whole honest exchange: how many seconds it took from prepare to the last byte."""
    bus = Bus(path, signals=True)
    requester = Requester(bus)
    begun = time.monotonic()
    requester.create()
    requester.wait_until_asked(patience)
    code = requester.give(data)
    if code != 0:
        raise Failed(f"sendData gave {code}")
    answer = requester.fetch(patience)
    took = time.monotonic() - begun
    requester.close()
    if answer != data:
        raise Failed(f"{len(answer)} wrong bytes came back")
    return took
