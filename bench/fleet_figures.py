"""The fleet's figures as tables, and what they mean for a fleet of another size."""
import math
from dataclasses import dataclass, field

from fleet_daemons import Storm, Window
from fleet_reconnects import Outcome, compared, shown
from fleet_wave import HORIZON_S, Scenario, Wave
from report import Row, table

# Topic, header and packet number of a publish, its acknowledgement, and for either a TLS record and TCP/IP.
WIRE_BYTES = (33 + 7 + 22 + 52) + (4 + 22 + 52)
STATISTICS_PER_MINUTE = 2
UPLINKS_PER_MINUTE = (1, 10, 60)
HEADROOM = 0.5  # of what a server can, in daily use
NODE_CPUS = 8
CERTIFICATE = "ECDSA P-256"
RECONNECT_S = 300  # within which the operator wants all gateways back
FEW = 100  # uplinks have no p99
BUCKETS_S = 10
SHOWN_S = 300  # of a wave that does not end


@dataclass(frozen=True)
class Sample:
    """A number of daemons, without uplinks and with them."""

    daemons: int
    pss_kib: float
    rss_kib: float
    machine_kib: float  # what the machine has less of, kernel included, for each daemon
    threads: int
    idle: Window
    loaded: Window
    server_kib: int


@dataclass(frozen=True)
class Step:
    """A rate that was tried."""

    wanted: float
    window: Window

    @property
    def rate(self) -> float:
        return float(self.window.load["sent"] / self.window.seconds)

    @property
    def server_cpu_us(self) -> float:
        """For each uplink."""
        return float(self.window.server_cpu_s / max(self.window.load["sent"], 1) * 1e6)


@dataclass
class Figures:
    machine: str
    uplinks_per_minute: float
    gateways: int
    accepts: float
    growth_kind: str = ""
    growth: list[Sample] = field(default_factory=list)
    growth_end: str = ""
    kinds: dict[str, Sample] = field(default_factory=dict)
    rates: dict[str, list[Step]] = field(default_factory=dict)
    rate_ends: dict[str, str] = field(default_factory=dict)
    storms: dict[str, Storm] = field(default_factory=dict)
    reconnects: list[Outcome] = field(default_factory=list)
    waves: list[tuple[str, Scenario, Wave]] = field(default_factory=list)


# --- what was measured ---


def per_daemon_ms(sample: Sample, window: Window) -> str:
    """CPU of a daemon in a second."""
    return f"{window.fleet_cpu_s / window.seconds / sample.daemons * 1000:.2f}"


def latency(window: Window) -> str:
    load = window.load
    p99 = f"{load['p99']:.2f}" if load["sent"] >= FEW else "-"
    return f"{load['p50']:.2f} / {p99} / {load['max']:.1f}"


def lost(window: Window) -> str:
    return f"{window.load['lost']} of {window.load['sent']}"


def share(cpu_s: float, seconds: float) -> str:
    return f"{cpu_s / seconds:.1%}"


def mib(kib: float) -> str:
    return f"{kib / 1024:.2f}"


SAMPLE_HEAD = ("PSS, MiB", "RSS, MiB", "of the machine, MiB", "threads", "CPU without uplinks, ms/s",
               "CPU with them, ms/s", "to subscriber, ms", "lost", "server RSS, MiB", "server CPU")


def sample_cells(sample: Sample) -> Row:
    machine = mib(sample.machine_kib) if sample.daemons >= 50 else "-"
    return (mib(sample.pss_kib), mib(sample.rss_kib), machine, str(sample.threads),
            per_daemon_ms(sample, sample.idle), per_daemon_ms(sample, sample.loaded), latency(sample.loaded),
            lost(sample.loaded), mib(sample.server_kib),
            share(sample.loaded.server_cpu_s, sample.loaded.seconds))


def growth_parts(figures: Figures) -> list[str]:
    rows = [(str(sample.daemons), *sample_cells(sample)) for sample in figures.growth]
    return [
        f"Daemons on one machine ({figures.growth_kind}), each with {figures.uplinks_per_minute:g} uplinks a"
        " minute:",
        table(("daemons", *SAMPLE_HEAD), rows),
        figures.growth_end,
    ]


def kind_parts(figures: Figures) -> list[str]:
    count = next(iter(figures.kinds.values())).daemons
    rows = [(name, *sample_cells(sample)) for name, sample in figures.kinds.items()]
    return [f"{count} daemons of each kind, at the same rate:", table(("kind", *SAMPLE_HEAD), rows)]


def rate_rows(figures: Figures) -> list[Row]:
    rows: list[Row] = []
    for name, steps in figures.rates.items():
        for step in steps[-2:]:
            window, limit = step.window, step is steps[-1]
            label, why = ("too much", figures.rate_ends[name]) if limit else ("most", "")
            rows.append((name, label, f"{step.rate:.0f}", latency(window), lost(window),
                         share(window.server_cpu_s, window.seconds), f"{step.server_cpu_us:.1f}", why))
    return rows


def rate_parts(figures: Figures) -> list[str]:
    head = ("uplinks from", "", "per second", "to subscriber, ms", "lost", "server CPU",
            "server CPU µs each", "limit")
    return ["What one MQTT server carries:", table(head, rate_rows(figures))]


