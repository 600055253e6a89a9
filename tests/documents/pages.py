"""The pages of the documents: their headings, links, blocks, tables and code spans."""
from __future__ import annotations

import re
from dataclasses import dataclass
from functools import cached_property
from pathlib import Path
from typing import Iterator

ROOT = Path(__file__).resolve().parents[2]

FENCE = re.compile(r"^( *)```(\w*)$")
LINK = re.compile(r"!?\[(?:[^\]\[]|\[[^\]]*\])*\]\(([^)\s]+)\)", re.DOTALL)
SPAN = re.compile(r"``([^\n]+?)``|`([^`\n]+)`")
EXAMPLE = re.compile(r"^<!-- example: (.+) -->$")


@dataclass(frozen=True)
class Block:
    """Fenced, or set in by four blanks, which has no language."""

    line: int
    language: str
    lines: tuple[str, ...]
    example: str = ""  # its name, from the comment above it

    @property
    def text(self) -> str:
        return "\n".join(self.lines)

    @property
    def pattern(self) -> re.Pattern[str]:
        """Of the text, which a page breaks into lines where it likes; a blank may stand at each break."""
        return re.compile(" ?".join(re.escape(line.strip()) for line in self.lines))

    @property
    def joined(self) -> str:
        return "".join(line.strip() for line in self.lines)


@dataclass(frozen=True)
class Table:
    heading: str
    columns: tuple[str, ...]
    rows: tuple[tuple[str, ...], ...]

    def column(self, name: str) -> list[str]:
        place = self.columns.index(name)
        return [row[place] for row in self.rows]


def spans_of(text: str) -> list[str]:
    return [double.strip() or single for double, single in SPAN.findall(text)]


def cells_of(line: str) -> tuple[str, ...]:
    """A bar within a code span separates nothing."""
    return tuple(cell.strip() for cell in re.split(r"\|(?=(?:[^`]*`[^`]*`)*[^`]*$)", line.strip().strip("|")))


def anchor_of(heading: str) -> str:
    plain = re.sub(r"[`*]|\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    return re.sub(r"[^\w\- ]", "", plain.lower()).strip().replace(" ", "-")


class Page:
    def __init__(self, path: Path) -> None:
        self.path = path
        self.name = str(path.relative_to(ROOT))
        self.lines = path.read_text().splitlines()

    def __repr__(self) -> str:
        return self.name

    @cached_property
    def _cut(self) -> tuple[list[str], list[Block]]:
        """The prose, with empty lines in place of blocks, and the blocks."""
        prose: list[str] = []
        blocks: list[Block] = []
        place = 0
        while place < len(self.lines):
            end = self._end_of_block(place, prose)
            if end == place:
                prose.append(self.lines[place])
                place += 1
                continue
            blocks.append(self._block(place, end, prose))
            prose += [""] * (end - place)
            place = end
        return prose, blocks

    def _end_of_block(self, start: int, prose: list[str]) -> int:
        fence = FENCE.match(self.lines[start])
        if fence:
            close = f"{fence.group(1)}```"
            return next(end for end in range(start + 1, len(self.lines)) if self.lines[end] == close) + 1
        before = prose[-1] if prose else ""
        if before.strip() or not self.lines[start].startswith("    "):
            return start
        end = start
        while end < len(self.lines) and (self.lines[end].startswith("    ") or not self.lines[end].strip()):
            end += 1
        while not self.lines[end - 1].strip():
            end -= 1
        return end

    def _block(self, start: int, end: int, prose: list[str]) -> Block:
        fence = FENCE.match(self.lines[start])
        lines = self.lines[start + 1 : end - 1] if fence else [line[4:] for line in self.lines[start:end]]
        name = EXAMPLE.match(prose[-1]) if prose else None
        return Block(start + 1, fence.group(2) if fence else "", tuple(lines), name.group(1) if name else "")

    @property
    def prose(self) -> str:
        return "\n".join(self._cut[0])

    @property
    def blocks(self) -> list[Block]:
        return self._cut[1]

    @property
    def examples(self) -> dict[str, Block]:
        return {block.example: block for block in self.blocks if block.example}

    @cached_property
    def anchors(self) -> set[str]:
        found: dict[str, int] = {}
        anchors = set()
        for line in self._cut[0]:
            if line.startswith("#"):
                anchor = anchor_of(line.lstrip("#").strip())
                times = found[anchor] = found.get(anchor, -1) + 1
                anchors.add(f"{anchor}-{times}" if times else anchor)
        return anchors

    @property
    def links(self) -> list[str]:
        return LINK.findall(self.prose)

    @property
    def spans(self) -> list[str]:
        return spans_of(self.prose)

    @cached_property
    def tables(self) -> list[Table]:
        return list(self._read_tables())

    def _read_tables(self) -> Iterator[Table]:
        heading = ""
        rows: list[tuple[str, ...]] = []
        for line in [*self._cut[0], ""]:
            if line.startswith("|"):
                rows.append(cells_of(line))
                continue
            if len(rows) > 2:
                yield Table(heading, rows[0], tuple(rows[2:]))
            rows = []
            if line.startswith("#"):
                heading = line.lstrip("#").strip()


def page(name: str) -> Page:
    return Page(ROOT / name)


def all_pages() -> list[Page]:
    paths = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md")), ROOT / "bench" / "README.md"]
    return [Page(path) for path in paths]
