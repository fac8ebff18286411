"""Whose ids mean what to whom, and how much a user may have, with the shipped bus policy."""

import pytest

from harness import agents
from harness.agents import PREFIXES
from harness.settings import BUS_NAME

directory, bus, make_agent = agents.FIXTURES

PROPERTIES = "org.freedesktop.DBus.Properties"
CONNECT = "(b'e', b't', b'v', b'x', b'c', @u 64)"
FAILURE = "com.kelvra.orvexd.Error"
HELD = None


@pytest.fixture(name="waiting_platform")
def fixture_waiting_platform(platform):
    """A network over which attached requests wait."""
    platform.write(connections=[(2, True, False)])


only_with_users = pytest.mark.skipif("member" not in PREFIXES, reason="no other user ids here")


@only_with_users
@pytest.mark.parametrize(
    "kind, is_known", [("member", True), ("root", True), ("other member", False)]
)
def test_ids_mean_something_to_root_and_to_their_user(
    kind, is_known, waiting_platform, daemon, make_agent
):
    # pylint: disable=unused-argument
    owner, guest = make_agent("member"), make_agent(kind)

    def is_there(request):
        return owner.do("pending", BUS_NAME, "getData", f"(@u 1, @u {request})") is HELD

    assert owner.do("call", BUS_NAME, "connect", CONNECT)[1] == [1]
    assert owner.do("call", BUS_NAME, "attach", "(@u 1, @u 2, @u 0)")[1] == [1]

    for member in ("attach", "prepare"):  # a prepared one has no network with policy 0
        error, answer = guest.do("call", BUS_NAME, member, "(@u 1, @u 0, @u 0)")
        known = (None, [2]) if member == "attach" else (FAILURE, ["(2204) unspecifiedError"])
        assert (error, answer) == (known if is_known else (FAILURE, ["(1001) unspecifiedError"]))
    sent = guest.do("call", BUS_NAME, "sendData", "(b'', false, @u 1, @u 1)")
    assert sent == [None, [57 if is_known else 1001]]
    asked = guest.do("pending", BUS_NAME, "getData", "(@u 1, @u 1)")
    assert asked == (HELD if is_known else [FAILURE])

    guest.do("emit", "cancel", "(@u 1, @u 1)")
    guest.do("call", PROPERTIES, "Get", f"('{BUS_NAME}', 'connectionStatus')")
    assert is_there(1) is not is_known

    assert guest.do("call", BUS_NAME, "disconnect", "(@u 1,)") == [None, None]
    error, _ = owner.do("call", BUS_NAME, "attach", "(@u 1, @u 2, @u 0)")
    assert error == (FAILURE if is_known else None)


# -- how much --------------------------------------------------------------------------------------


@only_with_users
def test_limits_hold_for_each_user_and_departed_clients_make_room(
    waiting_platform, daemon, make_agent, client
):
    # pylint: disable=unused-argument
    agent, stranger = make_agent("member"), make_agent("other member")
    full = "User 65534 has 4096 connections, the most that are allowed"
    assert agent.do("burst", "connect", CONNECT, 4097) == {"done": 4096, full: 1}
    full = "User 65534 has 16384 requests, the most that are allowed"
    answers = agent.do("burst", "attach", "(@u 1, @u 2, @u 0)", 16386)
    assert answers == {"done": 16384, full: 2}
    assert stranger.do("call", BUS_NAME, "connect", CONNECT)[0] is None

    # The oldest connection has all the requests. It goes when its client has left.
    agent.close()
    heir = make_agent("member")
    assert heir.do("call", BUS_NAME, "connect", CONNECT) == [None, [4098]]
    assert heir.do("call", BUS_NAME, "attach", "(@u 1, @u 2, @u 0)")[0] == FAILURE
    assert heir.do("call", BUS_NAME, "attach", "(@u 2, @u 2, @u 0)") == [None, [16385]]
    assert client.exchange(b"question", kind="other") == [b"question"]
