"""Servers that end the connection, or never answer."""

import pytest

from harness import curl, matrix
from harness.client import PART_CONTINUES
from harness.fault import TRANSPORT, Answered, Chunk, Failed, Fault, rows, sending
from harness.response import BOUNDARY, START, answer, part, start_part

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

ROWS = [
    Fault("plain", server={}, sees=[Answered()]),
    Fault(
        "resets-after-the-request-head",
        server={"on": [{"at": "head", "do": "reset"}]},
        sees=[Failed(TRANSPORT, {curl.RECV_ERROR, curl.SEND_ERROR})],
    ),
]


@rows(*ROWS)
def test_server_connection(fault, scene):
    fault.play(scene)
