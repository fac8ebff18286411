"""orvexctl doctor: it names the cause in each of the faulty set-ups, and changes nothing."""

import json
import os
import pathlib
import re
import shutil
import socket
import stat
import subprocess
import sys
import tempfile

import pytest

from harness import agents, faulty_device, sandbox, shared
from harness.daemon import DEVICE, Daemon
from harness.faulty import SET_UPS
from harness.observe import poll_for
from harness.program import copy_of_orvexctl
from harness.settings import BUILD_DIR, DAEMON, patience

bus, server, platform, preinst, _, _ = shared.FIXTURES
clock_and_daemon, fixture_daemon, other_keys, device_of_its_own = faulty_device.FIXTURES

ORVEXCTL = BUILD_DIR / "bin" / "orvexctl"
PROBE = BUILD_DIR / "bin" / "orvexd-probe"
STATES = ["unknown", "fine", "doubtful", "broken"]
HAS_IDS = agents.has_other_ids()


class Doctor:
    """What one run has said."""

    def __init__(self, daemon, *arguments, user=()):
        # It finds out by itself where the daemon's files are.
        environment = {k: v for k, v in daemon.environment.items() if k != "TRILBA_PLATFORM_CONF"}
        done = subprocess.run(
            [*user, ORVEXCTL, "doctor", *map(str, arguments)],
            env=environment,
            capture_output=True,
            text=True,
            timeout=patience(60),
            check=False,
        )
        self.status, self.text, self.stderr = done.returncode, done.stdout, done.stderr

    @property
    def findings(self):
        return [json.loads(line) for line in self.text.splitlines()]

    def said(self, check):
        """What a check has found that is not fine: why and advice."""
        found = [each for each in self.findings if each["check"] == check]
        return [f"{f['why']} {f['advice']}" for f in found if f["state"] in ("doubtful", "broken")]


@pytest.fixture(name="doctor")
def fixture_doctor(daemon, device):
    def run(*arguments):
        return Doctor(daemon, "--json", "--identity", device.identity, *arguments)

    return run


def test_sound_set_up_is_fine_up_to_the_server_s_answer(doctor):
    done = doctor("--exchange")
    assert done.status == 0, done.text
    checks = [each["check"] for each in done.findings]
    road = "identity files dates schema status platform bus versions names connection tls exchange"
    assert list(dict.fromkeys(checks)) == road.split()
    unseen = [each["why"] for each in done.findings if each["state"] == "unknown"]
    assert any("has not refused it so far; only --exchange tells" in each["why"] for each in done.findings)
    assert len(unseen) == 2 and all("bus" in why for why in unseen)  # a private bus has no installed files


@pytest.mark.parametrize("set_up", [s for s in SET_UPS if HAS_IDS or not s.needs_ids], ids=lambda s: s.name)
def test_doctor_names_the_cause(set_up, doctor, device):
    set_up.spoil(device)
    options = ["--exchange"] if set_up.exchange else ["--local"] if set_up.is_local else []
    done = doctor("--timeout", set_up.patience, *options)
    assert done.status in (1, 2), done.text
    assert any(re.search(set_up.finds, said, re.DOTALL) for said in done.said(set_up.check)), done.text


def test_no_request_is_sent_without_the_option(doctor, device):
    before = device.server.last
    doctor()
    assert device.server.last == before + 1  # the connection alone
    device.server.wait(before + 1)
    assert device.server.exchange(before + 1)["request"] is None


def test_nobody_is_called_when_only_the_device_is_looked_at(doctor, device):
    before = device.server.last
    assert {"names", "connection", "tls"}.isdisjoint(each["check"] for each in doctor("--local").findings)
    assert device.server.last == before


def test_request_of_doctor_is_what_the_daemon_would_send(doctor, device):
    before = device.server.last
    doctor("--exchange")
    record = device.server.wait(before + 2)
    assert record["findings"] == []
    assert record["slp"]["requests"][0]["type"] == "fingerprint"


