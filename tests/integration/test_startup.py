"""The process: command line, preconditions, the name on the bus, signals, and idleness."""

import contextlib
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import pytest
from gi.repository import GLib

from harness import observe
from harness.daemon import DEVICE
from harness.platform_file import Platform
from harness.raw_client import is_error, values
from harness.settings import BUILD_DIR, BUS_NAME, DAEMON, patience

BANNER = (
    r"trilba 3\.0\.1415 \[{platform}\] orvexd built: "
    r"[A-Z][a-z]{{2}} [ 123]\d \d{{4}} \d\d:\d\d:\d\d\n"
)
REPLACE, DO_NOT_QUEUE, ALLOW_REPLACEMENT = 2, 4, 1
PRIMARY_OWNER, EXISTS = 1, 3


@pytest.fixture(name="platform")
def platform_without_server(tmp_path):
    """No test of this file but the last ones sends anything to a server."""
    platform = Platform(tmp_path / "platform.conf")
    platform.write()
    return platform


@pytest.fixture(name="new_daemon")
def fixture_new_daemon(make_daemon):
    """A daemon that is not started yet."""
    return make_daemon()


@pytest.fixture(name="owners")
def fixture_owners(make_raw_client):
    """A bus client that is told of every change of the name's owner."""
    client = make_raw_client()
    client.add_match(f"type='signal',member='NameOwnerChanged',arg0='{BUS_NAME}'")
    return client


def run(arguments, environment, program=DAEMON, **options):
    """Runs the daemon to its end: (status, standard output and error)."""
    done = subprocess.run(
        [program, *map(str, arguments)],
        env=environment,
        capture_output=True,
        text=True,
        timeout=patience(20),
        check=False,
        **options,
    )
    return done.returncode, done.stdout + done.stderr


def wait_for_owner(owners):
    """Waits for the next change of the name's owner and returns the new one, or nothing."""
    return values(owners.signal("NameOwnerChanged"))[2]


def owner_changes(owners):
    """The changes of the name's owner so far."""
    owners.settle_bus()
    return owners.signals("NameOwnerChanged")


def process_of(owners, name=BUS_NAME):
    """The process behind a name, as the bus knows it."""
    answer = owners.ask_bus("GetConnectionUnixProcessID", GLib.Variant("(s)", (name,)))
    assert not is_error(answer), values(answer)
    return values(answer)[0]


def is_alive_on_bus(client):
    """Whether the daemon answers calls."""
    return not is_error(client.call("Ping", interface="org.freedesktop.DBus.Peer"))


# -- version ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("option", ["--version", "-v"])
def test_version_prints_the_banner_and_nothing_else(option, new_daemon):
    status, output = run([option], new_daemon.environment)
    assert status == 0
    assert re.fullmatch(BANNER.format(platform="linux-test"), output), output


def test_version_names_the_default_platform_without_a_platform_file(tmp_path):
    environment = {"TRILBA_PLATFORM_CONF": str(tmp_path / "none")}
    status, output = run(["--version"], environment)
    assert status == 0
    assert re.fullmatch(BANNER.format(platform="linux-generic"), output), output


def test_version_needs_neither_identity_nor_bus(platform):
    environment = {
        "TRILBA_PLATFORM_CONF": str(platform.path),
        "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent",
    }
    status, output = run(["--version"], environment)
    assert (status, output.startswith("trilba ")) == (0, True)


def test_version_after_other_words_is_found(new_daemon):
    words = ["surplus", "--unknown", *new_daemon.arguments, "-v"]
    assert run(words, new_daemon.environment)[1].startswith("trilba ")


@pytest.mark.parametrize("word", ["--Version", "--VERSION", "-V", "--version=1", "--versio", "-vD"])
def test_option_that_does_not_match_exactly_is_skipped(word, new_daemon):
    new_daemon.arguments.append(word)
    new_daemon.start()


def test_program_named_like_the_option_prints_the_banner(new_daemon):
    command = f'exec -a --version "{DAEMON}"'
    status, output = run(["-c", command], new_daemon.environment, "bash")
    assert (status, output.startswith("trilba ")) == (0, True)


def test_program_without_a_name_starts(new_daemon, owners):
    words = ["", *map(str, new_daemon.arguments)]
    with subprocess.Popen(words, executable=DAEMON, env=new_daemon.environment) as nameless:
        try:
            wait_for_owner(owners)
            assert is_alive_on_bus(owners)
        finally:
            nameless.terminate()
    assert nameless.returncode == 0


