"""Reads a multipart form as it comes, without holding a file in memory."""

from __future__ import annotations

import hashlib
import re
from dataclasses import dataclass, field
from typing import Any, Callable, Iterator

KEPT = 256 * 1024

Read = Callable[[], bytes]
Sink = Callable[[bytes], object]


class Broken(Exception):
    """The body is no whole form."""


@dataclass
class Part:
    """What a part is called and how much of it has come. Small contents stay in `content`."""

    head: str
    size: int = 0
    content: bytes = b""
    digest: Any = field(default_factory=hashlib.sha256)

    def take(self, piece: bytes) -> None:
        self.digest.update(piece)
        self.size += len(piece)
        if self.size <= KEPT:
            self.content += piece

    def _quoted(self, key: str) -> str | None:
        found = re.search(rf'(?i)^Content-Disposition: form-data;.*? {key}="([^"]*)"', self.head, re.M)
        return found.group(1) if found else None

    @property
    def name(self) -> str | None:
        return self._quoted("name")

    @property
    def filename(self) -> str | None:
        return self._quoted("filename")

    @property
    def text(self) -> str:
        return self.content.decode()

    @property
    def sha256(self) -> str:
        return str(self.digest.hexdigest())


class FormReader:
    """`read` gives the next bytes of the body, none at its end."""

    def __init__(self, read: Read, boundary: bytes) -> None:
        self._read = read
        self._mark = b"\r\n--" + boundary
        self._buffer = b"\r\n"  # so that the first boundary looks like the others

    def _pass_until(self, mark: bytes, sink: Sink) -> None:
        while (place := self._buffer.find(mark)) < 0:
            certain = max(len(self._buffer) - len(mark) + 1, 0)
            if certain:
                sink(self._buffer[:certain])
            more = self._read()
            if not more:
                raise Broken(f"the body ends before {mark!r}")
            self._buffer = self._buffer[certain:] + more
        if place:
            sink(self._buffer[:place])
        self._buffer = self._buffer[place + len(mark) :]

    def _text_until(self, mark: bytes) -> bytes:
        pieces: list[bytes] = []
        self._pass_until(mark, pieces.append)
        return b"".join(pieces)

    def parts(self, sink: Callable[[Part, bytes], object]) -> Iterator[Part]:
        """Each part when its head is known; its content goes to `sink` before the next one."""
        if self._text_until(self._mark):
            raise Broken("there is text before the first boundary")
        while (behind := self._text_until(b"\r\n")) != b"--":
            if behind:
                raise Broken(f"{behind!r} behind a boundary")
            part = Part(self._text_until(b"\r\n\r\n").decode(errors="backslashreplace"))
            yield part
            self._pass_until(self._mark, lambda piece: sink(part, piece))
