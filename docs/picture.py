#!/usr/bin/python3
"""Runs scripts/demo in a terminal of its own and writes the end of what it shows as a picture.

    docs/picture.py docs/demo.svg

The daemon's own log, which the demo shows among its lines, is left out."""

from __future__ import annotations

import argparse
import fcntl
import os
import pty
import re
import struct
import subprocess
import termios
from html import escape
from pathlib import Path
from typing import Iterator

ROOT = Path(__file__).resolve().parent.parent
COLUMNS = 138
STYLE = re.compile(r"\033\[([\d;]*)m")
DAEMON = re.compile(r"\d\d:\d\d:\d\d\.\d{3}  daemon ")
HEADING = "TIME "

CHARACTER, LINE, MARGIN = 7.2, 16, 14
FONT = "ui-monospace, DejaVu Sans Mono, Menlo, Consolas, monospace"
GROUND, INK = "#1d2126", "#d6dbe0"
COLOURS = {
    "31": "#f0716b",
    "32": "#8ccf7e",
    "33": "#e5c76b",
    "35": "#c9a0e0",
    "36": "#71c9d4",
    "2": "#7d8590",
}

Run = tuple[int, str, str]  # column, style, text


def record(command: list[str]) -> str:
    """What the command writes to a terminal."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 50, COLUMNS, 0, 0))
    environment = {**os.environ, "TERM": "xterm-256color"}
    environment.pop("NO_COLOR", None)
    with subprocess.Popen(
        command, cwd=ROOT, env=environment, stdin=slave, stdout=slave, stderr=slave
    ) as demo:
        os.close(slave)
        written = b"".join(iter(lambda: read_some(master), b""))
    os.close(master)
    if demo.returncode != 0:
        raise SystemExit(f"{' '.join(command)} ended with {demo.returncode}")
    return written.decode().replace("\r\n", "\n")


def read_some(terminal: int) -> bytes:
    """Nothing when the last writer has gone, which a terminal tells as an error."""
    try:
        return os.read(terminal, 65536)
    except OSError:
        return b""


def runs_of(line: str) -> Iterator[Run]:
    """Pieces of one style, cut at the terminal's width."""
    column, style = 0, ""
    for place, piece in enumerate(STYLE.split(line)):
        if place % 2:
            style = piece
            continue
        shown = piece[: COLUMNS - column]
        if shown.strip():
            yield column, style, shown
        column += len(shown)


def drawn_run(run: Run) -> str:
    column, style, text = run
    codes = style.split(";")
    colour = next((f' fill="{COLOURS[code]}"' for code in codes if code in COLOURS), "")
    weight = ' font-weight="bold"' if "1" in codes else ""
    under = ' text-decoration="underline"' if "4" in codes else ""
    blanks = len(text) - len(text.lstrip())
    x = MARGIN + (column + blanks) * CHARACTER
    return f'<tspan x="{x:.1f}"{colour}{weight}{under}>{escape(text.strip())}</tspan>'


def picture(lines: list[str]) -> str:
    width, height = COLUMNS * CHARACTER + 2 * MARGIN, len(lines) * LINE + 2 * MARGIN
    head = (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" width="{width:.0f}" '
        f'height="{height}" font-family="{FONT}" font-size="12">'
    )
    body = [f'<rect width="100%" height="100%" rx="8" fill="{GROUND}"/>']
    for number, line in enumerate(lines):
        runs = "".join(map(drawn_run, runs_of(line)))
        if runs:
            body.append(
                f'<text y="{MARGIN + number * LINE + 12}" fill="{INK}" xml:space="preserve">{runs}</text>'
            )
    return "\n".join([head, *body, "</svg>\n"])


def end_of(shown: list[str], count: int) -> list[str]:
    """Below the table's heading, without the daemon's own lines."""
    plain = {line: STYLE.sub("", line) for line in shown}
    headings = [line for line in shown if plain[line].startswith(HEADING)]
    lines = [line for line in shown if line not in headings and not DAEMON.match(plain[line])]
    return headings[:1] + lines[-count:]


def main() -> None:
    parser = argparse.ArgumentParser(prog="docs/picture.py", description=__doc__.partition("\n")[0])
    parser.add_argument("file", type=Path, help="the picture to write")
    parser.add_argument("--seconds", type=int, default=15, metavar="N", help="of the demo (15)")
    parser.add_argument("--lines", type=int, default=36, metavar="N", help="of its end (36)")
    args = parser.parse_args()
    shown = record(["scripts/demo", "--seconds", str(args.seconds)]).splitlines()
    args.file.write_text(picture(end_of(shown, args.lines)))


if __name__ == "__main__":
    main()
