"""Content ids that fall into one and the same bucket of a hash table.

libstdc++ hashes a std::string by MurmurHash64A with a seed that everybody knows. Each block of 8 bytes goes
through a reversible function f: state = (state ^ f(block)) * m. So for any block there is a second one behind it
that leads to a state which was chosen beforehand; one in some thousands consists of plain characters. Pairs of
blocks that lead to the same state are a stage, and a text is made of one pair from each stage.
"""

import base64
import itertools
import random
from typing import Iterator

_M = 0xC6A4A7935BD1E995
_MASK = (1 << 64) - 1
_INVERSE = pow(_M, -1, 1 << 64)
_SEED = 0xC70F6907
_PLAIN = bytes(each for each in range(0x21, 0x7F) if each not in b"\"&'<>%")
_STAGES = 4
_LENGTH = 16 * _STAGES  # of an id


def _shift_mix(value: int) -> int:
    return value ^ value >> 47


def _f(block: bytes) -> int:
    return _shift_mix(int.from_bytes(block, "little") * _M & _MASK) * _M & _MASK


def _f_reversed(value: int) -> bytes:
    return (_shift_mix(value * _INVERSE & _MASK) * _INVERSE & _MASK).to_bytes(8, "little")


def _stage(dice: random.Random, state: int, count: int) -> tuple[list[bytes], int]:
    """Pairs of blocks that all lead from one state to another, and that one."""
    first, second = _plain_block(dice), _plain_block(dice)
    before_last = (state ^ _f(first)) * _M & _MASK ^ _f(second)
    pairs = [first + second]
    while len(pairs) < count:
        first = _plain_block(dice)
        second = _f_reversed(before_last ^ (state ^ _f(first)) * _M & _MASK)
        if not second.translate(None, _PLAIN):
            pairs.append(first + second)
    return pairs, before_last * _M & _MASK


def _plain_block(dice: random.Random) -> bytes:
    return base64.b64encode(dice.randbytes(6))


def colliding_ids(dice: random.Random, count: int) -> Iterator[bytes]:
    """Different texts of the same hash, where size_t has 64 bits."""
    state, stages = _SEED ^ _LENGTH * _M & _MASK, []
    width = next(width for width in itertools.count(2) if width**_STAGES >= count)
    for _ in range(_STAGES):
        pairs, state = _stage(dice, state, width)
        stages.append(pairs)
    return map(b"".join, itertools.islice(itertools.product(*stages), count))
