"""The packages in a Debian that is booted with systemd and NetworkManager: no platform file is there."""

import subprocess

import pytest

from booted_network import BootedRoot
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
CABLE = """
nmcli connection add type ethernet ifname nmv0 con-name cable ipv4.method manual \\
  ipv4.addresses 192.0.2.10/24 ipv4.gateway 192.0.2.1 ipv6.method disabled
nmcli --wait 20 connection up cable
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
    """Booted, with the packages, and with a cable to where the server is."""
    root = make_root("phone", dependencies_of(runtime) | PHONE)
    root.install(runtime)
    give_identity(root.path)
    fill_preinst(root.path / "usr/share/orvexd", keys)
    with open(root.path / "etc/hosts", "a", encoding="utf-8") as hosts:
        hosts.write(f"{SERVER} slp.kelvra.example\n")
    # The cable is to wait for the test.
    (root.path / "etc/NetworkManager/conf.d/test.conf").write_text("[main]\nno-auto-default=*\n", "utf-8")
    phone = BootedRoot(root)
    try:
        phone.boot()
        phone.add_cable("nmv0", there)
        inside = ["nsenter", "-t", there, "--net"]
        output_of(*inside, "ip", "link", "set", "lo", "up")
        output_of(*inside, "ip", "address", "add", f"{SERVER}/32", "dev", "lo")
        output_of(*inside, "ip", "address", "add", "192.0.2.1/24", "dev", "far")
        output_of(*inside, "ip", "link", "set", "far", "up")
        phone.must("sh", "-euc", CABLE)
        yield phone
    finally:
        phone.halt()


def status(phone):
    return phone.must("orvexctl", "status").strip()


def wait_for_status(phone, wanted):
    poll_for(lambda: status(phone) == wanted, 20, lambda: f"{wanted}, but {status(phone)}\n{phone.report()}")


def test_sandboxed_unit_sees_the_live_network(phone):
    wait_for_status(phone, "connected, kind 1 (3)")
    assert phone.must("systemctl", "is-active", "orvexd").strip() == "active"
    assert not phone.must("sh", "-c", "ls /etc/trilba 2>/dev/null || true")
    assert phone.must("trilba-platform").splitlines()[0] == "source      networkmanager"


def test_metered_network_is_of_kind_two(phone):
    phone.must("nmcli", "device", "modify", "nmv0", "connection.metered", "yes")
    wait_for_status(phone, "connected (1)")
    phone.must("nmcli", "device", "modify", "nmv0", "connection.metered", "no")
    wait_for_status(phone, "connected, kind 1 (3)")


def test_request_travels_over_the_cable(phone, keys, there, tmp_path):
    server = TestServer(
        tmp_path, keys, "--port", "443", host="0.0.0.0", prefix=["nsenter", "-t", there, "--net"]
    )
    try:
        answer = phone.must(*REQUEST, input=FINGERPRINT.read_text("utf-8"))
        assert "<position latitude=" in answer
    finally:
        server.process.stop()


def test_loss_and_return_of_the_network_are_seen(phone):
    phone.must("nmcli", "connection", "down", "cable")
    wait_for_status(phone, "not connected (0)")
    phone.must("nmcli", "connection", "up", "cable")
    wait_for_status(phone, "connected, kind 1 (3)")
