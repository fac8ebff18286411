"""The Promela models speak of what the code has. scripts/check-models searches them."""

import re

import pytest

from documents import read, rows, section
from harness.settings import ROOT

README = "docs/model/README.md"
MODELS = sorted(path.relative_to(ROOT) for path in (ROOT / "docs/model").glob("*.pml"))


def names():
    """The rows of the list of names: in the model, in the code, the source file."""
    return [
        (modelled.strip("`"), named.strip("`"), source)
        for modelled, named, source in rows(section(README, "Names"))
    ]


def without_comments(text):
    return re.sub(r"/\*.*?\*/|//[^\n]*", " ", text, flags=re.DOTALL)


def words(path):
    """The names in a source or model; what only a comment mentions does not count."""
    return set(re.findall(r"\w+", without_comments(read(path))))


def declared(model):
    """Its fields, named as the code's, and its operations."""
    text = without_comments(read(model))
    return set(re.findall(r"^\s*(?:bool|byte|short|mtype|chan) (\w+_)\b", text, re.M)) | set(
        re.findall(r"^inline (\w+)", text, re.M)
    )


@pytest.mark.parametrize("row", names(), ids=lambda row: row[0])
def test_a_name_in_a_model_exists_in_the_code(row):
    modelled, named, source = row
    assert any(modelled in words(model) for model in MODELS)
    assert named in words(source)


@pytest.mark.parametrize("model", MODELS, ids=lambda model: model.stem)
def test_every_field_of_a_model_is_in_the_list(model):
    fields = {name for name in declared(model) if name.endswith("_")}
    assert fields
    assert fields <= {modelled for modelled, _, _ in names()}


def test_the_states_of_the_models_are_the_codes_in_their_order():
    (states,) = re.findall(r"enum class RequestState.*?\};", read("src/protocol/Codes.h"), re.DOTALL)
    known = re.findall(r"^    (\w+) = \d,", states, re.M)
    lists = [
        re.findall(r"\w+", text)
        for model in MODELS
        for text in re.findall(r"^mtype = \{(.*?)\};", read(model), re.M)
    ]
    assert lists
    for states in lists:
        assert states == [state for state in known if state in states]


@pytest.mark.parametrize("model", MODELS, ids=lambda model: model.stem)
def test_every_mutation_of_a_model_is_explained(model):
    table = re.findall(r"^ \* (MUTATE_\w+) +([a-z_]+) +\w", read(model), re.M)
    checks = {"safety", *re.findall(r"^ltl (\w+)", read(model), re.M)}
    used = set(re.findall(r"MUTATE_\w+", without_comments(read(model))))
    assert used and {name for name, _ in table} == used
    assert {check for _, check in table} <= checks
