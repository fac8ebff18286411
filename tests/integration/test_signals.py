"""The outgoing signals: when, with what, in which order, and to whom."""

import pytest

from harness import observe
from harness.client import BusError
from harness.settings import BUS_NAME, OBJECT_PATH
from harness.waiting import wait_for

NO_MULTIPART = {"content_type": "text/plain", "body": "no multipart"}


def names(client):
    """The signals that have come and that nobody has taken."""
    client.settle()
    return [signal.name for signal in client.signals]


def begin(client, kind="other", **connect):
    """Connects, prepares, and waits for the question for data: the ids."""
    connection = client.connect(kind=kind, **connect)
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    return connection, request


def failure(client):
    """The next errorSignal."""
    return client.wait_for_signal("errorSignal")


# -- form ------------------------------------------------------------------------------------------


def test_signals_have_the_path_interface_and_signatures_of_the_interface(raw, client, server):
    server.queue({"answer": NO_MULTIPART})
    connection, request = begin(client)
    client.sendData(connection, request, b"data")
    failure(client)
    raw.settle()

    seen = {}
    for message in raw.received:
        assert message.get_interface() == BUS_NAME
        assert message.get_path() == OBJECT_PATH
        assert message.get_destination() is None
        seen[message.get_member()] = message.get_signature()
    assert seen == {"connectionStatusChanged": "u", "requestData": "uu", "errorSignal": "uss"}


def test_every_client_gets_every_signal(make_client):
    asking, first, second = make_client(), make_client(), make_client()
    connection, request = begin(asking)
    for listening in (first, second):
        listening.wait_for_request_data(connection, request)
    asking.sendData(connection, request, b"data")
    asking.fetch(connection, request)


def test_any_client_may_go_on_with_a_request(make_client):
    first, second = make_client(), make_client()
    connection, request = begin(first)
    assert second.sendData(connection, request, b"data") == 0
    assert second.fetch(connection, request) == [b"data"]


# -- connectionStatusChanged and requestData -------------------------------------------------------


def test_question_for_data_is_followed_by_the_status(client):
    client.status()
    client.wait_for_signal("connectionStatusChanged", (3,))
    connection = client.connect(kind="other")
    request = client.prepare(connection)
    assert client.wait_for_signal("connectionStatusChanged") == (3,)
    assert names(client) == ["requestData"]
    client.sendData(connection, request, b"data")
    client.fetch(connection, request)
    assert names(client) == ["requestData"]


@pytest.mark.parametrize(
    "kind", ["Position", "position ", "positions", "position\0", "", "fingerprint"]
)
def test_status_precedes_the_data_of_every_other_type(kind, client):
    client.status()
    client.wait_for_signal("connectionStatusChanged", (3,))
    connection = client.connect(kind=kind)
    request = client.prepare(connection)
    assert client.wait_for_signal("connectionStatusChanged") == (3,)
    client.sendData(connection, request, b"data")


def test_status_does_not_precede_the_data_of_a_position_request(client):
    client.status()
    client.wait_for_signal("connectionStatusChanged", (3,))
    client.exchange(b"data", kind="position")
    assert names(client) == []


def test_status_is_announced_once_for_each_part(client):
    client.status()
    client.wait_for_signal("connectionStatusChanged", (3,))
    connection, request = begin(client)
    for _ in range(5):
        client.sendData(connection, request, b"piece", last=False)
    client.sendData(connection, request, b"end")
    client.fetch(connection, request)
    assert names(client) == ["connectionStatusChanged"]


def test_prepare_announces_a_status_that_nobody_has_asked_for(client):
    connection = client.connect(kind="position")
    request = client.prepare(connection)
    assert client.wait_for_signal("connectionStatusChanged") == (3,)
    client.wait_for_request_data(connection, request)
    client.sendData(connection, request, b"data")


def test_each_request_of_an_exchange_is_asked_for_in_its_turn(client, platform):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    connection = client.connect(kind="position")
    attached = [client.attach(connection) for _ in range(2)]
    prepared = client.prepare(connection)
    for request in (prepared, *attached):
        client.wait_for_request_data(connection, request)
        assert "requestData" not in names(client)
        assert client.sendData(connection, request, b"data") == 0
    for request in (prepared, *attached):
        client.fetch(connection, request)


# -- errorSignal -----------------------------------------------------------------------------------


def test_failed_connection_is_2204_with_the_library_text(client, server):
    server.queue({"on": [{"at": "accept", "do": "reset"}]})
    connection = client.connect()
    request = client.prepare(connection)
    code, text, keys = failure(client)
    assert (code, keys) == (2204, f"{connection}:{request}")
    assert text != ""


@pytest.mark.parametrize(
    "status,code",
    [(400, 2001), (401, 2001), (403, 2001), (404, 2204), (418, 2204), (500, 2001), (503, 2001)],
)
def test_status_of_the_server_decides_the_code_and_its_reason_is_the_text(
    status, code, client, server
):
    server.queue({"answer": {"status": status, "reason": "No \u00e9 way"}})
    connection, request = begin(client)
    client.sendData(connection, request, b"data")
    got_code, text, keys = failure(client)
    assert (got_code, keys) == (code, f"{connection}:{request}")
    assert text.startswith("No \u00e9 way\r\n")


