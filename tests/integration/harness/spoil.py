"""Ways to spoil a Device of faulty_device.py: each of these is, or makes, a function of one."""

import os
import socket
import subprocess

from .settings import PASSPHRASE

CERTIFICATE, KEY, AUTHORITY = "SlpClient.pem", "SlpClient-key.pem", "Positioning_CA.pem"
STRANGER_ID = 65534


def copy(name, source=None):
    return lambda d: (d.preinst / name).write_bytes((d.other_keys / (source or name)).read_bytes())


def foreign_certificate(device):
    """From the very authority, so that only the key is at fault."""
    (device.preinst / CERTIFICATE).write_bytes((device.keys / "server.pem").read_bytes())


def other_passphrase(device):
    """The right key, encrypted anew."""
    key = device.preinst / KEY
    phrases = ["-passin", f"pass:{PASSPHRASE}", "-passout", "pass:another8"]
    command = ["openssl", "pkey", "-in", key, "-aes256", *phrases]
    key.write_bytes(subprocess.run(command, check=True, capture_output=True).stdout)


def refused_identity(device):
    (device.preinst / CERTIFICATE).write_bytes((device.keys / "SlpClient-unknown-ca.pem").read_bytes())


def wrong_owner(device):
    path = device.preinst / CERTIFICATE
    path.chmod(0o600)
    os.chown(path, STRANGER_ID, STRANGER_ID)


def closed_port(device):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = listener.getsockname()[1]
    device.platform.write(proxy=("127.0.0.1", port))


def platform_of_a_stranger(device):
    device.platform.path.chmod(0o600)
    os.chown(device.platform.path, STRANGER_ID, STRANGER_ID)


def damaged_block(name):
    def spoil(device):
        with open(device.preinst / name, "a", encoding="ascii") as file:
            file.write("-----BEGIN CERTIFICATE-----\nZZZZ\n-----END CERTIFICATE-----\n")

    return spoil


def latin_1(device):
    device.identity.write_bytes(device.identity.read_bytes().replace(b"Kelvra", b"K\xe4lvra"))


def comment_that_swallows(device):
    device.identity.write_bytes(b"# of this device \\\n" + device.identity.read_bytes())


def unlink(path_of):
    return lambda device: path_of(device).unlink()


def default(**behaviour):
    return lambda device: device.server.default(behaviour)


def certificate(name):
    return default(certificate=name)


def answer(status, body="<html>no</html>"):
    return default(answer={"status": status, "content_type": "text/html", "body": body})


def platform(pattern, replacement):
    return lambda device: device.edit_platform(pattern, replacement)


def identity(**changes):
    return lambda device: device.write_identity(**changes)
