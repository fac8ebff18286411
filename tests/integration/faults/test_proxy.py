"""Proxies that refuse, end, or cannot be found, and names at the limit of the platform's record.

The daemon of this group finds host names in a file of the group's own and nowhere else: no name
server is asked, and a name may be as long as a row wants it.
"""

import dataclasses

import pytest

from harness import curl, matrix, shared
from harness.daemon import Daemon
from harness.fault import (
    HOLD,
    TRANSPORT,
    Answered,
    Failed,
    Fault,
    Seen,
    early_call,
    rows,
    without_call,
)
from harness.settings import DAEMON, SERVER_HOST
from harness.slp_server import TestServer

bus, server, platform, preinst, _, fresh, scene = matrix.FIXTURES

PRESET = "127.47.11.5", 8080  # where the port is the one that a proxy without a port has
NOBODY = "127.47.11.6"
ROOM = 131  # bytes of a host name in the platform's record
LONG_NAME = ("p" * 40 + ".") * 25 + "proxy.kelvra.example"
OF_TWO_BYTES = "x" + "é" * 14 + "." + ("é" * 20 + ".") * 2 + "proxy.kelvra.example"

# Names are found in /etc/hosts alone, and that is ours.
WITH_OWN_NAMES = """
mount --bind "$0/hosts" /etc/hosts
mount --bind "$0/nsswitch.conf" /etc/nsswitch.conf
exec "$@"
"""


def name_of(size):
    """A host name of so many bytes."""
    return LONG_NAME[-size:]


def known_names():
    """The names of the hosts file, all of them for this machine."""
    return [name_of(size) for size in (ROOM - 1, ROOM, ROOM + 1)]


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    hosts = "".join(f"127.0.0.1 {name}\n" for name in known_names())
    (directory / "hosts").write_text(hosts, "ascii")
    (directory / "nsswitch.conf").write_text("hosts: files\n", "ascii")
    daemon = Daemon(directory, bus, platform.path, preinst)
    own_mounts = ["unshare", "--mount", "--propagation", "private"]
    daemon.program = [*own_mounts, "sh", "-ec", WITH_OWN_NAMES, directory, DAEMON]
    yield from shared.running(daemon)


@pytest.fixture(name="preset", scope="module")
def preset_proxy(tmp_path_factory, keys):
    """A further test server, at the preset port."""
    host, port = PRESET
    server = TestServer(tmp_path_factory.mktemp("preset"), keys, "--port", port, host=host)
    yield server
    server.stop()


# -- where the proxy is ----------------------------------------------------------------------------


def through(host):
    """Acts with the test server as the proxy, by this name."""

    def act(scene):
        scene.platform.write(proxy=(host, scene.server.port))
        early_call(scene)

    return act


@dataclasses.dataclass
class Led(Seen):
    """The exchange came through the test server as the proxy, which was told where to."""

    def check(self, scene):
        record = scene.server.wait(scene.server.last)
        assert record["proxy"]["target"] == f"{SERVER_HOST}:443"


# -- rows ------------------------------------------------------------------------------------------

CHALLENGE = ["Proxy-Authenticate", 'Basic realm="proxy"']
FAILED = Failed(TRANSPORT, curl.RECV_ERROR)
RESET = Failed(TRANSPORT, {curl.RECV_ERROR, curl.SEND_ERROR})
RESET_AT_ONCE = Failed(TRANSPORT, {*RESET.text, curl.COULDNT_CONNECT})


def refuses(name, status, *headers):
    proxy = {"status": status, "headers": headers, "body": "no\r\n"}
    return Fault(
        f"refuses-{name}", server={"on": [HOLD], "proxy": proxy}, act=early_call, sees=[FAILED]
    )


def ends(name, point, action, seen):
    """Ends the connection at this point of the proxy's script."""
    script = [HOLD, {"at": point, "do": action}]
    return Fault(f"{action}s-{name}", server={"on": script}, act=early_call, sees=[seen])


def breaks_off(name, raw, action="close", seen=FAILED):
    """Answers CONNECT with this and ends the connection."""
    script = [HOLD, {"at": "tunnel", "do": action}]
    return Fault(
        f"{action}s-{name}",
        server={"on": script, "proxy": {"raw": raw}},
        act=early_call,
        sees=[seen],
    )


