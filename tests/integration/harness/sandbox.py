#!/usr/bin/python3
"""Runs a program as the shipped unit confines it, as far as that is possible without systemd.

usage: sandbox.py [--filter-system-calls] PROGRAM [ARGUMENT ...]

No capability, none to be had any more, no new privileges; with the option also the unit's system-call
filter, with the same answer to a call that is left out.
"""

import errno
import os
import subprocess
import sys

ALLOWED = ["@system-service"]
DENIED = ["@privileged", "@resources"]
NO_CAPABILITIES = ["--bounding-set=-all", "--inh-caps=-all", "--no-new-privs"]


def system_calls(name):
    """The names of the calls in a systemd set, sets within it included."""
    listing = subprocess.run(
        ["systemd-analyze", "syscall-filter", name], capture_output=True, text=True, check=True
    ).stdout
    calls = set()
    for line in listing.splitlines()[1:]:
        word = line.strip()
        if word.startswith("@"):
            calls |= system_calls(word)
        elif word and not word.startswith("#"):
            calls.add(word)
    return calls


def filter_system_calls():
    import seccomp  # pylint: disable=import-outside-toplevel

    allowed = set().union(*map(system_calls, ALLOWED)) - set().union(*map(system_calls, DENIED))
    rules = seccomp.SyscallFilter(defaction=seccomp.ERRNO(errno.EPERM))
    for name in sorted(allowed):
        try:
            rules.add_rule(seccomp.ALLOW, name)
        except (RuntimeError, ValueError):
            pass  # a call that this kernel's headers do not know cannot be made either
    rules.load()


def main():
    arguments = sys.argv[1:]
    if arguments[0] == "--confined":
        filter_system_calls()
        os.execv(arguments[1], arguments[1:])
    if arguments[0] == "--filter-system-calls":
        arguments[:1] = [sys.executable, __file__, "--confined"]
    os.execvp("setpriv", ["setpriv", *NO_CAPABILITIES, *arguments])


if __name__ == "__main__":
    main()
