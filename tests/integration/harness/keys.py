"""Throw-away keys and certificates."""

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
