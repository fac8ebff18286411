"""The platform under the daemon: network connections that come and go, permission likewise."""

import time

from .request import require

_ACTIVE_KIND_ONE = [(1, True, False)]
_LISTS = (  # and how often
    (_ACTIVE_KIND_ONE, 5),
    ([(2, True, False)], 4),
    ([(2, True, True)], 1),
    ([(2, True, False), (1, True, False)], 1),
    ([(1, True, True)], 1),
    ([(7, True, False)], 0.5),
    ([(2, False, True)], 0.3),
    ([], 0.4),
)


class World:
    """Replaces the platform file at random. Remembers when positioning was permitted."""

    def __init__(self, platform, dice, tally):
        self.next_step = time.monotonic() + 1
        self.request_ids = set()  # of all clients
        self.connection_ids = set()
        self.named_connections = set()  # by signals
        self._platform = platform
        self._dice = dice
        self._tally = tally
        self._forbidden = []  # [from, to] pairs, also the one that has no end yet

    def step(self):
        """One change, sometimes many in a row."""
        dice = self._dice
        self.next_step = time.monotonic() + dice.uniform(0.1, 1.5)
        for _ in range(20 if dice.random() < 0.04 else 1):
            self._change_network()
        if self._is_forbidden() or dice.random() < 0.06:
            self._change_permission(self._is_forbidden())
            self.next_step = time.monotonic() + dice.uniform(0.05, 0.3)

    def calm_down(self):
        """A connection that everybody may use, and permission."""
        self._platform.connections = _ACTIVE_KIND_ONE
        self._change_permission(True)
        self.next_step = float("inf")

    def require_permission(self, wanted, since):
        """Whether it was given (or not) at some moment between `since` and now."""
        now = time.monotonic()
        if wanted:
            possible = not any(a < since and now < b for a, b in self._forbidden)
            require(possible, "a request was created while positioning was not permitted")
        else:
            possible = any(a < now and since < b for a, b in self._forbidden)
            require(possible, "a request was refused although positioning was permitted")

    def _is_forbidden(self):
        return bool(self._forbidden) and self._forbidden[-1][1] == float("inf")

    def _change_network(self):
        lists = [each for each, _ in _LISTS]
        before = self._platform.connections
        choice = self._dice.choices(lists, [weight for _, weight in _LISTS])[0]
        self._platform.write(connections=choice)
        self._tally["network changes" if choice != before else "unchanged platform files"] += 1

    def _change_permission(self, permitted):
        # The period that may be forbidden encloses the moment of the change.
        if not permitted:
            self._forbidden.append([time.monotonic(), float("inf")])
        self._platform.write(positioning=permitted)
        if permitted and self._is_forbidden():
            self._forbidden[-1][1] = time.monotonic()
        self._tally["permission changes"] += 1
