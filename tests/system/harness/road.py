"""The whole road: packet forwarder, daemon, MQTT server and the network server's client, for one dialect.

A message under test is followed by a marker, a good message of the same kind. The daemon works in order, so
what has come when the marker comes is all that the message under test brought about."""
import itertools
import json
from dataclasses import dataclass
from pathlib import Path
from typing import Optional

from .bridge import Bridge
from .broker import Mosquitto
from .config import CONTROL_OFF, ControlPlane, Sections, gateway_config, merged, write_config
from .dialects import Dialect
from .forwarder import PULL_RESP, PUSH_ACK, Body, Datagram, Forwarder, body_bytes
from .mqtt_peer import Message, MqttPeer
from .ports import free_port
from .samples import DOWNLINKS, rxpk_v2
from .waiting import PATIENCE

_marker_numbers = itertools.count()


def next_marker() -> str:
    return f"marker{next(_marker_numbers):06d}"


@dataclass(frozen=True)
class Outcome:
    """What a datagram brought about."""

    acked: bool
    published: list[Message]
    log: list[str]

    def texts(self) -> list[str]:
        return [message.text for message in self.published]

    def logged(self, text: str) -> bool:
        return any(text in line for line in self.log)


class Road:
    def __init__(
        self,
        work: Path,
        dialect: Dialect,
        changes: Optional[Sections] = None,
        arguments: tuple[str, ...] = (),
        shares_geolocation: bool = False,
        control: ControlPlane = CONTROL_OFF,
    ) -> None:
        self.dialect = dialect
        work.mkdir(parents=True, exist_ok=True)
        self.udp_port = free_port()
        self.broker = Mosquitto(work / "broker")
        base: Sections = {"ns": {"url": self.broker.url, "type": dialect.ns_type}}
        if shares_geolocation:
            base["geoloc"] = {"url": self.broker.url}
        self.config = gateway_config(self.udp_port, merged(merged(control.changes, base), changes))
        path = write_config(work / "bridge.toml", self.config)
        self.peer = MqttPeer(self.broker.port)
        self.peer.subscribe("#")
        self.bridge = Bridge(work, ["-c", str(path), "-d", "-v", "4", *control.arguments, *arguments])
        self.forwarder = Forwarder(self.udp_port)

    @property
    def client_id(self) -> str:
        return str(self.config["generic"]["client_id"])

    def wait_ready(self) -> "Road":
        self.bridge.wait_connected()
        self.forwarder.pull_data()
        return self

    def close(self) -> None:
        try:
            self.bridge.close()
        finally:
            self.forwarder.close()
            self.peer.close()
            self.broker.close()

    def _marker_uplink(self, messages: int) -> tuple[int, Message]:
        """A good uplink, once acknowledged and published; and what follows it in the log is another's."""
        marker = next_marker()
        log = self.bridge.log.mark()
        token = self.forwarder.push_data({"rxpk": [rxpk_v2(data=marker)]})
        published = self.peer.wait_for(lambda message: marker in message.text, after=messages)
        self.forwarder.wait_push_ack(token)
        self.bridge.wait_for_log(marker, after=log)
        return token, published

    def _outcome(self, token: int, mark: tuple[int, int, int]) -> Outcome:
        acks, messages, log = mark
        marker_token, marker = self._marker_uplink(messages)
        tokens = [ack.token for ack in self.forwarder.up.since(acks) if ack.kind == PUSH_ACK]
        published = self.peer.since(messages)
        assert tokens.count(marker_token) == 1, f"the marker's token came with others: {tokens}"
        return Outcome(token in tokens, published[: published.index(marker)], self.bridge.log.since(log))

    def _mark(self) -> tuple[int, int, int]:
        return self.forwarder.up.mark(), self.peer.mark(), self.bridge.log.mark()

    def push(self, body: Body, version: int = 2) -> Outcome:
        """Sends PUSH_DATA, and tells all that came of it."""
        mark = self._mark()
        return self._outcome(self.forwarder.push_data(body, version), mark)

    def push_raw(self, raw: bytes) -> Outcome:
        mark = self._mark()
        self.forwarder.send_raw(raw)
        return self._outcome(int.from_bytes(raw[1:3], "little"), mark)

    def tx_ack(self, body: Body, token: Optional[int] = None) -> Outcome:
        mark = self._mark()
        return self._outcome(self.forwarder.tx_ack(body, token=token), mark)

    def downlink(self, body: Body) -> Datagram:
        """Publishes a downlink and returns its PULL_RESP."""
        mark = self.forwarder.down.mark()
        self.peer.publish(self.dialect.downlink, body_bytes(body))
        return self.forwarder.wait_pull_resp(after=mark)

    def refused_downlink(self, body: Body) -> list[str]:
        """Publishes a downlink of which nothing may reach the forwarder, and returns what was logged."""
        mark, log = self.forwarder.down.mark(), self.bridge.log.mark()
        marker = next_marker()
        self.peer.publish(self.dialect.downlink, body_bytes(body))
        self.peer.publish(self.dialect.downlink, body_bytes(DOWNLINKS[self.dialect.name](data=marker)))
        response = self.forwarder.wait_pull_resp(timeout=PATIENCE, after=mark)
        assert json.loads(response.body.rstrip(b"\0"))["txpk"]["data"] == marker, "the bad downlink went out"
        responses = [each for each in self.forwarder.down.since(mark) if each.kind == PULL_RESP]
        assert responses == [response]
        self.bridge.wait_for_log("bytes written to pipe", after=log)
        return self.bridge.log.since(log)
