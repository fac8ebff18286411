"""Command line; scripts/bench builds first and then comes here."""

import argparse
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from . import (
    before,
    counting,
    exchanges,
    growth,
    latency,
    library,
    micro,
    neighbours,
    network,
    process,
    report,
    tracing,
)
from .processes import TOP, Workshop
from .rows import Row, Run

# Rows that come from one measurement stand together.
MEASUREMENTS = (
    ((1, 2), "exchanges end to end", exchanges.end_to_end),
    ((1,), "what the protocol demands", exchanges.fixed_parts),
    ((3, 4, 5), "throughput and processor time", exchanges.throughput),
    ((6,), "instructions", counting.instructions),
    ((7, 8), "response parser", micro.parser),
    ((9,), "line ends", micro.line_ends),
    ((10,), "growth with requests", growth.requests),
    ((11,), "growth with bytes", growth.sizes),
    ((12,), "growth with clients", growth.clients),
    ((13,), "start", process.start),
    ((14,), "idleness", process.idle),
    ((15,), "memory while streaming", process.streaming_memory),
    ((16,), "latency of other clients", latency.other_clients),
    ((17,), "system calls", counting.system_calls),
    ((17,), "allocations", counting.allocations),
    ((18,), "unfetched answers beside busy neighbours", neighbours.unfetched_answers),
    ((19,), "bytes on the wire", exchanges.wire_cost),
    ((21, 22, 23), "the client library beside a raw client", library.beside_raw),
    ((24,), "memory of the client library", library.memory_of_streams),
    ((25,), "what the client library leaves behind", library.remains),
    ((26,), "the NetworkManager source", network.sources),
    ((20,), "costs beside an earlier build", before.hidden_costs),
    ((27,), "probes", tracing.probes),
)


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", add_help=False)
    parser.add_argument("--bin", type=Path, required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--before", type=Path)
    parser.add_argument("--row", type=int, action="append")
    parser.add_argument("--docs", type=Path, default=TOP / "docs")
    return parser.parse_args()


def measure(run, wanted):
    for numbers, name, measurement in MEASUREMENTS:
        if wanted and not set(wanted) & set(numbers):
            continue
        begin = time.monotonic()
        print(f"== {name} ...", end=" ", flush=True)
        try:
            measurement(run)
        except (RuntimeError, subprocess.CalledProcessError) as error:
            run.failures += 1
            run.add(Row(str(numbers[0]), name, f"not measured: {error}"))
        print(f"{time.monotonic() - begin:.0f} s", flush=True)


def write_documents(run, docs, took):
    from . import plots  # matplotlib is slow to load

    pictures = plots.draw(run.series, docs / "benchmarks")
    (docs / "benchmarks.md").write_text(report.markdown(run.rows, pictures, took), "utf-8")
    print(f"written: {docs / 'benchmarks.md'} and its pictures")


def main():
    arguments = parse_arguments()
    begin = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="orvexd-bench.") as directory:
        with Workshop(arguments.bin, Path(directory)) as workshop:
            run = Run(workshop, arguments.quick, arguments.before)
            measure(run, arguments.row)
    took = time.monotonic() - begin
    print()
    print(report.text_table(run.rows))
    print()
    print(report.summary(run.rows))
    if not arguments.row and not arguments.quick:
        write_documents(run, arguments.docs, took)
    return 1 if run.failures else 0


if __name__ == "__main__":
    sys.exit(main())
