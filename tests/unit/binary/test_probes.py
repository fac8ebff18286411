#!/usr/bin/python3
"""The program has the probes that docs/tracing.md lists, with these arguments. Reads it with readelf.

usage: test_probes.py DAEMON DOCUMENT [unittest arguments]
"""

import re
import subprocess
import sys
import unittest
from pathlib import Path

DAEMON = ""
DOCUMENT = ""

ROW = re.compile(r"^\| `(\w+)` \| (.*?) \| .* \|$", re.MULTILINE)
WORDS = {"size": 1, "long": -1, "text": 1, "id": 1}  # as wide as a pointer, by their sign
SIGNED, UNSIGNED = -4, 4


def readelf(*arguments):
    done = subprocess.run(
        ["readelf", "--wide", *arguments, DAEMON],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
        env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"},
    )
    return done.stdout


def built():
    """For each probe of the program the sets of sizes of its arguments, negative for signed ones."""
    probes = {}
    pattern = r"Provider: (\w+)\s+Name: (\w+)\s+Location:.*?\s+Arguments:(.*)$"
    for provider, name, arguments in re.findall(pattern, readelf("--notes"), re.MULTILINE):
        assert provider == "orvexd", provider
        sizes = tuple(int(size) for size in re.findall(r"(-?\d+)@", arguments))
        probes.setdefault(name, set()).add(sizes)
    return probes


def listed():
    """For each probe of the document the sizes of its arguments."""
    word = 8 if "ELF64" in readelf("--file-header") else 4
    sizes = {"u32": UNSIGNED, "i32": SIGNED, **{name: word * sign for name, sign in WORDS.items()}}
    section = DOCUMENT.read_text("utf-8").partition("\n## Probes\n")[2]
    types = dict(ROW.findall(section))
    return {
        name: tuple(sizes[argument.split()[0]] for argument in arguments.split(", "))
        for name, arguments in types.items()
        if name not in sizes
    }


class Probes(unittest.TestCase):
    maxDiff = None

    def test_list_names_every_probe_of_the_program_and_no_other(self):
        self.assertEqual(sorted(listed()), sorted(built()))
        self.assertGreater(len(built()), 20)

    def test_arguments_are_those_of_the_list_wherever_a_probe_stands(self):
        self.assertEqual({name: {sizes} for name, sizes in listed().items()}, built())

    def test_nothing_is_counted_to_find_out_whether_somebody_looks_on(self):
        semaphores = re.findall(r"Semaphore: (0x[0-9a-f]+)", readelf("--notes"))
        self.assertEqual({int(address, 16) for address in semaphores}, {0})


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    DAEMON, DOCUMENT = sys.argv.pop(1), Path(sys.argv.pop(1))
    unittest.main()
