"""Moments in the life of a request: a row of the fault matrix brings one there and holds it.

The request is the scene's first, of its first client. Where the server holds the exchange, the event
"go" lets it go on.
"""

import dataclasses
from typing import Any, Callable

from . import observe
from .client import PART_COMPLETE, PART_CONTINUES, RESPONSE_COMPLETE
from .fault import QUESTION, Seen
from .response import CLOSING, DELIMITER, answer, part, start_part, wait

ANSWER = b"the answer"
HALF = len(QUESTION) // 2
_CELL = {"connections": [(2, True, False)]}  # attached requests wait
_WHOLE = [start_part("a"), "\r\n" + part("a", ANSWER.decode()) + CLOSING]
_FIRST, _SECOND = ANSWER.split()


@dataclasses.dataclass(frozen=True, eq=False)
class Moment:
    """One moment, and what is still to come from there."""

    name: str
    reach: Callable
    server: Any = None
    platform: dict | None = None
    exchange: bool = True  # one is running
    held: bool = False  # by the server, until "go"
    asks: bool = False  # the daemon is still to ask for the data
    unsent: bytes = b""  # what the daemon would still take
    ready: bool = False  # a call of getData would be answered at once
    left: tuple = ()  # the parts that are still to be fetched, as far as they are not

    def set_up(self):
        """The fields of a row that has to do with the surroundings."""
        return {"server": self.server, "platform": self.platform}

    def let_go(self, scene):
        """The server goes on."""
        if self.held:
            scene.server.give("go")


class ExchangeOver(Seen):
    """The exchange has ended, and the daemon has swept up after it."""

    def check(self, scene):
        scene.server.wait(scene.server.last, seconds=20)
        observe.wait_until_idle(scene.daemon.pid)


@dataclasses.dataclass
class Uploaded(Seen):
    """So many bytes of the first request's data have come to the server."""

    size: int

    def check(self, scene):
        record = scene.server.wait(scene.server.last)
        assert record["parts"][1]["bytes"] == self.size, record["parts"]


# -- how to get there ------------------------------------------------------------------------------


def _request(scene, **parameters):
    # The daemon announces the connection status before each part that is not a "position".
    return scene.request(**{"kind": "position"} | parameters)


def _waiting(scene):
    scene.client().wait_for_status(1)
    _request(scene, attached=True)


def _queued(scene):
    number = scene.server.last + 1
    _request(scene)
    scene.server.wait(number, "accept")


def _asked(scene, **parameters):
    _request(scene, **parameters).wait_until_asked()


def _begun(scene):
    _asked(scene)
    assert scene.requests[0].send(QUESTION[:HALF], last=False) == 0


def _sent(scene, point="upload-end", **parameters):
    number = scene.server.last + 1
    _asked(scene, **parameters)
    assert scene.requests[0].send(QUESTION) == 0
    return scene.server.wait(number, point)


def _receiving(scene):
    _sent(scene)
    assert scene.next_chunk() == (_FIRST, PART_CONTINUES)


def _between_parts(scene):
    _sent(scene)
    assert scene.next_chunk() == (_FIRST, PART_COMPLETE)


def _complete(scene):
    _sent(scene, chunk_size=len(_FIRST))
    assert scene.next_chunk() == (_FIRST, PART_CONTINUES)


def _delivered(scene):
    _sent(scene)
    assert scene.next_chunk() == (ANSWER, RESPONSE_COMPLETE)


def _answered(scene):
    _sent(scene)
    ExchangeOver().check(scene)


def _fetched_late(scene):
    _answered(scene)
    assert scene.next_chunk() == (ANSWER, RESPONSE_COMPLETE)


# -- the moments -----------------------------------------------------------------------------------

WAITING = Moment(
    "waiting", _waiting, platform=_CELL, exchange=False, asks=True, unsent=QUESTION, left=(QUESTION,)
)
QUEUED = Moment(
    "queued",
    _queued,
    server={"on": [{"at": "accept", "do": "wait", "event": "go"}]},
    held=True,
    asks=True,
    unsent=QUESTION,
    left=(QUESTION,),
)
ASKED = Moment("asked", _asked, server={}, unsent=QUESTION, left=(QUESTION,))
BEGUN = Moment("half-sent", _begun, server={}, unsent=QUESTION[HALF:], left=(QUESTION,))
SENT = Moment(
    "sent",
    _sent,
    server={"on": [{"at": "upload-end", "do": "wait", "event": "go"}]},
    held=True,
    left=(QUESTION,),
)
RECEIVING = Moment(
    "receiving",
    _receiving,
    server=answer(
        start_part("a"),
        "\r\n" + part("a", _FIRST.decode()),
        wait("go"),
        " " + _SECOND.decode() + CLOSING,
    ),
    held=True,
    left=(b" " + _SECOND,),
)
BETWEEN_PARTS = Moment(
    "between-parts",
    _between_parts,
    server=answer(
        start_part("a", "b"),
        "\r\n" + part("a", _FIRST.decode()) + f"\r\n{DELIMITER}\r\n",
        wait("go"),
        f"Content-Id: b\r\n\r\n{_SECOND.decode()}{CLOSING}",
    ),
    held=True,
    left=(_SECOND,),
)
COMPLETE = Moment(
    "complete",
    _complete,
    server=answer(*_WHOLE, wait("go"), "epilogue"),
    held=True,
    ready=True,
    left=(b" " + _SECOND,),
)
DELIVERED = Moment(
    "delivered", _delivered, server=answer(*_WHOLE, wait("go"), "epilogue"), held=True
)
ANSWERED = Moment(
    "answered", _answered, server=answer(*_WHOLE), exchange=False, ready=True, left=(ANSWER,)
)
FETCHED_LATE = Moment("fetched-late", _fetched_late, server=answer(*_WHOLE), exchange=False)

MOMENTS = (
    WAITING,
    QUEUED,
    ASKED,
    BEGUN,
    SENT,
    RECEIVING,
    BETWEEN_PARTS,
    COMPLETE,
    DELIVERED,
    ANSWERED,
    FETCHED_LATE,
)
