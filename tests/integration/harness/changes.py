"""Changes of the platform file in a row of the fault matrix, and what clients are told of them."""

import contextlib
import ctypes
import dataclasses
import os
from typing import Any, Sequence

from .client import BusError
from .fault import Seen
from .observe import poll_for
from .open_watch import FileWatch

NONE, KIND_TWO, KIND_ONE, FLAGGED = 0, 1, 3, 5  # statuses

_libc = ctypes.CDLL(None, use_errno=True)
_AT_FDCWD, _RENAME_EXCHANGE = -100, 2


# -- what may become of the file -------------------------------------------------------------------


class Holds:
    """The file is replaced by one with these attributes (see harness.platform_file)."""

    def __init__(self, **attributes):
        self._attributes = attributes

    def __call__(self, platform):
        for name, value in self._attributes.items():
            setattr(platform, name, value)
        replace(platform.path, platform.text().encode())


class Says:
    """The file is replaced by these bytes."""

    def __init__(self, data):
        self._data = data

    def __call__(self, platform):
        replace(platform.path, self._data)


def replace(path, data):
    """Replaces the file, and returns when the daemon has looked into the new one."""
    aside = path.with_suffix(".aside")
    aside.write_bytes(data)
    with looked_at(aside):
        os.replace(aside, path)


def is_removed(platform):
    platform.path.unlink()


def is_emptied(platform):
    platform.path.write_bytes(b"")


def is_a_directory(platform):
    """The file becomes one in a single step: there is no moment without it."""
    aside = platform.path.with_suffix(".aside")
    aside.mkdir()
    with looked_at(aside):
        names = os.fsencode(aside), os.fsencode(platform.path)
        done = _libc.renameat2(_AT_FDCWD, names[0], _AT_FDCWD, names[1], _RENAME_EXCHANGE)
        assert done == 0, os.strerror(ctypes.get_errno())
    aside.unlink()


@contextlib.contextmanager
def looked_at(path):
    """Returns when the file that has this name at the beginning has been opened."""
    watch = FileWatch(path)
    try:
        yield
        poll_for(watch.was_opened, 10, f"a look into {path}")
    finally:
        watch.close()


# -- what is seen ----------------------------------------------------------------------------------


@dataclasses.dataclass
class Changed(Seen):
    """The file changes, and every client is told of these statuses."""

    how: Any
    statuses: Sequence[int] = ()

    def check(self, scene):
        self.how(scene.platform)
        for client in scene.clients:
            for status in self.statuses:
                client.wait_for_signal("connectionStatusChanged", (status,))
            client.settle()
            assert announced(client) == []
            assert not self.statuses or client.status() == self.statuses[-1]


@dataclasses.dataclass
class Refuses(Seen):
    """A further request is refused with this code."""

    code: int
    attached: bool = False

    def check(self, scene):
        client = scene.clients[0]
        create = client.attach if self.attached else client.prepare
        try:
            create(scene.connect(client))
        except BusError as error:
            assert error.code == self.code, error
        else:
            raise AssertionError("the request was accepted")


class NothingElse(Seen):
    """No signal is left that nobody expected."""

    def check(self, scene):
        for client in scene.clients:
            client.settle()
            assert client.signals == []


def announced(client):
    """The statuses that the client was told of and that nobody has expected yet."""
    return [each.arguments[0] for each in client.signals if each.name == "connectionStatusChanged"]
