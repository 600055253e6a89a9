"""What daemons really do when their MQTT server goes away and comes back, beside what the simulation says."""
import asyncio
import math
import random
import re
import signal
import socket
import sys
import tempfile
import threading
import time
from collections.abc import Callable
from contextlib import ExitStack
from dataclasses import dataclass
from datetime import datetime
from pathlib import Path
from statistics import median

from fleet_daemons import Fleet, Kind, Server, running_fleet, running_server
from fleet_wave import Scenario, first_attempt_of_age, simulate
from parts import free_port
from report import Row

STARTED = re.compile(r"^(\S+ \S+) \[.*ctrlplane is started$", re.MULTILINE)
INTERVAL_S = 33  # no multiple of the tick: which of the two waits ends first is then no matter of chance
SETTLE_S = 40.0
DOWN_S = 5.0
LIMIT_S = 240.0
LOOK_S = 0.5
FLEETS = 50  # simulated, with the daemons' ages but for the jitter
JITTER_S = 0.2
SHARES = (0.1, 0.5, 0.9, 1.0)


@dataclass(frozen=True)
class Case:
    """A restart, and how the server comes back: `rate` a second at most, `queue` waiting for it."""

    name: str
    rate: float = 0.0  # 0: the server itself, as fast as it can
    queue: int = 0


@dataclass(frozen=True)
class Outcome:
    """Seconds from the loss to the new connection, of the daemons that came back in time."""

    case: Case
    daemons: int
    measured: list[float]
    simulated: list[list[float]]  # of many fleets
    errors: list[float]  # for each daemon, where the simulation tells it
    limit_s: float


class Gate:
    """Stands before the server: takes so many connections a second, in their order, and carries them. While
    it is closed, connections are refused."""

    def __init__(self, server_port: int) -> None:
        self.port = free_port(socket.SOCK_STREAM)
        self._server_port = server_port
        self._loop: asyncio.AbstractEventLoop | None = None
        self._thread: threading.Thread | None = None

    def open(self, rate: float, queue: int) -> None:
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", self.port))
        listener.listen(queue - 1)  # the system lets one more wait
        listener.setblocking(False)
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._run, args=(self._loop, listener, rate), daemon=True)
        self._thread.start()

    def close(self) -> None:
        if self._loop and self._thread:
            self._loop.call_soon_threadsafe(self._loop.stop)
            self._thread.join()
            self._loop = self._thread = None

    def _run(self, loop: asyncio.AbstractEventLoop, listener: socket.socket, rate: float) -> None:
        loop.create_task(self._accept(loop, listener, rate))
        loop.run_forever()
        tasks = asyncio.all_tasks(loop)
        for task in tasks:
            task.cancel()
        loop.run_until_complete(asyncio.gather(*tasks, return_exceptions=True))
        listener.close()
        loop.close()

    async def _accept(self, loop: asyncio.AbstractEventLoop, listener: socket.socket, rate: float) -> None:
        carried = set()
        due = loop.time()
        while True:
            connection, _ = await loop.sock_accept(listener)
            task = loop.create_task(self._carry(connection))
            carried.add(task)
            task.add_done_callback(carried.discard)
            due = max(due, loop.time()) + 1 / rate
            await asyncio.sleep(due - loop.time())

    async def _carry(self, connection: socket.socket) -> None:
        client = await asyncio.open_connection(sock=connection)
        server = await asyncio.open_connection("127.0.0.1", self._server_port)
        try:
            await asyncio.gather(self._pump(client[0], server[1]), self._pump(server[0], client[1]))
        except ConnectionError:
            pass
        finally:
            for _, writer in (client, server):
                writer.transport.abort()

    @staticmethod
    async def _pump(source: asyncio.StreamReader, sink: asyncio.StreamWriter) -> None:
        while data := await source.read(65536):
            sink.write(data)
            await sink.drain()
        raise ConnectionError  # the other direction ends, too


# --- one restart ---


def starts_of(fleet: Fleet, number: int) -> list[float]:
    """When the control plane of a daemon came up, each time."""
    found = STARTED.findall(fleet.log(number).read_text(errors="replace"))
    return [datetime.strptime(text, "%Y-%m-%d %H:%M:%S.%f%z").timestamp() for text in found]


def started(fleet: Fleet, times: int) -> list[float]:
    """When each daemon did so for that time, of those that have."""
    every = (starts_of(fleet, number) for number in range(len(fleet.processes)))
    return [each[times - 1] for each in every if len(each) >= times]


def wait_for_starts(fleet: Fleet, times: int, limit_s: float) -> None:
    deadline = time.monotonic() + limit_s
    while len(started(fleet, times)) < len(fleet.processes) and time.monotonic() < deadline:
        fleet.check()
        time.sleep(LOOK_S)


