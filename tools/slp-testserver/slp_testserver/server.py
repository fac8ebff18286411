"""Listens, gives each connection a thread, and ends them all when told to."""

import collections
import socket
import sys
import threading
import time

from . import wire
from .connection import Connection
from .record import Events, Recorder
from .script import Behaviour, read_behaviours
from .tls import Keys

STOP_SECONDS = 5


class Queue:
    """The behaviours to come, and the one for when there are none."""

    def __init__(self):
        self._lock = threading.Lock()
        self._behaviours = collections.deque()
        self._default = Behaviour({})

    def add(self, values):
        """Appends one behaviour or a list of them; the number that wait now."""
        behaviours = read_behaviours(values)
        with self._lock:
            self._behaviours.extend(behaviours)
            return len(self._behaviours)

    def set_default(self, values):
        default = Behaviour(values)
        with self._lock:
            self._default = default

    def clear(self):
        with self._lock:
            self._behaviours.clear()

    def take(self):
        with self._lock:
            return self._behaviours.popleft() if self._behaviours else self._default

    def __len__(self):
        with self._lock:
            return len(self._behaviours)


class Server:
    """The positioning server and proxy behind one port."""

    def __init__(self, options):
        self.keys = Keys(options.keys)
        self.client_certificate = options.client_certificate
        self.queue = Queue()
        self.recorder = Recorder(options.keep, options.keep_bytes, options.record)
        self.events = Events()
        self.stopping = False
        self._logs = options.log
        self._lock = threading.Lock()
        self._connections = {}
        self._accepted = 0
        self._listener = socket.create_server((options.host, options.port), backlog=512)
        # A wrong directory shall be told now, not at the first handshake.
        self.keys.context("server", self.client_certificate, (), None)

    @property
    def port(self):
        return self._listener.getsockname()[1]

    @property
    def open_connections(self):
        with self._lock:
            return len(self._connections)

    def start(self):
        threading.Thread(target=self._accept, name="accept", daemon=True).start()

    def stop(self):
        """Ends every connection and waits for their threads."""
        self.stopping = True
        wire.interrupt(self._listener)
        self.events.stop()
        self.recorder.stop()
        with self._lock:
            connections = list(self._connections.items())
        for connection, _ in connections:
            connection.interrupt()
        deadline = time.monotonic() + STOP_SECONDS
        for _, thread in connections:
            thread.join(max(0, deadline - time.monotonic()))
        wire.close_quietly(self._listener)

    def log(self, text):
        if self._logs:
            print(text, file=sys.stderr, flush=True)

    def _accept(self):
        while not self.stopping:
            try:
                sock, _ = self._listener.accept()
            except OSError:
                if self.stopping:
                    return
                time.sleep(0.01)  # out of file descriptors: some will come back
                continue
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._begin(sock)

    def _begin(self, sock):
        self._accepted += 1
        connection = Connection(self, sock, self._accepted)
        thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
        with self._lock:
            self._connections[connection] = thread
        thread.start()

    def _serve(self, connection):
        try:
            connection.serve()
        finally:
            with self._lock:
                del self._connections[connection]
