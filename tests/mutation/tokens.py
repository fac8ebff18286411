"""Cuts a C++ source into tokens, as far as mutations need it."""

import dataclasses
import re

_PATTERN = re.compile(
    r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<preprocessor>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<string>(?:u8|[uUL])?R"(?P<mark>[^()\s]*)\(.*?\)(?P=mark)"|(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  | (?P<character>'(?:\\.[^']*|[^'\\\n])')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d+)?)[a-zA-Z_]*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><=>|->\*|<<=|>>=|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s])
    """,
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)


@dataclasses.dataclass(frozen=True)
class Token:
    """One token; comments and preprocessor lines are none."""

    kind: str  # string, character, number, name or sign
    text: str
    begin: int
    end: int


def tokens_of(source: str) -> list[Token]:
    """The tokens of a source text, in order."""
    return [
        Token(match.lastgroup, match[0], match.start(), match.end())
        for match in _PATTERN.finditer(source)
        if match.lastgroup not in ("comment", "preprocessor")
    ]


OPENING = {"(": ")", "[": "]", "{": "}"}


def closing_of(tokens: list[Token], opening: int) -> int:
    """Index of the bracket that closes the one at index `opening`."""
    depth = 0
    for index in range(opening, len(tokens)):
        if tokens[index].text in OPENING:
            depth += 1
        elif tokens[index].text in OPENING.values():
            depth -= 1
            if depth == 0:
                return index
    raise ValueError(f"bracket at {tokens[opening].begin} is not closed")
