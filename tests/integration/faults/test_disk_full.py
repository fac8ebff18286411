"""A full disk has no effect: the daemon writes nothing, wherever it could.

The daemon runs in a mount namespace where its storage, its home and /tmp are one full file system. Where
that cannot be made, only the second row is played: a process that may not write a byte to any file, and is
killed by SIGXFSZ when it tries.
"""

import os
import resource
import subprocess

import pytest

from harness import matrix, shared
from harness.daemon import Daemon
from harness.fault import Fault, rows, sending
from harness.moment import ExchangeOver

bus, server, platform, preinst, _, fresh, scene = matrix.FIXTURES

SIZE = 3_000_000
PATTERN = (bytes(range(251)) * (SIZE // 251 + 1))[:SIZE]
FULL_DISK = """
set -e
directory=$1; shift
mount -t tmpfs -o size=64k,mode=755 full "$directory/disk"
mkdir "$directory/disk/storage" "$directory/disk/home" "$directory/disk/tmp"
head -c 1M /dev/zero >"$directory/disk/filling" 2>/dev/null || true
exec "$@"
"""


def can_mount(directory):
    """Whether this user may mount a file system in a namespace of its own."""
    script = f'mount -t tmpfs none "{directory}"'
    command = ["unshare", "--mount", "sh", "-c", script]
    return subprocess.run(command, check=False, capture_output=True).returncode == 0


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    disk = directory / "disk"
    disk.mkdir()
    daemon = Daemon(directory, bus, platform.path, preinst)
    daemon.disk = None
    if can_mount(disk):
        daemon.disk = disk
        wrapper = ["unshare", "--mount", "sh", "-c", FULL_DISK, "sh", directory]
        daemon.program = [*wrapper, *daemon.program]
        daemon.arguments[-1] = disk / "storage"
        daemon.environment |= {"HOME": str(disk / "home"), "TMPDIR": str(disk / "tmp")}
    yield from shared.running(daemon)


def files_of(scene):
    """All that stands on the daemon's disk, as the daemon sees it."""
    root = f"/proc/{scene.daemon.pid}/root{scene.daemon.disk}"
    return {
        os.path.join(place, name) for place, _, names in os.walk(root) for name in names
    }, os.statvfs(root).f_bavail


def on_a_full_disk(scene):
    if scene.daemon.disk is None:
        pytest.skip("no file system can be mounted in a namespace here")
    before = files_of(scene)
    assert before[1] == 0
    sending(b"size: %d" % SIZE)(scene)
    assert scene.fetch() == [PATTERN]
    assert files_of(scene) == before


def without_a_byte(scene):
    """The limit of a file's size, 0, kills who writes to one."""
    pid = scene.daemon.pid
    before = resource.prlimit(pid, resource.RLIMIT_FSIZE)
    resource.prlimit(pid, resource.RLIMIT_FSIZE, (0, before[1]))
    sending(b"size: %d" % SIZE)(scene)
    assert scene.fetch() == [PATTERN]
    ExchangeOver().check(scene)
    resource.prlimit(pid, resource.RLIMIT_FSIZE, before)


@rows(
    Fault("full-disk", server={}, act=on_a_full_disk, sees=[ExchangeOver()]),
    Fault("no-byte-may-be-written", server={}, act=without_a_byte, sees=[ExchangeOver()]),
)
def test_disk_full(fault, scene):
    fault.play(scene)
