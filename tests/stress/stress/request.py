"""What one request has gone through, as its client sees it, and what may come next."""

import hashlib
import re
import time

from harness.settings import patience

from .mood import FIXED

CONTINUES, PART_COMPLETE, COMPLETE = 2301, 2302, 2303
UNKNOWN_CONNECTION, UNKNOWN_REQUEST, NOT_ACCEPTING = 1001, 41, 57
CONNECTION_ERROR, NOT_ALLOWED = "Connection error", "Current network connection not allowed"
EXPLANATION_SECONDS = 10  # after which a request that is gone must have been explained
_PATTERN = bytes(range(251))


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


class Request:
    """The model of one request. Each `on_...` raises Violation when that may not happen now."""

    def __init__(self, connection, number, prepared, pieces):
        self.connection = connection
        self.id = number
        self.prepared = prepared
        self.pieces = pieces  # still to be sent
        self.stalls = False  # never sends anything
        self.asked = False  # for its data
        self.ended_by = None  # what its own client did
        self.whole = False
        self.named = []  # messages of the errors that named it
        self.overlapped = False  # two calls waited at a time, so a chunk may have been lost
        self.gone_since = None  # when it turned out to be unknown without a reason so far
        self.held = None  # serial of the newest getData call without an answer
        self.silent = False
        self.truncated = False  # the answer ended early, as it may when the server breaks off
        self.history = []
        self._accepted = []
        self._received = bytearray()
        self._parts = 0

    @property
    def key(self):
        return f"{self.connection.id}:{self.id}"

    @property
    def ended(self):
        return bool(self.whole or self.named or self.ended_by or self.gone_since is not None)

    @property
    def outcome(self):
        """One word for the summary, or None as long as there is no end."""
        if self.ended_by:
            return self.ended_by
        if self.whole:
            words = "answered in part" if self.truncated else "answered"
            return f"{words}, then named" if self.named else words
        if self.named:
            return f"named: {self._error_class(self.named[0])}"
        if self.silent:
            return "swept away with its answer"
        if self.gone_since is not None and self.overlapped:
            return "answered into a replaced call"
        return None

    @staticmethod
    def _error_class(message):
        return message if message in (CONNECTION_ERROR, NOT_ALLOWED) else "exchange failed"

    def note(self, text):
        self.history.append(f"{time.monotonic():.3f} {text}")

    def tell(self):
        """For a finding."""
        kind = "prepared" if self.prepared else "attached"
        return f"request {self.key}, {kind}:\n    " + "\n    ".join(self.history)

    # -- what happens --------------------------------------------------------------------------

    def on_asked(self):
        self.note("asked for data")
        require(not self.asked, "asked for its data twice")
        self.asked = True

    def on_sent(self, data, result):
        """The answer of a sendData call."""
        self.note(f"{len(data)} bytes sent: {result}")
        if result == 0:
            self._accepted.append(data)
        elif result == UNKNOWN_REQUEST:
            self._on_unknown()
        else:
            require(result == NOT_ACCEPTING, f"sendData returned {result}")

    def on_chunk(self, data, code):
        self.note(f"chunk of {len(data)} bytes, {code}")
        require(not self.whole, "a chunk behind the last one")
        require(not self.named, "a chunk for a request that has failed")
        require(code in (CONTINUES, PART_COMPLETE, COMPLETE), f"delivery code {code}")
        require(len(data) <= self.connection.chunk_size, "a chunk that is larger than wanted")
        self._received += data
        if not self.overlapped:
            self._check_bytes(code)
        if code != CONTINUES:
            self._parts += 1
        self.whole = code == COMPLETE

    def on_named(self, message):
        """An errorSignal names it."""
        self.note(f"named: {message}")
        kind = self._error_class(message)
        earlier = [self._error_class(each) for each in self.named]
        require(kind not in earlier, f"named twice: {earlier}, {kind}")
        # Only what a lost connection has cancelled is still there for another error.
        require(earlier in ([], [CONNECTION_ERROR]), f"named by {kind} after {earlier}")
        if kind == NOT_ALLOWED:
            require(self.prepared, "an attached request waits for another network")
            require(not self.asked, "not allowed while it is being exchanged")
        self.named.append(message)

    def on_refused(self, code):
        """An error answers getData."""
        self.note(f"getData: {code}")
        require(code == UNKNOWN_REQUEST, f"getData was refused with {code}")
        self._on_unknown()

    def _on_unknown(self):
        if not self.ended:
            self.gone_since = time.monotonic()

    def trace(self):
        """What the server knows it by: its connection's tag, and the digest of bytes that no line
        end changes. Connections for texts have one request only."""
        if self.connection.encoding != "binary":
            return self.connection.tag, None
        return self.connection.tag, hashlib.sha256(b"".join(self._accepted)).hexdigest()

    def needs_explanation(self, seconds):
        """Gone for so long, and what would explain it has not come."""
        if self.gone_since is None or self.outcome is not None:
            return False
        return time.monotonic() - self.gone_since > patience(seconds)

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
