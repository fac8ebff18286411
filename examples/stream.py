#!/usr/bin/python3
"""Sends what comes on standard input while it comes, and shows the answer while it comes.

    stream.py ELEMENT TYPE VERSION CONTENT-TYPE

Nothing of it is held in memory for longer than it takes to pass it on, in either direction. Ctrl-C and
SIGTERM take the request back. Progress goes to standard error.
"""

import signal
import sys

import gi

gi.require_version("Orvex", "1.0")
from gi.repository import Gio, GLib, Orvex  # noqa: E402

CHUNK = 64 * 1024


class Conversation:
    """One request, from its first byte to the last one of its answer."""

    def __init__(self, words):
        self.loop = GLib.MainLoop()
        self.stop = Gio.Cancellable()
        self.failure = None
        self.request = Orvex.Request.new(*words)
        self.request.connect("state-changed", self.on_state_changed)

    def run(self):
        """Returns why it failed, or None."""
        for number in (signal.SIGINT, signal.SIGTERM):
            GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, number, self.stop.cancel)
        Orvex.Client.new_async(None, self.stop, self.on_connected)
        self.loop.run()
        return self.failure

    def on_connected(self, _source, result):
        try:
            client = Orvex.Client.new_finish(result)
        except GLib.Error as error:
            return self.end(error)
        # It is read as far as there is something to read, and sent at once.
        question = Gio.UnixInputStream.new(sys.stdin.fileno(), False)
        client.send_async(self.request, question, GLib.PRIORITY_DEFAULT, self.stop, self.on_answer)
        return None

    def on_answer(self, client, result):
        """The answer begins, perhaps before the question has ended."""
        try:
            self.read(client.send_finish(result))
        except GLib.Error as error:
            self.end(error)

    def read(self, part):
        part.read_bytes_async(CHUNK, GLib.PRIORITY_DEFAULT, self.stop, self.on_bytes)

    def on_bytes(self, part, result):
        """Some bytes, or none at the end of a part."""
        try:
            data = part.read_bytes_finish(result).get_data()
            sys.stdout.buffer.write(data or b"")
            sys.stdout.flush()
        except (GLib.Error, OSError) as error:
            return self.end(error)
        if data:
            return self.read(part)
        return self.request.next_part_async(self.stop, self.on_next_part)

    def on_next_part(self, request, result):
        """Most answers have one part, and come here once."""
        try:
            part = request.next_part_finish(result)
        except GLib.Error as error:
            return self.end(error)
        return self.read(part) if part else self.end()

    def on_state_changed(self, request, state):
        """Says how far it is."""
        sent, received = request.get_bytes_sent(), request.get_bytes_received()
        print(f"{state.value_nick}: {sent} bytes sent, {received} received", file=sys.stderr)

    def end(self, failure=None):
        """With an error, its words, and those of the daemon."""
        if failure:
            self.failure = ": ".join(
                filter(None, (getattr(failure, "message", str(failure)), self.request.dup_error_detail()))
            )
        self.loop.quit()


def main():
    """The exit status."""
    if len(sys.argv) != 5:
        print("usage: stream.py ELEMENT TYPE VERSION CONTENT-TYPE", file=sys.stderr)
        return 2
    failure = Conversation(sys.argv[1:]).run()
    if failure:
        print(f"stream.py: {failure}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
