"""The log that a person reads: an aligned table, with colour on a terminal and without on a pipe."""

from __future__ import annotations

import os
import sys
from datetime import datetime

_STYLES = {
    "up": "32", "down": "36", "tx_ack": "36", "stats": "35", "total": "1", "daemon": "2",
    "bad": "31;1", "warn": "33", "title": "1", "head": "1;4",
}  # fmt: skip

_COLUMNS = (
    ("TIME", "<", 12), ("EVENT", "<", 6), ("DEVADDR", "<", 8), ("FCNT", ">", 5), ("FREQ MHZ", ">", 8),
    ("DATA RATE", "<", 10), ("RSSI", ">", 4), ("SNR", ">", 5), ("SIZE", ">", 4), ("ACK MS", ">", 6),
    ("NOTE", "<", 0),
)  # fmt: skip
_ROWS_BETWEEN_HEADINGS = 40


class View:
    def __init__(self) -> None:
        terminal = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
        self._colour = terminal and "NO_COLOR" not in os.environ
        self._rows = 0

    def text(self, text: str = "", style: str = "") -> None:
        print(self._styled(text, style), flush=True)

    def row(self, event: str, *cells: str, note: str, style: str = "") -> None:
        """One line of the table; `cells` are the columns from DEVADDR on, and others stay blank. A style
        is for the whole line; without one only the event has its colour."""
        if self._rows % _ROWS_BETWEEN_HEADINGS == 0:
            self.text(_line([name for name, _, _ in _COLUMNS]), "head")
        self._rows += 1
        blanks = [""] * (len(_COLUMNS) - 3 - len(cells))
        self._log([event, *cells, *blanks, note], style)

    def remark(self, event: str, note: str, style: str = "") -> None:
        """A line of the log that has no use for the columns."""
        self._rows += 1 if self._rows else 0
        self._log([event, note], style)

    def _log(self, cells: list[str], style: str) -> None:
        line = _line([datetime.now().strftime("%H:%M:%S.%f")[:-3], *cells])
        if style:
            self.text(line, style)
            return
        time_end, event_end = _COLUMNS[0][2] + 2, _COLUMNS[0][2] + 2 + _COLUMNS[1][2]
        self.text(line[:time_end] + self._styled(line[time_end:event_end], cells[0]) + line[event_end:])

    def _styled(self, text: str, style: str) -> str:
        if self._colour and style in _STYLES:
            return f"\033[{_STYLES[style]}m{text}\033[0m"
        return text


def _line(cells: list[str]) -> str:
    parts = [f"{cell:{align}{width}}" for cell, (_, align, width) in zip(cells, _COLUMNS)]
    return "  ".join(parts).rstrip()
