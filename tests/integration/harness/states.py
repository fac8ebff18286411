"""A request in each state that it passes through, held there while something happens to it.

A course is a generator that plays an exchange of the scene. It yields a Held when the request is
where the course's name says, lets the exchange go on when it is resumed, and looks after the other
requests of the row, if there are any, when it is resumed again.
"""

import dataclasses

from . import observe
from .client import PART_COMPLETE, PART_CONTINUES
from .fault import TRANSPORT, Failed, Seen
from .response import CLOSING, START, answer, part, start_part, wait

KIND_ONE, KIND_TWO = [(1, True, False)], [(2, True, False)]
DATA = b"the client's data"
HALF = len(DATA) // 2
GO = "go"

_HELD_UPLOAD = {"on": [{"at": "upload-end", "do": "wait", "event": GO}]}
_START = start_part("a") + "\r\n"
_PART = part("a", DATA.decode())


@dataclasses.dataclass
class Held:
    """A request of the scene that is held in a state, and what it needs to be answered."""

    number: int
    state: int  # as the daemon counts them: 0 to 7
    data: bytes | None = None  # still to be given; None: all of them were given
    rest: tuple = (DATA,)  # the parts of the answer that are still to be fetched


# -- courses ---------------------------------------------------------------------------------------


def waiting_for_a_connection(scene):
    """Attached, over a connection that such requests do not use."""
    scene.platform.write(connections=KIND_TWO)
    scene.client().wait_for_status(1)
    _request(scene, attached=True)
    yield Held(0, 0, DATA)


def prepared_behind_an_exchange(scene):
    yield from _behind_an_exchange(scene, attached=False)


def attached_behind_an_exchange(scene):
    yield from _behind_an_exchange(scene, attached=True)


def queued_while_connecting(scene):
    """Part of an exchange whose connection is not open yet."""
    scene.server.queue({"on": [{"at": "accept", "do": "wait", "event": GO}]})
    number = scene.server.last + 1
    _request(scene)
    scene.server.wait(number, "accept")
    yield Held(0, 1, DATA)
    scene.server.give(GO)


def queued_behind_another(scene):
    """Part of an exchange that asks for another one's data first."""
    exchange = _behind_an_exchange(scene, attached=False)
    next(exchange)
    _request(scene)
    next(exchange, None)
    scene.requests[1].wait_until_asked()
    yield Held(2, 1, DATA)
    assert scene.requests[1].send(DATA) == 0
    yield
    assert scene.fetch(1) == [DATA]


def asked_for_its_data(scene):
    _request(scene).wait_until_asked()
    yield Held(0, 2, DATA)


def sending(scene):
    """A part of the data was given, and sent."""
    scene.server.queue({"on": [{"at": "upload", "part": 1, "do": "pause", "seconds": 0}]})
    request = _request(scene).wait_until_asked()
    assert request.send(DATA[:HALF], last=False) == 0
    scene.server.wait(scene.server.last, "upload")
    yield Held(0, 2, DATA[HALF:])


def sent(scene):
    """All data were sent, nothing has come."""
    _busy(scene)
    yield Held(0, 3)
    scene.server.give(GO)


def receiving(scene):
    """Half of the answer was fetched, the other half has not come."""
    first, second = DATA[:HALF].decode(), DATA[HALF:].decode()
    _answer(scene, _START, part("a", first), wait(GO), second + CLOSING)
    assert scene.next_chunk(0) == (DATA[:HALF], PART_CONTINUES)
    yield Held(0, 4, rest=(DATA[HALF:],))
    scene.server.give(GO)


def between_parts(scene):
    """One part was fetched, another is announced."""
    both = start_part("a", "b") + "\r\n"
    front, second = part("b", "more").split("\r\n", 1)
    _answer(scene, both, f"{_PART}\r\n{front}\r\n", wait(GO), second + CLOSING)
    assert scene.next_chunk(0) == (DATA, PART_COMPLETE)
    yield Held(0, 5, rest=(b"more",))
    scene.server.give(GO)


def received(scene):
    """All of the answer has come, but not the end of the exchange."""
    _answer(scene, _START, _PART + CLOSING, wait(GO), chunk_size=HALF)
    assert scene.next_chunk(0) == (DATA[:HALF], PART_CONTINUES)
    yield Held(0, 6, rest=(DATA[HALF:],))
    scene.server.give(GO)


def received_and_over(scene):
    """The exchange is over, and nobody has fetched its answer."""
    _request(scene).give(DATA)
    scene.server.wait(scene.server.last)
    observe.wait_until_idle(scene.daemon.pid)
    yield Held(0, 6)