def start_spread(fleet: Fleet, count: int) -> None:
    """Over one interval, as gateways are powered up at any time."""
    for _ in range(count):
        fleet.start_one()
        time.sleep(INTERVAL_S / count)
    wait_for_starts(fleet, 1, SETTLE_S)
    if len(started(fleet, 1)) < count:
        sys.exit("not all daemons come up")
    time.sleep(SETTLE_S)


def restart(fleet: Fleet, away: Callable[[], None], back: Callable[[], None],
            limit_s: float) -> tuple[float, list[float]]:
    """The time of the loss, and those of the new connections, a number below 0 for a daemon without one."""
    lost = time.time()
    away()
    time.sleep(max(lost + DOWN_S - time.time(), 0))
    back()
    wait_for_starts(fleet, 2, limit_s - DOWN_S)
    times = (starts_of(fleet, number) for number in range(len(fleet.processes)))
    return lost, [each[1] - lost if len(each) > 1 else -1.0 for each in times]


def linear_timeouts() -> int:
    """Of this machine, whose system asks again in the daemons' place."""
    setting = Path("/proc/sys/net/ipv4/tcp_syn_linear_timeouts")
    return int(setting.read_text()) if setting.exists() else 0


def simulated_fleets(case: Case, ages: list[float], limit_s: float) -> list[list[float]]:
    limits = {"accepts": case.rate, "queue": case.queue} if case.rate else {}
    scenario = Scenario(len(ages), down_s=DOWN_S, linear=linear_timeouts(), **limits)
    fleets = []
    for seed in range(FLEETS):
        numbers = random.Random(seed)
        first = [first_attempt_of_age(age, INTERVAL_S) + numbers.uniform(0, JITTER_S) for age in ages]
        wave = simulate(scenario, first_attempts=first)
        fleets.append(wave.connected[:wave.connected_by(limit_s)])
    return fleets


def run_case(case: Case, daemons: int, pins: dict[str, list[str]]) -> Outcome:
    limit_s = LIMIT_S if case.rate else 90.0
    with ExitStack() as cleanup:
        folder = Path(cleanup.enter_context(tempfile.TemporaryDirectory(prefix="snv-bench-")))
        server: Server = cleanup.enter_context(running_server(folder, pins["broker"]))
        gate = Gate(server.port)
        cleanup.callback(gate.close)
        if case.rate:
            gate.open(1000.0, 1000)
        kind = Kind(control=True, interval_s=INTERVAL_S)
        fleet = cleanup.enter_context(running_fleet(folder / "fleet", server, kind, daemons, pins["bridge"],
                                                    gate.port if case.rate else 0))
        start_spread(fleet, daemons)
        if case.rate:
            lost, times = restart(fleet, gate.close, lambda: gate.open(case.rate, case.queue), limit_s)
        else:
            lost, times = restart(fleet, lambda: server.close(signal.SIGKILL), server.start, limit_s)
        ages = [lost - start for start in started(fleet, 1)]
    errors = [time - first_attempt_of_age(age, INTERVAL_S) for age, time in zip(ages, times) if time >= 0]
    measured = sorted(time for time in times if time >= 0)
    simulated = simulated_fleets(case, ages, limit_s)
    return Outcome(case, daemons, measured, simulated, [] if case.rate else errors, limit_s)


# --- the comparison ---


def time_of(times: list[float], share: float, daemons: int) -> float:
    """Infinite when so many did not come back."""
    index = max(math.ceil(share * daemons) - 1, 0)
    return times[index] if index < len(times) else math.inf


def shown(seconds: float) -> str:
    return "never" if seconds == math.inf else f"{seconds:.1f}"


def span(values: list[float]) -> str:
    """The middle, and the smallest to the largest, unless they are the same."""
    if shown(min(values)) == shown(max(values)):
        return shown(values[0])
    return f"{shown(median(values))} ({shown(min(values))} to {shown(max(values))})"


def compared(outcome: Outcome) -> list[Row]:
    """A row a share of the daemons, and one of how many came back in time."""
    rows: list[Row] = []
    for share in SHARES:
        times = [time_of(fleet, share, outcome.daemons) for fleet in outcome.simulated]
        measured = time_of(outcome.measured, share, outcome.daemons)
        rows.append((outcome.case.name, f"{share:.0%} connected, s", shown(measured), span(times)))
    back = [len(fleet) for fleet in outcome.simulated]
    rows.append((outcome.case.name, f"connected after {outcome.limit_s:g} s", str(len(outcome.measured)),
                 f"{median(back):g} ({min(back)} to {max(back)})"))
    return rows
