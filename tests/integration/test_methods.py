"""The methods and the incoming signal: arguments, results, error codes, and how calls match."""

import pytest
from gi.repository import GLib

from harness import observe
from harness.client import BusError
from harness.raw_client import is_error, values

ERROR = "com.kelvra.orvexd.Error"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
PEER = "org.freedesktop.DBus.Peer"
PROPERTIES = "org.freedesktop.DBus.Properties"
LARGEST = 2**32 - 1

CONNECT = GLib.Variant("(ayayayayayu)", (b"ask", b"other", b"1.0", b"binary", b"text/plain", 1000))
GOOD = {
    "connect": CONNECT,
    "disconnect": GLib.Variant("(u)", (1,)),
    "attach": GLib.Variant("(uuu)", (1, 2, 0)),
    "prepare": GLib.Variant("(uuu)", (1, 2, 0)),
    "sendData": GLib.Variant("(aybuu)", (b"data", True, 1, 1)),
    "getData": GLib.Variant("(uu)", (9, 9)),
    "quit": None,
    "quitDelayed": None,
}
WRONG = {
    "connect": [
        None,
        GLib.Variant("(ay)", (b"a",)),
        GLib.Variant("(ayayayayay)", (b"a", b"b", b"c", b"d", b"e")),
        GLib.Variant("(sssssu)", ("a", "b", "c", "d", "e", 1)),
        GLib.Variant("(ayayayaysu)", (b"a", b"b", b"c", b"d", "e", 1)),
        GLib.Variant("(ayayayayayi)", (b"a", b"b", b"c", b"d", b"e", 1)),
        GLib.Variant("(ayayayayayt)", (b"a", b"b", b"c", b"d", b"e", 1)),
        GLib.Variant("(ayayayayays)", (b"a", b"b", b"c", b"d", b"e", "1")),
        GLib.Variant("(auayayayayu)", ([1], b"b", b"c", b"d", b"e", 1)),
        GLib.Variant("(uayayayayay)", (1, b"a", b"b", b"c", b"d", b"e")),
        GLib.Variant("(v)", (GLib.Variant("u", 1),)),
    ],
    "attach": [
        None,
        GLib.Variant("(u)", (1,)),
        GLib.Variant("(uu)", (1, 2)),
        GLib.Variant("(uus)", (1, 2, "0")),
        GLib.Variant("(iuu)", (1, 2, 0)),
        GLib.Variant("(uiu)", (1, 2, 0)),
        GLib.Variant("(uut)", (1, 2, 0)),
        GLib.Variant("((uuu))", ((1, 2, 0),)),
    ],
    "sendData": [
        None,
        GLib.Variant("(ay)", (b"d",)),
        GLib.Variant("(ayb)", (b"d", True)),
        GLib.Variant("(aybu)", (b"d", True, 1)),
        GLib.Variant("(sbuu)", ("d", True, 1, 1)),
        GLib.Variant("(ayuuu)", (b"d", 1, 1, 1)),
        GLib.Variant("(aybui)", (b"d", True, 1, 1)),
        GLib.Variant("(aybus)", (b"d", True, 1, "1")),
        GLib.Variant("(asbuu)", (["d"], True, 1, 1)),
        GLib.Variant("(auaybuu)", ([1], b"d", True, 1, 1)),
    ],
    "getData": [
        None,
        GLib.Variant("(u)", (1,)),
        GLib.Variant("(us)", (1, "1")),
        GLib.Variant("(ii)", (1, 1)),
        GLib.Variant("(ui)", (1, 1)),
        GLib.Variant("(s)", ("1:1",)),
        GLib.Variant("(au)", ([1, 1],)),
    ],
}
WRONG["prepare"] = WRONG["attach"]
WRONG_WITH_2002 = [
    pytest.param(member, body, id=f"{member}-{body.get_type_string() if body else 'none'}")
    for member, bodies in WRONG.items()
    for body in bodies
]
WRONG_IDS = [
    None,
    GLib.Variant("(s)", ("1",)),
    GLib.Variant("(i)", (1,)),
    GLib.Variant("(ay)", (b"1",)),
    GLib.Variant("(v)", (GLib.Variant("u", 1),)),
]
WRONG_CANCELS = [
    *WRONG_IDS,
    GLib.Variant("(u)", (1,)),
    GLib.Variant("(us)", (1, "1")),
    GLib.Variant("(iu)", (1, 1)),
]