def test_answer_without_parts_is_2001(client, server):
    server.queue({"answer": NO_MULTIPART})
    connection, request = begin(client)
    client.sendData(connection, request, b"data")
    code, text, keys = failure(client)
    assert (code, keys) == (2001, f"{connection}:{request}")
    assert text == "missing MIME parts"


def test_text_that_is_no_utf8_is_made_valid(client, server):
    server.queue({"answer": {"status": 503, "reason": {"latin1": "Nicht verf\xfcgbar"}}})
    connection, request = begin(client)
    client.sendData(connection, request, b"data")
    assert failure(client)[1].startswith("Nicht verf\ufffdgbar\r\n")
    assert client.exchange(b"again", kind="other") == [b"again"]


def test_delivered_request_is_not_on_the_list_of_its_failed_exchange(client, platform, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    # Both are announced an answer, but only the first part comes.
    parts = [{"id": "a", "body": "first"}]
    results = [{"oid": "1", "href": "cid:a"}, {"oid": "2", "href": "cid:b"}]
    multipart = {"parts": parts, "results": results, "epilogue": {"do": "wait", "event": "go"}}
    server.queue({"answer": {"multipart": multipart}})
    connection = client.connect(kind="other")
    unanswered, answered = client.attach(connection), client.prepare(connection)
    client.wait_for_request_data(connection, answered)
    client.sendData(connection, answered, b"1")
    client.wait_for_request_data(connection, unanswered)
    client.sendData(connection, unanswered, b"2")
    assert client.fetch(connection, answered) == [b"first"]
    server.give("go")
    assert failure(client) == (2001, "missing MIME parts", f"{connection}:{unanswered}")


def test_list_of_a_failed_exchange_is_in_the_order_of_its_queue(client, platform, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    connections = [client.connect(kind="other") for _ in range(10)]
    client.attach(connections[1])
    client.attach(connections[9])
    server.queue({"on": [{"at": "accept", "do": "reset"}]})
    client.prepare(connections[0])
    assert failure(client)[2] == "1:3 2:1 10:2"


def test_failed_exchange_takes_answered_requests_of_earlier_ones_along(client, server):
    connection, answered = begin(client)
    client.sendData(connection, answered, b"data")
    server.wait(1)
    server.queue({"on": [{"at": "accept", "do": "reset"}]})
    failing = client.prepare(connection)
    # It is named alone, but both are gone.
    assert failure(client)[2] == f"{connection}:{failing}"
    for request in (answered, failing):
        with pytest.raises(BusError) as refused:
            client.getData(connection, request).wait()
        assert refused.value.code == 41


def test_request_that_was_not_part_of_the_failed_exchange_survives(client, server):
    steps = [{"at": "accept", "do": "wait", "event": "go"}, {"at": "accept", "do": "reset"}]
    server.queue({"on": steps})
    connection = client.connect(kind="other")
    failing, waiting = client.prepare(connection), client.prepare(connection)
    server.give("go")
    assert failure(client)[2] == f"{connection}:{failing}"
    client.wait_for_request_data(connection, waiting)
    client.sendData(connection, waiting, b"data")
    assert client.fetch(connection, waiting) == [b"data"]


def test_next_exchange_starts_at_once_after_a_failure(client, server):
    for number in range(1, 6):
        server.queue({"on": [{"at": "accept", "do": "reset"}]})
        connection = client.connect(kind="other")
        request = client.prepare(connection)
        assert failure(client)[2] == f"{connection}:{request}"
        text = b"number %d" % number
        assert client.exchange(text, kind="other") == [text]


def test_daemon_is_as_before_after_exchanges_of_every_end(client, daemon, server):
    client.exchange(b"first", kind="other")
    observe.wait_until_idle(daemon.pid)
    threads = observe.own_threads(daemon.pid)
    descriptors = observe.file_descriptors(daemon.pid)
    for behaviour in (
        {},
        {"on": [{"at": "accept", "do": "reset"}]},
        {"on": [{"at": "upload-end", "do": "cut"}]},
        {"answer": {"status": 500}},
        {"answer": {"stop_after": 10}},
        {"proxy": {"status": 403}},
    ):
        server.queue(behaviour)
        client.signals.clear()
        connection = client.connect(kind="other")
        request = client.prepare(connection)
        wait_for(lambda: any(s.name in ("requestData", "errorSignal") for s in client.signals))
        if "requestData" in names(client):
            assert client.sendData(connection, request, b"data") == 0
        if behaviour:
            failure(client)
        else:
            client.fetch(connection, request)
    observe.wait_until_idle(daemon.pid)
    assert observe.own_threads(daemon.pid) == threads
    assert observe.file_descriptors(daemon.pid).keys() == descriptors.keys()
    assert len(threads) == 2


def test_lists_of_a_thousand_keys_go_into_one_signal(client, platform, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    connection = client.connect(kind="other")
    for _ in range(1000):
        client.attach(connection)
    server.queue({"on": [{"at": "accept", "do": "reset"}]})
    client.prepare(connection)
    keys = failure(client)[2].split(" ")
    assert keys == ["1:1001"] + [f"1:{n}" for n in range(1, 1001)]
