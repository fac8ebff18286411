#!/usr/bin/python3
"""Judges a run of the tests from the JUnit reports that it has left.

usage: verdict.py again REPORT CACHE     the tests of a report that may be tried again, one on a line
       verdict.py count BUILD REPORT...  what is wrong, and a closing line; the status tells whether all passed

CACHE is pytest's cache of the run, BUILD the preset whose tests ran. What was tried again stands in
NAME-again.xml beside NAME.xml.
"""

import collections
import dataclasses
import json
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

import skips

MOST_AGAIN = 3  # tests; more than these are no accident
PASSED, SKIPPED, FAILED = range(3)  # from good to bad
SANITIZER = re.compile(r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|: runtime error: ")
# What pytest says of a fixture's end, where a daemon's end is checked, and of a process of tests that died.
NO_ACCIDENT = re.compile(r"failed on teardown|worker '\w+' crashed")


@dataclasses.dataclass
class Result:
    """How one test ended."""

    outcome: int = PASSED
    final: bool = False  # a failure that is not tried again
    reason: str = ""  # of a skip

    def add(self, case):
        """Takes one more element of a report into account; the worst one counts."""
        self.outcome = max(self.outcome, outcome_of(case))
        self.final = self.final or is_final(case)
        skipped = case.find("skipped")
        if skipped is not None:
            self.reason = skipped.get("message") or ""


def outcome_of(case):
    if faults_of(case) or case.get("status") == "fail":
        return FAILED
    if case.find("skipped") is not None or case.get("status") in ("notrun", "disabled"):
        return SKIPPED
    return PASSED


def faults_of(case):
    return [*case.iter("failure"), *case.iter("error")]


def is_final(case):
    """Whether a failure can be no accident of timing."""
    texts = [f"{fault.get('message')}\n{fault.text}" for fault in faults_of(case)]
    return case.find("properties/property[@name='defect']") is not None or any(
        SANITIZER.search(text) or NO_ACCIDENT.search(text) for text in texts
    )


def read_report(path):
    """The results of a report by class and name."""
    results = collections.defaultdict(Result)
    for case in ElementTree.parse(path).iter("testcase"):
        results[case.get("classname") or "", case.get("name")].add(case)
    return dict(results)


# -- trying again ----------------------------------------------------------------------------------


def key_of(node):
    """The class and name in a report of a test that pytest's cache names."""
    path, bracket, parameters = node.partition("[")
    *parents, name = re.sub(r"\.py(?=::)", "", path).replace("/", ".").split("::")
    return ".".join(parents), name + bracket + parameters


def tests_to_try_again(report, cache):
    """Those that failed, unless that was no accident; none at all when they are too many."""
    results = read_report(report)
    failed = json.loads((cache / "v/cache/lastfailed").read_text("utf-8"))
    never = Result(final=True)
    plain = [node for node in failed if not results.get(key_of(node), never).final]
    return plain if len(plain) <= MOST_AGAIN else []


# -- counting --------------------------------------------------------------------------------------


class Verdict:
    """Adds up reports."""

    def __init__(self, build):
        self._build = build
        self._counts = collections.Counter()
        self._ran_in = collections.Counter()
        self._again = []
        self._complaints = []

    def add(self, path):
        """Counts a report, with what of it was tried again."""
        results = read_report(path)
        again = path.with_name(f"{path.stem}-again.xml")
        for key, result in (read_report(again) if again.exists() else {}).items():
            if key not in results or not results[key].final:
                results[key] = result
                self._again.append(key)
        # The shares of a program are one suite; one share may have nothing to do.
        suite = re.sub(r"(-\d+)?(-end)?$", "", path.stem)
        self._ran_in[suite] += 0
        for (place, name), result in results.items():
            outcome = self._judged(place, name, result)
            self._counts[outcome] += 1
            self._ran_in[suite] += outcome != SKIPPED

    def _judged(self, place, name, result):
        if result.outcome != SKIPPED or skips.is_explained(self._build, place, result.reason):
            return result.outcome
        self._complaints.append(f"skipped, and nothing explains it: {place}.{name}: {result.reason}")
        return FAILED

    def print(self):
        """Prints what a reader has to know, and the closing line last; returns whether all is well."""
        for suite in (suite for suite, ran in self._ran_in.items() if not ran):
            self._complaints.append(f"not one test ran: {suite}")
            self._counts[FAILED] += 1
        for place, name in self._again:
            print(f"tried again and alone: {place}.{name}")
        for complaint in self._complaints:
            print(complaint)
        passed, skipped, failed = (self._counts[each] for each in (PASSED, SKIPPED, FAILED))
        print(f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else ""))
        return passed and not failed


def main(command, *words):
    """The exit status."""
    paths = [pathlib.Path(word) for word in words]
    if command == "again":
        for node in tests_to_try_again(*paths):
            print(node)
        return 0
    verdict = Verdict(words[0])
    for path in paths[1:]:
        if not path.stem.endswith("-again"):
            verdict.add(path)
    return 0 if verdict.print() else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
