"""The table, as text for a terminal and as docs/benchmarks.md."""

import os
import platform
import subprocess
from pathlib import Path

from .processes import TOP

NOTES = TOP / "bench" / "notes"
COLUMNS = ("#", "measure", "ours", "floor or peer", "ratio", "goal", "met")


def cells(row):
    return (
        row.number,
        row.measure,
        row.ours,
        row.peer,
        row.ratio_text(),
        row.goal,
        row.met_text(),
    )


def text_table(rows):
    """Wide columns are wrapped, so that the table fits a usual terminal."""
    limits = (5, 38, 26, 34, 20, 16, 4)
    lines = []
    for row in [COLUMNS, *(cells(row) for row in rows)]:
        wrapped = [
            _wrap(cell.replace("`", ""), limit) for cell, limit in zip(row, limits, strict=True)
        ]
        height = max(len(cell) for cell in wrapped)
        for index in range(height):
            words = [
                (cell[index] if index < len(cell) else "").ljust(limit)
                for cell, limit in zip(wrapped, limits, strict=True)
            ]
            lines.append("  ".join(words).rstrip())
    return "\n".join(lines)


def _wrap(text, limit):
    lines = [""]
    for word in text.split():
        if lines[-1] and len(lines[-1]) + 1 + len(word) > limit:
            lines.append("")
        lines[-1] = f"{lines[-1]} {word}".strip()
    return lines


def summary(rows):
    judged = [row for row in rows if row.met is not None]
    return f"{sum(row.met for row in judged)} of {len(judged)} goals met"


def markdown(rows, pictures, took):
    parts = [
        _read("head.md"),
        f"Measured on {_machine()}; {summary(rows)}; the run took {took / 60:.0f} minutes.\n",
        _markdown_table(rows),
        *[f"![{alt}](benchmarks/{name})\n" for name, alt in pictures],
        *_explanations(),
        _read("tail.md"),
    ]
    return "\n".join(part for part in parts if part)


def _markdown_table(rows):
    lines = ["| " + " | ".join(COLUMNS) + " |", "|---" * len(COLUMNS) + "|"]
    lines += ["| " + " | ".join(cells(row)) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def _explanations():
    """Notes are written by hand; the file row-NN-*.md belongs to row NN."""
    notes = sorted(NOTES.glob("row-*.md"))
    if notes:
        yield "## Why, row by row\n"
    for note in notes:
        yield note.read_text("utf-8")


def _read(name):
    path = NOTES / name
    return path.read_text("utf-8") if path.exists() else ""


def _machine():
    model = next(
        line.split(":")[1].strip()
        for line in Path("/proc/cpuinfo").read_text("utf-8").splitlines()
        if line.startswith(("model name", "Hardware"))
    )
    pages = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30
    libraries = ", ".join(
        f"{name} {_version(module)}"
        for name, module in (
            ("libcurl", "libcurl"),
            ("OpenSSL", "openssl"),
            ("GLib", "glib-2.0"),
            ("libdbus", "dbus-1"),
            ("GMime", "gmime-3.0"),
        )
    )
    return (
        f"{os.cpu_count()} processors ({model}), {pages:.0f} GiB, "
        f"{platform.system()} {platform.release()}, {platform.machine()}; {libraries}"
    )


def _version(module):
    return subprocess.run(
        ["pkg-config", "--modversion", module], check=True, stdout=subprocess.PIPE, text=True
    ).stdout.strip()
