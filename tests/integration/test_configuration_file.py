"""The configuration file: what is accepted, what ends the daemon, and that no value matters."""

import pathlib
import signal

import pytest
from gi.repository import GLib

from harness import observe, wire
from harness.raw_client import is_error, values
from harness.platform_file import Platform
from harness.settings import BUS_NAME, ROOT

EXAMPLE = ROOT / "data" / "orvexd.schema"
LAUGHS = (
    '<!DOCTYPE orvexdconfig [<!ENTITY a "ha">'
    + "".join(
        f'<!ENTITY {name} "{f"&{before};" * 10}">' for before, name in zip("abcdefghi", "bcdefghij")
    )
    + "]><orvexdconfig><item><key>&j;</key><value>1</value></item></orvexdconfig>"
)

ACCEPTED = {
    "empty root": "<orvexdconfig/>",
    "root with text only": "<orvexdconfig>nothing here</orvexdconfig>",
    "one item": "<orvexdconfig><item><key>k</key><value>v</value></item></orvexdconfig>",
    "text and comments in between": (
        "<orvexdconfig>text<!-- c --><item>text<!-- c --><key>k</key>text<?p i?><value>v</value>"
        "text</item></orvexdconfig>"
    ),
    "children behind the value": (
        "<orvexdconfig><item><key>k</key><value>v</value><key/><other><item/></other></item>"
        "</orvexdconfig>"
    ),
    "elements within key and value": (
        "<orvexdconfig><item><key>k<b>1</b></key><value><x>1</x>2</value></item></orvexdconfig>"
    ),
    "empty key and value": "<orvexdconfig><item><key/><value/></item></orvexdconfig>",
    "the same key twice": (
        "<orvexdconfig><item><key>k</key><value>1</value></item>"
        "<item><key>k</key><value>2</value></item></orvexdconfig>"
    ),
    "attributes": (
        '<orvexdconfig a="1"><item b="2"><key c="3">k</key><value>v</value></item></orvexdconfig>'
    ),
    "unknown keys": (
        "<orvexdconfig><item><key>no/such/key</key><value>v</value></item></orvexdconfig>"
    ),
    "another encoding": (
        "<?xml version='1.0' encoding='ISO-8859-1'?><orvexdconfig><item><key>k</key>"
        "<value>\xe9</value></item></orvexdconfig>"
    ).encode("latin-1"),
}
NOT_WELL_FORMED = {
    "empty file": "",
    "blanks": " \n ",
    "no XML": "[orvexd]\nkey=value\n",
    "binary": bytes(range(256)),
    "cut off": "<orvexdconfig><item><key>k</key><value>v</value></item>",
    "crossed elements": "<orvexdconfig><item></orvexdconfig></item>",
    "two roots": "<orvexdconfig/><orvexdconfig/>",
    "bytes that are no text": b"<orvexdconfig><item>\xff</item></orvexdconfig>",
    "wrong root, cut off": "<other>",
    "entities that explode": LAUGHS,
}
MALFORMED = {
    "another root": "<config/>",
    "root in capitals": "<ORVEXDCONFIG/>",
    "root with a longer name": "<orvexdconfig2/>",
    "element that is no item": "<orvexdconfig><entry/></orvexdconfig>",
    "item in capitals": (
        "<orvexdconfig><Item><key>k</key><value>v</value></Item></orvexdconfig>"
    ),
    "wrong element behind good items": (
        "<orvexdconfig><item><key>k</key><value>v</value></item><items/></orvexdconfig>"
    ),
    "empty item": "<orvexdconfig><item/></orvexdconfig>",
    "item of text": "<orvexdconfig><item>k v</item></orvexdconfig>",
    "value before key": (
        "<orvexdconfig><item><value>v</value><key>k</key></item></orvexdconfig>"
    ),
    "key without value": "<orvexdconfig><item><key>k</key></item></orvexdconfig>",
    "value without key": "<orvexdconfig><item><value>v</value></item></orvexdconfig>",
    "something between key and value": (
        "<orvexdconfig><item><key>k</key><b/><value>v</value></item></orvexdconfig>"
    ),
    "something before the key": (
        "<orvexdconfig><item><b/><key>k</key><value>v</value></item></orvexdconfig>"
    ),
    "key in capitals": "<orvexdconfig><item><KEY>k</KEY><value>v</value></item></orvexdconfig>",
}


@pytest.fixture(name="platform")
def platform_without_server(request):
    """Only the tests that ask for a server get one."""
    platform = Platform(request.getfixturevalue("tmp_path") / "platform.conf")
    if "server" in request.fixturenames:
        platform.proxy = ("127.0.0.1", request.getfixturevalue("server").port)
    platform.write()
    return platform


@pytest.fixture(name="schema")
def fixture_schema(preinst):
    """Writes the configuration file."""

    def write(content):
        data = content if isinstance(content, bytes) else content.encode()
        (preinst / "orvexd.schema").write_bytes(data)

    return write


