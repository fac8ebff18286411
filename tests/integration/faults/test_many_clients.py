"""A thousand clients at once, and ten thousand open connections."""

import resource

import pytest
from gi.repository import GLib

from harness import matrix
from harness.client import PART_CONTINUES
from harness.fault import Answered, Fault, one_request, rows
from harness.moment import ExchangeOver
from harness.private_bus import PrivateBus
from harness.raw_client import is_error, values

_, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

CLIENTS = 1000
CONNECTIONS = 10_000
AT_ONCE = 100  # calls of one client; the bus lets it wait for 128 answers
PARAMETERS = (b"ask", b"position", b"1.0", b"binary", b"text/plain", 1000)
GO = b"go"


@pytest.fixture(scope="module")
def many_files():
    """The tests themselves hold a socket for each client, and so does the bus."""
    limits = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = max(limits[0], CLIENTS + 500)
    resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, max(wanted, limits[1])))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, limits)


@pytest.fixture(scope="module")
def bus(tmp_path_factory, many_files):  # pylint: disable=unused-argument
    most = CLIENTS + 100
    limits = {"max_connections_per_user": most, "max_completed_connections": most}
    bus = PrivateBus(tmp_path_factory.mktemp("bus"), limits=limits)
    yield bus
    bus.stop()


# -- a thousand clients ----------------------------------------------------------------------------


class Visitor:
    """One of many clients, with a request of its own."""

    def __init__(self, scene):
        self.raw = scene.raw_client()
        self.call = self.connection = self.request = None

    def start(self, member, kind, *arguments):
        self.call = self.raw.start(member, GLib.Variant(kind, arguments))

    def result(self):
        """The answer of the call that was started last."""
        message = self.raw.answer(self.call, 60)
        assert not is_error(message), values(message)
        return values(message)

    def ids(self):
        return self.connection, self.request

    def data(self):
        return b"data of %d" % self.request


def ask_all(visitors, member, kind, arguments):
    """Every visitor calls, and only then are the answers taken."""
    for visitor in visitors:
        visitor.start(member, kind, *arguments(visitor))
    return [visitor.result() for visitor in visitors]


def let_in(scene):
    """The visitors, each with an attached request."""
    visitors = [Visitor(scene) for _ in range(CLIENTS)]
    connections = ask_all(visitors, "connect", "(ayayayayayu)", lambda _: PARAMETERS)
    for visitor, (connection,) in zip(visitors, connections):
        visitor.connection = connection
    requests = ask_all(visitors, "attach", "(uuu)", lambda each: (each.connection, 2, 0))
    for visitor, (request,) in zip(visitors, requests):
        visitor.request = request
    return visitors


def give_all(client, visitors):
    """Each gives its data when the daemon asks for them, which it does one after the other."""
    for visitor in visitors:
        client.wait_for_request_data(*visitor.ids())
        visitor.start("sendData", "(aybuu)", visitor.data(), True, *visitor.ids())
        assert visitor.result() == (0,)


def fetch_all(visitors):
    """Each gets its own answer, in as many chunks as it comes."""
    answers = {visitor: b"" for visitor in visitors}
    missing = visitors
    while missing:
        chunks = ask_all(missing, "getData", "(uu)", Visitor.ids)
        for visitor, (data, _) in zip(missing, chunks):
            answers[visitor] += bytes(data)
        missing = [each for each, (_, code) in zip(missing, chunks) if code == PART_CONTINUES]
    assert all(answer == visitor.data() for visitor, answer in answers.items())


def share_an_exchange(scene):
    """One prepared request takes all the attached ones along."""
    client = scene.client()
    client.wait_for_status(1)
    visitors = let_in(scene)
    scene.request(client, kind="position").give(GO)
    give_all(client, visitors)
    fetch_all(visitors)
    ask_all(visitors, "disconnect", "(u)", lambda each: (each.connection,))


# -- ten thousand connections ----------------------------------------------------------------------


def open_connections(scene):
    raw = scene.raw_client()
    body = GLib.Variant("(ayayayayayu)", PARAMETERS)
    connections = []
    for _ in range(CONNECTIONS // AT_ONCE):
        connections += call_at_once(raw, "connect", [body] * AT_ONCE)
    assert len(set(connections)) == CONNECTIONS
    one_request(scene)
    assert scene.fetch() == [b"question"]
    bodies = [GLib.Variant("(u)", (connection,)) for connection in connections]
    for start in range(0, CONNECTIONS, AT_ONCE):
        call_at_once(raw, "disconnect", bodies[start : start + AT_ONCE])


def call_at_once(raw, member, bodies):
    """The first value of each answer, as far as there is one."""
    calls = [raw.compose(member, body) for body in bodies]
    raw.send(*calls)
    answers = [raw.answer(call.get_serial()) for call in calls]
    raw.history.clear()
    assert not any(map(is_error, answers))
    return [value for answer in answers for value in values(answer)]


@rows(
    Fault(
        "1000-clients",
        server={},
        platform={"connections": [(2, True, False)]},
        act=share_an_exchange,
        sees=[Answered([GO]), ExchangeOver()],
    ),
    Fault("10000-connections", server={}, act=open_connections, sees=[ExchangeOver()]),
)
def test_many_clients(fault, scene):
    fault.play(scene)
