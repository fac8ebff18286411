"""The platform file as the daemon sees it: defaults, changes, and files that cannot be read."""

import time

import pytest

from harness import observe
from harness.client import BusError
from harness.platform_file import Platform
from harness.settings import patience

NONE, KIND_TWO, KIND_ONE, FLAGGED = 0, 1, 3, 5
BROKEN = {
    "no key file": "<platform/>",
    "line outside a group": "Kind=1\n[Connections]\nList=;\n",
    "group without an end": "[Connections\nList=c0;\n",
    "line without a value": "[Connections]\nList\n",
    "a kind that is no number": "[Connections]\nList=a;\n[Connection a]\nKind=one\nActive=true\n",
    "a flag that is none": "[Connections]\nList=a;\n[Connection a]\nKind=1\nActive=perhaps\n",
    "a port that is none": "[Connections]\nList=;\n[Proxy]\nHost=h\nPort=99999\n",
    "zero bytes": "\0" * 100,
    "no UTF-8": "[System]\nImei=\udcff\udcfe\n",
}


@pytest.fixture(name="platform")
def platform_without_server(tmp_path, request):
    platform = Platform(tmp_path / "platform.conf")
    if "server" in request.fixturenames:
        platform.proxy = ("127.0.0.1", request.getfixturevalue("server").port)
    platform.write()
    return platform


@pytest.fixture(name="informed")
def fixture_informed(client):
    """The client, once the daemon has reported its first status."""
    assert client.status() == KIND_ONE
    client.wait_for_signal("connectionStatusChanged", (KIND_ONE,))
    return client


def write_raw(platform, text):
    aside = platform.path.with_suffix(".raw")
    aside.write_bytes(text.encode("utf-8", "surrogateescape"))
    aside.replace(platform.path)


def prepare_code(client, connection):
    """The number with which prepare is refused, or 0."""
    try:
        client.prepare(connection)
    except BusError as error:
        return error.code
    return 0


# -- defaults --------------------------------------------------------------------------------------


def test_missing_file_means_no_connection_and_permission(make_daemon, platform, client_of):
    platform.path.unlink()
    client = client_of(make_daemon().start())
    assert client.status() == NONE
    connection = client.connect()
    request = client.prepare(connection)
    lost = (2204, "Connection error", f"{connection}:{request}")
    assert client.wait_for_signal("errorSignal") == lost


def test_missing_directory_means_the_same(make_daemon, tmp_path, client_of):
    daemon = make_daemon()
    daemon.environment["TRILBA_PLATFORM_CONF"] = str(tmp_path / "none" / "platform.conf")
    assert client_of(daemon.start()).status() == NONE


def test_broken_file_at_the_start_means_the_defaults(make_daemon, platform, client_of):
    write_raw(platform, "[Connections")
    client = client_of(make_daemon().start())
    assert client.status() == NONE
    assert prepare_code(client, client.connect()) == 0


def test_group_that_is_not_listed_does_not_count(client, platform):
    platform.write_text("[Connections]\nList=a;\n[Connection b]\nKind=1\nActive=true\n")
    client.wait_for_status(NONE)


def test_listed_name_without_its_group_is_passed_over(client, platform):
    text = "[Connections]\nList=none;b;\n[Connection b]\nKind=2\nActive=true\nFlagged=true\n"
    platform.write_text(text)
    client.wait_for_status(FLAGGED)


def test_entry_without_keys_is_inactive(client, platform):
    platform.write_text("[Connections]\nList=a;\n[Connection a]\n")
    client.wait_for_status(NONE)


def test_order_is_that_of_the_list(client, platform):
    groups = "[Connection a]\nKind=1\nActive=true\n[Connection b]\nKind=2\nActive=true\n"
    platform.write_text(groups + "[Connections]\nList=b;a;\n")
    client.wait_for_status(KIND_TWO)


# -- changes ---------------------------------------------------------------------------------------


