"""The client library as a Python program sees it, from the build under test."""

import gi

from .bus_connection import connect  # noqa: F401  pylint: disable=unused-import
from .settings import BUILD_DIR, ROOT  # noqa: F401  pylint: disable=unused-import

gi.require_version("GIRepository", "2.0")
# pylint: disable=wrong-import-position
from gi.repository import GIRepository  # noqa: E402

GIRepository.Repository.prepend_search_path(str(BUILD_DIR / "client"))
GIRepository.Repository.prepend_library_path(str(BUILD_DIR / "lib"))
gi.require_version("Orvex", "1.0")
from gi.repository import Orvex  # noqa: E402,F401  pylint: disable=unused-import

# pylint: disable=wrong-import-position,wrong-import-order
from gi.repository import Gio, GLib  # noqa: E402

from .waiting import wait_for  # noqa: E402

ECHO = ("echo", "other", "1", "text/plain")  # the test server sends its bytes back


def new_request(*words, **properties):
    """A request that is echoed, unless words say what it is."""
    request = Orvex.Request.new(*(words or ECHO))
    for name, value in properties.items():
        setattr(request.props, name, value)
    return request


def question_of(data):
    return Gio.MemoryInputStream.new_from_bytes(GLib.Bytes.new(data))


class Pending:
    """An operation that was started, and what became of it."""

    def __init__(self):
        self.value = None
        self.error = None
        self.done = False

    def take(self, finish):
        """For the callback: calls the operation's own ..._finish function."""
        try:
            self.value = finish()
        except GLib.Error as error:
            self.error = error
        self.done = True

    def wait(self, seconds=10):
        """Waits for the end with the main context running; returns the value or raises the error."""
        wait_for(lambda: self.done, seconds, "the end of an operation")
        if self.error:
            raise self.error
        return self.value

    def failure(self, seconds=10):
        """Waits for the end, which has to be an error; returns it."""
        wait_for(lambda: self.done, seconds, "the end of an operation")
        assert self.error is not None, self.value
        return self.error


def ask(client, data=b"question", request=None, cancellable=None):
    """Begins to ask."""
    pending = Pending()
    client.ask_async(
        request or new_request(),
        GLib.Bytes.new(data),
        cancellable,
        lambda source, result: pending.take(lambda: source.ask_finish(result).get_data() or b""),
    )
    return pending


def send(client, question=b"question", request=None, cancellable=None):
    """Begins to send; the question is bytes or a stream."""
    pending = Pending()
    stream = question_of(question) if isinstance(question, bytes) else question
    client.send_async(
        request or new_request(),
        stream,
        GLib.PRIORITY_DEFAULT,
        cancellable,
        lambda source, result: pending.take(lambda: source.send_finish(result)),
    )
    return pending


def read(stream, size=1 << 20, cancellable=None):
    """Begins to read."""
    pending = Pending()
    stream.read_bytes_async(
        size,
        GLib.PRIORITY_DEFAULT,
        cancellable,
        lambda source, result: pending.take(lambda: source.read_bytes_finish(result).get_data() or b""),
    )
    return pending


def next_part(request, cancellable=None):
    """Begins to go to the next part of the answer."""
    pending = Pending()
    request.next_part_async(
        cancellable, lambda source, result: pending.take(lambda: source.next_part_finish(result))
    )
    return pending


def read_all(stream):
    """The rest of a stream; blocks."""
    pieces = []
    while piece := stream.read_bytes(1 << 20, None).get_data():
        pieces.append(piece)
    return b"".join(pieces)


def is_cancelled(error):
    return error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED)


def matches(error, value):
    """Whether an error has this value of Orvex.Error."""
    return error.matches(Orvex.Error.quark(), value)
