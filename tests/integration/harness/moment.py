"""Moments in the life of a request: a row of the fault matrix brings one there and holds it.

Where the server holds the exchange, the event "go" lets it go on.
"""

import dataclasses
from typing import Any, Callable

from . import observe
from .client import PART_COMPLETE, PART_CONTINUES, RESPONSE_COMPLETE
from .fault import QUESTION, TRANSPORT, Failed, Fault, Seen
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
    number: int = 0  # of the request in the scene; the moments of MOMENTS have no other
    exchange: bool = True  # one is running
    held: bool = False  # by the server, until "go"
    asks: bool = False  # the daemon is still to ask for the data
    unsent: bytes = b""  # what the daemon would still take
    ready: bool = False  # a call of getData would be answered at once
    left: tuple = ()  # the parts that are still to be fetched, as far as they are not
    serve_others: Callable = lambda scene: None  # what the other requests need for it to go on
    others: tuple = ()  # the requests whose answers come with it

    def set_up(self):
        """The fields of a row that has to do with the surroundings."""
        return {"server": self.server, "platform": self.platform}

    def request(self, scene):
        return scene.requests[self.number]

    def let_go(self, scene):
        """The server goes on."""
        if self.held:
            scene.server.give("go")
        self.serve_others(scene)

    def send_rest(self, scene):
        """The daemon gets the data that it asks for, or has asked for."""
        if self.asks:
            self.request(scene).wait_until_asked()
        if self.unsent:
            assert self.request(scene).send(self.unsent) == 0


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
    number = scene.server.last + 1
    _asked(scene)
    assert scene.requests[0].send(QUESTION[:HALF], last=False) == 0
    scene.server.wait(number, "upload")


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


def _prepared_behind(scene):
    _sent(scene)
    _request(scene)


def _attached_behind(scene):
    _sent(scene)
    _request(scene, attached=True)


def _queued_behind(scene):
    _prepared_behind(scene)
    _request(scene)
    scene.server.give("go")
    _fetch_first(scene)
    scene.requests[1].wait_until_asked()


def _fetch_first(scene):
    assert scene.fetch(0) == [QUESTION]


def _send_second(scene):
    assert scene.requests[1].send(QUESTION) == 0


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
BEGUN = Moment(
    "half-sent",
    _begun,
    server={"on": [{"at": "upload", "part": 1, "do": "pause", "seconds": 0}]},
    unsent=QUESTION[HALF:],
    left=(QUESTION,),
)
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

# -- moments with other requests about -------------------------------------------------------------

_BEHIND = {
    "server": SENT.server,
    "number": 1,
    "held": True,
    "asks": True,
    "unsent": QUESTION,
    "left": (QUESTION,),
    "serve_others": _fetch_first,
}
PREPARED_BEHIND = Moment("prepared-behind-an-exchange", _prepared_behind, **_BEHIND)
ATTACHED_BEHIND = Moment("attached-behind-an-exchange", _attached_behind, **_BEHIND)
# In an exchange that asks for another one's data first.
QUEUED_BEHIND = Moment(
    "queued-behind-another",
    _queued_behind,
    server=SENT.server,
    number=2,
    asks=True,
    unsent=QUESTION,
    left=(QUESTION,),
    serve_others=_send_second,
    others=(1,),
)

# All moments but that of a request whose exchange is over and whose answer was fetched.
UNFINISHED = (*MOMENTS[:-1], PREPARED_BEHIND, ATTACHED_BEHIND, QUEUED_BEHIND)


# -- rows ------------------------------------------------------------------------------------------


class At:
    """What the clients of a row do: bring a request to a moment; `asks`: and call getData."""

    def __init__(self, moment, asks=False):
        self.moment = moment
        self.asks = asks

    def row(self, name, sees):
        """A row that begins like this."""
        name += f"-when-{self.moment.name}" + ("-and-waited-for" if self.asks else "")
        return Fault(name, **self.moment.set_up(), act=self, sees=sees)

    def __call__(self, scene):
        self.moment.reach(scene)
        if self.asks:
            scene.ask(self.moment.number)
        for client in scene.clients:
            client.settle()
            client.signals.clear()


@dataclasses.dataclass
class OfMoment(Seen):
    """Something that the moment's request has to do with."""

    moment: Moment


class GoesOn(OfMoment):
    """Nothing is seen: the exchange goes on."""

    def check(self, scene):
        self.moment.let_go(scene)


class TakesData(OfMoment):
    """The daemon takes the data that the request needs."""

    def check(self, scene):
        self.moment.send_rest(scene)


class AnswersIt(OfMoment):
    """The rest of the answer comes."""

    def check(self, scene):
        assert scene.fetch(self.moment.number) == list(self.moment.left)
        for number in self.moment.others:
            assert scene.fetch(number) == [QUESTION]


class GoesWithoutAnswer(OfMoment):
    """The exchange ends, and the daemon knows the request no more."""

    def check(self, scene):
        for number in self.moment.others:
            assert scene.fetch(number) == [QUESTION]
        assert scene.server.wait(scene.server.last)["outcome"] == "answered"
        observe.wait_until_idle(scene.daemon.pid)
        request = self.moment.request(scene)
        assert request.send(b"late") == 41
        assert request.ask_error() == 41


class Waits(OfMoment):
    """The request is not asked for its data, also when the exchange before it has ended."""

    def check(self, scene):
        observe.wait_until_idle(scene.daemon.pid)
        assert self.moment.request(scene).send(b"early") == 57


def as_if_nothing_were(moment, *meanwhile):
    """What is seen of a request that goes on; `meanwhile`: before it needs anything."""
    ends = AnswersIt if moment.left else GoesWithoutAnswer
    return [GoesOn(moment), *meanwhile, TakesData(moment), ends(moment)]


def lost(at, back):
    """What is seen of a request whose connection is lost; `back` repairs that."""
    moment = at.moment
    if moment in (WAITING, ATTACHED_BEHIND):
        return as_if_nothing_were(moment, Waits(moment), back)
    fails_alone = Failed(TRANSPORT, "Connection error", of=[moment.number])
    if moment is PREPARED_BEHIND:
        return [fails_alone, GoesOn(moment), GoesWithoutAnswer(moment)]
    if at.asks:
        return [fails_alone, GoesOn(moment), TakesData(moment), GoesWithoutAnswer(moment)]
    return as_if_nothing_were(moment)  # the exchange goes on, and nobody waits for its answer
