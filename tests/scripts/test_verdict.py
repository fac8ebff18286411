"""Which runs of the tests pass, which failures are tried again, and what the closing lines say."""

import pytest

import skips
import verdict
from suite import INTEGRATION, Suite

# The first time they fail; each time leaves a byte.
FLAKY = """
def run(name):
    with open(name, "a") as file:
        file.write("x")
    return pathlib.Path(name).stat().st_size

@pytest.mark.parametrize("number", range({count}))
def test_flaky(number):
    assert run(f"flaky{{number}}") > 1
"""
PASSES = "def test_passes(): pass\n"


@pytest.fixture
def suite(tmp_path):
    return Suite(tmp_path)


def report(directory, *cases, name="report"):
    """A report with these elements."""
    path = directory / f"{name}.xml"
    path.write_text(f"<testsuites><testsuite>{''.join(cases)}</testsuite></testsuites>", "utf-8")
    return path


def case(content="", name="test", place="place", **attributes):
    words = "".join(f' {key}="{value}"' for key, value in attributes.items())
    return f'<testcase classname="{place}" name="{name}"{words}>{content}</testcase>'


def count(capsys, *paths, build="release"):
    """The exit status and the lines of a count."""
    status = verdict.main("count", build, *map(str, paths))
    return status, capsys.readouterr().out.splitlines()


# -- trying again ----------------------------------------------------------------------------------


def test_failure_that_is_gone_when_the_test_is_alone_is_named_and_passes(suite):
    suite.add("test_it", FLAKY.format(count=1) + PASSES)
    suite.run()
    assert suite.status == 0, suite.output
    assert suite.lines[-2:] == ["tried again and alone: test_it.test_flaky[0]", "2 passed, 0 failed"]
    assert suite.runs("flaky0") == 2


def test_failure_that_comes_back_when_the_test_is_alone_fails(suite):
    suite.add("test_it", "def test_fails(): assert False\n" + PASSES)
    suite.run()
    assert suite.status == 1
    assert suite.lines[-2:] == ["tried again and alone: test_it.test_fails", "1 passed, 1 failed"]


def test_three_tests_may_be_tried_again(suite):
    suite.add("test_it", FLAKY.format(count=3))
    assert suite.run().status == 0, suite.output
    assert suite.last_line == "3 passed, 0 failed"


def test_more_than_three_tests_are_not_tried_again(suite):
    suite.add("test_it", FLAKY.format(count=4))
    assert suite.run().status == 1
    assert suite.last_line == "0 passed, 4 failed"
    assert suite.runs("flaky0") == 1


def test_error_at_the_end_of_a_fixture_is_not_tried_again(suite):
    end = """
@pytest.fixture(scope="module", autouse=True)
def daemon():
    yield
    assert pathlib.Path("flaky0").stat().st_size > 1
"""
    suite.add("test_it", FLAKY.format(count=1).replace("> 1", "> 0") + end)
    assert suite.run().status == 1
    assert suite.last_line == "0 passed, 1 failed"
    assert suite.runs("flaky0") == 1


def test_failure_with_a_report_of_a_sanitizer_is_not_tried_again(suite):
    text = FLAKY.format(count=1).replace("> 1", '> 1, "==7==ERROR: LeakSanitizer: detected memory leaks"')
    suite.add("test_it", text)
    assert suite.run().status == 1
    assert suite.runs("flaky0") == 1


def test_failure_with_a_defect_of_the_daemon_is_not_tried_again(suite):
    text = FLAKY.format(count=1).replace("(number):", "(number, record_property):")
    suite.add("test_it", text.replace("    assert", '    record_property("defect", "died")\n    assert'))
    assert suite.run().status == 1
    assert suite.runs("flaky0") == 1


def test_failure_beside_one_that_is_not_tried_again_is_tried_again_all_the_same(suite):
    end = "@pytest.fixture\ndef daemon():\n    yield\n    assert False\n\ndef test_end(daemon): pass\n"
    suite.add("test_it", FLAKY.format(count=1) + end)
    assert suite.run().status == 1
    assert suite.lines[-2:] == ["tried again and alone: test_it.test_flaky[0]", "1 passed, 1 failed"]


