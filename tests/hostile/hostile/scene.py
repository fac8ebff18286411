"""What an attack is given: the arena, the users, dice, and processes that are ended with it."""

import random
import time
from pathlib import Path
from typing import Callable, Optional

from .arena import Arena
from .people import Person, Tally, Users


class Scene:
    """One attack's. `tally` is what its processes count together."""

    def __init__(self, arena: Arena, users: Users, dice: random.Random, seconds: float, directory: Path):
        self.arena = arena
        self.users = users
        self.dice = dice
        self.seconds = seconds
        self.directory = directory  # for files that the server reads
        self.tally = Tally()
        self.begun = time.monotonic()
        self._attackers: list[Person] = []
        self._clients: list[Person] = []

    @property
    def seed(self) -> int:
        """For a process of its own."""
        return self.dice.randrange(1 << 32)

    @property
    def elapsed(self) -> float:
        return time.monotonic() - self.begun

    def attacker(self, function: Callable, *arguments) -> Person:
        """A process under the attacker's user; it is given the bus and the tally first."""
        return self._start(self._attackers, self.users.attacker, function, *arguments)

    def client(self, function: Callable, *arguments) -> Person:
        """The same for one that is attacked, under the honest user."""
        return self._start(self._clients, self.users.honest, function, *arguments)

    def serve(self, behaviour: dict) -> None:
        """What the server does from now on."""
        self.arena.server.default(behaviour)

    @property
    def is_over(self) -> bool:
        """Whether all its processes have come to their end, or have been brought to it."""
        return all(person.has_ended for person in self._attackers + self._clients)

    def errors(self) -> list[str]:
        """What its processes failed with."""
        results = [person.result() for person in self._attackers + self._clients]
        return [result["error"] for result in results if result is not None and "error" in result]

    def harms(self) -> list[str]:
        """What clients that are attacked have noticed."""
        results = [person.result() for person in self._clients]
        return [harm for result in results if result is not None for harm in result.get("value") or []]

    def end_attackers(self) -> None:
        """Clients that are attacked are told to end."""
        self.tally.add("stop")
        for person in self._attackers:
            person.end()

    def end(self) -> None:
        for person in self._attackers + self._clients:
            person.end()

    def _start(self, people: list[Person], user: Optional[int], function: Callable, *arguments) -> Person:
        people.append(Person(user, function, self.arena.path, self.tally, *arguments))
        return people[-1]
