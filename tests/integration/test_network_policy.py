"""Connections of the platform: the status, which requests may use which, and what a loss does."""

import socket

import pytest

from harness import observe
from harness.client import BusError
from harness.settings import patience

NONE, KIND_TWO, KIND_ONE, FLAGGED = 0, 1, 3, 5
CONNECTIONS = {
    NONE: [],
    KIND_TWO: [(2, True, False)],
    KIND_ONE: [(1, True, False)],
    FLAGGED: [(2, True, True)],
}
KIND_ONE_ONLY, NOT_FLAGGED, ANY = 1, 2, 3
POLICIES = (0, KIND_ONE_ONLY, NOT_FLAGGED, ANY, 4, 7, 2**32 - 1)
LISTS = {
    "no entry": ([], NONE),
    "inactive entries": ([(1, False, False), (2, False, False)], NONE),
    "inactive flagged entry": ([(2, False, True)], NONE),
    "kind 1": ([(1, True, False)], KIND_ONE),
    "kind 1, flagged": ([(1, True, True)], KIND_ONE),
    "kind 2": ([(2, True, False)], KIND_TWO),
    "kind 2, flagged": ([(2, True, True)], FLAGGED),
    "kind 0": ([(0, True, False)], FLAGGED),
    "kind 3": ([(3, True, False)], FLAGGED),
    "kind 3, flagged": ([(3, True, True)], FLAGGED),
    "negative kind": ([(-1, True, False)], FLAGGED),
    "kind 2 before kind 1": ([(2, True, False), (1, True, False)], KIND_TWO),
    "kind 1 before kind 2": ([(1, True, False), (2, True, True)], KIND_ONE),
    "inactive before active": ([(1, False, True), (2, True, False)], KIND_TWO),
    "unknown kind before kind 1": ([(9, True, False), (1, True, False)], FLAGGED),
}


def allowed(policy, status):
    """The rule: kind 1 suits everybody, any connection those who take any."""
    if policy == ANY or status == KIND_ONE:
        return True
    return policy == NOT_FLAGGED and status != FLAGGED


def refusal(call):
    with pytest.raises(BusError) as refused:
        call()
    return refused.value.code


def answer(client, connection, *requests):
    """Has these requests travel in this order, and fetches their answers."""
    for request in requests:
        client.wait_for_request_data(connection, request)
        assert client.sendData(connection, request, b"data %d" % request) == 0
    for request in requests:
        assert client.fetch(connection, request) == [b"data %d" % request]


def change(client, platform, connections, status):
    """Changes the list, and waits for the announcement of the status."""
    client.status()
    platform.write(connections=connections)
    client.wait_for_signal("connectionStatusChanged", (status,))


def start(client, platform, status):
    """Makes this the status that the daemon has reported."""
    platform.write(connections=CONNECTIONS[status])
    if client.status() != status:
        client.wait_for_signal("connectionStatusChanged", (status,))
    forget(client)


def forget(client):
    """Forgets the announcements so far."""
    client.settle()
    client.signals.clear()


def asked_for(client):
    """The requests whose data were asked for."""
    client.settle()
    return [signal.arguments for signal in client.signals if signal.name == "requestData"]


def errors(client):
    """The failures that were reported."""
    client.settle()
    return [signal.arguments for signal in client.signals if signal.name == "errorSignal"]


# -- status ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", LISTS)
def test_status_follows_the_first_active_entry(name, client, platform):
    connections, status = LISTS[name]
    opposite = NONE if status != NONE else KIND_ONE
    change_from(client, platform, opposite)
    platform.write(connections=connections)
    client.wait_for_signal("connectionStatusChanged", (status,))
    assert client.status() == status


def change_from(client, platform, status):
    """Has the daemon announce this status, so that the next one is a change."""
    platform.write(connections=CONNECTIONS[status])
    client.wait_for_status(status)
    forget(client)


