"""The documents say what the sources say."""

import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from documents import GUIDE, README, blocks, read, rows, section
from harness.settings import BUS_NAME, ROOT

INTERFACE = ElementTree.fromstring(read("data/com.kelvra.orvexd.xml")).find("interface")
SOURCES = {"cpp": "examples/cpp/main.cpp", "python": "examples/python/client.py"}
KINDS = {"method": "method", "signal of clients": "signal", "signal of the daemon": "signal"}


def described_members():
    """Names and kinds of the interface description."""
    kinds = ("method", "signal", "property")
    return {(kind, each.get("name")) for kind in kinds for each in INTERFACE.iter(kind)}


def guide_members():
    """The rows of the guide's list: name, kind, in, out."""
    return [[row[0].strip("`"), *row[1:]] for row in rows(section(GUIDE, "Members"))]


def numbers(text, pattern):
    """All numbers that a pattern's group finds."""
    return {int(found) for found in re.findall(pattern, text, re.MULTILINE)}


def test_the_dispatch_table_has_what_the_interface_description_has():
    table = re.search(r"kMembers = \{\{(.*?)\}\};", read("src/dbus/DbusService.cpp"), re.DOTALL)[1]
    found = re.findall(r'\{(\w+), bus::(\w+), "(\w+)", &', table)
    assert len(found) == table.count("{")
    kinds = {"kCall": "method", "kSignal": "signal"}
    dispatched = {(kinds[kind], name) for kind, where, name in found if where == "kInterface"}
    emitted = re.findall(r'emitSignal\("(\w+)"', read("src/dbus/ServiceEvents.cpp"))
    served = dispatched | {("signal", name) for name in emitted}
    assert [name for _, where, name in found if where == "kPropertiesInterface"] == ["Get"]
    asked = re.findall(r'\(property\) != "(\w+)"', read("src/dbus/MethodHandlers.cpp"))
    served |= {("property", name) for name in asked}
    assert served == described_members()


def test_the_guide_lists_what_the_interface_description_has():
    listed = {(KINDS.get(kind, "property"), name) for name, kind, _, _ in guide_members()}
    assert listed == described_members()
    assert len(guide_members()) == len(listed)


@pytest.mark.parametrize("row", guide_members(), ids=lambda row: row[0])
def test_the_guide_names_the_arguments_of_a_member(row):
    name, kind, given, got = row
    member = INTERFACE.find(f"*[@name='{name}']")
    if member.tag == "property":
        assert (given, got) == ("", member.get("type")) and member.get("access") in kind
        return
    default = "in" if kind == "signal of clients" else "out"
    for direction, text in (("in", given), ("out", got)):
        arguments = [
            f"{argument.get('type')} {argument.get('name')}"
            for argument in member.iter("arg")
            if argument.get("direction", default) == direction
        ]
        assert text == ", ".join(arguments)


def test_the_guide_and_the_interface_description_tell_every_error_code():
    codes = numbers(read("src/support/FailureCode.h"), r"constexpr int k\w+ = (\d+);")
    tables = section(GUIDE, "Errors")
    assert numbers(tables, r"^\| (\d+) \|") == codes
    documentation = " ".join(each.get("value") for each in INTERFACE.findall("annotation"))
    assert codes <= numbers(documentation, r"\b(\d+)\b")


def test_the_guide_tells_every_delivery_code():
    codes = numbers(read("src/core/DeliveryCode.h"), r"= (\d+),")
    assert numbers(section(GUIDE, "Delivery codes"), r"^\| (\d+) \|") == codes


def test_the_guide_tells_every_state():
    states = re.findall(r"^    (\w+) = (\d),", read("src/core/RequestState.h"), re.MULTILINE)
    assert [(name, number) for number, name, _, _ in rows(section(GUIDE, "States"))] == states


def test_the_readme_tells_every_deployment_value():
    text = read("cmake/Deployment.cmake")
    values = re.findall(r'^set\((ORVEXD_\w+) "([^"]+)" CACHE ', text, re.MULTILINE)
    told = {row[0].strip("`"): row[1] for row in rows(section(README, "Deployment values"))}
    assert set(told) == {name for name, _ in values}
    for name, value in values:
        assert told[name].startswith(f"`{value}`"), name


@pytest.mark.parametrize("block", blocks(GUIDE, *SOURCES), ids=lambda block: f"{block.line}")
def test_what_the_guide_quotes_stands_in_the_example(block):
    assert block.text in read(SOURCES[block.language])


def test_the_pictures_are_up_to_date():
    done = subprocess.run(
        [ROOT / "docs/diagrams/draw", "--check"], capture_output=True, text=True, check=False
    )
    assert done.returncode == 0, done.stderr


def test_the_picture_of_the_threads_says_what_the_text_says():
    (chart,) = re.findall(r"flowchart LR\n(.*?)```", read("docs/architecture.md"), re.DOTALL)
    labels = re.findall(r'\[([^]]+)\]|"([^"]+)"', chart.replace("\\n", " "))
    drawn = " ".join(re.findall(r">([^<>]+)</text>", read("docs/diagrams/threads.svg")))
    said = {word for pair in labels for word in re.findall(r"[\w-]+", " ".join(pair))}
    assert len(said) > 20 and said <= set(re.findall(r"[\w-]+", drawn))


def test_the_picture_of_the_floors_has_every_folder():
    table = section("docs/architecture.md", "Floors")
    folders = [(row[0], row[1].strip("`")) for row in rows(table) if row[0].isdigit()]
    drawn = re.findall(r">(\d|src/\w+)</text>", read("docs/diagrams/floors.svg"))
    floor, found = None, []
    for word in drawn:
        if word.isdigit():
            floor = word
        else:
            found.append((floor, word))
    assert sorted(found) == sorted(folders)


@pytest.mark.parametrize(
    "document",
    [README, "CONTRIBUTING.md", "CHANGELOG.md", "examples/README.md", GUIDE, "docs/architecture.md"],
)
def test_links_lead_somewhere(document):
    text = read(document)
    headings = {
        re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
        for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    }
    for target in re.findall(r"\]\(([^)]+)\)", text):
        if target.startswith("#"):
            assert target[1:] in headings, target
        else:
            assert ((ROOT / document).parent / target).exists(), target


def test_the_interface_has_the_name_of_the_bus():
    assert INTERFACE.get("name") == BUS_NAME
