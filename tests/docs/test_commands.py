"""Every command of the README and the client guide runs as written. README.md tells what is stood in for."""

import re
import subprocess

import pytest

from documents import GUIDE, README, blocks
from harness.settings import patience

SHELL = [block for document in (README, GUIDE) for block in blocks(document, "sh")]


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


@pytest.mark.parametrize("block", SHELL, ids=lambda block: f"{block.document}:{block.line}")
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
    assert len(blocks(README, "sh")) > 5 and len(blocks(GUIDE, "sh")) > 2