def delivered(scene):
    """The whole answer was fetched before the end of the exchange."""
    _answer(scene, _START, _PART + CLOSING, wait(GO))
    assert scene.fetch(0) == [DATA]
    yield Held(0, 7, rest=())
    scene.server.give(GO)


COURSES = [
    waiting_for_a_connection,
    prepared_behind_an_exchange,
    attached_behind_an_exchange,
    queued_while_connecting,
    queued_behind_another,
    asked_for_its_data,
    sending,
    sent,
    receiving,
    between_parts,
    received,
    received_and_over,
    delivered,
]


def _request(scene, **options):
    # The connection's status is announced once for each request of another kind.
    return scene.request(kind="position", **options)


def _busy(scene):
    """An exchange that waits for the server."""
    scene.server.queue(_HELD_UPLOAD)
    _request(scene).give(DATA)
    scene.server.wait(scene.server.last, "upload-end")


def _behind_an_exchange(scene, attached):
    _busy(scene)
    _request(scene, attached=attached)
    yield Held(1, 0, DATA)
    scene.server.give(GO)
    assert scene.fetch(0) == [DATA]


def _answer(scene, *pieces, **parameters):
    """A request that gets these pieces, each of them one record."""
    scene.server.queue(answer(*pieces))
    _request(scene, **parameters).give(DATA)


# -- rows ------------------------------------------------------------------------------------------


class InState:
    """What the clients of a row do: bring a request into a state; `asks`: and call getData."""

    def __init__(self, course, asks=False):
        self.course = course
        self.asks = asks
        self.held = None
        self._playing = None

    @property
    def name(self):
        return self.course.__name__.replace("_", "-") + ("-and-waited-for" if self.asks else "")

    def __call__(self, scene):
        self._playing = self.course(scene)
        self.held = next(self._playing)
        if self.asks:
            scene.ask(self.held.number)
        for client in scene.clients:
            client.settle()
            client.signals.clear()

    def go_on(self):
        """Lets the exchange go on; what is left of it when it is called again."""
        next(self._playing, None)

    def request(self, scene):
        return scene.requests[self.held.number]


@dataclasses.dataclass
class OfState(Seen):
    """Something that the held request's client sees."""

    state: InState

    def check(self, scene):
        self.check_held(scene, self.state.held, self.state.request(scene))

    def check_held(self, scene, held, request):
        raise NotImplementedError


class GoesOn(OfState):
    """The exchange goes on; the daemon takes the data that the request needs."""

    def check_held(self, scene, held, request):
        self.state.go_on()
        if held.data is not None:
            if held.state < 2:
                request.wait_until_asked()
            assert request.send(held.data) == 0


class AnswersIt(OfState):
    """The rest of the answer comes."""

    def check_held(self, scene, held, request):
        if held.rest:
            assert scene.fetch(held.number) == list(held.rest)
        self.state.go_on()


class GoesWithoutAnswer(OfState):
    """The exchange ends, and the daemon knows the request no more."""

    def check_held(self, scene, held, request):
        self.state.go_on()
        assert scene.server.wait(scene.server.last)["outcome"] == "answered"
        observe.wait_until_idle(scene.daemon.pid)
        assert request.send(b"late") == 41
        assert request.ask_error() == 41


class Waits(OfState):
    """The request is not asked for its data, also when the exchange before it has ended."""

    def check_held(self, scene, held, request):
        self.state.go_on()
        observe.wait_until_idle(scene.daemon.pid)
        assert request.send(b"early") == 57


class FailsAlone(OfState):
    """The loss of the connection fails the request, and no other."""

    def check_held(self, scene, held, request):
        Failed(TRANSPORT, "Connection error", of=[held.number]).check(scene)


def as_if_nothing_were(state):
    """What is seen of a request that goes on."""
    ends = GoesWithoutAnswer if state.course is delivered else AnswersIt
    return [GoesOn(state), ends(state)]


def lost(state, back):
    """What is seen of a request whose connection is lost; `back` repairs that."""
    if state.course in (waiting_for_a_connection, attached_behind_an_exchange):
        return [Waits(state), back, *as_if_nothing_were(state)]
    if state.course is prepared_behind_an_exchange:
        return [FailsAlone(state), GoesWithoutAnswer(state)]
    if state.asks:
        return [FailsAlone(state), GoesOn(state), GoesWithoutAnswer(state)]
    return as_if_nothing_were(state)  # the exchange goes on, and nobody waits for its answer
