"""One soak: the gateway and its peers, the faults in their turn, and what must hold all along."""

from __future__ import annotations

import json
import random
import re
import time
from collections import deque
from collections.abc import Iterator
from dataclasses import replace
from pathlib import Path

from lab.agent.process import Refused
from lab.demo.build import Programs
from lab.gateway.devices import Radio, lab_devices
from lab.gateway.forwarder import Forwarder
from lab.http.server import FileServer
from lab.soak import explain
from lab.soak.faults import KINDS, Kind, go_together
from lab.soak.gateway import KEEPALIVE_SECONDS, MAC, STATE, UDP_PORT, Gateway, LogLine, Resources
from lab.soak.judge import Judge, Stay, follow_connection
from lab.soak.network import SERVERS, Network
from lab.soak.operations import CAPABILITIES_TOPIC, SCRIPTS, Operations
from lab.soak.peers import Peer
from lab.soak.plan import Plan
from lab.soak.report import Episode, Report
from lab.soak.servers import MqttServer, SshServer, make_certificate
from lab.soak.uplinks import LATE_SECONDS, Uplinks

_START_SECONDS = 60.0
_RATE = 20.0  # uplinks a second
_STAT_SECONDS = 10.0
_FIRST_CALM_SECONDS = 300.0
_NEXT_CALM_SECONDS = 900.0
# The services beside the commands are looked at behind every so many faults.
_FAULTS_PER_SERVICES = 6
_SERVICES_SECONDS = 120.0
_ASK_AGAIN_SECONDS = 10.0
_LOOK_SECONDS = 5.0
# What a keep-alive takes to find a connection's end, and a little more.
_STEADY_SECONDS = KEEPALIVE_SECONDS * 1.5
_STOP_SECONDS = 60.0
_CALM_SECONDS = 200.0
_SETTLED_LOOKS = 15  # a second each
_STATES = (
    (f"{STATE}/last_sw_status", re.compile(rb"(\d:\w+\n(-?\d+:req\n)?)?")),
    (f"{STATE}/config_update_timestamp", re.compile(rb".{8}", re.DOTALL)),
    (
        "/var/lib/gateway.key",
        re.compile(rb"-----BEGIN [A-Z ]*PRIVATE KEY-----\n.*-----END [A-Z ]*PRIVATE KEY-----\n", re.DOTALL),
    ),
    (
        "/var/lib/gateway.crt",
        re.compile(rb"-----BEGIN CERTIFICATE-----\n.*-----END CERTIFICATE-----\n", re.DOTALL),
    ),
)
_FILTERS = "/var/lib/sarnivel-lora-hal/uplink-filter-list"


def _has_accounts() -> bool:
    """A user's own namespace has one account alone, and the SSH server needs two."""
    _, _, count = Path("/proc/self/uid_map").read_text().split()[:3]
    return int(count) > 1


