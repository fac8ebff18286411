"""A user who guesses the ids of another user's requests, and the other user, who notices."""

import time

from .bus import Bus, Late, Refused, call
from .bus import signal as broadcast
from .message import ERROR
from .requester import Failed, Requester, send_call

_SIZE = 1_000_000  # bytes of the answer that somebody else would like to read
_GUESSES = [(connection, request) for connection in range(1, 11) for request in range(1, 12)]  # below 128
_SECONDS = 1.0
READY, GUESSED = 1, 2  # what the tally's "rounds" count


def victim(path, tally):
    """Three requests: an answer half fetched, one that is asked for data, one that waits."""
    bus = Bus(path, signals=True)
    stored, asked, waits = (Requester(bus) for _ in range(3))
    stored.create()
    stored.wait_until_asked()
    stored.give(f"size: {_SIZE}".encode())
    front, _ = stored.fetch_chunk()
    asked.create()
    asked.wait_until_asked()
    held = bus.send(call("getData", "uu", asked.connection, asked.request))
    waits.create("attach")
    tally.add("rounds")
    while tally["rounds"] < GUESSED:
        time.sleep(0.002)
    harms = [
        *_harm("its data was refused", lambda: asked.give(b"mine") == 0),
        *_harm("its answer was not its own data", lambda: bus.answer(held, _SECONDS)[0] == b"mine"),
        *_harm("its stored answer was not whole", lambda: len(front + stored.fetch(_SECONDS)) == _SIZE),
        *_harm("its connection was closed", lambda: waits.create("prepare") is None),
        *_harm("its request was lost", lambda: waits.wait_until_asked(_SECONDS) is None),
    ]
    tally.add("foreign", len(harms))
    return harms


def _harm(what, is_well):
    """What an honest client notices, or nothing."""
    try:
        if is_well():
            return
    except (Late, Refused, Failed):
        pass
    yield what


def guesser(path, tally):
    """Everything that one can do with an id."""
    bus = Bus(path)
    while tally["rounds"] < READY:
        time.sleep(0.002)
    tally.add("bytes", _read_answers(bus))
    tally.add("accepted", _give_data(bus))
    for ids in _GUESSES:
        bus.send(broadcast("cancel", "uu", *ids))
    for connection in sorted({connection for connection, _ in _GUESSES}):
        bus.ask(call("disconnect", "u", connection))
    tally.add("foreign", (tally["bytes"] > 0) + tally["accepted"])
    tally.add("rounds")


def _read_answers(bus: Bus) -> int:
    """Bytes of answers. Most calls are refused, some may be held for ever."""
    serials = [bus.send(call("getData", "uu", *ids)) for ids in _GUESSES]
    deadline, found = time.monotonic() + _SECONDS, 0
    for serial in serials:
        try:
            found += len(bus.answer(serial, max(0.0, deadline - time.monotonic()))[0])
        except (Late, Refused):
            pass
    return found


def _give_data(bus: Bus) -> int:
    """How many requests took data of somebody else."""
    taken = 0
    for ids in _GUESSES:
        serial = bus.send(send_call(b"evil", False, *ids))
        answer = bus.wait(lambda each, serial=serial: each.reply_to == serial, 25)
        taken += answer.kind != ERROR and answer.values == (0,)
    return taken


def gained(tally) -> str:
    return (
        f"{tally['bytes']} bytes read, {tally['accepted']} pieces of data put in,"
        f" {tally['foreign']} successes and harms in all"
    )
