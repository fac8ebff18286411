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
PYTHON = """
from gi.repository import GLib, Orvex
request = Orvex.Request.new("fingerprintRequest", "fingerprint", "1.0", "application/xml")
print(Orvex.Client.new().ask(request, GLib.Bytes.new(open("/fingerprint.xml", "rb").read())).get_data().decode())
"""
JAVASCRIPT = """
const { Gio, Orvex } = imports.gi;
const [question] = Gio.File.new_for_path('/fingerprint.xml').load_bytes(null);
const request = Orvex.Request.new('fingerprintRequest', 'fingerprint', '1.0', 'application/xml');
print(new TextDecoder().decode(Orvex.Client.new(null).ask(request, question, null).toArray()));
"""

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


@pytest.mark.parametrize("command", [["python3", "-c", PYTHON], ["gjs", "-c", JAVASCRIPT]], ids=["python", "js"])
def test_few_lines_get_an_answer(root, command):
    done = root.run(*command)
    assert done.returncode == 0, done.stderr
    assert "<position latitude=" in done.stdout
    assert sum(bool(line) for line in command[-1].splitlines()) <= 5
