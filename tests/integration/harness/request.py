"""One request of one client, from connect to its end."""

from .client import RESPONSE_COMPLETE, BusError


class Request:
    """Opens a connection (unless given one) and creates a request on it: prepared, or attached."""

    def __init__(self, client, attached=False, connection=None, policy=2, **parameters):
        self.client = client
        self.connection = client.connect(**parameters) if connection is None else connection
        create = client.attach if attached else client.prepare
        self.id = create(self.connection, policy)
        self.key = f"{self.connection}:{self.id}"

    def wait_until_asked(self, seconds=10):
        """Waits until the daemon asks for this request's data."""
        self.client.wait_for_request_data(self.connection, self.id, seconds)
        return self

    def send(self, data, last=True):
        """Gives data: the result is 0 or the number of the refusal."""
        return self.client.sendData(self.connection, self.id, data, last)

    def give(self, *pieces):
        """Waits until asked and gives these data, the last of them as the last."""
        self.wait_until_asked()
        for number, piece in enumerate(pieces, 1):
            assert self.send(piece, number == len(pieces)) == 0
        return self

    def ask(self):
        """Asks for the next chunk and does not wait: a PendingCall."""
        return self.client.getData(self.connection, self.id)

    def ask_error(self):
        """The number with which the daemon refuses to give the next chunk."""
        try:
            self.ask().wait()
        except BusError as error:
            return error.code
        raise AssertionError(f"{self.key}: getData was answered")

    def fetch(self):
        """The parts of the whole answer."""
        return self.client.fetch(self.connection, self.id)

    def fetch_part(self):
        """One part of the answer, and the code that ended it."""
        return self.client.fetch_part(self.connection, self.id)

    def fetch_chunks(self):
        """The whole answer, chunk by chunk as it was delivered."""
        chunks = []
        while not chunks or chunks[-1].code != RESPONSE_COMPLETE:
            chunks.append(self.ask().wait())
        return chunks

    def cancel(self):
        self.client.cancel(self.connection, self.id)

    def wait_for_failure(self, seconds=10):
        """Waits for the errorSignal that names this request alone: its code and its text."""
        code, text, keys = self.client.wait_for_signal("errorSignal", seconds=seconds)
        assert keys == self.key
        return code, text


def errors(client):
    """The errorSignals that have come and that nobody has taken."""
    return [signal.arguments for signal in client.signals if signal.name == "errorSignal"]


def expect_no_error(client):
    """No errorSignal is left, none is under way, and the daemon serves a further exchange."""
    assert client.exchange(b"are you there?", kind="other") == [b"are you there?"]
    assert errors(client) == []
