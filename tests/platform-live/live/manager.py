"""A real NetworkManager as a child process, and nmcli."""

import os
import shutil
import signal
import subprocess

from gi.repository import Gio, GLib

from harness.bus_connection import connect
from harness.observe import poll_for
from harness.process import Process
from harness.settings import patience

from .cables import NETWORKS

NAME = "org.freedesktop.NetworkManager"
_CONFIGURATION = """[main]
plugins=keyfile
auth-polkit=false
dhcp=internal
dns=none
rc-manager=unmanaged
no-auto-default=*
[keyfile]
unmanaged-devices=interface-name:ctl*
[connectivity]
enabled=false
"""


class NetworkManager:
    """May be started, stopped, killed and started again. Its files stay, as those of a machine do."""

    def __init__(self, directory, bus):
        self._directory = directory
        self._bus = bus
        self._environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address, "LC_ALL": "C.UTF-8"}
        self._runs = 0
        self.process = None
        (directory / "NetworkManager.conf").write_text(_CONFIGURATION, "utf-8")
        (directory / "conf.d").mkdir()

    def start(self):
        """Returns when it answers."""
        self._runs += 1
        files = {
            "config": "NetworkManager.conf",
            "config-dir": "conf.d",
            "intern-config": "intern.conf",
            "state-file": "state",
            "pid-file": "pid",
        }
        options = [f"--{name}={self._directory / file}" for name, file in files.items()]
        name = f"NetworkManager-{self._runs}"
        self.process = Process(
            ["NetworkManager", "--no-daemon", *options], self._directory, name, environment=self._environment
        )
        poll_for(self._answers, 20, "NetworkManager's answer")
        return self

    def use(self, bus):
        """From now on it is on another bus."""
        self._bus = bus
        self._environment["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.process.release()

    def stop(self):
        """Ends it as a service manager does, and takes its connections away."""
        if self.process is not None and self.process.pidfd >= 0:
            self.process.send_signal(signal.SIGCONT)
            self.process.stop(20)

    def forget(self):
        """Leaves the machine as before the first start."""
        for folder in ("/etc/NetworkManager/system-connections", "/var/lib/NetworkManager", "/run/NetworkManager"):
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        for device in NETWORKS:
            subprocess.run(["ip", "address", "flush", "dev", device], check=False)

    def nmcli(self, *words, seconds=40):
        """What nmcli prints; it has to succeed."""
        done = subprocess.run(
            ["nmcli", "--terse", "--wait", str(int(patience(20))), *words],
            **{"env": self._environment, "capture_output": True, "text": True},
            timeout=patience(seconds),
            check=False,
        )
        assert done.returncode == 0, f"nmcli {words}: {done.stdout}{done.stderr}"
        return done.stdout

    def add(self, device, metric=100, **settings):
        """Makes a connection named as its device, which comes up by itself."""
        address, gateway = NETWORKS[device]
        wanted = {
            "ipv4.method": "manual",
            "ipv4.addresses": address,
            "ipv4.gateway": gateway,
            "ipv4.route-metric": str(metric),
            "ipv6.method": "disabled",
            "connection.metered": "no",
            **settings,
        }
        words = [word for pair in wanted.items() for word in pair]
        self.nmcli("connection", "add", "type", "ethernet", "ifname", device, "con-name", device, *words)

    def up(self, name):
        self.nmcli("connection", "up", name)

    def down(self, name):
        self.nmcli("connection", "down", name)

    def meter(self, device, value):
        """As a user does who tells the costs of a network."""
        self.nmcli("device", "modify", device, "connection.metered", value)

    def report(self):
        return self.process.report() if self.process else "NetworkManager: not started"

    def _answers(self):
        bus = connect(self._bus.address)
        try:
            bus.call_sync(
                NAME,
                "/org/freedesktop",
                "org.freedesktop.DBus.ObjectManager",
                "GetManagedObjects",
                None,
                None,
                Gio.DBusCallFlags.NO_AUTO_START,
                5000,
                None,
            )
            return True
        except GLib.Error:
            return False
        finally:
            bus.close_sync(None)


class Flapper:
    """Takes a connection down and up again as fast as NetworkManager goes, without a process for each time."""

    def __init__(self, bus, manager, name):
        self._bus = connect(bus.address)
        uuid = manager.nmcli("--get-values", "connection.uuid", "connection", "show", name).strip()
        settings = "/org/freedesktop/NetworkManager/Settings"
        self._profile = self._call(settings, "Settings", "GetConnectionByUuid", GLib.Variant("(s)", (uuid,)))[0]

    def down(self):
        for path in self._active():
            arguments = GLib.Variant("(o)", (path,))
            self._call("/org/freedesktop/NetworkManager", None, "DeactivateConnection", arguments)

    def up(self):
        arguments = GLib.Variant("(ooo)", (self._profile, "/", "/"))
        path = self._call("/org/freedesktop/NetworkManager", None, "ActivateConnection", arguments)[0]
        poll_for(lambda: self._state(path) == 2, 20, "the activation")

    def close(self):
        self._bus.close_sync(None)

    def _active(self):
        return self._get("/org/freedesktop/NetworkManager", NAME, "ActiveConnections")

    def _state(self, path):
        return self._get(path, NAME + ".Connection.Active", "State")

    def _get(self, path, interface, name):
        arguments = GLib.Variant("(ss)", (interface, name))
        answer = self._bus.call_sync(
            *(NAME, path, "org.freedesktop.DBus.Properties", "Get", arguments, None),
            *(Gio.DBusCallFlags.NONE, 10000, None),
        )
        return answer.unpack()[0]

    def _call(self, path, interface, member, arguments):
        interface = f"{NAME}.{interface}" if interface else NAME
        answer = self._bus.call_sync(
            NAME, path, interface, member, arguments, None, Gio.DBusCallFlags.NONE, 20000, None
        )
        return answer.unpack()
