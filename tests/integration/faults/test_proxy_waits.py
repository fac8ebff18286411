"""Proxies that never come to an answer: thirty seconds, and the exchange is given up."""

import contextlib
import dataclasses
import select
import socket
import time

from harness import curl, matrix
from harness.fault import TRANSPORT, Failed, Fault, one_request, rows
from harness.settings import patience

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

SECONDS = 30  # for a connection as a whole, CONNECT and TLS included


@dataclasses.dataclass
class FailedLate(Failed):
    """As Failed, and the server or its proxy had been waited for until then."""

    def check(self, scene):
        super().check(scene)
        took = time.monotonic() - scene.began
        assert SECONDS - 1 < took < SECONDS + patience(5), took


LATE = FailedLate(TRANSPORT, curl.OPERATION_TIMEDOUT)


def patiently(scene):
    """One request, of which is noted when it began."""
    scene.began = time.monotonic()
    one_request(scene)


def through_a_full_backlog(scene):
    """As `patiently`, with a proxy that has no room for a further connection."""
    with contextlib.ExitStack() as sockets:
        listener = sockets.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
        while is_connected(sockets.enter_context(socket.socket()), listener.getsockname()):
            pass
        scene.platform.write(proxy=listener.getsockname())
        patiently(scene)


def is_connected(sock, address):
    """Whether the connection comes about at once."""
    sock.setblocking(False)
    sock.connect_ex(address)
    return bool(select.select([], [sock], [], 0.2)[1])


def hanging(point, **behaviour):
    return {"on": [{"at": point, "do": "hang"}], **behaviour}


ROWS = [
    Fault(
        "says-nothing",
        server=hanging("connect"),
        act=patiently,
        sees=[LATE],
    ),
    Fault(
        "stops-in-the-middle-of-its-answer",
        server=hanging("tunnel", proxy={"raw": "HTTP/1.1 200 OK\r\nVia: 1."}),
        act=patiently,
        sees=[LATE],
    ),
    Fault("accepts-no-connection", act=through_a_full_backlog, sees=[LATE]),
]


@rows(*ROWS)
def test_proxy_waits(fault, scene):
    fault.play(scene)
