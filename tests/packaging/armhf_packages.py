"""The packages for 32-bit ARM. Run by name, after "scripts/package armhf"; see scripts/lib/test-armhf."""

import re
import subprocess

import pytest

from debian_packages import FOR_ALL, ROOT, Package, output_of
from debian_packages import NAMES as ALL_NAMES
from test_contents import PLACES

NAMES = [name for name in ALL_NAMES if name not in FOR_ALL]

SYSROOT = ROOT / "build" / "armhf-sysroot"
TRIPLET = "arm-linux-gnueabihf"


@pytest.fixture(scope="module")
def packages():
    return {name: Package(name, "armhf") for name in NAMES}


@pytest.fixture(scope="module")
def extracted(packages, tmp_path_factory):
    """All of them below one folder."""
    root = tmp_path_factory.mktemp("root")
    for package in packages.values():
        package.extract(root)
    return root


@pytest.mark.parametrize("name", NAMES)
def test_every_file_is_in_its_package(packages, name):
    assert packages[name].field("Architecture") == "armhf"
    for place in PLACES[name]:
        assert place.format(triplet=TRIPLET) in packages[name].files


@pytest.mark.parametrize("path", ["usr/sbin/orvexd", "usr/bin/orvexctl", f"usr/lib/{TRIPLET}/libtrilbacore.so.1", f"usr/lib/{TRIPLET}/liborvexclient-1.0.so.0"])
def test_programs_are_for_arm_with_hardware_floating_point(extracted, path):
    header = output_of("readelf", "--file-header", extracted / path, env={"LC_ALL": "C", "PATH": "/usr/bin"})
    assert re.search(r"Class:\s+ELF32", header)
    assert re.search(r"Machine:\s+ARM", header)
    assert "hard-float ABI" in header


def test_dependencies_are_those_of_the_native_packages_and_no_stricter_than_needed(packages):
    needed = packages["orvexd"].dependencies()
    assert {"libc6", "libcurl4", "libdbus-1-3", "libdbus-glib-1-2", "libglib2.0-0", "libssl3"} <= needed
    assert {"libstdc++6", "libxml2", "libtrilbacore1", "adduser"} <= needed
    # The version in which the newest function that is used came, not the one that was built with.
    assert "libssl3 (>= 3.0.0)" in packages["orvexd"].field("Depends")


def test_daemon_runs_from_the_package(extracted):
    done = subprocess.run(
        [
            *["qemu-arm-static", "-L", SYSROOT, "-E", f"LD_LIBRARY_PATH={extracted}/usr/lib/{TRIPLET}"],
            *[extracted / "usr/sbin/orvexd", "--version"],
        ],
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
        env={"TRILBA_PLATFORM_CONF": "/nonexistent", "PATH": "/usr/bin"},
    )
    assert re.fullmatch(r"trilba 3\.0\.1415 \[linux-generic\] orvexd built: .+\n", done.stdout)
