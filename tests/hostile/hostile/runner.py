"""Runs attacks one after the other and measures each."""

import random
import time
from pathlib import Path
from typing import Callable, Optional

from harness.observe import has_worker

from . import client_side
from .arena import Arena
from .attacks import ALL_THE_TIME, ALWAYS, BEHIND, BESIDE, WITH_LIMITS, Attack
from .judge import MIB, Row
from .people import Person, Users
from .probe import Probe
from .requester import small_request
from .scene import Scene
from .watch import Watch

_EVERY = 0.05  # seconds between two looks at the daemon
_HEAD_START = 0.3  # seconds before the honest request beside an attack
_SETTLED = 16 * MIB  # above idle
_SETTLING = 2.0  # seconds
_SHORTEST_LIMIT = 10.0  # seconds
_SHORT_PATIENCE = 1.5
_ATTACKERS_OWN = ("BusGone", "Late", "Refused", "Failed")  # what a daemon or a bus with bounds does to attackers


class Trouble(Exception):
    """The harness has failed, not the daemon."""


class Runner:
    """`short`: attacks are short, and honest requests are not waited for to the end of their limits."""

    def __init__(self, directory: Path, keys: Path, seed: int, seconds: float, ceiling: int, short: bool,
                 bus_limits: bool = False):
        # pylint: disable=too-many-arguments
        self.users = Users()
        self.idle_p99 = 0.0
        self._directory = directory
        self._keys = keys
        self._seed = seed
        self._seconds = seconds
        self._ceiling = ceiling
        self.is_short = short
        self._bus_limits = bus_limits
        self._arenas = 0
        self._arena: Optional[Arena] = None

    def close(self) -> None:
        if self._arena is not None:
            self._arena.close()
            self._arena = None

    def measure_idle(self) -> None:
        """What a Get takes while nobody else does anything."""
        probe = Probe(self.users.honest, self._fresh_arena().path)
        try:
            time.sleep(1 if self.is_short else 5)
            self.idle_p99 = probe.figures()["p99"]
            if not self.idle_p99:
                raise Trouble(f"the idle daemon does not answer: {probe.error()}")
        finally:
            probe.end()

    def run(self, attack: Attack) -> Row:
        """One attack, from an idle daemon to what it holds afterwards."""
        # Only small ids are guessed.
        arena = self._fresh_arena() if attack.needs_users or self._arena is None else self._arena
        scene = Scene(arena, self.users, random.Random(f"{self._seed} {attack.name}"), self._seconds, self._directory)
        course = _Course(attack, scene, Watch(arena.daemon.pid, self._ceiling), self._patience(attack), self._settling)
        try:
            row = course.run()
        finally:
            course.end()
        row.idle_p99 = self.idle_p99
        row.reads_judged = attack.reads_judged == ALWAYS or (attack.reads_judged == WITH_LIMITS and self._bus_limits)
        if attack.leaves_ids or not (arena.is_sound and course.left_nothing):
            self.close()
        return row

    def _patience(self, attack: Attack) -> float:
        """How long an honest request is waited for. A short run leaves long limits undecided."""
        decides = not self.is_short or attack.limit < _SHORTEST_LIMIT
        return attack.limit + 1 if decides else _SHORT_PATIENCE

    @property
    def _settling(self) -> float:
        """How long the daemon may take to give its memory back."""
        return 0.5 if self.is_short else _SETTLING

    def _fresh_arena(self) -> Arena:
        self.close()
        self._arenas += 1
        limit = 4 * self._ceiling + (1 << 30)  # of address space: the kernel's line behind the watch's
        self._arena = Arena(self._directory / f"arena{self._arenas}", self._keys, limit, self._bus_limits)
        return self._arena


