"""Sends random messages to a running daemon and compares what comes back with what must come.

The platform has no connection in a round, so that no exchange starts and each answer is known.
"""

import random

from gi.repository import Gio
from harness.raw_client import CALL, ERROR, RETURN, SIGNAL, describe, values
from harness.settings import BUS_NAME, OBJECT_PATH

from .bodies import body_of, random_argument, random_type

_PROPERTIES = "org.freedesktop.DBus.Properties"
_PEER = "org.freedesktop.DBus.Peer"
_INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
_ERROR = "com.kelvra.orvexd.Error"
_SIGNATURES = {
    "connect": ["ay", "ay", "ay", "ay", "ay", "u"],
    "disconnect": ["u"],
    "attach": ["u", "u", "u"],
    "prepare": ["u", "u", "u"],
    "sendData": ["ay", "b", "u", "u"],
    "getData": ["u", "u"],
    "cancel": ["u", "u"],
    "quitDelayed": [],
    "Get": ["s", "s"],
}
_MEMBERS = [*_SIGNATURES, "Connect", "connec", "connect2", "quit", "Set", "GetAll", "Introspect"]
_BUILT_IN = ("Ping", "GetMachineId", "Introspect")  # answered by the bus library
_INTERFACES = [BUS_NAME] * 8 + [None, None, _PROPERTIES, _PEER, _INTROSPECTABLE, "a.b"]
_PATHS = [OBJECT_PATH, OBJECT_PATH, "/", "/x/y"]

SILENCE = "silence"
UNKNOWN = "org.freedesktop.DBus.Error.UnknownMethod"
SOMETHING = "one answer of any kind"
PERHAPS = "at most one answer"


def error(code):
    """The text of an error reply, which stands for the whole reply here."""
    return f"({code}) unspecifiedError"


class Finding(AssertionError):
    """The daemon did something else than it must."""


class Model:
    """What the daemon knows: which connections are open, which attached requests wait."""

    def __init__(self):
        self.connections = 0
        self.requests = 0
        self.open = set()
        self.waiting = set()
        self.errors = []  # keys that error signals must name, in order

    def call(self, interface, member, types, arguments):
        """What answers this method call: a tuple of values, an error text or a word from above."""
        # A call without interface fits every one.
        ours = interface in (BUS_NAME, None) and member not in ("Get", "cancel")
        if ours and member in _SIGNATURES:
            wanted = _SIGNATURES[member]
            if types[: len(wanted)] != wanted:
                return error(0 if member == "disconnect" else 2002)
            return getattr(self, "_" + member)(*arguments[: len(wanted)])
        if interface in (_PROPERTIES, None) and member == "Get":
            right = types[:2] == ["s", "s"] and arguments[:2] == [BUS_NAME, "connectionStatus"]
            return (0,) if right else UNKNOWN
        if interface == _PEER or member in _BUILT_IN:
            return SOMETHING
        return UNKNOWN

    def signal(self, interface, member, types, arguments):
        """What answers this signal."""
        if interface == _PEER:
            return PERHAPS  # the bus library takes it for a call
        if interface != BUS_NAME or member != "cancel":
            return SILENCE
        if types[:2] != ["u", "u"]:
            return error(0)
        self.waiting.discard(tuple(arguments[:2]))
        return SILENCE

    def _connect(self, *_arguments):
        self.connections += 1
        self.open.add(self.connections)
        return (self.connections,)

    def _disconnect(self, connection):
        self.open.discard(connection)
        self.waiting = {key for key in self.waiting if key[0] != connection}
        return ()

    def _attach(self, connection, _policy, _duration):
        if connection not in self.open:
            return error(1001)
        self.requests += 1
        self.waiting.add((connection, self.requests))
        return (self.requests,)

    def _prepare(self, connection, policy, _duration):
        if connection not in self.open:
            return error(1001)
        if policy not in (2, 3):
            return error(2204)
        self.requests += 1
        self.errors.append(f"{connection}:{self.requests}")
        return (self.requests,)

    def _sendData(self, _data, _last, connection, request):
        if connection not in self.open:
            return (1001,)
        return (57,) if (connection, request) in self.waiting else (41,)

    def _getData(self, connection, request):
        return SILENCE if (connection, request) in self.waiting else error(41)

    def _quitDelayed(self):
        return ()


