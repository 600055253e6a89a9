"""Prints how much memory of a daemon at work is resident, in KiB: of its program, of its libraries, and of what no
file backs (heap, stacks, variables). The daemon is the one that SNV_BRIDGE names, or the build's.

    scripts/resident.py [WINDOW]    only what lies in the 4 GiB from this address on: those of a guest of 32 bits.
                                    The rest is the emulator's own.
"""

from __future__ import annotations

import json
import re
import sys
import tempfile
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.append(str(ROOT / "tests" / "system"))

from harness.control import STARTED, control_on  # noqa: E402
from harness.dialects import NATIVE  # noqa: E402
from harness.lab import start_agent  # noqa: E402
from harness.road import Road  # noqa: E402
from harness.samples import rxpk_v2  # noqa: E402

WINDOW_SIZE = 1 << 32
EVERYTHING = range(0, 1 << 64)
UPLINKS = 100


@dataclass
class Mapping:
    start: int
    file: str
    resident_kib: int


def mappings(pid: int) -> Iterator[Mapping]:
    head = re.compile(r"([0-9a-f]+)-[0-9a-f]+ \S+ \S+ \S+ \d+ *(.*)")
    current = Mapping(0, "", 0)
    for line in Path(f"/proc/{pid}/smaps").read_text().splitlines():
        if match := head.fullmatch(line):
            current = Mapping(int(match.group(1), 16), match.group(2), 0)
        elif line.startswith("Rss:"):
            current.resident_kib = int(line.split()[1])
            yield current


def resident(pid: int, program: str, window: range) -> dict[str, int]:
    sums = {"program": 0, "libraries": 0, "no file": 0}
    for mapping in mappings(pid):
        if mapping.start not in window:
            continue
        if not mapping.file.startswith("/"):
            sums["no file"] += mapping.resident_kib
        elif Path(mapping.file).name == program:
            sums["program"] += mapping.resident_kib
        else:
            sums["libraries"] += mapping.resident_kib
    return sums


def measure(work: Path, window: range) -> dict[str, int]:
    """Of a daemon with both planes up, after some traffic."""
    agent = start_agent(work)
    try:
        road = Road(work / "road", NATIVE, control=control_on(agent.address))
        try:
            road.wait_ready()
            road.bridge.wait_for_log(STARTED)
            for number in range(UPLINKS):
                token = road.forwarder.push_data({"rxpk": [rxpk_v2(tmst=number)]})
                road.forwarder.wait_push_ack(token)
            return resident(road.bridge.process.pid, "snv_mqtt_bridge", window)
        finally:
            road.close()
    finally:
        agent.close()


def main() -> None:
    window = EVERYTHING
    if len(sys.argv) > 1:
        start = int(sys.argv[1], 0)
        window = range(start, start + WINDOW_SIZE)
    with tempfile.TemporaryDirectory() as work:
        print(json.dumps(measure(Path(work), window)))


if __name__ == "__main__":
    main()
