"""A NetworkManager that python3-dbusmock plays, for states that the real one cannot be brought into here."""

import os

from gi.repository import Gio, GLib

from harness.bus_connection import connect
from harness.observe import poll_for
from harness.process import Process

NAME = "org.freedesktop.NetworkManager"
_PATH = "/org/freedesktop/NetworkManager"
_MOCK = "org.freedesktop.DBus.Mock"
_ACTIVATED = 2
CONNECTED_SITE, CONNECTED_GLOBAL = 60, 70
PORTAL, LIMITED, FULL = 2, 3, 4


class PlayedService:
    """Owns the name of a service whose objects nobody can have: until `objects` is set, questions for them fail."""

    ROOT = "/org/freedesktop/ModemManager1"

    def __init__(self, bus, name):
        self.objects = None  # as a GLib.Variant of what GetManagedObjects returns
        self.questions = 0
        self._bus = connect(bus.address)
        self._bus.add_filter(self._on_message)
        bus_name = "org.freedesktop.DBus"
        request = GLib.Variant("(su)", (name, 0))
        self._bus.call_sync(
            *(bus_name, "/org/freedesktop/DBus", bus_name, "RequestName", request, None, Gio.DBusCallFlags.NONE),
            *(5000, None),
        )

    def add(self, path, interfaces):
        """A modem, or more of its interfaces."""
        self._say("InterfacesAdded", GLib.Variant("(oa{sa{sv}})", (path, interfaces)))

    def remove(self, path, interfaces):
        self._say("InterfacesRemoved", GLib.Variant("(oas)", (path, interfaces)))

    def match_rules(self):
        """How many the whole bus has."""
        name, path = "org.freedesktop.DBus", "/org/freedesktop/DBus"
        asked = (name, path, name + ".Debug.Stats", "GetAllMatchRules", None, None, Gio.DBusCallFlags.NONE, 5000, None)
        return sum(map(len, self._bus.call_sync(*asked).unpack()[0].values()))

    def close(self):
        self._bus.close_sync(None)

    def _say(self, signal, arguments):
        self._bus.emit_signal(None, self.ROOT, "org.freedesktop.DBus.ObjectManager", signal, arguments)

    def _on_message(self, bus, message, incoming):
        """Runs in GDBus's own thread."""
        if not incoming or message.get_member() != "GetManagedObjects":
            return message
        self.questions += 1
        if self.objects is None:
            reply = message.new_method_error_literal("org.freedesktop.DBus.Error.NoReply", "it hangs")
        else:
            reply = message.new_method_reply()
            reply.set_body(self.objects)
        bus.send_message(reply, Gio.DBusSendMessageFlags.NONE)
        return None


def network_objects():
    """What a NetworkManager with one cable tells."""
    device, connection = f"{_PATH}/Devices/1", f"{_PATH}/ActiveConnection/1"
    objects = {
        _PATH: {
            NAME: {
                "Version": GLib.Variant("s", "1.42.4"),
                "State": _u(CONNECTED_GLOBAL),
                "ActiveConnections": GLib.Variant("ao", [connection]),
                "PrimaryConnection": GLib.Variant("o", connection),
                "Devices": GLib.Variant("ao", [device]),
            }
        },
        device: {NAME + ".Device": {"DeviceType": _u(1)}, NAME + ".Device.Wired": {}},
        connection: {
            NAME + ".Connection.Active": {
                "Id": GLib.Variant("s", "cable"),
                "Type": GLib.Variant("s", "802-3-ethernet"),
                "Devices": GLib.Variant("ao", [device]),
                "State": _u(_ACTIVATED),
                "Default": GLib.Variant("b", True),
            }
        },
    }
    return GLib.Variant("(a{oa{sa{sv}}})", (objects,))


