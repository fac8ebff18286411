"""NetworkManager hangs, dies, comes late and comes back; so does the bus. The daemon waits for none of them."""

import signal
import time

import pytest
from gi.repository import Gio, GLib

from harness import observe
from harness.bus_connection import connect
from harness.client import BusError
from harness.observe import poll_for
from harness.settings import is_sanitized, patience
from live.manager import Flapper
from live.mock import network_objects
from live.modem import FIRMWARE, IMEI, IMSI
from live.tool import Watching, described
from test_mobile import FLAGGED, KIND_TWO, MODEM, wait_for_identity
from test_wired import travels

NONE, KIND_ONE = 0, 3
AT_ONCE = 1  # seconds


def answers_at_once(client):
    begun = time.monotonic()
    client.settle()
    assert time.monotonic() - begun < patience(AT_ONCE)


def test_daemon_starts_before_networkmanager(manager, server, client):
    assert client.status() == NONE
    answers_at_once(client)
    manager.start()
    manager.add("nmv0")
    client.wait_for_status(KIND_ONE, 20)
    travels(client)


def test_networkmanager_that_hangs_blocks_nothing(wired, server, client):
    client.wait_for_status(KIND_ONE)
    with observe.stopped(wired.process):
        answers_at_once(client)
        travels(client)
        assert client.status() == KIND_ONE
    wired.down("nmv0")
    client.wait_for_status(NONE)
    wired.up("nmv0")
    client.wait_for_status(KIND_ONE)
    travels(client)


def test_daemon_that_starts_while_networkmanager_hangs_learns_of_it_later(wired, server, make_daemon, bus, client_of):
    with observe.stopped(wired.process):
        make_daemon(bus).start()
        client = client_of(bus)
        answers_at_once(client)
        assert client.status() == NONE
        with pytest.raises(BusError):
            client.prepare(client.connect(), 1)
    client.wait_for_status(KIND_ONE, 20)
    travels(client)


@pytest.mark.slow
def test_networkmanager_that_does_not_answer_the_first_question_is_asked_again(played, client):
    network = played("org.freedesktop.NetworkManager")
    poll_for(lambda: network.questions > 0, 10, "the first question")
    assert client.status() == NONE
    network.objects = network_objects()
    client.wait_for_status(KIND_ONE, 20)


@pytest.mark.slow
def test_modemmanager_that_does_not_answer_the_first_question_is_asked_again(played, mocked, client):
    mocked.add_connection("gsm", mocked.add_device(MODEM, "Modem"))
    client.wait_for_status(KIND_TWO)
    modems = played("org.freedesktop.ModemManager1")
    client.wait_for_status(FLAGGED)  # as long as nobody knows whether it roams
    modems.objects = GLib.Variant("(a{oa{sa{sv}}})", ({},))
    client.wait_for_status(KIND_TWO, 20)


def test_modemmanager_that_hangs_blocks_nothing(wired, modems, modem, server, client, bus):
    client.wait_for_status(KIND_ONE)
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, IMSI, FIRMWARE)
    with observe.stopped(modems.process):
        answers_at_once(client)
        travels(client)
    modems.stop()
    # Another one takes the name and answers nothing.
    silent = connect(bus.address)
    bus_name = "org.freedesktop.DBus"
    request = GLib.Variant("(su)", ("org.freedesktop.ModemManager1", 0))
    silent.call_sync(
        *(bus_name, "/org/freedesktop/DBus", bus_name, "RequestName", request, None, Gio.DBusCallFlags.NONE),
        *(5000, None),
    )
    silent.add_filter(lambda _bus, message, incoming: None if incoming else message)
    answers_at_once(client)
    travels(client)
    silent.close_sync(None)
    modems.start().plug(modem)
    wait_for_identity(bus, IMEI, IMSI, FIRMWARE)


def test_networkmanager_that_is_killed_and_comes_back(wired, server, client):
    client.wait_for_status(KIND_ONE)
    wired.kill()
    answers_at_once(client)
    client.wait_for_status(NONE)
    wired.start()
    client.wait_for_status(KIND_ONE, 20)
    travels(client)


