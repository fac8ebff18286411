"""Whole exchanges beside what they are made of: one transfer, and the round trips on the bus."""

from concurrent.futures import ThreadPoolExecutor

from .observe import processor_time
from .pairs import Spread, paired
from .processes import settle
from .rows import (
    KIB,
    MIB,
    Row,
    at_least,
    at_most,
    milliseconds,
    size_name,
    speed,
)


class Trio:
    """orvexd, floor_daemon and floor_post, made ready for exchanges of one size."""

    def __init__(self, run, upload, answer):
        self.upload, self.answer = upload, answer
        workshop = run.workshop
        self.ours, self.floor = workshop.stage(), workshop.stage()
        workshop.server.answer(answer)
        self.daemon = self.ours.start(self.ours.orvexd_command())
        self.floor_daemon = self.floor.start(self.floor.floor_command(answer))
        self.post = self.ours.floor_post()
        self._client = self.ours.client()
        self._floor_client = self.floor.client()
        self.exchange()
        self.transfer()
        self.calls()

    def exchange(self):
        """Seconds, from prepare to the last chunk."""
        settle()
        return self._client.exchange(self.upload, self.answer)["done"] / 1e9

    def transfer(self):
        """Seconds."""
        settle()
        return self.post.post(self.upload)[0]

    def calls(self):
        """Seconds of the exchange's calls, one behind the other."""
        settle()
        return self._floor_client.exchange(self.upload, self.answer, late=True)["done"] / 1e9

    def both_at_once(self, calls_alone):
        """Seconds of the calls with the transfer beside them, which take the processors from each
        other as the threads of a daemon do that streams. The transfer keeps to the speed of the
        calls when they are alone, seconds, as one does that waits for a client."""
        settle()
        per_second = int(max(self.upload, self.answer) / calls_alone)
        with ThreadPoolExecutor(1) as beside:
            transfer = beside.submit(self.post.post, self.upload, per_second=per_second)
            calls = self._floor_client.exchange(self.upload, self.answer, late=True)["done"] / 1e9
        return max(calls, *transfer.result())

    def floors_processor_time(self):
        """Seconds that the two floors have used."""
        return processor_time(self.post.pid) + processor_time(self.floor_daemon.pid)

    def stop(self):
        self.floor.stop()
        self.ours.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


def end_to_end(run):
    """Rows 1 and 2."""
    _end_to_end(run, "1", KIB, 4 * KIB, 1.10, 3 * run.pairs)
    _end_to_end(run, "2", 64 * KIB, MIB, 1.15, 2 * run.pairs)


def _end_to_end(run, number, upload, answer, limit, count):
    exchanges, transfers, calls = [], [], []
    with Trio(run, upload, answer) as trio:
        for _ in range(count):
            exchanges.append(trio.exchange())
            transfers.append(trio.transfer())
            calls.append(trio.calls())
    both = [transfer + call for transfer, call in zip(transfers, calls, strict=True)]
    result = paired(exchanges, both)
    if number == "1":
        run.series["exchange"] = {"orvexd": exchanges, "the floors": both}
    run.add(
        at_most(
            number,
            f"exchange end to end, {size_name(upload)} up, {size_name(answer)} down",
            milliseconds(result.ours.median),
            f"{milliseconds(Spread.of(transfers).median)} `floor_post` + "
            f"{milliseconds(Spread.of(calls).median)} `floor_daemon`",
            result.ratio,
            limit,
        )
    )


def throughput(run):
    """Rows 3, 4 and 5."""
    size = 8 * MIB if run.quick else 64 * MIB
    up = _throughput(run, "3", f"upload of {size_name(size)}, 64 KiB each `sendData`", size, 0)
    down = _throughput(run, "4", f"download of {size_name(size)}, 64 KiB chunks", 0, size)
    for number, name, times in (("5a", "up", up), ("5b", "down", down)):
        measure = f"processor time of the daemon, {size_name(size)} {name}"
        _processor_times(run, number, measure, times)


class _Processor:
    """Processor times of an exchange, of the floors one behind the other, and of both at once."""

    def __init__(self):
        self.ours, self.floors, self.at_once = [], [], []


