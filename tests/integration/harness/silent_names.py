#!/usr/bin/python3
"""Runs a program whose only name server never answers, however patiently it is asked.

usage: unshare --user --map-root-user --mount --net silent_names.py DIRECTORY PROGRAM [ARGUMENT ...]

The namespaces keep the machine's own resolver files and its port 53 out of it; sockets in the file system, such
as a bus, are as reachable as ever. DIRECTORY takes the resolver files that the program sees.
"""

import fcntl
import os
import pathlib
import socket
import struct
import subprocess
import sys

FILES = {
    # Five times half a minute, which the C library allows at the most.
    "resolv.conf": "nameserver 127.0.0.1\noptions timeout:30 attempts:5\n",
    "nsswitch.conf": "hosts: dns\n",
}
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1  # linux/sockios.h, net/if.h


def wrapped(directory, program):
    """The command that runs a program in this way."""
    unshare = ["unshare", "--user", "--map-root-user", "--mount", "--net"]
    return [*unshare, sys.executable, __file__, directory, *program]


def replace_files(directory):
    for name, text in FILES.items():
        path = directory / name
        path.write_text(text, "ascii")
        subprocess.run(["mount", "--bind", path, f"/etc/{name}"], check=True)


def bring_up_loopback(sock):
    request = fcntl.ioctl(sock, SIOCGIFFLAGS, struct.pack("16sh14x", b"lo", 0))
    name, flags = struct.unpack("16sh14x", request)
    fcntl.ioctl(sock, SIOCSIFFLAGS, struct.pack("16sh14x", name, flags | IFF_UP))


def listen_in_silence():
    """Takes every question and answers none; the program inherits the socket, so that it stays."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    bring_up_loopback(sock)
    sock.bind(("127.0.0.1", 53))
    os.set_inheritable(sock.detach(), True)


if __name__ == "__main__":
    replace_files(pathlib.Path(sys.argv[1]))
    listen_in_silence()
    os.execv(sys.argv[2], sys.argv[2:])
