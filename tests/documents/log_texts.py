"""The texts of the log's lines, level by level, as the sources have them: literal ones, and those that reach
the logging call from a table's row or a caller."""
from __future__ import annotations

import re
from collections import defaultdict
from dataclasses import dataclass
from functools import cache
from pathlib import Path
from typing import Iterator, Optional

from .cpp import (
    Function,
    Source,
    Struct,
    Tokens,
    calls_in,
    closing,
    is_text,
    is_word,
    read_sources,
    split,
    text_of,
)

LEVELS = ("ERROR", "WARN", "INFO", "DEBUG", "TRACE")
WITHOUT_TEXT = frozenset({"nullptr", ""})

# Texts of libraries: a callback that the library calls with a text of its own.
OF_LIBRARIES = {("bridge_mqtt.cpp", "on_tls_error")}


class Untraceable(Exception):
    """A text that cannot be followed to a literal. Whoever adds such a road teaches it here."""


@dataclass(frozen=True)
class LogText:
    level: str
    text: str
    file: str


class Program:
    def __init__(self, folder: Path) -> None:
        self.sources = read_sources(folder)
        self.functions: dict[str, list[Function]] = defaultdict(list)
        self.structs: dict[str, list[tuple[Source, Struct]]] = defaultdict(list)
        self._initialised: dict[str, list[Tokens]] = {}
        for source in self.sources:
            for function in source.functions:
                self.functions[function.name].append(function)
            for struct in source.structs:
                self.structs[struct.name].append((source, struct))

    # --- objects of a table's type ---

    def _initialisers(self, name: str) -> list[Tokens]:
        """What stands in the braces of each object of the type, those within other objects included."""
        if name not in self._initialised:
            self._initialised[name] = list(self._find_initialisers(name))
        return self._initialised[name]

    def _find_initialisers(self, name: str) -> Iterator[Tokens]:
        for source in self.sources:
            for place in source.places(name):
                if source.tokens[place - 1] != "struct":
                    yield from self._initialised_at(source.tokens, place)
        for owners in list(self.structs.values()):
            for _, owner in owners:
                for index, declaration in enumerate(owner.types):
                    if name in declaration:
                        yield from self._within(owner.name, index)

    def _within(self, owner: str, index: int) -> Iterator[Tokens]:
        for values in self._initialisers(owner):
            parts = split(values)
            if index < len(parts) and parts[index][0] == "{":
                yield parts[index][1:-1]

    @staticmethod
    def _initialised_at(tokens: Tokens, place: int) -> Iterator[Tokens]:
        place += 1
        if tokens[place] == "<":
            place = tokens.index(">", place) + 1
        if tokens[place] == "{":
            yield tokens[place + 1 : closing(tokens, place)]
            return
        if not is_word(tokens[place]):
            return
        place += 1
        is_array = tokens[place] == "["
        if is_array:
            place = closing(tokens, place) + 1
        if tokens[place] != "=" or tokens[place + 1] != "{":
            return
        values = tokens[place + 2 : closing(tokens, place + 1)]
        if not is_array:
            yield values
            return
        for row in split(values):
            if row[0] == "{":
                yield row[1:-1]

    def _values_of_member(self, member: str, declaration: Tokens) -> Iterator[Tokens]:
        """Of all objects of the type that the declaration names."""
        names = [token for token in declaration if token in self.structs]
        for name in names:
            for _, struct in self.structs[name]:
                if member not in struct.members:
                    continue
                index = struct.members.index(member)
                for values in self._initialisers(name):
                    parts = split(values)
                    if index < len(parts):
                        yield parts[index]

    # --- following a value ---

    def _callers(self, called: Function) -> Iterator[tuple[Function, list[Tokens]]]:
        for source in self.sources:
            local = [each for each in source.functions if each.name == called.name]
            if local and called.source is not source:
                continue  # another function of that name
            for function in source.functions if source.places(called.name) else ():
                for arguments in calls_in(function.body, called.name):
                    if len(arguments) == len(called.names):
                        yield function, arguments

    def values(
        self, expression: Tokens, function: Function, seen: frozenset[tuple[str, str]] = frozenset()
    ) -> set[str]:
        """Tokens that the expression may stand for: texts, or names of constants."""
        if not expression:
            raise Untraceable("nothing")
        if len(expression) == 1 and is_text(expression[0]):
            return {expression[0]}
        if "?" in expression:
            return self._values_of_choice(expression, function, seen)
        if len(expression) == 1:
            return self._values_of_name(expression[0], function, seen)
        if expression[-2] in (".", "->"):
            return self._values_of_member_access(expression, function)
        raise Untraceable(" ".join(expression))

    def _values_of_choice(
        self, expression: Tokens, function: Function, seen: frozenset[tuple[str, str]]
    ) -> set[str]:
        choices = split(expression[expression.index("?") + 1 :], ":")
        return set().union(*(self.values(each, function, seen) for each in choices))

    def _values_of_name(self, name: str, function: Function, seen: frozenset[tuple[str, str]]) -> set[str]:
        if name in ("nullptr", "NULL") or name.startswith("BRIDGE_LOG_"):
            return {name}
        if name in function.names:
            return self._values_of_parameter(name, function, seen)
        assigned = self._assigned(name, function.body) or self._assigned(name, function.source.tokens)
        if assigned is None:
            raise Untraceable(f"{name} in {function.name} of {function.source.path.name}")
        return self.values(assigned, function, seen)

    def _values_of_parameter(
        self, name: str, function: Function, seen: frozenset[tuple[str, str]]
    ) -> set[str]:
        key = (function.name, name)
        if key in seen:
            return set()
        found: set[str] = set()
        index = function.names.index(name)
        callers = list(self._callers(function))
        if not callers and (function.source.path.name, function.name) not in OF_LIBRARIES:
            raise Untraceable(f"nobody calls {function.name} of {function.source.path.name}")
        for caller, arguments in callers:
            found |= self.values(arguments[index], caller, seen | {key})
        return found

    @staticmethod
    def _assigned(name: str, tokens: Tokens) -> Optional[Tokens]:
        for place, token in enumerate(tokens[:-1]):
            if token == name and tokens[place + 1] == "=" and tokens[place - 1] == "*":
                return split(tokens[place + 2 :], ";")[0]
        return None

    def _values_of_member_access(self, expression: Tokens, function: Function) -> set[str]:
        """Of a member, or of a member's member."""
        path = [token for token in expression if is_word(token) or token == "["]
        base, members = path[0], path[1:]
        if "[" in expression:
            members = [
                token for token in expression[closing(expression, expression.index("[")) :] if is_word(token)
            ]
        declarations = [
            each for each, name in zip(function.parameters, function.names, strict=True) if name == base
        ]
        declarations += self._declarations(base, function.body) + self._declarations(
            base, function.source.tokens
        )
        for member in members[:-1]:
            declarations = [found for each in declarations for found in self._types_of_member(member, each)]
        for declaration in declarations:
            values = list(self._values_of_member(members[-1], declaration))
            if values:
                return set().union(*(self.values(each, function) for each in values))
        raise Untraceable(f"{' '.join(expression)} in {function.name} of {function.source.path.name}")

    def _types_of_member(self, member: str, declaration: Tokens) -> list[Tokens]:
        return [
            struct.types[struct.members.index(member)]
            for name in declaration
            if name in self.structs
            for _, struct in self.structs[name]
            if member in struct.members
        ]

    @staticmethod
    def _declarations(name: str, tokens: Tokens) -> list[Tokens]:
        """The words before a name where it is declared."""
        found = []
        for place, token in enumerate(tokens):
            if (
                token == name
                and place > 0
                and (is_word(tokens[place - 1]) or tokens[place - 1] in ("&", "*", ">"))
            ):
                found.append(tokens[max(0, place - 8) : place])
        return found

    # --- logging calls ---

    def _texts_of(self, arguments: list[Tokens], function: Function) -> set[str]:
        """The first of the arguments, or the second where the first stands for nothing but it."""
        if arguments[0] == ['"%s"']:
            arguments = arguments[1:]
        values = self.values(arguments[0], function)
        return {text_of(each) for each in values if is_text(each)} - WITHOUT_TEXT

    def _texts_of_level(self, level: str, function: Function) -> Iterator[str]:
        for arguments in calls_in(function.body, f"BRIDGE_{level}"):
            yield from self._texts_of(arguments, function)
        for arguments in calls_in(function.body, "bridge_log_print_message"):
            if f"BRIDGE_LOG_{level}" in self.values(arguments[0], function):
                yield from self._texts_of(arguments[3:], function)

    def texts(self, level: str) -> set[LogText]:
        return {
            LogText(level, text, source.path.name)
            for source in self.sources
            for function in source.functions
            for text in self._texts_of_level(level, function)
        }


CONVERSION = re.compile(r"%[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j)?([diuoxXcsfeEgGpm%])")


def squeezed(text: str) -> str:
    return " ".join(text.split())


@cache
def pattern_of(text: str) -> re.Pattern[str]:
    """What a page writes for a text: a word in capitals, or three points, for each value."""
    parts: list[str] = []
    at = 0
    text = squeezed(text)
    for match in CONVERSION.finditer(text):
        parts.append(re.escape(text[at : match.start()]))
        parts.append("%" if match.group(1) == "%" else r"(?:[A-Z][A-Z_]*|\.\.\.)")
        at = match.end()
    parts.append(re.escape(text[at:]))
    return re.compile("".join(parts))
