"""Bytes to and from one socket, plain or TLS, and the ways a connection can end."""

import contextlib
import select
import socket
import ssl
import struct

RECEIVE = 65536
HEAD_LIMIT = 1 << 20


class PeerGone(Exception):
    """The peer closed or reset the connection, or cannot be understood: the outcome, and why."""

    def __init__(self, outcome, error=None):
        super().__init__(outcome)
        self.outcome = outcome
        self.error = error


class Ended(Exception):
    """The script ended the connection; the text names how."""


class Stream:
    """Buffered reading from, and unbuffered writing to, one socket."""

    def __init__(self, sock):
        self.sock = sock
        self._buffer = b""
        self._at = 0

    def read_some(self, limit):
        """Returns 1 to `limit` bytes, or b"" at the end of the stream."""
        if self._at == len(self._buffer):
            self._buffer, self._at = self._receive(), 0
        if self._at == 0 and len(self._buffer) <= limit:
            block, self._buffer = self._buffer, b""
            return block
        block = self._buffer[self._at : self._at + limit]
        self._at += len(block)
        return block

    def read_through(self, mark, limit=HEAD_LIMIT):
        """Returns everything up to and with `mark`; None when the stream ends before any byte."""
        data, searched = self._buffer[self._at :], 0
        while (found := data.find(mark, searched)) < 0:
            if len(data) > limit:
                raise PeerGone("bad request", f"no {mark!r} within {limit} bytes")
            searched = max(0, len(data) - len(mark) + 1)
            more = self._receive()
            if not more:
                if data:
                    raise PeerGone("peer closed")
                return None
            data += more
        end = found + len(mark)
        self._buffer, self._at = data[end:], 0
        return data[:end]

    def put_back(self, data):
        """Makes `data` the next bytes to be read."""
        self._buffer, self._at = data + self._buffer[self._at :], 0

    def write(self, data):
        """Sends all of `data`; under TLS up to 16384 bytes travel as one record."""
        with peer_errors(self.sock):
            self.sock.sendall(data)

    def _receive(self):
        with peer_errors(self.sock):
            data = self.sock.recv(RECEIVE)
        if not data and was_reset(self.sock):
            raise PeerGone("peer reset")
        return data


@contextlib.contextmanager
def peer_errors(sock):
    """Turns what a socket raises into PeerGone."""
    try:
        yield
    except (ssl.SSLEOFError, ssl.SSLZeroReturnError, BrokenPipeError) as error:
        raise PeerGone("peer reset" if was_reset(sock) else "peer closed") from error
    except ConnectionResetError as error:
        raise PeerGone("peer reset") from error
    except ssl.SSLError as error:
        if error.reason == "UNEXPECTED_EOF_WHILE_READING":
            raise PeerGone("peer closed") from error
        raise PeerGone("tls failed", error.reason or str(error)) from error
    except OSError as error:
        raise PeerGone("socket failed", error.strerror or str(error)) from error


def was_reset(sock):
    """Whether the peer ended with a reset: the ssl module reports that as an ordinary end."""
    watch = select.poll()
    watch.register(sock.fileno(), 0)
    return any(events & select.POLLHUP for _, events in watch.poll(0))


def peek(sock, size):
    """Waits for the first `size` bytes and returns them without taking them."""
    with peer_errors(sock):
        data = sock.recv(size, socket.MSG_PEEK | socket.MSG_WAITALL)
    if len(data) < size:
        raise PeerGone("peer closed")
    return data


def reset(sock):
    """Ends the connection with a TCP reset."""
    with contextlib.suppress(OSError):
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    close_quietly(sock)


def cut(sock):
    """Ends our direction with a FIN and without the TLS closing message."""
    with contextlib.suppress(OSError):
        socket.socket.shutdown(sock, socket.SHUT_WR)


def close(sock):
    """Ends our direction in order: the TLS closing message when there is TLS, then a FIN."""
    if isinstance(sock, ssl.SSLSocket):
        # Sends the closing message and does not wait for the peer's.
        with contextlib.suppress(OSError, ValueError):
            sock.settimeout(0)
            sock.unwrap()
    cut(sock)


def discard(sock, seconds):
    """Reads and forgets until the peer has closed too: closing earlier would send a reset."""
    with contextlib.suppress(OSError):
        socket.socket.settimeout(sock, None)
        while select.select([sock.fileno()], [], [], seconds)[0]:
            if not socket.socket.recv(sock, RECEIVE):
                return


def wait_for_end(sock):
    """Waits until the peer has gone, without reading: the peer's data pile up."""
    watch = select.poll()
    watch.register(sock.fileno(), select.POLLRDHUP)
    watch.poll()


def interrupt(sock):
    """Wakes a thread that is blocked on the socket; the thread closes it."""
    with contextlib.suppress(OSError):
        socket.socket.shutdown(sock, socket.SHUT_RDWR)


def close_quietly(sock):
    with contextlib.suppress(OSError):
        sock.close()
