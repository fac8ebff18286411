"""A client of the daemon: GDBus, an implementation that shares nothing with libdbus."""

import collections
import re

from gi.repository import Gio, GLib

from .bus_connection import connect
from .settings import BUS_NAME, OBJECT_PATH, patience
from .waiting import dispatch_pending, wait_for

PART_CONTINUES, PART_COMPLETE, RESPONSE_COMPLETE = 2301, 2302, 2303

Signal = collections.namedtuple("Signal", "name arguments")
Chunk = collections.namedtuple("Chunk", "data code")


class BusError(Exception):
    """An error reply: its D-Bus name, its text, and the number at the front of the text."""

    def __init__(self, name, text):
        super().__init__(f"{name}: {text}")
        self.name = name
        self.text = text
        number = re.match(r"\((-?\d+)\) ", text)
        self.code = int(number[1]) if number else None

    @classmethod
    def of(cls, error):
        name = Gio.DBusError.get_remote_error(error) or "local"
        return cls(name, error.message.removeprefix(f"GDBus.Error:{name}: "))


class PendingCall:
    """A call that was sent and whose answer may come at any time, or never."""

    def __init__(self):
        self.answer = None
        self.error = None

    @property
    def done(self):
        return self.answer is not None or self.error is not None

    def wait(self, seconds=10):
        """Waits for the answer and returns it; raises BusError when it is an error reply."""
        wait_for(lambda: self.done, seconds, "the answer of a call")
        if self.error:
            raise self.error
        return self.answer


