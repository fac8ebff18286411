"""The packages in a Debian that is booted with systemd and NetworkManager: no platform file is there."""

import json
import subprocess

import pytest

from booted import Booted
from debian_packages import dependencies_of, output_of
from harness.keys import fill_preinst, make_keys
from harness.observe import poll_for
from harness.settings import EXAMPLES
from harness.slp_server import TestServer
from identity import give_identity

pytestmark = pytest.mark.timeout(1200)

SERVER = "203.0.113.7"
FINGERPRINT = EXAMPLES / "fingerprint.xml"
REQUEST = [
    *["orvexctl", "request", "--element", "fingerprintRequest", "--type", "fingerprint", "--timeout", "60"],
    *["--request-version", "1.0", "--content-type", "application/xml", "--encoding", "binary"],
]
PHONE = {"systemd-sysv", "dbus", "network-manager", "polkitd", "iproute2", "procps"}
NETWORKS = {"cable": "192.0.2", "spare": "198.51.100"}
CONNECTION = """
nmcli connection add type ethernet ifname {name} con-name {name} ipv4.method manual autoconnect no \\
  ipv4.addresses {network}.10/24 ipv4.gateway {network}.1 ipv4.route-metric {metric} ipv6.method disabled
"""


@pytest.fixture(scope="module")
def there():
    """Another network, where the server is: the process that holds it."""
    holder = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
    poll_for(lambda: output_of("readlink", f"/proc/{holder.pid}/ns/net") != output_of("readlink", "/proc/self/ns/net"))
    yield str(holder.pid)
    holder.kill()
    holder.wait()


@pytest.fixture(scope="module")
def keys(tmp_path_factory):
    directory = tmp_path_factory.mktemp("keys")
    make_keys(directory)
    return directory


@pytest.fixture(scope="module")
def phone(make_root, runtime, keys, there):
    """Booted, with the packages, and with two cables to where the server is, one of them in use."""
    root = make_root("phone", dependencies_of(runtime) | PHONE)
    root.install(runtime)
    give_identity(root.path)
    fill_preinst(root.path / "usr/share/orvexd", keys)
    with open(root.path / "etc/hosts", "a", encoding="utf-8") as hosts:
        hosts.write(f"{SERVER} slp.kelvra.example\n")
    # The cables are to wait for the test.
    (root.path / "etc/NetworkManager/conf.d/test.conf").write_text("[main]\nno-auto-default=*\n", "utf-8")
    phone = Booted(root.path)
    try:
        inside = ["nsenter", "-t", there, "--net"]
        output_of(*inside, "ip", "link", "set", "lo", "up")
        output_of(*inside, "ip", "address", "add", f"{SERVER}/32", "dev", "lo")
        for metric, (name, network) in zip((200, 100), NETWORKS.items()):
            phone.add_cable(name, f"far-{name}", there)
            output_of(*inside, "ip", "address", "add", f"{network}.1/24", "dev", f"far-{name}")
            output_of(*inside, "ip", "link", "set", f"far-{name}", "up")
            phone.must("sh", "-euc", CONNECTION.format(name=name, network=network, metric=metric))
        phone.must("nmcli", "--wait", "20", "connection", "up", "cable")
        yield phone
    finally:
        phone.stop()


def status(phone):
    return phone.must("orvexctl", "status").strip()


def wait_for_status(phone, wanted):
    poll_for(lambda: status(phone) == wanted, 20, lambda: f"{wanted}, but {status(phone)}\n{phone.journal()}")


def test_sandboxed_unit_sees_the_live_network(phone):
    wait_for_status(phone, "connected, kind 1 (3)")
    assert phone.must("systemctl", "is-active", "orvexd").strip() == "active"
    assert not phone.must("sh", "-c", "ls /etc/trilba 2>/dev/null || true")
    assert phone.must("trilba-platform").splitlines()[0] == "source      networkmanager"


def test_metered_network_is_of_kind_two(phone):
    phone.must("nmcli", "device", "modify", "cable", "connection.metered", "yes")
    wait_for_status(phone, "connected (1)")
    phone.must("nmcli", "device", "modify", "cable", "connection.metered", "no")
    wait_for_status(phone, "connected, kind 1 (3)")


_ASK = """
import sys, urllib.request
request = urllib.request.Request(sys.argv[2], sys.stdin.buffer.read() or None, method=sys.argv[1])
sys.stdout.buffer.write(urllib.request.urlopen(request).read())
"""


class ServerThere(TestServer):
    """The server in the other network, whose control port is reached from that network only."""

    __test__ = False

    def __init__(self, directory, keys, there):
        self._enter = ["nsenter", "--target", there, "--net"]
        super().__init__(directory, keys, "--port", "443", host="0.0.0.0", prefix=self._enter)

    def _ask(self, method, path, values=None):
        url = f"http://127.0.0.1:{self.control_port}{path}"
        body = "" if values is None else json.dumps(values)
        answer = output_of(*self._enter, "/usr/bin/python3", "-c", _ASK, method, url, input=body)
        return json.loads(answer) if answer.startswith(("{", "[")) else answer


@pytest.fixture
def server(tmp_path, keys, there):
    server = ServerThere(tmp_path, keys, there)
    yield server
    server.stop()


def begin_request(phone):
    with open(FINGERPRINT, "rb") as question:
        return subprocess.Popen(
            phone.command(*REQUEST), stdin=question, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )


def expect_position(request):
    answer, errors = request.communicate(timeout=100)
    assert request.returncode == 0, errors
    assert "<position latitude=" in answer


def test_request_travels_over_the_cable(phone, server):
    assert server
    expect_position(begin_request(phone))


def test_request_in_the_middle_of_a_handover_is_answered_and_so_is_the_next(phone, server):
    server.queue({"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]})
    before = begin_request(phone)
    server.wait(1, "upload-end")
    phone.must("nmcli", "--wait", "20", "connection", "up", "spare")
    wait_for_status(phone, "connected, kind 1 (3)")
    server.give("answer")
    expect_position(before)
    phone.must("nmcli", "connection", "down", "cable")
    wait_for_status(phone, "connected, kind 1 (3)")
    expect_position(begin_request(phone))
    phone.must("nmcli", "--wait", "20", "connection", "up", "cable")
    phone.must("nmcli", "connection", "down", "spare")


def test_loss_and_return_of_the_network_are_seen(phone):
    phone.must("nmcli", "connection", "down", "cable")
    wait_for_status(phone, "not connected (0)")
    phone.must("nmcli", "connection", "up", "cable")
    wait_for_status(phone, "connected, kind 1 (3)")
