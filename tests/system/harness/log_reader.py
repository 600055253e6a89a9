"""Collects the lines of a pipe while a process runs."""
import os
import re
import select
import threading
from typing import IO, Optional, Union

from .waiting import PATIENCE, wait_on

Wanted = Union[str, re.Pattern[str]]

TAIL = 60
PIECE = 65536
END_WITHIN = 5.0


def matches(wanted: Wanted, line: str) -> bool:
    return wanted in line if isinstance(wanted, str) else wanted.search(line) is not None


class LogReader:
    """The lines so far, in order, without their line ends; a line is found by text or regular expression.

    Whoever looks takes what waits in the pipe first: all that the process had written by then is seen."""

    def __init__(self, pipe: IO[bytes]) -> None:
        self.lines: list[str] = []
        self.closed = False
        os.set_blocking(pipe.fileno(), False)
        self._pipe = pipe
        self._begun_line = b""
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self) -> None:
        readable = select.poll()
        readable.register(self._pipe, select.POLLIN)
        while not self.closed:
            readable.poll()
            with self._changed:
                self._catch_up()
        self._pipe.close()

    def _catch_up(self) -> None:
        """With the lock held: takes what waits in the pipe."""
        while not self.closed:
            try:
                piece = os.read(self._pipe.fileno(), PIECE)
            except BlockingIOError:
                return
            *ended, self._begun_line = (self._begun_line + piece).split(b"\n")
            if not piece:
                ended = [self._begun_line] if self._begun_line else []
                self.closed = True
            self.lines += (line.decode(errors="backslashreplace") for line in ended)
            self._changed.notify_all()

    def join(self) -> None:
        """Waits for the end of the pipe; but a child that outlives the process keeps it open."""
        self._thread.join(END_WITHIN)

    def mark(self) -> int:
        """The place from which a later search may start."""
        with self._changed:
            self._catch_up()
            return len(self.lines)

    def since(self, mark: int) -> list[str]:
        with self._changed:
            self._catch_up()
            return self.lines[mark:]

    def find(self, wanted: Wanted, after: int = 0) -> list[str]:
        return [line for line in self.since(after) if matches(wanted, line)]

    def wait_for(self, wanted: Wanted, timeout: float = PATIENCE, after: int = 0, count: int = 1) -> str:
        """The `count`-th line behind the mark `after` that holds `wanted`."""
        scan = {"next": after, "found": 0}

        def look() -> Optional[str]:
            while scan["next"] < len(self.lines):
                line = self.lines[scan["next"]]
                scan["next"] += 1
                if matches(wanted, line):
                    scan["found"] += 1
                    if scan["found"] == count:
                        return line + "\0"  # true also for an empty line
            if self.closed:
                raise AssertionError("the process ended" + describe())
            return None

        def describe() -> str:
            tail = "\n".join(self.lines[-TAIL:])
            return f" before line {count} with {wanted!r} came; its last lines:\n{tail}"

        return wait_on(self._changed, look, describe, timeout)[:-1]
