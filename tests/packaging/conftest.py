"""Fixtures of the package tests."""

import os
import shutil

import pytest

from debian_packages import (
    NAMES,
    RUNTIME,
    CleanRoot,
    Package,
    clean_root_archive,
    dependencies_of,
    native_architecture,
)


@pytest.fixture(scope="session")
def packages():
    """The packages for this machine, by name."""
    return {name: Package(name, native_architecture()) for name in NAMES}


@pytest.fixture(scope="session")
def runtime(packages):
    """Those that a device gets."""
    return [packages[name] for name in RUNTIME]


@pytest.fixture(scope="session")
def make_root(tmp_path_factory):
    """Makes Debians below folders; the name stands for the packages in them."""
    assert os.geteuid() == 0, "installing into a root folder takes root"
    roots = []

    def make(name, contents):
        archive = clean_root_archive(name, contents)
        roots.append(CleanRoot(tmp_path_factory.mktemp("clean") / "root", archive))
        return roots[-1]

    yield make
    for root in roots:
        root.end_processes()
        shutil.rmtree(root.path)


@pytest.fixture(scope="session")
def for_programs(packages):
    """Those that programs in Python and JavaScript take."""
    return [packages[name] for name in (*RUNTIME, "gir1.2-orvexclient-1.0")]


@pytest.fixture
def clean_root(make_root, runtime):
    """A Debian with exactly what the packages name as dependencies, of the test's own."""
    return make_root("clean-root", dependencies_of(runtime))


@pytest.fixture(scope="session")
def installed(make_root, runtime):
    """A Debian with the packages, which tests leave as they found it."""
    root = make_root("clean-root", dependencies_of(runtime))
    root.install(runtime)
    return root
