"""Set-ups in which no request is answered: what is wrong with each, and what doctor and request have to say about it.

A set-up is spoilt and mended again while the daemon runs, so that a whole table of them needs one daemon.
"""

import dataclasses

from . import spoil
from .faulty_device import SYSTEM
from .spoil import AUTHORITY, CERTIFICATE, KEY

YEAR = 366 * 24 * 3600

# What request advises: it knows the daemon's text only, behind which several causes may stand, and names them all.
OWN_FILES = "SlpClient.pem and SlpClient-key.pem: "
NOT_TRUSTED = "server's certificate is not trusted"
BROKE_OFF = "does not accept the daemon's client certificate"
NO_NETWORK = "no network connection"
FAULTY_PLATFORM = f"{NO_NETWORK}.*platform's settings.*faulty.*orvexctl doctor"
ASK_DOCTOR = "orvexctl doctor --exchange"


@dataclasses.dataclass
class SetUp:
    """One way to be broken."""

    name: str
    spoil: object  # called with a Device
    check: str  # the check that finds it
    finds: str  # a pattern in what it says, advice included
    exchange: bool = False  # only a request shows it
    needs_ids: bool = False  # takes other user ids than root's
    needs_systemd: bool = False  # only systemd reads the file so; request is not tried
    patience: int = 20  # seconds that doctor waits; those that it waits in vain are few
    advises: str = ""  # a pattern in what request advises; nothing where requests are answered
    status: int = 30  # of request
    overdue: tuple = ()  # the point of the exchange at which the daemon waits in vain, and for how many seconds

    @property
    def needs_a_start(self):
        """Whether a daemon that runs already goes on with what it has."""
        return self.check == "platform" or self.needs_ids

    @property
    def is_local(self):
        """Whether the device alone shows it."""
        return self.check not in ("names", "connection", "tls", "exchange")