@pytest.fixture(name="owners")
def fixture_owners(make_raw_client):
    client = make_raw_client()
    client.add_match(f"type='signal',member='NameOwnerChanged',arg0='{BUS_NAME}'")
    return client


def item(key, value):
    return f"<item><key>{key}</key><value>{value}</value></item>"


def assert_killed_after_taking_the_name(daemon, owners):
    """SIGABRT, not a word, and the name was taken and given back by the bus."""
    assert daemon.launch().wait() == -signal.SIGABRT
    daemon.expect_silence()
    owners.settle_bus()
    changes = [values(change) for change in owners.signals("NameOwnerChanged")]
    assert [bool(new) for _, _, new in changes] == [True, False]


def test_missing_file_is_normal(make_daemon, preinst):
    assert not (preinst / "orvexd.schema").exists()
    make_daemon().start()


def test_missing_directory_is_normal(make_daemon, tmp_path):
    daemon = make_daemon()
    daemon.arguments = ["--preinst-dir", tmp_path / "none"]
    daemon.start()


def test_link_to_nowhere_counts_as_missing(make_daemon, preinst):
    (preinst / "orvexd.schema").symlink_to("nowhere")
    make_daemon().start()


def test_directory_in_its_place_is_ignored(make_daemon, preinst):
    (preinst / "orvexd.schema").mkdir()
    make_daemon().start()


def test_example_of_the_package_is_accepted(make_daemon, schema):
    schema(pathlib.Path(EXAMPLE).read_bytes())
    make_daemon().start()


@pytest.mark.parametrize("name", ACCEPTED)
def test_well_formed_file_is_accepted(name, make_daemon, schema):
    schema(ACCEPTED[name])
    make_daemon().start()


@pytest.mark.parametrize("name", NOT_WELL_FORMED)
def test_file_that_is_no_well_formed_xml_is_ignored(name, make_daemon, schema):
    schema(NOT_WELL_FORMED[name])
    make_daemon().start()


@pytest.mark.parametrize("name", MALFORMED)
def test_file_of_the_wrong_structure_ends_the_daemon(name, make_daemon, schema, owners):
    schema(MALFORMED[name])
    assert_killed_after_taking_the_name(make_daemon(), owners)


def test_file_is_not_read_when_the_name_belongs_to_somebody_else(make_daemon, schema, owners):
    answer = owners.ask_bus("RequestName", GLib.Variant("(su)", (BUS_NAME, 4)))
    assert values(answer) == (1,)
    schema("<other/>")
    assert make_daemon().launch().wait() == 1


@pytest.mark.parametrize("value", ["1", "0", "-5", "soon", "", "99999999999"])
def test_shutdown_delay_of_the_file_takes_no_effect(value, make_daemon, schema, make_raw_client):
    schema(f"<orvexdconfig>{item('daemon_shutdown_delay', value)}</orvexdconfig>")
    daemon = make_daemon().start()
    assert not is_error(make_raw_client().call("quitDelayed"))
    assert 55_000 < observe.next_timer(daemon.pid) <= 60_000


def test_values_of_the_file_do_not_change_the_request(make_daemon, schema, client_of, server):
    keys = {
        "orvexd/slp/version": "9.9",
        "orvexd/slp/xmlns": "http://elsewhere.example/",
        "orvexd/slpreq/type": "other",
        "orvexd/slpreq/platform": "other",
        "orvexd/slpreq/swId": "other",
        "orvexd/slpreq/swVersion": "other",
        "imsi": "1",
        "imei": "2",
        "fwId": "3",
    }
    items = "".join(item(key, value) for key, value in keys.items())
    schema(f"<orvexdconfig>{items}</orvexdconfig>")
    client = client_of(make_daemon().start())
    client.exchange(b"question", kind="other")

    slp = server.wait(1)["slp"]
    assert slp["namespace"] == "http://slp.kelvra.example/slp/2.0"
    assert slp["terminal"] == wire.TERMINAL


def test_time_outs_of_the_file_take_no_effect(make_daemon, schema, client_of, server):
    keys = {
        "orvexd/connect_timeout": "1",
        "orvexd/transfer_timeout": "1",
        "orvexd/wait_timeout/fingerprint": "1",
        "orvexd/wait_timeout/": "1",
        "orvexd/wait_timeout": "1",
    }
    items = "".join(item(key, value) for key, value in keys.items())
    schema(f"<orvexdconfig>{items}</orvexdconfig>")
    server.queue({"on": [{"at": "upload-end", "do": "pause", "seconds": 1.2}]})
    client = client_of(make_daemon().start())
    # A millisecond's patience would close the part before the data come.
    connection = client.connect(kind="other")
    request = client.prepare(connection)
    client.wait_for_request_data(connection, request)
    server.wait(1, "head")
    assert client.sendData(connection, request, b"late", last=False) == 0
    assert client.sendData(connection, request, b"r") == 0
    assert client.fetch(connection, request) == [b"later"]
