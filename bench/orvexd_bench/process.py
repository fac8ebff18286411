"""Start, idleness and memory of the process."""

import time

from . import observe
from .pairs import paired
from .processes import settle
from .rows import KIB, MIB, Row, at_most, memory, milliseconds


def start(run):
    """Row 13."""
    with run.workshop.stage() as stage:
        client = stage.client()
        commands = {
            "ours": stage.orvexd_command(),
            "floor": stage.floor_command(),
            "bare": stage.floor_command(bare=True),
        }
        times = {name: [] for name in commands}
        for round_ in range(2 * run.pairs + 1):
            for name, command in commands.items():
                seconds = client.command("start", *command) / 1e9
                if round_ > 0:  # the first one reads the files from the disk
                    times[name].append(seconds)
    for number, floor, name in (
        ("13", "floor", "`floor_daemon`"),
        ("13+", "bare", "`floor_daemon --bare`, which initialises no library"),
    ):
        result = paired(times["ours"], times[floor])
        text = milliseconds(result.ours.median), f"{milliseconds(result.peer.median)} {name}"
        if number == "13":
            run.add(at_most("13", "exec to name owned", *text, result.ratio, 1.10))
        else:
            run.add(Row("13+", "exec to name owned", *text, result.ratio))


def idle(run):
    """Row 14."""
    seconds = 5 if run.quick else 60
    with run.workshop.stage() as ours, run.workshop.stage() as floor, run.workshop.stage() as bare:
        daemon = ours.start(ours.orvexd_command())
        peer = floor.start(floor.floor_command())
        least = bare.start(bare.floor_command(bare=True))
        time.sleep(1)  # what the start left to do
        before = observe.wake_ups(daemon.pid), observe.wake_ups(peer.pid)
        time.sleep(seconds)
        after = observe.wake_ups(daemon.pid), observe.wake_ups(peer.pid)
        threads = observe.threads(daemon.pid), observe.threads(peer.pid)
        dirty = [observe.private_dirty(child.pid) for child in (daemon, peer, least)]
    wakes = [later - earlier for earlier, later in zip(before, after, strict=True)]
    run.add(
        Row(
            "14a",
            f"wake-ups in {seconds} s of idleness",
            str(wakes[0]),
            f"{wakes[1]} `floor_daemon`",
            None,
            "0",
            wakes[0] == 0,
        )
    )
    run.add(
        Row(
            "14b",
            "threads when idle",
            str(threads[0]),
            f"{threads[1]} `floor_daemon`",
            None,
            "2",
            threads[0] <= 2,
        )
    )
    run.add(
        at_most(
            "14c",
            "private dirty memory when idle",
            memory(dirty[0]),
            f"{memory(dirty[1])} `floor_daemon`",
            dirty[0] / dirty[1],
            1.10,
        )
    )
    run.add(
        Row(
            "14+",
            "private dirty memory when idle",
            memory(dirty[0]),
            f"{memory(dirty[2])} `floor_daemon --bare`",
            dirty[0] / dirty[2],
        )
    )


def streaming_memory(run):
    """Row 15."""
    size = 32 * MIB if run.quick else 256 * MIB
    pace = 32 * MIB  # bytes a second: a fraction of what the bus can carry
    for direction in ("up", "down"):
        _streaming_memory(run, direction, size, pace)


def _streaming_memory(run, direction, size, pace):
    """Peak of a transfer over what was resident before it, after one that has warmed everything up."""
    server = run.workshop.server
    with run.workshop.stage() as stage:
        daemon = stage.start(stage.orvexd_command())
        client = stage.client()
        server.answer(KIB)
        client.exchange(KIB, KIB)
        settle()
        before = observe.resident(daemon.pid)
        observe.forget_peak(daemon.pid)
        if direction == "up":
            client.exchange(size, KIB, per_second=pace)
        else:
            server.answer(size, pace)
            client.exchange(KIB, size)
        peak = observe.peak_resident(daemon.pid)
    growth = (peak - before) / 1024
    run.add(
        Row(
            "15",
            f"peak of memory while {size // MIB} MiB go {direction} with a client that keeps pace",
            f"idle + {growth:.2f} MiB",
            f"idle: {memory(before)}",
            None,
            "≤ idle + 8 MiB",
            growth <= 8,
        )
    )
