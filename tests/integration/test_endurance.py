"""Many exchanges of mixed shape in a row, some of them failing, with nothing left behind.

Environment:
  ORVEXD_EXCHANGES   how many exchanges (default 100; 1000 for the long form)
"""

import os
import random
import re
import time

import pytest

from harness.mixed_exchanges import FAULTS, MixedExchange
from harness.request import errors
from harness.settings import BUILD_DIR, TIME_FACTOR, patience

EXCHANGES = int(os.environ.get("ORVEXD_EXCHANGES") or 100)
WARM_UP = EXCHANGES // 4  # exchanges until the allocators have seen most sizes
CLIENTS = 4
ALLOWED_GROWTH = 1 << 20  # bytes; allocators keep some of what they were given back


def settled(daemon, client, wanted):
    """What the daemon holds when the end of the last exchange has been dealt with."""
    deadline = time.monotonic() + patience(10)
    while daemon.resources() != wanted and time.monotonic() < deadline:
        client.status()
    return daemon.resources()


def is_sanitized():
    """Whether the build under test keeps freed memory, as sanitizers do."""
    cache = (BUILD_DIR / "CMakeCache.txt").read_text("utf-8")
    return re.search("^ORVEXD_SANITIZE:STRING=.", cache, re.MULTILINE) is not None


@pytest.mark.timeout((60 + EXCHANGES) * TIME_FACTOR)
def test_daemon_holds_no_more_after_many_exchanges(make_client, daemon, platform, server):
    platform.write(connections=[(2, True, False)])
    generator = random.Random(1000)
    clients = [make_client() for _ in range(CLIENTS)]
    clients[0].wait_for_status(1)
    held = daemon.resources()
    for number in range(EXCHANGES):
        if number == WARM_UP:
            memory = daemon.resident_memory()
        exchange = MixedExchange(generator, clients)
        exchange.run(server, generator.choice(FAULTS) if generator.random() < 0.1 else None)
        for client in clients:
            assert errors(client) == []
            client.signals.clear()

    assert server.last == EXCHANGES
    assert settled(daemon, clients[0], held) == held
    growth = daemon.resident_memory() - memory
    print(f"resident memory: {memory} bytes after {WARM_UP} exchanges, {growth:+} at the end")
    if not is_sanitized():
        assert growth < ALLOWED_GROWTH
