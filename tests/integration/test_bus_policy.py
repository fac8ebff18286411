"""The shipped bus policy, loaded by a real dbus-daemon, with clients under different user ids.

Where the tests have only one user id, as in a user namespace of an ordinary user, only root's part of the
policy can be shown.
"""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from harness.private_bus import PrivateBus
from harness.settings import BUILD_DIR, BUS_NAME, ROOT, patience

POLICY = ROOT / "data" / "com.kelvra.orvexd.conf"
ORVEXCTL = BUILD_DIR / "bin" / "orvexctl"

# What the system bus allows before any service's own rules.
SYSTEM_RULES = """
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
"""

STRANGER_ID = 65534
MEMBER_GROUP = "games"  # in the place of "positioning", which a machine may lack; always there, id 60
MEMBER_GROUP_ID = 60

# A client that obeys lines of JSON: it must not depend on files that only root may read.
AGENT = """
import json, sys
from gi.repository import Gio, GLib
NAME, PATH = "com.kelvra.orvexd", "/com/kelvra/orvexd"
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
bus = Gio.DBusConnection.new_for_address_sync(sys.argv[1], flags, None, None)
signals = []
bus.signal_subscribe(None, NAME, None, None, None, 0, lambda *s: signals.append([s[4], s[5].unpack()]))

def bus_call(member, arguments):
    call = Gio.DBusMessage.new_method_call(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member)
    call.set_body(GLib.Variant.parse(None, arguments, None, None))
    return send(call)

def send(call):
    answer, _ = bus.send_message_with_reply_sync(call, Gio.DBusSendMessageFlags.NONE, 10000, None)
    body = answer.get_body()
    return [answer.get_error_name(), body.unpack() if body else None]

def call(interface, member, arguments):
    message = Gio.DBusMessage.new_method_call(NAME, PATH, interface, member)
    message.set_body(GLib.Variant.parse(None, arguments, None, None))
    return send(message)

def emit(member, arguments):
    bus.emit_signal(None, PATH, NAME, member, GLib.Variant.parse(None, arguments, None, None))
    bus.flush_sync(None)

def received():
    # Everything that the bus sent before this answer has arrived with it.
    bus_call("GetId", "@() ()")
    while GLib.MainContext.default().iteration(False):
        pass
    return signals

def own():
    return bus_call("RequestName", "('%s', @u 4)" % NAME)

print(json.dumps(bus_call("GetId", "@() ()")), flush=True)
for line in sys.stdin:
    name, *arguments = json.loads(line)
    print(json.dumps(globals()[name](*arguments)), flush=True)
"""


def has_other_ids():
    """Whether processes under other user ids can be made."""
    done = subprocess.run(
        ["setpriv", f"--reuid={STRANGER_ID}", f"--regid={STRANGER_ID}", "--clear-groups", "true"],
        capture_output=True,
        check=False,
    )
    return done.returncode == 0


PREFIXES = {"root": ["setpriv", "--pdeathsig", "KILL"]}
if has_other_ids():
    IDS = ["setpriv", f"--reuid={STRANGER_ID}", f"--regid={STRANGER_ID}"]
    # The signal comes last: a change of ids forgets it.
    PREFIXES["member"] = [*IDS, f"--groups={MEMBER_GROUP_ID}", *PREFIXES["root"]]
    PREFIXES["stranger"] = [*IDS, "--clear-groups", *PREFIXES["root"]]

each_kind = pytest.mark.parametrize("kind", PREFIXES)


class Agent:
    """A running client of one kind."""

    def __init__(self, kind, address):
        self._child = subprocess.Popen(
            [*PREFIXES[kind], "/usr/bin/python3", "-c", AGENT, address],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            cwd="/",
        )
        assert self._read()[0] is None

    def do(self, *command):
        """Runs one of the agent's functions; for calls, the error's name or None and the values."""
        self._child.stdin.write(json.dumps(command) + "\n")
        self._child.stdin.flush()
        return self._read()

    def _read(self):
        line = self._child.stdout.readline()
        assert line, "the client has ended"
        return json.loads(line)

    def close(self):
        self._child.stdin.close()
        self._child.wait()
        self._child.stdout.close()


REFUSED = "org.freedesktop.DBus.Error.AccessDenied"
FAILURE = "com.kelvra.orvexd.Error"


@pytest.fixture
def directory():
    """A place that other users can enter, which the tests' own directory is not."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="orvexd-policy-"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def bus(directory, reported):
    """A bus with the rules of a system bus and the shipped policy."""
    text = POLICY.read_text("utf-8")
    assert text.count('group="positioning"') == 1
    policy = directory / POLICY.name
    policy.write_text(text.replace('group="positioning"', f'group="{MEMBER_GROUP}"'), "utf-8")
    bus = PrivateBus(directory, policy=f"{SYSTEM_RULES}<include>{policy}</include>")
    yield reported("bus", bus)
    bus.stop()


@pytest.fixture
def make_agent(bus):
    """Starts clients of a kind."""
    agents = []

    def make(kind):
        agents.append(Agent(kind, bus.address))
        return agents[-1]

    yield make
    for agent in agents:
        agent.close()


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
    # The tree may lie where only its owner can enter.
    program = directory / "orvexctl"
    shutil.copy(ORVEXCTL, program)
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
