"""The operations server of the demo: it switches the management services on, asks the gateway something now
and then, opens and shuts the door of the enclosure, and shows what the daemon answers and reports."""

from __future__ import annotations

import itertools
import json
import time
from dataclasses import dataclass
from typing import Any, Callable

from lab.agent.process import AgentControl
from lab.demo.view import View
from lab.operations.client import COMMAND_TOPIC, is_answer, parsed

_EVENTS_TOPIC = "api/v1/gateway/events"
_CAPABILITIES_TOPIC = "api/capabilities"
_CAPABILITIES = {"capabilities": ["bulk_cfg", "bulk_upgr", "performance_management"]}
_CONFIGURATION, _FIRMWARE, _PERFORMANCE = "configuration/reported", "firmware/reported", "performance"
_BATTERY_SECONDS = 60.0  # the shortest period that there is
_COMMAND_SECONDS = 5.0
_DOOR_SECONDS = 6.0
_DOOR = {"id": 7, "severity": 1, "text": "Enclosure door is open"}
_SHOWN_LETTERS = 110

_COMMANDS: tuple[tuple[str, dict[str, Any]], ...] = (
    ("getGatewayInfo", {}),
    ("getRadioStatistics", {}),
    ("ping", {"destination": "192.0.2.1", "packetsCount": 2}),
    ("getBackups", {}),
)


@dataclass
class _Asked:
    name: str
    at: float
    answered: bool = False


def _shortened(body: Any) -> str:
    text = json.dumps(body, ensure_ascii=False)
    return text if len(text) <= _SHOWN_LETTERS else text[: _SHOWN_LETTERS - 3] + "..."


class Operations:
    def __init__(
        self, mac: str, agent: AgentControl, publish: Callable[[str, bytes], None], view: View
    ) -> None:
        self._mac = mac
        kinds = (_CONFIGURATION, _FIRMWARE, _PERFORMANCE)
        # The MAC stands in capitals there with the native dialect, in small letters with the others.
        self._reports = {f"gateway/mac/{each}/{kind}": kind for each in (mac, mac.upper()) for kind in kinds}
        self._reported = dict.fromkeys(kinds, 0)
        self._battery_due = float("inf")
        self._battery_expected = False
        self.topics = [COMMAND_TOPIC, _EVENTS_TOPIC, *self._reports]
        self._agent = agent
        self._publish = publish
        self._view = view
        self._asked: dict[int, _Asked] = {}
        self._numbers = itertools.count(1)
        self._commands = itertools.cycle(_COMMANDS)
        self._door_open = False
        self._door_told = True
        self._door_moves = self._door_reports = 0
        self._strange: list[str] = []
        self._next_command = self._next_door = float("inf")

    def open(self) -> None:
        now = time.monotonic()
        self._next_command, self._next_door = now + 1.0, now + 2.5
        self._battery_due = now + _BATTERY_SECONDS
        self._publish(_CAPABILITIES_TOPIC, json.dumps(_CAPABILITIES).encode())

    def close(self) -> None:
        self._battery_expected = time.monotonic() >= self._battery_due
        self._next_command = self._next_door = float("inf")

    def tick(self) -> None:
        now = time.monotonic()
        if now >= self._next_command:
            self._next_command = now + _COMMAND_SECONDS
            self._send(*next(self._commands))
        if now >= self._next_door and self._door_told:
            self._next_door = now + _DOOR_SECONDS
            self._move_door()

    def _send(self, name: str, params: dict[str, Any]) -> None:
        number = next(self._numbers)
        body = {"command": name, "requestId": number, "params": params, "mac": self._mac}
        self._asked[number] = _Asked(name, time.monotonic())
        self._publish(COMMAND_TOPIC, json.dumps(body).encode())

    def _move_door(self) -> None:
        self._door_open = not self._door_open
        self._door_told = False
        self._door_moves += 1
        if self._door_open:
            self._agent.do({"raise": "alarm", **_DOOR})
        else:
            self._agent.do({"clear": "alarm", "id": _DOOR["id"]})

    def takes(self, topic: str) -> bool:
        return topic in self.topics

    def message(self, topic: str, payload: bytes) -> None:
        body = parsed(payload)
        if not isinstance(body, dict):
            self._note_strange(f"message on {topic}: {payload[:60]!r}")
        elif topic == _EVENTS_TOPIC:
            self._event_arrived(body)
        elif kind := self._reports.get(topic):
            self._report_arrived(kind, body)
        elif is_answer(body, body.get("requestId")):
            self._answer_arrived(body)

    def _report_arrived(self, kind: str, body: dict[str, Any]) -> None:
        self._reported[kind] += 1
        if kind == _CONFIGURATION:
            self._view.remark("config", "the gateway's configuration: " + _shortened(body["content"]))
        elif kind == _FIRMWARE:
            words = body["content"]["state"], body["content"]["version"], *body["content"]["availableUpdates"]
            self._view.remark("bsp", ", ".join(words))
        else:
            words = (f"{name} {value}" for name, value in body["value"].items() if name.startswith("battery"))
            self._view.remark("power", ", ".join(words))

    def _event_arrived(self, event: dict[str, Any]) -> None:
        words = " ".join(str(event.get(key)) for key in ("type", "severity", "state", "description"))
        self._view.remark("alarm", words)
        door_state = "RAISED" if self._door_open else "CLEAR"
        if event.get("typeId") == _DOOR["id"] and event.get("state") == door_state and not self._door_told:
            self._door_told = True
            self._door_reports += 1

    def _answer_arrived(self, answer: dict[str, Any]) -> None:
        asked = self._asked.get(answer["requestId"])
        if not asked:
            self._view.remark("answer", f"to somebody else's request {answer['requestId']}")
            return
        if asked.answered:
            self._note_strange(f"another answer to request {answer['requestId']}")
            return
        asked.answered = True
        if "response" not in answer:
            self._note_strange(f"{asked.name} is answered without a response")
        took = (time.monotonic() - asked.at) * 1000
        shown = _shortened(answer.get("response"))
        self._view.remark("answer", f"{asked.name} in {took:.1f} ms: {shown}")

    def _note_strange(self, words: str) -> None:
        self._strange.append(words)
        self._view.remark("strange", words, "bad")

    def _answers(self) -> int:
        return sum(asked.answered for asked in self._asked.values())

    def everything_arrived(self) -> bool:
        return self._answers() == len(self._asked) and self._door_told and not self._missing_reports()

    def _missing_reports(self) -> list[str]:
        expected = [_CONFIGURATION, _FIRMWARE, *([_PERFORMANCE] if self._battery_expected else [])]
        return [kind for kind in expected if not self._reported[kind]]

    def totals(self) -> str:
        return f"commands {self._answers()} of {len(self._asked)}"

    def summary(self) -> list[str]:
        return [
            f"commands    {len(self._asked)} sent, {self._answers()} answered",
            f"alarms      {self._door_moves} raised or cleared, {self._door_reports} reported",
            f"reports     {self._reported[_CONFIGURATION]} of the configuration,"
            f" {self._reported[_FIRMWARE]} of the BSP, {self._reported[_PERFORMANCE]} of the battery (each minute)",
        ]

    def failures(self) -> list[str]:
        words = [f"{asked.name} was not answered" for asked in self._asked.values() if not asked.answered]
        if not self._door_told:
            words.append("the last change of an alarm was not reported")
        words += [f"nothing came on {kind}" for kind in self._missing_reports()]
        if self._strange:
            words.append(f"{len(self._strange)} messages of the control plane were not as expected")
        return words
