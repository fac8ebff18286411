"""The documents, taken apart."""

import collections
import re

from harness.settings import ROOT

ARCHITECTURE = "docs/architecture.md"
README = "README.md"
GUIDE = "docs/client-guide.md"
DEVICE = "Install it on a device"

Block = collections.namedtuple("Block", "document line language text")


def read(path):
    """A file of the tree."""
    return (ROOT / path).read_text("utf-8")


def blocks(document, *languages):
    """The fenced blocks of these languages, in order."""
    text = read(document)
    found = []
    for match in re.finditer(r"^```(\w*)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        if match[1] in languages:
            line = text.count("\n", 0, match.start()) + 1
            found.append(Block(document, line, match[1], match[2]))
    return found


def device_blocks():
    """Those of the README that install on a device; tests/packaging runs them, tests/docs the others."""
    text = section(README, DEVICE)
    return [block for block in blocks(README, "sh") if f"```sh\n{block.text}```" in text]


def section(document, title):
    """The text below a heading, up to the next one of the same rank."""
    (found,) = re.findall(rf"^## {re.escape(title)}\n(.*?)(?=^## |\Z)", read(document), re.M | re.S)
    return found


def rows(text):
    """The rows of the first table in a text, without its head: lists of cells."""
    table = re.search(r"(?:^\|.*\|\n)+", text, re.MULTILINE)[0]
    lines = [[cell.strip() for cell in line[1:-1].split("|")] for line in table.splitlines()]
    return lines[2:]
