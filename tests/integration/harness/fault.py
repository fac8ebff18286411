"""Rows of the fault matrix: what goes wrong, and what the clients must see.

    Fault(
        "reset-in-a-part",
        server={"on": [{"at": "part", "do": "reset"}]},
        sees=[Failed(2204, "Failure when receiving data from the peer")],
    )

What a row does not expect must not happen: an error signal too many or a held call that is answered
fails it, whatever its `sees` says.
"""

import dataclasses
import time
from typing import Any, Callable, Sequence

import pytest

from . import curl, observe
from .client import RESPONSE_COMPLETE
from .settings import patience
from .waiting import wait_for

QUESTION = b"question"
TRANSPORT, PROTOCOL = 2204, 2001  # what an exchange's failure is called on the bus
MISSING = "missing MIME parts"
DELIVERED = ""  # the keys of a failure that finds every answer delivered
HOLD = {"at": "accept", "do": "wait", "event": "held"}  # in a script whose row acts by `early_call`


# -- what is seen ----------------------------------------------------------------------------------


class Seen:
    """One thing that must be seen, by the scene's request of this number unless it says else."""

    request: int = 0

    def check(self, scene):
        raise NotImplementedError


@dataclasses.dataclass
class Answered(Seen):
    """The whole answer arrives, part by part."""

    parts: Sequence[bytes] = (QUESTION,)
    request: int = 0
    seconds: float = 30

    def check(self, scene):
        assert scene.fetch(self.request, self.seconds) == list(self.parts)


@dataclasses.dataclass
class Chunk(Seen):
    """The next call of getData yields these bytes and this code."""

    data: bytes
    code: int = RESPONSE_COMPLETE
    request: int = 0
    seconds: float = 10

    def check(self, scene):
        assert scene.next_chunk(self.request, self.seconds) == (self.data, self.code)


@dataclasses.dataclass
class Failed(Seen):
    """Every client of the scene sees one errorSignal with this code and one of these texts.

    A number among the texts is libcurl's: its text counts. `of` tells which requests it names, in this
    order: their numbers (None: all of them in the order of their making), or DELIVERED.
    """

    code: int
    text: Any
    of: Any = None
    seconds: float = 10

    def check(self, scene):
        numbers = range(len(scene.requests)) if self.of is None else self.of
        keys = " ".join(scene.requests[number].key for number in numbers)
        scene.failed.update(numbers)
        for client in scene.clients:
            if client.bus.is_closed():
                continue
            code, text, named = client.wait_for_signal("errorSignal", seconds=self.seconds)
            assert (code, named) == (self.code, keys), text
            assert text in self._texts(), text

    def _texts(self):
        texts = self.text if isinstance(self.text, (list, tuple, set)) else [self.text]
        return [curl.text_of(text) if isinstance(text, int) else text for text in texts]


@dataclasses.dataclass
class TimedOut(Failed):
    """The transfer fails by libcurl's time-out so many seconds after the first request."""

    code: int = TRANSPORT
    text: Any = curl.OPERATION_TIMEDOUT
    after: float = 60

    def check(self, scene):
        self.seconds = self.after + 20
        super().check(scene)
        waited = time.monotonic() - scene.began
        assert self.after - 1.5 < waited < self.after + patience(6), waited


@dataclasses.dataclass
class Server(Seen):
    """The exchange ends on the server's side with this outcome (see its record)."""

    outcome: str
    seconds: float = 10

    def check(self, scene):
        assert scene.server.wait(scene.server.last, seconds=self.seconds)["outcome"] == self.outcome


@dataclasses.dataclass
class Asks(Seen):
    """Nothing is seen: the client calls getData, for the `Chunk` or `Answered` that comes later."""

    request: int = 0

    def check(self, scene):
        scene.ask(self.request)
        scene.requests[self.request].client.settle()  # the daemon has it


@dataclasses.dataclass
class Over(Seen):
    """Nothing is seen: the exchange is over and swept up."""

    seconds: float = 10

    def check(self, scene):
        observe.wait_until_idle(scene.daemon.pid, self.seconds)


@dataclasses.dataclass
class Event(Seen):
    """Nothing is seen: the server goes on where its script waits for this event."""

    name: str

    def check(self, scene):
        scene.server.give(self.name)


# -- what the clients do ---------------------------------------------------------------------------


def one_request(scene, data=QUESTION, **parameters):
    """One client asks for its answer's first chunk and sends its data when it is asked for them."""
    scene.request(**parameters)
    scene.ask(0)
    _send_when_asked(scene.requests[0], data)


def early_call(scene, data=QUESTION, **parameters):
    """As `one_request`, but the call is held before anything can fail: the script has a HOLD."""
    request = scene.request(**parameters)
    scene.ask(0)
    request.client.settle()
    scene.server.give(HOLD["event"])
    _send_when_asked(request, data)


def without_call(scene, data=QUESTION, **parameters):
    """As `one_request`, for faults that may be quicker than a call for the answer, which is 41 then."""
    _send_when_asked(scene.request(**parameters), data)


def _send_when_asked(request, data):
    signals = request.client.signals
    asked = ("requestData", (request.connection, request.id))
    wait_for(
        lambda: asked in signals or any(each.name == "errorSignal" for each in signals),
        60,
        "a question for data, or a failure",
    )
    if asked in signals:
        signals.remove(asked)
        request.send(data)  # a failure may come before it: the refusal is as good


def sending(data=QUESTION, **parameters):
    """As `one_request`, with these data and these parameters of the connection."""
    return lambda scene: one_request(scene, data, **parameters)


# -- a row -----------------------------------------------------------------------------------------


@dataclasses.dataclass
class Fault:
    """A row: set up `server`, `files` and `platform`, let the clients act, see what they see."""

    name: str
    sees: Sequence[Seen] = ()
    # The behaviour of slp-testserver in the next exchange, or a list of them.
    server: Any = None
    # Spoils the daemon's files: a function of the preinstalled-files directory; they are put back.
    files: Callable | None = None
    # Attributes of the platform file (see harness.platform_file); they are put back.
    platform: dict | None = None
    # What the clients do: a function of the scene.
    act: Callable = one_request
    # How the daemon must end: its status. None: it must live on.
    ends: int | None = None
    # Waits long, and is no row that must be played each time: scripts/test --long.
    long: bool = False

    def play(self, scene):
        """Plays the row and checks what it leaves behind."""
        scene.prepare()
        scene.set_up(self.server, self.files, self.platform)
        self.act(scene)
        for seen in self.sees:
            seen.check(scene)
        if self.ends is None:
            scene.expect_nothing_else()
            scene.expect_nothing_left()
        else:
            scene.expect_end(self.ends)


def rows(*faults):
    """The parameters of a group's test function: one test for each row, named after it."""
    names = [fault.name for fault in faults]
    assert len(set(names)) == len(names), names
    return pytest.mark.parametrize("fault", [_parameter(fault) for fault in faults])


def _parameter(fault):
    marks = [pytest.mark.long] if fault.long else []
    return pytest.param(fault, id=fault.name, marks=marks)

