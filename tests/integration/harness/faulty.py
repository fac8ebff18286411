"""Set-ups in which no request is answered: what is wrong with each, and what doctor has to say about it.

A set-up is spoilt and mended again while the daemon runs, so that a whole table of them needs one daemon.
"""

import dataclasses
import os
import re
import socket
import subprocess

from .daemon import DEVICE
from .keys import restore_preinst
from .settings import PASSPHRASE

CERTIFICATE, KEY, AUTHORITY = "SlpClient.pem", "SlpClient-key.pem", "Positioning_CA.pem"
YEAR = 366 * 24 * 3600
STRANGER_ID = 65534

SYSTEM = {"PlatformId": "linux-test", "Imei": "352099001761481", "Imsi": "262011234567890", "Mmf": "fw-1.0"}


@dataclasses.dataclass
class Device:
    """What a set-up can spoil."""

    server: object
    platform: object
    preinst: object
    keys: object
    other_keys: object  # made by another authority
    identity: object  # path of the file of the five variables
    clock: object  # of daemon and doctor

    def write_identity(self, **changes):
        values = {**DEVICE, "TRILBA_PLATFORM_CONF": self.platform.path, **changes}
        self.identity.write_text("".join(f'{name}="{value}"\n' for name, value in values.items()), "utf-8")
        self.identity.chmod(0o600)

    def mend(self):
        """Makes everything good, whatever it was."""
        self.server.clear()
        self.server.forget_events()
        self.server.default({})
        restore_preinst(self.preinst, self.keys)
        for file in self.preinst.iterdir():
            file.chmod(0o600)
        proxy = ("127.0.0.1", self.server.port)
        self.platform.restore(
            {"system": dict(SYSTEM), "positioning": True, "connections": [(1, True, False)], "proxy": proxy}
        )
        os.chown(self.platform.path, 0, 0)
        self.write_identity()
        self.clock.step_to()

    def edit_platform(self, pattern, replacement):
        text = self.platform.text()
        changed = re.sub(pattern, replacement, text, count=1)
        assert changed != text, pattern
        self.platform.write_text(changed)


@dataclasses.dataclass
class SetUp:
    """One way to be broken."""

    name: str
    spoil: object  # called with a Device
    check: str  # the check that finds it
    finds: str  # a pattern in what it says, advice included
    exchange: bool = False  # only a request shows it
    needs_ids: bool = False  # takes other user ids than root's
    patience: int = 20  # seconds that doctor waits; those that it waits in vain are few

    @property
    def is_local(self):
        """Whether the device alone shows it."""
        return self.check not in ("names", "connection", "tls", "exchange")


def _copy(name, source=None):
    return lambda d: (d.preinst / name).write_bytes((d.other_keys / (source or name)).read_bytes())


def _foreign_certificate(device):
    """From the very authority, so that only the key is at fault."""
    (device.preinst / CERTIFICATE).write_bytes((device.keys / "server.pem").read_bytes())


def _other_passphrase(device):
    """The right key, encrypted anew."""
    key = device.preinst / KEY
    phrases = ["-passin", f"pass:{PASSPHRASE}", "-passout", "pass:another8"]
    command = ["openssl", "pkey", "-in", key, "-aes256", *phrases]
    key.write_bytes(subprocess.run(command, check=True, capture_output=True).stdout)


def _refused_identity(device):
    (device.preinst / CERTIFICATE).write_bytes((device.keys / "SlpClient-unknown-ca.pem").read_bytes())


def _wrong_owner(device):
    path = device.preinst / CERTIFICATE
    path.chmod(0o600)
    os.chown(path, STRANGER_ID, STRANGER_ID)


def _closed_port(device):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = listener.getsockname()[1]
    device.platform.write(proxy=("127.0.0.1", port))


def _platform_of_a_stranger(device):
    device.platform.path.chmod(0o600)
    os.chown(device.platform.path, STRANGER_ID, STRANGER_ID)


