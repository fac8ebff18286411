"""The packages under a systemd that runs: what it says of a faulty installation, and an exchange of a good one."""

import json
import os
import re
import shutil
import time

import pytest

from booted import Booted
from debian_packages import ROOT, dependencies_of
from harness.faulty import SYSTEM
from harness.keys import CLIENT_FILES, make_keys
from harness.observe import poll_for
from harness.platform_file import Platform
from harness.process import Process, read_line
from harness.settings import EXAMPLES
from identity import give_identity

pytestmark = pytest.mark.timeout(600)

TREE = "tree"
REQUEST = [
    *["orvexctl", "request", "--element", "fingerprintRequest", "--type", "fingerprint", "--timeout", "60"],
    *["--request-version", "1.0", "--content-type", "application/xml", "--encoding", "binary"],
]


class Installation:
    """A booted Debian with the packages, its files and a test server inside."""

    def __init__(self, root, directory):
        self.root = root
        self.directory = directory
        self.keys = root.path / "keys"
        make_keys(self.keys)
        ignored = shutil.ignore_patterns("build", ".git", "__pycache__")
        shutil.copytree(ROOT, root.path / TREE, symlinks=True, ignore=ignored)
        self.system = Booted(root.path)
        self.server = None

    def give_certificates(self):
        for name in CLIENT_FILES:
            target = self.root.path / "usr/share/orvexd" / name
            target.write_bytes((self.keys / name).read_bytes())
            target.chmod(0o600)
            os.chown(target, 0, 0)

    def give_platform(self):
        (self.root.path / "etc/trilba").mkdir(exist_ok=True)
        platform = Platform(self.root.path / "etc/trilba/platform.conf")
        platform.write(system=SYSTEM, proxy=("127.0.0.1", self._port()))
        platform.path.chmod(0o644)

    def _port(self):
        if self.server is None:
            ready, write_end = os.pipe()
            tool = f"/{TREE}/tools/slp-testserver/slp-testserver"
            command = self.system.command("/usr/bin/python3", tool, "--keys", "/keys")
            try:
                self.server = Process(command, self.directory, "slp-testserver", stdout=write_end)
            finally:
                os.close(write_end)
            self._server_port = json.loads(read_line(ready, 20))["port"]
            os.close(ready)
        return self._server_port

    def settle(self):
        """Waits until the unit neither starts nor restarts."""

        def settled():
            state = self.system.unit("ActiveState", "SubState", "Result", "NRestarts")
            return state if state["ActiveState"] in ("active", "failed", "inactive") else None

        return poll_for(settled, 60, "an end of the restarts")

    def doctor(self, *options):
        done = self.system.run("orvexctl", "doctor", "--json", *options)
        return done.returncode, [json.loads(line) for line in done.stdout.splitlines()]

    def stop(self):
        if self.server is not None:
            self.server.release()
        self.system.stop()


def told(findings, check):
    return [each["why"] for each in findings if each["check"] == check and each["state"] != "fine"]


@pytest.fixture(scope="module")
def installation(make_root, runtime, tmp_path_factory):
    """As the packages leave it: the example's identity, no certificates, no platform file."""
    root = make_root("booted", dependencies_of(runtime) | {"systemd-sysv", "dbus", "python3", "openssl", "xz-utils"})
    root.install(runtime)
    installation = Installation(root, tmp_path_factory.mktemp("installation"))
    yield installation
    installation.stop()


def test_faulty_installation_is_tried_five_times_and_explained(installation):
    system = installation.system
    installation.settle()  # the boot has tried it, too
    system.run("systemctl", "reset-failed", "orvexd")
    before = system.journal().count("packaged example's")
    assert system.run("systemctl", "start", "orvexd").returncode != 0
    assert installation.settle()["ActiveState"] == "failed"
    journal = system.journal()
    assert journal.count("packaged example's") - before == 5
    assert "KELVRA_UNIQUE_DEVICE_ID" in journal
    assert "/usr/share/orvexd/SlpClient.pem cannot be found" in journal

    status, findings = installation.doctor("--local")
    assert status == 2
    assert any("packaged example's" in why for why in told(findings, "identity"))
    assert any("SlpClient.pem cannot be found" in why for why in told(findings, "files"))
    assert any("The unit is failed" in why for why in told(findings, "bus"))


