"""The optional services that an operations server switches on: board upgrades and battery reports. Tests put into
their queues what their timers put there after half a minute or more."""
import json
import re
import signal
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Self

from harness.bridge import Bridge
from harness.config import GW_MAC
from harness.control import CAPABILITIES, ControlRoad
from harness.lab import LabAgent
from harness.log_reader import Wanted
from harness.mqtt_peer import Message
from harness.waiting import PATIENCE, wait_until
from service_queue import performance_message, send, upgrade_message
from upgrade_utility import UpgradeUtility

SECOND = 1_700_000_000  # of a request

IDLE = "NO KNOWN BSP ACTIVITY"
DOWNLOADING = "DOWNLOADING"
DOWNLOADED = "DOWNLOADED"
SCHEDULED = "UPDATE SCHEDULED"
INSTALLING = "INSTALLING"
FAILED = "INSTALL (DOWNLOAD/UPGRADE) FAILED"
INSTALLED = "INSTALLED"
NOTHING = "NO BSP UPGRADE AVAILABLE"
ERROR = "UNEXPECTED ERROR DURING BSP SCHEDULING"

REPORT = re.compile(
    f'{{"mac":"{GW_MAC}","lastStateUpdateTs":(\\d+),"content":{{"version":"([^"]*)","state":"([^"]*)",'
    r'"lastFirmwareUpdateTs":(\d+),"availableUpdates": \["([^"]*)"\]}}'
    "\0"
)


def capabilities(*names: str) -> bytes:
    return json.dumps({"capabilities": names}).encode()


def now_ms() -> int:
    return int(time.time() * 1000)


@dataclass(frozen=True)
class Report:
    changed: int
    version: str
    state: str
    installed: int
    available: str

    @property
    def content(self) -> tuple[str, str, str]:
        return self.version, self.state, self.available


def report_of(message: Message) -> Report:
    match = REPORT.fullmatch(message.payload.decode())
    assert match, message.payload
    changed, version, state, installed, available = match.groups()
    return Report(int(changed), version, state, int(installed), available)


class Service:
    """One service of a daemon, watched from a mark on."""

    name: str
    waiting: str
    queue: str
    timer_message: bytes
    topic: str

    def __init__(self, road: ControlRoad) -> None:
        self.road = road
        self.mark()

    def mark(self) -> None:
        """Behind all that has been published so far."""
        self.road.command("isAnyoneThere")
        self.messages, self.lines = self.road.peer.mark(), self.road.bridge.log.mark()
        self.marked_at = now_ms()

    def enable(self, *others: str) -> None:
        self.road.publish(capabilities(self.name, *others), CAPABILITIES)

    def start(self) -> Self:
        self.enable()
        self.wait_idle()
        return self

    def wait_for(self, text: Wanted, timeout: float = PATIENCE, count: int = 1) -> str:
        """A line of the log behind the mark."""
        return self.road.bridge.wait_for_log(text, timeout, after=self.lines, count=count)

    def wait_idle(self, count: int = 1) -> None:
        """Until the service has done that many actions since the mark, and waits."""
        self.wait_for(self.waiting, count=count)

    def put(self, message: bytes, create: bool = False) -> None:
        """Into the queue."""
        send(self.road.bridge, self.queue, message, create)

    def logged(self, text: Wanted) -> int:
        return len(self.road.bridge.log.find(text, after=self.lines))

    def published(self) -> list[Message]:
        """Since the mark. What went out before the answer to a command has arrived before it."""
        self.road.command("isAnyoneThere")
        return [each for each in self.road.peer.since(self.messages) if each.topic == self.topic]

    def close(self) -> None:
        self.road.close()


class Upgrades(Service):
    """Of a daemon of its own."""

    name = "bulk_upgr"
    waiting = "BSP upgrade thread waiting for the next message"
    queue = "/bsp_upgrade_mq"
    timer_message = upgrade_message(3)
    desired = f"gateway/mac/{GW_MAC}/firmware/desired"
    topic = f"gateway/mac/{GW_MAC}/firmware/reported"

    def __init__(self, work: Path, agent: LabAgent, **options: Any) -> None:
        self.work = work
        self.utility = UpgradeUtility(work)
        self.utility.start_again()
        super().__init__(ControlRoad(work, agent, env=self.utility.env, **options).wait_ready())

    def poll(self) -> None:
        """What the timer does after 30 s."""
        self.put(self.timer_message)
        self.wait_idle()

    def post(self, body: object) -> None:
        self.road.publish(body if isinstance(body, bytes) else json.dumps(body).encode(), self.desired)

    def request(self, second: int = SECOND, update: object = None, **others: object) -> None:
        self.post({"updateTs": second * 1000, "update": update or {}, **others})
        self.wait_idle()

    def reports(self) -> list[Report]:
        """Since the mark; each one's state has its own time."""
        reports = [report_of(each) for each in self.published()]
        now = now_ms()
        for each in reports:
            assert self.marked_at <= each.changed <= now, (self.marked_at, each, now)
        return reports

    def contents(self) -> list[tuple[str, str, str]]:
        return [each.content for each in self.reports()]

    def states(self) -> list[str]:
        return [each.state for each in self.reports()]

    def close(self) -> None:
        self.utility.let_go()
        super().close()

    def wait_busy(self, option: str) -> None:
        """Until the utility has been called so, for something that it does not end."""
        wait_until(lambda: self.utility.calls()[-1:] == [option], "the utility runs")

    def end_while_busy(self) -> None:
        """Ends the daemon, and the utility after it."""
        bridge = self.road.bridge
        bridge.signal(signal.SIGUSR2)
        self.wait_for("bridge is shutting down")
        wait_until(lambda: not bridge.running(), "the daemon has ended")
        self.utility.let_go()
        assert bridge.wait_exit() == 0

    def run_again(self) -> None:
        """Starts a daemon that has ended once more; the server and what the utility knows stay."""
        self.road.bridge.close()
        arguments = ["-c", str(self.work / "bridge.toml"), "-d", "-v", "4"]
        self.road.bridge = Bridge(self.work, arguments, self.utility.env)
        self.road.wait_ready()
        self.mark()


class Battery(Service):
    name = "performance_management"
    waiting = "Performance management thread waiting for the next message"
    queue = "/performance_management_mq"
    timer_message = performance_message(2, 0)
    topic = f"gateway/mac/{GW_MAC}/performance"

    @property
    def agent(self) -> LabAgent:
        return self.road.agent

    def tick(self, message: bytes = timer_message) -> None:
        """What the timer does after a period."""
        self.put(message)
        self.wait_idle()

    def reports(self) -> list[bytes]:
        return [each.payload for each in self.published()]
