"""What is known of mutations: results of the runs so far, and reasons why some cannot be killed."""

import dataclasses
import json
import pathlib

from mutations import Mutation
from trial import Outcome


class Results:
    """A file of results that grows line by line, so that a run which was ended can go on."""

    def __init__(self, path: pathlib.Path) -> None:
        self.path = path
        self.outcomes: dict[str, Outcome] = {}
        if path.exists():
            for line in path.read_text(encoding="utf-8").splitlines():
                entry = json.loads(line)
                key = entry.pop("key")
                self.outcomes[key] = Outcome(**entry)

    def of(self, mutation: Mutation) -> Outcome | None:
        return self.outcomes.get(mutation.key)

    def add(self, mutation: Mutation, outcome: Outcome) -> None:
        self.outcomes[mutation.key] = outcome
        entry = {"key": mutation.key, **dataclasses.asdict(outcome)}
        with self.path.open("a", encoding="utf-8") as file:
            file.write(json.dumps(entry) + "\n")

    def forget_survivors(self) -> None:
        """Lets the survivors be tried again."""
        for key, outcome in list(self.outcomes.items()):
            if outcome.verdict == "survived":
                del self.outcomes[key]
        with self.path.open("w", encoding="utf-8") as file:
            for key, outcome in self.outcomes.items():
                file.write(json.dumps({"key": key, **dataclasses.asdict(outcome)}) + "\n")


class Reasons:
    """Why no test can, or need, notice a mutation: lines "file | code | mutation | reason". "#2"
    behind the code means the second of equal lines; without it all of them are meant."""

    def __init__(self, path: pathlib.Path) -> None:
        self.reasons: dict[tuple[str, ...], str] = {}
        for line in path.read_text(encoding="utf-8").splitlines():
            if line and not line.startswith("#"):
                *place, reason = (field.strip() for field in line.split(" | "))
                self.reasons[tuple(place)] = reason

    def of(self, mutation: Mutation) -> str:
        number = int(mutation.place.rsplit("|", 1)[1]) + 1
        for code in (mutation.code, f"{mutation.code} #{number}"):
            reason = self.reasons.get((mutation.file, code, mutation.what))
            if reason:
                return reason
        return ""
