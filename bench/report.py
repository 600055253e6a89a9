"""Medians, spreads, ratios and tables of a benchmark run."""
from collections.abc import Callable, Iterable
from dataclasses import asdict, dataclass, field
from pathlib import Path
from statistics import median
from typing import Any

DAEMON = "daemon"
# The daemon stands beside the yardstick that it is compared with most.
SUBJECTS = (DAEMON, "parsed", "paced", "plain")
LABELS = {DAEMON: "daemon", "parsed": "(c) parsed", "paced": "(b) paced", "plain": "(a) plain"}
NOISE = 0.05
FIGURES = "figures"

Measurement = dict[str, Any]
Row = tuple[str, ...]


@dataclass
class Round:
    """One measurement of every pair; the keys are the names of scenario and bridge."""

    measured: dict[tuple[str, str], Measurement] = field(default_factory=dict)
    start_ms: dict[str, float] = field(default_factory=dict)
    memory_kib: dict[str, int] = field(default_factory=dict)


@dataclass
class Results:
    machine: str
    scenarios: list[str]
    subjects: list[str]
    rounds: list[Round]


@dataclass(frozen=True)
class Wanted:
    """A ratio of the daemon to a yardstick in one scenario, and its limit."""

    scenario: str
    value: str
    yardstick: str
    limit: float
    at_least: bool


WANTED = (
    Wanted("1 in flight", "per_second", "parsed", 0.9, True),
    Wanted("4 in flight", "per_second", "parsed", 0.9, True),
    Wanted("16 in flight", "per_second", "parsed", 0.75, True),
    Wanted("16 in flight", "per_second", "plain", 100, True),
    Wanted("1 in flight, 3 rxpk", "per_second", "parsed", 0.9, True),
    Wanted("4 in flight, 3 rxpk", "per_second", "parsed", 0.9, True),
    Wanted("16 in flight, 3 rxpk", "per_second", "parsed", 0.75, True),
    Wanted("1 in flight", "cpu_us", "parsed", 1.4, False),
    Wanted("4 in flight", "cpu_us", "parsed", 1.4, False),
    Wanted("16 in flight", "cpu_us", "parsed", 1.4, False),
    Wanted("1 in flight, 3 rxpk", "cpu_us", "parsed", 1.4, False),
    Wanted("4 in flight, 3 rxpk", "cpu_us", "parsed", 1.4, False),
    Wanted("16 in flight, 3 rxpk", "cpu_us", "parsed", 1.4, False),
)
VALUE_NAMES = {"per_second": "uplinks/s", "cpu_us": "CPU per uplink"}
BURSTS = "bursts of 100"
MEMORY_ABOVE_KIB = 2048


def as_plain(results: Results) -> dict[str, Any]:
    plain = asdict(results)
    for each in plain["rounds"]:
        each["measured"] = [{"scenario": scenario, "bridge": bridge} | measurement
                            for (scenario, bridge), measurement in each["measured"].items()]
    return plain


def spread(values: Iterable[float], digits: int) -> str:
    values = list(values)
    if len(values) == 1:
        return f"{values[0]:.{digits}f}"
    return f"{median(values):.{digits}f} ({min(values):.{digits}f} to {max(values):.{digits}f})"


def table(head: Row, rows: list[Row]) -> str:
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    lines = [" | ".join(cell.ljust(width) for cell, width in zip(row, widths)) for row in [head, *rows]]
    lines.insert(1, " | ".join("-" * width for width in widths))
    return "\n".join(f"| {line} |" for line in lines)


def taken(results: Results, scenario: str, subject: str) -> list[Measurement]:
    return [each.measured[scenario, subject] for each in results.rounds]


def latency(measurements: list[Measurement], name: str) -> str:
    """Median of the rounds' p50 and p99, and the largest of all."""
    p50, p99 = (median(each[name][key] for each in measurements) for key in ("p50", "p99"))
    return f"{p50:.2f} / {p99:.2f} / {max(each[name]['max'] for each in measurements):.1f}"


def losses(measurements: list[Measurement]) -> str:
    lost = sum(each["lost"] for each in measurements)
    return f"{lost} of {sum(each['sent'] for each in measurements)}"


def rate_cells(scenario: str, subject: str, measurements: list[Measurement]) -> Row:
    return (scenario, LABELS[subject], spread((each["per_second"] for each in measurements), 0),
            spread((each["cpu_us"] for each in measurements), 1))


def uplink_row(results: Results, scenario: str, subject: str) -> Row:
    measurements = taken(results, scenario, subject)
    return (*rate_cells(scenario, subject, measurements), latency(measurements, "ack"),
            latency(measurements, "seen"), losses(measurements))


def downlink_row(results: Results, scenario: str, subject: str) -> Row:
    measurements = taken(results, scenario, subject)
    return (*rate_cells(scenario, subject, measurements), latency(measurements, "seen"), losses(measurements),
            str(sum(each["merged"] for each in measurements)))


