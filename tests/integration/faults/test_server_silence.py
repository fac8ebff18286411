"""Servers that accept the connection and then say nothing: the time-outs end the transfer."""

import pytest

from harness import matrix
from harness.client import PART_CONTINUES
from harness.fault import Chunk, Fault, TimedOut, rows, sending
from harness.response import answer, part, start_part

pytestmark = pytest.mark.waits

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

UPLOAD = b"x" * 20_000_000  # more than fits into all buffers on the way
CONNECTING, TRANSFER = 30, 60  # seconds
POINTS = {
    "in-the-middle-of-the-handshake": ({"at": "server-flight", "bytes": 100}, CONNECTING),
    "after-the-handshake": ({"at": "handshake"}, TRANSFER),
    "after-the-request-head": ({"at": "head"}, TRANSFER),
    "in-the-middle-of-the-upload": ({"at": "upload", "bytes": 100_000}, TRANSFER),
    "after-the-upload": ({"at": "upload-end"}, TRANSFER),
    "after-the-response-head": ({"at": "response-head"}, TRANSFER),
}


def silent_servers():
    for point, (step, seconds) in POINTS.items():
        yield Fault(
            f"says-nothing-{point}",
            server={"on": [{**step, "do": "hang"}]},
            act=sending(UPLOAD[:300_000]),
            sees=[TimedOut(after=seconds)],
            long=True,
        )
    yield Fault(
        "reads-nothing-in-the-middle-of-the-upload",
        server={"on": [{"at": "upload", "bytes": 100_000, "do": "hang", "read": False}]},
        act=sending(UPLOAD),
        sees=[TimedOut(after=TRANSFER)],
        long=True,
    )
    yield Fault(
        "says-nothing-in-a-part",
        server=answer(start_part("a") + "\r\n", part("a", "half"), {"do": "hang"}),
        sees=[Chunk(b"half", PART_CONTINUES), TimedOut(after=TRANSFER)],
        long=True,
    )


@rows(
    Fault(
        "accepts-and-says-nothing",
        server={"on": [{"at": "tunnel", "do": "hang"}]},
        sees=[TimedOut(after=CONNECTING)],
    ),
    *silent_servers(),
)
def test_server_silence(fault, scene):
    fault.play(scene)
