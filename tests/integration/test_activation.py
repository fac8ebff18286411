"""The bus starts the daemon when a client calls it, by the activation file that is shipped."""

import os
import subprocess

import pytest
from gi.repository import Gio, GLib

from harness import observe
from harness.activation import start_activating_bus, with_service, write_variables
from harness.client import Client
from harness.settings import BUILD_DIR, BUS_NAME, OBJECT_PATH, patience

ORVEXCTL = BUILD_DIR / "bin" / "orvexctl"


@pytest.fixture
def environment_file(tmp_path, platform):
    path = tmp_path / "orvexd.env"
    write_variables(path, platform)
    return path


@pytest.fixture
def bus(tmp_path, make_bus, environment_file):
    return start_activating_bus(make_bus, tmp_path, environment_file)


def process_of(client, name):
    """The process behind a name, as the bus knows it."""
    bus_name = "org.freedesktop.DBus"
    arguments = GLib.Variant("(s)", (name,))
    flags = Gio.DBusCallFlags.NONE
    return client.bus.call_sync(
        bus_name, "/", bus_name, "GetConnectionUnixProcessID", arguments, None, flags, -1, None
    ).unpack()[0]


def test_call_starts_the_daemon(bus):
    client = Client(bus.address)
    status = client.bus.call_sync(
        BUS_NAME,
        OBJECT_PATH,
        "org.freedesktop.DBus.Properties",
        "Get",
        GLib.Variant("(ss)", (BUS_NAME, "connectionStatus")),
        GLib.VariantType("(v)"),
        Gio.DBusCallFlags.NONE,
        int(patience(25) * 1000),
        None,
    ).unpack()[0]
    assert status == 3
    pidfd = os.pidfd_open(process_of(client, BUS_NAME))
    try:
        client.quit()
        observe.wait_for_end(pidfd)
    finally:
        os.close(pidfd)
        client.close()


def test_call_without_activation_does_not(bus):
    client = Client(bus.address)
    with pytest.raises(Exception, match="ServiceUnknown|NameHasNoOwner"):
        client.status()
    client.close()


def status_on(bus):
    """Runs "orvexctl status" to its end."""
    environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address}
    return subprocess.run(
        [ORVEXCTL, "status"],
        env=environment,
        capture_output=True,
        text=True,
        timeout=patience(60),
        check=False,
    )


def test_orvexctl_explains_a_daemon_that_refuses_to_start(bus, environment_file):
    with open(environment_file, "a", encoding="utf-8") as file:
        file.write("KELVRA_IMEI_FRAGMENT=''\n")
    done = status_on(bus)
    assert done.returncode == 3, done.stderr
    assert "could not start the daemon" in done.stderr and "KELVRA_" in done.stderr


def test_orvexctl_explains_a_daemon_that_does_not_come_up(tmp_path, make_bus):
    # It lives for as long as its caller keeps the pipe, and never takes the name.
    read_end, write_end = os.pipe()
    command = f'/bin/sh -c "read line </proc/{os.getpid()}/fd/{read_end}"'
    policy = with_service(tmp_path, f"[D-BUS Service]\nName={BUS_NAME}\nUser=root\nExec={command}\n")
    bus = make_bus(policy=policy, limits={"service_start_timeout": 200})
    try:
        done = status_on(bus)
    finally:
        os.close(write_end)
        os.close(read_end)
    assert done.returncode == 3, done.stderr
    assert "could not start the daemon" in done.stderr
