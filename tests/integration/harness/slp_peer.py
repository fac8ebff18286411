"""A plain HTTPS client in Python, to test the test server itself."""

import contextlib
import email
import http.client
import select
import socket
import ssl

from .settings import PASSPHRASE, SERVER_HOST, patience

BOUNDARY = "0123456789+_=?abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123"


class Request:
    """An SLP request with the given (type, data) questions, as the daemon would compose it."""

    def __init__(self, *questions, encoding="binary"):
        self._questions = questions
        self._encoding = encoding
        self.head = (
            f"POST /slp/2.0 HTTP/1.1\r\nHost: {SERVER_HOST}\r\n"
            'Content-Type: multipart/related; type="text/xml"; '
            f'boundary="{BOUNDARY}"; start="slpHeaderPart"\r\n'
            "Transfer-Encoding: chunked\r\n\r\n"
        ).encode()

    def pieces(self):
        """The body in pieces: the start part, each part's front and data, the closing delimiter."""
        yield self._start_part()
        for number, (_, data) in enumerate(self._questions, 1):
            yield self._front(f"part{number}", "application/octet-stream", self._encoding)
            yield from [data] if isinstance(data, bytes) else data
        yield f"\r\n--{BOUNDARY}--\r\n".encode()

    def body(self):
        return b"".join(self.pieces())

    def _start_part(self):
        elements = "".join(
            f'    <ask type="{kind}" version="1.0" oid="{n}" href="cid:part{n}"/>\r\n'
            for n, (kind, _) in enumerate(self._questions, 1)
        )
        return self._front("slpHeaderPart", "text/xml; charset=UTF-8", "8bit") + (
            '<?xml version="1.0"?>\r\n'
            '<SimpleLocationProtocol version="2.0" xmlns="http://slp.kelvra.example/slp/2.0">\r\n'
            '  <SlpRequest type="terminal" platform="linux-test" swId="test" swVersion="1">\r\n'
            f"{elements}  </SlpRequest>\r\n</SimpleLocationProtocol>\r\n"
        ).encode()

    @staticmethod
    def _front(content_id, media_type, encoding):
        return (
            f"\r\n--{BOUNDARY}\r\nContent-Type: {media_type}\r\n"
            f"Content-Transfer-Encoding: {encoding}\r\nContent-Id: {content_id}\r\n\r\n"
        ).encode()


class Reply:
    """A whole HTTP response."""

    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read()

    def parts(self):
        """The parts of a multipart body by their Content-Id."""
        head = f"Content-Type: {self.headers['Content-Type']}\r\n\r\n".encode()
        message = email.message_from_bytes(head + self.body)
        assert message.is_multipart() and not message.defects, message.defects
        return {part["Content-Id"]: part.get_payload(decode=True) for part in message.get_payload()}


class SlpPeer:
    """One connection to the test server, through CONNECT unless `direct`."""

    def __init__(self, port, keys, certificate="SlpClient", direct=False, authority="Positioning"):
        self.context = ssl.create_default_context(cafile=keys / f"{authority}_CA.pem")
        if certificate:
            self.context.load_cert_chain(
                keys / f"{certificate}.pem", keys / "SlpClient-key.pem", PASSPHRASE
            )
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=patience(20))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._direct = direct

    def open(self, session=None):
        """CONNECT and the TLS handshake, which resumes a session of the same context."""
        if not self._direct:
            status, _ = self.tunnel()
            assert status == 200, status
        self.sock = self.context.wrap_socket(
            self.sock, server_hostname=SERVER_HOST, session=session
        )
        return self

    def tunnel(self, target=f"{SERVER_HOST}:443"):
        """Sends CONNECT: the status and the head of the answer."""
        self.sock.sendall(f"CONNECT {target} HTTP/1.1\r\nHost: {target}\r\n\r\n".encode())
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            data = self.sock.recv(1)
            assert data, f"the proxy ended after {head!r}"
            head += data
        return int(head.split(b" ")[1]), head

    def send_piece(self, data):
        """One HTTP chunk of the request body; nothing when it is empty."""
        if not data:
            return
        self.sock.sendall(b"%x\r\n%b\r\n" % (len(data), data))

    def send(self, request):
        """The whole request."""
        self.sock.sendall(request.head)
        for piece in request.pieces():
            self.send_piece(piece)
        self.sock.sendall(b"0\r\n\r\n")

    def reply(self):
        """The whole response."""
        response = http.client.HTTPResponse(self.sock, method="POST")
        response.begin()
        return Reply(response)

    def ask(self, *questions, **options):
        """Sends questions and returns the reply."""
        self.send(Request(*questions, **options))
        return self.reply()

    def records(self):
        """What each TLS record holds, until the server ends the connection."""
        with contextlib.suppress(ssl.SSLEOFError):
            while data := self.sock.recv(65536):
                yield data

    def ended_with_reset(self):
        """Reads to the end: True for a reset, False for an orderly end."""
        try:
            while self.sock.recv(65536):
                pass
        except (ConnectionResetError, ssl.SSLEOFError):
            pass
        # The ssl module reports a reset as an ordinary end; the socket's state tells them apart.
        watch = select.poll()
        watch.register(self.sock.fileno(), 0)
        return any(events & select.POLLHUP for _, events in watch.poll(0))

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self.open()

    def __exit__(self, *_):
        self.close()
