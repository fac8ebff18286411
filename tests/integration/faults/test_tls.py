"""Servers whose certificate proves nothing, and client files that cannot be used.

The daemon of this group has no capabilities, as the shipped unit starts it: a root that may read
every file would read the ones that nobody may.
"""

import dataclasses
import sys

import pytest

from harness import curl, matrix, sandbox, shared
from harness.daemon import Daemon
from harness.fault import HOLD, TRANSPORT, Answered, Failed, Fault, Seen, early_call, rows
from harness.keys import CLIENT_FILES, make_keys
from harness.settings import DAEMON, PASSPHRASE

bus, server, platform, preinst, _, fresh, scene = matrix.FIXTURES

CERTIFICATE, KEY, AUTHORITY = CLIENT_FILES
SUBJECT = "organizationName=Kelvra test, commonName=Throw-away terminal"
HELD = {"server": {"on": [HOLD]}, "act": early_call}
# The server's refusal of a client certificate comes when the request is on its way.
REFUSED = {curl.SEND_ERROR, curl.RECV_ERROR, curl.GOT_NOTHING}


@pytest.fixture(scope="module")
def daemon(tmp_path_factory, bus, platform, preinst):
    directory = tmp_path_factory.mktemp("daemon")
    daemon = Daemon(directory, bus, platform.path, preinst)
    daemon.program = [sys.executable, sandbox.__file__, DAEMON]
    yield from shared.running(daemon)


# -- what the server sees --------------------------------------------------------------------------


class NothingTold(Seen):
    """The server got no byte of the request."""

    def check(self, scene):
        record = scene.server.wait(scene.server.last)
        assert record["request"] is None and record["body_bytes"] == 0, record


@dataclasses.dataclass
class Showed(Seen):
    """The subject of the certificate that the daemon showed; None: it showed none."""

    subject: str | None

    def check(self, scene):
        assert scene.server.wait(scene.server.last)["tls"]["client_subject"] == self.subject


# -- what is done to the files ---------------------------------------------------------------------


def removed(file):
    file.unlink()


def emptied(file):
    file.write_bytes(b"")


def truncated(file):
    file.write_bytes(file.read_bytes()[: file.stat().st_size // 2])


def without_its_last_line(file):
    file.write_bytes(b"".join(file.read_bytes().splitlines(True)[:-1]))


def garbage(file):
    file.write_bytes(bytes(range(256)) * 8)


def unreadable(file):
    file.chmod(0)
    assert file.stat().st_mode & 0o777 == 0


def a_directory(file):
    file.unlink()
    file.mkdir()


def a_link_to_itself(file):
    file.unlink()
    file.symlink_to(file.name)


SPOILT = (
    removed,
    emptied,
    truncated,
    without_its_last_line,
    garbage,
    unreadable,
    a_directory,
    a_link_to_itself,
)
FAILURES = {
    CERTIFICATE: curl.SSL_CERTPROBLEM,
    KEY: curl.SSL_CERTPROBLEM,
    AUTHORITY: curl.SSL_CACERT_BADFILE,
}


def spoil(name, how):
    return lambda preinst: how(preinst / name)


def from_another_set(*names, passphrase=PASSPHRASE):
    """Puts files of other keys, encrypted with this, in the places of these."""

    def put(preinst):
        others = preinst.parent / f"others-{passphrase}"
        make_keys(others, "--passphrase", passphrase)
        for name in names:
            (preinst / name).write_bytes((others / name).read_bytes())

    return put


# -- rows ------------------------------------------------------------------------------------------

SERVERS = [
    Fault(
        f"server-certificate-{certificate}-tls-{version}",
        server={"on": [HOLD], "certificate": certificate, "tls_version": version},
        act=early_call,
        sees=[Failed(TRANSPORT, curl.PEER_FAILED_VERIFICATION), NothingTold()],
    )
    for certificate in ("expired", "not-yet-valid", "wrong-host", "unknown-ca", "self-signed")
    for version in ("1.2", "1.3")
] + [
    Fault(
        "server-asks-for-no-client-certificate",
        server={"on": [HOLD], "client_certificate": "none"},
        act=early_call,
        sees=[Answered(), Showed(None)],
    ),
    Fault(
        "server-takes-a-client-without-certificate",
        server={"on": [HOLD], "client_certificate": "optional"},
        act=early_call,
        sees=[Answered(), Showed(SUBJECT)],
    ),
]

FILES = [
    Fault(
        f"{name}-{how.__name__.replace('_', '-')}",
        **HELD,
        files=spoil(name, how),
        sees=[Failed(TRANSPORT, FAILURES[name]), NothingTold()],
    )
    for name in CLIENT_FILES
    for how in SPOILT
]

KEYS = [
    Fault(
        "client-key-with-another-pass-phrase",
        **HELD,
        files=from_another_set(CERTIFICATE, KEY, passphrase="another8"),
        sees=[Failed(TRANSPORT, curl.SSL_CERTPROBLEM), NothingTold()],
    ),
    Fault(
        "client-key-of-another-certificate",
        **HELD,
        files=from_another_set(KEY),
        sees=[Failed(TRANSPORT, curl.SSL_CERTPROBLEM), NothingTold()],
    ),
    Fault(
        "client-certificate-of-another-authority-tls-1.2",
        server={"on": [HOLD], "tls_version": "1.2"},
        files=from_another_set(CERTIFICATE, KEY),
        act=early_call,
        sees=[Failed(TRANSPORT, curl.SSL_CONNECT_ERROR), NothingTold()],
    ),
    Fault(
        "client-certificate-of-another-authority-tls-1.3",
        server={"on": [HOLD], "tls_version": "1.3"},
        files=from_another_set(CERTIFICATE, KEY),
        act=early_call,
        sees=[Failed(TRANSPORT, REFUSED)],
    ),
    Fault(
        "authority-of-another-server",
        **HELD,
        files=from_another_set(AUTHORITY),
        sees=[Failed(TRANSPORT, curl.PEER_FAILED_VERIFICATION), NothingTold()],
    ),
]


@rows(*SERVERS, *FILES, *KEYS)
def test_tls(fault, scene):
    fault.play(scene)
