"""Small suites of tests that are run and judged as scripts/test runs and judges its own."""

import os
import pathlib
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
INTEGRATION = ROOT / "tests" / "integration"
RUN = """
. "$top/scripts/lib/testing.sh"
status=0
run_pytest_patiently suite "$@" || status=1
verdict count "$build" "$results"/*.xml || status=1
exit "$status"
"""


class Suite:
    """A folder of tests, and what came of running them."""

    def __init__(self, directory, build="release"):
        self._directory = directory
        self._build = build
        self.folder = directory / "suite"
        self.folder.mkdir()
        (self.folder / "pytest.ini").write_text("[pytest]\n", "utf-8")
        self.status = None
        self.output = ""

    def add(self, name, text):
        """A file of tests. Its tests may leave files in the current directory."""
        (self.folder / f"{name}.py").write_text(f"import pathlib\nimport pytest\n{text}", "utf-8")

    def run(self, *options, environment=None):
        results = self._directory / "results"
        results.mkdir()
        done = subprocess.run(
            ["bash", "-euo", "pipefail", "-c", RUN, "suite", *map(str, options)],
            cwd=self._directory,
            env={
                **os.environ,
                "top": str(ROOT),
                "results": str(results),
                "build": self._build,
                "PYTHONDONTWRITEBYTECODE": "1",
                **(environment or {}),
            },
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=120,
            check=False,
        )
        self.status, self.output = done.returncode, done.stdout
        return self

    @property
    def lines(self):
        return self.output.splitlines()

    @property
    def last_line(self):
        return self.lines[-1]

    def runs(self, name):
        """How often a test of this name was run, when each time leaves a byte."""
        return len((self._directory / name).read_bytes())
