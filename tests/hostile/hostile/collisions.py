"""Content ids that one and the same bucket of a hash table gets.

libstdc++ hashes a std::string by MurmurHash64A with a seed that everybody knows. A block of 8 bytes goes
through a reversible function f and is then added: hash = (hash ^ f(block)) * m. m is odd, so two blocks whose
f differs in the highest bit only leave hashes that differ in the highest bit only, and a second pair of
blocks takes that difference back. So each pair of blocks gives two texts of the same hash, and n pairs in a
row give 2**n of them.
"""

import random
from typing import Iterator

_M = 0xC6A4A7935BD1E995
_MASK = (1 << 64) - 1
_INVERSE = pow(_M, -1, 1 << 64)
_HIGHEST = 1 << 63
_SEED = 0xC70F6907
_LETTERS = b"0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.:;,+*/()[]{}!?#$%@^~|="


def _shift_mix(value: int) -> int:
    return value ^ value >> 47


def _f(block: int) -> int:
    return _shift_mix(block * _M & _MASK) * _M & _MASK


def _f_reversed(value: int) -> int:
    return _shift_mix(value * _INVERSE & _MASK) * _INVERSE & _MASK


def string_hash(text: bytes) -> int:
    """std::hash<std::string> of libstdc++ where size_t has 64 bits, for texts of whole blocks."""
    assert len(text) % 8 == 0
    value = _SEED ^ len(text) * _M & _MASK
    for at in range(0, len(text), 8):
        value = (value ^ _f(int.from_bytes(text[at : at + 8], "little"))) * _M & _MASK
    return _shift_mix(_shift_mix(value) * _M & _MASK)


def _twins(dice: random.Random) -> tuple[bytes, bytes]:
    """Two blocks of plain characters whose f differs in the highest bit only."""
    while True:
        first = bytes(dice.choices(_LETTERS, k=8))
        other = _f_reversed(_f(int.from_bytes(first, "little")) ^ _HIGHEST).to_bytes(8, "little")
        if all(byte in _LETTERS for byte in other):
            return first, other


def colliding_ids(dice: random.Random, count: int) -> Iterator[bytes]:
    """Different texts of the same hash."""
    pairs = [(_twins(dice), _twins(dice)) for _ in range((count - 1).bit_length())]
    for number in range(count):
        bits = ((number >> k & 1, pair) for k, pair in enumerate(pairs))
        yield b"".join(first[bit] + second[bit] for bit, (first, second) in bits)
