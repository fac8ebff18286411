"""The command line."""

import argparse
import json
import os
import signal
import sys

from . import checker, control, script
from .server import Server

DESCRIPTION = """\
A positioning server for tests, demos and client developers. It takes SLP requests over HTTPS
with a client certificate, checks them, answers each request element, and keeps a record of what
it received. On the same port it is an HTTP proxy: after CONNECT it speaks TLS itself, as
whatever host was named, so a client whose server address is fixed reaches it through its proxy
setting.
"""

EPILOG = """\
When it is ready it prints one line of JSON on its standard output:
  {"port": 40001, "control": 40002, "pid": 4711}
It ends with status 0 on SIGTERM or SIGINT.

Without a script it gives the ordinary answer to everything. --help-script tells how to make it
do anything else, --help-control what the control port understands. An example:

  slp-testserver --keys build/test-keys --control 4444 &
  curl -d '{"on": [{"at": "upload", "bytes": 1000, "do": "reset"}]}' localhost:4444/behaviours
  ... one exchange, which is reset in the middle of its upload ...
  curl localhost:4444/exchanges
"""


def main(arguments=None):
    """Runs the server until SIGTERM or SIGINT; the exit status."""
    if checker.is_wanted(arguments):
        return checker.main(arguments)
    options = _parser().parse_args(arguments)
    wanted = {signal.SIGTERM, signal.SIGINT}
    # Blocked before any thread exists, so that sigwait alone receives them.
    signal.pthread_sigmask(signal.SIG_BLOCK, wanted)
    try:
        server = Server(options)
        _load_script(server, options.script)
        controls = control.Control(server, options.host, options.control)
    except (OSError, ValueError) as error:
        print(f"slp-testserver: {error}", file=sys.stderr)
        return 1
    server.start()
    controls.start()
    ready = {"port": server.port, "control": controls.port, "pid": os.getpid()}
    print(json.dumps(ready), flush=True)
    signal.sigwait(wanted)
    server.stop()
    controls.stop()
    return 0


def _load_script(server, path):
    if path is None:
        return
    with open(path, encoding="utf-8") as file:
        values = json.load(file)
    if isinstance(values, dict) and set(values) <= {"default", "queue"}:
        server.queue.set_default(values.get("default", {}))
        server.queue.add(values.get("queue", []))
    else:
        server.queue.add(values)


def _parser():
    parser = argparse.ArgumentParser(
        prog="slp-testserver",
        description=DESCRIPTION,
        epilog=EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    add = parser.add_argument
    add("--keys", required=True, metavar="DIR", help="directory made by scripts/make-test-keys")
    add("--host", default="127.0.0.1", help="address to listen on (default %(default)s)")
    add("--port", type=int, default=0, help="TLS and proxy port (default 0: a free one)")
    add("--control", type=int, default=0, metavar="PORT", help="control port (default 0: free)")
    add(
        "--client-certificate",
        choices=("require", "optional", "none"),
        default="require",
        help="whether the client must show a certificate (default %(default)s)",
    )
    add(
        "--script",
        metavar="FILE",
        help='behaviours as JSON: one, a list, or {"default": ..., "queue": [...]}',
    )
    add("--record", metavar="DIR", help="also write each exchange into DIR: record and body")
    add(
        "--keep", type=int, default=1000, metavar="N", help="records in memory (default %(default)s)"
    )
    add(
        "--keep-bytes",
        type=int,
        default=1 << 20,
        metavar="N",
        help="bytes of each request body in memory (default %(default)s)",
    )
    add("--log", action="store_true", help="one line for each exchange on the standard error")
    add(
        "--check-answer",
        metavar="FILE",
        help="do not serve: say what the daemon makes of a recorded answer (--check-answer --help)",
    )
    add("--help-script", action=_Print, text=script.__doc__, help="tell about behaviours and end")
    add("--help-control", action=_Print, text=control.__doc__, help="tell about the control port")
    return parser


class _Print(argparse.Action):
    """Prints a text and ends, like --help."""

    def __init__(self, option_strings, dest, text, help):  # pylint: disable=redefined-builtin
        super().__init__(option_strings, dest, nargs=0, help=help)
        self._text = text

    def __call__(self, parser, namespace, values, option_string=None):
        print(self._text)
        parser.exit()
