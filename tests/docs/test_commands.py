"""Every command of the README and the client guide runs as written. README.md tells what is stood in for, and
what is run by the tests of the packages."""

import re
import subprocess

import pytest

from documents import GUIDE, README, blocks, device_blocks
from harness.settings import is_sanitized, patience

SHELL = [block for block in [*blocks(README, "sh"), *blocks(GUIDE, "sh")] if block not in device_blocks()]
# Python and JavaScript load no library with a sanitizer in it.
LOADING = re.compile(r"^examples/\w+\.(py|js) ", re.MULTILINE)
RUN = [block for block in SHELL if not (is_sanitized() and LOADING.search(block.text))]


def run(block, folder, environment):
    """Runs a block with bash, which stops at the first command that fails, and returns its output."""
    done = subprocess.run(
        ["bash", "-eu", "-o", "pipefail", "-c", block.text],
        cwd=folder,
        env=environment,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=patience(300),
        check=False,
    )
    assert done.returncode == 0, f"status {done.returncode}\n{done.stdout}\n{done.stderr}"
    return done.stdout


@pytest.mark.parametrize("block", RUN, ids=lambda block: f"{block.document}:{block.line}")
def test_a_shell_block_runs_as_written(block, folder_of, environment):
    run(block, folder_of(block.document), environment)


def test_the_demo_ends_with_what_the_readme_shows(folder_of, environment):
    (demo,) = [block for block in SHELL if block.text == "scripts/demo\n"]
    (shown,) = blocks(README, "text")
    # An ellipsis stands for what differs from run to run.
    wanted = ".*".join(map(re.escape, shown.text.split("…")))
    output = run(demo, folder_of(README), environment)
    assert re.search(rf"^{wanted}\Z", output, re.MULTILINE), output


def test_every_shell_block_is_found():
    # Other marks for shell text would escape these tests.
    for document in (README, GUIDE):
        assert not blocks(document, "", "bash", "shell", "console")
    assert len(blocks(README, "sh")) > 10 and len(blocks(GUIDE, "sh")) > 2


def test_every_block_that_installs_is_left_to_the_tests_of_the_packages():
    assert len(device_blocks()) == 6
    assert not [block for block in SHELL if "sudo" in block.text]
