"""orvexd as a child process on a private bus."""

import os
import signal

from gi.repository import Gio, GLib

from . import waiting
from .bus_connection import connect
from .ledger import Ledger
from .process import Process
from .settings import BUS_NAME, DAEMON, OBJECT_PATH, ROOT

DEVICE = {
    "KELVRA_UNIQUE_DEVICE_ID": "d41d8cd98f00b204",
    "KELVRA_IMEI_FRAGMENT": "3751",
    "KELVRA_DEVICE_MANUFACTURER": "Kelvra",
    "KELVRA_DEVICE_FIRMWARE_VERSION": "fw-1.0",
    "KELVRA_DEVICE_TERMINAL_MODEL": "linux",
}

CRASHES = {-number for number in (signal.SIGABRT, signal.SIGBUS, signal.SIGILL, signal.SIGSEGV, signal.SIGTRAP)}


class DaemonDefect(AssertionError):
    """What no daemon may do, whatever the test is about."""


def _sanitizer_options():
    """A report of any sanitizer ends the daemon with a status that no test expects."""

    def options(tool, *more):
        values = ["exitcode=66", "print_stacktrace=1", *more]
        suppressions = ROOT / "tests" / f"{tool}.supp"
        if suppressions.exists():
            values.append(f"suppressions={suppressions}")
        return ":".join(values)

    # GLib's slices hand memory from thread to thread inside; tests/tsan.supp counts on malloc.
    plain_memory = {"G_SLICE": "always-malloc"} if b"libtsan.so" in DAEMON.read_bytes() else {}
    return {
        **plain_memory,
        "ASAN_OPTIONS": options(
            "asan",
            "detect_leaks=1",
            "strict_string_checks=1",
            "verify_asan_link_order=0",  # the tests preload libraries that have no sanitizer
        ),
        "LSAN_OPTIONS": options("lsan", "print_suppressions=0"),
        "UBSAN_OPTIONS": options("ubsan", "halt_on_error=1"),
        "TSAN_OPTIONS": options(
            "tsan", "detect_deadlocks=1", "second_deadlock_stack=1", "history_size=7"
        ),
    }


