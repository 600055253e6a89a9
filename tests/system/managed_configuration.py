"""A gateway whose configuration the operations server manages: its service, and its sections' programs."""

import json
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
