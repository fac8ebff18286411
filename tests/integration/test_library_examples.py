"""The examples that stand on the client library, in every language, against the real daemon."""

import hashlib
import os
import signal
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from harness.process import Process
from harness.settings import BUILD_DIR, EXAMPLES, is_sanitized, patience
from harness.waiting import wait_for

FINGERPRINT = EXAMPLES / "fingerprint.xml"
# What is loaded into a foreign program has no sanitizer.
PROGRAMS = {"c": [BUILD_DIR / "bin" / "example-c"], "cpp": [BUILD_DIR / "bin" / "example-cpp"]}
if not is_sanitized():
    PROGRAMS |= {
        "python": ["/usr/bin/python3", EXAMPLES / "fingerprint.py"],
        "js": ["gjs", EXAMPLES / "fingerprint.js"],
        "vala": [BUILD_DIR / "bin" / "example-vala"],
    }
FIVE_LINES = {"py": "/usr/bin/python3", "js": "gjs"}
STREAM = ["/usr/bin/python3", EXAMPLES / "stream.py", "echo", "other", "1", "text/plain"]

pytestmark = pytest.mark.usefixtures("daemon")


@pytest.fixture
def environment(bus):
    """As a user of an installed library would have it."""
    return {
        **os.environ,
        "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
        "LC_ALL": "C.UTF-8",
        "GI_TYPELIB_PATH": str(BUILD_DIR / "client"),
        "LD_LIBRARY_PATH": str(BUILD_DIR / "lib"),
    }


@pytest.mark.parametrize("language", PROGRAMS)
def test_example_prints_the_answer(language, environment):
    command = [*PROGRAMS[language], FINGERPRINT]
    done = subprocess.run(command, env=environment, capture_output=True, timeout=patience(30), check=False)
    assert done.returncode == 0, done
    found = ElementTree.fromstring(done.stdout.decode()).find("question").attrib
    assert found["sha256"] == hashlib.sha256(FINGERPRINT.read_bytes()).hexdigest()
    assert done.stderr == b""


@pytest.mark.parametrize("language", PROGRAMS)
def test_example_tells_why_it_failed(language, environment, server):
    server.default({"answer": {"status": 500, "body": "broken", "content_type": "text/plain"}})
    command = [*PROGRAMS[language], FINGERPRINT]
    done = subprocess.run(command, env=environment, capture_output=True, timeout=patience(30), check=False)
    assert done.returncode == 1, done
    assert b"fingerprint" in done.stderr and b"server" in done.stderr


@pytest.mark.parametrize("name", sorted(path.name for path in EXAMPLES.glob("fingerprint.*")))
def test_example_is_short(name):
    assert len((EXAMPLES / name).read_text("utf-8").splitlines()) < 40


@pytest.mark.skipif(is_sanitized(), reason="Python cannot load a sanitized library")
@pytest.mark.parametrize("language", FIVE_LINES)
def test_five_lines_print_the_answer(language, environment):
    program = EXAMPLES / f"five-lines.{language}"
    assert len(program.read_text("utf-8").splitlines()) == 5
    done = subprocess.run(
        [FIVE_LINES[language], program.name],
        env=environment,
        cwd=EXAMPLES,
        capture_output=True,
        text=True,
        timeout=patience(30),
        check=False,
    )
    assert (done.returncode, done.stderr) == (0, "")
    assert hashlib.sha256(FINGERPRINT.read_bytes()).hexdigest() in done.stdout


@pytest.mark.skipif(is_sanitized(), reason="Python cannot load a sanitized library")
def test_growing_stream_is_sent_and_its_answer_shown(environment):
    with subprocess.Popen(STREAM, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
        for piece in (b"one ", b"two ", b"three"):
            program.stdin.write(piece)
            program.stdin.flush()
        answer, _ = program.communicate(timeout=patience(30))
    assert (program.returncode, answer) == (0, b"one two three")


@pytest.mark.skipif(is_sanitized(), reason="Python cannot load a sanitized library")
def test_interrupted_stream_takes_its_request_back(environment, server, client, tmp_path):
    server.default({"on": [{"at": "upload-end", "do": "wait", "event": "answer"}]})
    program = Process(STREAM, tmp_path, "stream", environment)
    server.wait(1, "upload-end")
    program.send_signal(signal.SIGTERM)
    assert program.wait(10) == 1, program.report()
    wait_for(lambda: client.sendData(1, 1, b"") == 1001, 10, "the end of its connection")
    program.release()
    server.give("answer")