# -- daemonising -----------------------------------------------------------------------------------


def end(pid):
    """Ends a daemon that is not our child, with SIGTERM, and waits for its end."""
    pidfd = os.pidfd_open(pid)
    try:
        signal.pidfd_send_signal(pidfd, signal.SIGTERM)
        observe.wait_for_end(pidfd)
    finally:
        with contextlib.suppress(ProcessLookupError):
            signal.pidfd_send_signal(pidfd, signal.SIGKILL)
        os.close(pidfd)


def run_detaching(words, daemon):
    """Runs the daemon until each process of it has ended: (status, output)."""
    ended, inherited = os.pipe()
    try:
        result = run(words, daemon.environment, pass_fds=[inherited])
    finally:
        os.close(inherited)
    with os.fdopen(ended) as pipe:
        assert select.select([pipe], [], [], patience(10))[0], "a process is left"
    return result


@pytest.mark.parametrize("option", ["--daemon", "-D"])
def test_daemon_option_detaches_the_process(option, new_daemon, owners):
    new_daemon.arguments.insert(0, option)
    new_daemon.launch()
    assert new_daemon.wait() == 0
    wait_for_owner(owners)
    pid = process_of(owners)
    try:
        assert pid != new_daemon.pid
        assert os.getsid(pid) != os.getsid(0)
        assert os.readlink(f"/proc/{pid}/cwd") == "/"
        streams = observe.file_descriptors(pid)
        assert [streams[number] for number in range(3)] == ["/dev/null"] * 3
        assert observe.status_field(pid, "Umask") == "0077"
        assert is_alive_on_bus(owners)
    finally:
        end(pid)
    assert wait_for_owner(owners) == ""


def test_detached_daemon_serves_and_quits_on_request(new_daemon, owners):
    new_daemon.arguments.append("--daemon")
    new_daemon.launch()
    assert new_daemon.wait() == 0
    wait_for_owner(owners)
    pidfd = os.pidfd_open(process_of(owners))
    try:
        assert not is_error(owners.call("quit"))
        observe.wait_for_end(pidfd)
    finally:
        os.close(pidfd)


def test_detached_daemon_is_told_of_changes_of_the_platform_file(new_daemon, owners, platform):
    # A watch that was set up before the fork would be the parent's.
    new_daemon.arguments.append("--daemon")
    new_daemon.launch()
    assert new_daemon.wait() == 0
    wait_for_owner(owners)
    owners.add_match(f"type='signal',sender='{BUS_NAME}'")
    pid = process_of(owners)
    try:
        platform.write(connections=[(2, True, True)])
        assert values(owners.signal("connectionStatusChanged")) == (5,)
    finally:
        end(pid)


def test_version_before_daemon_prints_and_does_not_detach(new_daemon):
    status, output = run_detaching(["--version", "--daemon"], new_daemon)
    assert (status, output.startswith("trilba ")) == (0, True)


def test_daemon_before_version_prints_into_the_null_device(new_daemon, owners):
    assert run_detaching(["--daemon", "--version"], new_daemon) == (0, "")
    assert owner_changes(owners) == []


# -- directories -----------------------------------------------------------------------------------


def spoil(directory):
    """Puts a configuration file there that ends the daemon which reads it."""
    directory.mkdir(exist_ok=True)
    (directory / "orvexd.schema").write_text("<other/>", "utf-8")
    return directory


@pytest.mark.parametrize("option", ["--preinst-dir", "--storage-dir"])
def test_directory_option_without_its_argument_is_as_if_absent(option, new_daemon):
    new_daemon.arguments = [option]
    new_daemon.start()


def test_preinst_dir_is_where_the_configuration_is_read(new_daemon, tmp_path):
    new_daemon.arguments = ["--preinst-dir", spoil(tmp_path / "spoilt")]
    assert new_daemon.launch().wait() == -signal.SIGABRT


def test_storage_dir_is_not_where_the_configuration_is_read(new_daemon, tmp_path):
    new_daemon.arguments = ["--storage-dir", spoil(tmp_path / "spoilt")]
    new_daemon.start()


def test_later_preinst_dir_wins(new_daemon, tmp_path, preinst):
    spoilt = spoil(tmp_path / "spoilt")
    new_daemon.arguments = ["--preinst-dir", spoilt, "--preinst-dir", preinst]
    new_daemon.start()
    new_daemon.stop()
    new_daemon.arguments = ["--preinst-dir", preinst, "--preinst-dir", spoilt]
    assert new_daemon.launch().wait() == -signal.SIGABRT