def signature(body):
    return body.get_type_string() if body else "none"


@pytest.fixture(name="platform")
def platform_without_server(platform_for_server):
    """Without a server nothing is connected either: no request of these tests leaves the daemon."""
    return platform_for_server


def assert_error(message, code):
    """The one error of the daemon, whose number stands in front of its one text."""
    assert is_error(message), values(message)
    assert message.get_error_name() == ERROR
    assert values(message) == (f"({code}) unspecifiedError",)


def assert_unknown_method(message):
    assert is_error(message), values(message)
    assert message.get_error_name() == UNKNOWN_METHOD


def result(message):
    """The only value of a good answer."""
    assert not is_error(message), values(message)
    (value,) = values(message)
    return value


# -- arguments -------------------------------------------------------------------------------------


@pytest.mark.parametrize("member,body", WRONG_WITH_2002)
def test_wrong_arguments_are_refused_with_2002(member, body, raw):
    assert result(raw.call("connect", CONNECT)) == 1
    assert_error(raw.call(member, body), 2002)


@pytest.mark.parametrize("body", WRONG_IDS, ids=signature)
def test_wrong_arguments_of_disconnect_are_refused_with_0(body, raw):
    assert_error(raw.call("disconnect", body), 0)


@pytest.mark.parametrize("member", ["connect", "disconnect", "attach", "sendData"])
def test_arguments_behind_the_last_one_are_accepted(member, raw):
    raw.call("connect", CONNECT)
    good = GOOD[member]
    longer = [good.get_child_value(n) for n in range(good.n_children())]
    longer += [GLib.Variant("s", "more"), GLib.Variant("as", ["and", "more"])]
    assert not is_error(raw.call(member, GLib.Variant.new_tuple(*longer)))


def test_arguments_behind_the_last_one_are_accepted_by_prepare(raw):
    raw.call("connect", CONNECT)
    assert result(raw.call("prepare", GLib.Variant("(uuus)", (1, 2, 0, "more")))) == 1


def test_arguments_behind_the_last_one_are_accepted_by_getdata(raw):
    assert_error(raw.call("getData", GLib.Variant("(uus)", (9, 9, "more"))), 41)


@pytest.mark.parametrize("member", ["quit", "quitDelayed"])
def test_any_arguments_are_accepted_where_none_is_read(member, daemon, raw):
    daemon.expect_end()
    assert values(raw.call(member, GLib.Variant("(su)", ("any", 1)))) == ()


def test_answers_have_the_signatures_of_the_interface(raw):
    signatures = {
        member: raw.call(member, GOOD[member]).get_signature()
        for member in ("connect", "attach", "prepare", "sendData", "disconnect", "quitDelayed")
    }
    assert signatures == {
        "connect": "u",
        "attach": "u",
        "prepare": "u",
        "sendData": "i",
        "disconnect": "",
        "quitDelayed": "",
    }


# -- which messages are meant ----------------------------------------------------------------------


@pytest.mark.parametrize("path", ["/", "/com", "/com/kelvra/orvexd/more", "/any/other"])
def test_calls_are_served_on_every_path(path, raw):
    assert result(raw.call("connect", CONNECT, path=path)) == 1
    status = GLib.Variant("(ss)", ("com.kelvra.orvexd", "connectionStatus"))
    assert result(raw.call("Get", status, interface=PROPERTIES, path=path)) == 0


@pytest.mark.parametrize("member", GOOD)
def test_call_without_an_interface_is_served(member, daemon, raw):
    raw.call("connect", CONNECT)
    daemon.expect_end()
    answer = raw.call(member, GOOD[member], interface=None)
    if member == "getData":
        assert_error(answer, 41)
    else:
        assert not is_error(answer), values(answer)


