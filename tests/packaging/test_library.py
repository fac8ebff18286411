"""The client library from its packages, as somebody uses it who has nothing else and reads the guide."""

import os

import pytest

from debian_packages import dependencies_of
from harness.keys import fill_preinst, make_keys
from harness.platform_file import Platform
from harness.process import Process, read_line
from harness.settings import EXAMPLES
from harness.slp_server import TestServer

FINGERPRINT = EXAMPLES / "fingerprint.xml"
PROGRAMS = {"python3": EXAMPLES / "five-lines.py", "gjs": EXAMPLES / "five-lines.js"}  # the guide quotes them

pytestmark = pytest.mark.timeout(1800)  # a Debian is made first


@pytest.fixture(scope="module")
def root(make_root, for_programs, tmp_path_factory):
    """A Debian with Python, JavaScript and a system bus, whose daemon reaches a test server."""
    root = make_root("programs-root", dependencies_of(for_programs) | {"python3-gi", "gjs"})
    root.install(for_programs)
    directory = tmp_path_factory.mktemp("server")
    keys = directory / "keys"
    make_keys(keys)
    server = TestServer(directory, keys)
    fill_preinst(root.path / "usr/share/orvexd", keys)
    (root.path / "etc/trilba").mkdir(exist_ok=True)
    Platform(root.path / "etc/trilba/platform.conf").write(proxy=("127.0.0.1", server.port))
    (root.path / "fingerprint.xml").write_bytes(FINGERPRINT.read_bytes())
    (root.path / "run/dbus").mkdir(parents=True, exist_ok=True)
    ready, write_end = os.pipe()
    command = root.command("dbus-daemon", "--system", "--nofork", "--nopidfile", "--print-address=1")
    bus = Process(command, directory, "dbus-daemon", stdout=write_end)
    os.close(write_end)
    try:
        read_line(ready, 20)
        yield root
    finally:
        os.close(ready)
        bus.release()
        server.stop()
        root.end_processes()


@pytest.mark.parametrize("interpreter", PROGRAMS)
def test_five_lines_get_an_answer(root, interpreter):
    program = PROGRAMS[interpreter].read_text("utf-8")
    (root.path / "program").write_text(program, "utf-8")
    done = root.run(interpreter, "program")
    assert done.returncode == 0, done.stderr
    assert "<position latitude=" in done.stdout
    assert done.stderr == ""
    assert len(program.splitlines()) == 5
