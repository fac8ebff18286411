"""Whether anybody opens a file, or connects to an address."""

import ctypes
import os
import socket

_libc = ctypes.CDLL(None, use_errno=True)
_IN_OPEN = 0x20


class FileWatch:
    """Notices every opening of a file, from construction to close()."""

    def __init__(self, path):
        self._watch = _libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        number = _libc.inotify_add_watch(self._watch, os.fsencode(path), _IN_OPEN)
        assert number >= 0, os.strerror(ctypes.get_errno())

    def was_opened(self):
        try:
            return len(os.read(self._watch, 4096)) > 0
        except BlockingIOError:
            return False

    def close(self):
        os.close(self._watch)


class AddressWatch:
    """Notices every connection to a port of its own."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.setblocking(False)
        self.port = self._listener.getsockname()[1]

    def was_visited(self):
        try:
            self._listener.accept()[0].close()
            return True
        except BlockingIOError:
            return False

    def close(self):
        self._listener.close()
