"""The processes of a measurement: each is started, spoken to in lines, and ended by whoever made it."""

import json
import os
import subprocess
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
NAME = "com.kelvra.orvexd"

DEVICE = {
    "KELVRA_UNIQUE_DEVICE_ID": "bench",
    "KELVRA_IMEI_FRAGMENT": "237518",
    "KELVRA_DEVICE_MANUFACTURER": "bench",
    "KELVRA_DEVICE_FIRMWARE_VERSION": "1",
    "KELVRA_DEVICE_TERMINAL_MODEL": "bench",
}

# Kind 2: attached requests wait for a prepared one instead of starting exchanges themselves.
PLATFORM_CONFIG = """[System]
PlatformId=bench-linux
Imei=490154203237518
Imsi=262011234567890
Mmf=fw-1.0

[Connections]
List=wifi0;

[Connection wifi0]
Kind=2
Active=true

[Proxy]
Host=127.0.0.1
Port={port}
"""


class Child:
    """A process with pipes; `ask` sends a line and returns the line that answers it."""

    def __init__(self, command, environment=None, wrapper=(), stderr=None):
        self.process = subprocess.Popen(
            [str(word) for word in [*wrapper, *command]],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=stderr,
            text=True,
            env={**os.environ, **(environment or {})},
        )
        self.name = Path(str(command[0])).name

    @property
    def pid(self):
        return self.process.pid

    def tell(self, *words):
        self.process.stdin.write(" ".join(str(word) for word in words) + "\n")
        self.process.stdin.flush()

    def line(self):
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"{self.name} has ended with status {self.process.wait()}")
        return line.strip()

    def ask(self, *words):
        self.tell(*words)
        return self.line()

    def stop(self):
        """SIGTERM to those that serve, the end of their input to the others."""
        if self.process.poll() is None:
            self.process.stdin.close()
            self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Client(Child):
    """bench_client on a bus."""

    def __init__(self, stage):
        super().__init__([stage.bin / "bench_client"], stage.environment)

    def command(self, *words):
        return json.loads(self.ask(*words))

    def exchange(self, upload, answer, *, piece=65536, chunk=65536, per_second=0, late=False):
        times = self.command(
            "exchange", upload, piece, per_second, chunk, answer, int(late)
        )
        if times["received"] != answer:
            raise RuntimeError(f"{times['received']} bytes received instead of {answer}")
        return times


class Server(Child):
    """bench_server with the keys of a directory."""

    def __init__(self, binaries, keys):
        super().__init__([binaries / "bench_server", keys])
        self.port = int(self.line())

    def answer(self, size, per_second=0):
        self._expect_ok("answer", size, per_second)

    def report(self, on):
        self._expect_ok("report", int(on))

    def _expect_ok(self, *words):
        answer = self.ask(*words)
        if answer != "ok":
            raise RuntimeError(f"bench_server answered {answer!r}")

    def counts(self):
        """Of the next exchange that ends."""
        return json.loads(self.line())


class FloorPost(Child):
    """floor_post through the server's proxy."""

    def __init__(self, stage, wrapper=(), environment=None):
        super().__init__(
            [stage.bin / "floor_post", stage.keys, f"127.0.0.1:{stage.server.port}"],
            environment,
            wrapper,
        )

    def post(self, payload, count=1, pause=0, per_second=0):
        """Seconds of each transfer, which keeps to so many bytes a second unless 0."""
        return [whole for whole, _ in self.times(payload, count, pause, per_second)]

    def times(self, payload, count=1, pause=0, per_second=0):
        """Seconds of each transfer, and of its TLS handshake."""
        pairs = [pair.split("/") for pair in self.ask(payload, count, pause, per_second).split()]
        return [(int(whole) / 1e9, int(handshake) / 1e9) for whole, handshake in pairs]


class Bus:
    """A dbus-daemon of type system on a socket of its own."""

    def __init__(self, directory):
        # In a container it complains that it may not open more files.
        with open(directory / "bus.log", "w", encoding="utf-8") as log:
            self.child = Child([TOP / "scripts/lib/private-bus", directory], stderr=log)
        self.address = self.child.line()

    @property
    def pid(self):
        return self.child.pid

    def stop(self):
        self.child.stop()


class Stage:
    """A bus with one daemon on it; the server is shared by all stages."""

    def __init__(self, binaries, keys, server, directory):
        self.bin = binaries
        self.keys = keys
        self.server = server
        self.directory = directory
        directory.mkdir(parents=True)
        self.bus = Bus(directory)
        platform = directory / "platform.conf"
        platform.write_text(PLATFORM_CONFIG.format(port=server.port), "utf-8")
        self.environment = {
            **DEVICE,
            "DBUS_SYSTEM_BUS_ADDRESS": self.bus.address,
            "TRILBA_PLATFORM_CONF": str(platform),
            "G_MESSAGES_DEBUG": "",
        }
        self._children = []

    def orvexd_command(self, daemon=None):
        return [
            daemon or self.bin / "orvexd",
            "--preinst-dir",
            self.keys,
            "--storage-dir",
            self.directory,
        ]

    def floor_command(self, answer=0, bare=False):
        return [self.bin / "floor_daemon", "--answer", answer, *(["--bare"] if bare else [])]

    def start(self, command, wrapper=(), environment=None):
        """Starts a daemon and returns when it owns the name."""
        child = Child(command, {**self.environment, **(environment or {})}, wrapper)
        self._children.append(child)
        self._await_name(child)
        return child

    def client(self):
        client = Client(self)
        self._children.append(client)
        return client

    def end(self, *children):
        for child in children:
            self._children.remove(child)
            child.stop()

    def floor_post(self):
        post = FloorPost(self)
        self._children.append(post)
        return post

    def match_rules(self):
        """How many rules the clients of the bus have on it, as the bus counts them."""
        command = ["dbus-send", f"--bus={self.bus.address}", "--print-reply", "--dest=org.freedesktop.DBus"]
        command += ["/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats.GetAllMatchRules"]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        return done.stdout.count("type=")

    def _await_name(self, child):
        address = {"DBUS_SYSTEM_BUS_ADDRESS": self.bus.address}
        subprocess.run(
            ["/usr/bin/python3", TOP / "scripts/lib/wait-for-name", NAME, str(child.pid)],
            check=True,
            env={**os.environ, **address},
        )

    def stop(self):
        for child in reversed(self._children):
            child.stop()
        self._children.clear()
        self.bus.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


class Workshop:
    """Where stages are made: the built programs, the keys, the server, a directory for sockets."""

    def __init__(self, binaries, directory):
        self.bin = binaries
        self.directory = directory
        self.keys = directory / "keys"
        subprocess.run(
            [TOP / "scripts/make-test-keys", "--algorithm", "ec", "--out", self.keys],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        self.server = Server(binaries, self.keys)
        self._stages = 0

    def stage(self):
        self._stages += 1
        return Stage(self.bin, self.keys, self.server, self.directory / f"stage{self._stages}")

    def stop(self):
        self.server.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def settle():
    """The daemon hears of an exchange's end 50 ms later; nothing else may start before."""
    time.sleep(0.06)
