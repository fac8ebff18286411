"""What other clients notice of a large transfer."""

import time

from .pairs import Spread, paired, percentile
from .processes import settle
from .rows import KIB, MIB, Row, at_most, microseconds, size_name

INTERVAL = 1000  # microseconds from one call to the next


def other_clients(run):
    """Row 16, and beside it the same with both floors."""
    size = 32 * MIB if run.quick else 256 * MIB
    run.series["latency"] = {}
    for direction in ("up", "down"):
        _during(run, size, direction)


def _during(run, size, direction):
    upload, answer = (size, KIB) if direction == "up" else (KIB, size)
    run.workshop.server.answer(answer)
    idle, busy, floor_busy = [], [], []
    all_idle, all_busy = [], []
    with run.workshop.stage() as ours, run.workshop.stage() as floor:
        ours.start(ours.orvexd_command())
        floor.start(floor.floor_command(answer))
        client, other = ours.client(), ours.client()
        floor_client, floor_other, post = floor.client(), floor.client(), floor.floor_post()
        length = client.exchange(upload, answer)["done"] / 1e9
        for _ in range(run.pairs):
            settle()
            calm = _probe(other, 0.3)
            rough = _probe_during(client, other, upload, answer, length, late=False)
            below = _probe_during(
                floor_client, floor_other, upload, answer, length, late=True, post=post
            )
            idle.append(percentile(calm, 99))
            busy.append(percentile(rough, 99))
            floor_busy.append(percentile(below, 99))
            all_idle += calm
            all_busy += rough
    run.series["latency"]["idle"] = all_idle
    run.series["latency"][f"{size_name(size)} {direction}"] = all_busy
    result = paired(busy, idle)
    measure = f"p99 of `Get connectionStatus` while {size_name(size)} go {direction}"
    run.add(
        at_most(
            "16",
            measure,
            microseconds(result.ours.median),
            f"{microseconds(result.peer.median)} idle",
            result.ratio,
            3,
        )
    )
    result = paired(busy, floor_busy)
    run.add(
        Row(
            "16+",
            measure,
            microseconds(result.ours.median),
            f"{microseconds(Spread.of(floor_busy).median)} both floors under the same calls",
            result.ratio,
        )
    )


def _probe(client, seconds):
    """Seconds of each call."""
    return [time_ / 1e9 for time_ in client.command("probe", int(seconds * 1000), INTERVAL)]


def _probe_during(client, other, upload, answer, length, late, post=None):
    """Probes within the first four fifths of a transfer, without its first hundredth second. A
    transfer beside the calls is spread over the length of theirs, seconds."""
    client.tell("exchange", upload, 65536, 0, 65536, answer, int(late))
    if post:
        post.tell(upload, 1, 0, int(max(upload, answer) / length))
    time.sleep(0.01)
    times = _probe(other, 0.8 * length)
    client.line()
    if post:
        post.line()
    settle()
    return times