@pytest.mark.parametrize("option", ["--preinst-dir", "--storage-dir"])
@pytest.mark.parametrize("word", ["--version", "--daemon", "--preinst-dir"])
def test_argument_of_a_directory_option_is_never_an_option(option, word, new_daemon):
    new_daemon.arguments = [option, word]
    new_daemon.start()
    assert new_daemon.process.status is None


# -- preconditions ---------------------------------------------------------------------------------


@pytest.mark.parametrize("variable", DEVICE)
@pytest.mark.parametrize("state", ["missing", "empty"])
def test_identity_variable_is_required(variable, state, new_daemon, owners):
    if state == "empty":
        new_daemon.environment[variable] = ""
    else:
        del new_daemon.environment[variable]
    assert new_daemon.launch().wait() == 1
    new_daemon.expect_silence()
    assert owner_changes(owners) == []


def test_identity_variable_of_one_blank_is_not_empty(new_daemon):
    new_daemon.environment.update(dict.fromkeys(DEVICE, " "))
    new_daemon.start()


@pytest.fixture(name="ordinary_user")
def fixture_ordinary_user():
    """What makes a program run without being root, its path, and what it needs to be found."""
    with open("/proc/self/uid_map", encoding="utf-8") as ids:
        knows_others = int(ids.readline().split()[2]) > 65534
    if not knows_others:
        # In a namespace of one user every other one is made by a further namespace.
        yield ["unshare", "--user"], DAEMON, {}
        return
    # The build directory may be closed to others.
    with tempfile.TemporaryDirectory() as directory:
        place = pathlib.Path(directory)
        place.chmod(0o755)
        shutil.copy(DAEMON, place)
        shutil.copy(BUILD_DIR / "lib" / "libtrilbacore.so.1", place)
        become = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"]
        yield become, place / DAEMON.name, {"LD_LIBRARY_PATH": directory}


def test_ordinary_user_gets_status_1_and_the_bus_is_not_even_asked(
    new_daemon, ordinary_user
):
    become, program, environment = ordinary_user
    address = f"orvexd-test-{os.getpid()}"
    with socket.socket(socket.AF_UNIX) as bus:
        bus.bind("\0" + address)  # an abstract one: no directory can be closed to the daemon
        bus.listen()
        bus.setblocking(False)
        environment = {
            **new_daemon.environment,
            **environment,
            "DBUS_SYSTEM_BUS_ADDRESS": f"unix:abstract={address}",
        }
        version = run([*become[1:], program, "--version"], environment, become[0])
        assert (version[0], version[1].startswith("trilba ")) == (0, True), version
        assert run([*become[1:], program], environment, become[0]) == (1, "")
        with pytest.raises(BlockingIOError):
            bus.accept()


def test_file_creation_mask_leaves_nothing_to_others(new_daemon):
    new_daemon.start()
    assert observe.status_field(new_daemon.pid, "Umask") == "0077"


# -- the name on the bus ---------------------------------------------------------------------------


def test_daemon_owns_its_name_and_gives_it_back(new_daemon, owners):
    new_daemon.start()
    assert wait_for_owner(owners).startswith(":1.")
    new_daemon.stop()
    assert wait_for_owner(owners) == ""


def test_no_bus_ends_the_start_with_status_1(new_daemon):
    new_daemon.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/nonexistent/bus"
    assert new_daemon.launch().wait() == 1
    new_daemon.expect_silence()


def test_address_that_is_none_ends_the_start_with_status_1(new_daemon):
    new_daemon.environment["DBUS_SYSTEM_BUS_ADDRESS"] = "what:"
    assert new_daemon.launch().wait() == 1
    new_daemon.expect_silence()


def test_second_instance_ends_with_status_1_and_the_first_goes_on(make_daemon, owners):
    first, second = make_daemon().start(), make_daemon()
    owner = wait_for_owner(owners)
    assert second.launch().wait() == 1
    second.expect_silence()
    assert owner_changes(owners) == []
    assert process_of(owners) == first.pid
    assert process_of(owners, owner) == first.pid
    assert is_alive_on_bus(owners)


def request_name(client, flags):
    return values(client.ask_bus("RequestName", GLib.Variant("(su)", (BUS_NAME, flags))))[0]


