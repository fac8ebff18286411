"""What is in the packages, without installing them."""

import os
import re
import subprocess

import pytest

from debian_packages import (
    PACKAGE_DIR,
    ROOT,
    Package,
    native_architecture,
    output_of,
    packages_to_build_with,
)

SHARE = "/usr/share"
PLACES = {
    "orvexd": [
        "/usr/libexec/orvexd-probe",
        "/usr/sbin/orvexd",
        f"{SHARE}/dbus-1/system.d/com.kelvra.orvexd.conf",
        f"{SHARE}/dbus-1/system-services/com.kelvra.orvexd.service",
        "/lib/systemd/system/orvexd.service",
        f"{SHARE}/man/man8/orvexd.8.gz",
        f"{SHARE}/man/man8/orvexd-probe.8.gz",
        f"{SHARE}/man/man5/orvexd.schema.5.gz",
        f"{SHARE}/man/man5/trilba-platform.conf.5.gz",
        f"{SHARE}/doc/orvexd/examples/orvexd.schema",
        f"{SHARE}/doc/orvexd/examples/orvexd.env",
        f"{SHARE}/doc/orvexd/examples/platform.conf",
        f"{SHARE}/doc/orvexd/examples/bus-limits.conf",
    ],
    "orvexctl": [
        "/usr/bin/orvexctl",
        f"{SHARE}/man/man1/orvexctl.1.gz",
        "/usr/bin/slp-check-answer",
        f"{SHARE}/man/man1/slp-check-answer.1.gz",
        f"{SHARE}/bash-completion/completions/orvexctl",
    ],
    "orvextrace": [
        "/usr/sbin/orvextrace",
        f"{SHARE}/man/man8/orvextrace.8.gz",
        f"{SHARE}/orvextrace/exchange.bt",
        f"{SHARE}/orvextrace/phases.bt",
        f"{SHARE}/orvextrace/clients.bt",
    ],
    "liborvexclient0": ["/usr/lib/{triplet}/liborvexclient-1.0.so.0"],
    "gir1.2-orvexclient-1.0": [
        "/usr/lib/{triplet}/girepository-1.0/Orvex-1.0.typelib",
        "/usr/lib/{triplet}/girepository-1.0/OrvexClient-1.0.typelib",
    ],
    "liborvexclient-dev": [
        "/usr/include/orvexclient-1.0/orvexclient.h",
        "/usr/lib/{triplet}/liborvexclient-1.0.so",
        "/usr/lib/{triplet}/pkgconfig/orvexclient-1.0.pc",
        f"{SHARE}/dbus-1/interfaces/com.kelvra.orvexd.xml",
        f"{SHARE}/gir-1.0/Orvex-1.0.gir",
        f"{SHARE}/gir-1.0/OrvexClient-1.0.gir",
        f"{SHARE}/vala/vapi/orvexclient-1.0.vapi",
    ],
    "orvexd-doc": [
        f"{SHARE}/doc/orvexd-doc/client-guide.md",
        f"{SHARE}/doc/orvexd-doc/debugging.md",
        f"{SHARE}/doc/orvexd-doc/server-guide.md",
        f"{SHARE}/doc/orvexd-doc/tracing.md",
        f"{SHARE}/doc/orvexd-doc/examples/fingerprint.py",
        f"{SHARE}/doc/orvexd-doc/examples/raw/python/client.py",
        f"{SHARE}/doc/orvexd-doc/reference/class.Client.html",
    ],
    "libtrilbacore1": ["/usr/lib/{triplet}/libtrilbacore.so.1"],
    "trilba-platform": ["/usr/bin/trilba-platform", f"{SHARE}/man/man1/trilba-platform.1.gz"],
    "trilba-platform-networkmanager": ["/usr/lib/{triplet}/trilba/trilba-platform-networkmanager.so"],
    "libtrilbacore-dev": [
        "/usr/include/trilba/network/IConnectionManager.h",
        "/usr/lib/{triplet}/libtrilbacore.so",
        "/usr/lib/{triplet}/pkgconfig/trilbacore.pc",
    ],
}

