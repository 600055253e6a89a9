"""A gateway whose configuration the operations server manages: its service, and its sections' programs."""

import json
import re
import shutil
import struct
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Optional

from harness.config import GW_MAC
from harness.control import CAPABILITIES, ControlRoad
from harness.mqtt_peer import Message, MqttPeer
from harness.waiting import wait_until

DESIRED = f"gateway/mac/{GW_MAC}/configuration/desired"
REPORTED = f"gateway/mac/{GW_MAC}/configuration/reported"
BULK = b'{"capabilities":["bulk_cfg"]}'
BULK_DONE = "capabilities subscription worker completed"
WORKER_STARTS = "bulk config subscription worker starting"
WORKER_DONE = "bulk config subscription worker completed"
IN_FILE, OUT_FILE = "/tmp/snv_cfg_in.json", "/tmp/snv_cfg_out.json"

# Four programs of a whole read, each of which may miss its first look on a loaded machine.
PATIENT = 60.0


def stamp(timestamp: int) -> bytes:
    return struct.pack("<q", timestamp)


def document(timestamp: object, content: object) -> bytes:
    return json.dumps({"timestamp": timestamp, "content": content}).encode()


def retained(road: ControlRoad) -> list[Message]:
    """What the server keeps of the gateway's reports."""
    peer = MqttPeer(road.broker.port)
    peer.subscribe(REPORTED, "marker")
    peer.publish("marker", b"")
    peer.wait_for(lambda each: each.topic == "marker")
    peer.close()
    return [each for each in peer.messages if each.topic == REPORTED]


@dataclass(frozen=True)
class Outcome:
    """What followed a message: the log, the reports, and the calls of programs."""

    lines: list[str]
    reports: list[bytes]
    calls: list[str]

    @property
    def errors(self) -> list[str]:
        """Their texts, without those of the commands that mark an end."""
        lines = [line for line in self.lines if "[ERROR ]" in line and " bridge_cmd.cpp:" not in line]
        return [line.split(" ", 5)[5] for line in lines]

    @property
    def called(self) -> list[str]:
        """Section and direction of each call."""
        return [" ".join(call.split(" ")[:2]).strip() for call in self.calls]

    def logs(self, text: str) -> bool:
        return any(line.endswith(text) for line in self.lines)


class HeldProgram:
    """A program of the gateway that waits for its switch. It outlives a daemon that ends, so a test that holds
    one lets it go."""

    def __init__(self, gateway: "ManagedGateway", name: str) -> None:
        self._gateway = gateway
        self._mark = gateway.road.bridge.log.mark()
        self._name = f"{name}.hold"
        self._call = "commit " if name == "commit" else f"{name} "
        self._calls = len(gateway.calls())
        self._pid: Optional[int] = None
        gateway.switch(self._name)

    def wait_held(self) -> int:
        """Until it runs; returns its number."""

        def place() -> Optional[int]:
            calls = self._gateway.calls()[self._calls :]
            return next((count for count, call in enumerate(calls, 1) if call.startswith(self._call)), None)

        count = wait_until(place, f"a call of {self._call}", PATIENT)
        log = self._gateway.road.bridge.log
        line = log.wait_for(re.compile(r"launched process pid: \[\d+\]"), after=self._mark, count=count)
        self._pid = int(line.rsplit("[", 1)[1].rstrip("]"))
        return self._pid

    def is_there(self) -> bool:
        """Also while it is a zombie."""
        return self._pid is not None and Path(f"/proc/{self._pid}").exists()

    def runs(self) -> bool:
        try:
            return Path(f"/proc/{self._pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
        except FileNotFoundError:
            return False

    def let_go(self) -> None:
        """By its own root, which stays when the daemon's is gone."""
        if self._pid is None:
            self._gateway.programs.joinpath(self._name).unlink(missing_ok=True)
        elif self.runs():
            Path(f"/proc/{self._pid}/root/var/lib/gateway-configuration", self._name).unlink(missing_ok=True)
            wait_until(lambda: not self.runs(), f"the end of {self._name}")

    def close(self) -> None:
        self.let_go()


class ManagedGateway:
    def __init__(self, road: ControlRoad) -> None:
        self.road = road
        self.stamp_file = road.state / "config_update_timestamp"

    @property
    def programs(self) -> Path:
        """Where the programs keep their state and find their switches."""
        return self.road.inside("var/lib/gateway-configuration")

    def exchange(self, path: str) -> Path:
        return self.road.inside(path.lstrip("/"))

    def forget(self) -> None:
        """As on a gateway that was never configured."""
        for path in (self.exchange(IN_FILE), self.exchange(OUT_FILE), self.programs, self.stamp_file):
            if path.is_dir():
                shutil.rmtree(path)
            path.unlink(missing_ok=True)
        self.programs.mkdir(parents=True)

    def switch(self, name: str, text: str = "") -> Path:
        path = self.programs / name
        path.write_text(text)
        return path

    def calls(self) -> list[str]:
        path = self.programs / "calls"
        return path.read_text().splitlines() if path.exists() else []

    def _follow(self, act: Callable[[], None]) -> Outcome:
        messages, log, calls = self.road.peer.mark(), self.road.bridge.log.mark(), len(self.calls())
        act()
        self.road.command("isAnyoneThere", timeout=PATIENT)
        reports = [each.payload for each in self.road.peer.since(messages) if each.topic == REPORTED]
        return Outcome(self.road.bridge.log.since(log), reports, self.calls()[calls:])

    def start(self) -> Outcome:
        def act() -> None:
            mark = self.road.bridge.log.mark()
            self.road.publish(BULK, CAPABILITIES)
            self.road.bridge.wait_for_log(BULK_DONE, PATIENT, after=mark)

        return self._follow(act)

    def send(self, payload: bytes) -> Outcome:
        """A message on the topic of desired configurations, until it is worked off."""

        def act() -> None:
            mark = self.road.bridge.log.mark()
            self.road.publish(payload, DESIRED)
            self.road.bridge.wait_for_log(WORKER_DONE, PATIENT, after=mark)

        return self._follow(act)

    def desire(self, content: object, timestamp: int = 5, stored: Optional[int] = None) -> Outcome:
        if stored is not None:
            self.stamp_file.write_bytes(stamp(stored))
        return self.send(document(timestamp, content))

    def wait_report(self, text: str) -> Message:
        wanted = text.encode() + b"\0"
        return self.road.peer.wait_for(
            lambda each: each.topic == REPORTED and each.payload == wanted, PATIENT
        )

    def wait_calls(self, count: int) -> list[str]:
        wait_until(lambda: len(self.calls()) >= count, f"{count} calls of programs", PATIENT)
        return self.calls()