def test_property_call_without_an_interface_is_served(raw):
    status = GLib.Variant("(ss)", ("com.kelvra.orvexd", "connectionStatus"))
    assert result(raw.call("Get", status, interface=None)) == 0


@pytest.mark.parametrize("member", GOOD)
def test_call_on_another_interface_is_unknown(member, raw):
    assert_unknown_method(raw.call(member, GOOD[member], interface="com.kelvra.orvexd2"))
    assert_unknown_method(raw.call(member, GOOD[member], interface=PROPERTIES))


@pytest.mark.parametrize(
    "member", ["Connect", "CONNECT", "connect2", "senddata", "Quit", "get", "requestData", "x"]
)
def test_unknown_member_is_left_to_the_library(member, raw):
    assert_unknown_method(raw.call(member, CONNECT))


def test_cancel_as_a_method_is_not_recognised(raw):
    raw.call("connect", CONNECT)
    request = result(raw.call("attach", GLib.Variant("(uuu)", (1, 2, 0))))
    ids = GLib.Variant("(uu)", (1, request))
    assert_unknown_method(raw.call("cancel", ids))
    # It has not been cancelled: the call is held, not refused.
    held = raw.start("getData", ids)
    raw.settle()
    assert not raw.has_answer(held)


@pytest.mark.parametrize("member", ["GetAll", "Set", "get"])
def test_other_members_of_the_property_interface_are_unknown(member, raw):
    body = GLib.Variant("(ss)", ("com.kelvra.orvexd", "connectionStatus"))
    assert_unknown_method(raw.call(member, body, interface=PROPERTIES))


def test_library_answers_introspection_with_an_empty_node(raw):
    text = result(raw.call("Introspect", interface="org.freedesktop.DBus.Introspectable"))
    assert "<node" in text and "interface" not in text.split("<node")[1]


def test_library_answers_pings(raw):
    assert values(raw.call("Ping", interface=PEER)) == ()
    assert len(result(raw.call("GetMachineId", interface=PEER))) == 32


def test_call_that_wants_no_answer_is_served_all_the_same(raw):
    raw.send(raw.compose("connect", CONNECT, no_reply=True))
    assert result(raw.call("connect", CONNECT)) == 2


def test_signals_named_like_methods_are_ignored(raw):
    for member, body in GOOD.items():
        raw.emit(member, body)
    assert result(raw.call("connect", CONNECT)) == 1


# -- connections -----------------------------------------------------------------------------------


def test_ids_of_connections_count_from_1_and_are_not_reused(raw, make_raw_client):
    assert [result(raw.call("connect", CONNECT)) for _ in range(3)] == [1, 2, 3]
    raw.call("disconnect", GLib.Variant("(u)", (2,)))
    raw.call("disconnect", GLib.Variant("(u)", (3,)))
    assert result(raw.call("connect", CONNECT)) == 4
    assert result(make_raw_client().call("connect", CONNECT)) == 5


def test_refused_connect_uses_up_no_id(raw):
    raw.call("connect", GLib.Variant("(s)", ("wrong",)))
    assert result(raw.call("connect", CONNECT)) == 1


def test_connect_takes_empty_byte_arrays(raw):
    empty = GLib.Variant("(ayayayayayu)", (b"", b"", b"", b"", b"", 0))
    assert result(raw.call("connect", empty)) == 1
    assert result(raw.call("attach", GOOD["attach"])) == 1


def test_connect_takes_any_bytes_and_the_largest_chunk_size(raw):
    everything = bytes(range(256))
    body = GLib.Variant("(ayayayayayu)", (everything,) * 5 + (LARGEST,))
    assert result(raw.call("connect", body)) == 1


def test_connect_takes_large_arrays(client):
    assert client.connect(*[bytes(1 << 22)] * 5) == 1


def test_disconnect_of_an_unknown_connection_is_answered_all_the_same(raw):
    for connection in (0, 1, LARGEST):
        assert values(raw.call("disconnect", GLib.Variant("(u)", (connection,)))) == ()