PROGRAM = """
#include <iostream>
#include <trilba/core/SystemInfo.h>
int main() {
    std::string id;
    trilba::core::SystemInfo::getPlatformId(id);
    std::cout << id;
}
"""


@pytest.fixture(scope="module")
def triplet():
    return output_of("dpkg-architecture", "-qDEB_HOST_MULTIARCH").strip()


def test_setup_installs_what_building_the_packages_takes():
    control = (ROOT / "debian/control").read_text("utf-8")
    fields = re.search(r"^Build-Depends:\n((?: .*\n)+)", control, re.MULTILINE)[1]
    needed = {re.split(r"[ ,]", line.strip())[0] for line in fields.splitlines()}
    # Every build takes this one without naming it; a package of debhelper's stands for its level.
    needed = (needed | {"build-essential"}) - {"debhelper-compat"} | {"debhelper"}
    setup = (ROOT / "scripts/setup").read_text("utf-8")
    further = re.search(r"--packages\) packages\+=\((.*?)\)", setup)[1]
    assert needed <= packages_to_build_with() | set(further.split())


def test_only_the_module_needs_the_libraries_of_network_services(packages):
    network = {"libnm0", "libmm-glib0"}
    needing = {name for name, package in packages.items() if network & package.dependencies()}
    assert needing == {"trilba-platform-networkmanager"}


def test_packages_are_of_one_version_and_this_architecture(packages):
    assert len({package.field("Version") for package in packages.values()}) == 1
    assert {each.field("Architecture") for each in packages.values()} == {native_architecture(), "all"}


@pytest.mark.parametrize("name", PLACES)
def test_every_file_is_in_its_package(packages, triplet, name):
    for place in PLACES[name]:
        assert place.format(triplet=triplet) in packages[name].files


def test_no_file_is_in_two_packages(packages):
    seen = {}
    for name, package in packages.items():
        for path in package.files:
            if not path.endswith("/"):
                assert seen.setdefault(path, name) == name, path


def test_identity_and_storage_are_for_root_alone(packages):
    files = packages["orvexd"].files
    assert files["/etc/default/orvexd"] == "-rw-------"
    assert files["/var/lib/orvexd/"] == "drwx------"
    assert files["/usr/libexec/orvexd-probe"] == "-rwxr-x---"


def test_identity_is_a_configuration_file(packages, tmp_path):
    output_of("dpkg-deb", "--control", packages["orvexd"].path, tmp_path / "control")
    conffiles = (tmp_path / "control" / "conffiles").read_text("utf-8").split()
    assert conffiles == ["/etc/default/orvexd"]


def test_probes_are_still_in_the_stripped_program(packages, tmp_path):
    packages["orvexd"].extract(tmp_path)
    notes = output_of("readelf", "--wide", "--notes", tmp_path / "usr/sbin/orvexd")
    assert "Name: exchange_begin" in notes


def test_keys_are_in_no_package(packages):
    for package in packages.values():
        assert not [path for path in package.files if path.endswith(".pem")]


def test_no_licence_is_claimed(packages, tmp_path):
    for name, package in packages.items():
        package.extract(tmp_path / name)
        text = (tmp_path / name / f"usr/share/doc/{name}/copyright").read_text("utf-8")
        assert "No licence has been chosen" in text


def test_program_is_built_against_the_development_package(packages, triplet, tmp_path):
    for name in ("libtrilbacore1", "libtrilbacore-dev"):
        packages[name].extract(tmp_path / "root")
    (tmp_path / "program.cpp").write_text(PROGRAM, "utf-8")
    libraries = tmp_path / "root" / "usr" / "lib" / triplet
    environment = {
        **os.environ,
        "PKG_CONFIG_PATH": str(libraries / "pkgconfig"),
        "PKG_CONFIG_SYSROOT_DIR": str(tmp_path / "root"),
    }
    flags = output_of("pkg-config", "--cflags", "--libs", "trilbacore", env=environment).split()
    program = tmp_path / "program"
    # The system's own folders are not named by pkg-config, but here they lie elsewhere.
    extra = [f"-I{tmp_path}/root/usr/include", f"-L{libraries}"]
    output_of("g++", "-std=c++20", tmp_path / "program.cpp", "-o", program, *flags, *extra)
    printed = subprocess.run(
        [program],
        capture_output=True,
        check=True,
        timeout=20,
        env={"LD_LIBRARY_PATH": str(libraries), "TRILBA_PLATFORM_CONF": "/nonexistent"},
    )
    assert printed.stdout == b"linux-generic"


