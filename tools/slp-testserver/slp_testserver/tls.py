"""Server certificates and the TLS handshake."""

import functools
import os
import ssl

from .wire import PeerGone, peek, peer_errors

CERTIFICATES = ("server", "expired", "not-yet-valid", "wrong-host", "self-signed", "unknown-ca")
CLIENT_CERTIFICATE = {
    "require": ssl.CERT_REQUIRED,
    "optional": ssl.CERT_OPTIONAL,
    "none": ssl.CERT_NONE,
}
VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


class Keys:
    """The directory that scripts/make-test-keys fills, and contexts made from it."""

    def __init__(self, directory):
        self._directory = directory

    @functools.lru_cache(maxsize=64)
    def context(self, certificate, client_certificate, alpn, version):
        """A server context; contexts are shared by all connections that ask for the same."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        name = "server" if certificate == "server" else f"server-{certificate}"
        context.load_cert_chain(self._path(f"{name}.pem"), self._path("server-key.pem"))
        context.verify_mode = CLIENT_CERTIFICATE[client_certificate]
        if client_certificate != "none":
            context.load_verify_locations(self._path("Positioning_CA.pem"))
        if alpn:
            context.set_alpn_protocols(list(alpn))
        if version:
            context.minimum_version = context.maximum_version = VERSIONS[version]
        # Without tickets nothing travels that the script did not ask for.
        context.num_tickets = 0
        context.sni_callback = _remember_name
        return context

    def _path(self, name):
        return os.path.join(self._directory, name)


def _remember_name(sock, name, _context):
    sock.asked_name = name


def wait_for_client_hello(sock):
    """Returns when the whole first TLS record has arrived; nothing of it is taken."""
    header = peek(sock, 5)
    peek(sock, 5 + int.from_bytes(header[3:5], "big"))


def send_server_flight(context, sock, limit):
    """Answers the client's first record and sends at most `limit` bytes of that answer."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    handshake = context.wrap_bio(incoming, outgoing, server_side=True)
    while not outgoing.pending:
        with peer_errors(sock):
            data = sock.recv(65536)
        if not data:
            raise PeerGone("peer closed")
        incoming.write(data)
        try:
            handshake.do_handshake()
        except ssl.SSLWantReadError:
            pass
    with peer_errors(sock):
        sock.sendall(outgoing.read()[:limit])


def describe(sock):
    """What the handshake agreed on, as it goes into the record."""
    certificate = sock.getpeercert()
    subject = None
    if certificate:
        pairs = [pair for group in certificate["subject"] for pair in group]
        subject = ", ".join(f"{name}={value}" for name, value in pairs)
    return {
        "version": sock.version(),
        "cipher": sock.cipher()[0],
        "alpn": sock.selected_alpn_protocol(),
        "asked_name": getattr(sock, "asked_name", None),
        "client_subject": subject,
    }
