"""The life of one connection: CONNECT, TLS, requests, answers, and the faults in between."""

import threading

from . import tls, wire
from .answer import Answer
from .items import joined
from .upload import Head, Upload
from .wire import Ended, PeerGone, Stream

TLS_RECORD = 0x16
ENDINGS = {
    "close": "closed by server",
    "cut": "cut by server",
    "reset": "reset by server",
    "hang": "hung",
}
PARTS_NOTED = 100
DRAIN_SECONDS = 30


class Connection:
    """Serves one accepted socket on a thread of its own."""

    def __init__(self, server, sock, number):
        self._server = server
        self._sock = sock
        self._number = number
        self._behaviour = None
        self._exchange = None
        self._stream = None
        self._answering = False
        self._lock = threading.Lock()

    def serve(self):
        """The thread's main function. Every way out closes the socket and the record."""
        self._next_exchange()
        try:
            self._serve()
        except PeerGone as gone:
            self._finish(gone.outcome, gone.error)
        except Ended as ended:
            self._finish(str(ended))
        except Exception as error:  # pylint: disable=broad-except
            self._finish("server error", f"{type(error).__name__}: {error}")
            self._server.log(f"connection {self._number}: {type(error).__name__}: {error}")
        finally:
            with self._lock:
                wire.close_quietly(self._sock)
            self._finish("closed")

    def interrupt(self):
        """Wakes the thread, whatever it waits for. Any thread."""
        with self._lock:
            wire.interrupt(self._sock)

    # -- stations ------------------------------------------------------------------------------

    def _serve(self):
        self._reach("accept")
        first = wire.peek(self._sock, 1)
        if first[0] != TLS_RECORD:
            self._be_proxy()
        self._start_tls()
        self._stream = Stream(self._sock)
        self._serve_request()
        while self._wait_for_request():
            self._serve_request()

    def _be_proxy(self):
        """Answers CONNECT; returns when TLS for the named host comes next."""
        stream = Stream(self._sock)
        head = Head(stream.read_through(b"\r\n\r\n"))
        self._exchange.proxy = {"target": head.target, **head.snapshot()}
        if head.method != "CONNECT":
            stream.write(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")
            self._end("close", "plain request refused")
        self._reach("connect")
        spec = self._behaviour.proxy
        status = spec.get("status", 200)
        stream.write(joined(spec["raw"]) if "raw" in spec else _proxy_answer(spec, status))
        if not 200 <= status <= 299:
            self._end("close", "CONNECT refused")
        self._reach("tunnel")

    def _start_tls(self):
        behaviour, server = self._behaviour, self._server
        context = server.keys.context(
            behaviour.certificate,
            behaviour.client_certificate or server.client_certificate,
            behaviour.alpn,
            behaviour.tls_version,
        )
        if behaviour.steps_at("client-hello"):
            tls.wait_for_client_hello(self._sock)
            self._reach("client-hello")
        for step in behaviour.steps_at("server-flight"):
            tls.send_server_flight(context, self._sock, step.get("bytes"))
            self._reach("server-flight")
        # The object exists before the handshake, so that interrupt() finds the socket.
        sock = context.wrap_socket(self._sock, server_side=True, do_handshake_on_connect=False)
        with self._lock:
            self._sock = sock
        if self._server.stopping:
            raise Ended("stopped")
        with wire.peer_errors(sock):
            sock.do_handshake()
        self._exchange.tls = tls.describe(self._sock)
        self._reach("handshake")
        if self._exchange.tls["alpn"] == "h2":
            self._end("close", "the client chose h2")

    def _wait_for_request(self):
        """True when another request begins on this connection."""
        try:
            first = self._stream.read_through(b"\r\n")
        except PeerGone:
            return False
        if not first:
            return False
        exchange = self._exchange
        self._next_exchange()
        self._exchange.proxy, self._exchange.tls = exchange.proxy, exchange.tls
        self._stream.put_back(first)
        return True

    def _serve_request(self):
        text = self._stream.read_through(b"\r\n\r\n")
        if text is None:
            raise PeerGone("peer closed without a request")
        head = Head(text)
        self._exchange.request = head.snapshot()
        upload = Upload(self._stream, head, self._exchange, self._behaviour.echoes)
        self._answering = False
        try:
            self._reach("head")
            self._receive(upload)
            reusable = self._answer(upload)
            self._after_answer(upload, reusable)
        finally:
            upload.close()

    # -- request and answer --------------------------------------------------------------------

    def _receive(self, upload):
        """Reads the body, and stops at each place where the script has something to do."""
        for step in sorted(self._behaviour.steps_at("upload"), key=_upload_place):
            if self._answering:
                return
            upload.read(lambda step=step: _upload_is_at(upload, self._exchange, step))
            if not upload.complete or _upload_is_at(upload, self._exchange, step):
                self._exchange.reach("upload")
                self._act(step)
        if not self._answering:
            upload.read()
            self._reach("upload-end")

    def _answer(self, upload):
        spec = self._behaviour.answer
        if not upload.usable and upload.complete and not spec:
            self._refuse()
            return True
        answer = Answer(
            self._behaviour, upload, self._stream, self._exchange, self._act, self._reach
        )
        return answer.send()

    def _refuse(self):
        text = "\r\n".join(self._exchange.findings).encode() + b"\r\n"
        self._exchange.answer["status"] = 400
        self._stream.write(
            b"HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\n"
            b"Content-Length: %d\r\n\r\n%b" % (len(text), text)
        )

    def _after_answer(self, upload, reusable):
        self._reach("answered")
        then = self._behaviour.answer.get("then", "keep")
        if then != "keep":
            self._end(then, "answered")
        if reusable:
            try:
                upload.read()
            except PeerGone:
                self._finish("answered", "the client did not finish its upload")
                raise
        self._finish("answered")
        if not reusable:
            self._end("close")

    # -- the script ----------------------------------------------------------------------------

    def _reach(self, point, part=None):
        """Notes the point and carries out the steps that the script has there."""
        if part is None:
            self._exchange.reach(point)
        elif part <= PARTS_NOTED:
            self._exchange.reach(f"{point}:{part}")
        for step in self._behaviour.steps_at(point):
            if part is None or step.get("part", 1) == part:
                self._act(step)

    def _act(self, step):
        action = step["do"]
        if action == "pause":
            self._server.events.sleep(step["seconds"])
        elif action == "wait":
            if not self._server.events.take(step["event"]):
                raise Ended("stopped")
        elif action == "answer":
            self._answering = True
        else:
            self._end(action, ENDINGS[action], step.get("read", True))
        if self._server.stopping:
            raise Ended("stopped")

    def _end(self, action, outcome="answered", reads=True):
        """Ends the connection in the given way; the record is complete before the end is seen."""
        self._finish(outcome)
        if action == "reset":
            with self._lock:
                wire.reset(self._sock)
        elif action == "hang":
            if reads:
                wire.discard(self._sock, None)
            else:
                wire.wait_for_end(self._sock)
        else:
            if action == "close":
                wire.close(self._sock)
            else:
                wire.cut(self._sock)
            wire.discard(self._sock, DRAIN_SECONDS)
        raise Ended(outcome)

    def _next_exchange(self):
        self._behaviour = self._server.queue.take()
        self._exchange = self._server.recorder.begin(self._number)
        self._exchange.label = self._behaviour.label

    def _finish(self, outcome, error=None):
        if self._exchange.outcome is None:
            self._exchange.finish("stopped" if self._server.stopping else outcome, error)
            self._server.log(_summary(self._exchange))


def _proxy_answer(spec, status):
    reason = spec.get("reason", "Connection established" if status == 200 else "Refused")
    lines = [f"HTTP/1.1 {status} {reason}"]
    lines += [f"{name}: {value}" for name, value in spec.get("headers", [])]
    body = spec.get("body", "")
    if not 200 <= status <= 299:
        lines.append(f"Content-Length: {len(body.encode())}")
    return ("\r\n".join(lines) + "\r\n\r\n" + body).encode()


def _upload_place(step):
    return step.get("part", 0), step.get("bytes", 1)


def _upload_is_at(upload, exchange, step):
    if "part" in step:
        return len(upload.data_parts) >= step["part"]
    return exchange.body_bytes >= step.get("bytes", 1)


def _summary(exchange):
    target = exchange.proxy["target"] if exchange.proxy else "direct"
    return (
        f"exchange {exchange.number}: {target}, {exchange.body_bytes} bytes in,"
        f" {exchange.answer['bytes']} bytes out, {exchange.outcome}"
    )
