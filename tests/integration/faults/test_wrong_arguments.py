"""Every member of the interface with every wrong signature, and with further arguments.

For each member: each proper front of its arguments, each argument replaced by each other type, and each
type behind the last argument, which is accepted. One row for each of these groups.
"""

from gi.repository import GLib

from harness import matrix
from harness.fault import Fault, rows
from harness.raw_client import is_error, values
from harness.settings import BUS_NAME

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

PROPERTIES = "org.freedesktop.DBus.Properties"
SIGNATURES = {
    "connect": ("ay", "ay", "ay", "ay", "ay", "u"),
    "disconnect": ("u",),
    "attach": ("u", "u", "u"),
    "prepare": ("u", "u", "u"),
    "sendData": ("ay", "b", "u", "u"),
    "getData": ("u", "u"),
    "cancel": ("u", "u"),
    "Get": ("s", "s"),
    "quitDelayed": (),
}
VALUES = {
    "y": 1,
    "b": True,
    "n": 1,
    "q": 1,
    "i": 1,
    "u": 1,
    "x": 1,
    "t": 1,
    "d": 1.0,
    "s": "text",
    "o": "/object",
    "g": "u",
    "h": 0,
    "v": GLib.Variant("u", 1),
    "ay": b"bytes",
    "au": [1],
    "as": ["text"],
    "aay": [b"bytes"],
    "a{sv}": {"key": GLib.Variant("u", 1)},
    "(u)": (1,),
    "(ayb)": (b"bytes", True),
    "av": [GLib.Variant("ay", b"bytes")],
}
NO_CONNECTION = {"connections": []}  # no request of these rows leaves the daemon


class Caller:
    """Sends bodies of any type to one member, and knows what a waiting request's ids are."""

    def __init__(self, scene, member):
        self.raw = scene.raw_client(descriptors=True)
        self.member = member
        self.client = scene.client()
        self.client.wait_for_status(0)
        self.client.settle()
        self.client.signals.clear()
        self.connection = self.client.connect(kind="other")
        self.request = self.client.attach(self.connection)

    def good(self):
        """Arguments that are right, as (type, value)."""
        ids = [("u", self.connection), ("u", self.request)]
        numbers = [("u", self.connection), ("u", 2), ("u", 0)]
        return {
            "connect": [("ay", b"bytes")] * 5 + [("u", 1)],
            "disconnect": [("u", 2**32 - 1)],
            "attach": numbers,
            "prepare": numbers,
            "sendData": [("ay", b"bytes"), ("b", True), *ids],
            "getData": ids,
            "cancel": ids,
            "Get": [("s", BUS_NAME), ("s", "connectionStatus")],
            "quitDelayed": [],
        }[self.member]

    def send(self, arguments):
        """Sends the member with these arguments and returns the serial."""
        body = GLib.Variant.new_tuple(*(GLib.Variant(*each) for each in arguments))
        interface = PROPERTIES if self.member == "Get" else BUS_NAME
        compose = self.raw.compose_signal if self.member == "cancel" else self.raw.compose
        message = compose(self.member, body, interface=interface)
        if any(kind == "h" for kind, _ in arguments):
            self.raw.send_with_descriptors(message, 0)
        else:
            self.raw.send(message)
        return message.get_serial()

    def answer(self, arguments):
        return self.raw.answer(self.send(arguments))

    def leave(self):
        self.client.disconnect(self.connection)
        self.client.settle()
        self.client.signals.clear()


def played(act):
    """Makes a row's act of a function of a caller."""

    def play(member, *details):
        def run(scene):
            caller = Caller(scene, member)
            act(caller, *details)
            caller.leave()

        return run

    return play


def refusal(member, arguments):
    """Name and text of the error that refuses these arguments."""
    if member != "Get":
        code = 0 if member in ("disconnect", "cancel") else 2002
        return f"{BUS_NAME}.Error", f"({code}) unspecifiedError"
    signature = "".join(kind for kind, _ in arguments)
    return (
        "org.freedesktop.DBus.Error.UnknownMethod",
        f'Method "Get" with signature "{signature}" on interface "{PROPERTIES}" doesn\'t exist\n',
    )


