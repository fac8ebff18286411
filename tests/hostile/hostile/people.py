"""Users, and the processes that act for them: forked, so that they need no file that another user may not read."""

import ctypes
import json
import mmap
import os
import resource
import select
import signal
import sys
import traceback
from typing import Any, Callable, Optional

MEMBER_GROUP = "games"  # in the place of "positioning", which a machine may lack; always there
_MEMBER_GROUP_ID = 60
_ATTACKER, _HONEST = 65534, 1  # nobody and daemon: a bus asks for the names of its users
_MEMORY = 2 << 30  # address space of each process
_PR_SET_PDEATHSIG = 1


def has_other_users() -> bool:
    """Whether processes of other users can be made; not so in a user namespace."""
    pid = os.fork()
    if pid == 0:
        try:
            os.setgroups([_MEMBER_GROUP_ID])
            os.setresuid(_ATTACKER, _ATTACKER, _ATTACKER)
        except OSError:
            os._exit(1)
        os._exit(0)
    return os.waitpid(pid, 0)[1] == 0


class Users:
    """Two members of the group where that can be had, else root twice (None)."""

    def __init__(self):
        self.differ = has_other_users()
        self.attacker = _ATTACKER if self.differ else None
        self.honest = _HONEST if self.differ else None


class Tally:
    """Counters that the process which counts and this one share, and that outlive it."""

    NAMES = ("sent", "accepted", "refused", "limited", "failed", "answers", "bytes", "foreign", "rounds", "stop")

    def __init__(self):
        self._cells = memoryview(mmap.mmap(-1, mmap.PAGESIZE)).cast("Q")

    def add(self, name: str, count: int = 1) -> None:
        self._cells[self.NAMES.index(name)] += count

    def __getitem__(self, name: str) -> int:
        return self._cells[self.NAMES.index(name)]


class Person:
    """A process that runs one function; its result, or what it failed with, comes through a pipe."""

    def __init__(self, user: Optional[int], function: Callable, *arguments):
        self._result, end = os.pipe()
        sys.stdout.flush()
        self.pid = os.fork()
        if self.pid == 0:
            os.close(self._result)
            _live(user, end, function, arguments)
        os.close(end)
        self._answer: Optional[dict] = None
        self._ended = False

    def result(self) -> Optional[dict]:
        """{"value": ...} or {"error": ...} when it is done, None before."""
        return self.wait(0)

    def wait(self, seconds: float) -> Optional[dict]:
        """The same, after at most so many seconds."""
        if self._answer is None and not self._ended and select.select([self._result], [], [], seconds)[0]:
            text = b""
            while block := os.read(self._result, 65536):
                text += block
            self._answer = json.loads(text) if text else {"error": "ended without a word"}
        return self._answer

    @property
    def has_ended(self) -> bool:
        return self._ended or self.result() is not None

    def end(self) -> None:
        """Kills it, if it still runs."""
        if self._ended:
            return
        self._ended = True
        os.kill(self.pid, signal.SIGKILL)  # not waited for before, so the id is still its own
        os.waitpid(self.pid, 0)
        os.close(self._result)


def _live(user: Optional[int], end: int, function: Callable, arguments: tuple) -> None:
    """The whole life of the child."""
    answer: dict[str, Any]
    for number in (signal.SIGINT, signal.SIGTERM):  # the handlers clean up, which is the parent's to do
        signal.signal(number, signal.SIG_DFL)
    try:
        resource.setrlimit(resource.RLIMIT_AS, (_MEMORY, _MEMORY))
        if user is not None:
            os.setgroups([_MEMBER_GROUP_ID])
            os.setresgid(user, user, user)
            os.setresuid(user, user, user)
        ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
        answer = {"value": function(*arguments)}
    except BaseException as error:  # pylint: disable=broad-except
        answer = {"error": f"{type(error).__name__}: {error}", "trace": traceback.format_exc()}
    try:
        os.write(end, json.dumps(answer).encode())
    finally:
        os._exit(0)
