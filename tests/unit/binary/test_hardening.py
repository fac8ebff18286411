#!/usr/bin/python3
"""The release daemon is hardened as the build says. Reads the program with readelf.

usage: test_hardening.py DAEMON CORE_ARCHIVE [unittest arguments]
"""

import json
import re
import subprocess
import sys
import unittest
from pathlib import Path

DAEMON = ""
ARCHIVE = ""


def readelf(*arguments):
    done = subprocess.run(
        ["readelf", "--wide", *arguments],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
        env={"LC_ALL": "C", "PATH": "/usr/bin:/bin"},
    )
    return done.stdout


def segment(name):
    """The line of the program header of this type."""
    lines = [line for line in readelf("--segments", DAEMON).splitlines() if f" {name} " in line]
    assert len(lines) == 1, f"{name}: {lines}"
    return lines[0].split()


class Hardening(unittest.TestCase):
    def test_program_is_position_independent(self):
        self.assertRegex(readelf("--file-header", DAEMON), r"Type:\s+DYN")
        self.assertRegex(readelf("--dynamic", DAEMON), r"\(FLAGS_1\).*\bPIE\b")

    def test_relocated_data_becomes_read_only(self):
        self.assertEqual(segment("GNU_RELRO")[6], "R")

    def test_every_symbol_is_bound_at_start_up(self):
        dynamic = readelf("--dynamic", DAEMON)
        self.assertRegex(dynamic, r"\(FLAGS\).*\bBIND_NOW\b")
        self.assertRegex(dynamic, r"\(FLAGS_1\).*\bNOW\b")

    def test_code_is_not_relocated(self):
        self.assertNotIn("TEXTREL", readelf("--dynamic", DAEMON))

    def test_stack_is_not_executable(self):
        self.assertEqual(segment("GNU_STACK")[6], "RW")

    def test_no_segment_is_writable_and_executable(self):
        for line in readelf("--segments", DAEMON).splitlines():
            if line.split()[:1] == ["LOAD"]:
                self.assertNotRegex(line, r"\bRWE\b")

    def test_stack_is_protected(self):
        self.assertIn("__stack_chk_fail", readelf("--dyn-syms", DAEMON))

    def test_library_calls_are_fortified(self):
        checked = re.findall(r"\b__(\w+)_chk\b", readelf("--dyn-syms", DAEMON))
        self.assertIn("printf", checked)

    # A program shows no trace of it where every frame is smaller than a page, so the compiler's
    # command is what there is to read; the same goes for how much of the rest was compiled so.
    def test_every_source_is_compiled_against_stack_clashes_and_overflows(self):
        commands = json.loads((Path(DAEMON).parents[1] / "compile_commands.json").read_text("utf-8"))
        ours = [entry for entry in commands if " -o src/CMakeFiles/" in entry["command"]]
        self.assertGreater(len(ours), 20)
        for entry in ours:
            flags = entry["command"].split()
            for flag in ("-fstack-clash-protection", "-fstack-protector-strong", "-O2"):
                self.assertIn(flag, flags, entry["file"])
            levels = [int(flag[-1]) for flag in flags if flag.startswith("-D_FORTIFY_SOURCE=")]
            self.assertGreaterEqual(levels[-1], 2, entry["file"])

    # The C library's start-up objects of this distribution carry no such note, so the linker leaves
    # it out of the program; our own objects all have it.
    def test_every_object_is_marked_for_control_flow_protection(self):
        if not re.search(r"Machine:.*(X86-64|80386)", readelf("--file-header", DAEMON)):
            return  # another processor has no such note
        objects = re.split(r"^File: ", readelf("--notes", ARCHIVE), flags=re.MULTILINE)[1:]
        self.assertGreater(len(objects), 20)
        for one in objects:
            self.assertRegex(one, r"x86 feature:.*IBT.*SHSTK", one.splitlines()[0])

    # What the tests count is for builds that nobody ships; see src/support/Statistics.h.
    def test_nothing_is_counted(self):
        self.assertFalse(b"ORVEXD_STATISTICS" in Path(DAEMON).read_bytes())
        symbols = readelf("--syms", DAEMON)
        self.assertIn("6orvexd", symbols)  # it is not stripped of them
        self.assertEqual(re.findall(r"\S*(?:[Ss]tatistic|7Counted)\S*", symbols), [])


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    DAEMON, ARCHIVE = sys.argv.pop(1), sys.argv.pop(1)
    unittest.main()
