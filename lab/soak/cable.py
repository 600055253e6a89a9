"""The cable between two networks, as a process of its own: it carries packets from one TUN device to the other,
late, lossy or not at all.

    cable LEFT RIGHT SEED   descriptors of the two devices, and what its losses and delays are drawn from

A line on standard input is how it carries from now on: DELAY_MS JITTER_MS LOSS, where LOSS is a share of 1; the cable
is cut at 1. The kernel's own means for this, a netem queue, is not in every kernel.
"""

from __future__ import annotations

import heapq
import os
import random
import select
import sys
import time

_PACKET_LIMIT = 65535
_QUEUE_LIMIT = 20000  # packets; what does not fit is lost, as in any queue


class _Cable:
    def __init__(self, left: int, right: int, seed: int) -> None:
        self._other = {left: right, right: left}
        self._under_way: list[tuple[float, int, int, bytes]] = []
        self._number = 0
        self._delay = self._jitter = self._loss = 0.0
        self._rng = random.Random(seed)

    def obey(self, line: str) -> None:
        delay, jitter, self._loss = (float(word) for word in line.split())
        self._delay, self._jitter = delay / 1000, jitter / 1000

    def carry(self, source: int) -> None:
        while True:
            try:
                packet = os.read(source, _PACKET_LIMIT)
            except BlockingIOError:
                return
            if self._loss > 0 and self._rng.random() < self._loss:
                continue
            late = self._delay + self._rng.uniform(0, self._jitter)
            if late == 0 and not self._under_way:
                self._hand_over(self._other[source], packet)
            elif len(self._under_way) < _QUEUE_LIMIT:
                self._number += 1
                item = time.monotonic() + late, self._number, self._other[source], packet
                heapq.heappush(self._under_way, item)

    def hand_over_what_is_due(self) -> float | None:
        """Returns the seconds to the next one."""
        now = time.monotonic()
        while self._under_way and self._under_way[0][0] <= now:
            _, _, target, packet = heapq.heappop(self._under_way)
            self._hand_over(target, packet)
        return self._under_way[0][0] - now if self._under_way else None

    @staticmethod
    def _hand_over(target: int, packet: bytes) -> None:
        try:
            os.write(target, packet)
        except OSError:
            pass  # the device is down, or its queue is full

    def run(self) -> None:
        ends = list(self._other)
        for end in ends:
            os.set_blocking(end, False)
        while True:
            timeout = self.hand_over_what_is_due()
            ready, _, _ = select.select([*ends, 0], [], [], timeout)
            if 0 in ready:
                line = sys.stdin.readline()
                if not line:
                    return
                self.obey(line)
            for end in ends:
                if end in ready:
                    try:
                        self.carry(end)
                    except OSError:
                        time.sleep(0.01)  # the device is down


if __name__ == "__main__":
    _Cable(*(int(word) for word in sys.argv[1:])).run()