def storm_parts(figures: Figures) -> list[str]:
    rows: list[Row] = [
        (f"TLS, {name}" if name else "without TLS", str(storm.load["count"]),
         f"{storm.load['per_second']:.0f}", f"{storm.server_cpu_s / storm.load['count'] * 1000:.2f}",
         f"{storm.load['p50']:.0f} / {storm.load['p99']:.0f}", f"{storm.kib_each:.1f}")
        for name, storm in figures.storms.items()]
    head = ("connections", "count", "per second", "server CPU ms each", "p50 / p99, ms", "server KiB each")
    return ["Clients that connect at once, each with the four subscriptions of a gateway:", table(head, rows)]


# --- reconnects ---


def reconnect_parts(figures: Figures) -> list[str]:
    rows = [row for outcome in figures.reconnects for row in compared(outcome)]
    parts = [
        f"A restart with {figures.reconnects[0].daemons} daemons, beside the simulation:",
        table(("server", "", "measured", "simulated: middle (least to most)"), rows),
    ]
    errors = sorted(error for outcome in figures.reconnects for error in outcome.errors)
    if errors:
        parts.append(f"Each daemon of the first case was back {errors[0]:.2f} to {errors[-1]:.2f} s after the"
                     " first attempt that its age lets expect.")
    return parts


def wave_row(name: str, scenario: Scenario, wave: Wave) -> Row:
    times = [shown(wave.time_of(share)) for share in (0.5, 0.99, 1.0)]
    times = [time if time != shown(math.inf) else f"over {HORIZON_S:.0f}" for time in times]
    each = sum(wave.attempts) / scenario.gateways
    return (name, str(scenario.gateways), f"{max(wave.attempts)}", f"{each:.1f}", *times, str(wave.wasted))


def wave_parts(figures: Figures) -> list[str]:
    head = ("restart", "gateways", "attempts/s, most", "attempts each", "50 %, s", "99 %, s", "100 %, s",
            "taken in vain")
    return [f"A restart with {figures.gateways} gateways, simulated; C is {figures.accepts:g} connections a"
            " second:",
            table(head, [wave_row(*each) for each in figures.waves]),
            "The first three over time:", timeline(figures.waves[:3])]


def timeline(waves: list[tuple[str, Scenario, Wave]]) -> str:
    """Attempts a second and what is connected, until those that end have ended."""
    ends = [wave.connected[-1] for _, _, wave in waves if len(wave.connected) == wave.gateways]
    rows: list[Row] = []
    for start in range(0, math.ceil(max(ends, default=SHOWN_S)), BUCKETS_S):
        stop = start + BUCKETS_S
        cells: list[str] = []
        for _, _, wave in waves:
            cells += (f"{sum(wave.attempts[start:stop]) / BUCKETS_S:.0f}",
                      f"{wave.connected_by(stop) / wave.gateways:.1%}")
        rows.append((f"{start} to {stop}", *cells))
    head = [cell for name, _, _ in waves for cell in (f"{name}: attempts/s", "connected")]
    return table(("s after the loss", *head), rows)


# --- a fleet of another size ---


def reconnect_cpus(figures: Figures) -> float:
    """For TLS and all that a connection begins with."""
    tls = figures.storms[CERTIFICATE]
    return figures.gateways / RECONNECT_S * tls.server_cpu_s / float(tls.load["count"])


def sizing_row(figures: Figures, per_minute: float) -> Row:
    """One server is a process of this server on one CPU of this kind."""
    messages = figures.gateways * (per_minute + STATISTICS_PER_MINUTE) / 60
    cpus = messages * figures.rates["clients"][-2:][0].server_cpu_us / 1e6 / HEADROOM
    nodes = max(math.ceil((cpus + reconnect_cpus(figures)) / NODE_CPUS), 2) + 1
    payload = figures.growth[-1].loaded.load["payload"]
    return (f"{per_minute:g}", f"{messages:.0f}", f"{cpus:.1f}", str(nodes),
            f"{messages * (payload + WIRE_BYTES) * 8 / 1e6:.0f}")


def sizing_parts(figures: Figures) -> list[str]:
    head = ("uplinks a minute and gateway", "messages/s", "CPUs for them", f"nodes of {NODE_CPUS} CPUs",
            "from the gateways, Mbit/s")
    rows = [sizing_row(figures, per_minute) for per_minute in UPLINKS_PER_MINUTE]
    wanted = figures.gateways / RECONNECT_S
    memory_gib = figures.gateways * figures.storms[CERTIFICATE].kib_each / 1024 / 1024
    return [
        f"{figures.gateways} gateways, with {STATISTICS_PER_MINUTE} statistics a minute each, and CPUs that"
        f" the clients' uplinks keep busy for {HEADROOM:.0%} of the time:",
        table(head, rows),
        f"Their TLS connections take {memory_gib:.1f} GiB. To have all back within {RECONNECT_S} s takes"
        f" {wanted:.0f} connections a second, {reconnect_cpus(figures):.1f} CPUs. The nodes hold both"
        " together, and one of them may fail.",
    ]


def render(figures: Figures) -> str:
    parts = [figures.machine + "."] if figures.machine else []
    for measured, make in ((figures.growth, growth_parts), (figures.kinds, kind_parts),
                           (figures.rates, rate_parts), (figures.storms, storm_parts),
                           (figures.reconnects, reconnect_parts), (figures.waves, wave_parts)):
        parts += make(figures) if measured else []
    if figures.growth and figures.rates and figures.storms:
        parts += sizing_parts(figures)
    return "\n\n".join(parts)