class Soak:
    def __init__(self, programs: Programs, plan: Plan, folder: Path, minutes: float) -> None:
        self._plan = plan
        self._folder = folder
        self._seconds = minutes * 60
        self._begin = time.monotonic()
        self.report = Report(plan, self._say)
        # What is broken and what is asked are drawn apart, so that the one does not depend on how fast the other is.
        self._rng = random.Random(plan.seed)
        self.network = Network(plan.seed)
        for name in ("trusted", "foreign"):
            make_certificate(folder, name)
        names = ("network", "operations") if plan.has_two_servers else ("both",)
        self.servers = [MqttServer(name, folder) for name in names]
        self._files = FileServer(host=SERVERS)
        self._ssh = SshServer(folder) if _has_accounts() else None
        self.uplinks = Uplinks(plan.dialect, MAC, plan.seed, self.report.fail)
        self.gateway = Gateway(programs, folder, self.network, plan, self._log_line)
        self.operations = Operations(
            plan.seed,
            plan.dialect.name == "native",
            self.publish_to_operations,
            self.report.fail,
            self._files,
            self.gateway,
            self._ssh.port if self._ssh else None,
        )
        topic_mac = MAC.upper() if plan.dialect.name == "native" else MAC
        self.downlink_topic = plan.dialect.downlink_topic.format(mac=topic_mac)
        self._radio = Radio(lab_devices(), plan.seed)
        self._forwarder: Forwarder | None = None
        self._peers: list[Peer] = []
        self._lines: deque[LogLine] = deque()
        self._judge = Judge(self.report, self._begin)
        self._turn: list[Kind] = []
        self._is_loaded = True  # uplinks and probes go on
        self._next_look = 0.0
        self._broken_states: set[str] = set()  # as the last look has found them

    def _say(self, text: str) -> None:
        print(f"{time.monotonic() - self._begin:7.1f} {text}", flush=True)

    # What the faults use.

    def publish_to_network(self, topic: str, payload: bytes) -> None:
        self._peers[0].publish(topic, payload)

    def publish_to_operations(self, topic: str, payload: bytes) -> None:
        self._peers[-1].publish(topic, payload, retain=False)

    def restart_forwarder(self) -> None:
        if self._forwarder:
            self._forwarder.stop()
        self._forwarder = self.network.in_gateway(
            lambda: Forwarder(
                ("127.0.0.1", UDP_PORT), bytes.fromhex(MAC), self._radio, self.uplinks.forwarder_event,
                rate=_RATE, stat_seconds=_STAT_SECONDS,
            )  # fmt: skip
        )
        self._forwarder.start()
        self._forwarder.start_pushing()

    # The run.

    def run(self) -> Report:
        self._say(self._plan.words)
        try:
            self._start()
            self._break_things()
            self._end()
        except (OSError, ValueError, Refused) as problem:
            # What is done to a daemon that has ended fails; anything else is the soak's own fault, and told.
            if not self._is_over():
                self.report.fail(f"the soak cannot go on: {problem!r}")
            self._conclude()
        finally:
            self._close()
        return self.report

    def _start(self) -> None:
        for server in self.servers:
            server.start()
        self.gateway.start_agent()
        topics = {topic: self.operations.message for topic in self.operations.topics}
        network = {topic: self.uplinks.message for topic in self._plan.dialect.topics(MAC)}
        fail = self.report.fail
        if len(self.servers) == 1:
            self._peers = [Peer(self.servers[0].plain_port, {**network, **topics}, self._switch_on, fail)]
        else:
            self._peers = [
                Peer(self.servers[0].plain_port, network, lambda _: None, fail),
                Peer(self.servers[1].plain_port, topics, self._switch_on, fail),
            ]
        self.gateway.start_daemon(self.servers[0], self.servers[-1])
        self.restart_forwarder()
        if self._wait_up(time.monotonic(), _START_SECONDS) is None:
            self.report.fail(f"the planes are not up {_START_SECONDS:.0f} s after the start")
        for name, content in SCRIPTS.items():
            self.gateway.write(f"/usr/share/snv-mqtt-bridge/scripts/{name}", content, 0o755)
        self.gateway.write("/var/log/soak.log", b"a line of a log\n" * 2000, 0o644)

    def _switch_on(self, peer: Peer) -> None:
        """Kept by the server, which forgets it when it is killed: the gateway gets it each time that it connects."""
        peer.publish(CAPABILITIES_TOPIC, self.operations.capabilities(), retain=True)

    def _break_things(self) -> None:
        end = self._begin + self._seconds
        next_calm = self._begin + min(_FIRST_CALM_SECONDS, self._seconds / 4)
        while time.monotonic() < end and not self._is_over():
            self._episode()
            self._stay(self._rng.uniform(2, 8))
            if len(self.report.episodes) % _FAULTS_PER_SERVICES == 0:
                self._ask_services()
            if time.monotonic() >= next_calm:
                next_calm = time.monotonic() + _NEXT_CALM_SECONDS
                self._calm()

    def _next_kind(self) -> Kind:
        """Each kind once, in an order that the seed gives, then anew; the floods first, so that the first look at the
        resources comes behind them."""
        if not self._turn:
            loads = [kind for kind in KINDS if "flood" in kind.name or "junk" in kind.name]
            rest = [kind for kind in KINDS if kind not in loads]
            self._rng.shuffle(rest)
            if self.report.episodes:
                rest += loads
                self._rng.shuffle(rest)
                self._turn = rest
            else:
                self._turn = loads + rest
        return self._turn.pop(0)

    def _episode(self) -> None:
        first = self._next_kind()
        kinds = [first]
        if self._rng.random() < 0.25:
            kinds.append(self._rng.choice([kind for kind in KINDS if go_together(first, kind)]))
        mends: list[tuple[float, Kind, Iterator[None]]] = []
        stays: list[Stay] = []
        for kind in kinds:
            seconds = self._rng.uniform(*kind.seconds)
            rng = random.Random(self._rng.randrange(2**32))
            self._say(f"{kind.name}, for {seconds:.0f} s")
            stays.append(self._begin_stay(kind))
            fault = kind.run(self, rng)
            next(fault)
            mends.append((time.monotonic() + seconds, kind, fault))
        for until, _, fault in sorted(mends, key=lambda mend: mend[0]):
            self._stay(until - time.monotonic())
            next(fault, None)
        self._recover(stays)

    def _begin_stay(self, kind: Kind) -> Stay:
        if not kind.carries:
            self.uplinks.touched(kind.name)
        elif kind.touches_connection:
            self.uplinks.jammed()
        return self._judge.begin(kind, time.monotonic())

    def bit(self, kind: str) -> None:
        self._judge.bit(kind)

    def fail(self, words: str) -> None:
        self.report.fail(words)

    def _recover(self, stays: list[Stay]) -> None:
        self.uplinks.released()
        mended = time.monotonic()
        kinds = [stay.kind for stay in stays]
        allowed = sum(kind.recovery for kind in kinds)
        up_at = self._wait_steady(mended, allowed, any(kind.touches_connection for kind in kinds))
        took = (up_at or time.monotonic()) - mended
        self.report.episodes.append(Episode(tuple(kind.name for kind in kinds), took, up_at is not None))
        self._judge.end(stays, time.monotonic())
        if up_at is not None:
            self._say(f"    up after {took:.1f} s")
        elif not self._is_over():
            self.report.fail(f"not up within {allowed:.0f} s of: {' and '.join(kind.name for kind in kinds)}")

    def _wait_steady(self, since: float, seconds: float, may_break_late: bool) -> float | None:
        """When the planes were up for good: a connection whose server had gone may carry a little more before the
        daemon sees its end."""
        end = time.monotonic() + seconds
        while True:
            up_at = self._wait_up(since, end - time.monotonic())
            if up_at is None or not may_break_late:
                return up_at
            while time.monotonic() < up_at + _STEADY_SECONDS and self.uplinks.broken_at() < up_at:
                self._stay(0.2)
                if self._is_over():
                    return None
            if self.uplinks.broken_at() < up_at:
                return up_at
            since = time.monotonic()

    def _wait_up(self, since: float, seconds: float) -> float | None:
        """When an uplink, a command and a downlink that were sent after the moment had come through."""
        end = time.monotonic() + seconds
        next_downlink = 0.0
        while time.monotonic() < end and not self._is_over():
            if time.monotonic() >= next_downlink:
                next_downlink = time.monotonic() + 1.0
                for topic, payload in self.uplinks.downlinks(1):
                    self.publish_to_network(topic, payload)
            self._work(0.1)
            came = (
                self.uplinks.first_round_since(since),
                self.operations.first_answer_since(since),
                self.uplinks.first_downlink_since(since),
            )
            if all(came):
                return max(moment for moment in came if moment)
        return None

    def _ask_services(self) -> None:
        """What the probes do not ask has recovered, too. A service whose thread has ended asks for no restart: that is
        the operator's to do."""
        self._judge_lines()
        if self._judge.has_resting_service:
            self._say("a service rests: the planes are restarted")
            self.report.resting += 1
            self._restart_planes("restart for a service")
        left = self.operations.services()
        end = time.monotonic() + _SERVICES_SECONDS
        next_time = 0.0
        while left and time.monotonic() < end and not self._is_over():
            if time.monotonic() >= next_time:
                next_time = time.monotonic() + _ASK_AGAIN_SECONDS
                for service in left:
                    service.ask()
            self._work(0.1)
            for service in [each for each in left if each.has_answered()]:
                service.finish()
                left.remove(service)
        self.report.services += 1
        for service in left if not self._is_over() else ():
            self.report.fail(f"{service.name} was not told within {_SERVICES_SECONDS:.0f} s")

    def _stay(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0 and not self._is_over():
            self._work(min(left, 0.1))

    def _work(self, seconds: float) -> None:
        self.operations.tick()
        self._judge_lines()
        if time.monotonic() >= self._next_look:
            self._next_look = time.monotonic() + _LOOK_SECONDS
            self._look()
        time.sleep(seconds)

    # What must hold all along.

    def _is_over(self) -> bool:
        fate = self.gateway.fate()
        if fate:
            self.report.fail(f"{fate}, unasked")
        return fate is not None

    def _log_line(self, line: LogLine) -> None:
        follow_connection(line, self.uplinks)
        if line.level not in ("DEBUG", "TRACE"):
            self._lines.append(line)

    def _judge_lines(self) -> None:
        while self._lines:
            self._judge.take(self._lines.popleft())

    def _look(self) -> None:
        now = time.monotonic()
        try:
            seen = self.gateway.resources()
        except (OSError, KeyError):
            return  # it has just ended
        self.report.highest_anonymous_kib = max(self.report.highest_anonymous_kib, seen.anonymous_kib)
        self.report.most_threads = max(self.report.most_threads, seen.threads)
        self.report.most_descriptors = max(self.report.most_descriptors, seen.descriptors)
        self._check_states()
        if self._is_loaded and self.report.episodes:
            self._judge.check_silence(now, self.uplinks.last_round(), self.operations.last_answer())

    def _check_states(self) -> None:
        """A file that is emptied and written anew may be met between by one look, and not by two in a row."""
        broken = {}
        for path, form in _STATES:
            content = self.gateway.read(path)
            if content is not None and not form.fullmatch(content):
                broken[path] = content
        filters = self.gateway.read(_FILTERS)
        if filters is not None:
            try:
                json.loads(filters)
            except ValueError:
                broken[_FILTERS] = filters
        for path, content in broken.items():
            if content and path != _FILTERS or path in self._broken_states:
                self.report.fail(f"{path} holds {content[:80]!r}")
        self._broken_states = set(broken)

    # Resources.

    def _calm(self) -> None:
        """Counts what the daemon holds behind a restart of both planes with nothing else to do."""
        self.operations.works = False
        self._say("calm: the planes are restarted, and what the daemon holds is counted")
        self.operations.ask("logRetrieveStop", {})  # else its watcher stays
        self.operations.ask("stopReverseSsh", {})
        self._wait_for_children()
        self._restart_planes("calm")
        seen = self._settled_resources()
        self._say(f"    {seen}")
        if seen:
            self.report.looks.append(seen)
        self.operations.works = True

    def _restart_planes(self, why: str) -> None:
        stay = self._begin_stay(
            Kind(why, KINDS[0].run, (0, 0), "connection", _CALM_SECONDS, explain.CONNECTION, ())
        )
        for server in self.servers:
            server.kill()
            server.start()
        self._recover([stay])
        del self.report.episodes[-1]

    def _wait_for_children(self) -> None:
        end = time.monotonic() + _CALM_SECONDS
        while self.gateway.children() and time.monotonic() < end and not self._is_over():
            self._stay(0.5)

    def _settled_resources(self) -> Resources | None:
        """Once nothing but memory changes from one look to the next, for some looks."""
        seen: list[Resources] = []
        end = time.monotonic() + _CALM_SECONDS
        while time.monotonic() < end and not self._is_over():
            self._stay(1.0)
            now = self.gateway.resources()
            if seen and replace(now, anonymous_kib=0, resident_kib=0) != replace(
                seen[-1], anonymous_kib=0, resident_kib=0
            ):
                seen = []
            seen.append(now)
            if len(seen) == _SETTLED_LOOKS:
                return now
        self.report.fail("the resources do not settle")
        return None

    # The end.

    def _end(self) -> None:
        if not self._is_over():
            self._ask_services()
            self._calm()
        self._is_loaded = False
        if self._forwarder:
            self._forwarder.stop_pushing()
        if not self._is_over():
            self._stay(LATE_SECONDS + 1)
            self._judge_lines()
            self._judge.stopping(time.monotonic())
            fate = self.gateway.stop_daemon(_STOP_SECONDS)
            if fate != "the daemon ended with status 0":
                self.report.fail(f"{fate}, when asked by SIGUSR2")
        self._conclude()

    def _conclude(self) -> None:
        self._judge_lines()
        if self._ssh:
            self.report.tunnels = self._ssh.logins
        self.report.conclude(self.uplinks, self.operations, time.monotonic() - self._begin)

    def _close(self) -> None:
        if self._forwarder:
            self._forwarder.stop()
        self.gateway.close()
        for peer in self._peers:
            peer.close()
        for server in self.servers:
            server.kill()
        self._files.close()
        if self._ssh:
            self._ssh.close()
        self.network.close()
