"""How scripts/hostile judges what it has measured, and what it writes into a document."""

import ctypes
import random

import pytest

from hostile import report
from hostile.collisions import colliding_ids
from hostile.judge import MIB, Row, memory_budget, misses, percentile

BUDGET = 128 * MIB
SEED = 0xC70F6907  # of std::hash


def row(**values):
    """An attack at the limit of every goal, but for these values."""
    limits = {"peak": BUDGET, "p99": 0.1, "idle_p99": 0.01, "honest": 90.0, "honest_limit": 90.0}
    limits |= {"gets": 100, "refused": 1}
    return Row("name", "title", **{**limits, **values})


def cache(tmp_path, value):
    """A build's cache with this budget."""
    path = tmp_path / "CMakeCache.txt"
    path.write_text(f"OTHER:STRING=1\nORVEXD_MEMORY_BUDGET:STRING={value}\n", "utf-8")
    return path


def test_attack_at_the_limits_misses_no_goal():
    assert not misses(row(), BUDGET)


@pytest.mark.parametrize(
    "values, word",
    [
        ({"peak": BUDGET + MIB}, "memory 129 MiB"),
        ({"p99": 0.101}, "p99"),
        ({"p99": 0.026, "idle_p99": 0.0001}, "allowed 25.0"),
        ({"refused": 2}, "refused"),
        ({"alive": False}, "ended"),
        ({"honest": 90.1}, "answered in 90.1 s"),
        ({"honest": None, "honest_waited": 90.0}, "without answer"),
        ({"honest": None, "honest_error": "Refused: no"}, "Refused: no"),
        ({"foreign": 1}, "another user's"),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_each_goal_can_be_missed(values, word):
    (miss,) = misses(row(**values), BUDGET)
    assert word in miss


def test_reads_of_an_attack_that_fills_the_queue_of_the_bus_are_not_judged():
    assert not misses(row(p99=9.9, refused=99, reads_judged=False), BUDGET)


def test_honest_request_that_was_not_waited_for_to_its_limit_misses_nothing():
    assert not misses(row(honest=None, honest_waited=4.0), BUDGET)
    assert report.honest(row(honest=None, honest_waited=4.0)) == "> 4"


def test_percentile_is_the_smallest_value_that_the_share_does_not_exceed():
    hundred = random.Random(1).sample(range(1, 101), 100)
    assert [percentile(hundred, share) for share in (0.01, 0.5, 0.99, 1)] == [1, 50, 99, 100]
    assert percentile(range(10), 0.99) == 9
    assert percentile([], 0.99) == 0


@pytest.mark.parametrize(
    "value, budget", [("134217728", BUDGET), ("64", 64 * MIB), ("64M", 64 * MIB), ("1G", 1024 * MIB), ("", BUDGET)]
)
def test_budget_is_what_the_build_says(tmp_path, value, budget):
    assert memory_budget(cache(tmp_path, value)) == budget


def test_budget_of_a_build_that_does_not_know_it(tmp_path):
    assert memory_budget(tmp_path / "CMakeCache.txt") == BUDGET


def test_table_replaces_what_stands_between_the_markers_and_nothing_else(tmp_path):
    document = tmp_path / "document.md"
    document.write_text(f"front\n{report.BEGIN}\nold\n{report.END}\nback\n", "utf-8")
    report.write_into(document, "new")
    assert document.read_text("utf-8") == f"front\n{report.BEGIN}\nnew\n{report.END}\nback\n"


def test_document_without_markers_is_left_alone(tmp_path):
    document = tmp_path / "document.md"
    document.write_text("front\n", "utf-8")
    with pytest.raises(ValueError, match="markers"):
        report.write_into(document, "new")
    assert document.read_text("utf-8") == "front\n"


def test_colliding_ids_have_one_hash_in_the_library_that_the_daemon_uses():
    hash_bytes = ctypes.CDLL("libstdc++.so.6")["_ZSt11_Hash_bytesPKvmm"]
    hash_bytes.restype = ctypes.c_size_t
    hash_bytes.argtypes = [ctypes.c_char_p, ctypes.c_size_t, ctypes.c_size_t]
    ids = list(colliding_ids(random.Random(1), 100))
    assert len(set(ids)) == 100
    assert len({hash_bytes(each, len(each), SEED) for each in ids}) == 1
