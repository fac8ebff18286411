"""Messages of random signatures and bodies: each is answered as it must be, and the daemon lives.

The same driver runs for as long as one likes in fuzz/bus_messages.
"""

import sys

import pytest
from harness.settings import BUS_NAME, ROOT

sys.path.append(str(ROOT / "fuzz"))

from bus.rounds import Round  # pylint: disable=wrong-import-position


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_random_messages_are_answered_as_they_must_be(platform, make_daemon, make_raw_client, seed):
    platform.write(connections=[], proxy=None)
    make_daemon().start()
    raw = make_raw_client()
    raw.add_match(f"type='signal',sender='{BUS_NAME}'")
    Round(raw, seed).run(300)
