"""orvexctl request: it names the cause in each of the faulty set-ups, among few others where the daemon's text does."""

import os
import re
import subprocess
import sys

import pytest

from harness import agents, faulty_device, sandbox, shared
from harness.activation import start_activating_bus, write_variables
from harness.daemon import Daemon
from harness.faulty import SET_UPS
from harness.preload import SteppedClock
from harness.settings import BUILD_DIR, DAEMON, patience

bus, server, platform, preinst, _, _ = shared.FIXTURES
clock_and_daemon, fixture_daemon, other_keys, device_of_its_own = faulty_device.FIXTURES

ORVEXCTL = BUILD_DIR / "bin" / "orvexctl"
REQUEST = ["request", "-e", "fingerprintRequest", "-t", "fingerprint", "-V", "1.0", "-c", "application/xml"]
HAS_IDS = agents.has_other_ids()


def failing(condition):
    """Parameters: set-ups in which a request fails."""
    chosen = [each for each in SET_UPS if each.advises and condition(each) and (HAS_IDS or not each.needs_ids)]
    return pytest.mark.parametrize("set_up", chosen, ids=lambda each: each.name)


def start_request(address):
    return subprocess.Popen(
        [ORVEXCTL, *REQUEST],
        env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address, "LC_ALL": "C.UTF-8"},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def expect_advice(set_up, request):
    _, said = request.communicate(timeout=patience(30))
    assert request.returncode == set_up.status, said
    assert re.search(set_up.advises, said, re.DOTALL), said
    assert said.count("\n") == 1


@pytest.fixture(name="daemon_of_its_own")
def fixture_daemon_of_its_own(device, make_bus, tmp_path):
    """Not started yet, on a bus of its own."""
    daemon = Daemon(tmp_path, make_bus(), device.platform.path, device.preinst)
    yield daemon
    daemon.abandon()


def is_shown_to_a_running_daemon(set_up):
    return not (set_up.needs_a_start or set_up.overdue or set_up.check == "identity")


@failing(is_shown_to_a_running_daemon)
def test_request_names_the_cause(set_up, device, bus):
    set_up.spoil(device)
    if set_up.check == "status":
        watcher = shared.Client(bus.address)
        watcher.wait_for_status(0)
        watcher.close()
    expect_advice(set_up, start_request(bus.address))


def test_request_is_answered_in_the_others(device, bus):
    others = [each for each in SET_UPS if not each.advises and not each.needs_systemd]
    assert sum(bool(each.advises) for each in SET_UPS) >= 26
    for each in others:
        each.spoil(device)
        assert start_request(bus.address).wait(patience(30)) == 0, each.name


@failing(lambda each: each.needs_a_start)
def test_request_names_what_was_wrong_when_the_daemon_began(set_up, device, daemon_of_its_own):
    set_up.spoil(device)
    if set_up.needs_ids:
        daemon_of_its_own.program = [sys.executable, sandbox.__file__, DAEMON]
    daemon_of_its_own.start()
    expect_advice(set_up, start_request(daemon_of_its_own.environment["DBUS_SYSTEM_BUS_ADDRESS"]))


@failing(lambda each: each.overdue)
def test_request_names_what_took_too_long(set_up, device, daemon_of_its_own, tmp_path):
    """The daemon's clock is stepped over the time that it would wait."""
    point, seconds = set_up.overdue
    set_up.spoil(device)
    clock = SteppedClock(daemon_of_its_own, tmp_path)
    daemon_of_its_own.start()
    before = device.server.last
    request = start_request(daemon_of_its_own.environment["DBUS_SYSTEM_BUS_ADDRESS"])
    device.server.wait(before + 1, point)
    clock.step_to(monotonic=seconds + 1)
    expect_advice(set_up, request)


@failing(lambda each: each.check == "identity")
def test_request_names_what_keeps_the_daemon_from_starting(set_up, device, make_bus, tmp_path):
    variables = tmp_path / "variables"
    write_variables(variables, device.platform)
    set_up.spoil(device)
    activating = start_activating_bus(make_bus, tmp_path, variables)
    with open(variables, "a", encoding="utf-8") as file:
        file.write(device.identity.read_text("utf-8"))
    expect_advice(set_up, start_request(activating.address))
