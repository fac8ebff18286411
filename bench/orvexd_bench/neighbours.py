"""An exchange beside processes that never let go of a processor of their own accord."""

import contextlib
import os
import resource
import subprocess
import sys
import time

from .pairs import Spread, paired
from .processes import settle
from .rows import KIB, Row, at_most, milliseconds

REQUESTS = 16
QUESTION, ANSWER = 100, 900 * KIB  # bytes of each request; an answer below what the worker rests at
PROCESSOR_SECONDS = 300  # after which the kernel ends a neighbour that nobody has ended


@contextlib.contextmanager
def busy_processors():
    """An endless loop on each processor that this process may use. Left to the scheduler, they share one
    now and then, and leave another to the daemon. Yields their process ids."""
    loops = []
    try:
        for processor in os.sched_getaffinity(0):
            loops.append(subprocess.Popen([sys.executable, "-c", "while True: pass"]))
            os.sched_setaffinity(loops[-1].pid, [processor])
            limit = (PROCESSOR_SECONDS, PROCESSOR_SECONDS)
            resource.prlimit(loops[-1].pid, resource.RLIMIT_CPU, limit)
        yield [loop.pid for loop in loops]
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


def unfetched_answers(run):
    """Row 18: an exchange whose answers nobody fetches while it runs, and beside it the same bytes as one
    transfer."""
    server = run.workshop.server
    no_yield = {"LD_PRELOAD": str(run.workshop.bin.parent / "lib/libno_yield.so")}
    times = {"ours": [], "no yield": [], "floor": []}
    with run.workshop.stage() as ours, run.workshop.stage() as other:
        ours.start(ours.orvexd_command())
        other.start(other.orvexd_command(), environment=no_yield)
        clients = {"ours": ours.client(), "no yield": other.client()}
        post = ours.floor_post()
        with busy_processors():
            for _ in range(run.pairs + 1):
                server.answer(ANSWER)
                for name, client in clients.items():
                    times[name].append(_exchange(client, server))
                server.answer(REQUESTS * ANSWER)
                times["floor"].append(post.post(REQUESTS * QUESTION)[0])
    for each in times.values():
        del each[0]  # the first exchange warms everything up
    _add_rows(run, times)


def _exchange(client, server):
    """Seconds from prepare until the last byte of the answers has been received."""
    settle()
    server.report(True)
    begin = client.command("unfetched", REQUESTS, QUESTION) / 1e9
    counts = server.counts()
    seconds = time.clock_gettime(time.CLOCK_MONOTONIC) - begin
    server.report(False)
    if counts["requests"] != REQUESTS or counts["answer"] < REQUESTS * ANSWER:
        raise RuntimeError(f"the exchange has failed: {counts}")
    return seconds


def _add_rows(run, times):
    measure = (
        f"exchange of {REQUESTS} requests, {ANSWER // KIB} KiB down each that nobody fetches before its end, "
        "beside an endless loop for each processor"
    )
    result = paired(times["ours"], times["no yield"])
    run.add(
        at_most(
            "18",
            measure,
            milliseconds(result.ours.median),
            f"{milliseconds(result.peer.median)} with a `sched_yield` that does nothing",
            result.ratio,
            1.2,
        )
    )
    run.add(
        Row(
            "18+",
            measure,
            milliseconds(result.ours.median),
            f"{milliseconds(Spread.of(times['floor']).median)} `floor_post`, the same bytes beside the same loops",
            paired(times["ours"], times["floor"]).ratio,
        )
    )
