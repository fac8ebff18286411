"""Fixtures of the package tests."""

import os
import shutil

import pytest

from debian_packages import NAMES, RUNTIME, CleanRoot, Package, clean_root_archive, native_architecture


@pytest.fixture(scope="session")
def packages():
    """The packages for this machine, by name."""
    return {name: Package(name, native_architecture()) for name in NAMES}


@pytest.fixture(scope="session")
def runtime(packages):
    """Those that a device gets."""
    return [packages[name] for name in RUNTIME]


@pytest.fixture(scope="session")
def archive(runtime):
    assert os.geteuid() == 0, "installing into a root folder takes root"
    return clean_root_archive(runtime)


@pytest.fixture(scope="session")
def _make(archive, tmp_path_factory):
    roots = []

    def make():
        roots.append(CleanRoot(tmp_path_factory.mktemp("clean") / "root", archive))
        return roots[-1]

    yield make
    for root in roots:
        root.end_processes()
        shutil.rmtree(root.path)


@pytest.fixture
def clean_root(_make):
    """A Debian without the packages, of the test's own."""
    return _make()


@pytest.fixture(scope="session")
def installed(_make, runtime):
    """A Debian with the packages, which tests leave as they found it."""
    root = _make()
    root.install(runtime)
    return root