def expect_refusal(caller, arguments):
    answer = caller.answer(arguments)
    assert is_error(answer), (arguments, values(answer))
    assert (answer.get_error_name(), *values(answer)) == refusal(caller.member, arguments)


def expect_untouched(caller):
    """What was refused has left no trace: ids count on, and the waiting request waits."""
    assert caller.client.connect() == caller.connection + 1
    caller.client.disconnect(caller.connection + 1)
    assert caller.client.attach(caller.connection) == caller.request + 1
    assert caller.client.sendData(caller.connection, caller.request, b"") == 57
    caller.client.settle()
    assert caller.client.signals == []


# -- groups of wrong signatures --------------------------------------------------------------------


@played
def too_few(caller):
    good = caller.good()
    for size in range(len(good)):
        expect_refusal(caller, good[:size])
    expect_untouched(caller)


@played
def replaced(caller, position):
    good = caller.good()
    wrong = [kind for kind in VALUES if kind != good[position][0]]
    for kind in wrong:
        expect_refusal(caller, [*good[:position], (kind, VALUES[kind]), *good[position + 1 :]])
    expect_untouched(caller)


@played
def in_front(caller):
    """The right arguments behind one of another type."""
    good = caller.good()
    for kind in VALUES:
        if kind != good[0][0]:
            expect_refusal(caller, [(kind, VALUES[kind]), *good])
    expect_untouched(caller)


# -- further arguments -----------------------------------------------------------------------------


def accepted(caller, arguments):
    answer = caller.answer(arguments)
    assert not is_error(answer), (arguments, values(answer))
    return values(answer)


def expect_connection(caller, arguments):
    (connection,) = accepted(caller, arguments)
    assert connection > caller.connection
    caller.client.disconnect(connection)


def expect_request(caller, arguments):
    (request,) = accepted(caller, arguments)
    assert request > caller.request


def expect_failed_request(caller, arguments):
    """There is no connection, so that the request fails at once."""
    (request,) = accepted(caller, arguments)
    key = f"{caller.connection}:{request}"
    assert caller.client.wait_for_signal("errorSignal") == (2204, "Connection error", key)


def expect_nothing(caller, arguments):
    assert accepted(caller, arguments) == ()


def expect_not_asked(caller, arguments):
    assert accepted(caller, arguments) == (57,)


def expect_status(caller, arguments):
    assert accepted(caller, arguments) == (0,)


def expect_held(caller, arguments):
    serial = caller.send(arguments)
    caller.raw.settle()
    assert not caller.raw.has_answer(serial)


def expect_cancelled(caller, arguments):
    """Silence, and the request is gone."""
    expect_held(caller, arguments)
    gone = caller.raw.call("getData", GLib.Variant("(uu)", (caller.connection, caller.request)))
    assert values(gone) == ("(41) unspecifiedError",)
    caller.request = caller.client.attach(caller.connection)


def expect_delayed_quit(caller, arguments):
    """A connect calls it off."""
    assert accepted(caller, arguments) == ()
    caller.client.disconnect(caller.client.connect())


GOOD = {
    "connect": expect_connection,
    "disconnect": expect_nothing,
    "attach": expect_request,
    "prepare": expect_failed_request,
    "sendData": expect_not_asked,
    "getData": expect_held,
    "cancel": expect_cancelled,
    "Get": expect_status,
    "quitDelayed": expect_delayed_quit,
}


@played
def too_many(caller):
    for kind, value in VALUES.items():
        GOOD[caller.member](caller, [*caller.good(), (kind, value)])
    GOOD[caller.member](caller, [*caller.good(), *VALUES.items()])


def groups():
    for member, kinds in SIGNATURES.items():
        yield f"{member}-with-more", too_many(member)
        if kinds:
            yield f"{member}-with-less", too_few(member)
            yield f"{member}-with-one-in-front", in_front(member)
        for position, kind in enumerate(kinds):
            yield f"{member}-{position + 1}-not-{kind}", replaced(member, position)


@rows(*(Fault(name, platform=NO_CONNECTION, act=act) for name, act in groups()))
def test_wrong_arguments(fault, scene):
    fault.play(scene)
