"""The packages in a clean Debian: the daemon runs from there, and leaves with them."""

import os
import re
import subprocess

import pytest

from harness.keys import fill_preinst, make_keys
from harness.observe import poll_for
from harness.platform_file import Platform
from harness.process import Process, read_line
from harness.settings import EXAMPLES
from harness.slp_server import TestServer

FINGERPRINT = EXAMPLES / "fingerprint.xml"
REQUEST = [
    *["orvexctl", "request", "--element", "fingerprintRequest", "--type", "fingerprint"],
    *["--request-version", "1.0", "--content-type", "application/xml", "--encoding", "binary"],
]


@pytest.fixture(scope="module")
def system_bus(installed, tmp_path_factory):
    """The system bus of the installed Debian, which starts the daemon when it is called."""
    directory = tmp_path_factory.mktemp("bus")
    (installed.path / "run/dbus").mkdir(parents=True, exist_ok=True)
    ready, write_end = os.pipe()
    command = ["dbus-daemon", "--system", "--nofork", "--nopidfile", "--print-address=1"]
    try:
        bus = Process(installed.command(*command), directory, "dbus-daemon", stdout=write_end)
    finally:
        os.close(write_end)
    try:
        read_line(ready, 20)
        yield bus
        assert installed.run("orvexctl", "quit").returncode == 0, bus.report()
    finally:
        os.close(ready)
        bus.release()
        installed.end_processes()


def test_daemon_tells_its_version(installed):
    banner = r"trilba 3\.0\.1415 \[debian-\d+\] orvexd built: .+\n"
    assert re.fullmatch(banner, installed.must("orvexd", "--version"))


def test_daemon_without_the_module_knows_no_system(clean_root, runtime):
    clean_root.install([package for package in runtime if "networkmanager" not in package.path.name])
    banner = r"trilba 3\.0\.1415 \[linux-generic\] orvexd built: .+\n"
    assert re.fullmatch(banner, clean_root.must("orvexd", "--version"))


def test_call_of_a_client_starts_the_daemon(installed, system_bus):
    done = installed.run("orvexctl", "status")
    assert done.returncode == 0, done.stderr + system_bus.report()
    assert re.search(r"\b0\b", done.stdout), done.stdout


def test_member_of_the_group_is_admitted(installed, system_bus):
    done = installed.run("orvexctl", "status", user="nobody:positioning")
    assert done.returncode == 0, done.stderr + system_bus.report()


def test_other_users_are_refused(installed, system_bus):
    assert installed.run("orvexctl", "status").returncode == 0, system_bus.report()
    done = installed.run("orvexctl", "status", user="nobody:nogroup")
    assert done.returncode != 0
    assert "positioning" in done.stderr


def test_request_is_answered(installed, system_bus, tmp_path):
    keys = tmp_path / "keys"
    make_keys(keys)
    server = TestServer(tmp_path, keys)
    try:
        fill_preinst(installed.path / "usr/share/orvexd", keys)
        (installed.path / "etc/trilba").mkdir(exist_ok=True)
        platform = Platform(installed.path / "etc/trilba/platform.conf")
        platform.write(proxy=("127.0.0.1", server.port))
        # The file is there when the daemon starts: it need not wait for a change.
        installed.run("orvexctl", "quit")
        # One that is still about to leave would take the call and leave with it.
        poll_for(lambda: not installed.runs("orvexd"), 20, "the daemon's end")

        question = FINGERPRINT.read_text("utf-8")
        done = installed.run(*REQUEST, "--timeout", "60", input=question)
        assert done.returncode == 0, done.stderr + system_bus.report()
        assert "<position latitude=" in done.stdout
        assert server.wait(1)["findings"] == []
    finally:
        server.stop()


def test_installation_makes_the_group_and_the_storage_directory(installed):
    assert "positioning" in installed.groups()
    facts = (installed.path / "var/lib/orvexd").stat()
    assert (facts.st_mode & 0o777, facts.st_uid) == (0o700, 0)


def test_purge_leaves_what_was_there_before(clean_root, runtime):
    before = clean_root.state()
    clean_root.install(runtime)
    assert clean_root.state() != before
    clean_root.must("touch", "/var/lib/orvexd/stored")
    clean_root.must("dpkg", "--purge", *(package.field("Package") for package in runtime))
    assert clean_root.state() == before


def test_removal_keeps_configuration_and_storage_only(clean_root, runtime):
    before = clean_root.state()
    clean_root.install(runtime)
    clean_root.must("touch", "/var/lib/orvexd/stored")
    clean_root.must("dpkg", "--remove", *(package.field("Package") for package in runtime))
    added = set(clean_root.state()) - set(before)
    left = {path for path in added if not path.startswith(("/etc/systemd/", "/var/lib/systemd/"))}
    assert left == {
        "/etc/default/orvexd",
        "/var/lib/orvexd",
        "/var/lib/orvexd/.group-made-by-package",
        "/var/lib/orvexd/stored",
    }


def test_purge_keeps_what_others_made(clean_root, runtime):
    clean_root.must("addgroup", "--system", "--quiet", "positioning")
    clean_root.install(runtime)
    clean_root.must("touch", "/usr/share/orvexd/SlpClient.pem")
    clean_root.must("dpkg", "--purge", *(package.field("Package") for package in runtime))
    assert clean_root.exists("/usr/share/orvexd/SlpClient.pem")
    assert "positioning" in clean_root.groups()


def test_purge_keeps_a_group_with_members(clean_root, runtime):
    clean_root.install(runtime)
    clean_root.must("adduser", "--quiet", "nobody", "positioning")
    clean_root.must("dpkg", "--purge", *(package.field("Package") for package in runtime))
    assert "positioning" in clean_root.groups()


def test_second_installation_keeps_the_configuration(clean_root, runtime):
    clean_root.install(runtime)
    file = clean_root.path / "etc/default/orvexd"
    file.write_text(file.read_text("utf-8").replace("Example", "Other"), "utf-8")
    clean_root.must("dpkg", "--remove", "orvexd")
    clean_root.install(runtime)
    assert "Other" in file.read_text("utf-8")
    assert subprocess.run(["stat", "-c%a", file], capture_output=True, check=True).stdout == b"600\n"