class Round:
    """One sequence of random messages. `client` sees all of the daemon's signals."""

    def __init__(self, client, seed):
        self.client = client
        self.dice = random.Random(seed)
        self.model = Model()
        self.sent = 0

    def run(self, messages):
        """Sends so many messages, some at a time."""
        while self.sent < messages:
            batch = [self._message() for _ in range(self.dice.choice((1, 1, 2, 5, 20)))]
            # Whatever asked for a delayed end before is called off.
            batch.append(self._make(CALL, BUS_NAME, "connect", ["u"], [0]))
            self.client.received.clear()
            self.client.history.clear()
            self.client.send(*(message for message, _ in batch))
            self.client.settle()
            for message, expected in batch:
                self._compare(message, expected)
            self._compare_errors()
            self.sent += len(batch)

    # -- making -------------------------------------------------------------------------------

    def _message(self):
        kind = self.dice.choices((CALL, SIGNAL, RETURN, ERROR), (80, 14, 3, 3))[0]
        interface = self.dice.choice(_INTERFACES)
        member = self.dice.choice(_MEMBERS)
        if kind == SIGNAL:
            interface = interface or BUS_NAME
            member = self.dice.choice(("cancel", "cancel", member))
        elif kind == CALL and member == "quit" and interface in (BUS_NAME, None):
            member = "quitDelayed"  # the end of a round is another matter
        types, arguments = self._arguments(member)
        return self._make(kind, interface, member, types, arguments)

    def _arguments(self, member):
        dice = self.dice
        wanted = _SIGNATURES.get(member, [])
        choice = dice.random()
        if choice < 0.55:
            types = list(wanted)
        elif choice < 0.65:
            types = wanted + [random_type(dice) for _ in range(dice.randint(1, 3))]
        elif choice < 0.8 and wanted:
            types = list(wanted)
            types[dice.randrange(len(types))] = random_type(dice)
        else:
            types = [random_type(dice) for _ in range(dice.randint(0, 5))]
        arguments = [random_argument(dice, kind) for kind in types]
        if dice.random() < 0.7:
            arguments = [self._id() if k == "u" else a for k, a in zip(types, arguments)]
        return types, arguments

    def _id(self):
        """A number that means something more often than not."""
        model = self.model
        known = [key[self.dice.randrange(2)] for key in sorted(model.waiting)[-3:]]
        return self.dice.choice([1, 2, 3, model.connections, model.requests, *known])

    def _make(self, kind, interface, member, types, arguments):
        dice = self.dice
        body = body_of(types, arguments)
        path = dice.choice(_PATHS)
        if kind == CALL:
            quiet = dice.random() < 0.05
            message = self.client.compose(
                member, body, interface=interface, path=path, no_reply=quiet
            )
            expected = self.model.call(interface, member, types, arguments)
            return message, PERHAPS if quiet and expected != SILENCE else expected
        if kind == SIGNAL:
            message = self.client.compose_signal(member, body, interface=interface, path=path)
            if dice.random() < 0.3:
                message.set_destination(BUS_NAME)
            return message, self.model.signal(interface, member, types, arguments)
        return self._answer_to_nothing(kind, body), SILENCE

    def _answer_to_nothing(self, kind, body):
        message = self.client.compose("x", body)
        answer = Gio.DBusMessage()
        answer.set_message_type(kind)
        answer.set_serial(message.get_serial())
        answer.set_reply_serial(self.dice.choice((1, 2, 3, (1 << 32) - 1)))
        answer.set_destination(BUS_NAME)
        if kind == ERROR:
            answer.set_error_name("a.b.Error")
        if body is not None:
            answer.set_body(body)
        return answer

    # -- comparing ----------------------------------------------------------------------------

    def _compare(self, message, expected):
        serial = message.get_serial()
        answers = [m for m in self.client.history if is_answer(m, serial)]
        if len(answers) > 1:
            self._fail(message, expected, answers)
        if expected == PERHAPS:
            return
        if expected == SILENCE:
            right = not answers
        elif not answers:
            right = False
        elif expected == SOMETHING:
            right = True
        else:
            right = fits(answers[0], expected)
        if not right:
            self._fail(message, expected, answers)

    def _compare_errors(self):
        named = [
            values(m) for m in self.client.history if m.get_member() == "errorSignal"
        ]
        expected = [(2204, "Connection error", key) for key in self.model.errors]
        self.model.errors.clear()
        if named != expected:
            raise Finding(f"error signals {named} instead of {expected}")

    @staticmethod
    def _fail(message, expected, answers):
        got = [describe(answer) for answer in answers]
        raise Finding(f"answers {got} instead of {expected!r} to\n{message.print_(0)}")


def is_answer(message, serial):
    kinds = (RETURN, ERROR)
    return message.get_message_type() in kinds and message.get_reply_serial() == serial


def fits(answer, expected):
    """Whether an answer is the one that is expected."""
    if answer.get_message_type() == RETURN:
        return values(answer) == expected
    if expected == UNKNOWN:
        return answer.get_error_name() == UNKNOWN
    return answer.get_error_name() == _ERROR and values(answer) == (expected,)