class Daemon:
    """One daemon process. `start()` returns when it serves; `stop()` checks its end."""

    def __init__(self, directory, bus, platform_path, preinst):
        self.program = [DAEMON]  # a test may put a wrapper in front
        self.arguments = ["--preinst-dir", preinst, "--storage-dir", directory / "storage"]
        self.environment = {
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "LC_ALL": "C.UTF-8",
            "HOME": str(directory),
            "G_DEBUG": "fatal-criticals",
            "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
            "TRILBA_PLATFORM_CONF": str(platform_path),
            **DEVICE,
            **_sanitizer_options(),
        }
        self.process = None
        self.ledger = Ledger(self.environment, directory)
        self.warmed_up = False  # whether it has made what it keeps for ever
        self._directory = directory
        self._watch = None
        self._runs = 0
        self._end_is_wanted = False

    def start(self):
        """Starts it and waits until it owns the bus name and its main loop runs."""
        watch = NameWatch(self.environment["DBUS_SYSTEM_BUS_ADDRESS"])
        try:
            self.launch()
            self.guard()
            waiting.wait_for(lambda: watch.owner, 20, f"the name {BUS_NAME}")
            # It takes the name first; only the loop's answer tells that it minds signals.
            waiting.wait_for(watch.asked_for_answer(), 20, "the daemon's first answer")
        except AssertionError:
            self.abandon()
            raise
        finally:
            watch.close()
        return self

    def guard(self):
        """From now on every wait fails at once when it has ended."""
        self._end_is_wanted = False
        if self._guard not in waiting.guards:
            waiting.guards.append(self._guard)

    def launch(self):
        """Starts it and waits for nothing, for starts that are meant to fail."""
        assert DAEMON.exists(), f"{DAEMON} is not built"
        self._runs += 1
        self._end_is_wanted = False
        self.warmed_up = False
        self.ledger.open()
        name = "orvexd" if self._runs == 1 else f"orvexd-{self._runs}"
        self.process = Process(
            [*self.program, *self.arguments], self._directory, name, environment=self.environment
        )
        # Its end is an event of the main context, so that no wait misses it.
        self._watch = GLib.unix_fd_add_full(
            GLib.PRIORITY_DEFAULT, self.process.pidfd, GLib.IOCondition.IN, lambda *_: False
        )
        return self

    @property
    def pid(self):
        return self.process.pid

    def send_signal(self, number):
        self.expect_end()
        self.process.send_signal(number)

    def expect_end(self):
        """From now on its end is what the test wants."""
        self._end_is_wanted = True
        if self._guard in waiting.guards:
            waiting.guards.remove(self._guard)

    def wait(self, seconds=10):
        """Waits for its end, with the bus connections of the clients served meanwhile."""
        self.expect_end()
        waiting.wait_for(lambda: self.process.status is not None, seconds, "the daemon's end")
        return self.process.status

    def stop(self, seconds=10):
        """SIGTERM; status 0 and not a word of output. Harmless after an end that the test wanted."""
        if self.process is None or self.process.pidfd < 0:
            return
        wanted = self._end_is_wanted
        self.expect_end()
        ran = self.process.status is None
        status = self.process.stop(seconds)
        self._unwatch()
        if ran and status != 0:
            raise DaemonDefect(f"the daemon ended badly\n{self.report()}")
        if not ran and not wanted:
            raise DaemonDefect(f"the daemon had ended before\n{self.report()}")
        self.expect_silence()

    def expect_silence(self):
        """Nothing was printed: no text of the daemon, of its libraries or of a sanitizer."""
        if self._has_printed():
            raise DaemonDefect(f"the daemon has printed something\n{self.report()}")

    def defect(self):
        """What is wrong with it whatever the test is about, or None."""
        if self.process is None:
            return None
        if self._has_printed():
            return "the daemon has printed something"
        status = self.process.status
        if status in CRASHES:
            return f"the daemon has crashed, status {status}"
        if status is not None and not self._end_is_wanted:
            return "the daemon has ended"
        return None

    def _has_printed(self):
        return self.process.stdout != "" or self.process.stderr != ""

    def abandon(self):
        """Kills it, whatever its state, and checks nothing."""
        self.expect_end()
        if self.process is not None:
            self.process.release()
            self._unwatch()

    def report(self):
        return self.process.report() if self.process else "orvexd: not started"

    def holdings(self):
        """As `resources`, with what it holds for its clients where the build counts that."""
        return self.resources() | self.ledger.read()

    def resources(self):
        """How many file descriptors and threads it holds now."""
        base = f"/proc/{self.pid}"
        return {
            "fds": len(os.listdir(f"{base}/fd")),
            "threads": len(os.listdir(f"{base}/task")),
        }

    def resident_memory(self):
        """Bytes."""
        with open(f"/proc/{self.pid}/statm", encoding="ascii") as statm:
            return int(statm.read().split()[1]) * os.sysconf("SC_PAGESIZE")

    def _guard(self):
        if self.process.status is not None:
            raise DaemonDefect(f"the daemon has ended\n{self.report()}")

    def _unwatch(self):
        if self._watch is not None:
            context = GLib.MainContext.default()
            source = context.find_source_by_id(self._watch)
            if source is not None:
                source.destroy()
            self._watch = None


class NameWatch:
    """Who owns the daemon's name, on a bus connection of its own."""

    def __init__(self, address):
        self._connection = connect(address)
        self.owner = None
        self._id = Gio.bus_watch_name_on_connection(
            self._connection,
            BUS_NAME,
            Gio.BusNameWatcherFlags.NONE,
            self._on_appeared,
            self._on_vanished,
        )

    def _on_appeared(self, _connection, _name, owner):
        self.owner = owner

    def _on_vanished(self, _connection, _name):
        self.owner = None

    def asked_for_answer(self):
        """Sends a ping to the owner and returns what tells whether it was answered."""
        answers = []
        self._connection.call(
            self.owner,
            OBJECT_PATH,
            "org.freedesktop.DBus.Peer",
            "Ping",
            None,
            None,
            Gio.DBusCallFlags.NO_AUTO_START,
            -1,
            None,
            lambda connection, result: answers.append(connection.call_finish(result)),
        )
        return lambda: answers

    def close(self):
        Gio.bus_unwatch_name(self._id)
        self._connection.close_sync(None)
