"""Servers that answer before the upload has ended."""

import dataclasses

from harness import curl, matrix, observe
from harness.fault import (
    DELIVERED,
    MISSING,
    PROTOCOL,
    TRANSPORT,
    Answered,
    Event,
    Failed,
    Fault,
    Seen,
    Server,
    rows,
)
from harness.request import errors
from harness.response import CLOSING, CONTENT_TYPE, answer, part, start_part
from harness.waiting import dispatch_pending

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

BODY = start_part("a") + "\r\n" + part("a", "data") + CLOSING
ANSWERED = Answered([b"data"])
UNKNOWN = 41  # the daemon knows the request no more


def early(point, *more, **values):
    """The answer at this point of the upload, whose rest is read unless `more` ends it."""
    return {"on": [*answer_at(point), *more], **answer(BODY, **values)}


def answer_at(point):
    """Only when the client has asked for its answer: what it sees depends on that."""
    return [{**point, "do": "wait", "event": "asked"}, {**point, "do": "answer"}]


POINTS = {
    "the-first-data": {"at": "head"},
    "the-first-byte": {"at": "upload"},
    "the-data-part": {"at": "upload", "part": 1},
    "100,000-bytes": {"at": "upload", "bytes": 100_000},
}


def keep_sending(scene):
    """The client sends piece after piece until it has its answer, or hears of a failure.

    The transfer looks for an answer whenever it has sent something, not while it waits for data.
    """
    request = scene.request().wait_until_asked()
    call = scene.ask()
    request.client.settle()
    scene.server.give("asked")
    while not call.done and not errors(request.client):
        if request.send(b"x" * 1000, last=False) != 0:
            break
        dispatch_pending()


@dataclasses.dataclass
class Reset(Server):
    """The server has reset the connection: what is sent from now on cannot arrive."""

    outcome: str = "reset by server"

    def check(self, scene):
        super().check(scene)  # the record is complete before the end
        observe.wait_until_cut_off(scene.daemon.pid)


@dataclasses.dataclass
class Ends(Seen):
    """The client ends its data, which are taken while the upload goes on. A transfer that is still
    busy with the data before may have come upon the connection's end, and be over."""

    may_be_over: bool = False

    def check(self, scene):
        result = scene.requests[self.request].send(b"end")
        assert result == 0 or (self.may_be_over and result == UNKNOWN), result


@dataclasses.dataclass
class Uploaded(Seen):
    """The server has got the whole upload."""

    whole: bool = True

    def check(self, scene):
        record = scene.server.wait(scene.server.last)
        assert record["upload_complete"] == self.whole, record["outcome"]


def early_answers():
    for name, point in POINTS.items():
        yield Fault(
            f"answers-before-{name}",
            server=early(point),
            act=keep_sending,
            sees=[ANSWERED, Ends(), Uploaded()],
        )
        yield Fault(
            f"answers-before-{name}-and-closes",
            server=early(point, *ends("close")),
            act=keep_sending,
            sees=[ANSWERED, Event("answered"), Server("closed by server"), Ends()],
        )
        yield Fault(
            f"answers-before-{name}-and-resets",
            server=early(point, *ends("reset")),
            act=keep_sending,
            sees=[
                ANSWERED,
                Event("answered"),
                Reset(),
                Ends(may_be_over=True),
                Failed(TRANSPORT, {curl.SEND_ERROR, curl.RECV_ERROR}, of=DELIVERED),
            ],
        )


def ends(action):
    """Only when the client has its answer, which a reset would overtake."""
    return [{"at": "answered", "do": "wait", "event": "answered"}, {"at": "answered", "do": action}]


def early_refusals():
    """The rest of the upload is of no use: libcurl ends it."""
    for name, point in POINTS.items():
        for status, code in {401: PROTOCOL, 404: TRANSPORT, 503: PROTOCOL}.items():
            told = f"no\r\nContent-Type: {CONTENT_TYPE}\r\nTransfer-Encoding: chunked"
            yield Fault(
                f"refuses-with-{status}-before-{name}",
                server=early(point, status=status, reason="no"),
                act=keep_sending,
                sees=[ANSWERED, Failed(code, told, of=DELIVERED), Uploaded(whole=False)],
            )
        yield Fault(
            f"refuses-with-a-page-before-{name}",
            server={
                "on": answer_at(point),
                "answer": {"status": 503, "content_type": "text/html", "body": "no"},
            },
            act=keep_sending,
            sees=[Failed(PROTOCOL, MISSING), Uploaded(whole=False)],
        )


@rows(*early_answers(), *early_refusals())
def test_server_upload(fault, scene):
    fault.play(scene)
