"""Waits for things that happen on the default main context, always with a deadline."""

from gi.repository import GLib

from .settings import patience

# Called while waiting; each raises when what is waited for can no longer come.
guards = []


def wait_for(predicate, seconds=10, what=None):
    """Runs the main context until `predicate()` is true, and returns its value.

    It looks again only after an event of the main context: what changes elsewhere is for `observe.poll_for`.

    @raises AssertionError after `seconds` (scaled), or at once when a guard objects.
    """
    expired = []
    source = GLib.timeout_source_new(int(patience(seconds) * 1000))
    source.set_callback(lambda *_: expired.append(True))
    source.attach(GLib.MainContext.default())
    try:
        while not (value := predicate()):
            if expired:
                raise AssertionError(f"waited {patience(seconds)} s for {_name(predicate, what)}")
            for guard in guards:
                guard()
            GLib.MainContext.default().iteration(True)
        return value
    finally:
        source.destroy()


def dispatch_pending():
    """Handles what has already arrived, without waiting."""
    while GLib.MainContext.default().iteration(False):
        pass


def _name(predicate, what):
    return what() if callable(what) else what or getattr(predicate, "__qualname__", predicate)