@pytest.mark.parametrize("status", CONNECTIONS)
def test_status_at_the_start_is_not_announced_before_somebody_asks(
    status, make_daemon, platform, client_of
):
    platform.write(connections=CONNECTIONS[status])
    client = client_of(make_daemon().start())
    client.settle()
    assert client.signals == []
    assert client.status() == status


def test_unchanged_list_announces_nothing(client, platform):
    start(client, platform, KIND_TWO)
    platform.write()
    # A later change shows that the first one was seen.
    change(client, platform, CONNECTIONS[FLAGGED], FLAGGED)
    client.settle()
    assert client.signals == []


def test_flapping_connection_ends_with_the_last_status(client, platform):
    start(client, platform, KIND_ONE)
    for _ in range(20):
        platform.write(connections=[])
        platform.write(connections=CONNECTIONS[KIND_ONE])
    platform.write(connections=CONNECTIONS[KIND_TWO])
    client.wait_for_signal("connectionStatusChanged", (KIND_TWO,))
    assert client.status() == KIND_TWO


# -- policies --------------------------------------------------------------------------------------


@pytest.mark.parametrize("policy", POLICIES)
@pytest.mark.parametrize("status", CONNECTIONS)
def test_prepare_needs_a_connection_that_its_policy_allows(status, policy, client, platform):
    start(client, platform, status)
    connection = client.connect(kind="other")
    if not allowed(policy, status):
        assert refusal(lambda: client.prepare(connection, policy)) == 2204
        assert asked_for(client) == []
        return
    request = client.prepare(connection, policy)
    assert request == 1
    if status == NONE:
        lost = (2204, "Connection error", f"{connection}:{request}")
        assert client.wait_for_signal("errorSignal") == lost
    else:
        client.wait_for_request_data(connection, request)
        client.sendData(connection, request, b"data")


@pytest.mark.parametrize("policy", POLICIES)
@pytest.mark.parametrize("status", CONNECTIONS)
def test_attach_succeeds_always_and_starts_an_exchange_on_kind_1_only(
    status, policy, client, platform
):
    start(client, platform, status)
    connection = client.connect(kind="other")
    request = client.attach(connection, policy)
    if status == KIND_ONE:
        client.wait_for_request_data(connection, request)
        client.sendData(connection, request, b"data")
    else:
        assert asked_for(client) == []
        assert client.sendData(connection, request, b"data") == 57


def test_attach_before_the_first_report_waits(client):
    connection = client.connect(kind="other")
    waiting = client.attach(connection)
    client.settle()
    assert client.signals == []
    # The question for the status is what makes it known, but starts nothing.
    assert client.status() == KIND_ONE
    assert asked_for(client) == []
    starting = client.attach(connection)
    answer(client, connection, waiting, starting)


def test_refused_prepare_makes_the_status_known(client):
    connection = client.connect(kind="other")
    client.prepare(connection)
    assert client.wait_for_signal("connectionStatusChanged") == (KIND_ONE,)
    client.wait_for_request_data(connection, 1)
    client.sendData(connection, 1, b"data")


@pytest.mark.parametrize("flagged", [(2, False, True), (1, False, True)])
def test_any_flagged_entry_keeps_attached_requests_back(flagged, client, platform):
    change_from(client, platform, NONE)
    change(client, platform, [(1, True, False), flagged], KIND_ONE)
    connection = client.connect(kind="other")
    patient = client.attach(connection, NOT_FLAGGED)
    assert asked_for(client) == []
    # One that takes any connection takes the others along.
    eager = client.attach(connection, ANY)
    answer(client, connection, patient, eager)


def test_prepared_request_uses_a_flagged_connection(client, platform):
    change_from(client, platform, NONE)
    change(client, platform, [(1, True, True)], KIND_ONE)
    connection = client.connect(kind="other")
    waiting = client.attach(connection)
    assert asked_for(client) == []
    prepared = client.prepare(connection)
    answer(client, connection, prepared, waiting)


# -- changes while requests wait -------------------------------------------------------------------


