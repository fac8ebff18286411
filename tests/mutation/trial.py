"""Tries one mutation: builds it and runs the tests that may notice, the likely ones first."""

import dataclasses
import json
import os
import pathlib
import re
import resource
import select
import signal
import subprocess
import tempfile
import time

from mutations import Mutation, apply
from workspace import Build, BuildFailed, Changed, Workspace

_SUITE = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+)", re.MULTILINE)
# Annotations and locks that only the thread sanitizer can miss.
_SANITIZED_FILES = ("src/support/Threads.h",)
_CANARIES = ["unlocked", "one-lock-missing", "locks-in-both-orders"]
_QUIET_CANARIES = ["locked", "condition", "posted", "locks-in-both-orders-by-a-suppressed-function"]
_SANITIZER_STATUS = 66
_MEMORY = 3 * 1024**3
# Whole processes: what main() does, first and last, and what the command line asks for.
_PROCESS_FILES = ("src/main/main.cpp", "src/main/CommandLine.h")
_PROCESS_TARGETS = ("orvexd", "LoggingPlatform")
_PROCESS_TESTS = [f"tests/integration/test_{name}.py" for name in ("startup", "quit", "call_order")]
# Many tests wait for timers, so that a processor has time for some more of them.
_SHARDS = 4


@dataclasses.dataclass
class Outcome:
    """What became of a mutation."""

    verdict: str  # killed, survived or invalid
    by: str = ""  # what killed it
    seconds: float = 0


@dataclasses.dataclass
class Step:
    """Some of the unit tests."""

    suites: list[str]
    limit: float  # seconds


