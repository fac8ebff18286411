"""A wired machine: the network comes, goes, costs and comes back, as NetworkManager tells it."""

import json
import os
import signal
import subprocess
import threading

import pytest

from harness.client import BusError
from harness.request import Request, errors
from harness.settings import BUILD_DIR
from live import cables

NONE, KIND_TWO, KIND_ONE, FLAGGED = 0, 1, 3, 5
KIND_ONE_ONLY, NOT_FLAGGED, ANY = 1, 2, 3
FLAG_METERED = "[NetworkManager]\nFlagMetered=true\n"


def travels(client):
    """One whole exchange over the network that is really there."""
    assert client.exchange(b"hello", kind="other") == [b"hello"]


def prepare_code(client, policy):
    """The number with which prepare is refused, or 0 when the request travels."""
    try:
        request = Request(client, policy=policy, kind="other")
    except BusError as error:
        return error.code
    request.give(b"allowed")
    assert request.fetch() == [b"allowed"]
    return 0


def test_network_carries_an_exchange_without_a_platform_file(wired, server, client):
    client.wait_for_status(KIND_ONE)
    travels(client)
    record = server.wait(server.last)
    assert record["proxy"] is None


def test_network_goes_and_comes_back(wired, server, client):
    client.wait_for_status(KIND_ONE)
    wired.down("nmv0")
    client.wait_for_status(NONE)
    wired.up("nmv0")
    client.wait_for_status(KIND_ONE)
    travels(client)


@pytest.mark.slow
def test_pulled_cable_is_a_loss_and_comes_back_by_itself(wired, server, client):
    client.wait_for_status(KIND_ONE)
    cables.pull("nmv0")  # NetworkManager waits for some seconds whether it is put back
    client.wait_for_status(NONE, 20)
    cables.plug("nmv0")
    client.wait_for_status(KIND_ONE, 20)
    travels(client)


@pytest.mark.slow
def test_waiting_request_hears_of_a_loss_at_once(wired, server, client):
    client.wait_for_status(KIND_ONE)
    Request(client, kind="other").wait_until_asked()
    waiting = Request(client, kind="other")
    wired.down("nmv0")
    assert waiting.wait_for_failure(1) == (2204, "Connection error")


def test_airplane_mode_disconnects(wired, server, client):
    client.wait_for_status(KIND_ONE)
    wired.nmcli("networking", "off")
    client.wait_for_status(NONE)
    wired.nmcli("networking", "on")
    client.wait_for_status(KIND_ONE, 20)
    travels(client)


@pytest.mark.parametrize(
    "file, status, refused",
    [("", KIND_TWO, {KIND_ONE_ONLY}), (FLAG_METERED, FLAGGED, {KIND_ONE_ONLY, NOT_FLAGGED})],
    ids=["kind two", "flagged"],
)
def test_metered_network_admits_what_the_policy_allows(
    wired, server, client, platform_file, file, status, refused
):
    platform_file(file)
    client.wait_for_status(KIND_ONE)
    wired.meter("nmv0", "yes")
    client.wait_for_status(status)
    for policy in (KIND_ONE_ONLY, NOT_FLAGGED, ANY):
        assert prepare_code(client, policy) == (2204 if policy in refused else 0), policy
    wired.meter("nmv0", "no")
    client.wait_for_status(KIND_ONE)


@pytest.mark.parametrize("policy", [0, KIND_ONE_ONLY, NOT_FLAGGED, ANY])
def test_request_that_waits_travels_when_the_network_costs_nothing_any_more(wired, server, client, policy):
    wired.meter("nmv0", "yes")
    client.wait_for_status(KIND_TWO)
    request = Request(client, attached=True, policy=policy, kind="other")
    wired.meter("nmv0", "no")
    request.give(b"waited")
    assert request.fetch() == [b"waited"]
    assert errors(client) == []


def test_kinds_are_those_that_the_file_names(wired, client, platform_file):
    client.wait_for_status(KIND_ONE)
    platform_file("[NetworkManager]\nKindOne=wifi;\n")
    client.wait_for_status(KIND_TWO)
    platform_file("[NetworkManager]\nKindOne=ethernet;\n")
    client.wait_for_status(KIND_ONE)


def test_file_with_connections_takes_over_and_gives_back(wired, client, platform_file):
    client.wait_for_status(KIND_ONE)
    platform_file("[Connections]\nList=c;\n[Connection c]\nKind=2\nActive=true\nFlagged=true\n")
    client.wait_for_status(FLAGGED)
    platform_file("")
    client.wait_for_status(KIND_ONE)


def test_library_without_its_module_knows_the_file_only(wired, make_daemon, bus, client_of, tmp_path):
    # As on a machine without the module's package: the library lies in a folder of its own.
    library = tmp_path / "libtrilbacore.so.1"
    daemon = make_daemon(bus)
    library.write_bytes((daemon.program[0].parent.parent / "lib" / library.name).read_bytes())
    daemon.environment["LD_LIBRARY_PATH"] = str(tmp_path)
    daemon.start()
    client = client_of(bus)
    client.settle()
    assert client.status() == NONE
    maps = open(f"/proc/{daemon.pid}/maps", encoding="utf-8").read()
    assert str(library) in maps
    assert "libnm.so" not in maps and "libmm-glib" not in maps


def said_of_the_status(daemon):
    """What doctor says: state and sentence."""
    command = [BUILD_DIR / "bin" / "orvexctl", "doctor", "--local", "--json"]
    done = subprocess.run(command, env=daemon.environment, capture_output=True, text=True, check=False)
    found = [json.loads(line) for line in done.stdout.splitlines()]
    return [(each["state"], each["why"]) for each in found if each["check"] == "status"]


def test_doctor_waits_for_a_platform_that_takes_its_time(wired, daemon, client):
    client.wait_for_status(KIND_ONE)
    os.kill(wired.process.pid, signal.SIGSTOP)
    later = threading.Timer(1, os.kill, [wired.process.pid, signal.SIGCONT])
    later.start()
    said = said_of_the_status(daemon)
    later.join()
    assert said == [("fine", "The platform says connected, kind 1 (3), and so does the daemon.")]


@pytest.mark.slow
def test_platform_that_does_not_answer_is_unknown_to_doctor(wired, daemon, client):
    client.wait_for_status(KIND_ONE)
    os.kill(wired.process.pid, signal.SIGSTOP)
    try:
        assert [state for state, _ in said_of_the_status(daemon)] == ["unknown"]
    finally:
        os.kill(wired.process.pid, signal.SIGCONT)