@pytest.fixture(name="busy")
def fixture_busy(client, platform, server):
    """An exchange over kind 1 that waits for the server's event "go": the ids of its request."""
    start(client, platform, KIND_ONE)
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "go"}]})
    connection = client.connect(kind="position")
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    client.sendData(connection, request, b"busy")
    server.wait(1, "upload-end")
    return connection, request


def test_connection_of_kind_1_makes_attached_requests_travel(client, platform):
    start(client, platform, KIND_TWO)
    connection = client.connect(kind="other")
    first, second = client.attach(connection), client.attach(connection, KIND_ONE_ONLY)
    change(client, platform, CONNECTIONS[KIND_ONE], KIND_ONE)
    answer(client, connection, first, second)


def test_requests_wait_for_the_end_of_the_exchange(client, busy, server):
    connection = client.connect(kind="other")
    prepared, attached = client.prepare(connection), client.attach(connection)
    assert asked_for(client) == []
    server.give("go")
    assert client.fetch(*busy) == [b"busy"]
    answer(client, connection, prepared, attached)
    assert len(server.exchanges()) == 2


def test_prepared_requests_that_the_new_connection_forbids_are_dropped_in_string_order(
    client, platform, busy, server
):
    others = [client.connect(kind="other") for _ in range(9)]  # the ids 2 to 10
    early, late = client.prepare(others[0], KIND_ONE_ONLY), client.prepare(others[8], 0)
    staying = client.attach(others[0], KIND_ONE_ONLY)
    change(client, platform, CONNECTIONS[KIND_TWO], KIND_TWO)
    allowed_one = client.prepare(others[3], NOT_FLAGGED)
    server.give("go")
    assert client.fetch(*busy) == [b"busy"]
    assert client.wait_for_signal("errorSignal") == (
        2204,
        "Current network connection not allowed",
        f"{others[8]}:{late} {others[0]}:{early}",
    )
    answer(client, others[3], allowed_one)
    assert refusal(lambda: client.getData(others[0], early).wait()) == 41
    # The attached one stays, and travels when it may.
    assert client.sendData(others[0], staying, b"data") == 57
    platform.write(connections=CONNECTIONS[KIND_ONE])
    answer(client, others[0], staying)


def test_request_under_way_goes_on_over_another_connection(client, platform, busy, server):
    change(client, platform, CONNECTIONS[FLAGGED], FLAGGED)
    server.give("go")
    assert client.fetch(*busy) == [b"busy"]
    assert not errors(client)


# -- loss of the connection ------------------------------------------------------------------------


def test_loss_drops_prepared_requests_and_leaves_attached_ones(client, platform, busy, server):
    connection = client.connect(kind="other")
    prepared, attached = client.prepare(connection), client.attach(connection)
    platform.write(connections=[])
    lost = (2204, "Connection error", f"{connection}:{prepared}")
    assert client.wait_for_signal("errorSignal") == lost
    assert refusal(lambda: client.getData(connection, prepared).wait()) == 41
    assert client.sendData(connection, attached, b"data") == 57
    # The exchange itself goes on: nobody waited for its answer.
    server.give("go")
    assert client.fetch(*busy) == [b"busy"]
    platform.write(connections=CONNECTIONS[KIND_ONE])
    answer(client, connection, attached)


def test_loss_drops_prepared_requests_in_string_order(client, platform, busy, server):
    others = [client.connect(kind="other") for _ in range(9)]
    requests = [client.prepare(others[0]), client.prepare(others[8])]
    platform.write(connections=[])
    keys = f"{others[8]}:{requests[1]} {others[0]}:{requests[0]}"
    assert client.wait_for_signal("errorSignal") == (2204, "Connection error", keys)
    server.give("go")
    assert client.fetch(*busy) == [b"busy"]


def test_loss_gives_the_request_up_whose_client_waits(client, daemon, platform, busy, server):
    held = client.getData(*busy)
    client.settle()
    platform.write(connections=[])
    lost = (2204, "Connection error", "{}:{}".format(*busy))
    assert client.wait_for_signal("errorSignal") == lost
    # It travels on, and is known until its exchange ends.
    again = client.getData(*busy)
    client.settle()
    assert not again.done
    server.give("go")
    server.wait(1)
    observe.wait_until_idle(daemon.pid)
    assert refusal(lambda: client.getData(*busy).wait()) == 41
    client.settle()
    assert not held.done and not again.done