class Laboratory:
    """Both builds, and the time that each suite takes when nothing is wrong."""

    def __init__(self, workspace: Workspace) -> None:
        self.workspace = workspace
        self.plain = Build(workspace, "plain")
        self._tsan: Build | None = None
        self._processes_pass = False
        self.suites_of: dict[str, list[str]] = {}
        self.seconds: dict[str, float] = {}
        suppressions = workspace.tree / "tests" / "tsan.supp"
        os.environ["TSAN_OPTIONS"] = f"detect_deadlocks=1:suppressions={suppressions}"

    def prepare(self) -> None:
        """Builds everything as it is and sees that its tests pass."""
        self.plain.configure()
        self.plain.make("orvexd_unit_tests", *_PROCESS_TARGETS)
        tests = self.workspace.tree / "tests" / "unit"
        for path in sorted(tests.rglob("*Test.cpp")):
            name = str(path.relative_to(self.workspace.tree))
            self.suites_of[name] = sorted(set(_SUITE.findall(path.read_text(encoding="utf-8"))))
        self._measure()

    def _measure(self) -> None:
        commit = self.workspace.commit_of("HEAD", self.workspace.tree)
        report = self.plain.directory / f"times-{commit}.json"
        if not report.exists():  # a run that goes on need not measure again
            command = [str(self.plain.program()), f"--gtest_output=json:{report}"]
            by = _run(command, limit=1200)
            if by:
                report.unlink(missing_ok=True)
                raise SystemExit(f"mutate: the tests fail without a mutation: {by}")
        for suite in json.loads(report.read_text(encoding="utf-8"))["testsuites"]:
            name = suite["name"].split("/")[-2] if "/" in suite["name"] else suite["name"]
            self.seconds[name] = self.seconds.get(name, 0) + float(suite["time"].rstrip("s"))

    def tsan(self) -> Build:
        """The build with the thread sanitizer, made when it is wanted first."""
        if self._tsan is None:
            self._tsan = Build(self.workspace, "tsan")
            self._tsan.configure()
            self._tsan.make("orvexd_unit_tests", "thread_sanitizer_canary")
        return self._tsan

    # -- one mutation ------------------------------------------------------------------------------

    def run(self, mutation: Mutation) -> Outcome:
        begin = time.monotonic()
        try:
            by = self._killer(mutation)
        except BuildFailed:
            return Outcome("invalid")
        return Outcome("killed" if by else "survived", by, time.monotonic() - begin)

    def _killer(self, mutation: Mutation) -> str:
        if mutation.kind == "lock" or "tsan::" in mutation.what:
            return self._sanitized(mutation)
        text = self._mutated(mutation)
        if mutation.file in _PROCESS_FILES:
            self._expect_process_tests()
        with Changed(self.plain, mutation.file, text):
            if mutation.file == "src/main/main.cpp":
                return self._process_tests()
            by = self._own_tests_first(mutation)
            if by:
                return by
            self.plain.make()
            by = self._steps(self.plain, mutation)
            if not by and mutation.file in _PROCESS_FILES:
                by = self._process_tests()
        if not by and mutation.file in _SANITIZED_FILES:
            by = self._sanitized(mutation)
        return by

    def _mutated(self, mutation: Mutation) -> str:
        source = (self.workspace.tree / mutation.file).read_text(encoding="utf-8")
        return apply(mutation, source)

    def _own_tests_first(self, mutation: Mutation) -> str:
        """A header is in nearly every object. To build its own tests is enough when these notice
        the change of a function. A constant must be the same everywhere, unless there is nothing
        but the header that is tested."""
        own = self._own_tests(mutation)
        source = (self.workspace.tree / mutation.file).with_suffix(".cpp")
        stays_inside = not mutation.is_shared_constant or not source.exists()
        if mutation.file.endswith(".cpp") or not own or not stays_inside:
            return ""
        objects = [self.plain.object_of(name) for name in own]
        self.plain.make(*objects)
        self.plain.link_with_first(objects, "own_tests")
        step = self._step([suite for name in own for suite in self.suites_of[name]])
        return self._run_step(self.plain.program("own_tests"), step)

    def _own_tests(self, mutation: Mutation) -> list[str]:
        """Test files named after the mutated one."""
        stem = re.escape(pathlib.PurePath(mutation.file).stem)
        folder = pathlib.PurePath(mutation.file).parent.name
        pattern = re.compile(rf"tests/unit/{folder}/{stem}[A-Za-z]*Test\.cpp")
        return [name for name in self.suites_of if pattern.fullmatch(name)]

    def _steps(self, build: Build, mutation: Mutation) -> str:
        folder = f"tests/unit/{pathlib.PurePath(mutation.file).parent.name}/"
        own = [suite for name in self._own_tests(mutation) for suite in self.suites_of[name]]
        near = [suite for name, suites in self.suites_of.items() if name.startswith(folder)
                for suite in suites if suite not in own]
        far = [suite for suites in self.suites_of.values() for suite in suites
               if suite not in own + near]
        for suites in (own, near, far):
            by = self._run_step(build.program(), self._step(suites, build)) if suites else ""
            if by:
                return by
        return ""

    def _step(self, suites: list[str], build: Build | None = None) -> Step:
        usual = sum(self.seconds.get(suite, 0) for suite in suites)
        slowness = 10 if build is not None and build.sanitizer else 1
        return Step(suites, 30 + 5 * slowness * usual)

    def _run_step(self, program: pathlib.Path, step: Step) -> str:
        wanted = ":".join(f"{suite}.*:{suite}/*:*/{suite}.*:*/{suite}/*" for suite in step.suites)
        command = [str(program), "--gtest_fail_fast", f"--gtest_filter={wanted}"]
        return _run(command, step.limit, shards=_SHARDS)

    def _sanitized(self, mutation: Mutation) -> str:
        build = self.tsan()
        with Changed(build, mutation.file, self._mutated(mutation)):
            build.make("thread_sanitizer_canary")  # small, and quickly built
            by = self._canaries(build)
            if not by:
                build.make()
                by = self._steps(build, mutation)
            return by

    @staticmethod
    def _canaries(build: Build) -> str:
        """Small programs that the sanitizer must report, and some that it must not."""
        program = str(build.program("thread_sanitizer_canary"))
        for case in _CANARIES:
            if not _run([program, case], 60):
                return f"canary {case}"
        for case in _QUIET_CANARIES:
            if _run([program, case], 60):
                return f"canary {case}"
        return ""

    def _expect_process_tests(self) -> None:
        """Sees once that the tests of whole processes pass without a mutation."""
        if not self._processes_pass:
            by = self._process_tests()
            if by:
                raise SystemExit(f"mutate: the tests fail without a mutation: {by}")
            self._processes_pass = True

    def _process_tests(self) -> str:
        """main() is not part of the unit tests. A test of whole processes may fail because the
        machine is busy: it has to fail again."""
        self.plain.make(*_PROCESS_TARGETS)
        passed: list[str] = []
        while True:
            left_out = [word for test in passed for word in ("--deselect", test)]
            by = self._integration(*_PROCESS_TESTS, *left_out)
            if not by.startswith("test_"):
                return by
            test = f"tests/integration/{by}"
            if self._integration(test):
                return by
            passed.append(test)

    def _integration(self, *tests: str) -> str:
        command = ["/usr/bin/python3", "-m", "pytest", "-x", "-q", *tests]
        environment = {"ORVEXD_BUILD_DIR": str(self.plain.directory)}
        return _run(command, 900, self.workspace.tree, environment)


