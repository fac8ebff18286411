"""The built packages, and a clean Debian below a folder to install them into.

Environment:
  ORVEXD_PACKAGE_DIR   where the packages are (default build/packages of this tree)
"""

import functools
import hashlib
import os
import pathlib
import re
import signal
import stat
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGE_DIR = pathlib.Path(os.environ.get("ORVEXD_PACKAGE_DIR") or ROOT / "build" / "packages")
RUNTIME = (
    *("libtrilbacore1", "liborvexclient0", "trilba-platform", "trilba-platform-networkmanager"),
    *("orvexctl", "orvexd"),
)
NAMES = (
    *(*RUNTIME, "libtrilbacore-dev", "orvextrace"),
    *("gir1.2-orvexclient-1.0", "liborvexclient-dev", "orvexd-doc"),
)
FOR_ALL = ("orvexd-doc",)  # machines


def output_of(*command, timeout=240, **options):
    """What a command prints; its complaints are part of the failure."""
    done = subprocess.run(
        list(map(str, command)), capture_output=True, text=True, timeout=timeout, check=False, **options
    )
    assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


@functools.cache
def native_architecture():
    return output_of("dpkg", "--print-architecture").strip()


class Package:
    """One .deb file."""

    def __init__(self, name, architecture):
        architecture = "all" if name in FOR_ALL else architecture
        found = sorted(PACKAGE_DIR.glob(f"{name}_*_{architecture}.deb"))
        assert len(found) == 1, f"{name}, {architecture}: {found}; run scripts/package"
        self.path = found[0]

    def field(self, name):
        return output_of("dpkg-deb", "--field", self.path, name).strip()

    @functools.cached_property
    def files(self):
        """Path to mode as ls prints it; folders end in a slash."""
        lines = output_of("dpkg-deb", "--contents", self.path).splitlines()
        return {line.split()[5].removeprefix("."): line.split()[0] for line in lines}

    def extract(self, directory):
        output_of("dpkg-deb", "--extract", self.path, directory)

    def dependencies(self):
        """Names of what it needs; of alternatives the first."""
        return {re.split(r"[ :|(]", each.strip())[0] for each in self.field("Depends").split(",")}


def dependencies_of(packages):
    """What these packages need of others."""
    return set().union(*(package.dependencies() for package in packages)) - set(NAMES)


def packages_to_build_with():
    """What scripts/setup installs when it is asked for nothing more."""
    setup = (ROOT / "scripts" / "setup").read_text("utf-8")
    listed = re.search(r"^packages=\((.*?)^\)", setup, re.MULTILINE | re.DOTALL)[1]
    return set(re.sub(r"#.*", "", listed).split())


def clean_root_archive(name, packages):
    """A minimal Debian with these packages of the distribution; made once for each name."""
    include = ",".join(sorted(packages))
    archive = ROOT / "build" / f"{name}-{native_architecture()}.tar"
    label = archive.with_suffix(".txt")
    if archive.exists() and label.exists() and label.read_text("utf-8") == include:
        return archive
    release = pathlib.Path("/etc/os-release").read_text("utf-8")
    suite = re.search(r"^VERSION_CODENAME=(\w+)", release, re.MULTILINE)[1]
    sources = pathlib.Path("/etc/apt/sources.list.d/debian.sources")
    if not sources.exists():
        sources = pathlib.Path("/etc/apt/sources.list")
    archive.parent.mkdir(exist_ok=True)
    output_of(
        *["mmdebstrap", "--quiet", "--mode=root", "--variant=essential", f"--include={include}"],
        *[f"--dpkgopt=path-exclude=/usr/share/{each}/*" for each in ("doc", "man", "locale")],
        *[suite, archive, sources],
        timeout=1200,
    )
    label.write_text(include, "utf-8")
    return archive


class CleanRoot:
    """A Debian below `path`. Nothing of it runs except what run() and its callers start."""

    def __init__(self, path, archive):
        self.path = path
        path.mkdir()
        output_of("tar", "--extract", "--numeric-owner", "--file", archive, "--directory", path)
        (path / "packages").mkdir()

    def command(self, *command, user=None):
        """The words that run a command inside, where /proc is mounted as in any container."""
        who = [f"--userspec={user}"] if user else []
        # The mount is gone with the last process that sees it; nothing outside does.
        enter = ["unshare", "--mount", "sh", "-c", 'mount -t proc proc "$0/proc" && exec chroot "$@"']
        return [*enter, str(self.path), *who, str(self.path), *map(str, command)]

    def run(self, *command, user=None, environment=None, timeout=120, **options):
        return subprocess.run(
            self.command(*command, user=user),
            capture_output=True,
            text=True,
            timeout=timeout,
            check=False,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", **(environment or {})},
            **options,
        )

    def must(self, *command, **options):
        done = self.run(*command, **options)
        assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
        return done.stdout

    def install(self, packages):
        for package in packages:
            (self.path / "packages" / package.path.name).write_bytes(package.path.read_bytes())
        names = [f"/packages/{package.path.name}" for package in packages]
        self.must("dpkg", "--install", *names)
        for name in names:
            (self.path / name[1:]).unlink()

    def text(self, path):
        return (self.path / path.lstrip("/")).read_text("utf-8")

    def exists(self, path):
        return os.path.lexists(self.path / path.lstrip("/"))

    def groups(self):
        return [line.split(":")[0] for line in self.text("/etc/group").splitlines()]

    def state(self):
        """Every file with what can be told about it, but for what the package tools keep for themselves."""
        kept = re.compile(
            r"/(packages|dev|proc|sys|run|tmp|var/lib/dpkg|var/log|var/cache/(ldconfig|debconf))(/|$)"
            r"|/etc/(ld\.so\.cache|(group|gshadow|passwd|shadow)-)$"
        )
        found = {}
        for folder, names, files in os.walk(self.path):
            for name in (*names, *files):
                path = pathlib.Path(folder, name)
                inside = "/" + str(path.relative_to(self.path))
                if not kept.match(inside):
                    found[inside] = _facts(path)
            names[:] = [n for n in names if not kept.match("/" + os.path.relpath(f"{folder}/{n}", self.path))]
        return found

    def processes(self):
        """Who runs inside."""
        inside = str(self.path)
        found = []
        for each in pathlib.Path("/proc").iterdir():
            if each.name.isdigit():
                try:
                    if os.readlink(each / "root") == inside:
                        found.append(int(each.name))
                except OSError:
                    pass  # it ended meanwhile
        return found

    def runs(self, name):
        """Whether a program of this name runs inside."""
        for pid in self.processes():
            try:
                if pathlib.Path(f"/proc/{pid}/comm").read_text("utf-8").strip() == name:
                    return True
            except OSError:
                pass  # it ended meanwhile
        return False

    def end_processes(self):
        """Nothing survives a test. Each is ended by its number."""
        for pid in self.processes():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


def _facts(path):
    facts = path.lstat()
    content = ""
    if stat.S_ISLNK(facts.st_mode):
        content = os.readlink(path)
    elif stat.S_ISREG(facts.st_mode):
        content = hashlib.sha256(path.read_bytes()).hexdigest()
    return (stat.filemode(facts.st_mode), facts.st_uid, facts.st_gid, content)