def test_restart_of_networkmanager_within_two_seconds_is_no_loss(wired, server, client):
    client.wait_for_status(KIND_ONE)
    client.signals.clear()
    wired.stop()
    wired.start()
    poll_for(lambda: "activated" in wired.nmcli("--get-values", "GENERAL.STATE", "connection", "show", "nmv0"))
    travels(client)
    assert not [each for each in client.signals if each.name == "connectionStatusChanged" and each.arguments[0] == NONE]


def test_end_of_the_bus_ends_the_daemon_as_without_networkmanager(wired, bus, daemon, client):
    client.wait_for_status(KIND_ONE)
    daemon.expect_end()
    bus.process.send_signal(signal.SIGKILL)
    assert daemon.wait() == 1
    daemon.expect_silence()


def test_new_bus_serves_a_new_daemon(manager, server, make_bus, make_daemon, client_of):
    first = manager.start()
    first.add("nmv0")
    first.stop()
    bus = make_bus()
    manager.use(bus)
    make_daemon(bus).start()
    client = client_of(bus)
    manager.start()
    client.wait_for_status(KIND_ONE, 20)
    travels(client)


@pytest.mark.parametrize("times", [20, pytest.param(1000, marks=[pytest.mark.long, pytest.mark.timeout(1800)])])
def test_flaps_leave_nothing_behind(wired, server, daemon, client, bus, times):
    client.wait_for_status(KIND_ONE)
    travels(client)
    flapper = Flapper(bus, wired, "nmv0")
    for _ in range(5):
        flapper.down()
        flapper.up()
    client.wait_for_status(KIND_ONE)
    travels(client)
    observe.wait_until_idle(daemon.pid)
    before, memory = daemon.resources(), observe.allocated_bytes(daemon.pid)
    for _ in range(times):
        flapper.down()
        flapper.up()
    flapper.close()
    client.wait_for_status(KIND_ONE)
    travels(client)
    observe.wait_until_idle(daemon.pid)
    assert daemon.resources() == before
    grown = observe.allocated_bytes(daemon.pid) - memory
    assert is_sanitized() or grown < 2 * 1024 * 1024, f"{grown} bytes more after {times} flaps"


@pytest.mark.slow
@pytest.mark.parametrize("seconds", [3, pytest.param(60, marks=pytest.mark.long)])
def test_idle_daemon_wakes_nobody(wired, daemon, client, seconds):
    client.wait_for_status(KIND_ONE)
    # GLib keeps threads that have nothing to do for 15 seconds.
    poll_for(lambda: not pool_threads(daemon), 20, "the end of the threads that made the connection")
    observe.wait_until_idle(daemon.pid)
    before = observe.wake_ups(daemon.pid)
    time.sleep(seconds)  # nothing is to happen, so there is nothing to wait for
    assert observe.wake_ups(daemon.pid) == before


def pool_threads(daemon):
    return [name for name in observe.threads(daemon.pid).values() if name.startswith("pool")]


def test_tool_tells_that_networkmanager_does_not_run(bus):
    told, status = described(bus)
    assert (told["source"], told["status"], status) == ("networkmanager", NONE, 1)
    assert told["remarks"] == [{"severity": "warning", "text": "NetworkManager does not run"}]


def test_tool_watches_on_and_tells_of_what_is_remarkable(manager, bus, tmp_path, platform_file):
    platform_file("[Location]\nNetworkPositioning=perhaps\n[Platform]\nSource=networkmanager\n")
    watching = Watching(tmp_path, bus)
    try:
        watching.wait_for(lambda told: told["findings"] and told["source"] == "file", "a fault")
        platform_file("[Platform]\nSource=networkmanager\n")
        away = "NetworkManager does not run"
        watching.wait_for(lambda told: [each["text"] for each in told["remarks"]] == [away], away)
        manager.start()
        watching.wait_for(lambda told: not told["remarks"], "nothing remarkable")
    finally:
        assert watching.stop() == 0


def test_tool_tells_that_networkmanager_hangs(wired, bus):
    with observe.stopped(wired.process):
        told, status = described(bus, "--wait", "1")
    assert (told["answered"], status) == (False, 1)
    assert told["remarks"][0]["text"] == "NetworkManager has not answered yet"