def test_disconnected_connection_is_unknown_afterwards(raw):
    raw.call("connect", CONNECT)
    raw.call("disconnect", GOOD["disconnect"])
    assert_error(raw.call("prepare", GOOD["prepare"]), 1001)
    assert_error(raw.call("attach", GOOD["attach"]), 1001)
    assert result(raw.call("sendData", GOOD["sendData"])) == 1001


def test_disconnect_removes_waiting_requests_of_this_connection_only(raw):
    for _ in range(11):
        raw.call("connect", CONNECT)
    ids = {n: result(raw.call("attach", GLib.Variant("(uuu)", (n, 2, 0)))) for n in (1, 10, 11)}
    raw.call("disconnect", GLib.Variant("(u)", (1,)))
    assert_error(raw.call("getData", GLib.Variant("(uu)", (1, ids[1]))), 41)
    for connection in (10, 11):
        assert refused_data(raw, connection, ids[connection]) == 57


def refused_data(raw, connection, request):
    """What sendData makes of data for this request."""
    return result(raw.call("sendData", GLib.Variant("(aybuu)", (b"d", True, connection, request))))


# -- requests --------------------------------------------------------------------------------------


@pytest.mark.parametrize("member", ["attach", "prepare"])
@pytest.mark.parametrize("connection", [0, 1, LARGEST])
def test_request_on_an_unknown_connection_is_refused_with_1001(member, connection, raw):
    assert_error(raw.call(member, GLib.Variant("(uuu)", (connection, 2, 0))), 1001)


def test_unknown_connection_comes_before_the_policy(raw):
    assert_error(raw.call("prepare", GLib.Variant("(uuu)", (1, 0, 0))), 1001)


def test_ids_of_requests_are_one_sequence_for_all_connections(raw):
    raw.call("connect", CONNECT)
    raw.call("connect", CONNECT)
    calls = [("attach", 1), ("prepare", 2), ("attach", 2), ("prepare", 1)]
    ids = [result(raw.call(member, GLib.Variant("(uuu)", (n, 2, 0)))) for member, n in calls]
    assert ids == [1, 2, 3, 4]


def test_refused_request_uses_up_no_id(raw, platform):
    raw.call("connect", CONNECT)
    assert_error(raw.call("prepare", GLib.Variant("(uuu)", (9, 2, 0))), 1001)
    assert_error(raw.call("prepare", GLib.Variant("(uuu)", (1, 0, 0))), 2204)
    assert_error(raw.call("prepare", GLib.Variant("(u)", (1,))), 2002)
    platform.write(positioning=False)
    assert_error(raw.call("prepare", GOOD["prepare"]), 2205)
    platform.write(positioning=True)
    assert result(raw.call("attach", GOOD["attach"])) == 1


@pytest.mark.parametrize("duration", [0, 1, 10, 59, 60, 61, LARGEST])
def test_any_open_duration_is_taken(duration, raw):
    raw.call("connect", CONNECT)
    assert result(raw.call("attach", GLib.Variant("(uuu)", (1, 2, duration)))) == 1
    assert result(raw.call("prepare", GLib.Variant("(uuu)", (1, 2, duration)))) == 2


@pytest.mark.parametrize("member", ["attach", "prepare"])
def test_request_without_permission_is_refused_with_2205_whatever_its_arguments(
    member, raw, platform
):
    raw.call("connect", CONNECT)
    platform.write(positioning=False)
    assert_error(raw.call(member, GOOD[member]), 2205)
    for body in WRONG[member]:
        assert_error(raw.call(member, body), 2205)
    assert_error(raw.call(member, GLib.Variant("(uuu)", (99, 2, 0))), 2205)
    platform.write(positioning=True)
    assert result(raw.call(member, GOOD[member])) == 1


