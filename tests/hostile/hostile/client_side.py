"""Attacks by clients. Each function is the whole life of an attacker's process, which is killed at the end."""

import random
import signal
import socket
import time

from .bus import NAME, PATH, PEER, Bus, Hose, Pump, call, get_status
from .bus import signal as broadcast
from .message import ERROR, NO_REPLY, Blob, Message
from .requester import Requester, connect_call, send_call, small_request

KIB = 1 << 10
MIB = 1 << 20
LIMITED = "org.freedesktop.DBus.Error.LimitsExceeded"
_LARGEST_MESSAGE = 32 * MIB  # the bus's limit
_CROWD = 240  # connections; a bus allows 256 to a user
_WIRES = 4  # connections of the other floods
_FDS = 16  # in a message; the bus's limit


def _count(tally, answer: Message) -> None:
    """What became of a call that may be refused."""
    tally.add("answers")
    if answer.kind != ERROR:
        tally.add("accepted")
    elif answer.error == LIMITED:
        tally.add("limited")
    else:
        tally.add("refused")


def _pump(bus: Bus, tally, blob: Blob, window: int = 100) -> None:
    """The same call without end."""

    def made() -> Blob:
        tally.add("sent")
        return blob

    Pump(bus, made, lambda answer: _count(tally, answer), window).run()


# -- what takes memory -------------------------------------------------------------------------


def flood_with_data(path, tally):
    """Data without end for a request that the daemon has asked about."""
    bus = Bus(path, signals=True)
    requester = Requester(bus)
    requester.create()
    requester.wait_until_asked()
    blob = send_call(b"x" * MIB, False, requester.connection, requester.request)

    def answered(answer: Message) -> None:
        accepted = answer.kind != ERROR and answer.values == (0,)
        tally.add("accepted" if accepted else "refused", MIB)

    Pump(bus, lambda: blob, answered).run()


def connect_with_long_arguments(path, tally):
    _pump(Bus(path), tally, connect_call(element=b"x" * MIB))


def connect_often(path, tally):
    _pump(Bus(path), tally, connect_call())


def connect_and_leave(path, tally):
    """Connections of clients that are gone at once."""
    silent, last = (connect_call(element=b"x" * MIB, flags=flags) for flags in (NO_REPLY, 0))
    while True:
        bus = Bus(path)
        for _ in range(3):
            bus.send(silent)
        serial = bus.send(last)
        tally.add("sent", 4)
        _count(tally, bus.wait(lambda each, serial=serial: each.reply_to == serial, 120))
        bus.close()


def create_often(path, tally, member):
    """Requests that wait: all in one exchange, whose turn none of them uses."""
    bus = Bus(path)
    (connection,) = bus.ask(connect_call())
    _pump(bus, tally, call(member, "uuu", connection, 2, 0))


# -- what takes time ---------------------------------------------------------------------------


def _pour(path, tally, blobs, connections, seed, batch=50):
    """Calls by lot over many connections; what comes back is thrown away."""
    dice = random.Random(seed)
    serials = iter(range(1, 1 << 32))

    def made() -> bytes:
        tally.add("sent", batch)
        return b"".join(dice.choice(blobs).numbered(next(serials)) for _ in range(batch))

    hose = Hose([Bus(path) for _ in range(connections)], made)
    while True:
        hose.step(1)


def crowd(path, tally, seed):
    """Many connections that ask for what is answered at once."""
    quiet = {"flags": NO_REPLY}
    blobs = [
        call("Ping", interface=PEER, **quiet),
        call("Ping", interface=PEER),
        call("noSuchMember", **quiet),
        call("Get", "ss", NAME, "connectionStatus", interface="org.freedesktop.DBus.Properties", **quiet),
        get_status(),
    ]
    _pour(path, tally, blobs, _CROWD, seed)


def cancel_often(path, tally, seed):
    dice = random.Random(seed)
    numbers = [(dice.randrange(1, 100), dice.randrange(1, 1000)) for _ in range(500)]
    _pour(path, tally, [broadcast("cancel", "uu", *each) for each in numbers], _WIRES, seed)


def malformed_calls(path, tally, seed):
    """Members with arguments of other types, of other interfaces, on other paths."""
    members = ("connect", "disconnect", "attach", "prepare", "sendData", "getData", "Get", "noSuchMember")
    arguments = [("", ()), ("s", ("x" * 300,)), ("ay", (b"x" * 3000,)), ("uuuu", (1, 2, 3, 4)), ("d", (0.5,))]
    blobs = [
        call(member, signature, *values, interface=interface, path=where, flags=flags)
        for member in members
        for signature, values in arguments
        for interface in (NAME, None, "com.example")
        for where in (PATH, "/")
        for flags in (0, NO_REPLY)
    ]
    wrong = [broadcast("cancel", "s", "x"), broadcast("cancel"), broadcast("cancel", "ay", b"x" * 1000)]
    _pour(path, tally, blobs + wrong * 20, _WIRES, seed)


def largest_messages(path, tally, seed):
    front = len(call("noSuchMember", "ay", b"", flags=NO_REPLY))
    blob = call("noSuchMember", "ay", b"x" * (_LARGEST_MESSAGE - front), flags=NO_REPLY)
    _pour(path, tally, [blob], _WIRES, seed, batch=1)


def get_data_with_more_arguments(path, tally, seed):
    """Held calls with tens of MiB that nobody wants, then more of them."""
    requester = Requester(Bus(path))
    requester.create("attach")
    arguments = "uuay", requester.connection, requester.request, b"x" * (30 * MIB)
    for _ in range(_WIRES):
        requester.bus.send(call("getData", *arguments))
    _pour(path, tally, [call("getData", *arguments, flags=NO_REPLY)], _WIRES, seed, batch=1)


def descriptors(path, tally):
    """Calls that carry as many file descriptors as the bus lets through."""
    bus = Bus(path, descriptors=True)
    requester = Requester(bus)
    requester.create("attach")
    blob = call("getData", "uu", requester.connection, requester.request, flags=NO_REPLY, fds=_FDS)
    ends = socket.socketpair()
    carried = [ends[0].fileno()] * _FDS
    while True:
        socket.send_fds(bus.socket, [blob.numbered(next(bus.serials))], carried)
        tally.add("sent")


# -- what makes others wait --------------------------------------------------------------------


def ask_and_die(path, tally):
    """A fingerprint's client that is gone once it is asked for data, and its next one, and so on."""
    while True:
        _asked(path).close()
        tally.add("rounds")


def ask_and_stay_silent(path, tally):
    bus = _asked(path)
    tally.add("rounds")
    signal.pause()
    bus.close()


def _asked(path) -> Bus:
    bus = Bus(path, signals=True)
    requester = Requester(bus, "fingerprint")
    requester.create()
    requester.wait_until_asked()
    return bus


def honest_behind(path, tally):
    """An honest request that is made when the attacker has been asked for data."""
    while tally["rounds"] == 0:
        time.sleep(0.002)
    return small_request(path)


# -- what came of it ---------------------------------------------------------------------------


def calls(tally) -> str:
    """Of attackers that hear what becomes of their calls."""
    return f"{tally['accepted']} accepted, {tally['limited']} over a limit, {tally['refused']} refused"


def sent(tally) -> str:
    """Of attackers that do not listen."""
    return f"{tally['sent']} messages sent"


def megabytes(tally) -> str:
    return f"{tally['accepted'] / MIB:.0f} MiB accepted, {tally['refused'] / MIB:.0f} MiB refused"


def rounds(tally) -> str:
    return f"asked for data {tally['rounds']} times"
