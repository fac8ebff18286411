"""A client that composes each message itself, and sees every message that reaches it.

GDBus insists on an interface in each call, hides answers that nobody waits for and may send two
calls in two writes; here the test decides about all of it.
"""

import itertools
import os
import select
import socket
import time

from gi.repository import Gio, GLib

from .settings import BUS_NAME, OBJECT_PATH, patience

_BUS = "org.freedesktop.DBus"
_PEER = "org.freedesktop.DBus.Peer"
_BUS_PATH = "/org/freedesktop/DBus"
_NO_CAPABILITIES = Gio.DBusCapabilityFlags.NONE
CALL = Gio.DBusMessageType.METHOD_CALL
RETURN = Gio.DBusMessageType.METHOD_RETURN
ERROR = Gio.DBusMessageType.ERROR
SIGNAL = Gio.DBusMessageType.SIGNAL


class RawClient:
    """One bus connection without a library behind it.

    `received` keeps what nobody has taken yet, `history` all that has ever arrived. With `descriptors`
    it may send file descriptors.
    """

    def __init__(self, address, descriptors=False):
        self.received = []
        self.history = []
        self._serials = itertools.count(1)
        self._data = b""
        path = address.removeprefix("unix:path=").partition(",")[0]
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.connect(path)
        self._authenticate(b"NEGOTIATE_UNIX_FD\r\n" if descriptors else b"")
        self.name = self.ask_bus("Hello").get_body().unpack()[0]
        self.signal("NameAcquired")

    def close(self):
        self._socket.close()

    # -- sending -------------------------------------------------------------------------------

    def compose(
        self,
        member,
        body=None,
        interface=BUS_NAME,
        path=OBJECT_PATH,
        destination=BUS_NAME,
        no_reply=False,
    ):
        """A method call with a serial of its own; `interface` may be None."""
        message = Gio.DBusMessage.new_method_call(destination, path, interface, member)
        if body is not None:
            message.set_body(body)
        if no_reply:
            message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        message.set_serial(next(self._serials))
        return message

    def compose_signal(self, member, body=None, interface=BUS_NAME, path=OBJECT_PATH):
        """A broadcast signal."""
        message = Gio.DBusMessage.new_signal(path, interface, member)
        if body is not None:
            message.set_body(body)
        message.set_serial(next(self._serials))
        return message

    def send(self, *messages):
        """Sends all of them in one write."""
        self.send_blobs(*(message.to_blob(_NO_CAPABILITIES) for message in messages))

    def send_blobs(self, *blobs):
        """Sends messages that are composed already, in one write."""
        self._socket.sendall(b"".join(blobs))

    def send_with_descriptors(self, message, *descriptors):
        """Sends one message and copies of these file descriptors."""
        copies = Gio.UnixFDList.new_from_array([os.dup(each) for each in descriptors])
        message.set_unix_fd_list(copies)
        blob = message.to_blob(Gio.DBusCapabilityFlags.UNIX_FD_PASSING)
        socket.send_fds(self._socket, [blob], descriptors)

    def send_front(self, message, size):
        """Sends the first bytes of a message only."""
        self._socket.sendall(message.to_blob(_NO_CAPABILITIES)[:size])

    def start(self, member, body=None, **where):
        """Sends a call and returns its serial."""
        message = self.compose(member, body, **where)
        self.send(message)
        return message.get_serial()

    def emit(self, member, body=None, **where):
        """Sends a signal and returns its serial."""
        message = self.compose_signal(member, body, **where)
        self.send(message)
        return message.get_serial()

    def call(self, member, body=None, seconds=10, **where):
        """Sends a call and waits for whatever answers it: a message."""
        return self.answer(self.start(member, body, **where), seconds)

    def ask_bus(self, member, body=None):
        """Calls a method of the bus itself."""
        return self.call(member, body, interface=_BUS, path=_BUS_PATH, destination=_BUS)

    def add_match(self, rule):
        assert not is_error(self.ask_bus("AddMatch", GLib.Variant("(s)", (rule,))))

    # -- receiving -----------------------------------------------------------------------------

    def answer(self, serial, seconds=10):
        """Waits for the answer of this call and takes it out of `received`."""
        message = self._await(lambda: self._find_answer(serial), seconds, f"answer to {serial}")
        self.received.remove(message)
        return message

    def has_answer(self, serial):
        """Whether the call is answered by what has arrived so far."""
        return self._find_answer(serial) is not None

    def signal(self, member, seconds=10):
        """Waits for a signal of this name and takes it out of `received`."""
        message = self._await(lambda: self._find_signal(member), seconds, f"signal {member}")
        self.received.remove(message)
        return message

    def signals(self, member):
        """The signals of this name among what has arrived."""
        return [m for m in self.received if is_signal(m, member)]

    def settle(self):
        """Returns when all that the daemon has decided to send so far is in `received`.

        A handler's posts run before the second of two calls that come one after the other.
        """
        for _ in range(2):
            assert not is_error(self.call("Ping", interface=_PEER))

    def settle_bus(self):
        """Returns when all that the bus has sent so far is in `received`."""
        assert not is_error(self.call("Ping", interface=_PEER, destination=_BUS))

    # -- for programs with a loop of their own -------------------------------------------------

    def fileno(self):
        return self._socket.fileno()

    def take_arrived(self):
        """Reads once, when there is something to read, and returns what nobody has taken yet."""
        data = self._socket.recv(1 << 20)
        if not data:
            raise AssertionError("the bus ended the connection")
        self._data += data
        self._take_messages()
        arrived, self.received = self.received, []
        self.history.clear()
        return arrived

    # -- the stream ----------------------------------------------------------------------------

    def _authenticate(self, negotiation):
        uid = str(os.getuid()).encode().hex().encode()
        self._socket.sendall(b"\0AUTH EXTERNAL %b\r\n%bBEGIN\r\n" % (uid, negotiation))
        deadline = time.monotonic() + patience(10)
        for wanted in (b"OK ", b"AGREE_UNIX_FD") if negotiation else (b"OK ",):
            while b"\r\n" not in self._data:
                self._receive(deadline, "the bus's answer to AUTH")
            line, _, self._data = self._data.partition(b"\r\n")
            assert line.startswith(wanted), line

    def _await(self, find, seconds, what):
        deadline = time.monotonic() + patience(seconds)
        while (found := find()) is None:
            self._receive(deadline, what)
            self._take_messages()
        return found

    def _receive(self, deadline, what):
        poll = select.poll()
        poll.register(self._socket, select.POLLIN)
        left = max(0, deadline - time.monotonic())
        if not poll.poll(left * 1000):
            raise AssertionError(f"no {what}; got {[describe(m) for m in self.received]}")
        data = self._socket.recv(1 << 20)
        if not data:
            raise AssertionError(f"the bus ended the connection; wanted {what}")
        self._data += data

    def _take_messages(self):
        # 16 bytes tell how long a message is.
        while len(self._data) >= 16:
            size = Gio.DBusMessage.bytes_needed(self._data[:16])
            if len(self._data) < size:
                return
            blob, self._data = self._data[:size], self._data[size:]
            message = Gio.DBusMessage.new_from_blob(blob, _NO_CAPABILITIES)
            self.received.append(message)
            self.history.append(message)

    def _find_answer(self, serial):
        return next(
            (
                m
                for m in self.received
                if m.get_message_type() in (RETURN, ERROR) and m.get_reply_serial() == serial
            ),
            None,
        )

    def _find_signal(self, member):
        return next(iter(self.signals(member)), None)


def is_error(message):
    return message.get_message_type() == ERROR


def is_signal(message, member):
    return message.get_message_type() == SIGNAL and message.get_member() == member


def values(message):
    """The arguments of a message; strings and numbers as Python knows them."""
    body = message.get_body()
    return body.unpack() if body is not None else ()


def describe(message):
    """One line about a message."""
    what = message.get_error_name() or message.get_member() or "return"
    return f"{what}{values(message)}"
