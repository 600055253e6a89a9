"""What compiler and linker were told to harden, looked for in the built program."""

from __future__ import annotations

import os
import re
import subprocess
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Trait:
    name: str
    line: str  # of what readelf tells
    is_there: bool = True


TRAITS = (
    Trait("position-independent", r"\(FLAGS_1\) .*\bPIE\b"),
    Trait("relocations become read-only", r"^ +GNU_RELRO "),
    Trait("all of them at the start", r"\(FLAGS_1\) .*\bNOW\b"),
    Trait("no executable stack", r"^ +GNU_STACK .* RW +0x"),
    Trait("protected stacks", r" UND __stack_chk_fail\b"),
    Trait("fortified calls of the C library", r" UND __(?!stack_chk_)\w+_chk\b"),
    Trait("no folder of libraries of its own", r"\((?:RPATH|RUNPATH)\)", is_there=False),
    Trait("no relocations in the code", r"\(TEXTREL\)|\(FLAGS\) .*\bTEXTREL\b", is_there=False),
)


def lacks(program: Path) -> list[Trait]:
    """The traits that the program, of whatever processor, does not have."""
    command = ["readelf", "--wide", "--program-headers", "--dynamic", "--dyn-syms", str(program)]
    environment = {**os.environ, "LC_ALL": "C"}
    text = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, env=environment).stdout
    return [each for each in TRAITS if bool(re.search(each.line, text, re.MULTILINE)) != each.is_there]
