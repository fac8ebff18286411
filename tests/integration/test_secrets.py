"""Secrets: where the pass phrase of the client key is in the process, and what reaches the disk."""

import pathlib
import re
import subprocess
import sys

import pytest

from harness import observe, read_only
from harness.settings import DAEMON, PASSPHRASE

PROGRAM = DAEMON.read_bytes() if DAEMON.exists() else b""
# A sanitizer keeps what was freed as it was, so as to notice its use; its shadow is too large to be searched,
# and it writes files of its own.
without_sanitizer = pytest.mark.skipif(
    b"libasan.so" in PROGRAM or b"libtsan.so" in PROGRAM, reason="about the daemon, not a sanitizer"
)
writes_counters = pytest.mark.skipif(
    b".gcda" in PROGRAM, reason="a program built for coverage writes its counters when it ends"
)


def places_of(pid, text):
    """The mappings of a process, once for each copy of a text in its memory; what a core would hold."""
    found = []
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for start, end, name in mappings(pid):
            memory.seek(start)
            try:
                content = memory.read(end - start)
            except OSError:
                assert name.startswith("[v"), name  # the kernel's own pages; no core has them
                continue
            found += [name] * content.count(text)
    return found


def mappings(pid):
    """Start, end and name of every readable mapping; those of the tests' own files are not looked at."""
    for line in pathlib.Path(f"/proc/{pid}/maps").read_text("utf-8").splitlines():
        start, end, rights, name = re.match(
            r"(\w+)-(\w+) (\S+) \S+ \S+ \S+ *(.*)", line
        ).groups()
        if "r" in rights:
            yield int(start, 16), int(end, 16), name


def asked(client):
    """A request whose exchange waits for its client's data."""
    connection = client.connect()
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    return connection, request


def test_environment_can_have_the_keys_of_tls_written(make_daemon, client_of, tmp_path):
    daemon = make_daemon()
    daemon.environment["SSLKEYLOGFILE"] = str(tmp_path / "tls-keys")
    assert client_of(daemon.start()).exchange(b"data", kind="other") == [b"data"]
    text = (tmp_path / "tls-keys").read_text("ascii")
    assert "CLIENT_TRAFFIC_SECRET_0 " in text
    assert (tmp_path / "tls-keys").stat().st_mode & 0o777 == 0o600


def test_pass_phrase_is_neither_argument_nor_variable(client, daemon):
    connection, request = asked(client)
    for name in ("cmdline", "environ"):
        content = pathlib.Path(f"/proc/{daemon.pid}/{name}").read_bytes()
        assert content and PASSPHRASE.encode() not in content
    assert client.sendData(connection, request, b"late") == 0
    client.fetch_part(connection, request)


@without_sanitizer
def test_pass_phrase_is_not_in_memory_before_an_exchange(client, daemon):
    assert client.status() == 3
    assert places_of(daemon.pid, PASSPHRASE.encode()) == []


@without_sanitizer
def test_pass_phrase_is_not_in_memory_while_a_client_is_waited_for(client, daemon):
    connection, request = asked(client)
    observe.wait_until_worker_sleeps(daemon.pid)
    assert places_of(daemon.pid, PASSPHRASE.encode()) == []
    assert client.sendData(connection, request, b"late") == 0
    client.fetch_part(connection, request)


@without_sanitizer
def test_pass_phrase_is_not_in_memory_after_exchanges(client, daemon):
    for _ in range(3):
        client.exchange(b"question")
    observe.wait_until_idle(daemon.pid)
    assert places_of(daemon.pid, PASSPHRASE.encode()) == []


@without_sanitizer
def test_pass_phrase_is_not_in_memory_after_a_failed_handshake(client, daemon, preinst):
    key = preinst / "SlpClient-key.pem"
    text = key.read_text("ascii")
    key.write_text(text[: len(text) // 2], "ascii")
    client.prepare(client.connect())
    client.wait_for_signal("errorSignal")
    observe.wait_until_idle(daemon.pid)
    assert places_of(daemon.pid, PASSPHRASE.encode()) == []


@without_sanitizer
def test_search_finds_what_is_in_memory(daemon):
    assert places_of(daemon.pid, daemon.environment["KELVRA_DEVICE_MANUFACTURER"].encode())
    assert str(DAEMON) in places_of(daemon.pid, b"com.kelvra.orvexd")


@without_sanitizer
@writes_counters
def test_nothing_is_written_to_a_file_from_start_to_end(make_daemon, client_of, server, preinst):
    """Answers, failures, cancellations: the kernel would kill the daemon at the first attempt."""
    daemon = make_daemon()
    daemon.program = [sys.executable, read_only.__file__, DAEMON]
    daemon.environment.pop("ORVEXD_STATISTICS", None)  # the file of a build that counts
    daemon.start()
    client = client_of(daemon)
    assert client.exchange(b"question" * 100_000)
    server.queue({"on": [{"at": "tunnel", "do": "close"}]})
    client.prepare(client.connect())
    client.wait_for_signal("errorSignal")
    (preinst / "SlpClient-key.pem").unlink()
    client.prepare(client.connect())
    client.wait_for_signal("errorSignal")
    observe.wait_until_idle(daemon.pid)
    daemon.stop()
    assert not pathlib.Path(daemon.environment["HOME"], "storage").exists()


@pytest.mark.parametrize(
    "command",
    ["echo >file", "touch file", "mkdir directory", "mv file other", "rm file", "ln file other"],
)
def test_attempt_to_write_would_end_the_daemon(tmp_path, command):
    (tmp_path / "file").write_text("", "ascii")
    shell = ["/bin/bash", "-c", f"exec 2>&-; {command}"]
    done = subprocess.run(
        [sys.executable, read_only.__file__, *shell], cwd=tmp_path, check=False, timeout=60
    )
    # 159 when it was not the shell itself
    assert done.returncode in (-31, 159)
    assert [entry.name for entry in tmp_path.iterdir()] == ["file"]
