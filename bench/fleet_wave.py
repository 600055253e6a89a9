"""The reconnects of a fleet after its MQTT server has restarted, by simulation.

Every wait is one of the daemon with both planes; those below a second are what its MQTT library takes."""
import math
import random
from bisect import bisect_right
from collections import deque
from dataclasses import dataclass, field

TICK_S = 10.0  # the supervisor looks at the lost connection
RESTART_S = 20.0  # after it has stopped both planes
RETRY_S = 10.0  # after an attempt that failed
CONNECT_LIMIT_S = 31.5  # of an attempt that nobody answers: 30, and the library's looks at the clock
STOP_S = 0.15
CONNECT_S = 0.2
REFUSED_S = 0.3
# A notification ends the wait of a stop only every so often.
NOTIFICATION_LOOK_S = 5.0
# The system asks again for a connection that finds the server's queue full; Linux from 6.5 on does so a few
# times more at first.
ASK_AGAIN_S = (1.0, 2.0, 4.0, 8.0)
LINEAR_S = 1.0

STEP_S = 0.02
HORIZON_S = 1800.0

GIVE_UP, ASK = 0, 1  # above: asked again so many times


@dataclass(frozen=True)
class Scenario:
    gateways: int
    accepts: float = math.inf  # connections that the server takes a second, however long its queue is
    queue: float = math.inf  # connections that wait for it: the listen backlog, and what it holds itself
    refuses_above: float = math.inf  # attempts a second that something before the server lets through
    down_s: float = 5.0  # the server is away; every attempt is refused
    interval_s: float = 30.0  # gw_events_interval; 0: notifications
    linear: int = 0  # net.ipv4.tcp_syn_linear_timeouts of the gateways


@dataclass
class Wave:
    """Times are in seconds from the loss. A gateway counts as connected when the server has taken it."""

    gateways: int
    connected: list[float] = field(default_factory=list)
    attempts: list[int] = field(default_factory=list)  # in each second
    wasted: int = 0  # connections that the server took after their gateways had given up
    by_gateway: list[float] = field(default_factory=list)  # infinite: never

    def time_of(self, share: float) -> float:
        """When so many were connected; infinite when that never came."""
        index = math.ceil(share * self.gateways) - 1
        return self.connected[index] if index < len(self.connected) else math.inf

    def connected_by(self, second: float) -> int:
        return bisect_right(self.connected, second)


# --- when a gateway first tries ---


def usual_first_attempts(scenario: Scenario, numbers: random.Random) -> list[float]:
    """Gateways that have run for long: their ticks and their looks at the alarms have drifted apart."""
    stop_limit = scenario.interval_s or NOTIFICATION_LOOK_S
    return [numbers.uniform(0, TICK_S) + numbers.uniform(0, stop_limit) + STOP_S + RESTART_S
            for _ in range(scenario.gateways)]


def first_attempt_of_age(age_s: float, interval_s: float) -> float:
    """A gateway that came up that long before the loss: both waits began then."""
    tick = math.ceil(age_s / TICK_S) * TICK_S
    stopped = math.ceil(tick / interval_s) * interval_s
    return stopped - age_s + STOP_S + RESTART_S


# --- the server and the way to it ---


class _Run:
    """Buckets of events, one a step; an event is a gateway and what it does."""

    def __init__(self, scenario: Scenario, first_attempts: list[float]) -> None:
        self.scenario = scenario
        self.wave = Wave(scenario.gateways, attempts=[0] * (int(HORIZON_S) + 1),
                         by_gateway=[math.inf] * scenario.gateways)
        self.buckets: list[list[int]] = [[] for _ in range(int(HORIZON_S / STEP_S) + 1)]
        self.queue: deque[tuple[int, int]] = deque()
        self.attempt = [0] * scenario.gateways
        self.pauses = (LINEAR_S,) * scenario.linear + ASK_AGAIN_S
        self.kinds = ASK + len(self.pauses) + 1
        self.allowance = 0.0
        self.burst = max(scenario.refuses_above, 1.0)  # of a second
        for gateway, time in enumerate(first_attempts):
            self.plan(gateway, ASK, time)

    def plan(self, gateway: int, kind: int, time: float) -> None:
        step = math.ceil(time / STEP_S)
        if step < len(self.buckets):
            self.buckets[step].append(gateway * self.kinds + kind)

    def refused(self, now: float) -> bool:
        """The library asks twice, with two versions of the protocol."""
        if now < self.scenario.down_s:
            return True
        for _ in range(2):
            if self.allowance >= 1:
                self.allowance -= 1
                return False
        return True

    def ask(self, gateway: int, kind: int, now: float) -> None:
        if kind == ASK:
            self.wave.attempts[int(now)] += 1
            if self.refused(now):
                self.plan(gateway, ASK, now + REFUSED_S + RETRY_S)
                return
            self.plan(gateway, GIVE_UP, now + CONNECT_LIMIT_S)
        if len(self.queue) < self.scenario.queue:
            self.queue.append((gateway, self.attempt[gateway]))
        elif kind - ASK < len(self.pauses):
            self.plan(gateway, kind + 1, now + self.pauses[kind - ASK])

    def give_up(self, gateway: int, now: float) -> None:
        if self.wave.by_gateway[gateway] == math.inf:
            self.attempt[gateway] += 1
            self.plan(gateway, ASK, now + RETRY_S)

    def serve(self, now: float, count: float) -> float:
        """Takes so many from the queue, dead or alive; returns what is left of the count."""
        wave = self.wave
        while count >= 1 and self.queue:
            count -= 1
            gateway, attempt = self.queue.popleft()
            if attempt != self.attempt[gateway]:
                wave.wasted += 1
                continue
            wave.by_gateway[gateway] = now + CONNECT_S
            wave.connected.append(now + CONNECT_S)
        return count

    def run(self) -> Wave:
        scenario, wave = self.scenario, self.wave
        credit = 1.0
        for step, bucket in enumerate(self.buckets):
            now = step * STEP_S
            self.allowance = min(self.allowance + scenario.refuses_above * STEP_S, self.burst)
            for event in bucket:
                gateway, kind = divmod(event, self.kinds)
                if kind == GIVE_UP:
                    self.give_up(gateway, now)
                else:
                    self.ask(gateway, kind, now)
            bucket.clear()
            credit = self.serve(now, credit + scenario.accepts * STEP_S)
            if not self.queue:
                credit = min(credit, 1.0)
            if len(wave.connected) == scenario.gateways:
                break
        return wave


def simulate(scenario: Scenario, seed: int = 1, first_attempts: list[float] | None = None) -> Wave:
    """Runs until all are connected, or for half an hour."""
    times = first_attempts or usual_first_attempts(scenario, random.Random(seed))
    return _Run(scenario, times).run()
