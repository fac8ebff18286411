"""Functions through which all bytes go, beside memcpy and a parser of somebody else's."""

import json
import subprocess

from .pairs import paired
from .rows import MIB, at_least, milliseconds, speed


def parser(run):
    """Rows 7 and 8."""
    size = 64 * MIB
    one = _measure(run, "one-part")
    name = "response parser, 64 MiB in one part, 16 KiB pieces"
    _compare(run, "7a", name, one, "memcpy", size, 0.5)
    _compare(run, "7b", name, one, "gmime", size, 5)
    many = _measure(run, "many-parts")
    name = "response parser, 10,000 parts of 4 KiB"
    _compare(run, "8", name, many, "gmime", 10_000 * 4096, 3)


def line_ends(run):
    """Row 9."""
    size = 64 * MIB
    _compare(
        run,
        "9a",
        "line ends, 64 MiB, a line feed every 40 bytes",
        _measure(run, "lines"),
        "memcpy",
        size,
        0.25,
    )
    _compare(
        run, "9b", "line ends, 64 MiB, none", _measure(run, "no-lines"), "memcpy", size, 0.6
    )


def _measure(run, row):
    program = run.workshop.bin / "micro_pairs"
    output = subprocess.run(
        [program, row, str(run.pairs)], check=True, stdout=subprocess.PIPE, text=True
    ).stdout
    return {name: [time / 1e9 for time in times] for name, times in json.loads(output).items()}


def _compare(run, number, name, times, peer, size, limit):
    result = paired(times[peer], times["ours"])  # a speed's ratio is a time's the other way round
    run.add(
        at_least(
            number,
            name,
            f"{milliseconds(result.peer.median)}, {speed(result.peer.median, size)}",
            f"{milliseconds(result.ours.median)} {'GMime' if peer == 'gmime' else peer}",
            result.ratio,
            limit,
        )
    )
