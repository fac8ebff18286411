"""Throw-away keys and certificates."""

import shutil
import subprocess

from .settings import MAKE_TEST_KEYS, PASSPHRASE, patience

CLIENT_FILES = ("SlpClient.pem", "SlpClient-key.pem", "Positioning_CA.pem")


def make_keys(directory, *options):
    """Fills `directory` by scripts/make-test-keys and returns what that printed."""
    command = [MAKE_TEST_KEYS, "--out", directory, "--passphrase", PASSPHRASE, *options]
    done = subprocess.run(
        list(map(str, command)), capture_output=True, text=True, timeout=patience(60), check=False
    )
    assert done.returncode == 0, done.stderr
    return done.stdout


def fill_preinst(directory, keys):
    """Makes `directory` a preinstalled-files directory with the client's three files."""
    directory.mkdir(exist_ok=True)
    for name in CLIENT_FILES:
        (directory / name).write_bytes((keys / name).read_bytes())
    return directory


def restore_preinst(directory, keys):
    """Makes the client's three files what they were, whatever stands in their places."""
    for name in CLIENT_FILES:
        file = directory / name
        if file.is_dir() and not file.is_symlink():
            shutil.rmtree(file)
        else:
            file.unlink(missing_ok=True)
    fill_preinst(directory, keys)
