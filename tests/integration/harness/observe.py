"""What /proc tells about the daemon, without stopping or tracing it."""

import contextlib
import os
import pathlib
import re
import signal

from gi.repository import GLib

from .waiting import wait_for

# Numbers of system calls, for x86-64 only; see _system_call.
_POLL = 7
_FUTEX = 202
_FUTEX_PRIVATE_FLAG = 128  # linux/futex.h
_FOREVER = 0xFFFFFFFF


def poll_for(predicate, seconds=10, what=None):
    """Waits for a state of the system that no event announces."""
    ticking = GLib.timeout_add(5, lambda: True)
    try:
        return wait_for(predicate, seconds, what)
    finally:
        GLib.source_remove(ticking)


def status_field(pid, name, task=None):
    """A line of /proc/PID/status."""
    where = f"/proc/{pid}/task/{task}/status" if task else f"/proc/{pid}/status"
    text = pathlib.Path(where).read_text("utf-8")
    return re.search(rf"^{name}:\s*(.*)$", text, re.MULTILINE)[1]


def threads(pid):
    """The names of the threads by their ids."""
    tasks = os.listdir(f"/proc/{pid}/task")
    found = {}
    for task in tasks:
        try:
            found[int(task)] = status_field(pid, "Name", task)
        except (FileNotFoundError, ProcessLookupError):
            pass  # it has just ended
    return found


def own_threads(pid):
    """As `threads`, without the one that the thread sanitizer keeps for itself."""
    found = threads(pid)
    if is_thread_sanitized(pid):
        helpers = [t for t, name in found.items() if t != pid and name == found[pid]]
        assert len(helpers) == 1, found
        del found[helpers[0]]
    return found


def file_descriptors(pid):
    """What the open file descriptors refer to, by number."""
    found = {}
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # it has just been closed
            found[int(entry.name)] = os.readlink(entry)
    return found


def wait_until_cut_off(pid):
    """Waits until none of the process's TCP connections stands: a reset takes them from the table at once."""

    def cut_off():
        table = pathlib.Path(f"/proc/{pid}/net/tcp").read_text("ascii").splitlines()[1:]
        standing = {f"socket:[{line.split()[9]}]" for line in table}
        return standing.isdisjoint(file_descriptors(pid).values())

    poll_for(cut_off, 10, "the end of the connection")


def is_thread_sanitized(pid):
    return "libtsan.so" in _maps(pid)


def _maps(pid):
    return pathlib.Path(f"/proc/{pid}/maps").read_text("utf-8")


def system_call(pid, task):
    """The number of the system call that a thread is in, as text; None when it is in none."""
    try:
        words = pathlib.Path(f"/proc/{pid}/task/{task}/syscall").read_text("utf-8").split()
    except (FileNotFoundError, ProcessLookupError):
        return None  # it has just ended
    return words[0] if words and words[0] != "running" else None


def has_worker(pid):
    """Whether the thread of an exchange exists."""
    return "HttpClient" in threads(pid).values()


def wait_until_worker_sleeps(pid):
    """Waits until the thread of an exchange waits for its client, which is where futexes are."""
    futex = {"x86_64": "202"}[os.uname().machine]

    def sleeps():
        for task, name in threads(pid).items():
            if name == "HttpClient":
                words = pathlib.Path(f"/proc/{pid}/task/{task}/syscall").read_text("utf-8")
                return words.split()[0] == futex
        return False

    poll_for(sleeps, 10, "the worker's sleep")


def sleeping_for(pid):
    """How many milliseconds the main loop sleeps at most: inf without a timer, None when awake.

    It is the argument of the poll call that it is in, so it does not get smaller meanwhile.
    """
    number, arguments = _system_call(pid)
    if number != _POLL:
        return None
    timeout = arguments[2] & _FOREVER
    return float("inf") if timeout == _FOREVER else timeout


def wait_until_joining(pid):
    """Waits until the main thread waits for the end of another one.

    The kernel tells that end to a futex that is not private; all locks are.
    """

    def joins():
        number, arguments = _system_call(pid)
        return number == _FUTEX and not arguments[1] & _FUTEX_PRIVATE_FLAG

    poll_for(joins, 10, "the wait for the worker's end")


def _system_call(pid):
    """The system call that the main thread sleeps in and its arguments; None, () when it runs."""
    assert os.uname().machine == "x86_64", "numbers of system calls are known for x86-64 only"
    words = pathlib.Path(f"/proc/{pid}/syscall").read_text("utf-8").split()
    if words[0] == "running":
        return None, ()
    return int(words[0]), [int(word, 16) for word in words[1:]]


def next_timer(pid):
    """Waits until the main loop sleeps, and returns for how many milliseconds at most."""
    poll_for(lambda: sleeping_for(pid) is not None, 10, "the main loop's sleep")
    return sleeping_for(pid)


def wait_until_idle(pid, seconds=10):
    """Waits until no exchange runs and its end has been swept up: no thread, no timer.

    GLib's thread for signals may have been started just now: it is waited for until it sleeps.
    """

    def idle():
        return (
            not has_worker(pid)
            and sleeping_for(pid) == float("inf")
            and "gmain" in threads(pid).values()
            and all(wake_ups(pid).values())
        )

    poll_for(idle, seconds, lambda: f"idleness; {threads(pid)}, sleeps {sleeping_for(pid)} ms")


@contextlib.contextmanager
def stopped(process):
    """While the process stands still, what is sent to it gathers."""
    process.send_signal(signal.SIGSTOP)
    poll_for(lambda: status_field(process.pid, "State").startswith("T"), 10, "the process's stop")
    try:
        yield
    finally:
        process.send_signal(signal.SIGCONT)


def catches(pid, number):
    """Whether the process has a handler for this signal."""
    return bool(int(status_field(pid, "SigCgt"), 16) & 1 << number - 1)


def wait_until_default(pid, number):
    """Waits until the process has given up its handler for this signal."""
    poll_for(lambda: not catches(pid, number), 10, f"the default action of {number!r}")


def allocated_bytes(pid):
    """Memory that stands for no file: whether others map the same files does not matter."""
    return int(status_field(pid, "RssAnon").removesuffix(" kB")) * 1024


def wake_ups(pid):
    """How often each thread of the daemon's own went to sleep or lost the processor."""
    return {
        task: int(status_field(pid, "voluntary_ctxt_switches", task)) for task in own_threads(pid)
    }


def wait_for_end(pidfd, seconds=10):
    """Waits for the end of any process, a child or not."""
    ended = []
    GLib.unix_fd_add_full(
        GLib.PRIORITY_DEFAULT, pidfd, GLib.IOCondition.IN, lambda *_: ended.append(True)
    )
    wait_for(lambda: ended, seconds, "a process's end")

