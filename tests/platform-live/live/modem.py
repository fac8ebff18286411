"""A real ModemManager with a modem that a script plays: it answers AT commands on a socket."""

import os
import socket
import threading

from harness.bus_connection import connect
from harness.observe import poll_for
from harness.process import Process
from gi.repository import Gio, GLib

NAME = "org.freedesktop.ModemManager1"
_POLKIT = "org.freedesktop.PolicyKit1"
IMEI, IMSI, FIRMWARE = "490154203237518", "262011234567890", "fw-7"
HOME, ROAMING = 1, 5
_REGISTERED = 8  # MM_MODEM_STATE_REGISTERED

_SILENT = (
    "AT ATZ ATE0 ATV1 AT+CMEE=1 ATX4 AT&C1 ATE0V1 AT+CFUN=1 AT+CFUN=1,0 AT+CREG=2 AT+CGREG=2 AT+CEREG=2 AT+CREG=0 "
    "AT+CGREG=0 AT+COPS=3,2 AT+COPS=3,0 AT+CNUM AT+CGDCONT? AT+CGACT? AT+CLAC"
).split() + ['AT+CSCS="UCS2"', 'AT+CSCS="GSM"']
_FIXED = {
    "AT+GCAP": "+GCAP: +CGSM",
    "ATI": "scripted",
    "AT+CGMI": "Example Modems",
    "AT+GMI": "Example Modems",
    "AT+CGMM": "Scripted",
    "AT+GMM": "Scripted",
    "AT+CGMR": FIRMWARE,
    "AT+GMR": FIRMWARE,
    "AT+CGSN": IMEI,
    "AT+GSN": IMEI,
    "AT+CFUN?": "+CFUN: 1",
    "AT+WS46=?": "+WS46: (12,22,25)",
    "AT+COPS=3,2;+COPS?": '+COPS: 0,2,"26201"',
    "AT+COPS=3,0;+COPS?": '+COPS: 0,0,"Example Tel"',
    "AT+COPS?": '+COPS: 0,2,"26201"',
    "AT+CSQ": "+CSQ: 20,99",
    "AT+CSCS=?": '+CSCS: ("IRA","GSM","UCS2")',
    "AT+CSCS?": '+CSCS: "GSM"',
    "AT+CGDCONT=?": '+CGDCONT: (1-16),"IP",,,(0-2),(0-4)',
    "AT+CLCK=?": '+CLCK: ("SC")',
    'AT+CLCK="SC",2': "+CLCK: 0",
}
_CARD = {
    "AT+CIMI": IMSI,
    "AT+CPIN?": "+CPIN: READY",
    "AT+CCID": "+CCID: 8949017204123456789",
    "AT+ICCID": "+ICCID: 8949017204123456789",
    "AT+CRSM=176,12258,0,0,10": '+CRSM: 144,0,"98941027401432658719"',
    "AT+CRSM=176,28589,0,0,4": '+CRSM: 144,0,"00000002"',
}


class Modem:
    """Plays until close(). What it says about network and card may be changed at any time."""

    def __init__(self, name):
        self.name = name
        self.registration = HOME
        self.has_card = True
        self._peers = []
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.bind("\0abstract:" + name)
        self._socket.listen(4)
        threading.Thread(target=self._accept, daemon=True).start()

    def register(self, registration):
        """Moves into another network and says so without being asked."""
        self.registration = registration
        for kind in ("CREG", "CGREG", "CEREG"):
            self._say(f'+{kind}: {registration},"5A00","1A2B3C",7')

    def close(self):
        for each in (self._socket, *self._peers):
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # its peer has gone before
            each.close()

    def _say(self, line):
        for peer in self._peers:
            try:
                peer.sendall(f"\r\n{line}\r\n".encode())
            except OSError:
                pass  # that one has gone

    def _accept(self):
        while True:
            try:
                peer, _ = self._socket.accept()
            except OSError:
                return
            self._peers.append(peer)
            threading.Thread(target=self._serve, args=(peer,), daemon=True).start()

    def _serve(self, peer):
        rest = b""
        while True:
            try:
                data = peer.recv(4096)
            except OSError:
                return
            if not data:
                return
            *lines, rest = (rest + data).replace(b"\n", b"\r").split(b"\r")
            for line in filter(None, (each.decode("latin-1").strip() for each in lines)):
                answer = self._answer(line)
                peer.sendall(b"\r\nERROR\r\n" if answer is None else f"{answer}\r\nOK\r\n".encode())

    def _answer(self, command):
        """None: an error."""
        if command in _SILENT:
            return ""
        for kind in ("CREG", "CGREG", "CEREG"):
            if command == f"AT+{kind}?":
                return f"\r\n+{kind}: 2,{self.registration},5A00,1A2B3C,7\r\n"
        text = _FIXED.get(command)
        if text is None and self.has_card:
            text = _CARD.get(command)
        if text is None and command == "AT+CPIN?":
            return "\r\n+CME ERROR: 10\r\n"  # no card
        return None if text is None else f"\r\n{text}\r\n"


