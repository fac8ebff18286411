"""Everything that a daemon needs around it, for programs that are no tests of pytest."""

import os
import pathlib
import shutil
import sys
import tempfile

from . import waiting
from .daemon import Daemon
from .keys import fill_preinst, make_keys
from .platform_file import Platform
from .private_bus import PrivateBus
from .slp_server import TestServer


def become_root():
    """The daemon wants root: starts the program anew in a user namespace, unless this is root."""
    if os.geteuid() != 0:
        os.execvp("unshare", ["unshare", "--user", "--map-root-user", sys.executable, *sys.argv])


def say(text):
    """Prints a line at once, also into a pipe."""
    print(text, flush=True)


class Stage:
    """A private bus, a test server, a platform file and a daemon in a directory of their own.

    Left by an exception or after `keep()`, the directory stays for whoever looks for the reason.
    """

    def __init__(self, name):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix=f"orvexd-{name}-"))
        self._keeps = False
        self.bus = self.server = self.platform = self.daemon = None

    def __enter__(self):
        try:
            self._set_up()
        except BaseException:
            self._take_down()
            raise
        return self

    def __exit__(self, kind, *_):
        self._take_down()
        if kind is None and not self._keeps:
            shutil.rmtree(self.directory)

    def keep(self):
        """The directory is not removed at the end."""
        self._keeps = True

    def _set_up(self):
        keys = self.directory / "keys"
        make_keys(keys)
        preinst = fill_preinst(self.directory / "preinst", keys)
        # Calls that are never answered count as long as their client is on the bus.
        self.bus = PrivateBus(self.directory, limits={"max_replies_per_connection": 1 << 20})
        self.server = TestServer(self.directory, keys, "--keep", "2000", "--keep-bytes", "0")
        self.platform = Platform(self.directory / "platform.conf")
        self.platform.write(proxy=("127.0.0.1", self.server.port))
        self.daemon = Daemon(self.directory, self.bus, self.platform.path, preinst)
        self.daemon.start()

    def _take_down(self):
        if self.daemon is not None:
            self.daemon.abandon()
        for each in (self.server, self.bus):
            if each is not None:
                each.process.release()
        waiting.guards.clear()
