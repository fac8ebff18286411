"""The document with the benchmarks, and how its figures come about."""

import os
import re

import pytest

import documents
from harness.settings import ROOT
from orvexd_bench import neighbours, pairs, report, rows

DOCUMENT = documents.read("docs/benchmarks.md")
TABLE = [dict(zip(report.COLUMNS, row, strict=True)) for row in documents.rows(DOCUMENT)]
JUDGED = [row for row in TABLE if row["met"] in ("yes", "no")]


def number(row):
    return int(re.match(r"\d+", row["#"])[0])


def explained():
    """The numbers of the rows that a paragraph of the document is about."""
    for first, last in re.findall(r"^\*\*Rows? (\d+)(?: (?:to|and) (\d+))?\.", DOCUMENT, re.MULTILINE):
        yield from range(int(first), int(last or first) + 1)


@pytest.mark.parametrize("wanted", [*range(1, 19), *range(20, 28)])
def test_every_measure_has_a_row(wanted):
    assert wanted in {number(row) for row in TABLE if row["#"][0].isdigit()}


def test_bytes_on_the_wire_are_told():
    assert any(row["#"] == "wire" for row in TABLE)


def test_goals_are_judged():
    assert len(JUDGED) >= 30
    assert f"{sum(row['met'] == 'yes' for row in JUDGED)} of {len(JUDGED)} goals met" in DOCUMENT


@pytest.mark.parametrize("row", [row for row in JUDGED if row["met"] == "no"], ids=lambda row: row["#"])
def test_every_goal_that_is_missed_is_explained(row):
    assert number(row) in set(explained())


@pytest.mark.parametrize("picture", ["requests", "sizes", "latency", "exchange"])
def test_every_picture_is_there(picture):
    assert f"(benchmarks/{picture}.svg)" in DOCUMENT
    assert (ROOT / f"docs/benchmarks/{picture}.svg").read_text("utf-8").rstrip().endswith("</svg>")


# -- how the figures come about --------------------------------------------------------------------


def test_ratio_is_the_median_of_the_pairs_ratios():
    result = pairs.paired([1, 10, 9], [1, 5, 3])
    assert result.ratio.median == 2
    assert result.ours.median == 9  # not what the ratio is made of


def test_spread_lies_between_the_quartiles():
    spread = pairs.Spread.of([5, 1, 2, 4, 3])
    assert (spread.low, spread.median, spread.high, spread.count) == (2, 3, 4, 5)


def test_percentile_is_a_value_that_was_measured():
    assert pairs.percentile(range(1000), 99) == 990
    assert pairs.percentile([7], 99) == 7


@pytest.mark.parametrize(("ratio", "met"), [(1.25, True), (1.2501, False)])
def test_goal_of_at_most_is_met_by_its_limit(ratio, met):
    assert rows.at_most("5", "time", "1", "1", ratio, 1.25).met is met


@pytest.mark.parametrize(("ratio", "met"), [(0.9, True), (0.8999, False)])
def test_goal_of_at_least_is_met_by_its_limit(ratio, met):
    assert rows.at_least("3", "speed", "1", "1", ratio, 0.9).met is met


def test_rows_without_a_goal_are_not_judged():
    table = [rows.Row("1+", "shown", "1"), rows.at_most("1", "time", "1", "1", 1.0, 1.1)]
    assert report.summary(table) == "1 of 1 goals met"


def test_each_processor_has_a_busy_neighbour_of_its_own():
    with neighbours.busy_processors() as loops:
        bound = [os.sched_getaffinity(loop) for loop in loops]
    assert sorted(bound, key=min) == [{processor} for processor in sorted(os.sched_getaffinity(0))]


def test_no_busy_neighbour_outlives_a_measurement_that_fails():
    with pytest.raises(RuntimeError), neighbours.busy_processors() as loops:
        raise RuntimeError
    assert not [loop for loop in loops if os.path.exists(f"/proc/{loop}")]