def test_permission_matters_to_attach_and_prepare_only(raw, platform):
    platform.write(positioning=False)
    assert result(raw.call("connect", CONNECT)) == 1
    assert refused_data(raw, 1, 1) == 41
    assert_error(raw.call("getData", GOOD["getData"]), 41)
    assert not is_error(raw.call("disconnect", GOOD["disconnect"]))


# -- data ------------------------------------------------------------------------------------------


def test_senddata_tests_connection_then_request_then_turn(raw):
    assert refused_data(raw, 1, 1) == 1001
    raw.call("connect", CONNECT)
    assert refused_data(raw, 1, 1) == 41
    raw.call("attach", GOOD["attach"])
    assert refused_data(raw, 1, 1) == 57
    assert refused_data(raw, 1, 2) == 41
    assert refused_data(raw, 2, 1) == 1001


def test_senddata_needs_the_connection_of_the_request(raw):
    raw.call("connect", CONNECT)
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    assert refused_data(raw, 2, 1) == 41


@pytest.mark.usefixtures("server")
def test_empty_data_are_accepted(client):
    connection = client.connect(kind="other")
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    assert client.sendData(connection, request, b"", last=False) == 0
    assert client.sendData(connection, request, b"x", last=False) == 0
    assert client.sendData(connection, request, b"", last=True) == 0
    assert client.fetch(connection, request) == [b"x"]


def test_data_of_all_bytes_are_kept(client, server):
    data = bytes(range(256)) * 3
    assert client.exchange(data, kind="other") == [data]
    assert server.wait(1)["parts"][1]["bytes"] == len(data)


def test_zero_bytes_in_the_parameters_of_connect_are_kept(client, server):
    server.default({"answer": {"status": 500}})
    connection = client.connect(
        kind="other", encoding=b"bin\0ary", content_type=b"text/\0plain\0", version=b"1\0"
    )
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    assert client.sendData(connection, request, b"a\0b") == 0
    server.wait(1)
    body = server.body(1)
    assert b"\r\nContent-Type: text/\0plain\0\r\n" in body
    assert b"\r\nContent-Transfer-Encoding: bin\0ary\r\n" in body
    assert b"\r\n\r\na\0b\r\n" in body


def test_empty_parameters_of_connect_reach_the_server_empty(client, server):
    server.default({"answer": {"status": 500}})
    connection = client.connect("ask", "", "", "", "")
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    assert client.sendData(connection, request, b"data") == 0
    server.wait(1)
    body = server.body(1)
    assert b'<ask type="" version="" oid="1"' in body
    assert b"\r\nContent-Type: \r\nContent-Transfer-Encoding: \r\nContent-Id: part1\r\n" in body


@pytest.mark.usefixtures("server")
def test_data_after_the_last_are_refused_with_57(client):
    connection = client.connect(kind="other")
    first = client.prepare(connection)
    second = client.prepare(connection)
    client.wait_for_request_data(connection, first)
    assert client.sendData(connection, second, b"too early") == 57
    assert client.sendData(connection, first, b"first") == 0
    client.fetch(connection, first)
    assert client.sendData(connection, first, b"too late") in (41, 57)
    client.wait_for_request_data(connection, second)
    assert client.sendData(connection, second, b"second") == 0
    assert client.fetch(connection, second) == [b"second"]


def test_getdata_of_an_unknown_request_is_refused_with_41(raw):
    raw.call("connect", CONNECT)
    for connection, request in ((0, 0), (1, 1), (1, LARGEST), (LARGEST, 1)):
        assert_error(raw.call("getData", GLib.Variant("(uu)", (connection, request))), 41)


def test_getdata_needs_the_connection_of_the_request(raw):
    raw.call("connect", CONNECT)
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    assert_error(raw.call("getData", GLib.Variant("(uu)", (2, 1))), 41)


# -- after disconnect ------------------------------------------------------------------------------


