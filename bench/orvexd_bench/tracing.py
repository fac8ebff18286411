"""The daemon beside the same daemon without probes: what they cost while nobody looks on."""

from concurrent.futures import ThreadPoolExecutor

from .before import Side
from .counting import daemon_instructions
from .pairs import paired
from .rows import KIB, MIB, at_most, milliseconds

LIMIT = 1.005
TIME_LIMIT = 1.03


def probes(run):
    """Row 27."""
    _instructions(run, "small answers", 4 * KIB, (2, 12) if run.quick else (10, 110))
    _instructions(run, "long answers", MIB, (1, 3) if run.quick else (2, 12))
    _times(run)


def _instructions(run, name, answer, counts):
    """A long run less a short one leaves the exchanges without the start."""
    few, more = counts
    run.workshop.server.answer(answer)
    programs = {"with": run.workshop.bin / "orvexd", "without": run.workshop.bin / "orvexd_without_probes"}
    with ThreadPoolExecutor(2) as pool:  # counts are not disturbed by company
        jobs = {
            (kind, count): pool.submit(daemon_instructions, run.workshop, program, answer, count)
            for kind, program in programs.items()
            for count in (more, few)
        }
        totals = {key: job.result() for key, job in jobs.items()}
    each = {kind: (totals[kind, more] - totals[kind, few]) / (more - few) for kind in programs}
    run.add(
        at_most(
            "27",
            f"instructions of the daemon in an exchange, {name} ({more - few} of them)",
            f"{each['with'] / 1e6:.3f} M",
            f"{each['without'] / 1e6:.3f} M without probes",
            each["with"] / each["without"],
            LIMIT,
        )
    )


def _times(run):
    run.workshop.server.answer(4 * KIB)
    with run.workshop.stage() as ours, run.workshop.stage() as theirs:
        without = theirs.orvexd_command(run.workshop.bin / "orvexd_without_probes")
        sides = [Side(ours, ours.orvexd_command()), Side(theirs, without)]
        for number in range(4 * run.pairs):
            for side in sides if number % 2 else reversed(sides):
                side.measure()
    result = paired(sides[0].exchanges, sides[1].exchanges)
    run.add(
        at_most(
            "27",
            "exchange end to end, 1 KiB up, 4 KiB down",
            milliseconds(result.ours.median),
            f"{milliseconds(result.peer.median)} without probes",
            result.ratio,
            TIME_LIMIT,
        )
    )
