"""Uplinks that go on while a test does something else."""
import itertools
import threading
from dataclasses import dataclass

from .forwarder import PUSH_ACK, Forwarder
from .samples import rxpk_v2

PERIOD = 0.02


@dataclass(frozen=True)
class Sent:
    data: str
    token: int


class Traffic:
    """Sends an uplink every 20 ms inside its `with` block."""

    def __init__(self, forwarder: Forwarder) -> None:
        self.sent: list[Sent] = []
        self._forwarder = forwarder
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def _run(self) -> None:
        for number in itertools.count():
            data = f"traffic{number:06d}"
            self.sent.append(Sent(data, self._forwarder.push_data({"rxpk": [rxpk_v2(data=data)]})))
            if self._stop.wait(PERIOD):
                return

    def __enter__(self) -> "Traffic":
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join()

    def acknowledged(self) -> set[int]:
        return {each.token for each in self._forwarder.up.received if each.kind == PUSH_ACK}
