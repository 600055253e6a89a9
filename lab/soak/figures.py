"""Puts the figures of soaks that ran side by side into a page: figures PAGE FILE..., with the files that scripts/soak
--json has written, on the machine that they ran on."""

from __future__ import annotations

import json
import os
import re
import statistics
import sys
from collections import Counter
from pathlib import Path
from typing import Any

from lab.soak.faults import KINDS, TELLS
from lab.soak.report import RESTING

_BEGIN, _END = "<!-- soak figures: begin -->", "<!-- soak figures: end -->"

Row = tuple[str, ...]


def _table(head: Row, rows: list[Row]) -> list[str]:
    widths = [max(len(row[place]) for row in (head, *rows)) for place in range(len(head))]
    rule = tuple("-" * width for width in widths)
    return [
        "| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |"
        for row in (head, rule, *rows)
    ]


def _faults(soaks: list[dict[str, Any]]) -> list[str]:
    kinds: dict[str, list[float]] = {}
    for soak in soaks:
        for name, seconds in soak["kinds"].items():
            kinds.setdefault(name, []).extend(seconds)

    def seen(name: str) -> str:
        is_seen = any(kind.name == name and (kind.bites or name in TELLS) for kind in KINDS)
        return str(sum(soak["bit"].get(name, 0) for soak in soaks)) if is_seen else ""

    rows = [
        (name, str(len(seconds)), seen(name), f"{statistics.median(seconds):.1f}", f"{max(seconds):.1f}")
        for name, seconds in sorted(kinds.items())
    ]
    return _table(("fault", "times", "seen in the log", "up again after, s: median", "longest"), rows)


def _uplinks(soaks: list[dict[str, Any]]) -> list[str]:
    names = ("sent", "acknowledged", "published", "unanswered", "ignored", "lost")
    head = (
        "seed", "sent", "acknowledged", "published", "without PUSH_ACK",
        "of these on a whole connection", "acknowledged on a whole connection, not published",
    )  # fmt: skip
    return _table(
        head, [(str(soak["seed"]), *(str(soak["uplinks"][name]) for name in names)) for soak in soaks]
    )


def _excused(soaks: list[dict[str, Any]]) -> list[str]:
    reasons: Counter[str] = Counter()
    for soak in soaks:
        reasons.update(soak["uplinks"]["excused"])
    rows = [(reason, str(count)) for reason, count in reasons.most_common()] or [("none", "0")]
    return _table(("acknowledged and not published: the connection was broken by", "uplinks"), rows)


def _ends(soak: dict[str, Any]) -> list[dict[str, int]]:
    return [soak["looks"][0], soak["looks"][-1]]


def _resources(soaks: list[dict[str, Any]]) -> list[str]:
    names = (
        "threads",
        "descriptors",
        "children",
        "uncollected",
        "others",
        "queues",
        "anonymous_kib",
        "resident_kib",
    )
    rows = []
    for soak in soaks:
        pairs = (" / ".join(dict.fromkeys(str(look[name]) for look in _ends(soak))) for name in names)
        rows.append((str(soak["seed"]), *pairs, str(soak["highest anonymous KiB"])))
    head = (
        "seed", "threads", "descriptors", "children", "uncollected", "of children", "queues", "RssAnon, KiB", "VmRSS, KiB",
        "largest RssAnon, KiB",
    )  # fmt: skip
    return _table(head, rows)


def _traffic(soaks: list[dict[str, Any]]) -> list[str]:
    parts: list[tuple[str, list[dict[str, int]]]] = [
        (name, [soak[part] for soak in soaks]) for part in ("operations", "other") for name in soaks[0][part]
    ]
    rows = [(name, *(str(each[name]) for each in counted)) for name, counted in parts]
    for part in ("upgrades", "restarts"):
        names = sorted({name for soak in soaks for name in soak[part]})
        rows += [(name, *(str(soak[part].get(name, 0)) for soak in soaks)) for name in names]
    rows.append(("tunnels", *(str(soak["tunnels"]) for soak in soaks)))
    rows.append(("looks at the services", *(str(soak["looks at services"]) for soak in soaks)))
    rows.append(("- behind a restart for a service that rested", *(str(soak[RESTING]) for soak in soaks)))
    rows.append(("ERROR lines", *(str(soak["error lines"]) for soak in soaks)))
    return _table(("", *(f"seed {soak['seed']}" for soak in soaks)), rows)


def machine() -> str:
    model = re.search(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return f"{model[1] if model else os.uname().machine}, {os.cpu_count()} CPUs, Linux {os.uname().release}"


def page_of(soaks: list[dict[str, Any]]) -> str:
    lines = [f"{machine()}; {len(soaks)} side by side.", ""]
    for soak in soaks:
        outcome = "clean" if soak["clean"] else "not clean"
        lines.append(f"- {soak['plan']}; {soak['seconds'] / 60:.0f} minutes; {outcome}")
    for part in (_faults(soaks), _uplinks(soaks), _excused(soaks), _resources(soaks), _traffic(soaks)):
        lines += ["", *part]
    for soak in soaks:
        for words, count in soak["failures"].items():
            lines += ["", f"Seed {soak['seed']}, {count} times: {words}"]
    return "\n".join(lines)


def main(arguments: list[str]) -> int:
    page, *files = (Path(name) for name in arguments)
    text = page.read_text(encoding="utf-8")
    before, _, rest = text.partition(_BEGIN)
    _, _, after = rest.partition(_END)
    soaks = [json.loads(file.read_text()) for file in files]
    page.write_text(f"{before}{_BEGIN}\n{page_of(soaks)}\n{_END}{after}", encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
