"""The tree that is mutated, a worktree of one commit, and its builds without debug information."""

import os
import pathlib
import shlex
import shutil
import subprocess

_UNIT_TESTS = "orvexd_unit_tests"


class BuildFailed(Exception):
    """The compiler does not take what it was given."""


class Workspace:
    """A worktree below `directory`, and two builds of it: plain, and with the thread sanitizer."""

    def __init__(self, top: pathlib.Path, directory: pathlib.Path) -> None:
        self.top = top
        self.directory = directory
        self.tree = directory / "tree"

    def check_out(self, commit: str) -> None:
        """Brings the worktree to the commit; what a run that was ended left in it goes."""
        if not (self.tree / ".git").exists():
            self.directory.mkdir(parents=True, exist_ok=True)
            self._git(self.top, "worktree", "prune")
            self._git(self.top, "worktree", "add", "--quiet", "--detach", str(self.tree), commit)
        self._git(self.tree, "checkout", "--quiet", "--force", "--detach", commit)

    def commit_of(self, revision: str, where: pathlib.Path | None = None) -> str:
        return self._git(where or self.top, "rev-parse", "--verify", revision + "^{commit}").strip()

    @staticmethod
    def _git(where: pathlib.Path, *arguments: str) -> str:
        return subprocess.run(
            ["git", "-C", str(where), *arguments], check=True, stdout=subprocess.PIPE, text=True
        ).stdout


class Build:
    """One build directory of the worktree."""

    def __init__(self, workspace: Workspace, name: str) -> None:
        self.workspace = workspace
        self.sanitizer = "thread" if name == "tsan" else ""
        self.directory = workspace.directory / name

    def program(self, name: str = _UNIT_TESTS) -> pathlib.Path:
        return self.directory / "bin" / name

    def configure(self) -> None:
        linker = "-fuse-ld=mold" if shutil.which("mold") else ""
        optimisation = "-O1" if self.sanitizer else "-O0"
        self._run(
            ["cmake", "-S", self.workspace.tree, "-B", self.directory, "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=Debug",
             f"-DORVEXD_SANITIZE={self.sanitizer}",
             "-DORVEXD_STATISTICS=ON",
             # A program that crashes at its start is killed, and no failure of the build.
             "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
             # Whether a mutation is pretty is not asked.
             "-DCMAKE_C_FLAGS=-w", "-DCMAKE_CXX_FLAGS=-w",
             f"-DCMAKE_C_FLAGS_DEBUG={optimisation}", f"-DCMAKE_CXX_FLAGS_DEBUG={optimisation}",
             f"-DCMAKE_EXE_LINKER_FLAGS={linker}", f"-DCMAKE_SHARED_LINKER_FLAGS={linker}"])

    def make(self, *targets: str) -> None:
        """Builds the targets, or the unit tests. @throws BuildFailed"""
        self._run(["ninja", "-j1", "-C", self.directory, *(targets or (_UNIT_TESTS,))])

    def object_of(self, source: str) -> str:
        """The object file of a source, relative to the build directory."""
        folder, _, rest = source.partition("/")
        target = "orvexd_core"
        if folder == "tests":
            folder, target, rest = "tests/unit", _UNIT_TESTS, rest.removeprefix("unit/")
        elif source == "src/main/main.cpp":
            target = "orvexd"
        return f"{folder}/CMakeFiles/{target}.dir/{rest}.o"

    def link_with_first(self, objects: list[str], program: str) -> None:
        """Links the unit tests as `program`, with these objects in front of all others: of an
        inline function that several objects hold, the linker takes the first one."""
        commands = subprocess.run(
            ["ninja", "-C", str(self.directory), "-t", "commands", _UNIT_TESTS],
            check=True, stdout=subprocess.PIPE, text=True).stdout
        words = shlex.split(commands.strip().splitlines()[-1])
        begin = words.index("&&") + 1
        words = words[begin : words.index("&&", begin)]
        rest = [word for word in words if word not in objects]
        at = next(index for index, word in enumerate(rest) if word.endswith(".o"))
        words = rest[:at] + objects + rest[at:]
        words[words.index("-o") + 1] = f"bin/{program}"
        self._run(words, self.directory)

    def _run(self, command: list, where: pathlib.Path | None = None) -> None:
        done = subprocess.run([str(word) for word in command], check=False, cwd=where,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise BuildFailed(done.stdout)


class Changed:
    """While it is entered a source reads differently. Afterwards sources and object files are what
    they were, times included, so that nothing has to be built for the way back."""

    def __init__(self, build: Build, file: str, text: str) -> None:
        self.build = build
        self.path = build.workspace.tree / file
        self.text = text
        self.kept = build.directory / "kept-objects"
        only = build.directory / build.object_of(file)
        self.objects = [only] if file.endswith(".cpp") else sorted(build.directory.rglob("*.o"))

    def __enter__(self) -> "Changed":
        self.times = self.path.stat()
        self.original = self.path.read_bytes()
        shutil.rmtree(self.kept, ignore_errors=True)
        for path in self.objects:
            if path.exists():
                kept = self.kept / path.relative_to(self.build.directory)
                kept.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(path, kept)
        self.path.write_text(self.text, encoding="utf-8")
        return self

    def __exit__(self, *_: object) -> None:
        self.path.write_bytes(self.original)
        os.utime(self.path, ns=(self.times.st_atime_ns, self.times.st_mtime_ns))
        for path in self.objects:
            kept = self.kept / path.relative_to(self.build.directory)
            if kept.exists() and kept.stat().st_mtime_ns != path.stat().st_mtime_ns:
                shutil.copy2(kept, path)
        # The library is younger than what went back into its place, so nothing would renew it.
        (self.build.directory / "lib" / "liborvexd_core.a").unlink(missing_ok=True)
        self.build.make("orvexd_core")