class ModemManager:
    """The real one, which is told of the scripted modem."""

    def __init__(self, directory, bus):
        self._directory = directory
        self._bus = bus
        self._runs = 0
        self._permission = None
        self.process = None

    def start(self):
        """Returns when it owns its name. Somebody has to permit what is asked of it: a played polkit."""
        if self._permission is None:
            self._permission = self._played_polkit()
        self._runs += 1
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self._bus.address}
        command = ["/usr/sbin/ModemManager", "--test-enable", "--no-auto-scan", "--test-no-udev"]
        name = f"ModemManager-{self._runs}"
        self.process = Process(command, self._directory, name, environment=environment)
        poll_for(self._owned, 20, "ModemManager's name")
        return self

    def plug(self, modem):
        profile = GLib.Variant("(ssas)", (modem.name, "generic", [f"abstract:{modem.name}"]))
        self._call(NAME, "/org/freedesktop/ModemManager1", NAME + ".Test", "SetProfile", profile)

    def enable(self):
        """Switches the first modem on, as NetworkManager does before it uses one; returns its path.

        What the modem says without being asked counts only when its first registration is dealt with.
        """
        poll_for(self._modems, 30, "a modem")
        path = self._modems()[0]
        self._call(NAME, path, NAME + ".Modem", "Enable", GLib.Variant("(b)", (True,)))
        poll_for(lambda: self._state(path) == _REGISTERED, 20, "the modem's registration")
        return path

    def stop(self):
        if self.process is not None and self.process.pidfd >= 0:
            self.process.stop(20)

    def close(self):
        self.stop()
        if self._permission is not None:
            self._permission.stop()

    def report(self):
        return self.process.report() if self.process else "ModemManager: not started"

    def _played_polkit(self):
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self._bus.address}
        command = ["/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "polkitd"]
        process = Process(command, self._directory, "polkit", environment=environment)
        poll_for(lambda: self._owned(_POLKIT), 20, "the played polkit")
        path = "/org/freedesktop/PolicyKit1/Authority"
        self._call(_POLKIT, path, "org.freedesktop.DBus.Mock", "AllowUnknown", GLib.Variant("(b)", (True,)))
        return process

    def _state(self, path):
        asked = GLib.Variant("(ss)", (NAME + ".Modem", "State"))
        return self._call(NAME, path, "org.freedesktop.DBus.Properties", "Get", asked)[0]

    def _modems(self):
        path, interface = "/org/freedesktop/ModemManager1", "org.freedesktop.DBus.ObjectManager"
        return list(self._call(NAME, path, interface, "GetManagedObjects", None)[0])

    def _owned(self, name=NAME):
        asked = GLib.Variant("(s)", (name,))
        bus = "org.freedesktop.DBus"
        return self._call(bus, "/org/freedesktop/DBus", bus, "NameHasOwner", asked)[0]

    def _call(self, *to):
        bus = connect(self._bus.address)
        try:
            return bus.call_sync(*to, None, Gio.DBusCallFlags.NONE, 10000, None).unpack()
        finally:
            bus.close_sync(None)
