"""The client library beside a client that speaks raw D-Bus."""

import json
import os

from . import observe
from .pairs import paired
from .processes import Child, settle
from .rows import KIB, MIB, Row, at_least, at_most, memory, milliseconds, size_name, speed


class LibraryClient(Child):
    """bench_library_client on a bus."""

    def __init__(self, stage):
        super().__init__([stage.bin / "bench_library_client"], stage.environment)


class Pair:
    """Both clients, each with a daemon of its own, which exchange in turn. (The raw one takes every signal for
    its own.)"""

    def __init__(self, run):
        self.server = run.workshop.server
        self.stage, self.raw_stage = run.workshop.stage(), run.workshop.stage()
        for stage in (self.stage, self.raw_stage):
            stage.start(stage.orvexd_command())
        self.raw = self.raw_stage.client()
        self.library = LibraryClient(self.stage)
        for client in (self.raw_exchange, self.library_exchange):
            self.server.answer(KIB)
            client(KIB, KIB)

    def raw_exchange(self, upload, answer):
        """Seconds, and those of the processor."""
        return _measured(self.raw, lambda: self.raw.exchange(upload, answer)["done"] / 1e9)

    def raw_request(self, upload, answer):
        """Seconds of a request on a connection of its own, waits for what may speak against its answer included."""
        settle()
        times = self.raw.command("request", upload)
        if times["received"] != answer:
            raise RuntimeError(f"{times['received']} bytes received instead of {answer}")
        return times["done"] / 1e9

    def library_exchange(self, upload, answer):
        """Likewise."""
        return _measured(self.library, lambda: exchange(self.library, upload, answer))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.library.stop()
        self.stage.stop()
        self.raw_stage.stop()


def exchange(client, upload, answer):
    """Seconds from the making of a request to the end of its answer."""
    times = json.loads(client.ask("exchange", upload))
    if times["received"] != answer:
        raise RuntimeError(f"{times['received']} bytes received instead of {answer}")
    return times["done"] / 1e9


def _measured(client, action):
    settle()
    before = observe.processor_time(client.pid)
    seconds = action()
    return seconds, observe.processor_time(client.pid) - before


def beside_raw(run):
    """Rows 21 to 23."""
    size = 8 * MIB if run.quick else 64 * MIB
    with Pair(run) as pair:
        _small(run, pair)
        for direction, upload, answer in (("up", size, KIB), ("down", KIB, size)):
            _large(run, pair, direction, upload, answer)


def _turns(run, pair, upload, answer, count):
    pair.server.answer(answer)
    ours, raw = [], []
    for _ in range(count):
        ours.append(pair.library_exchange(upload, answer))
        raw.append(pair.raw_exchange(upload, answer))
    return ours, raw


def _small(run, pair):
    pair.server.answer(4 * KIB)
    ours, whole, bare = [], [], []
    for _ in range(3 * run.pairs):
        ours.append(pair.library_exchange(KIB, 4 * KIB)[0])
        whole.append(pair.raw_request(KIB, 4 * KIB))
        bare.append(pair.raw_exchange(KIB, 4 * KIB)[0])
    beside_whole, beside_bare = paired(ours, whole), paired(ours, bare)
    measure = "a request through the library, 1 KiB up, 4 KiB down"
    run.add(
        at_most(
            "21",
            measure,
            milliseconds(beside_whole.ours.median),
            f"{milliseconds(beside_whole.peer.median)} raw client, the same steps",
            beside_whole.ratio,
            1.05,
        )
    )
    run.add(
        Row(
            "21+",
            measure,
            milliseconds(beside_bare.ours.median),
            f"{milliseconds(beside_bare.peer.median)} raw client, from `prepare` to the last chunk",
            beside_bare.ratio,
        )
    )


def _large(run, pair, direction, upload, answer):
    size = max(upload, answer)
    ours, raw = _turns(run, pair, upload, answer, run.pairs)
    times = paired([each for each, _ in raw], [each for each, _ in ours])  # as speeds
    run.add(
        at_least(
            "22",
            f"{size_name(size)} {direction} through the library",
            speed(times.peer.median, size),
            f"{speed(times.ours.median, size)} raw client",
            times.ratio,
            0.95,
        )
    )
    used = paired([each for _, each in ours], [each for _, each in raw])
    run.add(
        at_most(
            "23",
            f"processor time of the client, {size_name(size)} {direction}",
            milliseconds(used.ours.median),
            f"{milliseconds(used.peer.median)} raw client",
            used.ratio,
            1.3,
        )
    )


def memory_of_streams(run):
    """Row 24."""
    size = 32 * MIB if run.quick else 256 * MIB
    for direction, upload, answer in (("up", size, KIB), ("down", KIB, size)):
        with Pair(run) as pair:
            pair.library_exchange(KIB, KIB)
            pair.server.answer(answer)
            before = observe.resident(pair.library.pid)
            observe.forget_peak(pair.library.pid)
            pair.library_exchange(upload, answer)
            growth = (observe.peak_resident(pair.library.pid) - before) / 1024
        run.add(
            Row(
                "24",
                f"peak of the client's memory while {size_name(size)} go {direction}",
                f"idle + {growth:.2f} MiB",
                f"idle: {memory(before)}",
                None,
                "≤ idle + 1 MiB",
                growth <= 1,
            )
        )


def remains(run):
    """Row 25."""
    count = 50 if run.quick else 1000
    with Pair(run) as pair:
        pair.library.ask("turns", 20)
        before = _held(pair)
        pair.library.ask("turns", count)
        after = _held(pair)
    growth = (after["memory"] - before["memory"]) / 1024
    left = after["descriptors"] - before["descriptors"], after["rules"] - before["rules"]
    run.add(
        Row(
            "25",
            f"what {count} requests through the library leave behind",
            f"{growth:.2f} MiB, {left[0]} descriptors, {left[1]} match rules",
            "",
            None,
            "≤ 0.25 MiB, 0, 0",
            growth <= 0.25 and left == (0, 0),
        )
    )


def _held(pair):
    settle()
    fds = len(os.listdir(f"/proc/{pair.library.pid}/fd"))
    return {
        "memory": observe.resident(pair.library.pid),
        "descriptors": fds,
        "rules": pair.stage.match_rules(),
    }