def test_file_of_tests_that_cannot_be_read_fails(suite):
    suite.add("test_broken", "import nowhere\n")
    suite.add("test_it", PASSES)
    assert suite.run().status == 1
    assert suite.last_line.endswith(" 1 failed")


def test_program_of_tests_that_dies_is_not_tried_again(suite):
    suite.add("test_it", FLAKY.format(count=1).replace("> 1", "> 1 or __import__('os')._exit(3)"))
    assert suite.run("-n1").status == 1
    assert suite.runs("flaky0") == 1


def test_nodes_are_found_in_a_report():
    assert verdict.key_of("test_a.py::test_b") == ("test_a", "test_b")
    assert verdict.key_of("faults/test_a.py::TestC::test_b[x::y/z.py]") == (
        "faults.test_a.TestC",
        "test_b[x::y/z.py]",
    )


# -- skips -----------------------------------------------------------------------------------------


def test_suite_in_which_every_test_is_skipped_fails(suite):
    suite.add("test_it", 'pytestmark = pytest.mark.skip("not today")\n' + PASSES)
    assert suite.run().status == 1
    assert suite.lines[-2:] == [
        "skipped, and nothing explains it: test_it.test_passes: not today",
        "0 passed, 1 failed",
    ]


SANITIZED = case('<skipped message="sanitizers keep freed memory"/>', place="test_endurance")


def test_skip_that_the_build_explains_passes(capsys, tmp_path):
    path = report(tmp_path, SANITIZED, case(name="other"))
    assert count(capsys, path, build="asan") == (0, ["1 passed, 0 failed, 1 skipped"])


@pytest.mark.parametrize(
    "skipped",
    [
        SANITIZED,
        SANITIZED.replace("test_endurance", "test_exchange"),
        SANITIZED.replace("freed", "some"),
        case(name="disabled", status="notrun", result="suppressed"),
        case('<skipped message="Unable to find executable"/>', status="notrun"),
    ],
    ids=["another build", "another file", "another reason", "GoogleTest", "ctest"],
)
def test_skip_that_nothing_explains_fails(capsys, tmp_path, skipped):
    status, lines = count(capsys, report(tmp_path, skipped, case(name="other")))
    assert (status, lines[-1]) == (1, "1 passed, 1 failed")
    assert lines[0].startswith("skipped, and nothing explains it: ")


def test_suite_whose_skips_are_all_explained_fails_all_the_same(capsys, tmp_path):
    paths = report(tmp_path, SANITIZED, name="one"), report(tmp_path, case(), name="two")
    status, lines = count(capsys, *paths, build="tsan")
    assert status == 1
    assert lines == ["not one test ran: one", "1 passed, 1 failed, 1 skipped"]


def test_share_of_a_program_may_have_nothing_to_do(capsys, tmp_path):
    paths = report(tmp_path, case(), name="unit-0"), report(tmp_path, name="unit-1")
    assert count(capsys, *paths) == (0, ["1 passed, 0 failed"])


@pytest.mark.parametrize("place, reason", skips.ALLOWED, ids=lambda word: word)
def test_allowed_reason_is_one_that_its_tests_give(place, reason):
    file = (INTEGRATION / place.replace(".", "/")).with_suffix(".py")
    assert f'"{reason}"' in file.read_text("utf-8")


# -- counting --------------------------------------------------------------------------------------


def test_failure_in_one_report_is_not_hidden_by_its_namesake_in_another(capsys, tmp_path):
    paths = report(tmp_path, case("<failure/>"), name="a"), report(tmp_path, case(), name="b")
    assert count(capsys, *paths) == (1, ["1 passed, 1 failed"])


def test_test_that_passes_and_has_an_error_at_its_end_fails(capsys, tmp_path):
    path = report(tmp_path, case(), case('<error message="failed on teardown"/>'))
    assert count(capsys, path) == (1, ["0 passed, 1 failed"])


def test_test_that_ctest_says_failed_fails(capsys, tmp_path):
    path = report(tmp_path, case(status="fail"), case(name="other", status="run"))
    assert count(capsys, path) == (1, ["1 passed, 1 failed"])


def test_run_without_a_test_fails(capsys, tmp_path):
    status, _ = count(capsys, report(tmp_path))
    assert status == 1
