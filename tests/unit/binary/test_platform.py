#!/usr/bin/python3
"""What the platform library loads, and what only its module does. Reads both with readelf.

usage: test_platform.py LIBRARY MODULE [unittest arguments]
"""

import re
import subprocess
import sys
import unittest
from pathlib import Path

LIBRARY = ""
MODULE = ""
SANITIZERS = {"libasan.so.8", "libubsan.so.1", "libtsan.so.2"}


def needed(file):
    done = subprocess.run(
        ["readelf", "--wide", "--dynamic", file], check=True, capture_output=True, text=True, timeout=60
    )
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", done.stdout)) - SANITIZERS


class Platform(unittest.TestCase):
    def test_library_needs_nothing_but_glib_and_the_languages_own(self):
        base = {"libglib-2.0.so.0", "libstdc++.so.6", "libgcc_s.so.1", "libm.so.6", "libc.so.6", "libdl.so.2"}
        # The loader's own name differs between machines.
        others = {each for each in needed(LIBRARY) if not each.startswith("ld-linux")}
        self.assertLessEqual(others, base)

    def test_module_brings_what_network_services_take(self):
        if not Path(MODULE).exists():
            return  # this build has none
        self.assertLessEqual({"libnm.so.0", "libmm-glib.so.0", "libgio-2.0.so.0"}, needed(MODULE))


if __name__ == "__main__":
    LIBRARY, MODULE = sys.argv[1:3]
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
