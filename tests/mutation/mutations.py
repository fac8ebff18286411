"""Finds the places of a C++ source at which one small thing can be made wrong.

A mutation replaces one piece of text. Which places are code, and which kind of code, is told from
the tokens; this knows as much of C++ as the sources of this tree use, formatted by clang-format.
"""

import dataclasses
import re
from collections.abc import Iterator

from tokens import OPENING, Token, closing_of, tokens_of


@dataclasses.dataclass(frozen=True)
class Mutation:
    """One change of one file."""

    file: str
    line: int
    begin: int
    end: int
    text: str  # what stands at begin..end instead
    kind: str  # constant, comparison, statement, branch or lock
    what: str  # for people
    code: str  # the line as it is
    place: str  # of the line; the same in other versions of the file
    key: str  # of the mutation, likewise

    @property
    def is_shared_constant(self) -> bool:
        """Whether every object that includes the file may hold a copy of the value."""
        is_enumerator = re.match(r"\w+ = [^;]+$", self.code) is not None
        return "constexpr" in self.code or is_enumerator


# Constants with a name: each becomes the next one of its row.
_ROWS = [
    ["DBUS_HANDLER_RESULT_HANDLED", "DBUS_HANDLER_RESULT_NOT_YET_HANDLED"],
    ["true", "false"],
    ["TRUE", "FALSE"],
    ["G_SOURCE_REMOVE", "G_SOURCE_CONTINUE"],
    ["Verdict::Keep", "Verdict::Remove"],
    ["StartUp::Serve", "StartUp::PrintVersion"],
    ["DeliveryCode::" + name for name in ("PartContinues", "PartComplete", "ResponseComplete")],
    ["failure::" + name for name in (
        "kNone", "kUnknownRequest", "kTransport", "kRefusedByServer", "kServerError",
        "kNotAuthorized", "kNotAccepting", "kUnknownConnection", "kFormat", "kExchangeFailed",
        "kBadArguments", "kNoConnection", "kNotPermitted")],
]
_NEXT_NAME = {name: row[(at + 1) % len(row)] for row in _ROWS for at, name in enumerate(row)}

_COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
_OPERATORS = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "&": "|", "|": "&",
              "+=": "-=", "-=": "+=", "++": "--", "--": "++"}

# A statement that begins with one of these is none that can be left out.
_NO_STATEMENT = frozenset(
    """alignas auto case catch class const constexpr default do else enum explicit extern for friend
    goto if inline mutable namespace operator private protected public return static static_assert
    struct switch template try typedef typename union using virtual void volatile while bool char
    int long short unsigned signed float double""".split())
_BLOCK_INTRODUCTIONS = frozenset(
    [")", "]", "const", "noexcept", "override", "else", "do", "try", "mutable"])
_SCOPES = frozenset(["namespace", "class", "struct", "union", "enum", "extern"])
_LOCKS = frozenset(["Lock", "RecursiveLock", "lock_guard", "unique_lock", "scoped_lock"])


def mutations_of(file: str, source: str) -> list[Mutation]:
    """All mutations of a source, in the order of their places."""
    found = _Finder(file, source).find()
    return sorted(found, key=lambda mutation: (mutation.begin, mutation.end, mutation.text))


def apply(mutation: Mutation, source: str) -> str:
    """The source with the mutation in it."""
    return source[: mutation.begin] + mutation.text + source[mutation.end :]


@dataclasses.dataclass
class _Frame:
    """A pair of braces that is open."""

    kind: str  # scope, block or list
    start: int  # index of the first token of the statement under way
    depth: int = 0  # parentheses open within it


