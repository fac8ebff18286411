"""A Debian below a folder whose systemd runs as the first process of namespaces of its own."""

import os
import pathlib
import shlex
import signal
import subprocess

from harness.observe import poll_for

from debian_packages import output_of

CGROUPS = pathlib.Path("/sys/fs/cgroup")

# Everything that a boot loader and an initial file system would have done. The network has nothing but a loopback.
# As in every container, /sys is read-only: udev is not started then, and NetworkManager does not wait for it.
BOOT = """
set -e
mount --make-rprivate /
mount --bind {root} {root}
cd {root}
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do touch dev/$device; mount --bind /dev/$device dev/$device; done
mkdir -p dev/pts dev/shm .old
mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
mount -t tmpfs tmpfs dev/shm
touch dev/console
ip link set lo up
hostname booted
export container=unshare
pivot_root . .old
cd /
umount -l /.old
exec /lib/systemd/systemd --system --show-status=false --log-target=journal-or-kmsg
"""
NAMESPACES = ["cgroup", "pid", "mount", "uts", "ipc", "net"]


class Booted:
    """Runs from construction to stop()."""

    def __init__(self, root):
        self._root = root
        above = CGROUPS / "unified" if (CGROUPS / "unified").is_dir() else CGROUPS
        self._group = above / f"orvexd-boot-{os.getpid()}"
        self._group.mkdir()
        enter = f"echo $$ >{self._group}/cgroup.procs; exec " + shlex.join(
            ["unshare", *(f"--{name}" for name in NAMESPACES), "--fork", "--kill-child", "--mount-proc"]
            + ["bash", "-c", BOOT.format(root=shlex.quote(str(root)))]
        )
        with open(root.parent / "boot.log", "wb") as log:
            self._outer = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "bash", "-c", enter], stdin=subprocess.DEVNULL, stdout=log, stderr=log
            )
        try:
            self.pid = poll_for(self._first_process, 20, "the first process")
            poll_for(lambda: self.run("systemctl", "is-system-running").stdout.strip() in ("running", "degraded"), 60, "boot")
        except BaseException:
            self.stop()
            raise

    def _first_process(self):
        children = pathlib.Path(f"/proc/{self._outer.pid}/task/{self._outer.pid}/children").read_text("ascii").split()
        if children and pathlib.Path(f"/proc/{children[0]}/comm").read_text("utf-8").strip() == "systemd":
            return int(children[0])
        return None

    def command(self, *words):
        """The words that run a command inside."""
        enter = ["nsenter", "--target", str(self.pid), *(f"--{name}" for name in NAMESPACES), "--root", "--wd=/"]
        return [*enter, *map(str, words)]

    def run(self, *words, timeout=120, **options):
        return subprocess.run(
            self.command(*words),
            capture_output=True,
            text=True,
            timeout=timeout,
            check=False,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"},
            **options,
        )

    def must(self, *words, **options):
        done = self.run(*words, **options)
        assert done.returncode == 0, f"{words}: {done.returncode}\n{done.stdout}{done.stderr}"
        return done.stdout

    def unit(self, *names):
        """Properties of the daemon's unit."""
        text = self.must("systemctl", "show", "orvexd", *(f"--property={name}" for name in names))
        return dict(line.split("=", 1) for line in text.splitlines())

    def journal(self):
        """What the unit's programs have said, and what was said about them."""
        return self.must("journalctl", "--unit=orvexd", "--output=cat", "--no-pager")

    def in_its_network(self, *words):
        """The words that run a command of this machine in the network inside."""
        return ["nsenter", "--target", str(self.pid), "--net", *words]

    def add_cable(self, name, far, there):
        """A cable whose far end is in another network namespace, that of the process `there`."""
        peer = ["peer", far, "netns", there]
        output_of(*self.in_its_network("ip", "link", "add", name, "type", "veth", *peer))

    def stop(self):
        """All processes inside end with the first one."""
        inner = getattr(self, "pid", None)
        for pid in filter(None, (inner, self._outer.pid)):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self._outer.wait()

        def gone():
            for folder, _, _ in os.walk(self._group, topdown=False):
                try:
                    os.rmdir(folder)
                except OSError:
                    return False
            return True

        poll_for(gone, 20, "the end of the control group")
        (self._root / ".old").rmdir()
