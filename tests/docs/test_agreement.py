"""The documents say what the sources say."""

import re
import xml.etree.ElementTree as ElementTree

import pytest

from documents import ARCHITECTURE, GUIDE, README, blocks, read, rows, section
from harness.settings import BUS_NAME, ROOT
from include_graph import FLOOR_OF_FOLDER, FLOOR_OF_MODULE, client_includes, module_of, read_includes

INTERFACE = ElementTree.fromstring(read("data/com.kelvra.orvexd.xml")).find("interface")
SOURCES = {
    "c": ["examples/fingerprint.c"],
    "js": ["examples/five-lines.js"],
    "cpp": ["examples/raw/cpp/main.cpp"],
    "python": ["examples/five-lines.py", "examples/raw/python/client.py"],
}
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


def names():
    """The names that a client may use on the bus, by their constants."""
    constants = r'constexpr const char\* (k\w+) = "([^"]+)";'
    return dict(re.findall(constants, read("src/protocol/Names.h")))


def test_the_dispatch_table_has_what_the_interface_description_has():
    handlers = read("src/dbus/MethodHandlers.cpp")
    table = re.search(r"kMembers = std::to_array<Member>\(\{(.*?)\}\);", handlers, re.DOTALL)[1]
    own = re.findall(r"\{(\w+), bus::kInterface, bus::(\w+), &", table)
    others = re.findall(r'\{kCall, bus::kPropertiesInterface, "(\w+)", &', table)
    assert len(own) + len(others) == table.count("{")
    assert others == ["Get"]
    kinds = {"kCall": "method", "kSignal": "signal"}
    served = {(kinds[kind], names()[name]) for kind, name in own}
    emitted = re.findall(r"emitSignal\(bus::(\w+)", read("src/dbus/ServiceEvents.cpp"))
    served |= {("signal", names()[name]) for name in emitted}
    asked = re.findall(r"\(property\) != bus::(\w+)", handlers)
    served |= {("property", names()[name]) for name in asked}
    assert served == described_members()


def methods():
    return {name for kind, name in described_members() if kind == "method"}


@pytest.mark.parametrize(
    "source, table",
    [
        ("tests/integration/test_methods.py", "GOOD"),
        ("tests/integration/faults/test_wrong_arguments.py", "SIGNATURES"),
        ("tests/integration/faults/test_wrong_arguments.py", "GOOD"),
        ("fuzz/bus/rounds.py", "_SIGNATURES"),
    ],
)
def test_a_table_of_the_tests_has_every_method(source, table):
    (text,) = re.findall(rf"^{table} = \{{\n(.*?)^\}}", read(source), re.MULTILINE | re.DOTALL)
    assert methods() - {"quit"} <= set(re.findall(r'^    "(\w+)":', text, re.MULTILINE))


def test_the_tests_of_the_policy_call_every_method():
    called = set(re.findall(r'"(\w+)"', read("tests/integration/test_bus_policy.py")))
    assert methods() <= called


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
    codes = numbers(read("src/protocol/Codes.h"), r"constexpr int k\w+ = (\d+);")
    tables = section(GUIDE, "Errors")
    assert numbers(tables, r"^\| (\d+) \|") == codes
    documentation = " ".join(each.get("value") for each in INTERFACE.findall("annotation"))
    assert codes <= numbers(documentation, r"\b(\d+)\b")


def test_the_guide_tells_every_delivery_code():
    codes = numbers(read("src/protocol/Codes.h"), r"^    \w+ = (2\d+),")
    assert numbers(section(GUIDE, "Delivery codes"), r"^\| (\d+) \|") == codes


def test_the_guide_tells_every_state():
    (found,) = re.findall(r"enum class RequestState.*?\};", read("src/protocol/Codes.h"), re.DOTALL)
    states = re.findall(r"^    (\w+) = (\d),", found, re.MULTILINE)
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
    assert any(block.text in read(source) for source in SOURCES[block.language])


def test_the_guide_tells_every_error_of_the_library():
    values = set(re.findall(r"^    ORVEX_ERROR_(\w+),$", read("client/include/orvex-error.h"), re.MULTILINE))
    told = {word for row in rows(section(GUIDE, "The library")) for word in re.findall(r"`([A-Z_]+)`", row[0])}
    assert told == values


def picture(document, heading):
    """The Mermaid source of a section's picture."""
    (found,) = re.findall(r"^```mermaid\n(.*?)^```$", section(document, heading), re.M | re.S)
    return found