class _Finder:
    def __init__(self, file: str, source: str) -> None:
        self.file = file
        self.source = source
        self.tokens = tokens_of(source)
        self.skipped = self._skipped_tokens()

    def find(self) -> Iterator[Mutation]:
        for index, token in enumerate(self.tokens):
            if index in self.skipped:
                continue
            yield from self._constants(index, token)
            yield from self._operators(index, token)
            yield from self._conditions(index, token)
        yield from self._statements()

    def _mutation(self, begin: int, end: int, text: str, kind: str, what: str) -> Mutation:
        line_begin = self.source.rfind("\n", 0, begin) + 1
        line_text = self.source[line_begin : self.source.find("\n", begin)]
        code = line_text.strip()
        same_before = self.source[:line_begin].split("\n").count(line_text)
        place = f"{self.file}|{code}|{same_before}"
        key = f"{place}|{begin - line_begin}|{end - begin}|{text}"
        line = self.source.count("\n", 0, begin) + 1
        what = " ".join(what.split())
        return Mutation(self.file, line, begin, end, text, kind, what, code, place, key)

    def _replaced(self, token: Token, text: str, kind: str) -> Mutation:
        what = f"{token.text} -> {text or 'nothing'}"
        return self._mutation(token.begin, token.end, text, kind, what)

    def _skipped_tokens(self) -> set[int]:
        """Tokens of static_assert, using, template heads, linkage and attributes."""
        skipped: set[int] = set()
        for index, token in enumerate(self.tokens):
            following = self.tokens[index + 1].text if index + 1 < len(self.tokens) else ""
            if token.text == "static_assert":
                skipped.update(range(index, closing_of(self.tokens, index + 1) + 1))
            elif token.text == "[" and following == "[":
                skipped.update(range(index, closing_of(self.tokens, index) + 1))
            elif token.text == "extern" and following.startswith('"'):
                skipped.add(index + 1)
            elif token.text in ("operator", "using"):
                skipped.update((index + 1, index + 2))
            elif token.text == "=" and following == "0" and self.tokens[index - 1].text in (
                    ")", "const", "noexcept"):
                skipped.add(index + 1)  # a pure virtual function
        return skipped

    # -- constants -------------------------------------------------------------------------------

    def _constants(self, index: int, token: Token) -> Iterator[Mutation]:
        if token.kind == "number":
            yield from self._number(token)
        elif token.kind == "string":
            text = '""' if token.text != '""' else '"mutant"'
            yield self._replaced(token, text, "constant")
        elif token.kind == "character":
            yield self._replaced(token, "' '" if token.text != "' '" else "'_'", "constant")
        elif token.kind == "name":
            yield from self._named_constant(index, token)

    def _number(self, token: Token) -> Iterator[Mutation]:
        digits = token.text.rstrip("uUlLzZ")
        suffix = token.text[len(digits) :]
        try:
            value = int(digits.replace("'", ""), 0)
        except ValueError:
            return
        yield self._replaced(token, f"{value + 1}{suffix}", "constant")
        if value > 0:
            yield self._replaced(token, f"{value - 1}{suffix}", "constant")

    def _named_constant(self, index: int, token: Token) -> Iterator[Mutation]:
        if token.text in _NEXT_NAME:
            yield self._replaced(token, _NEXT_NAME[token.text], "constant")
            return
        if index < 2 or self.tokens[index - 1].text != "::":
            return
        owner = self.tokens[index - 2]
        name = f"{owner.text}::{token.text}"
        if name in _NEXT_NAME:
            text = _NEXT_NAME[name]
            yield self._mutation(owner.begin, token.end, text, "constant", f"{name} -> {text}")

    # -- comparisons and other operators -----------------------------------------------------------

    def _stands_between_blanks(self, token: Token) -> bool:
        """Tells operators from brackets of templates and from references."""
        around = self.source[token.begin - 1 : token.begin] + self.source[token.end : token.end + 1]
        return around.isspace() and len(around) == 2

    def _operators(self, index: int, token: Token) -> Iterator[Mutation]:
        if token.text == "!":
            yield self._replaced(token, "", "comparison")
        elif token.text in ("++", "--"):
            yield self._replaced(token, _OPERATORS[token.text], "constant")
        elif token.kind == "sign" and self._stands_between_blanks(token):
            if self.tokens[index - 1].text in ("template", "operator"):
                return
            if token.text in _COMPARISONS:
                yield self._replaced(token, _COMPARISONS[token.text], "comparison")
            elif token.text in _OPERATORS:
                kind = "comparison" if token.text in ("&&", "||") else "constant"
                yield self._replaced(token, _OPERATORS[token.text], kind)

    # -- branches --------------------------------------------------------------------------------

    def _conditions(self, index: int, token: Token) -> Iterator[Mutation]:
        if token.text in ("if", "while") and self.tokens[index + 1].text == "(":
            yield from self._condition(token, index + 1)
        elif token.text == "?":
            yield from self._choice(index)

    def _condition(self, keyword: Token, opening: int) -> Iterator[Mutation]:
        """Takes the other branch; a loop is not entered, since the opposite would rarely end."""
        first, last = opening + 1, closing_of(self.tokens, opening)
        for index in range(first, last):
            if self.tokens[index].text == ";":
                first = index + 1
        if any(token.text == "=" for token in self.tokens[first:last]):
            return  # declares its variable
        begin, end = self.tokens[first].begin, self.tokens[last].begin
        condition = self.source[begin:end]
        if keyword.text == "while":
            yield self._mutation(begin, end, "false", "branch", f"never: while ({condition})")
        else:
            opposite = f"!({condition})"
            yield self._mutation(begin, end, opposite, "branch", f"opposite: if ({condition})")

    def _choice(self, question: int) -> Iterator[Mutation]:
        colon = self._find_on_level(question + 1, {":"})
        end = self._find_on_level(colon + 1, {";", ",", ")", "}", "]"}) if colon else None
        if not colon or not end:
            return
        first = self.source[self.tokens[question + 1].begin : self.tokens[colon - 1].end]
        second = self.source[self.tokens[colon + 1].begin : self.tokens[end - 1].end]
        if "?" in first + second:
            return
        yield self._mutation(
            self.tokens[question + 1].begin, self.tokens[end - 1].end, f"{second} : {first}",
            "branch", f"swapped: ? {first} : {second}")

    def _find_on_level(self, index: int, wanted: set[str]) -> int | None:
        """The next token of `wanted` outside of brackets opened on the way."""
        while index < len(self.tokens):
            text = self.tokens[index].text
            if text in wanted:
                return index
            if text in OPENING.values():
                return None
            index = closing_of(self.tokens, index) + 1 if text in OPENING else index + 1
        return None

    # -- statements ------------------------------------------------------------------------------

    def _statements(self) -> Iterator[Mutation]:
        frames = [_Frame("scope", 0)]
        for index, token in enumerate(self.tokens):
            frame = frames[-1]
            if token.text == "{":
                frames.append(_Frame(self._kind_of_braces(frame, index), index + 1))
            elif token.text == "}":
                ended = frames.pop()
                if ended.kind != "list" and frames[-1].depth == 0:
                    frames[-1].start = index + 1
            elif token.text in "([":
                frame.depth += 1
            elif token.text in ")]":
                frame.depth -= 1
            elif token.text == ";" and frame.depth == 0:
                if frame.kind == "block":
                    yield from self._statement(frame.start, index)
                frame.start = index + 1

    def _kind_of_braces(self, frame: _Frame, opening: int) -> str:
        before = [token.text for token in self.tokens[frame.start : opening]]
        if frame.depth == 0 and _SCOPES.intersection(before) and "(" not in before:
            return "scope"
        if not before:
            return "block" if frame.kind == "block" else "list"
        behind_parameters = before[-before[::-1].index(")") :] if ")" in before else []
        returns_named_type = "->" in behind_parameters
        if before[-1] in _BLOCK_INTRODUCTIONS or returns_named_type:
            return "block"
        # The body behind the list of a constructor's initialisers.
        return "block" if before[-1] == "}" and frame.kind == "scope" else "list"

    def _statement(self, first: int, last: int) -> Iterator[Mutation]:
        statement = self.tokens[first:last]
        if not statement or first in self.skipped:
            return
        words = [token.text for token in statement]
        text = self.source[statement[0].begin : self.tokens[last].end]
        if _LOCKS.intersection(words) and "(" in words and words[0] != "return":
            yield self._removed(statement[0], self.tokens[last], "lock", text)
        elif words == ["return"] or self._may_go(statement):
            yield self._removed(statement[0], self.tokens[last], "statement", text)

    def _removed(self, first: Token, last: Token, kind: str, text: str) -> Mutation:
        # An empty statement stays, for a branch without braces.
        return self._mutation(first.begin, last.end, ";", kind, f"removed: {text}")

    @staticmethod
    def _may_go(statement: list[Token]) -> bool:
        """Whether it is an expression, a throw or a jump, and no declaration."""
        if statement[0].text in ("break", "continue", "throw", "delete"):
            return True
        if statement[0].text in _NO_STATEMENT or statement[0].kind not in ("name", "sign"):
            return False
        if statement[0].kind == "sign":
            return statement[0].text in ("(", "*", "++", "--")
        index = 1
        while index + 1 < len(statement) and statement[index].text == "::":
            index += 2
        return index < len(statement) and statement[index].text in (
            "(", "[", ".", "->", "=", "+=", "-=", "|=", "&=", "++", "--", "<<")
