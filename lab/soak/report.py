"""What a soak has seen, and whether it was clean."""

from __future__ import annotations

import json
import statistics
import threading
from collections import Counter
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Any, Callable

from lab.soak.faults import KINDS, TELLS
from lab.soak.gateway import Resources
from lab.soak.operations import Operations
from lab.soak.plan import Plan
from lab.soak.uplinks import UplinkFigures, Uplinks

# Of memory that no file backs: what one run of the allocator's free lists differs from another.
GROWTH_KIB = 512
# A shorter run has not seen every kind of work before its first look.
SETTLED_SECONDS = 1200
# The forwarder waits a second for an acknowledgement, which a busy machine may miss.
IGNORED_SHARE = 0.002
_SHOWN = 40
RESTING = "of them behind a restart for a service that rested"
# Such a state shows that the work was met by faults.
_UNDER_WAY = {"UPDATE SCHEDULED", "DOWNLOADING", "DOWNLOADED", "INSTALLING"}


@dataclass(frozen=True)
class Episode:
    kinds: tuple[str, ...]
    seconds: float  # from the end of the fault until both planes were up
    is_up: bool


@dataclass
class Report:
    plan: Plan
    say: Callable[[str], None]
    failures: Counter[str] = field(default_factory=Counter)
    episodes: list[Episode] = field(default_factory=list)
    bites: dict[str, set[float]] = field(
        default_factory=dict
    )  # the begins of those that broke something, by kind
    restarts: Counter[str] = field(default_factory=Counter)  # by the line that told of it first
    tunnels: int | None = None  # logins, where a server lets them in
    services: int = 0  # looks at those beside the commands
    resting: int = 0  # such a look found the thread of one ended, and the planes were restarted for it
    error_lines: int = 0
    looks: list[Resources] = field(default_factory=list)  # while nothing was to do: the fifth minute's first
    highest_anonymous_kib: int = 0
    most_threads: int = 0
    most_descriptors: int = 0
    uplinks: UplinkFigures = field(default_factory=UplinkFigures)
    operations: dict[str, int] = field(default_factory=dict)
    other: dict[str, int] = field(default_factory=dict)
    states: dict[str, int] = field(default_factory=dict)  # of upgrades
    seconds: float = 0.0
    _lock: threading.Lock = field(default_factory=threading.Lock)

    def fail(self, words: str) -> None:
        with self._lock:
            self.failures[words] += 1
            if self.failures[words] == 1:
                self.say(f"FAILED {words}")

    def bit(self, kind: str, begin: float) -> None:
        self.bites.setdefault(kind, set()).add(begin)

    def unexplained(self, text: str, kinds: list[str]) -> None:
        self.fail(f"ERROR line that nothing explains, beside [{', '.join(kinds) or 'no fault'}]: {text}")

    def conclude(self, uplinks: Uplinks, operations: Operations, seconds: float) -> None:
        self.seconds = seconds
        uplinks.check_doubles()
        self.uplinks = uplinks.figures()
        self.operations = operations.figures()
        self.states = dict(operations.states)
        if self.seconds >= SETTLED_SECONDS and not _UNDER_WAY & self.states.keys():
            self.fail("no upgrade was under way")
        if self.seconds >= SETTLED_SECONDS and self.tunnels == 0:
            self.fail("no tunnel was opened")
        self.other = {
            "downlinks sent": uplinks.downlinks_sent,
            "downlinks received": uplinks.downlinks_received,
            "statistics": uplinks.statistics,
            "acknowledgements of downlinks": uplinks.tx_acks,
        }
        if self.uplinks.lost:
            self.fail(
                f"{self.uplinks.lost} uplinks were acknowledged on a whole connection and never published"
            )
        if self.uplinks.ignored > max(5, self.uplinks.sent * IGNORED_SHARE):
            self.fail(
                f"{self.uplinks.ignored} uplinks were sent on a whole connection and never acknowledged"
            )
        if not self.uplinks.published:
            self.fail("no uplink was published")
        self._compare()
        self._check_bites()

    def _check_bites(self) -> None:
        """A kind of fault that never breaks anything tests nothing."""
        for kind in KINDS:
            times = sum(kind.name in episode.kinds for episode in self.episodes)
            is_seen = kind.bites or kind.name in TELLS
            if is_seen and times >= 3 and not self.bites.get(kind.name):
                self.fail(f"{kind.name} came {times} times and broke nothing")

    def _compare(self) -> None:
        if len(self.looks) < 2:
            self.fail("the resources were not counted twice")
            return
        first = asdict(self.looks[0])
        for place, look in enumerate(self.looks[1:], 2):
            seen = asdict(look)
            for name in ("threads", "descriptors", "children", "uncollected", "others", "queues"):
                if seen[name] != first[name]:
                    self.fail(
                        f"{name}: {first[name]} at first, {seen[name]} at look {place} of {len(self.looks)}"
                    )
        growth = self.looks[-1].anonymous_kib - self.looks[0].anonymous_kib
        if growth > GROWTH_KIB and self.seconds >= SETTLED_SECONDS:
            self.fail(f"memory has grown by {growth} KiB")

    def is_clean(self) -> bool:
        return not self.failures

    def figures(self) -> dict[str, Any]:
        kinds: dict[str, list[float]] = {}
        for episode in self.episodes:
            for kind in episode.kinds if episode.is_up else ():
                kinds.setdefault(kind, []).append(episode.seconds)
        return {
            "plan": self.plan.words,
            "seed": self.plan.seed,
            "clean": self.is_clean(),
            "seconds": round(self.seconds),
            "kinds": {name: kinds[name] for name in sorted(kinds)},
            "bit": {name: len(begins) for name, begins in self.bites.items()},
            "uplinks": asdict(self.uplinks),
            "restarts": dict(self.restarts),
            "tunnels": self.tunnels,
            "looks at services": self.services,
            RESTING: self.resting,
            "operations": self.operations,
            "upgrades": self.states,
            "other": self.other,
            "error lines": self.error_lines,
            "looks": [asdict(look) for look in self.looks],
            "highest anonymous KiB": self.highest_anonymous_kib,
            "most threads": self.most_threads,
            "most descriptors": self.most_descriptors,
            "failures": dict(self.failures),
        }

    def write(self, file: Path) -> None:
        file.write_text(json.dumps(self.figures(), indent=1) + "\n")

    def show(self) -> None:
        told = self.figures()
        print(f"\n{self.plan.words}; {self.seconds / 60:.1f} minutes")
        for name, seconds in told["kinds"].items():
            longest, middle = max(seconds), statistics.median(seconds)
            print(
                f"  {name:<24} {len(seconds):3} times, {told['bit'].get(name, 0):3} seen, up again after {middle:5.1f} s, longest {longest:5.1f} s"
            )
        for part in (
            "uplinks",
            "operations",
            "upgrades",
            "restarts",
            "other",
            "tunnels",
            "looks at services",
            RESTING,
        ):
            print(f"  {part}: {told[part]}")
        for look in self.looks:
            print(f"  {look}")
        print(f"  {self.error_lines} ERROR lines; most memory {self.highest_anonymous_kib} KiB")
        for words, count in self.failures.most_common(_SHOWN):
            print(f"FAILED {count} times: {words}")
        print("clean" if self.is_clean() else f"not clean: {len(self.failures)} findings")
