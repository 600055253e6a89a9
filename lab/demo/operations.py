"""The operations server of the demo: it asks the gateway something now and then, opens and shuts the door of
the enclosure, and shows what the daemon answers and reports."""

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


class Operations:
    topics = [COMMAND_TOPIC, _EVENTS_TOPIC]

    def __init__(
        self, mac: str, agent: AgentControl, publish: Callable[[str, bytes], None], view: View
    ) -> None:
        self._mac = mac
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

    def close(self) -> None:
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
        elif is_answer(body, body.get("requestId")):
            self._answer_arrived(body)

    def _event_arrived(self, event: dict[str, Any]) -> None:
        words = " ".join(str(event.get(key)) for key in ("type", "severity", "state", "description"))
        self._view.remark("alarm", words)
        door_state = "RAISED" if self._door_open else "CLEAR"
        if event.get("typeId") == _DOOR["id"] and event.get("state") == door_state and not self._door_told:
            self._door_told = True
            self._door_reports += 1

    def _answer_arrived(self, answer: dict[str, Any]) -> None:
        asked = self._asked.get(answer["requestId"])
        if not asked or asked.answered:
            self._note_strange(f"an answer to request {answer['requestId']}, which nobody waits for")
            return
        asked.answered = True
        if "response" not in answer:
            self._note_strange(f"{asked.name} is answered without a response")
        took = (time.monotonic() - asked.at) * 1000
        text = json.dumps(answer.get("response"), ensure_ascii=False)
        shown = text if len(text) <= _SHOWN_LETTERS else text[: _SHOWN_LETTERS - 3] + "..."
        self._view.remark("answer", f"{asked.name} in {took:.1f} ms: {shown}")

    def _note_strange(self, words: str) -> None:
        self._strange.append(words)
        self._view.remark("strange", words, "bad")

    def _answers(self) -> int:
        return sum(asked.answered for asked in self._asked.values())

    def everything_arrived(self) -> bool:
        return self._answers() == len(self._asked) and self._door_told

    def totals(self) -> str:
        return f"commands {self._answers()} of {len(self._asked)}"

    def summary(self) -> list[str]:
        return [
            f"commands    {len(self._asked)} sent, {self._answers()} answered",
            f"alarms      {self._door_moves} raised or cleared, {self._door_reports} reported",
        ]

    def failures(self) -> list[str]:
        words = [f"{asked.name} was not answered" for asked in self._asked.values() if not asked.answered]
        if not self._door_told:
            words.append("the last change of an alarm was not reported")
        if self._strange:
            words.append(f"{len(self._strange)} messages of the control plane were not as expected")
        return words
