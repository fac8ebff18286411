#!/usr/bin/python3
"""A small client of orvexd: sends one file to the positioning server and prints the answer.

    client.py FILE

Steps 1 to 6 are those of docs/client-guide.md. All that this client knows of the daemon's interface
is its description, com.kelvra.orvexd.xml.
"""

import pathlib
import signal
import sys

from gi.repository import Gio, GLib

# What a request of this client is. The daemon passes these on to the server unchecked.
ELEMENT_NAME = b"fingerprintRequest"
TYPE = b"fingerprint"  # the daemon waits 90 s for each piece, not 5 s
VERSION = b"1.0"
TRANSFER_ENCODING = b"binary"  # every other value changes line ends
CONTENT_TYPE = b"application/xml"

POLICY = 2  # any network connection that is not restricted
OPEN_DURATION = 0  # no wish
CHUNK_SIZE = 64 * 1024
PIECE_SIZE = 64 * 1024
PATIENCE = 180  # seconds: an exchange may have to wait for the one before it
REASON_PATIENCE = 2
NO_TIMEOUT = GLib.MAXINT

# What getData says about a chunk.
PART_CONTINUES, PART_COMPLETE, RESPONSE_COMPLETE = 2301, 2302, 2303

UNKNOWN_REQUEST = 41  # of sendData, and in the text of error replies

NAME = "com.kelvra.orvexd"
DESCRIPTIONS = (
    pathlib.Path(__file__).resolve().parents[3] / "data" / f"{NAME}.xml",
    pathlib.Path("/usr/share/dbus-1/interfaces") / f"{NAME}.xml",
)


class Failure(Exception):
    """What went wrong, in words."""


def byte_array(data):
    """A variant "ay"; built from a list it would take a Python object for each byte."""
    return GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(data), True)


def is_unknown_request(error):
    """The daemon's errors end with "(CODE) unspecifiedError"; only the number means something."""
    return f": ({UNKNOWN_REQUEST}) " in error.message


