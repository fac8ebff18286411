"""The daemon's part in one request, played by hand."""

from gi.repository import Gio, GLib

from . import library
from .library import Orvex
from .settings import OBJECT_PATH
from .stand_in import CONNECTION, REQUEST
from .waiting import dispatch_pending, wait_for

CONTINUES, PART_COMPLETE, COMPLETE = 2301, 2302, 2303
ACCEPTED = GLib.Variant("(i)", (0,))


class Script:
    """Plays the daemon for one request by hand."""

    def __init__(self, stand_in):
        self.stand_in = stand_in
        self.fetches = []  # getData calls that are held
        self.pieces = []  # of the question: bytes, whether it is the last one
        self.result = ACCEPTED
        stand_in.answers["getData"] = self.fetches.append
        stand_in.answers["sendData"] = self._take
        made = library.Pending()
        Orvex.Client.new_async(
            None, None, lambda _source, result: made.take(lambda: Orvex.Client.new_finish(result))
        )
        self.client = made.wait()

    def _take(self, invocation):
        arguments = invocation.get_parameters()
        data = arguments.get_child_value(0).get_data_as_bytes().get_data() or b""
        self.pieces.append((data, arguments.get_child_value(1).get_boolean()))
        if self.result is not None:
            invocation.return_value(self.result)

    def called(self, member):
        return [arguments for name, arguments in self.stand_in.called if name == member]

    def wait_for_call(self):
        wait_for(lambda: self.fetches, 10, "a call of getData")

    def want_data(self, connection=CONNECTION, request=REQUEST):
        self.stand_in.emit("requestData", GLib.Variant("(uu)", (connection, request)))

    def deliver(self, data, code):
        """Answers the held call."""
        self.wait_for_call()
        (call,) = self.fetches
        self.fetches.clear()
        array = GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(data), True)
        call.return_value(GLib.Variant.new_tuple(array, GLib.Variant("u", code)))

    def fail(self, code, message, keys):
        self.stand_in.emit("errorSignal", GLib.Variant("(uss)", (code, message, keys)))

    def hold_pings(self):
        """From now on, calls of Ping find no answer. Returns the list of those that wait for one."""
        node = Gio.DBusNodeInfo.new_for_xml(
            "<node><interface name='org.freedesktop.DBus.Peer'><method name='Ping'/></interface></node>"
        )
        held = []
        self.stand_in.bus.register_object(
            OBJECT_PATH, node.interfaces[0], lambda *call: held.append(call[-1]), None, None
        )
        return held

    def fail_behind_the_answer(self, pings, code=2204, keys=""):
        """The exchange has failed, as the daemon tells before it answers the calls behind an answer."""
        wait_for(lambda: len(pings) == 2, 10, "two calls behind the answer")
        self.fail(code, "Transferred a partial file", keys)
        for ping in pings:
            ping.return_value(None)

    def pause(self, seconds):
        """Lets so much time go by, for a limit that counts it."""
        over = library.Pending()
        GLib.timeout_add(int(1000 * seconds), over.take, lambda: True)
        over.wait()

    def settle(self):
        """Returns when everything that was sent so far has been dealt with on both sides."""
        answered = library.Pending()
        self.client.get_connection().call(
            "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", None, None, 0, -1, None,
            lambda source, result: answered.take(lambda: source.call_finish(result)),
        )
        answered.wait()
        dispatch_pending()
