"""Random message bodies. The same seed gives the same bodies."""

import struct

from gi.repository import GLib

_BASIC = "ybnqiuxtdsog"
_RANGES = {
    "y": (0, 255),
    "n": (-(1 << 15), (1 << 15) - 1),
    "q": (0, (1 << 16) - 1),
    "i": (-(1 << 31), (1 << 31) - 1),
    "u": (0, (1 << 32) - 1),
    "x": (-(1 << 63), (1 << 63) - 1),
    "t": (0, (1 << 64) - 1),
}
_TEXTS = ("", "a", "connectionStatus", "com.kelvra.orvexd", "\u00e9\U0001f600", "%s%n", "x" * 300)
_SIGNATURES = ("", "u", "a{sv}", "(ii)")
_SIZES = (0, 0, 1, 2, 7, 64, 1024)
_HUGE = 2 << 20


def random_type(dice, depth=0):
    """One complete type."""
    choice = dice.random()
    if depth > 4 or choice < 0.6:
        return dice.choice(_BASIC)
    if choice < 0.7:
        return "ay"
    if choice < 0.8:
        return "a" + random_type(dice, depth + 1)
    if choice < 0.85:
        return "a{" + dice.choice(_BASIC) + random_type(dice, depth + 1) + "}"
    if choice < 0.95:
        inner = [random_type(dice, depth + 1) for _ in range(dice.randint(1, 4))]
        return "(" + "".join(inner) + ")"
    return "v"


def random_argument(dice, kind):
    """A value of this type for an argument; some byte arrays are huge."""
    if kind == "ay" and dice.random() < 0.01:
        return dice.randbytes(_HUGE)
    return random_value(dice, kind)


def random_value(dice, kind):
    """A value of this type, as the bindings take it."""
    if kind == "ay":
        return dice.randbytes(dice.choice(_SIZES))
    if kind.startswith("a{"):
        pairs = range(dice.randint(0, 3))
        return {random_value(dice, kind[2]): random_value(dice, kind[3:-1]) for _ in pairs}
    if kind[0] == "a":
        return [random_value(dice, kind[1:]) for _ in range(dice.choice((0, 1, 2, 20)))]
    if kind[0] == "(":
        return tuple(random_value(dice, inner) for inner in split(kind[1:-1]))
    if kind == "v":
        inner = random_type(dice, 3)
        return variant(inner, random_value(dice, inner))
    return _basic_value(dice, kind)


def split(signature):
    """The complete types of a signature."""
    types = []
    while signature:
        size = _first_size(signature)
        types.append(signature[:size])
        signature = signature[size:]
    return types


def _first_size(signature):
    """The length of the first complete type."""
    if signature[0] == "a":
        return 1 + _first_size(signature[1:])
    depth = 0
    for size, letter in enumerate(signature, 1):
        depth += (letter in "({") - (letter in ")}")
        if depth == 0:
            return size
    raise ValueError(signature)


def variant(kind, value):
    """A value of any type; byte arrays go in as they are and not as a list of numbers."""
    if kind == "ay":
        return GLib.Variant.new_from_bytes(GLib.VariantType(kind), GLib.Bytes.new(value), True)
    return GLib.Variant(kind, value)


def body_of(types, values):
    """The body that consists of these arguments; None without any."""
    if not types:
        return None
    return GLib.Variant.new_tuple(*map(variant, types, values))


def _basic_value(dice, kind):
    if kind == "b":
        return dice.random() < 0.5
    if kind == "d":
        return struct.unpack("<d", dice.randbytes(8))[0]
    if kind == "s":
        return dice.choice(_TEXTS)
    if kind == "o":
        return dice.choice(("/", "/com/kelvra/orvexd", "/a/b_c/d1"))
    if kind == "g":
        return dice.choice(_SIGNATURES)
    low, high = _RANGES[kind]
    return dice.choice((low, high, 0, 1, dice.randint(low, high)))