def test_key_log_of_the_daemon_is_not_written(device, make_bus, tmp_path):
    log = tmp_path / "keys"
    daemon = Daemon(tmp_path, make_bus(), device.platform.path, device.preinst)
    daemon.environment["SSLKEYLOGFILE"] = str(log)
    for each in shared.running(daemon):
        assert Doctor(each, "--json", "--identity", device.identity).said("tls") == []
    assert log.read_bytes() == b""  # the daemon has made it at its start


def test_doctor_changes_nothing(doctor, device, daemon):
    def state():
        files = [*device.preinst.iterdir(), device.platform.path, device.identity]
        return {path: (path.read_bytes(), path.stat().st_mtime_ns, path.stat().st_mode) for path in files}

    before = state(), daemon.pid, daemon.resources()
    doctor("--exchange")
    assert (state(), daemon.pid, daemon.resources()) == before


def test_text_has_a_line_for_each_finding_and_a_sum(daemon, device):
    (device.preinst / "SlpClient.pem").unlink()
    done = Doctor(daemon, "--local", "--identity", device.identity)
    assert re.search(r"^broken +files +.*SlpClient.pem cannot be found.*\n +-> Install", done.text, re.MULTILINE)
    assert re.fullmatch(r"\d+ broken, \d+ doubtful, \d+ fine, \d+ not seen", done.text.splitlines()[-1])
    assert done.status == 2


def test_lines_come_as_soon_as_they_are_known(daemon, device):
    device.server.default({"on": [{"at": "connect", "do": "hang"}]})
    command = [ORVEXCTL, "doctor", "--json", "--identity", device.identity]
    with subprocess.Popen(list(map(str, command)), env=daemon.environment, stdout=subprocess.PIPE, text=True) as run:
        try:
            for line in run.stdout:
                if json.loads(line)["check"] == "names":
                    break
            assert run.poll() is None  # the proxy still says nothing
        finally:
            run.kill()


def test_doubt_alone_gives_status_1(doctor, device):
    device.identity.chmod(0o644)
    done = doctor("--local")
    assert done.status == 1, done.text
    assert "others can read it" in done.said("identity")[0]


def test_value_that_a_shell_reads_differently_is_a_doubt(doctor, device):
    text = device.identity.read_text("utf-8")
    device.identity.write_text(text.replace('"Kelvra"', "Kelvra Devices"), "utf-8")
    said = doctor("--local").said("identity")
    assert any("read this line" in each and "KELVRA_DEVICE_MANUFACTURER=Kelvra Devices" in each for each in said), said


def test_daemon_with_other_variables_than_the_file_is_a_doubt(doctor, device):
    device.write_identity(KELVRA_IMEI_FRAGMENT="111111")
    said = doctor("--local").said("identity")
    assert any("running daemon has other values" in each for each in said), said


def test_daemon_that_does_not_run_is_said_and_not_started(device, make_bus, daemon):
    other = make_bus()
    environment = {**daemon.environment, "DBUS_SYSTEM_BUS_ADDRESS": other.address}
    done = subprocess.run(
        [ORVEXCTL, "doctor", "--json", "--local", "--preinst-dir", device.preinst, "--identity", device.identity],
        env=environment,
        capture_output=True,
        text=True,
        check=False,
    )
    assert done.returncode == 2
    assert "the daemon does not run" in done.stdout


