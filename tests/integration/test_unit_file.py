"""The systemd unit: how exposed it is, and that the daemon bears its restrictions."""

import os
import pathlib
import re
import subprocess
import sys

import pytest

from harness import sandbox
from harness.settings import BUILD_DIR, DAEMON

UNIT = BUILD_DIR / "data" / "orvexd.service"
SANITIZED = b"libtsan.so" in DAEMON.read_bytes() or b"libasan.so" in DAEMON.read_bytes()


def unit_values(key):
    return re.findall(rf"^{key}=(.*)$", UNIT.read_text("utf-8"), re.MULTILINE)


def test_exposure_is_two_or_lower():
    listing = subprocess.run(
        ["systemd-analyze", "security", "--offline=true", str(UNIT)],
        capture_output=True,
        text=True,
        check=False,
    ).stdout
    level = re.search(r"Overall exposure level for .*?: ([0-9.]+)", listing)
    assert level, listing
    assert float(level[1]) <= 2.0, listing


def test_unit_is_found_well_formed():
    checked = subprocess.run(
        ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", str(UNIT)],
        capture_output=True,
        text=True,
        check=False,
    )
    # The program is not installed here, and that is all there is to say.
    complaints = [line for line in checked.stderr.splitlines() if "is not executable" not in line]
    assert not [line for line in complaints if "orvexd.service" in line], checked.stderr


def test_stop_waits_longer_than_a_worker_may():
    assert int(unit_values("TimeoutStopSec")[0]) >= 120


def test_check_comes_before_the_start():
    (command,) = unit_values("ExecStartPre")
    assert command.endswith("/libexec/orvexd-probe --check")


def test_five_tries_are_over_before_the_limit_s_interval():
    tries = int(unit_values("StartLimitBurst")[0])
    assert tries == 5
    slowest_try = 5  # seconds, generously, with all that the check reads
    pause = int(unit_values("RestartSec")[0])
    assert tries * (slowest_try + pause) < int(unit_values("StartLimitIntervalSec")[0])


def test_sandbox_of_the_tests_has_the_filter_of_the_unit():
    assert unit_values("SystemCallFilter") == [
        " ".join(sandbox.ALLOWED),
        "~" + " ".join(sandbox.DENIED),
    ]
    assert unit_values("CapabilityBoundingSet") == [""]
    assert unit_values("NoNewPrivileges") == ["yes"]


@pytest.mark.parametrize(("mode", "status"), [(0o600, 0), (0o644, 3)])
def test_confined_daemon_reads_another_users_file_only_if_everybody_may(
    make_daemon, client_of, platform, mode, status
):
    try:
        os.chown(platform.path, 65534, 65534)
    except OSError:
        pytest.skip("no other user ids here")
    os.chmod(platform.path, mode)
    daemon = make_daemon()
    daemon.program = [sys.executable, sandbox.__file__, DAEMON]
    assert client_of(daemon.start()).status() == status


@pytest.mark.parametrize(
    "options",
    # The sanitizers' own run time makes calls that the daemon never makes.
    [[]] if SANITIZED else [[], ["--filter-system-calls"]],
    ids=lambda options: "with system-call filter" if options else "without capabilities",
)
def test_confined_daemon_carries_an_exchange(make_daemon, client_of, options):
    daemon = make_daemon()
    daemon.program = [sys.executable, sandbox.__file__, *options, DAEMON]
    daemon.start()
    status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text("utf-8")
    assert re.search(r"^CapBnd:\s*0+$", status, re.MULTILINE)
    assert re.search(r"^NoNewPrivs:\s*1$", status, re.MULTILINE)
    filtered = re.search(r"^Seccomp:\s*(\d)$", status, re.MULTILINE)[1] == "2"
    assert filtered == bool(options)
    client = client_of(daemon)
    connection = client.connect()
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    assert client.sendData(connection, request, b"<fingerprint/>") == 0
    _, code = client.fetch_part(connection, request)
    assert code == 2303
