"""The signals that end the demo, as a flag that its loops look at."""

from __future__ import annotations

import signal


class Interrupted(Exception):
    """A stop signal came before there was anything to conclude."""


class StopRequest:
    """SIGINT, SIGTERM or SIGHUP asks for an orderly end; a second one for a quick end."""

    def __init__(self) -> None:
        self.number = 0
        self.count = 0
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, self._note)

    def _note(self, number: int, _frame: object) -> None:
        self.number = self.number or number
        self.count += 1

    def hurry(self) -> bool:
        return self.count > 1
