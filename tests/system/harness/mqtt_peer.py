"""A client of the test at the MQTT server: the network server's side of the talk."""
import socket
import threading
from dataclasses import dataclass
from typing import Callable, Optional

import paho.mqtt.client as mqtt

from .waiting import PATIENCE, wait_on


@dataclass(frozen=True)
class Message:
    topic: str
    payload: bytes
    qos: int
    retain: bool

    @property
    def text(self) -> str:
        return self.payload.decode(errors="backslashreplace")


class MqttPeer:
    """Connected when made; collects what it subscribed to, in order of arrival."""

    def __init__(self, port: int, user: str = "", password: str = "") -> None:
        self.messages: list[Message] = []
        self._granted: set[int] = set()
        self._changed = threading.Condition()
        self._connected = False
        self._client = mqtt.Client()
        if user:
            self._client.username_pw_set(user, password)
        self._client.on_connect = self._on_connect
        self._client.on_subscribe = self._on_subscribe
        self._client.on_message = self._on_message
        self._client.connect("127.0.0.1", port, keepalive=600)
        self._client.loop_start()
        wait_on(self._changed, lambda: self._connected, lambda: "the test's client is connected")

    def _on_connect(self, _client: mqtt.Client, _data: object, _flags: dict[str, int], code: int) -> None:
        self._client.socket().setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        with self._changed:
            self._connected = code == 0
            self._changed.notify_all()

    def _on_subscribe(self, _client: mqtt.Client, _data: object, number: int, _qos: tuple[int, ...]) -> None:
        with self._changed:
            self._granted.add(number)
            self._changed.notify_all()

    def _on_message(self, _client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        with self._changed:
            self.messages.append(Message(message.topic, message.payload, message.qos, bool(message.retain)))
            self._changed.notify_all()

    def subscribe(self, *topics: str) -> None:
        for topic in topics:
            _, number = self._client.subscribe(topic, qos=2)
            wait_on(self._changed, lambda: number in self._granted, lambda: f"subscription of {topic}")

    def publish(self, topic: str, payload: bytes, qos: int = 1) -> None:
        """Returns when the server has taken the message."""
        self._client.publish(topic, payload, qos=qos).wait_for_publish(PATIENCE)

    def publish_at_once(self, topic: str, payload: bytes) -> None:
        """Without any acknowledgement to wait for."""
        self._client.publish(topic, payload, qos=0)

    def mark(self) -> int:
        with self._changed:
            return len(self.messages)

    def since(self, mark: int) -> list[Message]:
        with self._changed:
            return self.messages[mark:]

    def wait_for(
        self, wanted: Callable[[Message], bool], timeout: float = PATIENCE, after: int = 0
    ) -> Message:
        def look() -> Optional[Message]:
            return next((message for message in self.messages[after:] if wanted(message)), None)

        return wait_on(
            self._changed, look, lambda: f"message; there are {self.messages[after:][-10:]}", timeout
        )

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()
