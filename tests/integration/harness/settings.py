"""Where things are, and how patient to be.

Environment:
  ORVEXD_BUILD_DIR     build directory with bin/orvexd (default build/release of this tree)
  ORVEXD_LONG_TESTS    when set: also the tests that wait for time-outs of a minute and more
  ORVEXD_TIME_FACTOR   multiplies every deadline, for sanitizers and valgrind (default 1)
"""

import functools
import os
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[3]
BUILD_DIR = pathlib.Path(os.environ.get("ORVEXD_BUILD_DIR") or ROOT / "build" / "release")
TIME_FACTOR = float(os.environ.get("ORVEXD_TIME_FACTOR") or 1)

DAEMON = BUILD_DIR / "bin" / "orvexd"
TEST_SERVER = ROOT / "tools" / "slp-testserver" / "slp-testserver"
MAKE_TEST_KEYS = ROOT / "scripts" / "make-test-keys"
EXAMPLES = ROOT / "examples"

BUS_NAME = "com.kelvra.orvexd"
OBJECT_PATH = "/com/kelvra/orvexd"
SERVER_HOST = "slp.kelvra.example"
PASSPHRASE = "ovx-7Kq2"


def is_sanitized():
    """Whether the build under test has a sanitizer, which keeps freed memory and needs much more."""
    return _is_configured("ORVEXD_SANITIZE:STRING=.")


def has_statistics():
    """Whether the build under test counts the daemon's records; a release does not."""
    return _is_configured("ORVEXD_STATISTICS:[A-Z]+=ON$")


@functools.cache
def _is_configured(pattern):
    cache = (BUILD_DIR / "CMakeCache.txt").read_text("utf-8")
    return re.search(f"^{pattern}", cache, re.MULTILINE) is not None


def patience(seconds):
    """A deadline of so many seconds, scaled for slow builds."""
    return seconds * TIME_FACTOR
