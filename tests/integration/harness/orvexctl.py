"""The command-line client as a child process, as a fixture: start = orvexctl.FIXTURE."""

import os
import signal
import subprocess
import threading
import time

import pytest
from gi.repository import GLib

from .settings import BUILD_DIR, patience

ORVEXCTL = BUILD_DIR / "bin" / "orvexctl"

# The test server sends the bytes of every request that is no fingerprint back.
ECHO = ["--element", "echo", "--type", "other", "--request-version", "1", "--content-type", "text/plain"]

# Prints the largest resident size of a command, in KiB, and ends with its status.
MEASURE = """
import resource, subprocess, sys
status = subprocess.call(sys.argv[1:])
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
sys.exit(status)
"""


class Run:
    """One orvexctl process; its output is collected while it runs."""

    def __init__(
        self,
        environment,
        arguments,
        stdin=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        measured=False,
    ):
        command = ["setpriv", "--pdeathsig", "KILL"]
        command += ["/usr/bin/python3", "-c", MEASURE] if measured else []
        command += [ORVEXCTL, *arguments]
        self.child = subprocess.Popen(
            list(map(str, command)),
            env=environment,
            stdin=stdin,
            stdout=subprocess.PIPE,
            stderr=stderr,
        )
        self._output = {}
        self._threads = [self._collect("stdout"), self._collect("stderr")]

    def _collect(self, name):
        self._output[name] = b""

        def read():
            stream = getattr(self.child, name)
            while stream and (data := os.read(stream.fileno(), 65536)):
                self._output[name] += data

        thread = threading.Thread(target=read)
        thread.start()
        return thread

    @property
    def stdout(self):
        return self._output["stdout"]

    @property
    def stderr(self):
        return self._output["stderr"].decode()

    def wait(self, seconds=30):
        """Waits for the end, with the test's own bus connections served, and returns the status."""
        try:
            end = time.monotonic() + patience(seconds)
            while self.child.poll() is None and time.monotonic() < end:
                while GLib.MainContext.default().iteration(False):
                    pass
                time.sleep(0.002)
            assert self.child.poll() is not None, f"orvexctl does not end\n{self.report()}"
        finally:
            self.kill()
        return self.child.returncode

    def kill(self):
        """Leaves nothing running."""
        if self.child.poll() is None:
            self.child.kill()
        self.child.wait()
        for thread in self._threads:
            thread.join()

    def interrupt(self):
        self.child.send_signal(signal.SIGINT)

    def lines(self):
        return self.stdout.decode().splitlines()

    def wait_for_lines(self, count):
        wait_for_output(lambda: self.stdout.count(b"\n") >= count, f"{count} lines", self)
        return self.lines()

    def report(self):
        return f"orvexctl: {self.child.returncode}\n{self.stdout!r}\n{self.stderr}"


def wait_for_output(predicate, what, run):
    """Waits for something that a reader thread brings."""
    end = time.monotonic() + patience(10)
    while not predicate():
        assert time.monotonic() < end, f"waited for {what}\n{run.report()}"
        time.sleep(0.002)


@pytest.fixture(name="start")
def _start(bus, reported):
    """Starts orvexctl with these words on the private bus."""
    runs = []

    def run(*arguments, address=bus.address, **options):
        environment = {
            **os.environ,
            "DBUS_SYSTEM_BUS_ADDRESS": address,
            "LC_ALL": "C.UTF-8",
            # What the address sanitizer keeps of freed memory would count as growth.
            "ASAN_OPTIONS": "quarantine_size_mb=1",
        }
        runs.append(reported("orvexctl", Run(environment, arguments, **options)))
        return runs[-1]

    yield run
    for each in runs:
        each.kill()


FIXTURE = _start