@pytest.mark.parametrize("words", [["orvexctl", "status"], REQUEST], ids=["status", "request"])
def test_client_hears_at_once_why_the_daemon_does_not_start(words, installation):
    system = installation.system
    system.run("systemctl", "reset-failed", "orvexd")
    for _ in ("the first start", "a start behind the fifth, which systemd refuses"):
        begin = time.monotonic()
        done = system.run(*words)
        assert done.returncode == 3, done.stderr
        assert "The daemon does not start: the check before its start found something broken" in done.stderr
        assert time.monotonic() - begin < 15  # the bus itself would wait for 25
        installation.settle()


def test_client_hears_that_the_unit_is_masked(installation):
    system = installation.system
    system.must("systemctl", "mask", "orvexd")
    try:
        done = system.run("orvexctl", "status")
    finally:
        system.must("systemctl", "unmask", "orvexd")
    assert (done.returncode, "the unit is masked" in done.stderr) == (3, True), done.stderr


def test_mended_installation_is_started_by_a_call_and_carries_an_exchange(installation):
    system = installation.system
    give_identity(installation.root.path)
    installation.give_certificates()
    installation.give_platform()
    shutil.rmtree(installation.root.path / "var/lib/orvexd")
    system.run("systemctl", "reset-failed", "orvexd")
    assert system.must("orvexctl", "status") == "connected, kind 1 (3)\n"
    assert system.unit("ActiveState")["ActiveState"] == "active"

    question = (EXAMPLES / "fingerprint.xml").read_text("utf-8")
    assert "<position latitude=" in system.must(*REQUEST, input=question)
    # StateDirectory= has made it anew.
    storage = (installation.root.path / "var/lib/orvexd").stat()
    assert (storage.st_mode & 0o777, storage.st_uid) == (0o700, 0)

    status, findings = installation.doctor("--exchange")
    assert status == 0, [each for each in findings if each["state"] != "fine"]
    assert {each["state"] for each in findings} == {"fine"}


def test_sandbox_is_around_the_daemon(installation):
    system = installation.system
    system.must("orvexctl", "status")
    pid = system.unit("MainPID")["MainPID"]
    status = system.must("cat", f"/proc/{pid}/status")
    assert re.search(r"^CapEff:\s*0+$", status, re.MULTILINE)
    assert re.search(r"^NoNewPrivs:\s*1$", status, re.MULTILINE)
    assert re.search(r"^Seccomp:\s*2$", status, re.MULTILINE)
    assert system.run("test", "-e", f"/proc/{pid}/root/home/x").returncode != 0


def test_daemon_that_dies_is_restarted(installation):
    system = installation.system
    system.must("orvexctl", "status")
    pid = system.unit("MainPID")["MainPID"]
    system.must("systemctl", "kill", "--signal=KILL", "orvexd")
    poll_for(lambda: system.unit("MainPID")["MainPID"] not in ("0", pid), 20, "another process")
    poll_for(lambda: system.run("orvexctl", "status").returncode == 0, 20, "an answer")
    _, findings = installation.doctor("--local")
    assert any("after 1 restarts" in why for why in told(findings, "bus"))


def test_certificate_of_another_owner_is_named(installation):
    system = installation.system
    certificate = installation.root.path / "usr/share/orvexd/SlpClient.pem"
    os.chown(certificate, 65534, 65534)
    try:
        system.run("systemctl", "reset-failed", "orvexd")
        system.run("systemctl", "restart", "orvexd")
        assert installation.settle()["ActiveState"] == "failed"
        assert "SlpClient.pem belongs to user" in system.journal()
        _, findings = installation.doctor("--local")
        assert any("belongs to user 65534 and not to root" in why for why in told(findings, "files"))
    finally:
        os.chown(certificate, 0, 0)
        system.run("systemctl", "reset-failed", "orvexd")


def test_file_that_root_reads_by_privilege_alone_is_named(installation):
    installation.system.must("orvexctl", "status")
    certificate = installation.root.path / "usr/share/orvexd/SlpClient.pem"
    certificate.chmod(0)
    try:
        _, findings = installation.doctor("--local")
        assert any("SlpClient.pem cannot be read: Permission denied" in why for why in told(findings, "files"))
    finally:
        certificate.chmod(0o600)