def test_no_bus_is_said(device, daemon):
    environment = {**daemon.environment, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent"}
    command = [ORVEXCTL, "doctor", "--local", "--preinst-dir", device.preinst, "--identity", device.identity]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    assert re.search(r"^broken +bus +The system bus cannot be reached", done.stdout, re.MULTILINE)


def test_bus_that_takes_the_call_and_says_nothing_is_given_up(device, daemon, tmp_path):
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "s"))
        listener.listen()
        environment = {**daemon.environment, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={tmp_path / 's'}"}
        command = [ORVEXCTL, "doctor", "--local", "--timeout", "1", "--identity", device.identity]
        done = subprocess.run(
            command, env=environment, capture_output=True, text=True, timeout=patience(30), check=False
        )
    assert "The system bus cannot be reached: it takes the connection and says nothing." in done.stdout


def test_file_that_is_none_is_not_waited_for(doctor, device):
    certificate = device.preinst / "SlpClient.pem"
    certificate.unlink()
    os.mkfifo(certificate)
    assert "Not tried: " in doctor("--timeout", 5).said("tls")[0]


def test_configuration_that_is_no_file_is_not_waited_for(doctor, device):
    schema = device.preinst / "orvexd.schema"
    os.mkfifo(schema)
    try:
        assert "is no regular file" in doctor("--local").said("schema")[0]
    finally:
        schema.unlink()


def test_folder_in_place_of_the_identity_is_said(doctor, device):
    device.identity.unlink()
    device.identity.mkdir()
    try:
        assert "is no regular file" in doctor("--local").said("identity")[0]
    finally:
        device.identity.rmdir()


def test_one_authority_that_is_valid_is_enough(doctor, device):
    authority = device.preinst / "Positioning_CA.pem"
    old = (device.keys / "server-expired.pem").read_bytes()
    authority.write_bytes(old + authority.read_bytes())
    assert doctor("--local").status == 0


def test_environment_of_the_shell_does_not_count(daemon, device, tmp_path):
    log = tmp_path / "keys"  # the TLS library would write it, whoever sets the variable
    environment = {**daemon.environment, "SSLKEYLOGFILE": str(log)}
    command = [ORVEXCTL, "doctor", "--identity", device.identity]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout
    assert not log.exists()


def test_variables_of_the_identity_file_count_where_no_daemon_runs(device, make_bus, daemon):
    with open(device.identity, "a", encoding="utf-8") as file:
        file.write("TRILBA_PLATFORM_CONF=/nonexistent/of-the-service.conf\n")
    environment = {**daemon.environment, "DBUS_SYSTEM_BUS_ADDRESS": make_bus().address}
    command = [ORVEXCTL, "doctor", "--local", "--identity", device.identity]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    assert "/nonexistent/of-the-service.conf cannot be found" in done.stdout


STRANGER = """
import os, sys
from gi.repository import Gio, GLib
os.setresgid({id}, {id}, {id})
os.setresuid({id}, {id}, {id})
flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
bus = Gio.DBusConnection.new_for_address_sync("unix:path=bus", flags, None, None)
arguments = GLib.Variant("(su)", ("com.kelvra.orvexd", 4))
bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName", arguments, None, 0, -1, None)
print("ready", flush=True)
sys.stdin.read()
"""


@pytest.mark.skipif(not HAS_IDS, reason="no other user ids here")
def test_arguments_and_environment_of_a_stranger_are_not_believed(device, make_bus, daemon):
    address = make_bus().address
    folder = pathlib.Path(re.search("path=([^,]*)", address)[1]).parent
    folder.chmod(0o755)
    command = [sys.executable, "-c", STRANGER.format(id=65534), "--preinst-dir", "/nonexistent/stranger"]
    environment = {**os.environ, "TRILBA_PLATFORM_CONF": "/nonexistent/stranger.conf"}
    pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
    with subprocess.Popen(command, cwd=folder, env=environment, text=True, **pipes) as stranger:
        try:
            assert stranger.stdout.readline() == "ready\n"
            environment = {**daemon.environment, "DBUS_SYSTEM_BUS_ADDRESS": address}
            command = [ORVEXCTL, "doctor", "--local", "--identity", device.identity]
            done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
        finally:
            stranger.stdin.close()
    assert "as user 65534: it is no orvexd" in done.stdout
    assert "/nonexistent/stranger" not in done.stdout


def fake_probe(directory, mode):
    """A copy of orvexctl, with something beside it that says nothing and is content."""
    copy = pathlib.Path(copy_of_orvexctl(directory))
    (copy.parent / "orvexd-probe").write_text("#!/bin/sh\n", "ascii")
    (copy.parent / "orvexd-probe").chmod(0o755)
    copy.parent.chmod(mode)
    return copy


def test_probe_that_does_not_say_that_it_is_done_is_broken(daemon, device, tmp_path):
    command = [fake_probe(tmp_path, 0o755), "doctor", "--local", "--identity", device.identity]
    done = subprocess.run(command, env=daemon.environment, capture_output=True, text=True, check=False)
    assert "orvexd-probe has ended before it had looked at everything" in done.stdout
    assert done.returncode == 2


def test_probe_that_others_could_put_there_is_not_run(daemon, device, tmp_path):
    command = [fake_probe(tmp_path, 0o777), "doctor", "--local", "--identity", device.identity]
    done = subprocess.run(command, env=daemon.environment, capture_output=True, text=True, check=False)
    assert f"{tmp_path}/bin/orvexd-probe" not in done.stdout


def test_probe_ends_with_doctor(daemon, device):
    device.server.default({"on": [{"at": "connect", "do": "hang"}]})
    command = [ORVEXCTL, "doctor", "--json", "--identity", device.identity]
    with subprocess.Popen(list(map(str, command)), env=daemon.environment, stdout=subprocess.PIPE, text=True) as run:
        next(line for line in run.stdout if json.loads(line)["check"] == "names")
        children = pathlib.Path(f"/proc/{run.pid}/task/{run.pid}/children").read_text("ascii").split()
        run.terminate()
    assert children
    poll_for(lambda: not any(os.path.exists(f"/proc/{pid}") for pid in children), 10, "the end of the probe")


def test_tool_that_does_not_end_is_given_up(device, daemon, tmp_path):
    tool = tmp_path / "trilba-platform"
    tool.write_text("#!/bin/sh\nexec sleep 1000\n", "ascii")
    tool.chmod(0o755)
    environment = {**daemon.environment, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    command = [ORVEXCTL, "doctor", "--local", "--timeout", "1", "--identity", device.identity]
    done = subprocess.run(
        command, env=environment, capture_output=True, text=True, timeout=patience(30), check=False
    )
    assert "platform.conf is well formed" in done.stdout  # looked at without the tool


def test_source_of_the_platform_is_known_without_its_tool(device, daemon, make_bus, tmp_path):
    """On a bus without the daemon: one that runs would go over to that source."""
    other = tmp_path / "platform.conf"
    other.write_text("[Platform]\nSource=networkmanager\n", "ascii")
    device.write_identity(TRILBA_PLATFORM_CONF=other)
    environment = {**daemon.environment, "DBUS_SYSTEM_BUS_ADDRESS": make_bus().address}
    command = [ORVEXCTL, "doctor", "--local", "--json", "--identity", device.identity]
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    findings = [json.loads(line) for line in done.stdout.splitlines()]
    said = [each["why"] for each in findings if each["check"] == "platform"]
    assert said == ["The platform's answers come from networkmanager."]


def look_as_the_service(device, folder):
    command = [PROBE, "--local", "--sandboxed", "--preinst-dir", folder, "--identity", device.identity]
    environment = {"TRILBA_PLATFORM_CONF": str(device.platform.path), "PATH": os.environ["PATH"]}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    return done.stdout


def test_file_that_root_reads_by_privilege_alone_is_broken_for_the_service(device):
    (device.preinst / "SlpClient.pem").chmod(0)
    said = look_as_the_service(device, device.preinst)
    assert "SlpClient.pem cannot be read: Permission denied. Its mode is 0000." in said


@pytest.mark.skipif(not HAS_IDS, reason="no other user ids here")
def test_folder_that_root_passes_by_privilege_alone_is_broken_for_the_service(device, tmp_path):
    folder = tmp_path / "folder"
    shutil.copytree(device.preinst, folder)
    folder.chmod(0o700)
    os.chown(folder, 65534, 65534)
    assert f"may not pass {folder}." in look_as_the_service(device, folder)


def test_link_in_a_folder_that_the_service_does_not_see_is_broken(device, tmp_path):
    with tempfile.TemporaryDirectory(dir="/dev/shm") as directory:
        target = pathlib.Path(directory) / "files"
        shutil.copytree(device.preinst, target)
        with tempfile.TemporaryDirectory(dir="/tmp") as hidden:
            link = pathlib.Path(hidden) / "link"
            link.symlink_to(target)
            said = look_as_the_service(device, link)
        assert "SlpClient.pem is below /tmp, which the service does not see" in said
        assert "which the service does not see" not in look_as_the_service(device, target)


def test_nothing_that_moves_a_terminal_s_cursor_is_printed(doctor, device):
    body = "a\u009b2J\u202e\u2028\U000e0001\x1b[2J"
    device.server.default({"answer": {"status": 404, "content_type": "text/html", "body": body}})
    done = doctor("--exchange")
    assert all(line.isprintable() for line in done.text.split("\n"))
    assert body in done.said("exchange")[0]


def test_malformed_configuration_is_said(doctor, device):
    schema = device.preinst / "orvexd.schema"
    schema.write_text("<other/>", "utf-8")
    try:
        assert "ends the daemon at its start: Invalid root tag name" in doctor("--local").said("schema")[0]
    finally:
        schema.unlink()


def test_daemon_with_another_view_of_the_platform_is_said(doctor, device):
    # The daemon keeps to the last good state.
    device.edit_platform("Kind=1", "Kind=wifi")
    said = doctor("--local").said("status")
    assert "The daemon reports connected, kind 1 (3), but the platform says not connected (0)." in said[0]


def test_tool_of_the_platform_is_asked_where_there_is_one(device, daemon, tmp_path):
    tool = tmp_path / "trilba-platform"
    findings = [{"line": 3, "severity": "fault", "text": "Kind=wifi is no number"}]
    remarks = [{"severity": "warning", "text": "no modem"}]
    answer = {"source": "file", "file": "/etc/x", "remarks": remarks, "findings": findings}
    tool.write_text(f"#!/bin/sh\ntest -n \"$TRILBA_PLATFORM_CONF\" && echo '{json.dumps(answer)}'\n", "utf-8")
    tool.chmod(0o755)
    command = [ORVEXCTL, "doctor", "--local", "--json", "--identity", device.identity]
    environment = {**daemon.environment, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    done = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
    found = [json.loads(line) for line in done.stdout.splitlines()]
    said = [(each["state"], each["why"]) for each in found if each["check"] == "platform"]
    assert said == [("doubtful", "no modem"), ("broken", "/etc/x, line 3: Kind=wifi is no number")]


def test_program_that_was_replaced_under_the_running_daemon_is_a_doubt(device, make_bus, tmp_path):
    copy = tmp_path / "orvexd"
    shutil.copy(DAEMON, copy)
    daemon = Daemon(tmp_path, make_bus(), device.platform.path, device.preinst)
    daemon.program = [copy]
    daemon.environment["LD_LIBRARY_PATH"] = str(BUILD_DIR / "lib")
    for each in shared.running(daemon):
        copy.unlink()
        said = Doctor(each, "--json", "--local", "--identity", device.identity).said("versions")
        assert any(f"was replaced or removed: {copy}." in why for why in said), said


def test_certificate_that_ends_soon_is_a_doubt(doctor, device):
    device.clock.step_to(wall=715 * 24 * 3600)  # they are made for 730 days
    assert any("SlpClient.pem expires on" in said for said in doctor("--local").said("dates"))


@pytest.mark.skipif(not HAS_IDS, reason="no other user ids here")
def test_what_an_ordinary_user_may_not_see_is_not_called_missing(device, daemon, tmp_path):
    tmp_path.chmod(0o700)
    with tempfile.TemporaryDirectory(prefix="orvexctl-", dir="/tmp") as directory:
        os.chmod(directory, 0o755)
        user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
        hidden = ["--identity", device.identity, "--preinst-dir", device.preinst]
        command = [*user, copy_of_orvexctl(pathlib.Path(directory)), "doctor", "--json", "--local", *hidden]
        done = subprocess.run(command, env=daemon.environment, cwd="/", capture_output=True, text=True, check=False)
    found = [json.loads(line) for line in done.stdout.splitlines()]
    states = {each["state"] for each in found if each["check"] in ("identity", "files", "platform")}
    assert states == {"unknown"}, done.stdout


@pytest.mark.skipif(not HAS_IDS, reason="no other user ids here")
def test_ordinary_user_is_told_what_only_root_can_see(device, daemon):
    with tempfile.TemporaryDirectory(prefix="orvexctl-", dir="/tmp") as directory:
        os.chmod(directory, 0o755)
        user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
        command = [*user, copy_of_orvexctl(pathlib.Path(directory)), "doctor", "--json", "--exchange"]
        done = subprocess.run(command, env=daemon.environment, cwd="/", capture_output=True, text=True, check=False)
    findings = [json.loads(line) for line in done.stdout.splitlines()]
    unseen = {each["check"] for each in findings if each["state"] == "unknown"}
    assert {"files", "dates", "schema", "names", "connection", "tls", "exchange"} <= unseen, done.stdout + done.stderr


# -- the check before the start --------------------------------------------------------------------


def check(device, *prefix, **changes):
    """orvexd-probe --check with the five variables but for the changes: status and complaints."""
    environment = {
        "TRILBA_PLATFORM_CONF": str(device.platform.path),
        "PATH": os.environ["PATH"],
        **DEVICE,
        **changes,
    }
    done = subprocess.run(
        [*prefix, PROBE, "--check", "--preinst-dir", device.preinst],
        env=environment,
        capture_output=True,
        text=True,
        timeout=patience(20),
        check=False,
    )
    assert done.stdout == ""
    return done.returncode, done.stderr


def test_check_is_content_and_silent_where_the_daemon_can_work(device):
    assert check(device) == (0, "")


@pytest.mark.parametrize(
    "changes, complaint",
    [
        ({"KELVRA_DEVICE_TERMINAL_MODEL": ""}, "KELVRA_DEVICE_TERMINAL_MODEL"),
        ({"KELVRA_UNIQUE_DEVICE_ID": "00000000-0000-0000-0000-000000000000"}, "packaged example's"),
    ],
    ids=["missing", "example"],
)
def test_check_refuses_an_identity_that_is_none(device, changes, complaint):
    status, said = check(device, **changes)
    assert status == 1
    assert complaint in said


def test_check_refuses_missing_files(device):
    (device.preinst / "SlpClient-key.pem").unlink()
    status, said = check(device)
    assert (status, "SlpClient-key.pem cannot be found" in said) == (1, True), said


def test_check_refuses_the_example_s_imei(device):
    device.platform.write(system={"Imei": "490154203237518"})
    status, said = check(device)
    assert (status, "example's IMEI" in said) == (1, True), said


def test_check_refuses_a_configuration_that_ends_the_daemon(device):
    schema = device.preinst / "orvexd.schema"
    schema.write_text("<orvexdconfig><thing/></orvexdconfig>", "utf-8")
    try:
        status, said = check(device)
        assert (status, "invalid tag-name" in said) == (1, True), said
    finally:
        schema.unlink()


def test_check_prints_odd_characters_of_a_file_escaped(device):
    """The journal and whoever reads it on a terminal get them."""
    schema = device.preinst / "orvexd.schema"
    schema.write_text("<orvexdconfig><th\u200cing/></orvexdconfig>", "utf-8")
    try:
        said = check(device)[1]
        assert (r"tag-name: th\xe2\x80\x8cing" in said, "\u200c" in said) == (True, False), said
    finally:
        schema.unlink()


def test_check_bears_the_sandbox(device):
    assert check(device, sys.executable, sandbox.__file__) == (0, "")


def test_probe_hides_its_secrets_as_the_daemon_does():
    program = PROBE.read_bytes()
    assert b"ovx-7Kq2" not in program
    assert b"slp.kelvra.example" not in ORVEXCTL.read_bytes()
    assert stat.S_ISREG(PROBE.stat().st_mode)
