"""Turns the items of a script into pieces of bytes, made up while they are sent."""

import base64
import itertools
import random

from .script import item_kind

PIECE = 16000
_PATTERN = bytes(range(251))


class Action:
    """Something to be done between two pieces: a step of a script."""

    def __init__(self, step):
        self.step = step


class Mark:
    """A point that is reached between two pieces."""

    def __init__(self, point, part=None):
        self.point = point
        self.part = part


def pieces(item):
    """Yields bytes, Action and Mark objects in order."""
    if item is None:
        return
    if isinstance(item, str):
        yield item.encode()
    elif isinstance(item, list):
        for each in item:
            yield from pieces(each)
    else:
        yield from _MAKERS[item_kind(item)](item)


def joined(item):
    """All bytes of an item as one; actions within are left out."""
    return b"".join(piece for piece in pieces(item) if isinstance(piece, bytes))


def made_up(size, fill="pattern", piece=PIECE, seed=0):
    """`size` bytes in pieces, without ever holding them all."""
    if fill == "random":
        generator = random.Random(seed)
        sizes = itertools.chain([piece] * (size // piece), [size % piece])
        return (generator.randbytes(each) for each in sizes if each)
    unit = {"pattern": _PATTERN, "zeros": b"\0"}.get(fill) or fill.encode()
    # Long enough that every piece is one slice of it, wherever in the unit it begins.
    block = unit * ((piece + len(unit)) // len(unit) + 1)
    places = range(0, size, piece)
    return (block[at % len(unit) :][: min(piece, size - at)] for at in places)


def _file(item):
    with open(item["file"], "rb") as file:
        yield file.read()


def _repeat(item):
    for _ in range(item["times"]):
        yield from pieces(item["repeat"])


def _endless(item):
    while True:
        yield from pieces(item["endless"])


_MAKERS = {
    "text": lambda item: iter([item["text"].encode()]),
    "latin1": lambda item: iter([item["latin1"].encode("latin-1")]),
    "hex": lambda item: iter([bytes.fromhex(item["hex"])]),
    "base64": lambda item: iter([base64.b64decode(item["base64"])]),
    "file": _file,
    "bytes": lambda item: made_up(
        item["bytes"], item.get("fill", "pattern"), item.get("piece", PIECE), item.get("seed", 0)
    ),
    "repeat": _repeat,
    "endless": _endless,
    "join": lambda item: iter([joined(item["join"])]),
    "do": lambda item: iter([Action(item)]),
    "mark": lambda item: iter([Mark(item["mark"])]),
}


def cut_by_size(source, size):
    """The same bytes in pieces of `size`; what is left over goes out before anything else."""
    rest = b""
    for piece in source:
        if not isinstance(piece, bytes):
            if rest:
                yield rest
            rest = b""
            yield piece
            continue
        rest += piece
        whole = len(rest) - len(rest) % size
        for at in range(0, whole, size):
            yield rest[at : at + size]
        rest = rest[whole:]
    if rest:
        yield rest


def cut_at(source, places):
    """The same bytes in pieces that end at the given places, counted from the first byte."""
    ends = iter(sorted(places))
    end, sent, rest = next(ends, None), 0, b""
    for piece in source:
        if not isinstance(piece, bytes):
            if rest:
                yield rest
            sent, rest = sent + len(rest), b""
            yield piece
            continue
        rest += piece
        while end is not None and sent + len(rest) >= end:
            size = end - sent
            if size > 0:
                yield rest[:size]
                sent, rest = end, rest[size:]
            end = next(ends, None)
    if rest:
        yield rest


def pack(source, room):
    """Joins neighbouring pieces while they fit into `room` bytes."""
    held = b""
    for piece in source:
        fits = isinstance(piece, bytes) and len(held) + len(piece) <= room
        if held and not fits:
            yield held
            held = b""
        if isinstance(piece, bytes):
            held += piece
        else:
            yield piece
    if held:
        yield held