def _limit_resources(limit: float) -> None:
    """A mutation that allocates or computes for ever must not take the machine with it. Tests that
    end wait more than they compute, and are shared out."""
    resource.setrlimit(resource.RLIMIT_AS, (_MEMORY, _MEMORY))
    processor = int(limit / 3) + 1
    resource.setrlimit(resource.RLIMIT_CPU, (processor, processor))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class _Program:
    """Tests under way, in a session of their own."""

    def __init__(self, command: list[str], limit: float, where: pathlib.Path | None,
                 more: dict[str, str]) -> None:
        self.output = tempfile.TemporaryFile(mode="w+", errors="replace")
        environment = {**os.environ, "G_DEBUG": "fatal-criticals", **more}
        # The sanitizer maps more than any limit allows.
        sanitized = "tsan" in pathlib.PurePath(command[0]).parts
        self.process = subprocess.Popen(
            command, cwd=where, env=environment, stdin=subprocess.DEVNULL, stdout=self.output,
            stderr=subprocess.STDOUT, start_new_session=True,
            preexec_fn=None if sanitized else lambda: _limit_resources(limit))
        self.descriptor = os.pidfd_open(self.process.pid)

    def end(self) -> None:
        """Ends it if it still runs, with everything that it has started."""
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGKILL)
            self.process.wait()
        os.close(self.descriptor)
        self.output.close()

    def failure(self) -> str:
        """What failed; nothing when all is well. For a program that has ended, or is given up."""
        status = self.process.poll()
        self.output.seek(0)
        output = self.output.read()
        if status is None or -status in (signal.SIGXCPU, signal.SIGKILL):
            return f"time-out in {_last_test(output)}"
        if status == 0:
            return ""
        if status == _SANITIZER_STATUS:
            return f"thread sanitizer in {_last_test(output)}"
        return _failed_test(output) or f"{_ending(status)} in {_last_test(output)}"


def _run(command: list[str], limit: float, where: pathlib.Path | None = None,
         environment: dict[str, str] | None = None, shards: int = 1) -> str:
    """Runs tests, as so many processes that share them; says what failed first, or nothing when all
    is well."""
    programs = []
    for shard in range(shards):
        share = {"GTEST_TOTAL_SHARDS": str(shards), "GTEST_SHARD_INDEX": str(shard)}
        programs.append(_Program(command, limit, where, {**share, **(environment or {})}))
    try:
        deadline = time.monotonic() + limit
        running = list(programs)
        while running:
            left = max(0.0, deadline - time.monotonic())
            ended, _, _ = select.select([each.descriptor for each in running], [], [], left)
            for program in [each for each in running if each.descriptor in ended or not ended]:
                program.process.poll()
                by = program.failure()
                if by:
                    return by
                running.remove(program)
        return ""
    finally:
        for program in programs:
            program.end()


def _failed_test(output: str) -> str:
    found = re.search(r"^\[  FAILED  \] ([\w/.]+)", output, re.MULTILINE)
    found = found or re.search(r"^FAILED tests/integration/(\S+)", output, re.MULTILINE)
    return found[1] if found else ""


def _last_test(output: str) -> str:
    tests = re.findall(r"^\[ RUN      \] ([\w/.]+)", output, re.MULTILINE)
    return tests[-1] if tests else "no test"


def _ending(status: int) -> str:
    return signal.Signals(-status).name if status < 0 else f"status {status}"