class ExampleClient:
    """One whole request, from connect to disconnect."""

    def __init__(self, question):
        self.question = question  # a binary file
        self.loop = GLib.MainLoop()
        self.stop = Gio.Cancellable()
        self.proxy = None
        self.connection = None
        self.request = None
        self.fetching = False  # a getData call is under way
        self.ended = False
        self.failure = None

    def run(self):
        """Sends the question and prints the answer; raises Failure."""
        # From here on they are handled by the main loop, so that the connection is closed in any case.
        for number in (signal.SIGINT, signal.SIGTERM):
            GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, number, self.on_interrupted)
        self.reach_daemon()
        try:
            self.open_connection()
            self.create_request()
            self.fetch_chunk()
            GLib.timeout_add_seconds(PATIENCE, self.on_out_of_patience)
            self.loop.run()
            while self.fetching:  # the cancelled call still has to come home
                GLib.MainContext.default().iteration(True)
        finally:
            self.close_connection()
        if self.failure:
            raise Failure(self.failure)

    def reach_daemon(self):
        """Step 1: a proxy, and ears for its signals before anything can cause one.

        The proxy must not load properties: the daemon does not answer GetAll.
        """
        description = next(path for path in DESCRIPTIONS if path.exists()).read_text("utf-8")
        interface = Gio.DBusNodeInfo.new_for_xml(description).lookup_interface(NAME)
        flags = Gio.DBusProxyFlags.DO_NOT_LOAD_PROPERTIES
        try:
            self.proxy = Gio.DBusProxy.new_for_bus_sync(
                Gio.BusType.SYSTEM, flags, interface, NAME, "/com/kelvra/orvexd", NAME, None
            )
        except GLib.Error as error:
            raise Failure(f"Cannot reach the daemon: {error.message}") from None
        self.proxy.connect("g-signal", self.on_signal)

    def open_connection(self):
        """Step 2: a connection holds what all its requests have in common."""
        texts = (ELEMENT_NAME, TYPE, VERSION, TRANSFER_ENCODING, CONTENT_TYPE)
        arguments = [byte_array(text) for text in texts]
        (self.connection,) = self.call("connect", *arguments, GLib.Variant("u", CHUNK_SIZE))

    def create_request(self):
        """Step 3: the request.

        The daemon may ask for its data before this reply is here; the signal then waits in the main
        loop, which does not run yet.
        """
        numbers = (self.connection, POLICY, OPEN_DURATION)
        (self.request,) = self.call("prepare", *(GLib.Variant("u", each) for each in numbers))

    def on_signal(self, _proxy, _sender, name, arguments):
        """Signals are broadcast: those of other clients' requests come, too."""
        if self.ended:
            return
        if name == "requestData" and arguments.unpack() == (self.connection, self.request):
            self.send_question()
        elif name == "errorSignal":
            self.look_for_own_request(*arguments.unpack())

    def send_question(self):
        """Step 4: the daemon is ready. Pieces of bounded size, each after the result of the one before."""
        last = False
        while not last:
            try:
                piece = self.question.read(PIECE_SIZE)
                last = len(piece) < PIECE_SIZE
                (result,) = self.call(
                    "sendData", byte_array(piece), GLib.Variant("b", last), *self.ids()
                )
            except (Failure, OSError) as failure:
                return self.end(str(failure))
            if result == UNKNOWN_REQUEST:
                return self.wait_for_reason()
            if result != 0:
                return self.end(f"sendData: the daemon answers {result}")
        return None

    def fetch_chunk(self):
        """Step 5: the answer.

        The daemon holds the call until there is something, which may take minutes, so the call has no
        time-out. There is one call at a time, from the beginning on: it also tells when the daemon
        leaves the bus.
        """
        self.fetching = True
        arguments = GLib.Variant.new_tuple(*self.ids())
        flags = Gio.DBusCallFlags.NONE
        self.proxy.call("getData", arguments, flags, NO_TIMEOUT, self.stop, self.on_chunk)

    def on_chunk(self, proxy, result):
        """A chunk may be empty; only its code says whether there is more."""
        self.fetching = False
        try:
            reply = proxy.call_finish(result)
        except GLib.Error as error:
            if is_unknown_request(error):
                self.wait_for_reason()
            elif not error.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CANCELLED):
                self.end(f"getData: {error.message}")
            return
        if self.ended:
            return
        try:
            sys.stdout.buffer.write(reply.get_child_value(0).get_data_as_bytes().get_data() or b"")
            sys.stdout.flush()
        except OSError as error:
            self.end(f"Cannot write the answer: {error}")
            return
        code = reply.get_child_value(1).get_uint32()
        if code in (PART_CONTINUES, PART_COMPLETE):  # after the latter the next part begins
            self.fetch_chunk()
        elif code == RESPONSE_COMPLETE:
            self.end()
        else:
            self.end(f"getData: unknown delivery code {code}")

    def look_for_own_request(self, code, message, requests):
        """Requests have failed. Is this one among them, its getData call will not be answered any more."""
        if f"{self.connection}:{self.request}" in requests.split():
            self.end(f"The request failed with code {code}: {message}")

    def close_connection(self):
        """Step 6. Always, also after an error.

        Nobody else tells the daemon that this client is gone, and its requests would stay.
        """
        if self.connection is None:
            return
        try:
            self.call("disconnect", GLib.Variant("u", self.connection))
        except Failure:
            pass  # the daemon is gone, and the connection with it

    def wait_for_reason(self):
        """The daemon has dropped the request. It removes a failed one a moment before it says why."""
        GLib.timeout_add_seconds(REASON_PATIENCE, self.on_no_reason)

    def on_no_reason(self):
        """The reason did not come."""
        self.end("The daemon does not know the request any more")
        return GLib.SOURCE_REMOVE

    def on_interrupted(self):
        """Ctrl-C, or a service manager."""
        self.end("Interrupted")
        return GLib.SOURCE_CONTINUE

    def on_out_of_patience(self):
        """A request that somebody else cancels ends in silence."""
        self.end("No answer in time")
        return GLib.SOURCE_REMOVE

    def end(self, failure=None):
        """The first call decides how it ends."""
        if self.ended:
            return
        self.ended = True
        self.failure = failure
        self.stop.cancel()
        self.loop.quit()

    def ids(self):
        """The two arguments that name the request."""
        return GLib.Variant("u", self.connection), GLib.Variant("u", self.request)

    def call(self, member, *arguments):
        """A call that the daemon answers at once: all but getData."""
        try:
            reply = self.proxy.call_sync(
                member, GLib.Variant.new_tuple(*arguments), Gio.DBusCallFlags.NONE, -1, None
            )
        except GLib.Error as error:
            raise Failure(f"{member}: {error.message}") from None
        return reply.unpack()


def main():
    """The exit status."""
    if len(sys.argv) != 2:
        print("usage: client.py FILE", file=sys.stderr)
        return 2
    try:
        with open(sys.argv[1], "rb") as question:
            ExampleClient(question).run()
    except (Failure, OSError) as failure:
        print(f"client.py: {failure}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
