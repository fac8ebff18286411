"""The measured rows as lines, as a table, as JSON, and in the document."""

import dataclasses
import json
from pathlib import Path
from typing import Sequence

from .judge import MIB, Row, misses

BEGIN, END = "<!-- hostile: begin -->", "<!-- hostile: end -->"
_COLUMNS = (
    ("attack", 20),
    ("peak MiB", 8),
    ("left MiB", 8),
    ("cpu s", 6),
    ("Get p99 ms", 10),
    ("longest ms", 10),
    ("bus p99 ms", 10),
    ("honest s", 9),
    ("goals", 6),
    ("the attacker", 0),
)


def _cells(row: Row, budget: int) -> list[str]:
    return [
        row.name,
        f"{row.peak / MIB:.0f}" + ("!" if row.stopped else ""),
        f"{row.left / MIB:.0f}",
        f"{row.processor:.1f}",
        f"{row.p99 * 1000:.1f}",
        f"{row.longest * 1000:.0f}",
        f"{row.bus_p99 * 1000:.1f}",
        honest(row),
        _goals(row, budget),
        row.got,
    ]


def honest(row: Row) -> str:
    """What became of the honest request, in short."""
    if row.honest is not None:
        return f"{row.honest:.2f}"
    if row.honest_error:
        return "failed"
    return f"> {row.honest_waited:.0f}" if row.honest_limit is not None else "-"


def _goals(row: Row, budget: int) -> str:
    return "missed" if misses(row, budget) else "met"


def line(row: Row, budget: int) -> str:
    """What is told as soon as an attack is over."""
    return (
        f"{row.name}: +{row.peak / MIB:.0f} MiB, {row.left / MIB:.0f} left, {row.processor:.1f} s of processor in"
        f" {row.seconds:.1f} s; Get p99 {row.p99 * 1000:.1f} ms, longest {row.longest * 1000:.0f} ms;"
        f" honest request {honest(row)}; {row.got}" + "".join(f"\n  MISSED {each}" for each in misses(row, budget))
    )


def table(rows: Sequence[Row], budget: int) -> str:
    """For a terminal. An exclamation mark: ended at the ceiling."""
    lines = [[name for name, _ in _COLUMNS], *(_cells(row, budget) for row in rows)]
    widths = [width for _, width in _COLUMNS]
    return "\n".join(
        "  ".join(cell.ljust(width) for cell, width in zip(cells, widths, strict=True)).rstrip() for cells in lines
    )


def summary(rows: Sequence[Row], budget: int) -> list[str]:
    """One line for each attack that missed a goal, and the count."""
    missed = [(row, found) for row in rows if (found := misses(row, budget))]
    lines = [f"MISSED {row.name}: {'; '.join(found)}" for row, found in missed]
    return [*lines, f"{len(rows) - len(missed)} of {len(rows)} attacks met all goals"]


def save(file: Path, rows: Sequence[Row], **values) -> None:
    """As JSON; `values` describe the run."""
    budget = values["budget"]
    entries = [{**dataclasses.asdict(row), "misses": misses(row, budget)} for row in rows]
    file.write_text(json.dumps({**values, "rows": entries}, indent=1) + "\n", "utf-8")


def markdown(rows: Sequence[Row], budget: int) -> str:
    lines = ["| " + " | ".join(name for name, _ in _COLUMNS) + " |", "|---" * len(_COLUMNS) + "|"]
    for row in rows:
        cells = _cells(row, budget)
        cells[0] = f"`{row.name}`: {row.title}"
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines)


def write_into(document: Path, text: str) -> None:
    """Replaces what stands between the markers."""
    whole = document.read_text("utf-8")
    if whole.count(BEGIN) != 1 or whole.count(END) != 1 or whole.index(BEGIN) > whole.index(END):
        raise ValueError(f"{document}: the markers {BEGIN} and {END} are not there")
    front, rest = whole.split(BEGIN)
    document.write_text(f"{front}{BEGIN}\n{text}\n{END}{rest.split(END)[1]}", "utf-8")
