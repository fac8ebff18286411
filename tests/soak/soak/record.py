"""What was measured during a run, and how it is kept in a file."""

import json
import pathlib
import re
import statistics

KIB = 1024
WINDOW = 20  # samples


def memory(pid):
    """Resident bytes of a process, and how many of them are its own and written to."""
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text("ascii")
    kilobytes = dict(re.findall(r"^(\w+): +(\d+) kB$", text, re.MULTILINE))
    return int(kilobytes["Rss"]) * KIB, int(kilobytes["Private_Dirty"]) * KIB


class Record:
    """One entry per sample and one latency per answered exchange."""

    def __init__(self):
        self.samples = []  # exchange, seconds since the start, resident, dirty, fds, threads
        self.latencies = []  # exchange, seconds since the start, seconds
        self.faults = 0

    def take_sample(self, exchange, seconds, daemon):
        held = daemon.resources()
        resident, dirty = memory(daemon.pid)
        self.samples.append((exchange, seconds, resident, dirty, held["fds"], held["threads"]))

    def resident_from(self, exchange):
        """Median of the resident bytes from this exchange on, over the samples of a window.

        One sample depends on the exchange that it follows: allocators keep what they were given.
        """
        samples = [sample[2] for sample in self.samples if sample[0] >= exchange]
        return statistics.median(samples[:WINDOW])

    def latency(self, share):
        """Seconds that this share of the answered exchanges did not exceed."""
        ordered = sorted(seconds for _, _, seconds in self.latencies)
        return ordered[min(len(ordered) - 1, int(share * len(ordered)))]

    def save(self, path):
        pathlib.Path(path).write_text(json.dumps(vars(self)), "utf-8")

    @classmethod
    def load(cls, path):
        record = cls()
        vars(record).update(json.loads(pathlib.Path(path).read_text("utf-8")))
        return record
