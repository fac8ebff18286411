"""Exchanges of mixed shape, some of them failing on purpose, whose outcomes are known beforehand."""

import time

from . import wire
from .client import RESPONSE_COMPLETE
from .request import Request, errors
from .waiting import wait_for

LARGEST = 200 << 10  # bytes of one request's data

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

    def __init__(self, generator, client, policies=(2,)):
        self.generator = generator
        self.client = client
        self.policy = generator.choice(policies)
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
            policy=self.policy,
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


class MixedExchange:
    """One exchange of up to `most` requests, the first one prepared, the others attached."""

    def __init__(self, generator, clients, policies=(2,), most=5):
        self.plans = [
            Plan(generator, generator.choice(clients), policies)
            for _ in range(generator.randrange(1, most + 1))
        ]
        self._clients = clients

    def run(self, server, fault=None):
        """Carries it out, checks what each client gets, and returns how many seconds it took."""
        behaviour, code = fault or ({}, None)
        server.queue(behaviour)
        for plan in self.plans[1:]:
            plan.create(attached=True)
        begun = time.monotonic()
        self.plans[0].create(attached=False)
        if fault:
            self._expect_failure(code)
        else:
            self._expect_answers()
        seconds = time.monotonic() - begun
        for plan in self.plans:
            plan.client.disconnect(plan.request.connection)
        return seconds

    def _expect_answers(self):
        for plan in self.plans:
            plan.give()
        for number, plan in enumerate(self.plans, 1):
            data, code = plan.request.fetch_part()
            assert code == RESPONSE_COMPLETE
            assert data == plan.answer(number)

    def _expect_failure(self, code):
        """Gives data as long as the daemon asks for them; then every client hears the same."""
        listener, waiting = self._clients[0], list(self.plans)

        def asked():
            for plan in waiting:
                question = ("requestData", (plan.request.connection, plan.request.id))
                if question in plan.client.signals:
                    return plan
            return None

        while wait_for(lambda: errors(listener) or asked()) and not errors(listener):
            waiting.remove(plan := asked())
            plan.request.send(plan.data)
        keys = " ".join(plan.request.key for plan in self.plans)
        for client in self._clients:
            assert client.wait_for_signal("errorSignal")[::2] == (code, keys)
        for plan in self.plans:
            assert plan.request.ask_error() == 41