SET_UPS = [
    # the device's files
    SetUp(
        "certificate missing",
        spoil.unlink(lambda d: d.preinst / CERTIFICATE),
        "files",
        "SlpClient.pem cannot be found",
        advises=f"{OWN_FILES}both there",
    ),
    SetUp(
        "certificate garbage",
        lambda d: (d.preinst / CERTIFICATE).write_text("garbage", "utf-8"),
        "files",
        "SlpClient.pem holds no certificate",
        advises=f"{OWN_FILES}.*PEM form",
    ),
    SetUp(
        "foreign key",
        spoil.copy(KEY),
        "files",
        "SlpClient-key.pem is not the key of the certificate",
        advises=f"{OWN_FILES}.*made for each other",
    ),
    SetUp(
        "other pass phrase",
        spoil.other_passphrase,
        "files",
        "does not open with the pass phrase of this build",
        advises=f"{OWN_FILES}.*pass phrase of this build",
    ),
    SetUp(
        "foreign certificate",
        spoil.foreign_certificate,
        "files",
        "is not the key of the certificate in .*/SlpClient.pem",
        advises=f"{OWN_FILES}.*made for each other",
    ),
    SetUp(
        "wrong owner",
        spoil.wrong_owner,
        "files",
        "SlpClient.pem belongs to user 65534 .*cannot read",
        needs_ids=True,
        advises=f"{OWN_FILES}.*owned by root",
    ),
    SetUp(
        "authority missing",
        spoil.unlink(lambda d: d.preinst / AUTHORITY),
        "files",
        "Positioning_CA.pem cannot be found",
        advises="Check Positioning_CA.pem: there",
    ),
    SetUp(
        "authority wrong",
        spoil.copy(AUTHORITY),
        "tls",
        "self-signed .*Positioning_CA.pem is not the authority",
        advises=f"{NOT_TRUSTED}.*authority other than Positioning_CA.pem",
    ),
    SetUp(
        "damaged behind the certificate",
        spoil.damaged_block(CERTIFICATE),
        "files",
        "is damaged behind 1 good",
        advises=OWN_FILES,
    ),
    SetUp(
        "damaged behind the authority",
        spoil.damaged_block(AUTHORITY),
        "files",
        "is damaged behind 1 good",
        advises="Check Positioning_CA.pem",
    ),
    # the server's certificate
    SetUp(
        "server expired",
        spoil.certificate("expired"),
        "tls",
        "server's certificate .*has expired",
        advises=f"{NOT_TRUSTED}.*has expired",
    ),
    SetUp(
        "server not yet valid",
        spoil.certificate("not-yet-valid"),
        "tls",
        "server's certificate .*not yet valid",
        advises=f"{NOT_TRUSTED}.*not yet valid",
    ),
    SetUp(
        "wrong host",
        spoil.certificate("wrong-host"),
        "tls",
        "another host name: elsewhere.kelvra.example",
        advises=f"{NOT_TRUSTED}.*names another host",
    ),
    SetUp(
        "self-signed",
        spoil.certificate("self-signed"),
        "tls",
        "self-signed certificate",
        advises=f"{NOT_TRUSTED}.*self-signed",
    ),
    SetUp(
        "unknown authority",
        spoil.certificate("unknown-ca"),
        "tls",
        "signed by .*Throw-away other authority",
        advises=f"{NOT_TRUSTED}.*authority other than",
    ),
    # the way
    SetUp(
        "identity refused",
        spoil.refused_identity,
        "tls",
        "refuses the device's certificate.*unknown CA",
        advises=BROKE_OFF,
    ),
    SetUp(
        "reset",
        spoil.default(on=[{"at": "client-hello", "do": "reset"}]),
        "tls",
        "handshake broke off.*reset",
        advises="the server or something on the way to it broke off",
    ),
    SetUp(
        "proxy wants a password",
        spoil.default(proxy={"status": 407}),
        "connection",
        "name and a password",
        advises="the proxy refuses .407 asks for a name and a password",
    ),
    SetUp(
        "proxy refuses",
        spoil.default(proxy={"status": 403}),
        "connection",
        "refuses to connect to .* 403",
        advises="the proxy refuses",
    ),
    SetUp(
        "proxy silent",
        spoil.default(on=[{"at": "connect", "do": "hang"}]),
        "connection",
        "says nothing for",
        patience=1,
        advises="30 seconds for the connection.*the proxy is silent",
        overdue=("connect", 30),
    ),
    SetUp(
        "proxy wrong",
        spoil.default(proxy={"raw": "220 mail ready\r\n\r\n"}),
        "connection",
        "does not answer like a proxy",
        advises="proxy .* is no HTTP proxy",
    ),
    SetUp(
        "proxy never ends its head",
        spoil.default(proxy={"raw": "HTTP/1.1 200 OK\r\nVia: x\r\n"}, on=[{"at": "tunnel", "do": "hang"}]),
        "connection",
        "says 200 and does not come to the end of its answer",
        patience=1,
        advises="30 seconds for the connection",
        overdue=("connect", 30),
    ),
    SetUp(
        "proxy wants a password and goes on",
        spoil.default(
            proxy={"raw": "HTTP/1.1 407 No\r\nContent-Length: 1000\r\n\r\nx"}, on=[{"at": "tunnel", "do": "hang"}]
        ),
        "connection",
        "name and a password",
        patience=1,
        advises="30 seconds for the connection",
        overdue=("connect", 30),
    ),
    SetUp(
        "no certificate asked for",
        spoil.default(client_certificate="none", on=[{"at": "handshake", "do": "close"}]),
        "tls",
        "ends the connection after the handshake.* had not asked for the device's certificate",
        advises="closed the connection without an answer.*orvexctl doctor",
    ),
    SetUp(
        "port closed",
        spoil.closed_port,
        "connection",
        "nothing listens on that port",
        advises="Nobody accepts connections.*port is closed",
    ),
    # the server's answer
    SetUp(
        "404",
        spoil.answer(404),
        "exchange",
        "404 Not Found.*<html>no</html>.*path",
        exchange=True,
        advises=f"404.*{ASK_DOCTOR}",
        status=28,
    ),
    SetUp(
        "413",
        spoil.answer(413),
        "exchange",
        " 413 .*smaller requests",
        exchange=True,
        advises=f"413.*{ASK_DOCTOR}",
        status=28,
    ),
    SetUp(
        "502",
        spoil.answer(502),
        "exchange",
        "502 Bad Gateway.*server behind it",
        exchange=True,
        advises=f"502.*{ASK_DOCTOR}",
        status=28,
    ),
    SetUp(
        "HTML",
        spoil.answer(200),
        "exchange",
        "200 OK.*text/html.*Something else than a positioning",
        exchange=True,
        advises=f"error page.*{ASK_DOCTOR}",
        status=28,
    ),
    SetUp(
        "certificate refused in HTTP",
        spoil.answer(400, "<title>400 The SSL certificate error</title>"),
        "exchange",
        "400 Bad Request.*does not take the device's certificate",
        exchange=True,
        advises=f"error page.*{ASK_DOCTOR}",
        status=28,
    ),
    SetUp(
        "status of the document",
        spoil.default(answer={"multipart": {"status": "unknownDevice"}}),
        "exchange",
        "A positioning server answers.* SLP document is refused",
        exchange=True,
        advises=f"does not understand.*{ASK_DOCTOR}",
        status=28,
    ),
    SetUp(
        "over 60 s",
        spoil.default(on=[{"at": "upload-end", "do": "hang"}]),
        "exchange",
        "not answered completely within 1 s. The daemon gives up after 60 s",
        exchange=True,
        patience=1,
        advises="60 seconds for all of the exchange",
        overdue=("upload-end", 60),
    ),
    # the device
    SetUp(
        "wrong identity variable",
        spoil.identity(KELVRA_IMEI_FRAGMENT=""),
        "identity",
        "Missing .*KELVRA_IMEI_FRAGMENT",
        advises="all five KELVRA_ variables.*have a value",
        status=3,
    ),
    SetUp(
        "identity of the example",
        spoil.identity(KELVRA_UNIQUE_DEVICE_ID="00000000-0000-0000-0000-000000000000"),
        "identity",
        "packaged example's",
    ),
    SetUp(
        "identity is no UTF-8",
        spoil.latin_1,
        "identity",
        "refuses .*no UTF-8 in the line KELVRA_DEVICE_MANUFACTURER",
        needs_systemd=True,
    ),
    SetUp(
        "comment swallows a variable",
        spoil.comment_that_swallows,
        "identity",
        "Missing .*: KELVRA_",
        needs_systemd=True,
    ),
    SetUp(
        "IMEI of the example",
        lambda d: d.platform.write(system={**SYSTEM, "Imei": "490154203237518"}),
        "platform",
        "Imei is the example's, .* comes from this file, not from the five variables",
    ),
    SetUp(
        "platform file missing",
        spoil.unlink(lambda d: d.platform.path),
        "platform",
        "platform.conf cannot be found",
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform file is none",
        spoil.platform(r"\[Location\]", "[Location"),
        "platform",
        "is no key file",
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform: truth",
        spoil.platform("Active=true", "Active=maybe"),
        "platform",
        "line 1[0-9]: Active=maybe is not",
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform: number",
        spoil.platform("Kind=1", "Kind=wifi"),
        "platform",
        "line 1[0-9]: Kind=wifi is not",
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform: port",
        spoil.platform("Port=[0-9]+", "Port=70000"),
        "platform",
        "Port=70000 is no port",
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform: name",
        spoil.platform("List=c0;", "List=wifi0;"),
        "platform",
        r'"wifi0", but there is no \[Connection',
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform: key",
        spoil.platform("Active=true", "Activ=true"),
        "platform",
        "Activ=true is no key",
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "platform file's owner",
        spoil.platform_of_a_stranger,
        "platform",
        "belongs to user 65534",
        needs_ids=True,
        advises=FAULTY_PLATFORM,
    ),
    SetUp(
        "no network",
        lambda d: d.platform.write(connections=[]),
        "status",
        "not connected",
        advises=f"{NO_NETWORK}.*bring up a network",
    ),
    SetUp(
        "clock wrong",
        lambda d: d.clock.step_to(wall=10 * YEAR),
        "dates",
        "the clock is wrong",
        advises=f"{NOT_TRUSTED}.*device's clock is wrong",
    ),
]
