"""In the daemon's place: for what the daemon does rarely, or never."""

from gi.repository import Gio, GLib

from .bus_connection import connect
from .settings import BUS_NAME, OBJECT_PATH, ROOT
from .waiting import wait_for

INTERFACE = ROOT / "data" / "com.kelvra.orvexd.xml"
CONNECTION, REQUEST = 7, 9  # the numbers that it gives


class StandIn:
    """Owns the daemon's name and answers every call in one way: for codes the daemon rarely sends."""

    def __init__(self, address):
        self.bus = connect(address)
        description = Gio.DBusNodeInfo.new_for_xml(INTERFACE.read_text("utf-8"))
        self.answers = {
            "connect": GLib.Variant("(u)", (CONNECTION,)),
            "prepare": GLib.Variant("(u)", (REQUEST,)),
            "attach": GLib.Variant("(u)", (REQUEST,)),
            "sendData": GLib.Variant("(i)", (0,)),
            "disconnect": GLib.Variant("()", ()),
        }
        self.called = []
        self.status = 3
        self.bus.register_object(
            OBJECT_PATH, description.interfaces[0], self._call, lambda *_: GLib.Variant("u", self.status), None
        )
        owned = []
        Gio.bus_own_name_on_connection(
            self.bus, BUS_NAME, Gio.BusNameOwnerFlags.NONE, lambda *_: owned.append(True), None
        )
        wait_for(lambda: owned, 10, "the stand-in's name")

    def _call(self, _bus, _sender, _path, _interface, member, arguments, invocation):
        self.called.append((member, arguments.unpack() if member != "sendData" else None))
        answer = self.answers.get(member)
        if isinstance(answer, int):
            invocation.return_dbus_error(f"{BUS_NAME}.Error", f"({answer}) unspecifiedError")
        elif callable(answer):
            answer(invocation)
        elif answer is not None:
            invocation.return_value(answer)

    def emit(self, name, arguments):
        self.bus.emit_signal(None, OBJECT_PATH, BUS_NAME, name, arguments)

    def close(self):
        if not self.bus.is_closed():
            self.bus.close_sync(None)
