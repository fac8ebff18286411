"""Others that want the daemon's name on the bus, or have it."""

import functools

from gi.repository import GLib

from harness import matrix
from harness.daemon import Daemon
from harness.fault import Answered, Fault, one_request, rows
from harness.moment import SENT, ExchangeOver
from harness.raw_client import values
from harness.settings import BUS_NAME

bus, server, platform, preinst, daemon, fresh, scene = matrix.FIXTURES

ALLOW_REPLACEMENT, REPLACE, DO_NOT_QUEUE = 1, 2, 4
PRIMARY_OWNER, EXISTS = 1, 3


def request_name(raw, flags):
    return values(raw.ask_bus("RequestName", GLib.Variant("(su)", (BUS_NAME, flags))))[0]


def watch_owner(scene):
    """A client that is told of each change of the name's owner."""
    raw = scene.raw_client()
    raw.add_match(f"type='signal',member='NameOwnerChanged',arg0='{BUS_NAME}'")
    return raw


# -- while the daemon has it -----------------------------------------------------------------------


def take_name(scene):
    """Refused, in the middle of an exchange, which takes its course."""
    SENT.reach(scene)
    watcher = watch_owner(scene)
    for flags in (DO_NOT_QUEUE, REPLACE | DO_NOT_QUEUE, ALLOW_REPLACEMENT | REPLACE | DO_NOT_QUEUE):
        assert request_name(scene.raw_client(), flags) == EXISTS
    watcher.settle_bus()
    assert watcher.signals("NameOwnerChanged") == []
    SENT.let_go(scene)


def start_second(directory, scene):
    """It ends with status 1 and without a word; the first one and its exchange go on."""
    SENT.reach(scene)
    watcher = watch_owner(scene)
    second = Daemon(directory, scene.bus, scene.platform.path, scene.preinst)
    try:
        assert second.launch().wait() == 1
        second.expect_silence()
    finally:
        second.abandon()
    watcher.settle_bus()
    assert watcher.signals("NameOwnerChanged") == []
    SENT.let_go(scene)


# -- before the daemon starts ----------------------------------------------------------------------


def start_behind(flags, scene):
    """Another has the name when the daemon starts; the other is returned."""
    scene.daemon.stop()
    owner = scene.raw_client()
    assert request_name(owner, flags) == PRIMARY_OWNER
    scene.daemon.launch()
    return owner


def start_behind_keeper(scene):
    """It goes with the end of its connection, and then the daemon starts again."""
    owner = start_behind(DO_NOT_QUEUE, scene)
    assert scene.daemon.wait() == 1
    owner.close()


def start_behind_giver(scene):
    """The daemon takes the name from who allows it."""
    owner = start_behind(ALLOW_REPLACEMENT | DO_NOT_QUEUE, scene)
    owner.signal("NameLost")
    one_request(scene)


@rows(
    Fault("peer-wants-the-name", server=SENT.server, act=take_name, sees=[Answered(), ExchangeOver()]),
    Fault("name-is-taken", act=start_behind_keeper, ends=1),
    Fault("name-is-given-up", server={}, act=start_behind_giver, sees=[Answered(), ExchangeOver()]),
)
def test_bus_name(fault, scene):
    fault.play(scene)


def test_second_instance(tmp_path, scene):
    Fault(
        "second-instance",
        server=SENT.server,
        act=functools.partial(start_second, tmp_path),
        sees=[Answered(), ExchangeOver()],
    ).play(scene)