def _damaged_block(name):
    def spoil(device):
        with open(device.preinst / name, "a", encoding="ascii") as file:
            file.write("-----BEGIN CERTIFICATE-----\nZZZZ\n-----END CERTIFICATE-----\n")

    return spoil


def _latin_1(device):
    device.identity.write_bytes(device.identity.read_bytes().replace(b"Kelvra", b"K\xe4lvra"))


def _comment_that_swallows(device):
    device.identity.write_bytes(b"# of this device \\\n" + device.identity.read_bytes())


def _unlink(path_of):
    return lambda device: path_of(device).unlink()


def _default(**behaviour):
    return lambda device: device.server.default(behaviour)


def _certificate(name):
    return _default(certificate=name)


def _answer(status, body="<html>no</html>"):
    return _default(answer={"status": status, "content_type": "text/html", "body": body})


def _platform(pattern, replacement):
    return lambda device: device.edit_platform(pattern, replacement)


def _identity(**changes):
    return lambda device: device.write_identity(**changes)


SET_UPS = [
    # the device's files
    SetUp("certificate missing", _unlink(lambda d: d.preinst / CERTIFICATE), "files", "SlpClient.pem cannot be found"),
    SetUp(
        "certificate garbage",
        lambda d: (d.preinst / CERTIFICATE).write_text("garbage", "utf-8"),
        "files",
        "SlpClient.pem holds no certificate",
    ),
    SetUp("foreign key", _copy(KEY), "files", "SlpClient-key.pem is not the key of the certificate"),
    SetUp("other pass phrase", _other_passphrase, "files", "does not open with the pass phrase of this build"),
    SetUp("foreign certificate", _foreign_certificate, "files", "is not the key of the certificate in .*/SlpClient.pem"),
    SetUp("wrong owner", _wrong_owner, "files", "SlpClient.pem belongs to user 65534 .*cannot read", needs_ids=True),
    SetUp("authority missing", _unlink(lambda d: d.preinst / AUTHORITY), "files", "Positioning_CA.pem cannot be found"),
    SetUp("authority wrong", _copy(AUTHORITY), "tls", "self-signed .*Positioning_CA.pem is not the authority"),
    SetUp("damaged behind the certificate", _damaged_block(CERTIFICATE), "files", "is damaged behind 1 good"),
    SetUp("damaged behind the authority", _damaged_block(AUTHORITY), "files", "is damaged behind 1 good"),
    # the server's certificate
    SetUp("server expired", _certificate("expired"), "tls", "server's certificate .*has expired"),
    SetUp("server not yet valid", _certificate("not-yet-valid"), "tls", "server's certificate .*not yet valid"),
    SetUp("wrong host", _certificate("wrong-host"), "tls", "another host name: elsewhere.kelvra.example"),
    SetUp("self-signed", _certificate("self-signed"), "tls", "self-signed certificate"),
    SetUp("unknown authority", _certificate("unknown-ca"), "tls", "signed by .*Throw-away other authority"),
    # the way
    SetUp("identity refused", _refused_identity, "tls", "refuses the device's certificate.*unknown CA"),
    SetUp("reset", _default(on=[{"at": "client-hello", "do": "reset"}]), "tls", "handshake broke off.*reset"),
    SetUp("proxy wants a password", _default(proxy={"status": 407}), "connection", "name and a password"),
    SetUp("proxy refuses", _default(proxy={"status": 403}), "connection", "refuses to connect to .* 403"),
    SetUp("proxy silent", _default(on=[{"at": "connect", "do": "hang"}]), "connection", "says nothing for", patience=1),
    SetUp("proxy wrong", _default(proxy={"raw": "220 mail ready\r\n\r\n"}), "connection", "does not answer like a proxy"),
    SetUp(
        "proxy never ends its head",
        _default(proxy={"raw": "HTTP/1.1 200 OK\r\nVia: x\r\n"}, on=[{"at": "tunnel", "do": "hang"}]),
        "connection",
        "says 200 and does not come to the end of its answer",
        patience=1,
    ),
    SetUp(
        "proxy wants a password and goes on",
        _default(
            proxy={"raw": "HTTP/1.1 407 No\r\nContent-Length: 1000\r\n\r\nx"}, on=[{"at": "tunnel", "do": "hang"}]
        ),
        "connection",
        "name and a password",
        patience=1,
    ),
    SetUp(
        "no certificate asked for",
        _default(client_certificate="none", on=[{"at": "handshake", "do": "close"}]),
        "tls",
        "ends the connection after the handshake.* had not asked for the device's certificate",
    ),
    SetUp("port closed", _closed_port, "connection", "nothing listens on that port"),
    # the server's answer
    SetUp("404", _answer(404), "exchange", "404 Not Found.*<html>no</html>.*path", exchange=True),
    SetUp("413", _answer(413), "exchange", " 413 .*smaller requests", exchange=True),
    SetUp("502", _answer(502), "exchange", "502 Bad Gateway.*server behind it", exchange=True),
    SetUp("HTML", _answer(200), "exchange", "200 OK.*text/html.*Something else than a positioning", exchange=True),
    SetUp(
        "certificate refused in HTTP",
        _answer(400, "<title>400 The SSL certificate error</title>"),
        "exchange",
        "400 Bad Request.*does not take the device's certificate",
        exchange=True,
    ),
    SetUp(
        "status of the document",
        _default(answer={"multipart": {"status": "unknownDevice"}}),
        "exchange",
        "A positioning server answers.* SLP document is refused",
        exchange=True,
    ),
    SetUp(
        "over 60 s",
        _default(on=[{"at": "upload-end", "do": "hang"}]),
        "exchange",
        "not answered completely within 1 s. The daemon gives up after 60 s",
        exchange=True,
        patience=1,
    ),
    # the device
    SetUp("wrong identity variable", _identity(KELVRA_IMEI_FRAGMENT=""), "identity", "Missing .*KELVRA_IMEI_FRAGMENT"),
    SetUp(
        "identity of the example",
        _identity(KELVRA_UNIQUE_DEVICE_ID="00000000-0000-0000-0000-000000000000"),
        "identity",
        "packaged example's",
    ),
    SetUp("identity is no UTF-8", _latin_1, "identity", "refuses .*no UTF-8 in the line KELVRA_DEVICE_MANUFACTURER"),
    SetUp("comment swallows a variable", _comment_that_swallows, "identity", "Missing .*: KELVRA_"),
    SetUp(
        "IMEI of the example",
        lambda d: d.platform.write(system={**SYSTEM, "Imei": "490154203237518"}),
        "platform",
        "Imei is the example's, .* comes from this file, not from the five variables",
    ),
    SetUp("platform file missing", _unlink(lambda d: d.platform.path), "platform", "platform.conf cannot be found"),
    SetUp("platform file is none", _platform(r"\[Location\]", "[Location"), "platform", "is no key file"),
    SetUp("platform: truth", _platform("Active=true", "Active=maybe"), "platform", "line 1[0-9]: Active=maybe is not"),
    SetUp("platform: number", _platform("Kind=1", "Kind=wifi"), "platform", "line 1[0-9]: Kind=wifi is not"),
    SetUp("platform: port", _platform("Port=[0-9]+", "Port=70000"), "platform", "Port=70000 is no port"),
    SetUp("platform: name", _platform("List=c0;", "List=wifi0;"), "platform", r'"wifi0", but there is no \[Connection'),
    SetUp("platform: key", _platform("Active=true", "Activ=true"), "platform", "Activ=true is no key"),
    SetUp("platform file's owner", _platform_of_a_stranger, "platform", "belongs to user 65534", needs_ids=True),
    SetUp("no network", lambda d: d.platform.write(connections=[]), "status", "not connected"),
    SetUp("clock wrong", lambda d: d.clock.step_to(wall=10 * YEAR), "dates", "the clock is wrong"),
]
