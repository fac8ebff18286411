"""Many exchanges of mixed shape in a row, some of them failing, with nothing left behind.

Environment:
  ORVEXD_EXCHANGES   how many exchanges (default 100; 1000 for the long form)
"""

import os
import random
import re
import time

import pytest

from harness import wire
from harness.client import RESPONSE_COMPLETE
from harness.request import Request, errors
from harness.settings import BUILD_DIR, TIME_FACTOR, patience
from harness.waiting import wait_for

EXCHANGES = int(os.environ.get("ORVEXD_EXCHANGES") or 100)
WARM_UP = EXCHANGES // 4  # exchanges until the allocators have seen most sizes
CLIENTS = 4
LARGEST = 200 << 10  # bytes of one request's data
ALLOWED_GROWTH = 1 << 20  # bytes; allocators keep some of what they were given back

# What goes wrong, and the code that the clients are told.
FAULTS = [
    ({"proxy": {"status": 403}}, 2204),
    ({"on": [{"at": "tunnel", "do": "reset"}]}, 2204),
    ({"certificate": "unknown-ca"}, 2204),
    ({"on": [{"at": "upload-end", "do": "reset"}]}, 2204),
    ({"on": [{"at": "response-head", "do": "cut"}]}, 2204),
    ({"answer": {"status": 404, "content_type": "text/html", "body": "no"}}, 2001),
    ({"answer": {"multipart": {"document": "<garbage", "parts": []}}}, 2001),
    ({"answer": {"multipart": {"status": "no", "parts": []}}}, 2001),
    ({"answer": {"head": "HTTP/1.1 200 OK\r\n\r\n", "body": "", "framing": "close"}}, 2001),
]


class Plan:
    """A request with made-up data, and the answer that the echo of them must give."""

    def __init__(self, generator, client):
        self.generator = generator
        self.client = client
        self.encoding = generator.choice(["binary", "8bit"])
        size = int(LARGEST ** generator.random()) - 1 if generator.random() < 0.9 else LARGEST
        if self.encoding == "binary":
            self.data = generator.randbytes(size)
        else:
            line = b"x" * generator.randrange(80) + generator.choice([b"\n", b"\r\n"])
            self.data = (line * (size // len(line) + 1))[:size]
        self.chunk_size = generator.choice([10_000, 65536, 1 << 20])
        self.request = None

    def create(self, attached):
        self.request = Request(
            self.client,
            attached,
            kind="other",
            encoding=self.encoding,
            chunk_size=self.chunk_size,
        )

    def give(self):
        """Binary data may come in several calls; the slices of a text depend on them."""
        pieces = [self.data]
        if self.encoding == "binary" and self.generator.random() < 0.5:
            cuts = sorted(self.generator.randrange(len(self.data) + 1) for _ in range(3))
            pieces = [self.data[a:b] for a, b in zip([0, *cuts], [*cuts, len(self.data)])]
        self.request.give(*pieces)

    def answer(self, number):
        return wire.sent_data(self.data, number, self.encoding)


def run_exchange(generator, clients, server):
    """One exchange of one to five requests, the first one prepared, and its outcome checked."""
    plans = [Plan(generator, generator.choice(clients)) for _ in range(generator.randrange(1, 6))]
    fault, code = generator.choice(FAULTS) if generator.random() < 0.1 else (None, None)
    server.queue(fault or {})
    for plan in plans[1:]:
        plan.create(attached=True)
    plans[0].create(attached=False)
    if fault:
        expect_failure(plans, clients, code)
    else:
        expect_answers(plans)
    for plan in plans:
        plan.client.disconnect(plan.request.connection)


def expect_answers(plans):
    for plan in plans:
        plan.give()
    for number, plan in enumerate(plans, 1):
        data, code = plan.request.fetch_part()
        assert code == RESPONSE_COMPLETE
        assert data == plan.answer(number)


def expect_failure(plans, clients, code):
    """Gives data as long as the daemon asks for them; then every client hears the same."""
    listener, waiting = clients[0], list(plans)

    def asked():
        for plan in waiting:
            question = ("requestData", (plan.request.connection, plan.request.id))
            if question in plan.client.signals:
                return plan
        return None

    while wait_for(lambda: errors(listener) or asked()) and not errors(listener):
        waiting.remove(plan := asked())
        plan.request.send(plan.data)
    keys = " ".join(plan.request.key for plan in plans)
    for client in clients:
        assert client.wait_for_signal("errorSignal")[::2] == (code, keys)
    for plan in plans:
        assert plan.request.ask_error() == 41


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
        run_exchange(generator, clients, server)
        for client in clients:
            assert errors(client) == []
            client.signals.clear()

    assert server.last == EXCHANGES
    assert settled(daemon, clients[0], held) == held
    growth = daemon.resident_memory() - memory
    print(f"resident memory: {memory} bytes after {WARM_UP} exchanges, {growth:+} at the end")
    if not is_sanitized():
        assert growth < ALLOWED_GROWTH