class Client:
    """One bus connection. Every signal of the daemon's interface is collected in `signals`."""

    def __init__(self, address):
        self.bus = connect(address)
        self.signals = []
        self.requests = []  # the ids of all that it has made: connection, request
        self._subscription = self.bus.signal_subscribe(
            BUS_NAME,
            BUS_NAME,
            None,
            OBJECT_PATH,
            None,
            Gio.DBusSignalFlags.NONE,
            self._on_signal,
        )
        # The bus handles messages in order: after this answer the subscription is in force.
        self.settle_bus()

    def close(self):
        """Leaves the bus; what was promised to the daemon stays open."""
        if not self.bus.is_closed():
            self.bus.signal_unsubscribe(self._subscription)
            self.bus.close_sync(None)

    # -- the interface -------------------------------------------------------------------------

    def connect(
        self,
        element="fingerprintRequest",
        kind="fingerprint",
        version="1.0",
        encoding="binary",
        content_type="application/xml",
        chunk_size=65536,
    ):
        """Opens a connection and returns its id."""
        texts = [_bytes(each) for each in (element, kind, version, encoding, content_type)]
        return self.call("connect", *texts, GLib.Variant("u", chunk_size))[0]

    def disconnect(self, connection):
        self.call("disconnect", GLib.Variant("u", connection))

    def prepare(self, connection, policy=2, duration=0):
        """Creates a request that starts an exchange, and returns its id."""
        return self._create("prepare", connection, policy, duration)

    def attach(self, connection, policy=2, duration=0):
        """Creates a request that travels with another, and returns its id."""
        return self._create("attach", connection, policy, duration)

    def sendData(self, connection, request, data, last=True):
        """Gives data of a request; the result is 0 or the number of the refusal."""
        last = GLib.Variant("b", last)
        return self.call("sendData", _bytes(data), last, *_numbers(connection, request))[0]

    def getData(self, connection, request):
        """Asks for the next piece of the answer: a PendingCall that yields a Chunk."""
        return self.call_later("getData", *_numbers(connection, request), convert=_chunk)

    def cancel(self, connection, request):
        """Sends the signal "cancel" and returns when the bus has passed it on."""
        arguments = GLib.Variant("(uu)", (connection, request))
        self.emit("cancel", arguments)

    def quit(self):
        self.call("quit")

    def quitDelayed(self):
        self.call("quitDelayed")

    def status(self):
        """The property "connectionStatus"."""
        return self.get_property(BUS_NAME, "connectionStatus")

    def get_property(self, interface, name):
        """Properties.Get with any interface and name."""
        arguments = (GLib.Variant("s", interface), GLib.Variant("s", name))
        return self.call("Get", *arguments, interface="org.freedesktop.DBus.Properties")[0]

    # -- what stands behind it -----------------------------------------------------------------

    def call(self, member, *arguments, interface=BUS_NAME, seconds=25):
        """Calls a method with these variants and returns the values of its answer."""
        try:
            answer = self.bus.call_sync(
                BUS_NAME,
                OBJECT_PATH,
                interface,
                member,
                GLib.Variant.new_tuple(*arguments),
                None,
                Gio.DBusCallFlags.NO_AUTO_START,
                int(patience(seconds) * 1000),
                None,
            )
        except GLib.Error as error:
            raise BusError.of(error) from None
        return answer.unpack()

    def call_later(self, member, *arguments, convert=GLib.Variant.unpack, seconds=120):
        """Calls a method and does not wait: a PendingCall."""
        pending = PendingCall()

        def on_answer(bus, result):
            try:
                pending.answer = convert(bus.call_finish(result))
            except GLib.Error as error:
                pending.error = BusError.of(error)

        self.bus.call(
            BUS_NAME,
            OBJECT_PATH,
            BUS_NAME,
            member,
            GLib.Variant.new_tuple(*arguments),
            None,
            Gio.DBusCallFlags.NO_AUTO_START,
            int(patience(seconds) * 1000),
            None,
            on_answer,
        )
        return pending

    def emit(self, name, arguments, interface=BUS_NAME, path=OBJECT_PATH):
        """Broadcasts a signal; what this client calls afterwards comes after it."""
        self.bus.emit_signal(None, path, interface, name, arguments)
        self.bus.flush_sync(None)

    def settle_bus(self):
        """Returns when the bus has dealt with all that this client has sent so far."""
        self.bus.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus.Peer",
            "Ping",
            None,
            None,
            Gio.DBusCallFlags.NONE,
            int(patience(10) * 1000),
            None,
        )

    def _create(self, member, connection, policy, duration):
        request = self.call(member, *_numbers(connection, policy, duration))[0]
        self.requests.append((connection, request))
        return request

    def _on_signal(self, _bus, _sender, _path, _interface, name, arguments):
        self.signals.append(Signal(name, arguments.unpack()))

    def settle(self):
        """Returns when all that the daemon has decided to send so far has been handled here.

        A handler's posts run before the second of two calls that come one after the other.
        """
        for _ in range(2):
            self.call("Ping", interface="org.freedesktop.DBus.Peer")
        dispatch_pending()

    # -- verbs for tests -----------------------------------------------------------------------

    def wait_for_signal(self, name, arguments=None, seconds=10):
        """Waits for a signal, takes it out of `signals` and returns its arguments.

        `arguments` are the wanted ones; a shorter tuple names only the first ones.
        """

        def find():
            for signal in self.signals:
                wanted = arguments if arguments is not None else ()
                if signal.name == name and signal.arguments[: len(wanted)] == wanted:
                    return signal
            return None

        found = wait_for(find, seconds, lambda: f"{name}{arguments or ''}, got {self.signals}")
        self.signals.remove(found)
        return found.arguments

    def wait_for_any(self, *names, seconds=10):
        """Waits for the first signal with one of these names, and takes it out of `signals`."""

        def find():
            return next((signal for signal in self.signals if signal.name in names), None)

        found = wait_for(find, seconds, lambda: f"any of {names}, got {self.signals}")
        self.signals.remove(found)
        return found

    def wait_for_status(self, status, seconds=10):
        """Waits until the daemon reports this connection status."""
        # The question may itself be what makes the daemon announce a change. An announcement may be
        # an old one, so that only the answer counts.
        while self.status() != status:
            self.wait_for_signal("connectionStatusChanged", seconds=seconds)

    def wait_for_request_data(self, connection, request, seconds=10):
        """Waits until the daemon asks for the data of this request."""
        self.wait_for_signal("requestData", (connection, request), seconds)

    def fetch_part(self, connection, request, seconds=30):
        """Fetches one part of the answer: its bytes, and the code that ended it."""
        data = []
        while True:
            chunk = self.getData(connection, request).wait(seconds)
            data.append(chunk.data)
            if chunk.code != PART_CONTINUES:
                return b"".join(data), chunk.code

    def fetch(self, connection, request, seconds=30):
        """Fetches the whole answer: a list of its parts."""
        parts = []
        while True:
            data, code = self.fetch_part(connection, request, seconds)
            parts.append(data)
            if code == RESPONSE_COMPLETE:
                return parts

    def exchange(self, data, chunk_size=65536, **connect):
        """One whole request from connect to the last byte of the answer: a list of parts."""
        connection = self.connect(chunk_size=chunk_size, **connect)
        request = self.prepare(connection)
        self.wait_for_request_data(connection, request)
        assert self.sendData(connection, request, data) == 0
        return self.fetch(connection, request)


def _bytes(value):
    data = value.encode() if isinstance(value, str) else bytes(value)
    return GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(data), True)


def _numbers(*values):
    return [GLib.Variant("u", value) for value in values]


def _chunk(answer):
    # unpack() would build a list of a number per byte.
    data = answer.get_child_value(0).get_data_as_bytes().get_data()
    return Chunk(data or b"", answer.get_child_value(1).get_uint32())