def test_the_house_is_drawn_and_told_as_the_include_check_has_it():
    checked = {(str(floor), f"src/{folder}") for folder, floor in FLOOR_OF_FOLDER.items()}
    text = section(ARCHITECTURE, "Floors")
    told = {(row[0], row[1].strip("`")) for row in rows(text)}
    assert told == checked
    assert set(re.findall(r'"(\d) (src/\w+)"', picture(ARCHITECTURE, "Floors"))) == checked


def test_the_client_library_is_told_as_the_include_check_has_it():
    table = rows(section(ARCHITECTURE, "The client library"))
    told = {name: int(row[0]) for row in table for name in re.findall(r"`([\w-]+)`", row[1])}
    assert told | {"orvexclient": 6} == FLOOR_OF_MODULE  # the last one is a header of headers


def test_the_picture_of_the_client_library_has_its_modules_and_true_arrows():
    drawn = picture(ARCHITECTURE, "The client library")
    modules = dict(re.findall(r'(\w+)\["\d ([\w-]+)"\]', drawn))
    floors = {name: int(floor) for floor, name in re.findall(r'"(\d) ([\w-]+)"', drawn)}
    above_ground = {name: floor for name, floor in FLOOR_OF_MODULE.items() if floor > 0 and name != "orvexclient"}
    assert floors == above_ground
    true = {(module_of(name), used) for name, _, used in client_includes(read_includes(ROOT / "client"))}
    arrows = set()
    for line in re.sub(r'\["[^"]+"\]', "", drawn).splitlines()[1:]:
        ends = [[modules[name.strip()] for name in end.split("&")] for end in line.split("-->")]
        arrows |= {(a, b) for above, below in zip(ends, ends[1:]) for a in above for b in below}
    assert arrows <= true
    assert {below for _, below in arrows} == set(floors) - {"orvex-client"}


@pytest.mark.parametrize("row", rows(section(ARCHITECTURE, "Interfaces")), ids=lambda row: row[0])
def test_an_interface_is_declared_and_implemented_where_the_text_says(row):
    name, header, implementer, _ = (cell.strip("`") for cell in row)
    assert f"class {name} {{" in read(f"src/{header}")
    sources = [path.read_text("utf-8") for path in (ROOT / "src").rglob("*.h")]
    inherits = rf"class {implementer} : [^{{]*\b{name}\b"
    assert any(re.search(inherits, text) for text in sources)


def test_the_picture_of_the_states_has_every_state():
    told = [(number, name) for number, name, _, _ in rows(section(GUIDE, "States"))]
    drawn = re.findall(r'state "(\d) (\w+)" as (\w+)', picture(GUIDE, "States"))
    assert [(number, name) for number, name, _ in drawn] == told
    assert all(name == used for _, name, used in drawn)


@pytest.mark.parametrize(
    "document",
    [
        README,
        "CONTRIBUTING.md",
        "CHANGELOG.md",
        "examples/README.md",
        GUIDE,
        ARCHITECTURE,
        "docs/tracing.md",
        "docs/debugging.md",
        "docs/server-guide.md",
        "tools/slp-testserver/README.md",
    ],
)
def test_links_lead_somewhere(document):
    for link in re.findall(r"\]\(([^)]+)\)", read(document)):
        target, _, heading = link.partition("#")
        file = (ROOT / document).parent / target if target else ROOT / document
        assert file.exists(), link
        if heading:
            headings = re.findall(r"^#+ (.*)$", file.read_text("utf-8"), re.MULTILINE)
            assert heading in {re.sub(r"[^\w -]", "", each.lower()).replace(" ", "-") for each in headings}, link


def test_the_interface_has_the_name_of_the_bus():
    assert INTERFACE.get("name") == BUS_NAME


def used_options():
    """Commands and options of orvexctl as the documents and examples show them."""
    files = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("examples/**/*.md"), ROOT / "scripts/demo"]
    for path in files:
        text = path.read_text("utf-8").replace("\\\n", " ")
        for command, words in re.findall(r"orvexctl (status|request|monitor|cancel|quit|doctor)\b([^\n`|]*)", text):
            for option in re.findall(r"(?<!\S)--?([\w-]+)", words):
                yield path.name, command, option


def manual_options(command):
    """Long names and letters that orvexctl(1) has for a command."""
    sections = re.split(r"^\.S[sh] (.*)$", read("docs/man/orvexctl.1"), flags=re.MULTILINE)
    text = sections[sections.index(f"orvexctl {command}") + 1]
    items = re.findall(r"^\.It Fl (.*)$", text, re.MULTILINE)
    return {word.lstrip("-") for item in items for word in item.split() if word != ","}


def test_the_documents_use_options_that_the_manual_has():
    used = list(used_options())
    assert used
    unknown = [use for use in used if use[2] not in manual_options(use[1])]
    assert not unknown