class _Course:
    """The course of one attack."""

    def __init__(self, attack: Attack, scene: Scene, watch: Watch, patience: float, settling: float):
        # pylint: disable=too-many-arguments
        self._attack = attack
        self._scene = scene
        self._arena = scene.arena
        self._watch = watch
        self._patience = patience
        self._settling = settling
        self._row = Row(attack.name, attack.title)
        self._probe = Probe(scene.users.honest, scene.arena.path)
        self._honest: Optional[Person] = None
        self._honest_since = 0.0

    def run(self) -> Row:
        row, scene, watch = self._row, self._scene, self._watch
        self._attack_for_a_while()
        row.seconds = scene.elapsed
        row.processor = watch.processor_time
        errors = scene.errors()
        self._note_times()
        self._stop_attack()
        self._wait_for_honest()
        self._follow(lambda: not self._probe.waits, self._patience)
        row.longest = max(row.longest, self._probe.figures()["longest"])
        row.got = "; ".join([self._attack.told(scene.tally), *scene.harms(), *errors])
        row.foreign = scene.tally["foreign"]
        self._follow(lambda: self.left_nothing, self._settling)
        row.peak, row.left, row.alive = watch.peak_above_idle, watch.left_above_idle, watch.alive
        self._check(errors)
        return row

    def end(self) -> None:
        """Ends every process of it; harmless when they have ended."""
        self._scene.end()
        self._probe.end()
        if self._honest is not None:
            self._honest.end()

    @property
    def left_nothing(self) -> bool:
        """Whether the daemon's memory is what it was, and no client waits for an exchange, or an exchange for one."""
        if not self._watch.alive or self._watch.left_above_idle > _SETTLED:
            return False
        return self._scene.is_over and not has_worker(self._arena.daemon.pid)

    # -- the attack ----------------------------------------------------------------------------

    def _attack_for_a_while(self) -> None:
        attack, scene = self._attack, self._scene
        self._follow(lambda: False, 2 * _EVERY)  # the probe's own beginning
        scene.begun = time.monotonic()
        attack.begin(scene)
        if attack.honest == BEHIND:
            self._start_honest(client_side.honest_behind, scene.tally)
            self._follow(lambda: self._honest.result() is not None, self._patience)
        elif attack.honest == ALL_THE_TIME:
            self._follow(lambda: scene.is_over, 30)
        else:
            self._follow(self._over_ceiling, min(_HEAD_START, scene.seconds))
            if attack.honest == BESIDE:
                self._start_honest(small_request)
            self._follow(self._over_ceiling, scene.seconds - scene.elapsed)

    def _over_ceiling(self) -> bool:
        if self._watch.over_ceiling:
            self._row.stopped = "ceiling of memory"
        return self._watch.over_ceiling

    def _stop_attack(self) -> None:
        self._scene.end_attackers()
        if self._attack.by_server:
            self._arena.change_server()

    # -- the honest client ---------------------------------------------------------------------

    def _start_honest(self, function: Callable, *arguments) -> None:
        self._honest_since = time.monotonic()
        self._honest = Person(self._scene.users.honest, function, self._arena.path, *arguments)

    def _wait_for_honest(self) -> None:
        row = self._row
        if self._attack.honest == ALL_THE_TIME:
            return
        row.honest_limit = self._attack.limit
        if self._honest is None:
            self._start_honest(small_request)
        left = self._honest_since + self._patience - time.monotonic()
        self._follow(lambda: self._honest.result() is not None, left)
        row.honest_waited = time.monotonic() - self._honest_since
        result = self._honest.result() or {}
        row.honest = result.get("value")
        row.honest_error = result.get("error", "")

    def _note_times(self) -> None:
        figures = self._probe.figures()
        for name in ("longest", "p99", "bus_p99", "gets", "refused"):
            setattr(self._row, name, figures[name])

    # -- meanwhile -----------------------------------------------------------------------------

    def _follow(self, is_over: Callable[[], bool], seconds: float) -> None:
        """Watches the daemon until `is_over` or so many seconds have passed; kills it if nothing else helps."""
        deadline = time.monotonic() + seconds
        while self._watch.alive and not is_over() and time.monotonic() < deadline:
            time.sleep(_EVERY)
            self._watch.sample()
            if self._watch.out_of_hand:
                self._row.stopped = "killed: out of hand"
                self._arena.daemon.abandon()
                self._watch.alive = False

    def _check(self, errors: list[str]) -> None:
        """What the attackers failed with has to be the daemon's or the bus's doing."""
        strange = [error for error in errors if not error.startswith(_ATTACKERS_OWN)]
        if strange:
            raise Trouble(f"{self._attack.name}: {strange[0]}")
        if self._arena.bus.process.status is not None:
            raise Trouble(f"{self._attack.name}: the bus has ended")
