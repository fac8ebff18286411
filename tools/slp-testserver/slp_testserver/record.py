"""What the server saw and did, one record per exchange, and the events that scripts wait for."""

import json
import os
import threading
import time


class Exchange:
    """The record of one exchange. Its connection's thread fills it in; others read snapshots."""

    def __init__(self, recorder, number, connection):
        self._recorder = recorder
        self._begun = time.monotonic()
        self._body_file = None
        self.number = number
        self.connection = connection
        self.label = None
        self.proxy = None
        self.tls = None
        self.request = None
        self.chunks = []
        self.body = bytearray()
        self.body_bytes = 0
        self.upload_complete = False
        self.parts = []
        self.slp = None
        self.findings = []
        self.milestones = []
        self.answer = {"status": None, "bytes": 0, "chunks": 0, "parts": []}
        self.outcome = None
        self.error = None
        self.seconds = None

    def reach(self, point):
        """Notes that the exchange has come to `point` and wakes who waits for that."""
        with self._recorder.changed:
            self.milestones.append(point)
            self._recorder.changed.notify_all()

    def keep_body(self, data):
        """Takes the next bytes of the request body."""
        self.body_bytes += len(data)
        room = self._recorder.keep_bytes - len(self.body)
        if room > 0:
            self.body += data[:room]
        if self._recorder.directory:
            if self._body_file is None:
                self._body_file = open(self._path("body"), "wb")
            self._body_file.write(data)

    def finish(self, outcome, error=None):
        """Closes the record; only the first call counts."""
        if self.outcome is not None:
            return
        self.seconds = round(time.monotonic() - self._begun, 6)
        self.error = error
        with self._recorder.changed:
            self.outcome = outcome
            self._recorder.changed.notify_all()
        self._write_files()

    def snapshot(self):
        """The record as it is now, ready for JSON."""
        return {
            "number": self.number,
            "connection": self.connection,
            "label": self.label,
            "proxy": self.proxy,
            "tls": self.tls,
            "request": self.request,
            "chunks": list(self.chunks),
            "body_bytes": self.body_bytes,
            "body_kept": len(self.body),
            "upload_complete": self.upload_complete,
            "parts": [
                {
                    "headers": part.headers,
                    "bytes": part.size,
                    "sha256": part.sha256,
                    "complete": part.complete,
                }
                for part in list(self.parts)
            ],
            "slp": self.slp,
            "findings": list(self.findings),
            "milestones": list(self.milestones),
            "answer": dict(self.answer),
            "outcome": self.outcome,
            "error": self.error,
            "seconds": self.seconds,
        }

    def _path(self, suffix):
        return os.path.join(self._recorder.directory, f"exchange-{self.number:05}.{suffix}")

    def _write_files(self):
        if self._body_file:
            self._body_file.close()
        if self._recorder.directory:
            with open(self._path("json"), "w", encoding="utf-8") as file:
                json.dump(self.snapshot(), file, indent=1)


class Recorder:
    """All exchanges, the newest `keep` of them in memory."""

    def __init__(self, keep, keep_bytes, directory):
        self.changed = threading.Condition()
        self.keep_bytes = keep_bytes
        self.directory = directory
        self.stopped = False
        self._keep = keep
        self._exchanges = {}
        self._last = 0
        if directory:
            os.makedirs(directory, exist_ok=True)

    def begin(self, connection):
        with self.changed:
            self._last += 1
            exchange = Exchange(self, self._last, connection)
            self._exchanges[self._last] = exchange
            if len(self._exchanges) > self._keep:
                del self._exchanges[next(iter(self._exchanges))]
            self.changed.notify_all()
        return exchange

    @property
    def last(self):
        """The number of the newest exchange; 0 when there was none."""
        return self._last

    def find(self, number):
        with self.changed:
            return self._exchanges.get(number)

    def since(self, number):
        """The records after `number`, oldest first."""
        with self.changed:
            return [exchange for key, exchange in self._exchanges.items() if key > number]

    def wait_for(self, number, point, seconds):
        """Waits until exchange `number` is at `point` (None: finished); None when time is over."""

        def there():
            exchange = self._exchanges.get(number)
            if exchange is None:
                return self.stopped
            return exchange.outcome is not None or (point and point in exchange.milestones)

        with self.changed:
            self.changed.wait_for(lambda: self.stopped or there(), seconds)
            return self._exchanges.get(number) if there() else None

    def stop(self):
        with self.changed:
            self.stopped = True
            self.changed.notify_all()


class Events:
    """Named counters: a script's `wait` takes one, the control channel gives them."""

    def __init__(self):
        self._changed = threading.Condition()
        self._given = {}
        self._forgotten = 0
        self._stopped = False

    def give(self, name, count=1):
        with self._changed:
            self._given[name] = self._given.get(name, 0) + count
            self._changed.notify_all()

    def forget(self):
        """Takes back what was given and nobody has taken, and ends the scripts that wait."""
        with self._changed:
            self._given.clear()
            self._forgotten += 1
            self._changed.notify_all()

    def take(self, name):
        """Blocks until one is there; False when the script is to end instead."""
        with self._changed:
            before = self._forgotten

            def ended():
                return self._stopped or self._forgotten != before

            self._changed.wait_for(lambda: ended() or self._given.get(name))
            if ended():
                return False
            self._given[name] -= 1
            return True

    def sleep(self, seconds):
        """A pause that ends early when the server stops."""
        with self._changed:
            self._changed.wait_for(lambda: self._stopped, seconds)

    def stop(self):
        with self._changed:
            self._stopped = True
            self._changed.notify_all()
