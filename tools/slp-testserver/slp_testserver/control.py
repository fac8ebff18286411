"""The control port: plain HTTP with JSON, on loopback.

  GET    /status                      how many exchanges, connections, behaviours in the queue
  POST   /behaviours                  appends one behaviour or a list of them to the queue
  DELETE /behaviours                  empties the queue
  PUT    /default                     the behaviour for when the queue is empty
  POST   /events/NAME[?count=N]       lets N scripts that wait for NAME go on
  DELETE /events                      takes back the events that nobody has waited for, and ends
                                      the connections whose scripts wait
  GET    /exchanges[?since=N]         the records after number N, oldest first
  GET    /exchanges/N                 one record
  GET    /exchanges/N/wait?seconds=S[&point=P]
                                      the record, as soon as the exchange is over, or has come to
                                      point P or past its end; 408 when S seconds were not enough
  GET    /exchanges/N/body            the request body, as much of it as was kept
"""

import http.server
import json
import re
import threading
import urllib.parse

from .script import BadScript


class Control:
    """Serves the control port on threads of its own."""

    def __init__(self, server, host, port):
        handler = type("Handler", (_Handler,), {"server_under_control": server})
        self._http = _HttpServer((host, port), handler)

    @property
    def port(self):
        return self._http.server_address[1]

    def start(self):
        threading.Thread(
            target=self._http.serve_forever, args=(0.05,), name="control", daemon=True
        ).start()

    def stop(self):
        self._http.shutdown()
        self._http.server_close()


class _HttpServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def handle_error(self, request, client_address):
        """A client that goes away is no news."""


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    wbufsize = -1
    server_under_control = None

    def do_GET(self):
        self._route("GET")

    def do_POST(self):
        self._route("POST")

    def do_PUT(self):
        self._route("PUT")

    def do_DELETE(self):
        self._route("DELETE")

    def log_message(self, *_arguments):
        """Silent: the exchanges are the news."""

    def _route(self, method):
        url = urllib.parse.urlsplit(self.path)
        self.query = dict(urllib.parse.parse_qsl(url.query))
        length = int(self.headers.get("Content-Length") or 0)
        self.body = self.rfile.read(length)
        for wanted, pattern, action in _ROUTES:
            match = re.fullmatch(pattern, urllib.parse.unquote(url.path))
            if wanted == method and match:
                try:
                    action(self, *match.groups())
                except (BadScript, TypeError, ValueError, KeyError) as error:
                    self._send({"error": str(error)}, 400)
                return
        self._send({"error": f"no {method} {url.path}"}, 404)

    def _status(self):
        server = self.server_under_control
        self._send(
            {
                "exchanges": server.recorder.last,
                "connections": server.open_connections,
                "queue": len(server.queue),
            }
        )

    def _add_behaviours(self):
        self._send({"queue": self.server_under_control.queue.add(json.loads(self.body))})

    def _clear_behaviours(self):
        self.server_under_control.queue.clear()
        self._send({})

    def _set_default(self):
        self.server_under_control.queue.set_default(json.loads(self.body))
        self._send({})

    def _give_event(self, name):
        self.server_under_control.events.give(name, int(self.query.get("count", 1)))
        self._send({})

    def _forget_events(self):
        self.server_under_control.events.forget()
        self._send({})

    def _exchanges(self):
        found = self.server_under_control.recorder.since(int(self.query.get("since", 0)))
        self._send([exchange.snapshot() for exchange in found])

    def _exchange(self, number):
        self._send_exchange(self.server_under_control.recorder.find(int(number)), 404)

    def _wait(self, number):
        seconds = float(self.query.get("seconds", 10))
        recorder = self.server_under_control.recorder
        self._send_exchange(recorder.wait_for(int(number), self.query.get("point"), seconds), 408)

    def _body(self, number):
        exchange = self.server_under_control.recorder.find(int(number))
        if exchange is None:
            self._send({"error": "no such exchange"}, 404)
        else:
            self._send_bytes(bytes(exchange.body), "application/octet-stream")

    def _send_exchange(self, exchange, otherwise):
        if exchange is None:
            self._send({"error": "no such exchange, or not yet"}, otherwise)
        else:
            self._send(exchange.snapshot())

    def _send(self, values, status=200):
        self._send_bytes(json.dumps(values).encode() + b"\n", "application/json", status)

    def _send_bytes(self, data, media_type, status=200):
        self.send_response(status)
        self.send_header("Content-Type", media_type)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)


# pylint: disable=protected-access
_ROUTES = (
    ("GET", "/status", _Handler._status),
    ("POST", "/behaviours", _Handler._add_behaviours),
    ("DELETE", "/behaviours", _Handler._clear_behaviours),
    ("PUT", "/default", _Handler._set_default),
    ("POST", "/events/([^/]+)", _Handler._give_event),
    ("DELETE", "/events", _Handler._forget_events),
    ("GET", "/exchanges", _Handler._exchanges),
    ("GET", r"/exchanges/(\d+)", _Handler._exchange),
    ("GET", r"/exchanges/(\d+)/wait", _Handler._wait),
    ("GET", r"/exchanges/(\d+)/body", _Handler._body),
)
