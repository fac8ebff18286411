"""What one request has gone through, as its client sees it, and what may come next."""

import ctypes
import hashlib
import re
import time

from harness.settings import BUILD_DIR, patience

from .mood import FIXED

CONTINUES, COMPLETE = 2301, 2303
UNKNOWN_CONNECTION, UNKNOWN_REQUEST = 1001, 41
CONNECTION_ERROR, NOT_ALLOWED = "Connection error", "Current network connection not allowed"
EXPLANATION_SECONDS = 10  # after which a request that is gone must have been explained
_PATTERN = bytes(range(251))
_FLAGS = ("prepared", "asked", "whole", "lost", "not_allowed", "failed", "ended", "gone")
_rules = ctypes.CDLL(str(BUILD_DIR / "lib" / "libRequestFate.so"))


class Violation(AssertionError):
    """The daemon did what it must not do."""


def require(condition, text):
    if not condition:
        raise Violation(text)


def plain(text):
    return text.replace(b"\r\n", b"\n")


def same_text(left, right):
    """Equal but for line ends, which depend on where a text was cut on its way."""
    return plain(left) == plain(right)


def starts_text(front, whole):
    """As `same_text`, for the front of a text."""
    return plain(whole).startswith(plain(front.removesuffix(b"\r")))


class Connection:
    """One connection with the daemon, from connect to disconnect."""

    def __init__(self, number, tag, kind, encoding, chunk_size):
        self.id = number
        self.tag = tag
        self.kind = kind
        self.encoding = encoding
        self.chunk_size = chunk_size
        self.open = True
        self.used = False  # has had a request
        self.creating = 0  # calls of prepare and attach that are not answered yet
        self.nameless = 0  # requests that may exist although their ids were never told


class Request(ctypes.Structure):
    """The model of one request: its fate, with the members of tests/models/RequestFate.h, and its
    bytes. Each `on...` raises Violation when that may not happen now."""

    _fields_ = [("chunk_size", ctypes.c_uint32), ("open_calls", ctypes.c_uint32)]
    _fields_ += [(name, ctypes.c_bool) for name in _FLAGS]

    def __init__(self, connection, number, prepared, pieces):
        super().__init__(chunk_size=connection.chunk_size, prepared=prepared)
        self.connection = connection
        self.id = number
        self.pieces = pieces  # still to be sent
        self.stalls = False  # never sends anything
        self.rests_until = 0  # does not fetch before
        self._retries_until = None
        self.ended_by = None  # other than an answer or an error, in words
        self.overlapped = False  # two calls waited at a time, so a chunk may have been lost
        self.gone_since = None  # when it turned out to be unknown without a reason so far
        self.held = None  # serial of the newest getData call without an answer
        self.held_since = 0
        self.truncated = False  # the answer ended early, as it may when the server breaks off
        self.history = []
        self._accepted = []
        self._received = bytearray()

    @property
    def key(self):
        return f"{self.connection.id}:{self.id}"

    @property
    def over(self):
        """It has its end, or will have to have one."""
        return self.ended or self.gone

    @property
    def named(self):
        """Words for the first error that named it."""
        if self.lost or self.not_allowed:
            return CONNECTION_ERROR if self.lost else NOT_ALLOWED
        return "exchange failed" if self.failed else None

    @property
    def outcome(self):
        """One word for the summary, or None as long as there is no end."""
        if self.ended_by:
            return self.ended_by
        if self.whole:
            words = "answered in part" if self.truncated else "answered"
            return f"{words}, then named" if self.named else words
        if self.named:
            return f"named: {self.named}"
        if self.gone and self.overlapped:
            return "answered into a replaced call"
        return None

    def note(self, text):
        self.history.append(f"{time.monotonic():.3f} {text}")

    def tell(self):
        """For a finding."""
        kind = "prepared" if self.prepared else "attached"
        return f"request {self.key}, {kind}:\n    " + "\n    ".join(self.history)

    # -- what happens --------------------------------------------------------------------------

    def on(self, event, *arguments):
        """Something that RequestFate has a rule for."""
        self.note(f"{event} {arguments}")
        judge = getattr(_rules, f"on{event.capitalize()}")
        judge.restype = ctypes.c_char_p
        broken = judge(ctypes.byref(self), *arguments)
        if self.gone and self.gone_since is None:
            self.gone_since = time.monotonic()
        require(broken is None, broken and broken.decode())

    def on_sent(self, data, result, connection_is_open=True):
        """The answer of a sendData call."""
        self.note(f"{len(data)} bytes sent")
        self.on("sent", result, connection_is_open)
        if result == 0:
            self._accepted.append(data)

    def on_chunk(self, data, code):
        self.on("chunk", len(data), code)
        self._received += data
        if not self.overlapped:
            self._check_bytes(code)

    def may_retry(self, seconds):
        """For so long after the first time."""
        if self._retries_until is None:
            self._retries_until = time.monotonic() + seconds
        return time.monotonic() < self._retries_until

    def end(self, how):
        """Otherwise than by an answer or an error."""
        self.ended_by = how
        self.ended = True

    def trace(self):
        """What the server knows it by: its connection's tag, and the digest of bytes that no line
        end changes. Connections for texts have one request only."""
        if self.connection.encoding != "binary":
            return self.connection.tag, None
        return self.connection.tag, hashlib.sha256(b"".join(self._accepted)).hexdigest()

    def needs_explanation(self, seconds):
        """Gone for so long, and what would explain it has not come."""
        waits = self.gone and self.outcome is None
        return waits and time.monotonic() - self.gone_since > patience(seconds)

    # -- bytes ---------------------------------------------------------------------------------

    def _check_bytes(self, code):
        received, complete = bytes(self._received), code == COMPLETE
        if received.startswith(FIXED):
            self._check_fixed(received, complete)
        elif self.connection.kind == "fingerprint":
            self.truncated = complete and b"</positionResponse>" not in received
            wrong = complete and not self.truncated and not self._is_position(received)
            require(not wrong, "a position of another question")
        elif complete:
            self.truncated = not same_text(received, self._echo())
            require(starts_text(received, self._echo()), self._difference(received))
        elif self.connection.encoding == "binary":
            may_be_fixed = FIXED.startswith(received)
            require(may_be_fixed or self._echo().startswith(received), self._difference(received))

    @staticmethod
    def _check_fixed(received, complete):
        if complete:
            words = received.replace(FIXED, b"").split()
            exchanges = {word.split(b".")[0] for word in words}
            require(len(exchanges) == 1, "an answer that mixes several answers")

    def _is_position(self, received):
        data = b"".join(self._accepted)
        found = re.search(rb'bytes="(\d+)" sha256="([0-9a-f]+)"', received)
        return (
            found is not None
            and int(found[1]) == len(data)
            and found[2].decode() == hashlib.sha256(data).hexdigest()
        )

    def _echo(self):
        data = b"".join(self._accepted)
        wish = re.fullmatch(rb"size: (\d+)", data)
        if wish is None:
            return data
        size = int(wish[1])
        return (_PATTERN * (size // len(_PATTERN) + 1))[:size]

    def _difference(self, received):
        wanted = self._echo()
        place = next(
            (n for n, (a, b) in enumerate(zip(received, wanted)) if a != b),
            min(len(received), len(wanted)),
        )
        return (
            f"wrong bytes from {place} on: {received[place:place + 40]!r} instead of"
            f" {wanted[place:place + 40]!r}, {len(received)} of {len(wanted)} bytes"
        )
