"""A Debian below a folder that is booted: its systemd runs in namespaces of its own, on a network of its own."""

import os
import pathlib
import shutil
import subprocess

from harness.observe import poll_for

from debian_packages import output_of

_BOOT = """
set -e
mount --make-rprivate /
mount --bind "$ROOT" "$ROOT"
cd "$ROOT"
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
  touch "dev/$device"
  mount --bind "/dev/$device" "dev/$device"
done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
mount -t tmpfs tmpfs dev/shm
touch dev/console
ip link set lo up
hostname booted
mkdir .old
export container=unshare
pivot_root . .old
cd /
umount -l /.old
exec /lib/systemd/systemd --system --show-status=false --log-target=journal-or-kmsg </dev/null >/dev/null 2>&1
"""


class BootedRoot:
    """Runs from boot() to halt(). Commands run inside, with the network of what was booted."""

    def __init__(self, root):
        self._root = root
        self._outer = None
        self._pid = None
        unified = pathlib.Path("/sys/fs/cgroup/unified")
        self._group = (unified if unified.is_dir() else unified.parent) / f"booted-{os.getpid()}"

    def boot(self):
        self._group.mkdir()
        script = f'echo $$ >"{self._group}/cgroup.procs"; exec "$@"'
        names = ["--cgroup", "--mount", "--uts", "--ipc", "--net", "--pid"]
        spaces = ["unshare", *names, "--fork", "--kill-child", "--mount-proc"]
        self._outer = subprocess.Popen(
            ["bash", "-c", script, "bash", *spaces, "bash", "-c", _BOOT],
            env={**os.environ, "ROOT": str(self._root.path)},
        )
        poll_for(self._find, 30, "the first process")
        poll_for(lambda: self.run("systemctl", "is-system-running").stdout.strip() in ("running", "degraded"), 60)
        return self

    def run(self, *command, **options):
        enter = ["nsenter", "-t", str(self._pid), "--cgroup", "--pid", "--mount", "--uts", "--ipc", "--net"]
        return subprocess.run(
            [*enter, "--root", "--wd", *command],
            **{"capture_output": True, "text": True, "timeout": 120, "check": False, **options},
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"},
        )

    def must(self, *command, **options):
        done = self.run(*command, **options)
        assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}\n{self.report()}"
        return done.stdout

    def in_its_network(self, *command):
        """The words that run a command of this machine in the network of what was booted."""
        return ["nsenter", "-t", str(self._pid), "--net", *command]

    def add_cable(self, name, there):
        """A cable to another network namespace, of the process `there`."""
        output_of(*self.in_its_network("ip", "link", "add", name, "type", "veth", "peer", "far", "netns", there))

    def report(self):
        return self.run("journalctl", "--no-pager", "-n", "60").stdout

    def halt(self):
        if self._outer is not None:
            self._outer.kill()  # the first process inside ends with it, and all others with that one
            self._outer.wait()
        poll_for(self._remove_group, 20, "the end of all processes")
        shutil.rmtree(self._root.path / ".old", ignore_errors=True)

    def _remove_group(self):
        """A group can be removed when its last process is gone for good."""
        folders = [each for each in self._group.rglob("*") if each.is_dir()]
        try:
            for folder in [*sorted(folders, reverse=True), self._group]:
                folder.rmdir()
        except OSError:
            return False
        return True

    def _find(self):
        children = pathlib.Path(f"/proc/{self._outer.pid}/task/{self._outer.pid}/children").read_text("ascii").split()
        for child in children:
            if pathlib.Path(f"/proc/{child}/comm").read_text("utf-8").strip() == "systemd":
                self._pid = int(child)
                return True
        return False
