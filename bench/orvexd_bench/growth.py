"""How costs grow with requests, bytes and clients."""

import statistics

from .pairs import Spread, paired, percentile
from .processes import settle
from .rows import KIB, MIB, Row, at_most, microseconds, size_name


def requests(run):
    """Row 10."""
    counts = [1, 10, 100, 1000] if run.quick else [1, 10, 100, 1000, 10_000]
    run.workshop.server.answer(100)
    times = {count: [] for count in counts}
    with run.workshop.stage() as stage:
        stage.start(stage.orvexd_command())
        client = stage.client()
        client.command("many", 100, 100)
        for _ in range(run.pairs):
            for count in counts:
                settle()
                times[count].append(client.command("many", count, 100) / 1e9 / count)
    result = paired(times[counts[-1]], times[100])
    curve = {count: Spread.of(values) for count, values in times.items()}
    run.series["requests"] = {"a request": curve}
    listed = ", ".join(
        f"{count:,}: {microseconds(spread.median)}" for count, spread in curve.items()
    )
    run.add(
        at_most(
            "10",
            f"time of each request in one exchange of {counts[-1]:,}, 100 bytes each way",
            microseconds(result.ours.median),
            f"{microseconds(result.peer.median)} in one of 100 ({listed})",
            result.ratio,
            1.5,
        )
    )


def sizes(run):
    """Row 11."""
    run.series["sizes"] = {}
    for chunk in (KIB, 64 * KIB, MIB):
        for direction in ("up", "down"):
            _sizes(run, chunk, direction)


def _sizes(run, chunk, direction):
    """Time of a byte in requests of growing size. A single request of 256 MiB in pieces of 1 KiB takes
    half a minute: it runs once, and each sixteenth of it is paired with a smaller request."""
    sizes = [MIB, 4 * MIB] if run.quick else [MIB, 16 * MIB, 256 * MIB]
    slow = chunk == KIB and not run.quick
    times = {size: [] for size in sizes}
    with run.workshop.stage() as stage:
        stage.start(stage.orvexd_command())
        client = stage.client()
        _exchange(run, client, chunk, direction, MIB)
        for _ in range(run.pairs):
            for size in sizes[:-1] if slow else sizes:
                marks = _exchange(run, client, chunk, direction, size)
                times[size].append(marks[-1] / 1e9 / size)
        if slow:
            marks = [0, *_exchange(run, client, chunk, direction, sizes[-1])]
            pieces = [later - earlier for earlier, later in zip(marks, marks[1:], strict=False)]
            times[sizes[-1]] = [piece / 1e9 / (sizes[-1] / 16) for piece in pieces]
    name = f"{direction}, {size_name(chunk)}"
    curve = {size: Spread.of(values) for size, values in times.items()}
    run.series["sizes"][name] = curve
    medians = [spread.median for spread in curve.values()]
    pairs = list(zip(*[values[-run.pairs :] for values in times.values()], strict=True))
    listed = ", ".join(
        f"{size_name(size)}: {spread.median * 1e9:.2f}" for size, spread in curve.items()
    )
    run.add(
        at_most(
            "11",
            f"time of a byte in one request, {direction}, pieces of {size_name(chunk)}",
            f"{max(medians) * 1e9:.2f} ns",
            f"{min(medians) * 1e9:.2f} ns ({listed})",
            Spread.of([max(pair) / min(pair) for pair in pairs])
            if len(pairs) < 3
            else _ratio_of_extremes(times),
            1.2,
        )
    )


def _exchange(run, client, chunk, direction, size):
    """Nanoseconds at each sixteenth of the bytes."""
    settle()
    if direction == "up":
        run.workshop.server.answer(KIB)
        return client.exchange(size, KIB, piece=chunk, chunk=chunk)["upload_marks"]
    run.workshop.server.answer(size)
    return client.exchange(KIB, size, chunk=chunk)["answer_marks"]


def _ratio_of_extremes(times):
    """The dearest size beside the cheapest, pair by pair."""
    dearest = max(times.values(), key=statistics.median)
    cheapest = min(times.values(), key=statistics.median)
    count = min(len(dearest), len(cheapest))
    return paired(dearest[-count:], cheapest[-count:]).ratio


def clients(run):
    """Row 12."""
    loads = (10, 1000) if run.quick else (10, 10_000)
    run.workshop.server.answer(64 * 64)
    with run.workshop.stage() as few, run.workshop.stage() as many:
        measured = []
        for stage, load in zip((few, many), loads, strict=True):
            stage.start(stage.orvexd_command())
            client = stage.client()
            client.command("load", load)
            _calls(client)
            measured.append((client, []))
        for _ in range(run.pairs):
            for client, results in measured:
                settle()
                results.append(_calls(client))
    for member in ("connect", "prepare", "sendData", "getData"):
        little, much = ([result[member] for result in results] for _, results in measured)
        result = paired(much, little)
        run.add(
            at_most(
                "12",
                f"`{member}` with {loads[1]:,} open connections and waiting requests",
                microseconds(result.ours.median),
                f"{microseconds(result.peer.median)} with {loads[0]}",
                result.ratio,
                1.5,
            )
        )


def _calls(client):
    """Seconds of each call: the median of several, but there is one prepare in an exchange."""
    connects = client.command("connects", 32)
    times = client.command("calls", 32)
    return {
        "connect": statistics.median(connects) / 1e9,
        "prepare": times["prepare"] / 1e9,
        "sendData": statistics.median(times["sendData"]) / 1e9,
        "getData": statistics.median(times["getData"]) / 1e9,
    }