def process_row(results: Results, subject: str) -> Row:
    return (LABELS[subject], spread((each.start_ms[subject] for each in results.rounds), 1),
            spread((each.memory_kib[subject] / 1024 for each in results.rounds), 2))


def verdict(value: float, limit: float, at_least: bool) -> str:
    if (value >= limit) if at_least else (value <= limit):
        return "met"
    near = value >= limit * (1 - NOISE) if at_least else value <= limit * (1 + NOISE)
    return "missed, within noise" if near else "MISSED"


def wanted_row(results: Results, wanted: Wanted) -> Row:
    pairs = zip(taken(results, wanted.scenario, DAEMON), taken(results, wanted.scenario, wanted.yardstick))
    ratios = [ours[wanted.value] / theirs[wanted.value] for ours, theirs in pairs]
    sense = "at least" if wanted.at_least else "at most"
    reached = verdict(median(ratios), wanted.limit, wanted.at_least)
    return (f"{VALUE_NAMES[wanted.value]}, {wanted.scenario}, daemon / {LABELS[wanted.yardstick]}",
            f"{sense} {wanted.limit:g}", spread(ratios, 2), reached)


def burst_rows(results: Results) -> list[Row]:
    measurements = taken(results, BURSTS, DAEMON)
    lost = sum(each["lost"] for each in measurements)
    late = sum(each["over_20ms"] for each in measurements)
    slowest = max(each[name]["max"] for each in measurements for name in ("ack", "seen"))
    shown = f"{late}; slowest {slowest:.1f} ms"
    return [("burst of 100: datagrams lost", "0", str(lost), verdict(lost, 0, False)),
            ("burst of 100: datagrams over 20 ms", "0", shown, verdict(late, 0, False))]


def memory_row(results: Results) -> Row:
    above = [float(each.memory_kib[DAEMON] - each.memory_kib["parsed"]) for each in results.rounds]
    return ("peak resident memory, daemon - (c) parsed, KiB", f"at most {MEMORY_ABOVE_KIB}", spread(above, 0),
            verdict(median(above), MEMORY_ABOVE_KIB, False))


def downlink_rows(results: Results) -> list[Row]:
    rows: list[Row] = []
    for scenario in (name for name in results.scenarios if "downlink" in name):
        measurements = taken(results, scenario, DAEMON)
        lost = sum(each["lost"] for each in measurements)
        rows.append((f"{scenario}: without a PULL_RESP of its own", "0", str(lost), verdict(lost, 0, False)))
    return rows


def wanted_table(results: Results) -> str:
    rows = [wanted_row(results, wanted) for wanted in WANTED if wanted.yardstick in results.subjects]
    rows += burst_rows(results) + downlink_rows(results)
    if "parsed" in results.subjects:
        rows.append(memory_row(results))
    return table(("daemon against yardstick", "wanted", "measured, median (min to max)", ""), rows)


def scenario_table(results: Results, head: Row, downlinks: bool,
                   row: Callable[[Results, str, str], Row]) -> str:
    names = [name for name in results.scenarios if ("downlink" in name) == downlinks]
    return table(head, [row(results, name, subject) for name in names for subject in results.subjects])


UPLINK_HEAD = ("uplinks", "bridge", "uplinks/s", "CPU µs per uplink", "to PUSH_ACK, ms", "to subscriber, ms",
               "lost")
DOWNLINK_HEAD = ("downlinks", "bridge", "downlinks/s", "CPU µs per downlink", "to PULL_RESP, ms", "lost",
                 "merged")
PROCESS_HEAD = ("bridge", "start to first PUSH_ACK, ms", "peak resident memory, MiB")


def render(results: Results) -> str:
    parts = [
        results.machine + f"; rounds: {len(results.rounds)}.",
        scenario_table(results, UPLINK_HEAD, False, uplink_row),
        scenario_table(results, DOWNLINK_HEAD, True, downlink_row),
        table(PROCESS_HEAD, [process_row(results, subject) for subject in results.subjects]),
        "Rates, CPU, start and memory: median (min to max) of the rounds. Latencies: p50 and p99, each the "
        "median of the rounds, and the largest of all.",
    ]
    if DAEMON in results.subjects:
        parts.append(wanted_table(results))
    return "\n\n".join(parts)


def write_between_markers(path: Path, text: str, name: str = FIGURES) -> None:
    begin_line, end_line = f"<!-- {name}: begin -->", f"<!-- {name}: end -->"
    old = path.read_text() if path.exists() else f"{begin_line}\n{end_line}\n"
    before, begin, rest = old.partition(begin_line)
    _, end, after = rest.partition(end_line)
    if not begin or not end:
        raise SystemExit(f"{path} lacks the lines {begin_line} and {end_line}")
    path.write_text(f"{before}{begin_line}\n{text}\n{end_line}{after}")
