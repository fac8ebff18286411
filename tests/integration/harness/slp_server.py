"""The test positioning server as a child process, driven through its control port."""

import http.client
import json
import os

from .process import Process, read_line
from .settings import TEST_SERVER, patience


class TestServer:
    """Runs from construction to stop(). Behaviours are those of slp-testserver --help-script."""

    __test__ = False  # not a class of tests, whatever its name begins with

    def __init__(self, directory, keys, *options, host="127.0.0.1", control_host=None, prefix=()):
        """`prefix` runs the server somewhere else, where its control port is at `control_host`."""
        ready, write_end = os.pipe()
        try:
            self.process = Process(
                [*prefix, TEST_SERVER, "--keys", keys, "--host", host, "--log", *options],
                directory,
                "slp-testserver",
                stdout=write_end,
            )
        finally:
            os.close(write_end)
        try:
            ports = json.loads(read_line(ready, 20))
        except AssertionError:
            self.process.release()
            raise AssertionError(self.process.report()) from None
        finally:
            os.close(ready)
        self.port = ports["port"]
        self.control_port = ports["control"]
        self._control = http.client.HTTPConnection(control_host or host, self.control_port)

    # -- what it shall do ----------------------------------------------------------------------

    def queue(self, *behaviours):
        """Behaviours for the next connections."""
        self._ask("POST", "/behaviours", list(behaviours))

    def default(self, behaviour):
        """The behaviour when the queue is empty."""
        self._ask("PUT", "/default", behaviour)

    def clear(self):
        self._ask("DELETE", "/behaviours")

    def give(self, event, count=1):
        """Lets scripts that wait for `event` go on."""
        self._ask("POST", f"/events/{event}?count={count}")

    def forget_events(self):
        """Ends the connections whose scripts wait; events given in vain count no more."""
        self._ask("DELETE", "/events")

    # -- what it saw ---------------------------------------------------------------------------

    def status(self):
        return self._ask("GET", "/status")

    @property
    def last(self):
        """The number of the newest exchange; 0 before the first."""
        return self.status()["exchanges"]

    def exchanges(self, since=0):
        return self._ask("GET", f"/exchanges?since={since}")

    def exchange(self, number):
        return self._ask("GET", f"/exchanges/{number}")

    def wait(self, number, point=None, seconds=10):
        """The record of exchange `number` when it is over, or has come to `point`."""
        where = f"&point={point}" if point else ""
        path = f"/exchanges/{number}/wait?seconds={patience(seconds)}{where}"
        try:
            return self._ask("GET", path)
        except http.client.HTTPException as error:
            where = point or "its end"
            raise AssertionError(f"exchange {number} did not come to {where}: {error}") from error

    def body(self, number):
        """The request body of exchange `number`, as much of it as was kept."""
        return self._ask("GET", f"/exchanges/{number}/body")

    # -- its life ------------------------------------------------------------------------------

    def stop(self):
        self._control.close()
        status = self.process.stop()
        assert status == 0, self.process.report()

    def report(self):
        """The newest records, for a failed test."""
        text = self.process.report()
        if self.process.status is None:
            newest = self.exchanges(max(0, self.last - 3))
            text += json.dumps(newest, indent=1)
        return text

    def _ask(self, method, path, values=None):
        body = None if values is None else json.dumps(values)
        try:
            self._control.request(method, path, body)
            response = self._control.getresponse()
            data = response.read()
        except (OSError, http.client.HTTPException) as error:
            self._control.close()
            raise AssertionError(f"test server: {method} {path}: {error!r}") from error
        if response.status == 408:
            raise http.client.HTTPException("too late")
        assert response.status == 200, f"test server: {method} {path}: {data.decode()}"
        if response.headers["Content-Type"] == "application/json":
            return json.loads(data)
        return data
