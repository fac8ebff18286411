"""A server that sends faster than its client takes: a part of 64 MiB."""

import dataclasses
import hashlib

from harness import matrix
from harness.client import PART_CONTINUES, RESPONSE_COMPLETE
from harness.fault import Fault, Seen, rows
from harness.response import CLOSING, answer, part, start_part

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

SIZE = 64 << 20
PATTERN = bytes(range(251))


def pattern_digest(size):
    digest = hashlib.sha256()
    block = PATTERN * 4096
    for at in range(0, size, len(block)):
        digest.update(block[: size - at])
    return digest.digest()


@dataclasses.dataclass
class AnsweredSlowly(Seen):
    """The client takes its next chunk when the server has sent everything; all bytes are right."""

    size: int

    def check(self, scene):
        digest, taken = hashlib.sha256(), 0
        chunk = scene.next_chunk()
        assert chunk.code == PART_CONTINUES
        assert scene.server.wait(scene.server.last, seconds=60)["outcome"] == "answered"
        while True:
            digest.update(chunk.data)
            taken += len(chunk.data)
            if chunk.code == RESPONSE_COMPLETE:
                break
            chunk = scene.next_chunk()
        assert taken == self.size
        assert digest.digest() == pattern_digest(self.size)


@rows(
    Fault(
        "64-MiB-part-with-a-slow-client",
        server=answer(
            start_part("a") + "\r\n", part("a", ""), {"bytes": SIZE, "fill": "pattern"}, CLOSING
        ),
        sees=[AnsweredSlowly(SIZE)],
    )
)
def test_server_large(fault, scene):
    fault.play(scene)