class MockedNetworkManager:
    """Says whatever a test wants."""

    def __init__(self, directory, bus):
        self._count = 0
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address}
        command = ["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "networkmanager"]
        self.process = Process(command, directory, "dbusmock", environment=environment)
        self._bus = connect(bus.address)
        poll_for(self._is_there, 20, "the mocked NetworkManager")
        self.set(_PATH, NAME, State=_u(CONNECTED_GLOBAL), Connectivity=_u(FULL))
        # What the template leaves out.
        for name, value in {
            "PrimaryConnection": GLib.Variant("o", "/"),
            "ConnectivityCheckAvailable": GLib.Variant("b", True),
            "ConnectivityCheckEnabled": GLib.Variant("b", False),
        }.items():
            self._call("/org/freedesktop/NetworkManager", _MOCK, "AddProperty", "(ssv)", NAME, name, value)

    def set_manager(self, **values):
        self.set(_PATH, NAME, **values)

    def set(self, path, interface, **values):
        """Properties of one object, which are told to have changed."""
        for name, value in values.items():
            self._call(path, "org.freedesktop.DBus.Properties", "Set", "(ssv)", interface, name, value)

    def add_device(self, kind, interface, udi="", **properties):
        """A device of this NMDeviceType, whose own interface has this name; returns its path."""
        self._count += 1
        path = f"{_PATH}/Devices/{self._count}"
        properties = {"HwAddress": GLib.Variant("s", ""), **properties}
        values = {
            "DeviceType": _u(kind),
            "Interface": GLib.Variant("s", f"dev{self._count}"),
            "State": _u(100),
            "Metered": _u(4),
            "Managed": GLib.Variant("b", True),
            "Udi": GLib.Variant("s", udi),
            "Ports": GLib.Variant("ao", []),
        }
        # Both at once: the type of a device is told by its interfaces.
        self._add(path, {NAME + ".Device": values, f"{NAME}.Device.{interface}": properties})
        return path

    def add_connection(self, kind, *devices, primary=True, default=True, vpn=False):
        """A connection that is up; returns its path."""
        self._count += 1
        path = f"{_PATH}/ActiveConnection/{self._count}"
        values = {
            "Id": GLib.Variant("s", f"{kind}-{self._count}"),
            "Uuid": GLib.Variant("s", f"00000000-0000-0000-0000-{self._count:012}"),
            "Type": GLib.Variant("s", kind),
            "Devices": GLib.Variant("ao", devices),
            "State": _u(_ACTIVATED),
            "Default": GLib.Variant("b", default),
            "Default6": GLib.Variant("b", False),
            "Vpn": GLib.Variant("b", vpn),
        }
        self._add(path, {NAME + ".Connection.Active": values})
        paths = [*self._get(_PATH, NAME, "ActiveConnections"), path]
        self.set_manager(ActiveConnections=GLib.Variant("ao", paths))
        if primary:
            self.set_manager(PrimaryConnection=GLib.Variant("o", path))
        return path

    def stop(self):
        self._bus.close_sync(None)
        self.process.stop()

    def report(self):
        return self.process.report()

    def _add(self, path, interfaces):
        first = next(iter(interfaces))
        arguments = (path, first, interfaces[first], [])
        self._call("/org/freedesktop", _MOCK, "AddObject", "(ssa{sv}a(ssss))", *arguments)
        for interface, properties in interfaces.items():
            if interface != first:  # for those who ask later
                for name, value in properties.items():
                    self._call(path, _MOCK, "AddProperty", "(ssv)", interface, name, value)
        told = GLib.Variant("(oa{sa{sv}})", (path, interfaces))
        arguments = [told.get_child_value(0), told.get_child_value(1)]
        manager = "org.freedesktop.DBus.ObjectManager"
        signature = "oa{sa{sv}}"
        emit = (manager, "InterfacesAdded", signature, arguments)
        self._call("/org/freedesktop", _MOCK, "EmitSignal", "(sssav)", *emit)

    def _get(self, path, interface, name):
        return self._call(path, "org.freedesktop.DBus.Properties", "Get", "(ss)", interface, name)[0]

    def _is_there(self):
        try:
            return self._get(_PATH, NAME, "State") is not None
        except GLib.Error:
            return False

    def _call(self, path, interface, member, signature, *arguments):
        answer = self._bus.call_sync(
            *(NAME, path, interface, member, GLib.Variant(signature, arguments), None),
            *(Gio.DBusCallFlags.NONE, 10000, None),
        )
        return answer.unpack()


def _u(number):
    return GLib.Variant("u", number)
