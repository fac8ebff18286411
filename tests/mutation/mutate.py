"""Mutates src/ and counts what the tests notice. Called by scripts/mutate, which explains it."""

import argparse
import itertools
import pathlib
import random
import signal
import sys

from mutations import Mutation, mutations_of
from record import Reasons, Results
from trial import Laboratory, Outcome
from workspace import Workspace

TOP = pathlib.Path(__file__).resolve().parents[2]
GOAL = 90


def all_mutations(tree: pathlib.Path, files: list[str]) -> dict[str, list[Mutation]]:
    """The mutations of each line of code that has one."""
    lines: dict[str, list[Mutation]] = {}
    for path in sorted((tree / "src").rglob("*")):
        name = str(path.relative_to(tree))
        if path.suffix in (".h", ".cpp") and (not files or name in files):
            for mutation in mutations_of(name, path.read_text(encoding="utf-8")):
                lines.setdefault(mutation.place, []).append(mutation)
    return lines


def in_order(lines: dict[str, list[Mutation]], seed: int) -> list[Mutation]:
    """One mutation of every line, by lot: each line of code has the same chance to come early. The
    lots of a line stay what they are when other lines change."""
    drawn: list[tuple[float, Mutation]] = []
    for place, mutations in lines.items():
        lot = random.Random(f"{seed}|{place}")
        drawn.append((lot.random(), lot.choice(mutations)))
    return [mutation for _, mutation in sorted(drawn, key=lambda each: each[0])]


def is_costly(mutation: Mutation) -> tuple[bool, bool, str]:
    """Sorts quick trials in front; those of one header stay together."""
    return mutation.kind == "lock", mutation.file.endswith(".h"), mutation.file


class Run:
    """Tries mutations until enough of them have been compiled."""

    def __init__(self, laboratory: Laboratory, results: Results, reasons: Reasons) -> None:
        self.laboratory = laboratory
        self.results = results
        self.reasons = reasons
        self.counted: list[tuple[Mutation, Outcome]] = []

    def until(self, count: int, order: list[Mutation]) -> None:
        waiting = iter(order)
        while len(self.counted) < count:
            batch = list(itertools.islice(waiting, count - len(self.counted)))
            if not batch:
                return
            for mutation in sorted(batch, key=is_costly):
                self.try_one(mutation)

    def try_one(self, mutation: Mutation) -> None:
        outcome = self.results.of(mutation)
        if outcome is None:
            outcome = self.laboratory.run(mutation)
            self.results.add(mutation, outcome)
        if outcome.verdict != "invalid":
            self.counted.append((mutation, outcome))
            print(self.line(mutation, outcome), flush=True)

    def line(self, mutation: Mutation, outcome: Outcome) -> str:
        place = f"{mutation.file}:{mutation.line}"
        if outcome.verdict == "killed":
            end = f"killed by {outcome.by} ({outcome.seconds:.0f} s)"
        else:
            reason = self.reasons.of(mutation)
            end = "SURVIVED" + (f": {reason}" if reason else "")
        return f"{place:<40} {mutation.kind}: {mutation.what[:90]}\n{'':>8}{end}"

    def close(self) -> bool:
        """Prints the totals. @return whether enough were killed."""
        killed = sum(outcome.verdict == "killed" for _, outcome in self.counted)
        survivors = [each for each, outcome in self.counted if outcome.verdict == "survived"]
        explained = sum(bool(self.reasons.of(each)) for each in survivors)
        share = 100 * killed / max(1, len(self.counted))
        print(f"{len(self.counted)} mutations: {killed} killed ({share:.1f} %), "
              f"{len(survivors)} survived, {explained} of these for a reason on file")
        # A short run may meet a mutation that nothing can kill: it is not the tests' fault.
        return bool(self.counted) and 100 * killed >= GOAL * (len(self.counted) - explained)


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=220)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--file", action="append", default=[])
    parser.add_argument("--revision", default="HEAD")
    parser.add_argument("--retry", action="store_true")
    parser.add_argument("--fresh", action="store_true")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--directory", type=pathlib.Path, required=True)
    return parser.parse_args()


def main() -> int:
    wanted = arguments()
    workspace = Workspace(TOP, wanted.directory)
    path = wanted.directory / "results.jsonl"
    if wanted.fresh:
        path.unlink(missing_ok=True)
    commit = workspace.commit_of(wanted.revision)
    workspace.check_out(commit)
    lines = all_mutations(workspace.tree, wanted.file)
    if not lines:
        print(f"mutate: no code in {' '.join(wanted.file)}", file=sys.stderr)
        return 2
    order = in_order(lines, wanted.seed)
    if wanted.list:
        for mutation in order[: wanted.count]:
            print(f"{mutation.file}:{mutation.line} {mutation.kind}: {mutation.what}")
        return 0
    results = Results(path)
    if wanted.retry:
        results.forget_survivors()
    laboratory = Laboratory(workspace)
    print(f"== building {commit[:12]} and running its tests", flush=True)
    laboratory.prepare()
    print(f"== {wanted.count} mutations of {len(lines)} lines, seed {wanted.seed}", flush=True)
    run = Run(laboratory, results, Reasons(pathlib.Path(__file__).with_name("survivors.txt")))
    run.until(wanted.count, order)
    return 0 if run.close() else 1


# What was started with nohup would hand on that hang-ups are ignored, to the daemon, too.
signal.signal(signal.SIGHUP, signal.SIG_DFL)
# Ends as an interrupt does: the mutated source is put right, the tests under way are ended.
signal.signal(signal.SIGTERM, lambda *_: sys.exit("mutate: ended; the next run goes on from here"))
try:
    sys.exit(main())
except KeyboardInterrupt:
    sys.exit("mutate: interrupted; the next run goes on from here")
