"""The control plane of a daemon under test: its settings, and the road of a command."""
import itertools
import json
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional

from .bridge import Bridge
from .broker import Mosquitto
from .config import GW_MAC, ControlPlane, Sections, gateway_config, merged, write_config
from .lab import MIBS, LabAgent
from .mqtt_peer import Message, MqttPeer
from .ports import free_port
from .waiting import PATIENCE, wait_until

COMMANDS = "api/v1/gateway/commands"
ASYNC_RESPONSES = "api/v1/gateway/commands/async_response"
CONFIGURATION = "api/v1/gateway/configuration"
EVENTS = "api/v1/gateway/events"
CAPABILITIES = "api/capabilities"

PIPE = "tmp/snv_bridge.pipe"
STATE = "state"
STARTED = "ctrlplane is started"
WORKER_DONE = "exiting MQTT subscription worker"
FIRST_REQUEST = 1000
SIZES = [1, 2, 1023, 4096, 65535, 65536, 1 << 20]  # of messages, in bytes

# Alarms are asked for this often, in seconds, and a restart of the control plane waits for the next time.
POLL = 1


def control_on(agent_address: str, polls: int = POLL, **snmp: str) -> ControlPlane:
    return ControlPlane(
        {
            "snmp": {"agent_addr": agent_address, "community": "public", "mib_dir": str(MIBS), **snmp},
            "generic": {"gw_events_interval": polls},
        }
    )


def request(command: object, params: object, request_id: object, mac: object = GW_MAC) -> dict[str, object]:
    return {"command": command, "requestId": request_id, "params": params, "mac": mac}


def is_answer(message: Message) -> bool:
    """Requests and answers share a topic; an answer ends with a NUL."""
    return message.topic == COMMANDS and message.payload.endswith(b"}\0")


def is_push(message: Message) -> bool:
    """A document of the gateway's own, at the start of its control plane."""
    return (
        message.topic == CONFIGURATION
        and b'"applyTs"' in message.payload
        and b'"contentType"' not in message.payload
    )


@dataclass(frozen=True)
class Answer:
    payload: bytes

    @property
    def text(self) -> str:
        return self.payload[:-1].decode()

    @property
    def pairs(self) -> list[tuple[str, Any]]:
        """Keys and values in their order; a repeated key stays visible."""
        pairs: list[tuple[str, Any]] = json.loads(self.text, object_pairs_hook=list)
        return pairs

    @property
    def json(self) -> dict[str, Any]:
        parsed: dict[str, Any] = json.loads(self.text)
        return parsed

    @property
    def response(self) -> Any:
        return self.json.get("response")


class ControlRoad:
    """OA&M server, daemon and agent. The data plane is off: the OA&M server is the daemon's only one."""

    def __init__(
        self,
        work: Path,
        agent: LabAgent,
        changes: Optional[Sections] = None,
        polls: int = POLL,
        arguments: tuple[str, ...] = ("-v", "4"),
        state: Optional[dict[str, str]] = None,
        env: Optional[dict[str, str]] = None,
        to_stderr: bool = True,
        **snmp: str,
    ) -> None:
        work.mkdir(parents=True, exist_ok=True)
        self.agent = agent
        self._numbers = itertools.count(FIRST_REQUEST)
        self.broker = Mosquitto(work / "broker")
        self.state = work / STATE
        if state is not None:
            self.state.mkdir()
            for name, text in state.items():
                (self.state / name).write_text(text)
        own: Sections = {"oam": {"url": self.broker.url}, "generic": {"state_dir": str(self.state)}}
        control = control_on(agent.address, polls, **snmp)
        config = gateway_config(free_port(), merged(merged(control.changes, own), changes))
        path = write_config(work / "bridge.toml", config)
        self.client_id = str(config["generic"]["client_id"])
        self.peer = MqttPeer(self.broker.port)
        self.peer.subscribe("#")
        self.bridge = Bridge(work, ["-c", str(path), *(["-d"] if to_stderr else []), *arguments], env)

    def wait_ready(self, count: int = 1, timeout: float = PATIENCE) -> "ControlRoad":
        self.bridge.wait_for_log(STARTED, timeout, count=count)
        return self

    def close(self) -> None:
        try:
            self.bridge.close()
        finally:
            self.peer.close()
            self.broker.close()

    def new_peer(self) -> None:
        """After the server was down, with what was lost in between."""
        self.peer.close()
        self.peer = MqttPeer(self.broker.port)
        self.peer.subscribe("#")

    def publish(self, payload: bytes, topic: str = COMMANDS) -> None:
        self.peer.publish(topic, payload)

    def send(self, command: str, params: object = None) -> int:
        """Publishes a request and returns its number."""
        number = next(self._numbers)
        body = request(command, {} if params is None else params, number)
        self.publish(json.dumps(body).encode())
        return number

    def answer_to(self, number: int, timeout: float = PATIENCE) -> Answer:
        wanted = f'"requestId":{number},'.encode()
        last = f'"requestId":{number}}}'.encode()
        message = self.peer.wait_for(
            lambda each: is_answer(each) and (wanted in each.payload or last in each.payload), timeout
        )
        return Answer(message.payload)

    def command(self, command: str, params: object = None, timeout: float = PATIENCE) -> Answer:
        return self.answer_to(self.send(command, params), timeout)

    def answers(self, after: int = 0) -> list[Answer]:
        return [Answer(each.payload) for each in self.peer.since(after) if is_answer(each)]

    def _is_settled(self) -> bool:
        """The daemon hears its own answers too, as requests without a command; but not the documents that it
        pushes before it subscribes."""
        heard = [
            each
            for each in self.peer.since(0)
            if each.topic in (COMMANDS, CONFIGURATION) and each.payload and not is_push(each)
        ]
        return len(self.bridge.log.find(WORKER_DONE)) == len(heard)

    def settle(self) -> None:
        """Waits until all messages so far are worked off."""
        wait_until(self._is_settled, "every message is worked off")

    def unanswered(self, payload: bytes, topic: str = COMMANDS) -> list[str]:
        """Publishes what no answer may follow, then an unknown command; returns what the first one logged."""
        self.settle()
        messages, log = self.peer.mark(), self.bridge.log.mark()
        self.publish(payload, topic)
        self.bridge.wait_for_log(WORKER_DONE, after=log)
        lines = self.bridge.log.since(log)
        marker = self.command("isAnyoneThere")
        assert self.answers(messages) == [marker], "there is an answer"
        return lines

    def inside(self, path: str) -> Path:
        """A file of the daemon's own root."""
        return Path(f"/proc/{self.bridge.process.pid}/root") / path

    def write_pipe(self, text: bytes) -> None:
        """One write, as a child of the daemon does it."""
        with self.inside(PIPE).open("wb", buffering=0) as pipe:
            assert pipe.write(text) == len(text)

    def async_responses(self) -> list[bytes]:
        return [each.payload for each in self.peer.since(0) if each.topic == ASYNC_RESPONSES]

    def wait_async(self, payload: bytes) -> None:
        wait_until(lambda: payload in self.async_responses(), f"{payload[:60]!r} on {ASYNC_RESPONSES}")

    def events(self, after: int = 0) -> list[bytes]:
        return [each.payload for each in self.peer.since(after) if each.topic == EVENTS]

    def wait_event(self, *parts: str, after: int = 0) -> Message:
        """An event whose text holds all the parts."""
        return self.peer.wait_for(
            lambda each: each.topic == EVENTS and all(part in each.text for part in parts), after=after
        )
