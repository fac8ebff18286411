"""Where a row of the fault matrix is played: the programs, and who takes part."""

import time

from . import observe
from .client import PART_CONTINUES, RESPONSE_COMPLETE, Client
from .keys import restore_preinst
from .raw_client import RawClient
from .request import Request, errors
from .waiting import wait_for

CALLS_AT_ONCE = 100  # the bus lets a client wait for 128 answers
PROBE = b"\r\n--clean exchange \0\xff\n"


class Scene:
    """The running programs, and the clients and requests of one row.

    `clients` and `requests` are in the order of their making; expectations name requests by their
    number. All that a row makes through the scene is taken back at its end.
    """

    settle_seconds = 10  # until the daemon holds no more than before

    def __init__(self, bus, server, platform, preinst, keys, daemon):
        self.bus = bus
        self.server = server
        self.platform = platform
        self.preinst = preinst
        self.keys = keys
        self.daemon = daemon
        self.clients = []
        self.requests = []
        self.began = None  # when the first request was made
        self._watcher = Client(bus.address)
        self._raw_clients = []
        self._connections = []
        self._calls = {}
        self.failed = set()  # numbers of the requests that an error signal has named
        self._over = False
        self._before = self._status_before = self._platform_before = None

    # -- who takes part ------------------------------------------------------------------------

    def client(self):
        """A further client; it sees every signal from now on."""
        self.clients.append(Client(self.bus.address))
        return self.clients[-1]

    def raw_client(self, **options):
        """A further client that composes its messages itself; expectations leave it out."""
        self._raw_clients.append(RawClient(self.bus.address, **options))
        return self._raw_clients[-1]

    def request(self, client=None, attached=False, policy=2, connection=None, **parameters):
        """A further request, of this client or of the first one; `parameters` are connect's."""
        if client is None:
            client = self.clients[0] if self.clients else self.client()
        if connection is None:
            connection = self.connect(client, **parameters)
        self.began = self.began or time.monotonic()
        self.requests.append(Request(client, attached, connection, policy))
        return self.requests[-1]

    def connect(self, client, kind="other", **parameters):
        """A connection that the scene closes at the end of the row."""
        self._connections.append(client.connect(kind=kind, **parameters))
        return self._connections[-1]

    # -- answers -------------------------------------------------------------------------------

    def ask(self, number=0):
        """Calls getData and does not wait: the call is held for the expectation that comes."""
        self._calls[number] = self.requests[number].ask()
        return self._calls[number]

    def next_chunk(self, number=0, seconds=10):
        """The answer of the held call, or of one that is made now."""
        if number not in self._calls:
            self.ask(number)
        call = self._calls.pop(number)
        wait_for(lambda: call.done or self._failure_of(number), seconds, "the answer of a call")
        assert call.done, f"no answer, but {self._failure_of(number)}"
        return call.wait()

    def _failure_of(self, number):
        """The error signal that names this request, if one has come."""
        key = self.requests[number].key
        for arguments in errors(self.requests[number].client):
            if key in arguments[2].split(" "):
                return arguments
        return None

    def fetch(self, number=0, seconds=30):
        """The parts of the whole answer."""
        parts, data = [], []
        while True:
            chunk = self.next_chunk(number, seconds)
            data.append(chunk.data)
            if chunk.code != PART_CONTINUES:
                parts.append(b"".join(data))
                data = []
            if chunk.code == RESPONSE_COMPLETE:
                return parts

    # -- the course of a row -------------------------------------------------------------------

    def prepare(self):
        """Notes what the idle daemon holds, once it has made all that it keeps for ever."""
        if not self.daemon.warmed_up:
            self.expect_clean_exchange()
            self.daemon.warmed_up = True
            self.daemon.ledger.expect_kept(self.daemon.pid)
        observe.wait_until_idle(self.daemon.pid)
        self._before = self.daemon.holdings()
        self._status_before = self._watcher.status()
        self._platform_before = self.platform.state()

    def set_up(self, server=None, files=None, platform=None):
        """Brings a fault about; see harness.fault.Fault."""
        if server is not None:
            self.server.queue(*(server if isinstance(server, list) else [server]))
        if files:
            files(self.preinst)
        if platform:
            self.platform.write(**platform)

    def expect_nothing_else(self):
        """No signal and no answer has come that nobody expected."""
        for client in self.clients:
            if not client.bus.is_closed():
                client.settle()
                assert errors(client) == []
        for number, call in self._calls.items():
            # A call that came after the failure is refused, one that came before it never answered.
            refused = call.error and call.error.code == 41 and number in self.failed
            assert refused or not call.done, f"a held call of request {number} was answered"

    def expect_nothing_left(self):
        """After a clean exchange the daemon holds no more than before the row."""
        self._put_back()
        self.expect_clean_exchange()
        self.expect_nothing_else()
        observe.wait_until_idle(self.daemon.pid, 30)
        self._expect_gone()
        self._wait_for_holdings()
        self._over = True

    def expect_clean_exchange(self):
        """A request is the only one of its exchange, and its answer is right to the byte.

        The answer is there in one piece while the exchange runs, whose end then removes the request.
        """
        self.server.clear()
        self.server.queue({"answer": {"pack": 16000}})
        client = self._watcher
        client.signals.clear()
        request = Request(client, kind="other")
        answer = request.ask()
        assert request.wait_until_asked(60).send(PROBE) == 0
        assert answer.wait(30) == (PROBE, RESPONSE_COMPLETE)
        record = self.server.wait(self.server.last)
        assert [each["oid"] for each in record["slp"]["requests"]] == ["1"], record["slp"]
        assert record["findings"] == [], record["findings"]
        assert record["parts"][1]["bytes"] == len(PROBE), record["parts"]
        assert errors(client) == []
        client.disconnect(request.connection)

    def expect_end(self, status, seconds=20):
        """The daemon ends with this status and without a word, and serves when started anew."""
        ended = self.daemon.wait(seconds)
        assert ended == status, self.daemon.report()
        self.daemon.expect_silence()
        if self.bus.process.status is None:
            self.daemon.start()
            self.expect_clean_exchange()
        self._over = True

    def close(self):
        """Ends whatever the row has left; a daemon that failed a row does not serve the next one."""
        for client in [*self.clients, *self._raw_clients, self._watcher]:
            client.close()
        if not self._over and self.bus.process.status is None:
            self._start_over()

    def _start_over(self):
        self.daemon.abandon()
        restore_preinst(self.preinst, self.keys)
        if self._platform_before:
            self.platform.restore(self._platform_before)
        self.server.clear()
        self.server.forget_events()
        self.daemon.start()
        self._over = True

    def _put_back(self):
        """Repairs what the row has spoilt, and takes the row's requests back."""
        restore_preinst(self.preinst, self.keys)
        if self.platform.state() != self._platform_before or not self.platform.is_whole():
            self.platform.restore(self._platform_before)
        self._watcher.wait_for_status(self._status_before)
        for connection in self._connections:
            self._watcher.disconnect(connection)

    def _wait_for_holdings(self):
        wanted = self._before

        def little_enough():
            held = self.daemon.holdings()
            return all(held[kind] <= wanted[kind] for kind in wanted)

        observe.poll_for(
            little_enough, self.settle_seconds, lambda: f"{wanted}, not {self.daemon.holdings()}"
        )

    def _expect_gone(self):
        """The daemon knows no request that a client has made in this row: it says so at once."""
        clients = [*self.clients, self._watcher]
        made = [ids for client in clients for ids in client.requests]
        for start in range(0, len(made), CALLS_AT_ONCE):
            some = made[start : start + CALLS_AT_ONCE]
            calls = [self._watcher.getData(*ids) for ids in some]
            self._watcher.settle()
            for ids, call in zip(some, calls, strict=True):
                assert call.done, f"{ids} is still there"
                assert call.error and call.error.code == 41, f"{ids}: {call.error or call.answer}"
