"""How costs grow with requests, bytes and clients."""

import statistics

from .pairs import Spread, paired
from .processes import settle
from .rows import KIB, MIB, at_most, microseconds, size_name


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
    """Time of a byte in requests of growing size, beyond what an exchange of 1 KiB takes. A request of
    256 MiB in pieces of 1 KiB takes half a minute: it runs once, and its sixteenths stand for 16 runs."""
    sizes = [MIB, 4 * MIB] if run.quick else [MIB, 16 * MIB, 256 * MIB]
    once = sizes[-1:] if chunk == KIB and not run.quick else []
    times = {size: [] for size in sizes}
    with run.workshop.stage() as stage:
        stage.start(stage.orvexd_command())
        client = stage.client()
        _exchange(run, client, chunk, direction, sizes[0])
        for _ in range(run.pairs):
            fixed = _exchange(run, client, chunk, direction, KIB)["done"]
            for size in sizes:
                if size not in once:
                    done = _exchange(run, client, chunk, direction, size)["done"]
                    times[size].append((done - fixed) / 1e9 / size)
        for size in once:
            found = _exchange(run, client, chunk, direction, size)
            marks = found["upload_marks" if direction == "up" else "answer_marks"]
            starts = [found["asked"], *marks]
            pieces = [end - start for start, end in zip(starts, marks, strict=False)]
            times[size] = [piece / 1e9 / (size / 16) for piece in pieces[: run.pairs]]
    curve = {size: Spread.of(values) for size, values in times.items()}
    run.series["sizes"][f"{direction}, {size_name(chunk)}"] = curve
    dearest = max(curve, key=lambda size: curve[size].median)
    cheapest = min(curve, key=lambda size: curve[size].median)
    result = paired(times[dearest], times[cheapest])
    listed = ", ".join(
        f"{size_name(size)}: {spread.median * 1e9:.2f}" for size, spread in curve.items()
    )
    run.add(
        at_most(
            "11",
            f"time of a byte in one request, {direction}, pieces of {size_name(chunk)}; dearest size "
            "beside the cheapest",
            f"{result.ours.median * 1e9:.2f} ns in {size_name(dearest)}",
            f"{result.peer.median * 1e9:.2f} ns in {size_name(cheapest)} ({listed})",
            result.ratio,
            1.2,
        )
    )


def _exchange(run, client, chunk, direction, size):
    settle()
    if direction == "up":
        run.workshop.server.answer(KIB)
        return client.exchange(size, KIB, piece=chunk, chunk=chunk)
    run.workshop.server.answer(size)
    return client.exchange(KIB, size, chunk=chunk)


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