def test_request_under_way_outlives_its_connection_until_the_exchange_ends(client, daemon, server):
    connection = client.connect(kind="other")
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    client.disconnect(connection)
    # Its data are refused for want of the connection, but itself is still found.
    assert client.sendData(connection, request, b"data") == 1001
    held = client.getData(connection, request)
    client.cancel(connection, request)
    client.settle()
    assert not held.done
    # Five seconds without data close its part; the answer comes, and finds a cancelled request.
    assert server.wait(1)["outcome"] == "answered"
    observe.wait_until_idle(daemon.pid)
    with pytest.raises(BusError) as refused:
        client.getData(connection, request).wait()
    assert refused.value.code == 41
    client.settle()
    assert not held.done


# -- cancel ----------------------------------------------------------------------------------------


def test_cancelled_waiting_request_is_gone(raw):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    raw.emit("cancel", GLib.Variant("(uu)", (1, 1)))
    assert_error(raw.call("getData", GLib.Variant("(uu)", (1, 1))), 41)


@pytest.mark.parametrize("path", ["/", "/elsewhere"])
def test_cancel_is_heard_on_every_path_and_from_everybody(path, raw, make_raw_client):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    other = make_raw_client()
    other.emit("cancel", GLib.Variant("(uu)", (1, 1)), path=path)
    other.settle()
    assert_error(raw.call("getData", GLib.Variant("(uu)", (1, 1))), 41)


def test_cancel_with_further_arguments_is_accepted(raw):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    raw.emit("cancel", GLib.Variant("(uus)", (1, 1, "more")))
    assert_error(raw.call("getData", GLib.Variant("(uu)", (1, 1))), 41)


def test_cancel_of_an_unknown_request_does_nothing(raw):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    for connection, request in ((0, 0), (1, 2), (2, 1), (LARGEST, LARGEST)):
        raw.emit("cancel", GLib.Variant("(uu)", (connection, request)))
    assert refused_data(raw, 1, 1) == 57
    assert raw.received == []


def test_cancel_on_another_interface_is_ignored(raw):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    raw.emit("cancel", GLib.Variant("(uu)", (1, 1)), interface="com.kelvra.orvexd2")
    assert refused_data(raw, 1, 1) == 57


def test_good_cancel_gets_no_answer(raw):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    serial = raw.emit("cancel", GLib.Variant("(uu)", (1, 1)))
    raw.settle()
    assert not raw.has_answer(serial)


@pytest.mark.parametrize("body", WRONG_CANCELS, ids=signature)
def test_wrong_arguments_of_cancel_get_error_0_sent_to_the_sender(body, raw):
    raw.call("connect", CONNECT)
    raw.call("attach", GOOD["attach"])
    assert_error(raw.answer(raw.emit("cancel", body)), 0)
    assert refused_data(raw, 1, 1) == 57


def test_wrong_cancel_on_a_bus_that_blocks_unwanted_errors_does_no_harm(
    make_daemon, make_bus, make_raw_client
):
    policy = (
        '<policy context="default"><allow user="*"/><allow own="*"/>'
        '<deny send_type="method_call"/><allow send_type="signal"/>'
        '<allow send_requested_reply="true" send_type="method_return"/>'
        '<allow send_requested_reply="true" send_type="error"/>'
        '<allow receive_type="method_call"/><allow receive_type="method_return"/>'
        '<allow receive_type="error"/><allow receive_type="signal"/>'
        '<allow send_destination="com.kelvra.orvexd"/>'
        '<allow send_destination="org.freedesktop.DBus"/></policy>'
    )
    bus = make_bus(policy=policy)
    daemon = make_daemon()
    daemon.environment["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address
    daemon.start()
    client = make_raw_client(bus.address)
    serial = client.emit("cancel", GLib.Variant("(s)", ("wrong",)))
    assert result(client.call("connect", CONNECT)) == 1
    assert not client.has_answer(serial)


def test_answers_and_errors_that_nobody_wants_are_ignored(raw):
    call = raw.compose("connect", CONNECT)
    call.set_sender("com.kelvra.orvexd")
    answer, error = call.new_method_reply(), call.new_method_error_literal("com.example.E", "text")
    answer.set_serial(1000)
    error.set_serial(1001)
    raw.send(answer, error)
    assert result(raw.call("connect", CONNECT)) == 1
