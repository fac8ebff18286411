"""What the document on debugging names is there."""

import ctypes
import re

import pytest

from documents import read, rows, section
from harness.settings import ROOT

DEBUGGING = "docs/debugging.md"
CORE = section(DEBUGGING, "Core dumps")
FRAMES, FIELDS = CORE.split("What to look at")
SOURCES = "\n".join(
    path.read_text("utf-8") for path in (ROOT / "src").rglob("*") if path.suffix in (".h", ".cpp")
)
MEMBERS = [(row[0].strip("`"), field) for row in rows(FIELDS) for field in re.findall(r"`(\w+)`", row[1])]
SYMPTOMS = rows(section(DEBUGGING, "By symptom"))


@pytest.mark.parametrize("name", sorted(set(re.findall(r"`(\w+::\w+)`", FRAMES))))
def test_a_frame_is_a_function_of_the_daemon(name):
    owner, member = name.split("::")
    assert name in SOURCES or re.search(rf"^class {owner}\b.*?\bclass {member}\b", SOURCES, re.M | re.S)


@pytest.mark.parametrize(("owner", "field"), MEMBERS)
def test_a_field_is_a_member_of_its_class(owner, field):
    (body,) = re.findall(rf"^class {owner}\b[^;]*?\{{\n(.*?)^\}};", SOURCES, re.M | re.S)
    assert re.search(rf"\b{field}\b( =|;|\{{)", body)


def test_every_symptom_has_its_paragraph():
    headings = re.findall(r"^###? (.*)$", read(DEBUGGING), re.MULTILINE)
    for symptom, _, _ in SYMPTOMS:
        link = re.search(r"^\[.*\]\(#(.*)\)$", symptom)[1]
        assert link in {re.sub(r"[^\w -]", "", each.lower()).replace(" ", "-") for each in headings}, symptom
    assert len(SYMPTOMS) > 10


def test_messages_of_libcurl_are_its_own():
    library = ctypes.CDLL("libcurl.so.4")
    library.curl_easy_strerror.restype = ctypes.c_char_p
    known = {library.curl_easy_strerror(code).decode() for code in range(100)}
    text = section(DEBUGGING, "By symptom")
    cells = re.findall(r"^\| (`[A-Z].*?) \|", text.partition("### 2204 after some seconds")[2], re.MULTILINE)
    told = {message for cell in cells for message in re.findall(r"`([^`]+)`", cell)}
    assert len(told) > 6 and told <= known
    assert "Timeout was reached" in known and "`Timeout was reached`" in text
