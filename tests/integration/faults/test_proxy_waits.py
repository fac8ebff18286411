"""Proxies that never come to an answer: thirty seconds, and the exchange is given up."""

import contextlib
import select
import socket

import pytest

from harness import matrix
from harness.fault import Fault, TimedOut, one_request, rows

pytestmark = pytest.mark.waits

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

SECONDS = 30  # for a connection as a whole, CONNECT and TLS included


def through_a_full_backlog(scene):
    """As `one_request`, with a proxy that has no room for a further connection."""
    with contextlib.ExitStack() as sockets:
        listener = sockets.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
        while is_connected(sockets.enter_context(socket.socket()), listener.getsockname()):
            pass
        scene.platform.write(proxy=listener.getsockname())
        one_request(scene)


def is_connected(sock, address):
    """Whether the connection comes about at once."""
    sock.setblocking(False)
    sock.connect_ex(address)
    return bool(select.select([], [sock], [], 0.2)[1])


def hanging(point, **behaviour):
    return {"on": [{"at": point, "do": "hang"}], **behaviour}


ROWS = [
    Fault("says-nothing", server=hanging("connect"), sees=[TimedOut(after=SECONDS)]),
    Fault(
        "stops-in-the-middle-of-its-answer",
        server=hanging("tunnel", proxy={"raw": "HTTP/1.1 200 OK\r\nVia: 1."}),
        sees=[TimedOut(after=SECONDS)],
    ),
    Fault(
        "accepts-no-connection",
        act=through_a_full_backlog,
        sees=[TimedOut(after=SECONDS)],
    ),
]


@rows(*ROWS)
def test_proxy_waits(fault, scene):
    fault.play(scene)
