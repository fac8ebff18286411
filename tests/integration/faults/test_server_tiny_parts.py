"""A server whose answer has 100,000 parts."""

import dataclasses
import select
import struct
import time

from gi.repository import Gio, GLib

from harness import matrix
from harness.client import PART_CONTINUES, RESPONSE_COMPLETE
from harness.fault import Answered, Fault, Seen, rows
from harness.settings import patience

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

COUNT = 100_000
REQUESTS = 20  # share the parts: each one gets them one by one, but all of them at once
SHARE = COUNT // REQUESTS
TWO = {"connections": [(2, True, False)]}  # attached requests wait for a prepared one


class Fetcher:
    """Fetches the answers of several requests at once, through a client of little ceremony."""

    def __init__(self, raw, requests):
        self._raw = raw
        self._calls = []
        for request in requests:
            body = GLib.Variant("(uu)", (request.connection, request.id))
            message = raw.compose("getData", body)
            self._calls.append(bytearray(message.to_blob(Gio.DBusCapabilityFlags.NONE)))
        self._serial = 1 << 20  # far from those that the client gives
        self._waiting = {}
        self._begun = [b"" for _ in requests]  # of the part that is being fetched
        self.parts = [[] for _ in requests]

    def fetch(self, seconds):
        """Fetches until every answer is complete."""
        deadline = time.monotonic() + patience(seconds)
        self._call(range(len(self._calls)))
        poll = select.poll()
        poll.register(self._raw, select.POLLIN)
        while self._waiting:
            assert poll.poll(max(0, deadline - time.monotonic()) * 1000), "no answer in time"
            self._call([n for n in map(self._take, self._raw.take_arrived()) if n is not None])

    def _call(self, numbers):
        blobs = []
        for number in numbers:
            self._serial += 1
            struct.pack_into("<I", self._calls[number], 8, self._serial)
            blobs.append(bytes(self._calls[number]))
            self._waiting[self._serial] = number
        self._raw.send_blobs(*blobs)

    def _take(self, message):
        """Keeps a chunk; the number of the request that has more."""
        number = self._waiting.pop(message.get_reply_serial())
        data, code = message.get_body().unpack()
        self._begun[number] += bytes(data)
        if code != PART_CONTINUES:  # as it is when the delimiter comes with the next piece
            self.parts[number].append(self._begun[number])
            self._begun[number] = b""
        return number if code != RESPONSE_COMPLETE else None


@dataclasses.dataclass
class AllAnswered(Seen):
    """Each request gets its share of the parts, in order."""

    def check(self, scene):
        fetcher = Fetcher(scene.raw_client(), scene.requests)
        fetcher.fetch(120)
        for number, parts in enumerate(fetcher.parts, 1):
            assert parts == [b"%d-%d" % (number, n) for n in range(1, SHARE + 1)]


def twenty_requests(scene):
    client = scene.client()
    client.wait_for_status(1)
    for attached in [True] * (REQUESTS - 1) + [False]:
        scene.request(attached=attached)
    scene.requests.insert(0, scene.requests.pop())  # in the order of the transfer
    for request in scene.requests:
        request.give(b"question")
    scene.server.wait(scene.server.last, seconds=60)


def tiny_parts(results, parts):
    """An answer of small parts, many of them in each piece."""
    return {"answer": {"multipart": {"results": results, "parts": parts}, "pack": 16000}}


@rows(
    Fault(
        "100,000-tiny-parts-of-nobody",
        server=tiny_parts(
            [{"oid": "1", "href": "cid:a"}],
            [
                {"id": "stranger-{n}", "body": "x", "times": COUNT},
                {"id": "a", "body": "data"},
            ],
        ),
        sees=[Answered([b"data"], seconds=60)],
    ),
    Fault(
        "100,000-tiny-parts",
        platform=TWO,
        server=tiny_parts(
            [
                {"oid": str(number), "href": f"cid:{number}-{{n}}", "times": SHARE}
                for number in range(1, REQUESTS + 1)
            ],
            [
                {"id": f"{number}-{{n}}", "body": f"{number}-{{n}}", "times": SHARE}
                for number in range(1, REQUESTS + 1)
            ],
        ),
        act=twenty_requests,
        sees=[AllAnswered()],
    ),
)
def test_server_tiny_parts(fault, scene):
    fault.play(scene)