def test_change_is_announced_within_a_second(informed, platform):
    began = time.monotonic()
    platform.write(connections=[(2, True, True)])
    informed.wait_for_signal("connectionStatusChanged", (FLAGGED,))
    assert time.monotonic() - began < patience(1)


def test_file_that_is_written_in_place_is_seen(informed, platform):
    platform.connections = [(2, True, False)]
    platform.path.write_text(platform.text(), "utf-8")
    informed.wait_for_signal("connectionStatusChanged", (KIND_TWO,))


def test_file_that_goes_and_comes_back_is_seen(informed, platform):
    platform.path.unlink()
    informed.wait_for_signal("connectionStatusChanged", (NONE,))
    platform.write()
    informed.wait_for_signal("connectionStatusChanged", (KIND_ONE,))


def test_directory_that_goes_and_comes_back_is_seen(make_daemon, tmp_path, client_of):
    directory = tmp_path / "etc"
    directory.mkdir()
    platform = Platform(directory / "platform.conf")
    platform.write()
    daemon = make_daemon()
    daemon.environment["TRILBA_PLATFORM_CONF"] = str(platform.path)
    client = client_of(daemon.start())
    client.wait_for_status(KIND_ONE)
    directory.rename(tmp_path / "aside")
    client.wait_for_signal("connectionStatusChanged", (NONE,))
    (tmp_path / "aside").rename(directory)
    client.wait_for_signal("connectionStatusChanged", (KIND_ONE,))


def test_file_that_appears_later_is_seen(make_daemon, platform, client_of):
    platform.path.unlink()
    client = client_of(make_daemon().start())
    platform.write()
    client.wait_for_signal("connectionStatusChanged", (KIND_ONE,))


@pytest.mark.parametrize("name", BROKEN)
def test_broken_file_leaves_the_last_good_state(name, informed, daemon, platform):
    connection = informed.connect()
    platform.write(positioning=False)
    assert prepare_code(informed, connection) == 2205
    write_raw(platform, BROKEN[name])
    assert prepare_code(informed, connection) == 2205
    # It was read by the time a further change is announced.
    observe.wait_until_idle(daemon.pid)
    assert informed.status() == KIND_ONE
    platform.write(connections=[(2, True, False)])
    assert informed.wait_for_signal("connectionStatusChanged") == (KIND_TWO,)


def test_permission_is_read_at_each_question(informed, platform):
    connection = informed.connect()
    platform.write(connections=[])
    for _ in range(5):
        platform.write(positioning=False)
        assert prepare_code(informed, connection) == 2205
        platform.write(positioning=True)
        assert prepare_code(informed, connection) == 0


# -- identity --------------------------------------------------------------------------------------


def terminal(server, number):
    return server.wait(number)["slp"]["terminal"]


def test_identity_is_asked_for_again_while_the_imei_is_missing(
    make_daemon, platform, client_of, server
):
    platform.write(system={"Imsi": "262011234567890", "Mmf": "fw-1.0"})
    client = client_of(make_daemon().start())
    client.exchange(b"data", kind="other")
    first = terminal(server, 1)
    assert "imei" not in first and first["platform"] == "linux-generic"
    change_identity(client, platform, Imei="1", Imsi="2", Mmf="fw-2")
    client.exchange(b"data", kind="other")
    second = terminal(server, 2)
    assert (second["imei"], second["imsi"], second["fwId"]) == ("1", "2", "fw-2")


def test_complete_identity_is_kept(client, platform, server):
    change_identity(client, platform, Imei="1", Imsi="2", Mmf="fw-2")
    client.exchange(b"data", kind="other")
    kept = terminal(server, 1)
    assert kept["imei"] == "490154203237518"
    assert (kept["imsi"], kept["fwId"]) == ("262011234567890", "fw-1.0")


def change_identity(client, platform, **system):
    """Changes it, and waits until the daemon has seen the file."""
    client.status()
    platform.write(system=system, connections=[(2, True, False)])
    client.wait_for_signal("connectionStatusChanged", (KIND_TWO,))
