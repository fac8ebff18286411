"""Ends of the daemon that rows of the fault matrix bring about, and what clients see of them."""

import signal

from . import observe
from .fault import Seen
from .waiting import dispatch_pending, wait_for

NO_REPLY = "org.freedesktop.DBus.Error.NoReply"


class Ending(Seen):
    """A way to ask the daemon to end, and what must be seen of it.

    Calls that are held are not answered: the bus tells their clients that nobody will. No signal comes.
    """

    name = ""

    def ask(self, scene):
        """Asks for the end and does not wait for it. A call of the first client's first request is held."""
        raise NotImplementedError

    def expect_blocked(self, scene):
        """The end waits for the exchange."""
        observe.wait_until_joining(scene.daemon.pid)
        assert scene.daemon.process.status is None

    def check(self, scene):
        scene.daemon.wait(30)
        for client in scene.clients:
            client.settle_bus()
            dispatch_pending()
            told = {"errorSignal", "requestData"} & {each.name for each in client.signals}
            assert not told, client.signals


class Quit(Ending):
    """The method "quit": it is answered when the exchange has ended."""

    name = "quit"

    def ask(self, scene):
        scene.daemon.expect_end()
        scene.quitting = scene.clients[0].call_later("quit")
        scene.clients[0].bus.flush_sync(None)

    def expect_blocked(self, scene):
        super().expect_blocked(scene)
        dispatch_pending()
        assert not scene.quitting.done

    def check(self, scene):
        assert scene.quitting.wait(30) == ()
        super().check(scene)


class Terminated(Ending):
    """SIGTERM."""

    name = "sigterm"

    def ask(self, scene):
        scene.daemon.send_signal(signal.SIGTERM)
        observe.poll_for(
            lambda: scene.daemon.process.status is not None
            or not observe.catches(scene.daemon.pid, signal.SIGTERM)
        )


class HeldCallEnds(Seen):
    """The bus, and not the daemon, ends the call that is held."""

    def check(self, scene):
        call = scene.held
        wait_for(lambda: call.done, 10, "the end of the held call")
        assert call.error is not None, call.answer
        assert call.error.name == NO_REPLY, call.error


QUIT, SIGTERM = Quit(), Terminated()
