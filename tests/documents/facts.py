"""What of the sources the pages name: keys of the configuration, topics, files and words."""
from __future__ import annotations

import re
from functools import cache
from pathlib import Path

from .pages import ROOT

SRC = ROOT / "src"
TOML = SRC / "common" / "bridge_config_processor_toml.cpp"
DATA_TOPICS = SRC / "converter" / "data" / "bridge_data_conv.cpp"
HERE = (SRC, ROOT / "tests", ROOT / "lab", ROOT / "fuzz", ROOT / "bench", ROOT / "scripts")


@cache
def configuration_keys() -> dict[str, list[str]]:
    """By section, in the order of the daemon's table."""
    source = TOML.read_text()
    entries = {
        name: re.findall(r'^ +(?:text|boolean|number) *\("(\w+)"', body, re.M)
        for name, body in re.findall(r"bridge_cfg_entry (\w+)\[\] = \{\n(.*?)\n    \};", source, re.DOTALL)
    }
    table = re.search(r"bridge_cfg_section sections\[\] = \{\n(.*?)\n    \};", source, re.DOTALL)
    assert table, "the table of sections"
    return {section: entries[name] for section, name in re.findall(r'\{"(\w+)", +(\w+),', table.group(1))}


def _names(source: str, array: str) -> list[str]:
    match = re.search(rf"> {array} = \{{([^}}]*)\}}", source)
    assert match, array
    return re.findall(r'"(\w+)"', match.group(1))


@cache
def topics() -> set[str]:
    """Of both planes, with <mac> for the gateway's."""
    data = DATA_TOPICS.read_text()
    names, v3_names = _names(data, "NAMES"), _names(data, "V3_NAMES")
    found: set[str] = set()
    for path in SRC.rglob("*.cpp"):
        for literal in re.findall(r'"((?:gateway|api)/[^" ]+)"', path.read_text()):
            if literal == "gateway/%s":
                found |= {f"gateway/{name}" for name in names}
            elif literal == "gateway/%s/%s":
                found |= {f"gateway/<mac>/{name}" for name in names}
            elif literal == "gateway/%s/event/%s":
                found |= {f"gateway/<mac>/event/{name}" for name in v3_names}
            else:
                assert (
                    literal.count("%") <= 1
                ), f"{literal} of {path.name} is taken for a topic that has one form"
                found.add(literal.replace("%s", "<mac>"))
    return found


@cache
def file_names() -> dict[str, list[Path]]:
    """Files of the repository by their name."""
    found: dict[str, list[Path]] = {}
    for folder in HERE:
        for path in folder.rglob("*"):
            if path.is_file() and "__pycache__" not in path.parts:
                found.setdefault(path.name, []).append(path)
    return found


@cache
def source_text() -> str:
    return "\n".join(path.read_text() for path in sorted(SRC.rglob("*")) if path.suffix in (".cpp", ".h"))


@cache
def source_words() -> frozenset[str]:
    return frozenset(re.findall(r"[A-Za-z_]\w*", source_text()))


def is_path_here(name: str) -> bool:
    """A path from the root or of `src`, or the name of one file alone."""
    if "/" not in name:
        return len(file_names().get(name, [])) == 1 or (ROOT / name).exists()
    return any((folder / name).exists() for folder in (ROOT, SRC))