def test_every_notification_without_a_connection_counts_as_a_loss(client, platform, busy, server):
    change(client, platform, [], NONE)
    assert not errors(client)
    client.getData(*busy)
    client.settle()
    # The same list again: only now somebody waits.
    platform.write()
    assert client.wait_for_signal("errorSignal")[2] == "{}:{}".format(*busy)
    server.give("go")


def test_loss_without_anybody_concerned_is_no_error(client, platform):
    start(client, platform, KIND_ONE)
    client.connect()
    change(client, platform, [], NONE)
    client.settle()
    assert client.signals == []


def test_request_after_the_loss_is_accepted_and_reported(client, platform):
    change_from(client, platform, NONE)
    connection = client.connect()
    for policy in (NOT_FLAGGED, ANY):
        request = client.prepare(connection, policy)
        lost = (2204, "Connection error", f"{connection}:{request}")
        assert client.wait_for_signal("errorSignal") == lost
        assert refusal(lambda: client.getData(connection, request).wait()) == 41


# -- permission ------------------------------------------------------------------------------------


def test_withdrawn_permission_keeps_waiting_requests_back(client, daemon, platform, busy, server):
    connection = client.connect(kind="other")
    waiting = client.prepare(connection)
    platform.write(positioning=False)
    server.give("go")
    assert client.fetch(*busy) == [b"busy"]
    observe.wait_until_idle(daemon.pid)
    assert asked_for(client) == []
    assert client.sendData(connection, waiting, b"data") == 57
    # The notification of the file's change starts the exchange.
    platform.write(positioning=True)
    answer(client, connection, waiting)


# -- proxy -----------------------------------------------------------------------------------------


def test_proxy_without_a_port_is_asked_at_8080(client, platform):
    with socket.create_server(("127.47.11.2", 8080)) as proxy:
        proxy.settimeout(patience(10))
        platform.write(proxy=("127.47.11.2",))
        connection = client.connect()
        request = client.prepare(connection)
        peer, _ = proxy.accept()
        with peer:
            head = peer.recv(4096)
            assert head.startswith(b"CONNECT slp.kelvra.example:443 HTTP/1.1\r\n")
    assert client.wait_for_signal("errorSignal")[::2] == (2204, f"{connection}:{request}")


@pytest.mark.parametrize(
    ("host", "text"),
    [("[::1]", "Couldn't connect to server"), ("::1", "Couldn't resolve proxy name")],
)
def test_proxy_with_an_address_of_ipv6_is_never_reached(host, text, client, platform):
    with socket.create_server(("::1", 0), family=socket.AF_INET6) as proxy:
        platform.write(proxy=(host, proxy.getsockname()[1]))
        client.prepare(client.connect())
        assert client.wait_for_signal("errorSignal")[:2] == (2204, text)
        proxy.settimeout(0)
        with pytest.raises(BlockingIOError):
            proxy.accept()


def test_proxy_is_looked_up_for_each_exchange(client, platform, make_server):
    other = make_server()
    client.exchange(b"first", kind="other")
    platform.proxy = ("127.0.0.1", other.port)
    platform.write()
    client.exchange(b"second", kind="other")
    assert other.wait(1)["outcome"] == "answered"


@pytest.mark.parametrize("variable", ["no_proxy", "NO_PROXY"])
def test_environment_does_not_lead_past_the_proxy(
    variable, make_daemon, client_of, server
):
    daemon = make_daemon()
    daemon.environment[variable] = "*"
    daemon.environment["https_proxy"] = "http://127.0.0.1:1"
    client = client_of(daemon.start())
    assert client.exchange(b"data", kind="other") == [b"data"]
    assert server.wait(1)["proxy"]["target"] == "slp.kelvra.example:443"