def _throughput(run, number, name, upload, answer):
    """Returns the processor times."""
    size = max(upload, answer)
    exchanges, transfers, calls, at_once = [], [], [], []
    used = _Processor()
    with Trio(run, upload or KIB, answer or KIB) as trio:
        for _ in range(run.pairs):
            begin = processor_time(trio.daemon.pid)
            exchanges.append(trio.exchange())
            used.ours.append(processor_time(trio.daemon.pid) - begin)
            begin = trio.floors_processor_time()
            transfers.append(trio.transfer())
            calls.append(trio.calls())
            middle = trio.floors_processor_time()
            used.floors.append(middle - begin)
            at_once.append(trio.both_at_once(calls[-1]))
            used.at_once.append(trio.floors_processor_time() - middle)
    slower = [max(pair) for pair in zip(transfers, calls, strict=True)]
    result = paired(slower, exchanges)  # speeds are the other way round
    ours = speed(result.peer.median, size)
    run.add(
        at_least(
            number,
            name,
            ours,
            f"{speed(Spread.of(calls).median, size)} `floor_daemon`, "
            f"{speed(Spread.of(transfers).median, size)} `floor_post`",
            result.ratio,
            0.90,
        )
    )
    together = paired(at_once, exchanges)
    run.add(
        Row(
            f"{number}+",
            name,
            ours,
            f"{speed(together.ours.median, size)} `floor_daemon` with `floor_post` beside it",
            together.ratio,
        )
    )
    return used


def _processor_times(run, number, measure, used):
    result = paired(used.ours, used.floors)
    ours = milliseconds(result.ours.median)
    run.add(
        at_most(
            number,
            measure,
            ours,
            f"{milliseconds(result.peer.median)} both floors",
            result.ratio,
            1.25,
        )
    )
    together = paired(used.ours, used.at_once)
    run.add(
        Row(
            f"{number}+",
            measure,
            ours,
            f"{milliseconds(together.peer.median)} both floors at once",
            together.ratio,
        )
    )


def fixed_parts(run):
    """What the protocol demands whatever the daemon does; nothing to compare with."""
    workshop = run.workshop
    workshop.server.answer(4 * KIB)
    with workshop.stage() as stage:
        stage.start(stage.orvexd_command())
        client, post = stage.client(), stage.floor_post()
        client.exchange(KIB, 4 * KIB)
        waits = []
        for _ in range(run.pairs):
            settle()
            alone = client.exchange(KIB, 4 * KIB)["done"]
            waits.append((client.exchange(KIB, 4 * KIB)["done"] - alone) / 1e9)
        times = post.times(KIB, run.pairs, 60)
    run.add(
        Row(
            "1+",
            "fixed: the end of an exchange is told to the main loop 50 ms later, and the next one "
            "begins then",
            f"{milliseconds(Spread.of(waits).median)} longer when asked for at once",
        )
    )
    handshake = Spread.of([handshake for _, handshake in times]).median
    whole = Spread.of([whole for whole, _ in times]).median
    run.add(
        Row(
            "1+",
            "fixed: every exchange negotiates TLS anew, with an encrypted client key",
            f"{milliseconds(handshake)} of `floor_post`'s {milliseconds(whole)}",
        )
    )


def wire_cost(run):
    """Bytes on the wire against the payload."""
    server = run.workshop.server
    server.report(True)
    try:
        for upload, answer in ((KIB, 4 * KIB), (64 * KIB, MIB)):
            server.answer(answer)
            with run.workshop.stage() as stage:
                stage.start(stage.orvexd_command())
                client = stage.client()
                client.exchange(upload, answer)
                counts = server.counts()
            _add_wire_rows(run, upload, answer, counts)
    finally:
        server.report(False)


def _add_wire_rows(run, upload, answer, counts):
    name = f"{size_name(upload)} / {size_name(answer)}"
    headers = 40  # IPv4 and TCP, without options
    sent, received = counts["wire_in"], counts["wire_out"]
    segments = headers * (counts["segments_in"] + counts["segments_out"])
    payload = upload + answer
    other = counts["body"] - counts["document"] - upload
    run.add(
        Row(
            "wire",
            f"bytes of an exchange, {name}: up",
            f"{sent} = handshake {counts['handshake_in']} + head {counts['head']} + SLP document "
            f"{counts['document']} + part header and delimiters {other} + payload {upload} + "
            f"TLS records and chunks {_rest(sent, counts, upload, other)}",
        )
    )
    around = counts["answer"] - answer
    records = received - counts["handshake_out"] - counts["answer"]
    run.add(
        Row(
            "wire",
            f"bytes of an exchange, {name}: down",
            f"{received} = handshake {counts['handshake_out']} + head, SLP document and delimiters "
            f"{around} + payload {answer} + TLS records {records}",
        )
    )
    run.add(
        Row(
            "wire",
            f"bytes of an exchange, {name}: all, with {segments} bytes of IP and TCP headers",
            f"{sent + received + segments}",
            f"{payload} payload",
            (sent + received + segments) / payload,
        )
    )


def _rest(sent, counts, upload, other):
    named = counts["handshake_in"] + counts["head"] + counts["document"] + other + upload
    return sent - named