def test_owner_that_keeps_the_name_makes_the_start_fail(new_daemon, owners):
    assert request_name(owners, DO_NOT_QUEUE) == PRIMARY_OWNER
    owners.received.clear()
    assert new_daemon.launch().wait() == 1
    new_daemon.expect_silence()
    assert owner_changes(owners) == []


def test_owner_that_allows_it_is_replaced(new_daemon, make_raw_client, owners):
    peer = make_raw_client()
    assert request_name(peer, ALLOW_REPLACEMENT) == PRIMARY_OWNER
    assert wait_for_owner(owners) == peer.name
    new_daemon.launch()
    assert process_of(owners, wait_for_owner(owners)) == new_daemon.pid
    assert is_alive_on_bus(owners)


def test_daemon_does_not_allow_its_replacement(new_daemon, make_raw_client):
    new_daemon.start()
    assert request_name(make_raw_client(), REPLACE | DO_NOT_QUEUE) == EXISTS


def test_bus_that_forbids_the_name_makes_the_start_fail(new_daemon, make_bus):
    policy = (
        '<policy context="default"><allow user="*"/><allow send_destination="*"/>'
        '<allow receive_sender="*"/></policy>'
    )
    new_daemon.environment["DBUS_SYSTEM_BUS_ADDRESS"] = make_bus(policy=policy).address
    assert new_daemon.launch().wait() == 1
    new_daemon.expect_silence()


def test_bus_that_takes_no_match_rule_makes_the_start_fail(new_daemon, make_bus):
    bus = make_bus(limits={"max_match_rules_per_connection": 0})
    new_daemon.environment["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address
    assert new_daemon.launch().wait() == 1
    new_daemon.expect_silence()


# -- signals and the bus's end ---------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_one_signal_ends_the_daemon_with_status_0(number, new_daemon):
    new_daemon.start()
    new_daemon.send_signal(number)
    assert new_daemon.wait() == 0
    new_daemon.expect_silence()


def test_hangup_keeps_its_default_action(new_daemon):
    new_daemon.start()
    new_daemon.send_signal(signal.SIGHUP)
    assert new_daemon.wait() == -signal.SIGHUP


def test_broken_pipe_does_not_end_the_daemon(new_daemon, owners):
    new_daemon.start()
    new_daemon.process.send_signal(signal.SIGPIPE)
    assert is_alive_on_bus(owners)


def test_end_of_the_bus_ends_the_daemon_at_once(new_daemon, bus):
    new_daemon.start()
    new_daemon.expect_end()
    bus.stop()
    began = time.monotonic()
    assert new_daemon.wait() == 1
    assert time.monotonic() - began < patience(2)
    new_daemon.expect_silence()


def test_killed_bus_ends_the_daemon_at_once(new_daemon, bus):
    new_daemon.start()
    new_daemon.expect_end()
    bus.process.send_signal(signal.SIGKILL)
    assert new_daemon.wait() == 1
    new_daemon.expect_silence()


def test_daemon_starts_again_after_each_end(new_daemon):
    for _ in range(3):
        new_daemon.start()
        new_daemon.stop()


# -- idleness --------------------------------------------------------------------------------------


def test_idle_daemon_has_two_threads(new_daemon):
    new_daemon.start()
    observe.wait_until_idle(new_daemon.pid)
    found = observe.own_threads(new_daemon.pid)
    assert sorted(found.values()) == ["gmain", "orvexd"]


def test_idle_daemon_sleeps_without_a_timer(new_daemon):
    new_daemon.start()
    assert observe.next_timer(new_daemon.pid) == float("inf")


def test_idle_daemon_is_not_woken(new_daemon):
    new_daemon.start()
    observe.wait_until_idle(new_daemon.pid)
    before = observe.wake_ups(new_daemon.pid)
    time.sleep(2)  # the absence of an event is what is measured
    assert observe.wake_ups(new_daemon.pid) == before


def test_foreign_traffic_of_the_bus_does_not_wake_the_daemon(new_daemon, make_raw_client):
    new_daemon.start()
    client = make_raw_client()
    observe.wait_until_idle(new_daemon.pid)
    before = observe.wake_ups(new_daemon.pid)
    for number in range(100):
        client.emit("noise", GLib.Variant("(u)", (number,)), interface="com.example.noise")
    client.settle_bus()
    assert observe.wake_ups(new_daemon.pid) == before
