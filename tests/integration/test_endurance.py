"""Many exchanges of mixed shape in a row, some of them failing, with nothing left behind.

Environment:
  ORVEXD_EXCHANGES   how many exchanges (default 100; 1000 for the long form)
"""

import os
import random
import time

import pytest

from harness import observe
from harness.mixed_exchanges import FAULTS, MixedExchange
from harness.request import Request, errors
from harness.settings import TIME_FACTOR, is_sanitized, patience

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


@pytest.mark.skipif(is_sanitized(), reason="sanitizers keep freed memory")
def test_memory_of_large_answers_goes_back_with_the_next_exchange(make_client, daemon, platform):
    platform.write(connections=[(2, True, False)])
    client = make_client()
    client.wait_for_status(1)

    def settled_memory():
        for _ in range(2):
            client.exchange(b"small", kind="other")
            observe.wait_until_idle(daemon.pid)
        return observe.allocated_bytes(daemon.pid)

    size = 600_000
    before = settled_memory()
    for _ in range(2):
        requests = [Request(client, attached, kind="other") for attached in [True] * 8 + [False]]
        for request in [requests[-1], *requests[:-1]]:
            request.give(b"x" * size)
        observe.wait_until_idle(daemon.pid)  # all answers are there, none is fetched
        assert observe.allocated_bytes(daemon.pid) > before + 8 * size
        for request in requests:
            request.fetch()
    assert settled_memory() < before + 2 * size  # libdbus keeps the buffer of one message
