"""The shipped bus policy, loaded by a real dbus-daemon, with clients under different user ids.

Where the tests have only one user id, as in a user namespace of an ordinary user, only root's part of the
policy can be shown.
"""

import os
import subprocess

import pytest
from gi.repository import GLib

from harness import agents
from harness.agents import PREFIXES
from harness.bus_connection import connect
from harness.private_bus import PERMISSIVE_POLICY
from harness.program import copy_of_orvexctl
from harness.settings import BUS_NAME, ROOT, patience

directory, bus, make_agent = agents.FIXTURES


each_kind = pytest.mark.parametrize("kind", ["root", "member", "stranger"][: len(PREFIXES)])

REFUSED = "org.freedesktop.DBus.Error.AccessDenied"
FAILURE = "com.kelvra.orvexd.Error"


@each_kind
def test_only_root_may_own_the_name(kind, make_agent):
    error, values = make_agent(kind).do("own")
    if kind == "root":
        assert (error, values) == (None, [1])
    else:
        assert error == REFUSED


@each_kind
@pytest.mark.parametrize(
    "interface, member, arguments, error",
    [
        (BUS_NAME, "connect", "(b'e', b't', b'v', b'x', b'c', @u 64)", None),
        (BUS_NAME, "disconnect", "(@u 1,)", None),
        (BUS_NAME, "prepare", "(@u 1, @u 2, @u 0)", FAILURE),
        (BUS_NAME, "attach", "(@u 1, @u 2, @u 0)", FAILURE),
        (BUS_NAME, "sendData", "(b'', true, @u 1, @u 1)", None),
        (BUS_NAME, "getData", "(@u 1, @u 1)", FAILURE),
        (None, "disconnect", "(@u 1,)", None),
        ("org.freedesktop.DBus.Properties", "Get", f"('{BUS_NAME}', 'connectionStatus')", None),
        ("org.freedesktop.DBus.Peer", "Ping", "@() ()", None),
    ],
)
def test_work_is_for_root_and_members(
    kind, interface, member, arguments, error, daemon, make_agent
):  # pylint: disable=too-many-arguments,unused-argument
    answer = make_agent(kind).do("call", interface, member, arguments)[0]
    assert answer == (REFUSED if kind == "stranger" else error)


@each_kind
@pytest.mark.parametrize("interface", [BUS_NAME, None])
@pytest.mark.parametrize("member", ["quit", "quitDelayed"])
def test_ending_the_daemon_is_for_root_only(kind, member, interface, daemon, make_agent):
    daemon.expect_end()
    answer = make_agent(kind).do("call", interface, member, "@() ()")[0]
    assert answer == (None if kind == "root" else REFUSED)


@each_kind
def test_cancel_is_for_root_and_members(kind, make_agent):
    observer, sender = make_agent("root"), make_agent(kind)
    sender.do("emit", "cancel", "(@u 1, @u 2)")
    sender.do("received")
    observer.do("emit", "cancel", "(@u 3, @u 4)")
    passed = [] if kind == "stranger" else [["cancel", [1, 2]]]
    assert observer.do("received") == [*passed, ["cancel", [3, 4]]]


@each_kind
@pytest.mark.parametrize(
    "member, arguments",
    [
        ("requestData", "(@u 1, @u 2)"),
        ("errorSignal", "(@u 2204, '', '1:2')"),
        ("connectionStatusChanged", "(@u 0,)"),
    ],
)
def test_only_root_speaks_for_the_daemon(kind, member, arguments, make_agent):
    observer, sender = make_agent("root"), make_agent(kind)
    sender.do("emit", member, arguments)
    sender.do("received")
    seen = [name for name, _ in observer.do("received")]
    assert seen == ([member] if kind == "root" else [])


@each_kind
def test_signals_are_for_root_and_members(kind, make_agent):
    daemon, listener, observer = make_agent("root"), make_agent(kind), make_agent("root")
    daemon.do("emit", "connectionStatusChanged", "(@u 5,)")
    daemon.do("received")
    expected = [["connectionStatusChanged", [5]]]
    assert observer.do("received") == expected
    assert listener.do("received") == ([] if kind == "stranger" else expected)


def run_orvexctl(kind, words, bus, directory):
    """Runs it to its end under the user id of a kind of client."""
    program = copy_of_orvexctl(directory)
    return subprocess.run(
        [*PREFIXES[kind], program, *words],
        env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": bus.address},
        cwd="/",
        capture_output=True,
        text=True,
        timeout=patience(30),
        check=False,
    )


@each_kind
@pytest.mark.parametrize("words", [["status"], ["cancel", "1", "1"], ["quit"]], ids=" ".join)
def test_orvexctl_explains_a_refusal(kind, words, daemon, bus, directory):
    daemon.expect_end()
    done = run_orvexctl(kind, words, bus, directory)
    if kind == "root" or (kind == "member" and words != ["quit"]):
        assert done.returncode == 0, done.stderr
    else:
        assert done.returncode == 4, done.stderr
        assert "positioning" in done.stderr


@pytest.mark.skipif("stranger" not in PREFIXES, reason="no other user ids here")
def test_orvexctl_does_not_monitor_what_the_bus_keeps_back(daemon, bus, directory):
    done = run_orvexctl("stranger", ["monitor"], bus, directory)
    assert done.returncode == 4, done.stderr
    assert "positioning" in done.stderr


def test_example_of_bus_limits_bounds_the_connections_of_a_user(make_bus):
    example = ROOT / "data" / "bus-limits.conf"
    bus = make_bus(policy=f"{PERMISSIVE_POLICY}<include>{example}</include>")
    connections = [connect(bus.address) for _ in range(16)]
    with pytest.raises(GLib.Error, match="LimitsExceeded"):
        connect(bus.address)
    for connection in connections:
        connection.close_sync(None)
