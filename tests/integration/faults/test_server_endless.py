"""Servers whose answer never ends: the transfer's time-out of 60 seconds ends it."""

import pytest

from harness import matrix
from harness.client import PART_CONTINUES
from harness.fault import Chunk, Fault, TimedOut, rows
from harness.response import answer, part, start_part

pytestmark = pytest.mark.waits

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

START = start_part("a") + "\r\n"


def without_end(item):
    """It comes slowly: the wait shall cost nothing."""
    return {"endless": [item, {"do": "pause", "seconds": 0.05}]}


DATA = without_end({"bytes": 16000})


@rows(
    Fault(
        "endless-body",
        server=answer(START, part("a", "data"), DATA),
        sees=[Chunk(b"data", PART_CONTINUES), TimedOut()],
    ),
    Fault("endless-preamble", server=answer(DATA), sees=[TimedOut()], long=True),
    Fault("endless-start-part", server=answer(START[:-60], DATA), sees=[TimedOut()], long=True),
    Fault(
        "endless-part-of-nobody",
        server=answer(START, part("stranger", ""), DATA),
        sees=[TimedOut()],
        long=True,
    ),
    Fault(
        "endless-epilogue",
        server=answer(START, part("a", "data") + "\r\n--frontier--\r\n", DATA),
        sees=[Chunk(b"data"), TimedOut(of=[])],
        long=True,
    ),
    Fault(
        "endless-head-line",
        server=answer("", head=["HTTP/1.1 200 OK\r\nX: ", without_end("y")]),
        sees=[TimedOut()],
        long=True,
    ),
)
def test_server_endless(fault, scene):
    fault.play(scene)
