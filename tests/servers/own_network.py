"""A network of one's own: loopback, all ports free, and one name."""

import fcntl
import os
import socket
import struct
import subprocess
import sys
import tempfile

import pytest

_INSIDE = "ORVEXD_TESTS_IN_OWN_NETWORK"
_SIOCSIFFLAGS, _IFF_UP = 0x8914, 0x1
HOSTS = "127.0.0.1 localhost slp.kelvra.example\n"


def enter(config):
    """Starts pytest anew in name spaces of its own, and sets these up. For pytest_cmdline_main."""
    if os.geteuid() != 0:
        pytest.exit("the servers change their user id: only root can run these tests", 1)
    if not os.environ.get(_INSIDE):
        config.pluginmanager.getplugin("capturemanager").stop_global_capturing()
        os.environ[_INSIDE] = "1"
        command = ["unshare", "--net", "--mount", sys.executable, "-m", "pytest"]
        os.execvp(command[0], [*command, *config.invocation_params.args])
    with socket.socket() as any_socket:
        fcntl.ioctl(any_socket, _SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", _IFF_UP))
    with tempfile.NamedTemporaryFile("w", suffix=".hosts") as hosts:
        hosts.write(HOSTS)
        hosts.flush()
        os.chmod(hosts.name, 0o644)
        subprocess.run(["mount", "--bind", hosts.name, "/etc/hosts"], check=True)
