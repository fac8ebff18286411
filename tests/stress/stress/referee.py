"""Runs the clients against the daemon, and judges."""

import collections
import random
import select
import signal
import time

from harness.client import Client
from harness.observe import poll_for, wait_until_idle
from harness.settings import patience

from .actor import Actor
from .mood import Server
from .request import EXPLANATION_SECONDS, Violation
from .world import World

ACTORS = 6
_TICK_SECONDS = 1
_PROGRESS_SECONDS = 10
_DRAIN_SECONDS = 100  # an exchange takes at most the transfer's time-out of 60 s
_MOST_FINDINGS = 5
_MOST_LOG = 20_000  # characters shown


class Referee:
    """One run. `findings` are the violations, in words."""

    def __init__(self, stage, seed, say, budget=0):
        self.findings = []
        self.tally = collections.Counter()
        self._stage = stage
        self._seed = seed
        self._budget = budget  # bytes of the daemon's memory; 0 when there is plenty
        self._say = say
        self._begun = time.monotonic()
        self._server = Server(stage.server, self._dice("server"), is_slow=budget > 0)
        self._world = World(stage.platform, self._dice("platform"), self.tally)
        self._actors = []
        self._idle = None

    def _dice(self, who):
        return random.Random(f"{self._seed} {who}")

    def run(self, seconds):
        """Everything from the first clean exchange to the daemon's end."""
        stages = (self._warm_up, lambda: self._rage(seconds), self._drain, self._rest, self._end)
        for stage in stages:
            try:
                stage()
            except AssertionError as violation:
                self._found(str(violation))
                self._end_anyhow()
                break
        self._read_log()

    def _found(self, text):
        seconds = time.monotonic() - self._begun
        self.findings.append(f"after {seconds:.1f} s: {text}")

    # -- stages --------------------------------------------------------------------------------

    def _warm_up(self):
        """What the daemon holds when it is idle, once it has done all that it does only once."""
        self._exchange_cleanly()
        self._idle = self._stage.daemon.resources()

    def _exchange_cleanly(self):
        client = Client(self._stage.bus.address)
        data = b"clean " * 1000
        if client.exchange(data, kind="other") != [data]:
            raise Violation("a clean exchange gave wrong bytes")
        client.close()
        wait_until_idle(self._stage.daemon.pid, 20)

    def _rage(self, seconds):
        self._server.provide()
        address = self._stage.bus.address
        for number in range(ACTORS):
            name = f"client{number}"
            actor = Actor(name, address, self._dice(name), self._world, self.tally, self._budget)
            self._actors.append(actor)
        end = time.monotonic() + seconds
        self._loop(lambda: time.monotonic() >= end)

    def _drain(self):
        """All that can still happen does; then every request must have come to its end."""
        self._server.calm_down()
        self._world.calm_down()
        for actor in self._actors:
            actor.draining = True
        deadline = time.monotonic() + patience(_DRAIN_SECONDS)
        self._loop(
            lambda: not any(a.requests for a in self._actors) or time.monotonic() > deadline
        )
        for request in [r for a in self._actors for r in a.requests.values()]:
            self._found(f"no end of a request\n  {request.tell()}")
        for actor in self._actors:
            actor.close_all()
        self._await_answers()
        self._server.collect()
        self._explain(0)
        self._explain_truncated()
        self._check_ids()

    def _await_answers(self):
        """Only getData may stay without one."""
        deadline = time.monotonic() + patience(20)
        self._loop(
            lambda: not any(a.unanswered() for a in self._actors) or time.monotonic() > deadline
        )
        for actor in self._actors:
            for what in actor.unanswered():
                self._found(f"{actor.name}: no answer to {what}")

    def _rest(self):
        """Nothing is left, and the daemon is as good as new."""
        for actor in self._actors:
            actor.close()
        daemon = self._stage.daemon
        wait_until_idle(daemon.pid, 20)
        self._exchange_cleanly()
        poll_for(
            lambda: daemon.resources() == self._idle,
            20,
            lambda: f"{self._idle} when idle, there are {daemon.resources()}",
        )

    def _end(self):
        """By a signal or by a call, as the seed says."""
        daemon = self._stage.daemon
        self.tally.update(daemon.ledger.events())
        if self._dice("end").random() < 0.5:
            daemon.send_signal(signal.SIGTERM)
        else:
            daemon.expect_end()
            client = Client(self._stage.bus.address)
            client.quit()
        status = daemon.wait(30)
        if status != 0:
            raise Violation(f"the daemon ended with status {status}")

    def _end_anyhow(self):
        daemon = self._stage.daemon
        daemon.send_signal(signal.SIGTERM)
        try:
            daemon.wait(100)
        except AssertionError:
            self._found("the daemon did not end on SIGTERM")

    def _read_log(self):
        process = self._stage.daemon.process
        log = process.stdout + process.stderr
        if log:
            self._found(f"the daemon printed\n{log[:_MOST_LOG]}")

    # -- the loop ------------------------------------------------------------------------------

    def _loop(self, over):
        tick = progress = time.monotonic()
        while not over():
            if len(self.findings) >= _MOST_FINDINGS:
                raise Violation("so many findings: given up")
            self._serve(self._nap(tick))
            now = time.monotonic()
            for each in (*self._actors, self._world):
                if each.next_step <= now:
                    self._guarded(each.step)
            if tick <= now:
                tick = now + _TICK_SECONDS
                self._look_around()
            if progress <= now:
                progress = now + _PROGRESS_SECONDS
                self._report_progress()

    def _nap(self, tick):
        """Milliseconds until somebody has something to do."""
        times = [actor.next_step for actor in self._actors] + [self._world.next_step, tick]
        return max(0, min(times) - time.monotonic()) * 1000

    def _serve(self, milliseconds):
        by_number = {actor.link.fileno(): actor for actor in self._actors}
        poll = select.poll()
        for number in by_number:
            poll.register(number, select.POLLIN)
        for number, _ in poll.poll(milliseconds):
            self._guarded(by_number[number].read)

    def _guarded(self, doing):
        try:
            doing()
        except Violation as violation:
            self._found(str(violation))

    def _look_around(self):
        process = self._stage.daemon.process
        if process.status is not None:
            raise Violation(f"the daemon has ended with status {process.status}")
        if process.stderr:
            raise Violation("the daemon has something to say")
        if not any(actor.draining for actor in self._actors):
            self._server.provide()
        self._server.collect()
        self._explain()

    # -- judgement -----------------------------------------------------------------------------

    def _explain(self, seconds=EXPLANATION_SECONDS):
        """A request may vanish in silence only with an answer that a later failure sweeps away."""
        for actor in self._actors:
            for request in actor.unexplained(seconds):
                failed = any(
                    abs(when - request.gone_since) < patience(10) for when in actor.failure_times
                )
                request.end("swept away with its answer")
                self._server.answered[request.trace()] -= 1
                if not failed or self._server.answered[request.trace()] < 0:
                    self._found(f"a request was lost\n  {request.tell()}")
            recent = time.monotonic() - patience(30)
            actor.failure_times = [when for when in actor.failure_times if when > recent]

    def _explain_truncated(self):
        """An answer may lack its end only when the server broke off the exchange."""
        for request in [r for a in self._actors for r in a.past.values() if r.truncated]:
            self._server.broken[request.trace()] -= 1
            if self._server.broken[request.trace()] < 0:
                self._found(f"an answer lacks its end\n  {request.tell()}")

    def _check_ids(self):
        """Ids are handed out in order: those that nobody was told must be explained, too."""
        strangers = self._world.named_connections - self._world.connection_ids
        if strangers:
            self._found(f"signals named connections that never existed: {sorted(strangers)}")
        ids = self._world.request_ids
        unknown = max(ids, default=1) - 1 - len(ids)  # number 1 was the first clean exchange's
        nameless = sum(c.nameless for a in self._actors for c in a.connections.values())
        if unknown > nameless:
            self._found(f"{unknown} request ids belong to nobody, {nameless} may")

    # -- words ---------------------------------------------------------------------------------

    def outcomes(self):
        """How many requests ended how."""
        requests = [r for a in self._actors for r in (*a.past.values(), *a.requests.values())]
        return collections.Counter(request.outcome or "open" for request in requests)

    def _report_progress(self):
        seconds = time.monotonic() - self._begun
        ended = sum(len(actor.past) for actor in self._actors)
        self._say(
            f"{seconds:6.0f} s  {self._server.exchanges:6} exchanges  {self.tally['requests']:6}"
            f" requests, {ended:6} ended  {self.tally['network changes']:5} network changes"
            f"  {len(self.findings)} findings"
        )

    def summary(self):
        """Lines that tell what has happened."""
        yield f"{self._server.exchanges} exchanges: {_listed(self._server.by_mood)}"
        yield f"{self.tally.pop('requests', 0)} requests: {_listed(self.outcomes())}"
        yield _listed(self.tally)


def _listed(counter):
    return ", ".join(f"{what} {count}" for what, count in sorted(counter.items()))
