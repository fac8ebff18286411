"""GDBus's connection to a bus."""

from gi.repository import Gio


def connect(address):
    """A connection of its own, which outlives its bus."""
    flags = (
        Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    )
    bus = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
    bus.set_exit_on_close(False)
    return bus
