"""orvexctl and a daemon that the service manager cannot start; a stand-in for the manager tells it.

The real one is in tests/packaging/test_booted.py.
"""

import os
import re

import pytest
from gi.repository import Gio, GLib

from harness import orvexctl
from harness.activation import start_activating_bus, with_service, write_variables
from harness.bus_connection import connect
from harness.observe import poll_for
from harness.orvexctl import ECHO
from harness.settings import BUS_NAME, patience
from harness.waiting import wait_for

start_fixture = orvexctl.FIXTURE

NAME = "org.freedesktop.systemd1"
MANAGER, UNIT = "/org/freedesktop/systemd1", "/org/freedesktop/systemd1/unit/orvexd_2eservice"
INTERFACES = f"""
<node>
  <interface name="{NAME}.Manager">
    <method name="Subscribe"/>
    <method name="LoadUnit"><arg type="s" direction="in"/><arg type="o" direction="out"/></method>
    <signal name="JobRemoved"><arg type="u"/><arg type="o"/><arg type="s"/><arg type="s"/></signal>
  </interface>
  <interface name="{NAME}.Unit">
    <property name="LoadState" type="s" access="read"/>
    <property name="ActiveState" type="s" access="read"/>
    <property name="SubState" type="s" access="read"/>
  </interface>
  <interface name="{NAME}.Service">
    <property name="Result" type="s" access="read"/>
    <property name="ExecMainCode" type="i" access="read"/>
    <property name="ExecMainStatus" type="i" access="read"/>
  </interface>
</node>
"""
FAILED = {"LoadState": "loaded", "ActiveState": "failed", "Result": "exit-code", "ExecMainCode": 0, "ExecMainStatus": 0}

pytestmark = pytest.mark.waits


class Manager:
    """Answers for one unit; tells what becomes of a job when the test says so."""

    def __init__(self, address):
        self.unit = {}
        self.bus = connect(address)
        manager, unit, service = Gio.DBusNodeInfo.new_for_xml(INTERFACES).interfaces
        self.bus.register_object(MANAGER, manager, self._call, None, None)
        for interface in (unit, service):
            self.bus.register_object(UNIT, interface, None, self._property, None)
        owned = []
        Gio.bus_own_name_on_connection(self.bus, NAME, Gio.BusNameOwnerFlags.NONE, lambda *_: owned.append(True), None)
        wait_for(lambda: owned, 10, "the manager's name")

    @staticmethod
    def _call(_bus, _sender, _path, _interface, member, _arguments, invocation):
        invocation.return_value(GLib.Variant("(o)", (UNIT,)) if member == "LoadUnit" else None)

    def _property(self, _bus, _sender, _path, _interface, name):
        value = self.unit.get(name, "")
        return GLib.Variant("s" if isinstance(value, str) else "i", value)

    def remove_job(self, result, unit="orvexd.service"):
        arguments = GLib.Variant("(uoss)", (1, f"{MANAGER}/job/1", unit, result))
        self.bus.emit_signal(None, MANAGER, f"{NAME}.Manager", "JobRemoved", arguments)


@pytest.fixture
def started(tmp_path):
    """A file that is there as soon as the bus has begun to start the daemon."""
    return tmp_path / "started"


@pytest.fixture
def bus(make_bus, tmp_path, started):
    """A bus that starts a service which never takes its name, and waits for it as long as real ones do."""
    read_end, write_end = os.pipe()  # the service lives as long as this
    command = f'/bin/sh -c "touch {started}; read line </proc/{os.getpid()}/fd/{read_end}"'
    yield make_bus(policy=with_service(tmp_path, f"[D-BUS Service]\nName={BUS_NAME}\nUser=root\nExec={command}\n"))
    os.close(write_end)
    os.close(read_end)


@pytest.fixture
def manager(bus):
    manager = Manager(bus.address)
    yield manager
    manager.bus.close_sync(None)


def wait_until_tried(run, started):
    poll_for(started.exists, 10, "the start")
    assert run.child.poll() is None


@pytest.mark.parametrize(
    "state, reason",
    [
        ({"Result": "start-limit-hit"}, "tried too often"),
        ({}, "the check before its start found something broken"),
        ({"ExecMainCode": 1, "ExecMainStatus": 1}, "ended with status 1: .*one of the five variables"),
        ({"LoadState": "masked"}, "the unit is masked"),
        ({"LoadState": "bad-setting"}, "the unit cannot be read: bad-setting"),
    ],
    ids=["limit", "check before", "status 1", "masked", "unreadable"],
)
def test_reason_is_the_service_manager_s(state, reason, start, manager, started):
    run = start("status")
    wait_until_tried(run, started)
    manager.unit = {**FAILED, **state}
    manager.remove_job("failed")
    assert run.wait(8) == 3, run.report()
    assert re.search(f"The daemon does not start: .*{reason}", run.stderr)


def test_request_does_not_wait_for_a_daemon_that_does_not_start(start, manager, started):
    run = start("request", *ECHO)
    wait_until_tried(run, started)
    manager.unit = FAILED
    manager.remove_job("failed")
    assert run.wait(8) == 3, run.report()
    assert "The daemon does not start: the check before its start" in run.stderr


def test_end_of_other_jobs_does_not_matter(start, manager, started):
    run = start("status", "--timeout", round(patience(2)))
    wait_until_tried(run, started)
    manager.unit = FAILED
    manager.remove_job("done")
    manager.remove_job("failed", unit="other.service")
    assert run.wait() == 3
    assert "waited for the start of the daemon" in run.stderr


def test_daemon_that_runs_is_not_given_up(start, make_bus, tmp_path, platform):
    platform.write(connections=[(2, True, False)])
    folder = tmp_path / "activating"
    folder.mkdir()
    write_variables(folder / "variables", platform)
    bus = start_activating_bus(make_bus, folder, folder / "variables")
    manager = Manager(bus.address)
    run = start("request", *ECHO, "--attach", "--verbose", "--timeout", round(patience(1)), address=bus.address)
    poll_for(lambda: "as request" in run.stderr, 10, "the daemon's answer")
    manager.unit = FAILED
    manager.remove_job("failed")
    assert run.wait() == 5, run.report()
    assert start("quit", address=bus.address).wait() == 0
    manager.bus.close_sync(None)


@pytest.mark.parametrize("words", [["status"], ["request", *ECHO]], ids=["status", "request"])
def test_daemon_that_does_not_come_up_is_none_without_a_manager(words, start, started):
    run = start(*words, "--timeout", "1")
    poll_for(started.exists, 10, "the start")
    assert run.wait() == 3
    assert "waited for the start of the daemon" in run.stderr and "orvexctl doctor" in run.stderr
