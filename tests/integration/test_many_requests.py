"""Exchanges of very many requests and parts."""

import random

from harness import wire
from harness.client import PART_COMPLETE, RESPONSE_COMPLETE
from harness.request import Request, expect_no_error
from harness.response import CLOSING, answer, part, start_part


def ask_for_all(client, requests, data_of):
    """Gives every request its data in the order in which the daemon asks."""
    for request in requests:
        request.give(data_of(request))


def test_start_part_of_short_lines_outgrows_its_slices_unharmed(client, platform, server):
    platform.write(connections=[(2, True, False)])
    client.wait_for_status(1)
    # The shorter a line, the more carriage returns a slice of the document gains.
    connection = client.connect(element="a", kind="", version="", encoding="binary")
    attached = [Request(client, attached=True, connection=connection) for _ in range(1499)]
    requests = [Request(client, connection=connection), *attached]
    ask_for_all(client, requests, lambda request: request.key.encode())

    record = server.wait(1, seconds=60)
    boundary = wire.boundary_of(record)
    expected = wire.start_part(boundary, [("a", "", "")] * 1500)
    assert max(map(len, expected)) == wire.CAPACITY, "the document is too short to show anything"
    for number, request in enumerate(requests, 1):
        expected += wire.part(boundary, number, request.key.encode())
    expected += wire.closing(boundary)
    assert server.body(1) == b"".join(expected)
    assert record["chunks"] == [len(chunk) for chunk in expected]
    assert record["findings"] == []
    for request in requests:
        assert request.fetch() == [request.key.encode()]


def test_requests_of_many_clients_each_get_their_own_answer(make_client, platform, server):
    platform.write(connections=[(2, True, False)])
    clients = [make_client() for _ in range(10)]
    clients[0].wait_for_status(1)
    generator = random.Random(10)
    requests = []
    for number in range(100):
        encoding = generator.choice(["binary", "8bit"])
        request = Request(clients[number % 10], attached=True, kind="other", encoding=encoding)
        request.data = generator.randbytes(generator.randrange(5000))
        request.answer = request.data
        if encoding == "8bit":
            request.answer = wire.sent_data(request.data, number + 2, encoding)
        requests.append(request)
    starting = Request(clients[3], kind="other").give(b"go")
    # In the order of their ids, whoever they belong to.
    ask_for_all(None, requests, lambda request: request.data)

    calls = [(request, request.ask()) for request in requests]
    for request, call in calls:
        chunk = call.wait()
        data = chunk.data
        if chunk.code != RESPONSE_COMPLETE:
            data += request.fetch_part()[0]
        assert data == request.answer
    assert starting.fetch() == [b"go"]
    assert server.last == 1


def test_answer_of_two_thousand_parts(client, server):
    names = [f"p{number}" for number in range(2000)]
    parts = [part(name, name.upper()) + "\r\n" for name in names]
    server.queue(answer(start_part(*names) + "\r\n", *parts, CLOSING[2:], pack=16000))
    request = Request(client, kind="other").give(b"question")

    fetched = [request.fetch_part() for _ in names]
    assert [data for data, _ in fetched] == [name.upper().encode() for name in names]
    assert [code for _, code in fetched] == [PART_COMPLETE] * 1999 + [RESPONSE_COMPLETE]
    expect_no_error(client)


def test_answer_that_goes_on_from_part_to_part(client, server):
    parts = [
        part(f"p{number}", f"{number},", f"X-SLP-Next-part-ID: p{number + 1}") + "\r\n"
        for number in range(500)
    ]
    server.queue(answer(start_part("p0") + "\r\n", *parts, part("p500", "end") + CLOSING))

    fetched = Request(client, kind="other").give(b"question").fetch()
    assert fetched == [f"{number},".encode() for number in range(500)] + [b"end"]
    expect_no_error(client)


def test_many_exchanges_with_one_connection(client, server):
    connection = client.connect(kind="other")
    for number in range(20):
        request = Request(client, connection=connection).give(b"%d" % number)
        assert request.fetch() == [b"%d" % number]
        assert server.wait(number + 1)["slp"]["requests"][0]["oid"] == "1"
