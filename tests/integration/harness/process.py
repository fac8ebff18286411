"""A child process whose output is kept and which never outlives the tests."""

import os
import select
import signal
import subprocess

from .settings import patience


class Process:
    """Runs one program. Its output goes to files: no pipe can fill up.

    `stdout` is a file descriptor that takes the place of the standard output's file.
    """

    def __init__(self, arguments, directory, name, environment=None, pass_fds=(), stdout=None):
        self.name = name
        self._output = {}
        files = {}
        for stream in ("stdout", "stderr"):
            self._output[stream] = directory / f"{name}.{stream}"
            files[stream] = open(self._output[stream], "wb")
        try:
            # The kernel kills the child when the tests themselves are killed.
            self._child = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *map(str, arguments)],
                stdin=subprocess.DEVNULL,
                env=environment,
                cwd=directory,
                pass_fds=pass_fds,
                stdout=files["stdout"] if stdout is None else stdout,
                stderr=files["stderr"],
            )
        finally:
            for file in files.values():
                file.close()
        self.pid = self._child.pid
        self.pidfd = os.pidfd_open(self.pid)

    @property
    def status(self):
        """Exit status, minus the signal number, or None while it runs."""
        return self._child.poll()

    @property
    def stdout(self):
        return self._output["stdout"].read_text("utf-8", "replace")

    @property
    def stderr(self):
        return self._output["stderr"].read_text("utf-8", "replace")

    def wait(self, seconds=10):
        """Waits for the end and returns the status."""
        if self.status is None and not _readable(self.pidfd, patience(seconds)):
            late = f"did not end in {patience(seconds)} s"
            raise AssertionError(f"{self.name} (pid {self.pid}) {late}")
        return self._child.wait()

    def send_signal(self, number):
        if self.status is None:
            signal.pidfd_send_signal(self.pidfd, number)

    def stop(self, seconds=10):
        """Ends it with SIGTERM and returns the status; kills what does not obey, and fails."""
        self.send_signal(signal.SIGTERM)
        try:
            return self.wait(seconds)
        finally:
            self.release()

    def release(self):
        """Makes sure that nothing is left, in whatever state."""
        self.send_signal(signal.SIGKILL)
        self._child.wait()
        if self.pidfd >= 0:
            os.close(self.pidfd)
            self.pidfd = -1

    def report(self):
        """What to show when a test has failed."""
        state = "running" if self.status is None else f"status {self.status}"
        return f"{self.name}: pid {self.pid}, {state}\n{self.stdout}{self.stderr}"


def read_line(fd, seconds):
    """Reads one line from a pipe that a child writes when it is ready."""
    line = b""
    while not line.endswith(b"\n"):
        if not _readable(fd, patience(seconds)):
            raise AssertionError(f"no line within {patience(seconds)} s, only {line!r}")
        data = os.read(fd, 4096)
        if not data:
            raise AssertionError(f"the line ended early: {line!r}")
        line += data
    return line.decode()


def _readable(fd, seconds):
    poll = select.poll()
    poll.register(fd, select.POLLIN)
    return bool(poll.poll(seconds * 1000))
