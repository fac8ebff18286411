"""What the README says about the installation on a device, done as it says in Debians below folders.

These are containers in the README's sense: no systemd runs, so the lines with systemctl are left out and the
system bus starts the daemon. Everything else is done as written, by the real commands, sudo included.
"""

import os
import re
import shutil

import pytest

from debian_packages import PACKAGE_DIR, ROOT, dependencies_of, output_of, packages_to_build_with
from documents import DEVICE, README, device_blocks, section
from harness.observe import poll_for
from harness.process import Process

# A Debian is made first, of which hundreds of packages may have to be fetched.
pytestmark = pytest.mark.timeout(1800)

PACKAGES, KEYS, DEVICE_ITSELF, PURGE, WITHOUT_PACKAGES, LOCAL = device_blocks()
TREE = "tree"
# What a device has beside the dependencies of the packages.
ADMINISTRATION = {"apt", "sudo", "network-manager", "iproute2"}
# In a network of its own, on the bus of the device: with a cable whose other end is plugged in.
NETWORK_MANAGER = """
mount -t sysfs -o ro sysfs /sys
mount -t tmpfs tmpfs /run/NetworkManager
ip link set lo up
ip link add nmv0 type veth peer name nmv1
ip link set nmv1 up
printf '[main]\\nauth-polkit=false\\ndns=none\\nno-auto-default=*\\n' >/run/NetworkManager/test.conf
exec NetworkManager --no-daemon --config=/run/NetworkManager/test.conf
"""
CABLE = """
nmcli connection add type ethernet ifname nmv0 con-name cable ipv4.method manual \\
  ipv4.addresses 192.0.2.10/24 ipv4.gateway 192.0.2.1 ipv6.method disabled
nmcli --wait 20 connection up cable
"""


class Machine:
    """A Debian with the tree in a folder of it, where somebody types what the README says.

    A device shares the folder with the PC that is this machine, where the lines without "sudo" are for; another
    machine is its own PC.
    """

    def __init__(self, root, is_device):
        self.root = root
        self._is_device = is_device
        # What is left out of the packages to save time belongs to an installation.
        (root.path / "etc/dpkg/dpkg.cfg.d/99mmdebstrap").unlink()
        self._tree = root.path / TREE
        ignored = shutil.ignore_patterns("build", ".git", "__pycache__")
        shutil.copytree(ROOT, self._tree, symlinks=True, ignore=ignored)
        shutil.copytree(PACKAGE_DIR, self._tree / "build" / "packages")

    def type(self, block):
        """Types the lines of a block, and yes where a command asks; returns what they print."""
        return "".join(self.type_line(line) for line in commands(block))

    def start_bus(self):
        """As the README says for containers."""
        self.root.must("service", "dbus", "start")

    def start_network(self, directory):
        """Its NetworkManager has an Ethernet network. It ends with all processes of the device."""
        (self.root.path / "run/NetworkManager").mkdir(parents=True, exist_ok=True)
        (self.root.path / "etc/NetworkManager/system-connections").mkdir(parents=True, exist_ok=True)
        command = ["unshare", "--net", *self.root.command("sh", "-euc", NETWORK_MANAGER)]
        manager = Process(command, directory, "NetworkManager")
        poll_for(lambda: self.root.run("nmcli", "general").returncode == 0, 20, "NetworkManager's answer")
        self.root.must("sh", "-euc", CABLE)
        return manager

    def expect_status(self):
        """The daemon, which the first call has started, learns of the network a moment later."""
        poll_for(lambda: self.type_line("sudo orvexctl status").strip() == told_status(), 20, told_status())

    def type_line(self, line):
        """Types one line and returns what it prints."""
        if self._is_device and not line.startswith("sudo "):
            return output_of("bash", "-euc", line, cwd=self._tree)
        environment = {"USER": "nobody", "DEBIAN_FRONTEND": "noninteractive"}
        script = f"cd /{TREE}\n{line}"
        return self.root.must("bash", "-euc", script, environment=environment, timeout=1200, input="y\n")


def commands(block):
    """The lines of a block, but for systemctl, and the build of the packages, which are there already."""
    lines = block.text.splitlines()
    assert not [line for line in lines if line.endswith("\\") or line.startswith(" ")]
    return [line for line in lines if "systemctl" not in line and line != "scripts/package"]


@pytest.fixture
def device(make_root, runtime):
    """Has what the packages need, and what it takes to install them."""
    return Machine(make_root("device", dependencies_of(runtime) | ADMINISTRATION), is_device=True)


@pytest.fixture
def workshop(make_root):
    """Has what scripts/setup installs, and what the README's commands are from."""
    packages = packages_to_build_with() | ADMINISTRATION | {"adduser"}
    return Machine(make_root("workshop", packages), is_device=False)


def told_status():
    """What the last command prints, as the README says."""
    (told,) = re.findall(r"The last command prints `([^`]+)`", section(README, DEVICE))
    return told


def in_group(root, user, group):
    return user in re.search(rf"^{group}:.*:(.*)$", root.text("/etc/group"), re.MULTILINE)[1].split(",")


def test_installation_by_packages_serves_and_is_taken_back(device, tmp_path):
    device.type(PACKAGES)
    device.type(KEYS)
    device.start_bus()
    device.start_network(tmp_path)
    device.type(DEVICE_ITSELF)
    device.expect_status()
    assert in_group(device.root, "nobody", "positioning")
    device.type(PURGE)
    assert not device.root.exists("/usr/sbin/orvexd")
    # As the README says, what has members and what the packages did not bring stays.
    assert in_group(device.root, "nobody", "positioning")
    assert device.root.exists("/usr/share/orvexd/SlpClient.pem")


def test_installation_without_packages_serves(workshop, tmp_path):
    workshop.type(WITHOUT_PACKAGES)
    workshop.type(KEYS)
    workshop.start_bus()
    workshop.start_network(tmp_path)
    workshop.type(DEVICE_ITSELF)
    workshop.expect_status()
    assert in_group(workshop.root, "nobody", "positioning")


def test_installation_below_usr_local_serves(device, tmp_path):
    """This machine builds what the device gets; the other lines are typed there, with the other place of the examples."""
    configure, build, *others = commands(WITHOUT_PACKAGES)
    assert "-D CMAKE_INSTALL_PREFIX=/usr " in configure
    configure = configure.replace("-D CMAKE_INSTALL_PREFIX=/usr ", "")
    for line in (configure, build):
        output_of("bash", "-euc", line.replace("build/install", str(tmp_path)), cwd=ROOT, timeout=1200)
    environment = {**os.environ, "DESTDIR": str(device.root.path)}
    output_of("cmake", "--install", tmp_path, env=environment)

    lines = [line for line in others if "cmake --install" not in line] + commands(KEYS) + commands(LOCAL)
    device.start_bus()
    device.start_network(tmp_path)
    for line in lines + commands(DEVICE_ITSELF):
        device.type_line(line.replace("/usr/share/doc", "/usr/local/share/doc"))
    device.expect_status()
    assert not device.root.exists("/usr/sbin/orvexd")
