"""One daemon, one exchange after the other."""

import random
import time

from harness.client import BusError, Client
from harness.mixed_exchanges import FAULTS, MixedExchange
from harness.observe import wait_until_idle
from harness.request import errors

from .record import Record

CLIENTS = 4
FAULT_SHARE = 0.01
SAMPLE_EVERY = 10  # exchanges

# The network of each tenth of a hundred exchanges, its status, the policies that fit it, and how
# many requests an exchange may have: over kind 1 an attached request starts one of its own.
_PLAIN = ([(2, True, False)], 1, (2, 3), 5)
_KIND_ONE = ([(1, True, False)], 3, (0, 1, 2, 3), 1)
_FLAGGED = ([(2, True, True)], 5, (3,), 5)
_NETWORKS = [*[_PLAIN] * 8, _KIND_ONE, _FLAGGED]


class Soak:
    """Runs exchanges on a stage and keeps what it measures in `record`."""

    def __init__(self, stage, seed, say):
        self.record = Record()
        self.unexpected = []
        self.requests = []  # ids of all that were made
        self._stage = stage
        self._say = say
        self._dice = random.Random(seed)
        self._clients = [Client(stage.bus.address) for _ in range(CLIENTS)]
        self._network = None
        self._idle = None

    def run(self, exchanges):
        """All of them, or up to the first unexpected outcome, then the checks at the end."""
        self._run_one(0)
        self._idle = self._settled_resources()
        begun = time.monotonic()
        for number in range(1, exchanges + 1):
            try:
                seconds = self._run_one(number)
            except (AssertionError, BusError) as error:
                self.unexpected.append(f"exchange {number}: {error!r}")
                return
            now = time.monotonic() - begun
            if seconds is not None:
                self.record.latencies.append((number, now, seconds))
            if number % SAMPLE_EVERY == 0:
                self.record.take_sample(number, now, self._stage.daemon)
            if number % max(1, exchanges // 20) == 0:
                self._report_progress(number, exchanges, now)
        self._check_end()

    def _run_one(self, number):
        """The seconds it took; None when it failed on purpose."""
        network, status, policies, most = _NETWORKS[number // 10 % len(_NETWORKS)]
        if network != self._network:
            self._change_network(network, status)
        exchange = MixedExchange(self._dice, self._clients, policies, most)
        fault = self._dice.choice(FAULTS) if self._dice.random() < FAULT_SHARE else None
        seconds = exchange.run(self._stage.server, fault)
        self.requests += [(plan.request.connection, plan.request.id) for plan in exchange.plans]
        for client in self._clients:
            if errors(client):
                raise AssertionError(f"errors that nobody expected: {errors(client)}")
            client.signals.clear()
        if fault:
            self.record.faults += 1
            return None
        return seconds

    def _change_network(self, network, status):
        self._stage.platform.write(connections=network)
        self._clients[0].wait_for_status(status)
        self._network = network

    def _report_progress(self, number, exchanges, now):
        resident = self.record.samples[-1][2] if self.record.samples else 0
        memory = f"resident {resident / 2**20:.2f} MiB"
        self._say(f"{now:6.0f} s  {number:6} of {exchanges} exchanges  {memory}")

    # -- the end -------------------------------------------------------------------------------

    def _settled_resources(self):
        wait_until_idle(self._stage.daemon.pid)
        return self._stage.daemon.resources()

    def _check_end(self):
        held = self._settled_resources()
        if held != self._idle:
            self.unexpected.append(f"{self._idle} when idle before, {held} after")
        left = [ids for ids in self.requests if not self._is_unknown(*ids)]
        if left:
            self.unexpected.append(f"{len(left)} requests are left over, such as {left[0]}")
        if self._stage.server.status()["queue"]:
            self.unexpected.append("exchanges that did not reach the server")

    def _is_unknown(self, connection, request):
        """A request that is left over would hold the call instead of refusing it."""
        call = self._clients[0].getData(connection, request)
        try:
            call.wait(5)
        except BusError as error:
            return error.code == 41
        except AssertionError:
            pass
        return False

    def end(self):
        """The daemon's own end, which must be silent and with status 0."""
        daemon = self._stage.daemon
        for client in self._clients:
            client.close()
        try:
            daemon.stop(20)
        except AssertionError as error:
            self.unexpected.append(f"the daemon's end: {error}")

    @property
    def idle(self):
        return self._idle
