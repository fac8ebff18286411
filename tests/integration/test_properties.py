"""The property "connectionStatus" and what stands for errors there."""

import xml.etree.ElementTree as ElementTree

import pytest
from gi.repository import GLib

from harness.platform_file import Platform
from harness.raw_client import is_error, values
from harness.settings import BUS_NAME

PROPERTIES = "org.freedesktop.DBus.Properties"
UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
STATUS = GLib.Variant("(ss)", (BUS_NAME, "connectionStatus"))


@pytest.fixture(name="platform")
def platform_without_server(tmp_path):
    platform = Platform(tmp_path / "platform.conf")
    platform.write()
    return platform


def get(raw, body):
    return raw.call("Get", body, interface=PROPERTIES)


def test_status_is_a_variant_of_one_uint32(raw):
    answer = get(raw, STATUS)
    assert answer.get_signature() == "v"
    assert answer.get_body().get_child_value(0).get_variant().get_type_string() == "u"
    assert values(answer) == (3,)


def test_arguments_behind_the_property_are_accepted(raw):
    assert values(get(raw, GLib.Variant("(ssu)", (BUS_NAME, "connectionStatus", 1)))) == (3,)


@pytest.mark.parametrize(
    "interface,name",
    [
        (BUS_NAME, "ConnectionStatus"),
        (BUS_NAME, "connectionStatus2"),
        (BUS_NAME, "connection"),
        (BUS_NAME, "status"),
        (BUS_NAME, ""),
        ("", "connectionStatus"),
        ("com.kelvra", "connectionStatus"),
        (BUS_NAME + "2", "connectionStatus"),
        (PROPERTIES, "connectionStatus"),
        ("connectionStatus", BUS_NAME),
        ("no name at all", "\u00e9"),
    ],
)
def test_other_property_is_left_to_the_library(interface, name, raw):
    answer = get(raw, GLib.Variant("(ss)", (interface, name)))
    assert answer.get_error_name() == UNKNOWN_METHOD


def test_introspection_is_answered_with_an_empty_node(raw):
    answer = raw.call("Introspect", None, interface="org.freedesktop.DBus.Introspectable")
    (text,) = values(answer)
    assert list(ElementTree.fromstring(text)) == []


def test_all_properties_at_once_are_left_to_the_library(raw):
    answer = raw.call("GetAll", GLib.Variant("(s)", (BUS_NAME,)), interface=PROPERTIES)
    assert answer.get_error_name() == UNKNOWN_METHOD


@pytest.mark.parametrize(
    "body",
    [
        None,
        GLib.Variant("(s)", (BUS_NAME,)),
        GLib.Variant("(su)", (BUS_NAME, 1)),
        GLib.Variant("(us)", (1, "connectionStatus")),
        GLib.Variant("(as)", ([BUS_NAME, "connectionStatus"],)),
        GLib.Variant("(so)", (BUS_NAME, "/connectionStatus")),
        GLib.Variant("(ayay)", (BUS_NAME.encode(), b"connectionStatus")),
    ],
    ids=lambda body: body.get_type_string() if body else "none",
)
def test_wrong_arguments_of_get_are_left_to_the_library(body, raw):
    assert get(raw, body).get_error_name() == UNKNOWN_METHOD


def test_daemon_outlives_a_thousand_refused_questions(raw):
    for _ in range(20):
        wrong = [
            raw.compose("Get", GLib.Variant("(ss)", (BUS_NAME, "x")), interface=PROPERTIES)
            for _ in range(50)
        ]
        raw.send(*wrong)
        assert all(is_error(raw.answer(each.get_serial())) for each in wrong)
    assert values(get(raw, STATUS)) == (3,)


def test_first_question_is_answered_before_the_change_is_announced(raw):
    # The status that nobody has asked for yet counts as 0.
    answer = get(raw, STATUS)
    change = raw.signal("connectionStatusChanged")
    assert (values(answer), values(change)) == ((3,), (3,))
    assert raw.history.index(answer) < raw.history.index(change)


def test_later_questions_announce_nothing(raw):
    get(raw, STATUS)
    raw.signal("connectionStatusChanged")
    for _ in range(3):
        get(raw, STATUS)
    raw.settle()
    assert raw.signals("connectionStatusChanged") == []


def test_question_without_a_connection_announces_nothing(make_daemon, platform, make_raw_client):
    platform.write(connections=[])
    make_daemon().start()
    raw = make_raw_client()
    raw.add_match(f"type='signal',sender='{BUS_NAME}'")
    assert values(get(raw, STATUS)) == (0,)
    raw.settle()
    assert raw.signals("connectionStatusChanged") == []


def test_status_of_many_questions_at_once_is_announced_once(raw):
    questions = [raw.compose("Get", STATUS, interface=PROPERTIES) for _ in range(50)]
    raw.send(*questions)
    assert {values(raw.answer(each.get_serial())) for each in questions} == {(3,)}
    raw.settle()
    assert [values(each) for each in raw.signals("connectionStatusChanged")] == [(3,)]
