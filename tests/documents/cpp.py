"""Enough of C++ to follow a text from the table or the call that holds it to the line that logs it."""
from __future__ import annotations

import re
from dataclasses import dataclass, field
from functools import cached_property
from pathlib import Path
from typing import Iterator

TOKEN = re.compile(
    r"""(?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
      | (?P<text>(?:u8|[LuUR])?"(?:[^"\\\n]|\\.)*")
      | (?P<char>'(?:[^'\\\n]|\\.)+')
      | (?P<word>[A-Za-z_]\w*)
      | (?P<number>\d(?:[\w.']|(?<=[eEpP])[+-])*)
      | (?P<sign>->|::|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|\+=|-=|.)""",
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
PAIRS = {"(": ")", "[": "]", "{": "}"}
NOT_CALLED = {
    "if",
    "for",
    "while",
    "switch",
    "return",
    "sizeof",
    "alignof",
    "decltype",
    "static_assert",
    "catch",
    "new",
}

Tokens = list[str]


def tokens_of(source: str) -> Tokens:
    """Without comments and directives; texts that stand side by side are one."""
    found: Tokens = []
    for match in TOKEN.finditer(source):
        if match.lastgroup == "skip":
            continue
        token = match.group()
        if match.lastgroup == "text" and found and is_text(found[-1]):
            found[-1] = found[-1][:-1] + token[1:]
        else:
            found.append(token)
    return found


def is_text(token: str) -> bool:
    return token.startswith('"')


def text_of(token: str) -> str:
    return token[1:-1].replace('\\"', '"').replace("\\n", "\n").replace("\\\\", "\\")


def is_word(token: str) -> bool:
    return re.match(r"[A-Za-z_]", token) is not None


def closing(tokens: Tokens, start: int) -> int:
    """The place of the bracket that closes the one at `start`."""
    depth = 0
    for place in range(start, len(tokens)):
        if tokens[place] in PAIRS:
            depth += 1
        elif tokens[place] in PAIRS.values():
            depth -= 1
            if depth == 0:
                return place
    raise ValueError(f"nothing closes {tokens[start : start + 10]}")


def split(tokens: Tokens, sign: str = ",", of_types: bool = False) -> list[Tokens]:
    """Parts between signs that stand in no bracket; among types angles are brackets, too."""
    opening, ending = set(PAIRS), set(PAIRS.values())
    if of_types:
        opening, ending = opening | {"<"}, ending | {">"}
    parts: list[Tokens] = [[]]
    depth = 0
    for token in tokens:
        depth += (token in opening) - (token in ending)
        if token == sign and depth == 0:
            parts.append([])
        else:
            parts[-1].append(token)
    return [part for part in parts if part]


@dataclass
class Function:
    source: "Source"
    name: str
    parameters: list[Tokens]
    body: Tokens

    @cached_property
    def names(self) -> list[str]:
        return [name_of_parameter(each) for each in self.parameters]


def name_of_parameter(declaration: Tokens) -> str:
    """The last word before a default, an array's bounds or a function's own parameters; "" without a name."""
    for place, token in enumerate(declaration):
        if token == "(" and declaration[place + 1 : place + 2] in (["*"], ["&"]):
            return declaration[place + 2]
    before: Tokens = []
    for token in declaration:
        if token in ("=", "["):
            break
        before.append(token)
    words = [token for token in before if is_word(token)]
    return words[-1] if len(words) > 1 and before[-1] == words[-1] else ""


@dataclass
class Struct:
    name: str
    members: list[str] = field(default_factory=list)
    types: list[Tokens] = field(default_factory=list)


@dataclass
class Source:
    """One file, cut into what stands at its top."""

    path: Path
    functions: list[Function] = field(default_factory=list)
    structs: list[Struct] = field(default_factory=list)

    @cached_property
    def tokens(self) -> Tokens:
        return tokens_of(self.path.read_text())

    @cached_property
    def _places(self) -> dict[str, list[int]]:
        found: dict[str, list[int]] = {}
        for place, token in enumerate(self.tokens):
            found.setdefault(token, []).append(place)
        return found

    def places(self, token: str) -> list[int]:
        return self._places.get(token, [])

    def cut(self) -> "Source":
        tokens = self.tokens
        place = 0
        while place < len(tokens):
            if tokens[place] == "struct" and is_word(tokens[place + 1]) and tokens[place + 2] in ("{", ":"):
                place = self._take_struct(place)
            elif (
                is_word(tokens[place])
                and tokens[place] not in NOT_CALLED
                and tokens[place + 1 : place + 2] == ["("]
            ):
                place = self._take_function(place)
            else:
                place += 1
        return self

    def _take_struct(self, place: int) -> int:
        start = self.tokens.index("{", place)
        struct = Struct(self.tokens[place + 1])
        for declaration in split(self.tokens[start + 1 : closing(self.tokens, start)], ";"):
            name = name_of_parameter(declaration)
            if name:
                struct.members.append(name)
                struct.types.append(declaration)
        self.structs.append(struct)
        return start + 1

    def _take_function(self, place: int) -> int:
        """What is no definition is passed over."""
        end = closing(self.tokens, place + 1)
        after = end + 1
        while after < len(self.tokens) and self.tokens[after] in ("const", "noexcept", "override"):
            after += 1
        if self.tokens[after : after + 1] != ["{"]:
            return place + 1
        body_end = closing(self.tokens, after)
        parameters = split(self.tokens[place + 2 : end], of_types=True)
        body = self.tokens[after + 1 : body_end]
        self.functions.append(Function(self, self.tokens[place], parameters, body))
        self._take_inner_structs(after, body_end)
        return body_end + 1

    def _take_inner_structs(self, start: int, end: int) -> None:
        for place in range(start, end):
            if self.tokens[place] == "struct" and self.tokens[place + 2] == "{":
                self._take_struct(place)


def calls_in(tokens: Tokens, name: str) -> Iterator[list[Tokens]]:
    """The arguments of each call."""
    for place, token in enumerate(tokens[:-1]):
        if token == name and tokens[place + 1] == "(":
            yield split(tokens[place + 2 : closing(tokens, place + 1)])


def read_sources(folder: Path) -> list[Source]:
    paths = sorted(path for path in folder.rglob("*") if path.suffix in (".cpp", ".h"))
    return [Source(path).cut() for path in paths]
