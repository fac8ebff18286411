"""Hands a recorded answer over to the daemon's own parser, in a program that is built with the daemon."""

import os
import pathlib
import sys

OPTION = "--check-answer"
PROGRAM = "slp-check-answer"
TOP = pathlib.Path(__file__).resolve().parents[3]


def is_wanted(arguments=None):
    """Whether the command line asks for this instead of a server."""
    return OPTION in (sys.argv[1:] if arguments is None else arguments)


def main(arguments=None):
    """Becomes that program, with all other arguments; the exit status if there is none."""
    words = [word for word in (sys.argv[1:] if arguments is None else arguments) if word != OPTION]
    program = _program()
    if program is None:
        print(f"slp-testserver: {PROGRAM} is not built: cmake --build --preset release", file=sys.stderr)
        return 2
    sys.stdout.flush()
    os.execv(program, [str(program), *words])
    return None


def _program():
    """The program of the build that the environment names, else of the one that was made last."""
    named = os.environ.get("ORVEXD_BUILD_DIR")
    builds = [pathlib.Path(named)] if named else TOP.glob("build/*")
    found = [build / "bin" / PROGRAM for build in builds]
    found = [program for program in found if os.access(program, os.X_OK)]
    return max(found, key=lambda program: program.stat().st_mtime, default=None)
