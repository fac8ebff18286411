"""The largest array that D-Bus knows, on a bus that passes it on."""

import pytest

from harness import matrix
from harness.client import BusError
from harness.fault import QUESTION, Answered, Fault, Server, rows
from harness.moment import Uploaded
from harness.private_bus import PrivateBus
from harness.response import CLOSING, answer, part, start_part
from harness.waiting import wait_for

_, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

LARGEST = 64 << 20  # bytes of an array
ROOM = 80 << 20  # bytes of a message
RECEIVED = answer(start_part("a"), "\r\n" + part("a", "received") + CLOSING)


@pytest.fixture(scope="module")
def bus(tmp_path_factory):
    limits = {"max_message_size": ROOM, "max_incoming_bytes": ROOM, "max_outgoing_bytes": ROOM}
    bus = PrivateBus(tmp_path_factory.mktemp("bus"), limits=limits)
    yield bus
    bus.stop()


def send(size):
    def act(scene):
        request = scene.request(kind="fingerprint").wait_until_asked()  # its client has time
        sender = scene.client()
        try:
            assert sender.sendData(request.connection, request.id, bytes(size)) == 0
        except BusError:
            wait_for(sender.bus.is_closed)
            assert request.send(QUESTION) == 0

    return act


@rows(
    Fault(
        "64-mib",
        server=RECEIVED,
        act=send(LARGEST),
        sees=[Answered([b"received"]), Uploaded(LARGEST), Server("answered")],
    ),
    Fault(
        "a-byte-more",
        server=RECEIVED,
        act=send(LARGEST + 1),
        sees=[Answered([b"received"]), Uploaded(len(QUESTION))],
    ),
)
def test_large_message(fault, scene):
    fault.play(scene)