def test_version_is_that_of_the_tree(packages):
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    assert f"VERSION {packages['orvexd'].field('Version').rpartition('-')[0]}\n" in text


@pytest.mark.parametrize("name", ["orvexd", "orvexctl", "libtrilbacore1"])
def test_debug_symbols_are_in_a_package_of_their_own(name):
    files = Package(f"{name}-dbgsym", native_architecture()).files
    assert any(path.startswith("/usr/lib/debug/.build-id/") and path.endswith(".debug") for path in files)


def test_library_declares_its_symbols(packages, tmp_path):
    output_of("dpkg-deb", "--control", packages["libtrilbacore1"].path, tmp_path / "control")
    symbols = (tmp_path / "control" / "symbols").read_text("utf-8")
    assert "_ZN6trilba4core10SystemInfo7getImeiE" in symbols
    assert "-1\n" not in symbols  # no symbol that the file does not know


@pytest.mark.parametrize("guide", ["client-guide", "debugging", "server-guide", "tracing"])
def test_links_of_a_guide_lead_to_installed_files(packages, guide, tmp_path):
    packages["orvexd-doc"].extract(tmp_path)
    path = tmp_path / f"usr/share/doc/orvexd-doc/{guide}.md"
    installed = {file for package in packages.values() for file in package.files}
    links = re.findall(r"\]\((?!http|#)([^)#]+)", path.read_text("utf-8"))
    lost = [link for link in links if link not in installed and not (path.parent / link).exists()]
    assert lost == []


def test_source_package_unpacks_to_the_tree(tmp_path):
    (description,) = PACKAGE_DIR.glob("orvexd_*.dsc")
    assert re.search(r"^Format: 3.0 \(quilt\)$", description.read_text("utf-8"), re.MULTILINE)
    output_of("dpkg-source", "--no-check", "--extract", description, tmp_path / "tree")
    for path in ("debian/rules", "CMakeLists.txt", "src/main/main.cpp", "debian/tests/control"):
        assert (tmp_path / "tree" / path).read_bytes() == (ROOT / path).read_bytes()


@pytest.mark.parametrize("options, wanted", [([], False), (["--preset", "release"], True)], ids=["packager", "project"])
def test_warnings_are_errors_in_the_project_s_own_presets_only(options, wanted, tmp_path):
    output_of("cmake", *options, "-S", ROOT, "-B", tmp_path, "-DBUILD_TESTING=OFF")
    commands = (tmp_path / "compile_commands.json").read_text("utf-8")
    assert ("-Werror" in commands) == wanted


@pytest.mark.timeout(2400)
def test_source_package_makes_the_same_packages_in_another_folder(packages, tmp_path):
    (description,) = PACKAGE_DIR.glob("orvexd_*.dsc")
    tree = tmp_path / "a-folder-with-another-name" / "tree"
    tree.parent.mkdir()
    output_of("dpkg-source", "--no-check", "--extract", description, tree)
    environment = {**os.environ, "DEB_BUILD_OPTIONS": f"parallel={os.cpu_count()} nocheck terse"}
    output_of("dpkg-buildpackage", "--build=binary", "--no-sign", cwd=tree, env=environment, timeout=2400)
    built = {path.name: path.read_bytes() for path in tree.parent.glob("*.deb")}
    assert {package.path.name for package in packages.values()} <= built.keys()
    different = [name for name, data in built.items() if data != (PACKAGE_DIR / name).read_bytes()]
    assert different == []
