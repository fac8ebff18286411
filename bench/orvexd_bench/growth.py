"""How costs grow with requests, bytes and clients."""

import statistics

from .pairs import Spread, paired
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
    """Time of a byte in requests of growing size, beyond what an exchange of 1 KiB takes."""
    sizes = [MIB, 4 * MIB] if run.quick else [MIB, 16 * MIB, 256 * MIB]
    once = sizes[-1:] if chunk == KIB and not run.quick else []
    often = [size for size in sizes if size not in once]
    with run.workshop.stage() as stage, run.workshop.stage() as floor:
        stage.start(stage.orvexd_command())
        client = stage.client()
        _exchange(run, client, chunk, direction, sizes[0])
        times = _times_of_a_byte(
            lambda size: _exchange(run, client, chunk, direction, size)["done"] / 1e9,
            often,
            run.pairs,
        )
        for size in once:
            found = _exchange(run, client, chunk, direction, size)
            times[size] = _sixteenths(found, direction, size)[: run.pairs]
        floors = _Floors(run, floor, chunk, direction)
        below = _times_of_a_byte(floors.time, often, max(3, run.pairs // 3))
    measure = f"time of a byte in one request, {direction}, pieces of {size_name(chunk)}"
    run.series["sizes"][f"{direction}, {size_name(chunk)}"] = _curve(times)
    whole = f"{measure}; dearest size beside the cheapest"
    run.add(at_most("11", whole, *_dearest_beside_cheapest(times), 1.2))
    floors_alone = f"{measure}, of `floor_post` and then `floor_daemon`"
    run.add(Row("11+", floors_alone, *_dearest_beside_cheapest(below)))


def _times_of_a_byte(exchange, sizes, rounds):
    """Seconds, by size, each `rounds` times."""
    times = {size: [] for size in sizes}
    for _ in range(rounds):
        fixed = exchange(KIB)
        for size in sizes:
            times[size].append((exchange(size) - fixed) / size)
    return times


def _sixteenths(found, direction, size):
    """A request of 256 MiB in pieces of 1 KiB takes half a minute: it runs once, and its sixteenths
    stand for 16 runs."""
    marks = found["upload_marks" if direction == "up" else "answer_marks"]
    starts = [found["asked"], *marks]
    pieces = [end - start for start, end in zip(starts, marks, strict=False)]
    return [piece / 1e9 / (size / 16) for piece in pieces]


def _curve(times):
    return {size: Spread.of(values) for size, values in times.items()}


def _dearest_beside_cheapest(times):
    """The columns of a row: the dearest size, the cheapest one and a list of all, the ratio."""
    curve = _curve(times)
    listed = ", ".join(
        f"{size_name(size)}: {spread.median * 1e9:.2f}" for size, spread in curve.items()
    )
    dearest = max(curve, key=lambda size: curve[size].median)
    cheapest = min(curve, key=lambda size: curve[size].median)
    result = paired(times[dearest], times[cheapest])
    return (
        f"{result.ours.median * 1e9:.2f} ns in {size_name(dearest)}",
        f"{result.peer.median * 1e9:.2f} ns in {size_name(cheapest)} ({listed})",
        result.ratio,
    )


class _Floors:
    """One transfer and, behind it, the calls of an exchange of any size."""

    def __init__(self, run, stage, chunk, direction):
        self._server, self._stage = run.workshop.server, stage
        self._chunk, self._up = chunk, direction == "up"
        self._post = stage.floor_post()
        self._daemon = self._client = None
        self._answer = None

    def time(self, size):
        """Seconds."""
        upload, answer = (size, KIB) if self._up else (KIB, size)
        self._answer_with(answer)
        settle()
        transfer = self._post.post(upload)[0]
        settle()
        calls = self._client.exchange(
            upload, answer, piece=self._chunk, chunk=self._chunk, late=True
        )
        return transfer + calls["done"] / 1e9

    def _answer_with(self, answer):
        self._server.answer(answer)
        if answer != self._answer:
            if self._daemon:
                self._stage.end(self._client, self._daemon)
            self._daemon = self._stage.start(self._stage.floor_command(answer))
            self._client = self._stage.client()
            self._answer = answer


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