REFUSALS = [
    refuses("with-403", 403),
    refuses("with-407", 407),
    refuses("with-407-and-a-challenge", 407, CHALLENGE),
    refuses("with-502", 502),
    refuses("with-a-redirection", 302, ["Location", f"https://{SERVER_HOST}:443/"]),
]

ENDS = [
    ends("before-it-reads", "accept", "close", FAILED),
    ends("before-it-reads", "accept", "reset", RESET_AT_ONCE),
    ends("before-it-answers", "connect", "close", FAILED),
    ends("before-it-answers", "connect", "cut", FAILED),
    ends("before-it-answers", "connect", "reset", RESET),
    breaks_off("in-the-status-line", "HTTP/1.1 2"),
    breaks_off("in-the-status-line", "HTTP/1.1 2", "reset", RESET),
    breaks_off("behind-the-status-line", "HTTP/1.1 200 Connection established\r\n"),
    breaks_off("before-the-empty-line", "HTTP/1.1 200 OK\r\nVia: 1.1 proxy\r\n"),
    breaks_off("before-the-empty-line", "HTTP/1.1 200 OK\r\nVia: 1.1 p\r\n", "reset", RESET),
    ends("behind-its-answer", "tunnel", "close", Failed(TRANSPORT, curl.SSL_CONNECT_ERROR)),
    ends("behind-its-answer", "tunnel", "cut", Failed(TRANSPORT, curl.SSL_CONNECT_ERROR)),
    ends("behind-its-answer", "tunnel", "reset", Failed(TRANSPORT, curl.SSL_CONNECT_ERROR)),
]

OTHERS = [
    breaks_off("after-an-answer-of-another-protocol", "SSH-2.0-proxy\r\n"),
    breaks_off("after-zeros", {"bytes": 4096, "fill": "zeros"}),
    breaks_off("in-a-line-of-200000-bytes", {"bytes": 200_000, "fill": "x"}),
]

NAMES = [
    Fault(
        f"name-of-{size}-bytes",
        server={"on": [HOLD]},
        act=through(name_of(size)),
        sees=[Answered(), Led()],
    )
    for size in (ROOM - 1, ROOM)
]

NOBODY_THERE = [
    Fault(name, platform={"proxy": proxy}, act=without_call, sees=[Failed(TRANSPORT, failure)])
    for name, proxy, failure in (
        # One byte too many: there is no proxy, and the server itself has no address.
        ("name-of-132-bytes", (name_of(ROOM + 1), 3128), curl.COULDNT_RESOLVE_HOST),
        ("name-of-132-bytes-in-78-letters", (OF_TWO_BYTES, 3128), curl.COULDNT_RESOLVE_HOST),
        ("name-of-1000-bytes", (name_of(1000), 3128), curl.COULDNT_RESOLVE_HOST),
        ("empty-name", ("", 3128), curl.COULDNT_RESOLVE_HOST),
        ("unknown-name-of-131-bytes", ("x" + name_of(ROOM)[1:], 1), curl.COULDNT_RESOLVE_PROXY),
        ("name-with-a-port-in-it", ("127.0.0.1:3128",), curl.COULDNT_RESOLVE_PROXY),
        ("name-that-is-no-name", ("a b/c", 3128), curl.COULDNT_RESOLVE_PROXY),
        ("port-where-nobody-listens", (NOBODY, 3128), curl.COULDNT_CONNECT),
        ("preset-port-where-nobody-listens", (NOBODY,), curl.COULDNT_CONNECT),
    )
]

# The file is not good: the proxy is the one that it named before.
PORTS = [
    Fault(
        f"port-{port}",
        server={"on": [HOLD]},
        platform={"proxy": (NOBODY, port)},
        act=early_call,
        sees=[Answered(), Led()],
    )
    for port in (0, -1, 65536, "http")
]

PRESET_PORT = Fault("name-without-a-port", platform={"proxy": (PRESET[0],)}, sees=[Answered()])


@rows(*REFUSALS, *ENDS, *OTHERS, *NAMES, *NOBODY_THERE, *PORTS)
def test_proxy(fault, scene):
    fault.play(scene)


@rows(PRESET_PORT)
def test_proxy_at_the_preset_port(fault, scene, preset):
    assert preset.last == 0
    fault.play(scene)
    assert preset.wait(1)["proxy"]["target"] == f"{SERVER_HOST}:443"
