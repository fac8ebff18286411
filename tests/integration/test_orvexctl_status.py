"""orvexctl status: what it prints, and across the daemon's end and next start."""

import json
import re

import pytest

from harness import orvexctl
from harness.settings import ROOT

start_fixture = orvexctl.FIXTURE

MANUAL = ROOT / "docs" / "man" / "orvexctl.1"
GONE = "the daemon does not run"


@pytest.mark.parametrize(
    "connections, line",
    [
        ([], "not connected (0)"),
        ([(2, True, False)], "connected (1)"),
        ([(1, True, False)], "connected, kind 1 (3)"),
        ([(2, True, True)], "connected, restricted (5)"),
    ],
)
def test_status_prints_words_and_number(connections, line, start, platform, make_daemon):
    platform.write(connections=connections)
    make_daemon().start()
    run = start("status")
    assert run.wait() == 0, run.report()
    assert run.lines() == [line]


def test_json_has_the_members_of_the_manual(start, platform, make_daemon):
    platform.write(connections=[(2, True, True)])
    make_daemon().start()
    run = start("status", "--json")
    assert run.wait() == 0, run.report()
    (line,) = run.lines()
    told = json.loads(line)
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d", told.pop("time"))
    assert told == {
        "running": True,
        "status": 5,
        "words": "connected, restricted",
        "connected": True,
        "kindOne": False,
        "restricted": True,
    }
    paragraph = MANUAL.read_text("utf-8").split(".Ss orvexctl status")[1].split(".Ss ")[0]
    members = re.findall(r"^\.It Va (.*)$", paragraph, re.MULTILINE)
    assert set(" , ".join(members).split(" , ")) == {"time", *told}


def test_watch_prints_one_line_per_change_until_interrupted(start, platform, client):
    run = start("status", "--watch")
    run.wait_for_lines(1)
    platform.write(connections=[(2, True, True)])
    run.wait_for_lines(2)
    client.status()
    platform.write(connections=[])
    run.wait_for_lines(3)
    run.interrupt()
    assert run.wait() == 0
    assert run.lines() == [
        "connected, kind 1 (3)",
        "connected, restricted (5)",
        "not connected (0)",
    ]


@pytest.mark.parametrize(
    "connections, line",
    [([(1, True, False)], "connected, kind 1 (3)"), ([], "not connected (0)")],
    ids=["as before", "without a network"],
)
def test_watch_goes_on_with_the_next_daemon(connections, line, start, platform, daemon, client):
    run = start("status", "--watch")
    run.wait_for_lines(1)
    daemon.expect_end()
    client.quit()
    assert run.wait_for_lines(2)[1] == GONE
    assert daemon.wait() == 0
    platform.write(connections=connections)
    daemon.start()
    assert run.wait_for_lines(3)[2] == line
    platform.write(connections=[(2, True, False)])
    assert run.wait_for_lines(4)[3] == "connected (1)"
    run.interrupt()
    assert run.wait() == 0


def test_watch_says_in_json_that_the_daemon_went(start, daemon, client):
    run = start("status", "--watch", "--json")
    run.wait_for_lines(1)
    daemon.expect_end()
    client.quit()
    told = json.loads(run.wait_for_lines(2)[1])
    assert set(told) == {"time", "running"} and told["running"] is False
    run.interrupt()
    assert run.wait() == 0


@pytest.mark.parametrize("ends_before", [False, True], ids=["with the daemon", "after the daemon"])
def test_watch_fails_when_the_bus_ends(ends_before, start, daemon, client, bus):
    run = start("status", "--watch")
    run.wait_for_lines(1)
    daemon.expect_end()
    if ends_before:
        client.quit()
        run.wait_for_lines(2)
    bus.stop()
    assert run.wait(5) == 3
    assert "bus ended" in run.stderr
    daemon.wait()
