"""The place of the attacks: a bus with the shipped policy and the system bus's limits, a server, a daemon."""

import resource
from pathlib import Path

from harness import waiting
from harness.agents import POLICY, SYSTEM_RULES
from harness.daemon import Daemon
from harness.keys import fill_preinst
from harness.platform_file import Platform
from harness.private_bus import PrivateBus
from harness.settings import ROOT
from harness.slp_server import TestServer

from .people import MEMBER_GROUP, Person
from .requester import small_request

KIND_ONE = [(1, True, False)]  # an attached request starts an exchange of its own
PLAIN = [(2, True, False)]  # an attached request waits for another's
_LIMITS = ROOT / "data" / "bus-limits.conf"


class Arena:
    """Everything of it ends with `close`, by process id."""

    def __init__(self, directory: Path, keys: Path, memory_limit: int, bus_limits: bool = False):
        directory.mkdir()
        directory.chmod(0o711)  # other users come to the bus's socket
        self._directory = directory
        self._keys = keys
        self._servers = 0
        self._limits = f"<include>{_LIMITS}</include>" if bus_limits else ""
        self.bus = self.server = self.platform = self.daemon = None
        try:
            self._open(memory_limit)
        except BaseException:
            self.close()
            raise

    @property
    def path(self) -> str:
        """Of the bus's socket."""
        return str(self._directory / "bus")

    @property
    def is_sound(self) -> bool:
        """Whether daemon and bus run."""
        return self.daemon.process.status is None and self.bus.process.status is None

    def set_network(self, connections) -> None:
        if connections != self.platform.connections:
            self.platform.write(connections=connections)

    def change_server(self) -> None:
        """A server without any wishes takes the place of the one that is there, which ends at once."""
        old, self.server = self.server, self._new_server()
        self.platform.write(proxy=("127.0.0.1", self.server.port))
        old.process.release()

    def close(self) -> None:
        if self.daemon is not None:
            self.daemon.abandon()
        for each in (self.server, self.bus):
            if each is not None:
                each.process.release()
        waiting.guards.clear()

    def _open(self, memory_limit: int) -> None:
        policy = self._directory / POLICY.name
        text = POLICY.read_text("utf-8")
        policy.write_text(text.replace('group="positioning"', f'group="{MEMBER_GROUP}"'), "utf-8")
        self.bus = PrivateBus(self._directory, policy=f"{SYSTEM_RULES}<include>{policy}</include>{self._limits}")
        self.server = self._new_server()
        self.platform = Platform(self._directory / "platform.conf")
        self.platform.write(connections=PLAIN, proxy=("127.0.0.1", self.server.port))
        preinst = fill_preinst(self._directory / "preinst", self._keys)
        self.daemon = Daemon(self._directory, self.bus, self.platform.path, preinst)
        self.daemon.start()
        _limit_memory(self.daemon.pid, memory_limit)
        self._warm_up()

    def _warm_up(self) -> None:
        """A daemon that has served keeps a little more than one that has just begun."""
        person = Person(None, small_request, self.path)
        try:
            outcome = person.wait(30)
        finally:
            person.end()
        if outcome is None or "error" in outcome:
            raise RuntimeError(f"the daemon does not serve: {outcome}")

    def _new_server(self) -> TestServer:
        self._servers += 1
        directory = self._directory / f"server{self._servers}"
        directory.mkdir()
        server = TestServer(directory, self._keys, "--keep", "10", "--keep-bytes", "0")
        _limit_memory(server.process.pid, 4 << 30)
        return server


def _limit_memory(pid: int, limit: int) -> None:
    resource.prlimit(pid, resource.RLIMIT_AS, (limit, limit))
