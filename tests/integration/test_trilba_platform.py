"""trilba-platform: what the library makes of a platform file, and what is wrong with the file."""

import json
import os
import signal
import subprocess

import pytest

from harness.observe import poll_for
from harness.process import Process
from harness.settings import BUILD_DIR, patience

TOOL = BUILD_DIR / "bin" / "trilba-platform"
GOOD = """[System]
PlatformId=linux-test
Imei=490154203237518
[Location]
NetworkPositioning=false
[Connections]
List=wifi0;cell0;
[Connection wifi0]
Kind=1
Active=true
[Connection cell0]
Kind=2
Flagged=true
[Proxy]
Host=proxy.example
"""


@pytest.fixture
def file(tmp_path):
    return tmp_path / "platform.conf"


def run(*words):
    done = subprocess.run([TOOL, *words], capture_output=True, text=True, timeout=patience(20), check=False)
    return done.returncode, done.stdout, done.stderr


def told(file, text):
    """The exit status, and the JSON for a file with this text."""
    file.write_text(text, "utf-8")
    status, printed, complaints = run("--json", "--file", file)
    assert complaints == ""
    return status, json.loads(printed)


def test_prints_the_answers_for_people(file):
    file.write_text(GOOD, "utf-8")
    status, printed, _ = run("--file", file)
    assert status == 0
    assert printed.splitlines() == [
        "source      file",
        f"file        {file}",
        "status      connected, kind 1 (3)",
        "connection  wifi0: kind 1, active, in use",
        "connection  cell0: kind 2, not active, flagged",
        "proxy       proxy.example:8080",
        "platform    linux-test",
        "IMEI        490154203237518",
        "IMSI        none",
        "firmware    none",
        "positioning not permitted (by the file)",
    ]


def test_prints_the_answers_for_programs(file):
    status, values = told(file, GOOD)
    assert status == 0
    assert (values["source"], values["fileExists"], values["answered"], values["status"]) == ("file", True, True, 3)
    assert values["connections"][1] == {
        "name": "cell0",
        "kind": 2,
        "active": False,
        "flagged": True,
        "inUse": False,
    }
    assert (values["proxyHost"], values["proxyPort"]) == ("proxy.example", 8080)
    assert values["positioningPermitted"] is False
    assert values["findings"] == values["remarks"] == []


@pytest.mark.parametrize(
    "kind, flagged, number", [("1", "true", 3), ("2", "false", 1), ("2", "true", 5), ("7", "false", 5)]
)
def test_status_is_the_daemons(file, kind, flagged, number):
    text = f"[Connections]\nList=a;\n[Connection a]\nKind={kind}\nActive=true\nFlagged={flagged}\n"
    assert told(file, text)[1]["status"] == number


def test_misspelt_kind_is_a_fault_with_its_line(file):
    status, values = told(file, "[Connections]\nList=a;\n[Connection a]\nKind=wifi\nActive=true\n")
    assert (status, values["status"]) == (2, 0)
    (finding,) = values["findings"]
    assert (finding["line"], finding["severity"]) == (4, "fault")
    assert "Kind=wifi" in finding["text"]


def test_misspelt_key_is_a_warning(file):
    status, values = told(file, "[Proxy]\nhost=h\n")
    assert (status, values["findings"][0]["severity"]) == (1, "warning")


def test_missing_file_is_nothing_wrong(file):
    status, printed, _ = run("--file", file)
    assert status == 0
    assert f"file        {file} (does not exist)" in printed


@pytest.mark.parametrize("make", [os.mkdir, os.mkfifo], ids=["directory", "fifo"])
def test_file_that_is_none_is_a_fault(file, make):
    make(file)
    status, printed, _ = run("--file", file)
    assert status == 2
    assert f"{file}: fault: is not a regular file" in printed


def test_control_characters_of_a_file_do_not_reach_the_terminal(file):
    file.write_text("[System]\nPlatformId=a\x1b[2J\n", "utf-8")
    assert "\x1b" not in run("--file", file)[1]


@pytest.mark.parametrize("words", [["--unknown"], ["word"], ["--wait", "-1"]])
def test_wrong_arguments_are_refused(words):
    status, printed, complaints = run(*words)
    assert (status, printed) == (2, "")
    assert complaints.startswith("trilba-platform: ")


def test_version_is_the_trees():
    assert run("--version")[1] == "trilba-platform 3.0.1415\n"


def test_watch_prints_again_after_a_change(file, tmp_path):
    file.write_text(GOOD, "utf-8")
    tool = Process([TOOL, "--json", "--watch", "--file", file], tmp_path, "trilba-platform")
    try:
        poll_for(lambda: tool.stdout.count("\n") == 1, 10, "the first answer")
        aside = file.with_suffix(".new")
        aside.write_text("[Connections]\nList=\n", "utf-8")
        aside.replace(file)
        poll_for(lambda: tool.stdout.count("\n") == 2, 10, "the second answer")
        assert [json.loads(line)["status"] for line in tool.stdout.splitlines()] == [3, 0]
        tool.send_signal(signal.SIGTERM)
        assert tool.wait() == 0
    finally:
        tool.release()