@pytest.fixture
def drop_in(installation):
    """Writes a drop-in of the unit; it is gone behind the test."""
    folder = installation.root.path / "etc/systemd/system/orvexd.service.d"

    def write(text):
        folder.mkdir(parents=True)
        (folder / "test.conf").write_text(f"[Service]\n{text}\n", "utf-8")
        installation.system.must("systemctl", "daemon-reload")

    yield write
    shutil.rmtree(folder)
    installation.system.must("systemctl", "daemon-reload")


def test_unit_that_keeps_the_daemon_from_the_network_is_a_doubt(installation, drop_in):
    drop_in("IPAddressDeny=any\nPrivateNetwork=yes\nRestrictAddressFamilies=\nRestrictAddressFamilies=AF_UNIX")
    _, findings = installation.doctor("--local")
    for setting in ("IPAddressDeny=", "PrivateNetwork=", "RestrictAddressFamilies="):
        assert any(f"The unit has {setting}" in why for why in told(findings, "bus")), findings


def test_settings_of_the_unit_count_while_the_daemon_does_not_run(installation, drop_in):
    (installation.root.path / "etc/of-the-file.conf").write_text("[Connections\n", "utf-8")
    (installation.root.path / "etc/orvexd-more").write_text("TRILBA_PLATFORM_CONF=/etc/of-the-file.conf\n", "utf-8")
    drop_in(
        "ExecStart=\nExecStart=/usr/sbin/orvexd --preinst-dir /etc/of-the-unit\nEnvironmentFile=/etc/orvexd-more"
    )
    installation.system.run("systemctl", "stop", "orvexd")
    _, findings = installation.doctor("--local")
    assert any("/etc/of-the-unit/SlpClient.pem cannot be found" in why for why in told(findings, "files")), findings
    platform = [each["why"] for each in findings if each["check"] == "platform"]
    assert any("/etc/of-the-file.conf" in why for why in platform), findings


def test_masked_unit_is_broken(installation):
    system = installation.system
    system.run("systemctl", "stop", "orvexd")
    system.must("systemctl", "mask", "--runtime", "orvexd")
    try:
        _, findings = installation.doctor("--local")
        masked = [each for each in findings if each["why"].startswith("The unit is masked")]
        assert [each["state"] for each in masked] == ["broken"]
        assert "systemctl unmask orvexd" in masked[0]["advice"]
    finally:
        system.must("systemctl", "unmask", "--runtime", "orvexd")


def test_policy_where_no_bus_reads_it_is_broken(installation):
    policy = installation.root.path / "usr/share/dbus-1/system.d/com.kelvra.orvexd.conf"
    unread = installation.root.path / "usr/local/share/dbus-1/system.d"
    unread.mkdir(parents=True)
    shutil.move(policy, unread)
    try:
        _, findings = installation.doctor("--local")
        assert any("where no system bus reads it" in why for why in told(findings, "bus")), findings
    finally:
        shutil.move(unread / policy.name, policy)


def test_platform_file_in_a_hidden_folder_is_named(installation):
    system = installation.system
    path = installation.root.path / "etc/trilba/platform.conf"
    moved = installation.root.path / "home/platform.conf"
    path.rename(moved)
    path.symlink_to("/home/platform.conf")
    try:
        _, findings = installation.doctor("--local")
        assert any("below /home, which the service does not see" in why for why in told(findings, "platform"))
    finally:
        path.unlink()
        moved.rename(path)


def test_test_of_the_installed_packages_passes(installation):
    """As autopkgtest(1) would run it."""
    control = (ROOT / "debian/tests/control").read_text("utf-8")
    names = re.search(r"^Tests: (.*)$", control, re.MULTILINE)[1].split()
    for name in names:
        done = installation.system.run("sh", "-c", f"cd /{TREE} && debian/tests/{name}")
        assert done.returncode == 0, done.stdout + done.stderr


def test_ordinary_user_gets_at_no_secret(installation):
    user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    for command in ("head --bytes=1", "exec"):
        # setpriv itself still has its privileges when it runs a program.
        done = installation.system.run(*user, "sh", "-c", f"{command} /usr/libexec/orvexd-probe")
        assert done.returncode != 0
        assert "ermission denied" in done.stderr
    done = installation.system.run(*user, "orvexctl", "doctor")
    assert re.search(r"^unknown +files", done.stdout, re.MULTILINE), done.stdout + done.stderr
