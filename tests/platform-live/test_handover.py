"""Two networks: one takes the place of the other while requests are under way."""

import pathlib
import time

import pytest

from harness.observe import poll_for
from harness.request import Request, errors
from harness.settings import patience

NONE, KIND_ONE = 0, 3
BOTH_WAYS = pytest.mark.parametrize("first, second", [("nmv0", "nmv1"), ("nmv1", "nmv0")])
LARGE = b"x" * 200_000
MANY_BYTES = 3_000_000


@pytest.fixture
def two(manager):
    """Two networks that are up; `first` is the one in use after prefer(first)."""
    manager.start()
    manager.add("nmv0", metric=100)
    manager.add("nmv1", metric=200)
    for name in ("nmv0", "nmv1"):
        manager.up(name)
    return manager


def prefer(manager, first, second):
    """The other network becomes the primary one, and the first stays up."""
    manager.nmcli("device", "modify", second, "ipv4.route-metric", "300")
    manager.nmcli("device", "modify", first, "ipv4.route-metric", "50")


def sent_over(device):
    return int(pathlib.Path(f"/sys/class/net/{device}/statistics/tx_bytes").read_text("utf-8"))


def travels_over(device, client):
    """A further exchange goes over this network."""
    before = sent_over(device)
    assert client.exchange(LARGE, kind="other") == [LARGE]
    assert sent_over(device) - before > len(LARGE)


def statuses(client):
    return [signal.arguments[0] for signal in client.signals if signal.name == "connectionStatusChanged"]


@BOTH_WAYS
def test_handover_in_an_upload_loses_nothing(two, server, client, first, second):
    prefer(two, first, second)
    client.wait_for_status(KIND_ONE)
    travels_over(first, client)
    request = Request(client, kind="other").wait_until_asked()
    waiting = Request(client, kind="other")
    assert request.send(LARGE, last=False) == 0
    server.wait(server.last, "head")
    client.signals.clear()
    prefer(two, second, first)
    assert request.send(b"the end") == 0
    assert request.fetch() == [LARGE + b"the end"]
    waiting.give(b"waited")
    assert waiting.fetch() == [b"waited"]
    assert errors(client) == [] and NONE not in statuses(client)
    travels_over(second, client)


@BOTH_WAYS
def test_handover_in_a_download_loses_nothing(two, server, client, first, second):
    prefer(two, first, second)
    client.wait_for_status(KIND_ONE)
    server.queue({"on": [{"at": "part", "do": "wait", "event": "handover"}], "answer": {"multipart": {}}})
    request = Request(client, kind="other").give(b"size: %d" % MANY_BYTES)
    waiting = Request(client, kind="other")
    server.wait(server.last, "part:1")
    client.signals.clear()
    prefer(two, second, first)
    server.give("handover")
    assert len(request.fetch()[0]) == MANY_BYTES
    waiting.give(b"waited")
    assert waiting.fetch() == [b"waited"]
    assert errors(client) == [] and NONE not in statuses(client)
    travels_over(second, client)


def test_loss_of_one_of_two_networks_is_no_loss(two, server, client):
    client.wait_for_status(KIND_ONE)
    client.signals.clear()
    for name in ["nmv0", "nmv1"] * 5:
        two.down(name)
        client.settle()
        two.up(name)
    travels_over("nmv0", client)
    assert NONE not in statuses(client)


@pytest.mark.long
@BOTH_WAYS
@pytest.mark.parametrize("upload", [True, False], ids=["upload", "download"])
def test_requests_go_on_when_the_first_network_is_lost(two, server, client, first, second, upload):
    prefer(two, first, second)
    client.wait_for_status(KIND_ONE)
    if not upload:
        server.queue({"on": [{"at": "part", "do": "wait", "event": "handover"}], "answer": {"multipart": {}}})
    request = Request(client, kind="other")
    if upload:
        assert request.wait_until_asked().send(LARGE, last=False) == 0
        server.wait(server.last, "head")
    else:
        request.give(b"size: %d" % MANY_BYTES)
        server.wait(server.last, "part:1")
    waiting = Request(client, kind="other")
    client.signals.clear()
    two.down(first)
    if upload:
        assert request.send(b"the end") == 0
    server.give("handover")
    # The connection over the lost network is dead; it is given up after the time-out.
    code, _, keys = client.wait_for_signal("errorSignal", seconds=100)
    assert code in (2001, 2204) and request.key in keys.split()
    assert waiting.key not in keys.split()
    waiting.give(b"waited")
    assert waiting.fetch() == [b"waited"]
    assert NONE not in statuses(client)
    travels_over(second, client)


def slow_second(manager, milliseconds):
    """The second network's activation takes so long."""
    manager.start()
    manager.add("nmv0")
    manager.add("nmv1", **{"ipv4.dad-timeout": str(milliseconds), "connection.autoconnect": "no"})
    manager.up("nmv0")


def begin(manager, name):
    """Activates without waiting for the end of it."""
    manager.nmcli("--wait", "0", "connection", "up", name)


def test_handover_to_a_network_that_is_still_coming_up_is_no_loss(manager, server, client, platform_file):
    slow_second(manager, 1200)
    client.wait_for_status(KIND_ONE)
    client.signals.clear()
    begin(manager, "nmv1")
    manager.down("nmv0")
    platform_file("[Location]\nNetworkPositioning=true\n")  # a change that is no loss either
    poll_for(lambda: "activated" in manager.nmcli("--get-values", "GENERAL.STATE", "connection", "show", "nmv1"))
    travels_over("nmv1", client)
    assert NONE not in statuses(client)


@pytest.mark.slow
def test_handover_that_takes_too_long_is_a_loss_after_two_seconds(manager, client):
    slow_second(manager, 6000)
    client.wait_for_status(KIND_ONE)
    begin(manager, "nmv1")
    manager.down("nmv0")
    lost = time.monotonic()
    client.wait_for_status(NONE)
    assert 1.0 < time.monotonic() - lost < patience(3)
    client.wait_for_status(KIND_ONE, 20)
