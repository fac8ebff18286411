"""Clients under other user ids, each a process of its own.

Where the tests have only one user id, as in a user namespace of an ordinary user, there is only root.
"""

import json
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from .private_bus import PrivateBus
from .settings import ROOT

POLICY = ROOT / "data" / "com.kelvra.orvexd.conf"

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
OTHER_ID = 5  # games, too; a bus knows the groups of users that the machine knows
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

def pending(interface, member, arguments):
    # What answers the call at once; None when it is held. The daemon answers in order.
    answers = []
    message = Gio.DBusMessage.new_method_call(NAME, PATH, interface, member)
    message.set_body(GLib.Variant.parse(None, arguments, None, None))
    bus.send_message_with_reply(
        message, Gio.DBusSendMessageFlags.NONE, 10000, None, lambda bus, result: answers.append(result))
    call("org.freedesktop.DBus.Properties", "Get", "('%s', 'connectionStatus')" % NAME)
    while GLib.MainContext.default().iteration(False):
        pass
    return [bus.send_message_with_reply_finish(each).get_error_name() for each in answers] or None

def burst(member, arguments, count):
    # So many calls, as many at once as a bus allows: how often they were answered in which way.
    counts, loop, body = {}, GLib.MainLoop(), GLib.Variant.parse(None, arguments, None, None)
    left = [count]
    def start():
        left[0] -= 1
        message = Gio.DBusMessage.new_method_call(NAME, PATH, NAME, member)
        message.set_body(body)
        bus.send_message_with_reply(message, Gio.DBusSendMessageFlags.NONE, 100000, None, on_answer)
    def on_answer(bus, result):
        answer = bus.send_message_with_reply_finish(result)
        word = answer.get_body().unpack()[0] if answer.get_error_name() else "done"
        counts[word] = counts.get(word, 0) + 1
        if left[0] > 0:
            start()
        elif sum(counts.values()) == count:
            loop.quit()
    for _ in range(min(count, 100)):
        start()
    loop.run()
    return counts

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
    PREFIXES["other member"] = [
        "setpriv",
        f"--reuid={OTHER_ID}",
        f"--regid={OTHER_ID}",
        f"--groups={MEMBER_GROUP_ID}",
        *PREFIXES["root"],
    ]

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
        if self._child.stdin.closed:
            return
        self._child.stdin.close()
        self._child.wait()
        self._child.stdout.close()


@pytest.fixture(name="directory")
def _directory():
    """A place that other users can enter, which the tests' own directory is not."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="orvexd-policy-"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture(name="bus")
def _bus(directory, reported):
    """A bus with the rules of a system bus and the shipped policy."""
    text = POLICY.read_text("utf-8")
    assert text.count('group="positioning"') == 1
    policy = directory / POLICY.name
    policy.write_text(text.replace('group="positioning"', f'group="{MEMBER_GROUP}"'), "utf-8")
    bus = PrivateBus(directory, policy=f"{SYSTEM_RULES}<include>{policy}</include>")
    yield reported("bus", bus)
    bus.stop()


@pytest.fixture(name="make_agent")
def _make_agent(bus):
    """Starts clients of a kind."""
    agents = []

    def make(kind):
        agents.append(Agent(kind, bus.address))
        return agents[-1]

    yield make
    for agent in agents:
        agent.close()


FIXTURES = (_directory, _bus, _make_agent)
