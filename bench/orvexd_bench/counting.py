"""Counts that do not depend on the machine's mood: instructions, system calls, allocations."""

import re
import signal
import struct
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

from .processes import FloorPost, settle
from .rows import KIB, MIB, Row, at_most

UPLOAD, ANSWER = KIB, 4 * KIB


def instructions(run):
    """Row 6: a long run less a short one leaves the exchanges without the start."""
    few, more = (2, 12) if run.quick else (10, 210)
    run.workshop.server.answer(ANSWER)
    kinds = ("orvexd", "floor_daemon", "floor_post")
    with ThreadPoolExecutor(2) as pool:  # counts are not disturbed by company
        jobs = {
            (kind, count): pool.submit(_instructions, run.workshop, kind, count)
            for kind in kinds
            for count in (more, few)
        }
        counts = {key: job.result() for key, job in jobs.items()}
    each = {kind: (counts[kind, more] - counts[kind, few]) / (more - few) for kind in kinds}
    floors = each["floor_post"] + each["floor_daemon"]
    run.add(
        at_most(
            "6",
            f"instructions of the daemon in an exchange, 1 KiB up, 4 KiB down ({more - few} of them)",
            f"{each['orvexd'] / 1e6:.3f} M",
            f"{each['floor_post'] / 1e6:.3f} M `floor_post` + "
            f"{each['floor_daemon'] / 1e6:.3f} M `floor_daemon`",
            each["orvexd"] / floors,
            1.15,
        )
    )


def _instructions(workshop, kind, count):
    with workshop.stage() as stage:
        output = stage.directory / "callgrind.out"
        tool = ("valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={output}")
        if kind == "floor_post":
            post = FloorPost(stage, tool)
            post.post(UPLOAD, count)
            post.process.stdin.close()
            post.process.wait()
        else:
            late = kind == "floor_daemon"
            command = stage.floor_command(ANSWER) if late else stage.orvexd_command()
            daemon = stage.start(command, tool)
            client = stage.client()
            for _ in range(count):
                client.exchange(UPLOAD, ANSWER, late=late)
                if not late:
                    time.sleep(0.1)  # slow under valgrind, and the end comes 50 ms later
            daemon.process.send_signal(signal.SIGTERM)
            daemon.process.wait()
        return _total(output)


def daemon_instructions(workshop, program, answer, count):
    """Of a daemon that carries so many exchanges, from its start to its end."""
    with workshop.stage() as stage:
        output = stage.directory / "callgrind.out"
        tool = ("valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={output}")
        daemon = stage.start(stage.orvexd_command(program), tool)
        _carry(stage.client(), daemon, count, UPLOAD, answer)
        return _total(output)


def _carry(client, daemon, count, upload, answer):
    for _ in range(count):
        client.exchange(upload, answer)
        time.sleep(0.1)  # slow under valgrind, and the end comes 50 ms later
    daemon.process.send_signal(signal.SIGTERM)
    daemon.process.wait()


def _total(output):
    return int(re.search(r"^(?:summary|totals): (\d+)", output.read_text("utf-8"), re.M)[1])


def system_calls(run):
    """Row 17, first half."""
    count = 5 if run.quick else 50
    run.workshop.server.answer(ANSWER)
    calls = {kind: _system_calls(run.workshop, kind, count) for kind in KINDS}
    totals = {kind: sum(table.values()) for kind, table in calls.items()}
    floors = totals["floor_post"] + totals["floor_daemon"]
    run.add(
        Row(
            "17a",
            f"system calls of an exchange, 1 KiB up, 4 KiB down ({count} of them)",
            f"{totals['orvexd']:.1f}",
            f"{totals['floor_post']:.1f} `floor_post` + {totals['floor_daemon']:.1f} `floor_daemon`",
            totals["orvexd"] / floors,
            "listed",
        )
    )
    beyond = {}
    for name, ours in calls["orvexd"].items():
        floor = calls["floor_post"].get(name, 0) + calls["floor_daemon"].get(name, 0)
        if ours - floor > 0.2:
            beyond[name] = ours - floor
    listed = sorted(beyond.items(), key=lambda entry: -entry[1])
    run.add(
        Row(
            "17a",
            "of these beyond the floors",
            ", ".join(f"{name} {more:.1f}" for name, more in listed),
        )
    )


KINDS = ("orvexd", "floor_daemon", "floor_post")


def _system_calls(workshop, kind, count):
    """How often each system call is made in an exchange."""
    with workshop.stage() as stage:
        if kind == "floor_post":
            child = stage.floor_post()
            exchange = _transfers(child)
        else:
            late = kind == "floor_daemon"
            child = stage.start(stage.floor_command(ANSWER) if late else stage.orvexd_command())
            exchange = _exchanges(stage.client(), late)
        exchange(3)
        output = stage.directory / "strace"
        tracer = subprocess.Popen(
            ["strace", "-f", "-c", "-o", output, "-p", str(child.pid)], stderr=subprocess.PIPE
        )
        tracer.stderr.readline()  # it is attached
        exchange(count)
        tracer.send_signal(signal.SIGINT)
        tracer.wait()
        tracer.stderr.close()
        return {name: calls / count for name, calls in _strace_table(output.read_text("utf-8"))}


def _strace_table(text):
    for line in text.splitlines():
        words = line.split()
        if len(words) >= 5 and words[3].isdigit() and words[-1] != "total":
            yield words[-1], int(words[3])


def _transfers(post):
    return lambda count: post.post(UPLOAD, count, 60)


def _exchanges(client, late):
    def run_all(count):
        for _ in range(count):
            client.exchange(UPLOAD, ANSWER, late=late)
            settle()

    return run_all


def allocations(run):
    """Row 17, second half: a long answer less a short one leaves the chunks."""
    sizes = (MIB, 9 * MIB)
    counts = {}
    for kind in KINDS:
        (few, short), (more, long) = (_allocations(run.workshop, kind, size) for size in sizes)
        counts[kind] = long - short, more - few
    chunks = counts["orvexd"][1]
    ours = counts["orvexd"][0] / chunks
    post = counts["floor_post"][0] / chunks
    calls = counts["floor_daemon"][0] / counts["floor_daemon"][1]
    run.add(
        Row(
            "17b",
            "heap allocations for each delivered chunk of up to 64 KiB",
            f"{ours:.1f}",
            f"{post:.1f} `floor_post` + {calls:.1f} `floor_daemon`",
            ours / (post + calls),
            "counted",
        )
    )


def _allocations(workshop, kind, size):
    """Chunks, and heap allocations while an answer of `size` bytes is fetched."""
    workshop.server.answer(size)
    with workshop.stage() as stage:
        counter = stage.directory / "allocations"
        preload = {
            "LD_PRELOAD": str(workshop.bin.parent / "lib/libcount_allocations.so"),
            "ORVEXD_ALLOCATIONS": str(counter),
        }
        if kind == "floor_post":
            post = FloorPost(stage, environment=preload)
            post.post(UPLOAD)
            before = _number(counter)
            post.post(UPLOAD)
            count = _number(counter) - before
            post.stop()
            return 0, count
        late = kind == "floor_daemon"
        command = stage.floor_command(size) if late else stage.orvexd_command()
        stage.start(command, environment=preload)
        client = stage.client()
        client.exchange(UPLOAD, size, late=late)
        settle()
        before = _number(counter)
        chunks = client.exchange(UPLOAD, size, late=late)["chunks"]
        settle()
        return chunks, _number(counter) - before


def _number(path):
    return struct.unpack("=Q", path.read_bytes())[0]
