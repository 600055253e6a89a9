"""The lab's clients at the MQTT servers: connected whenever a server is there, and never in its way."""

from __future__ import annotations

from typing import Callable

import paho.mqtt.client as mqtt

from lab.operations.client import send_at_once


class Peer:
    """Each of its topics leads to a function, which is called on the client's thread. What goes wrong there ends that
    thread otherwise, without a word."""

    def __init__(
        self,
        port: int,
        topics: dict[str, Callable[[str, bytes], None]],
        on_connected: Callable[[Peer], None],
        fail: Callable[[str], None],
    ) -> None:
        self._fail = fail
        self._topics = topics
        self._on_connected = on_connected
        self._client = mqtt.Client()
        self._client.reconnect_delay_set(min_delay=1, max_delay=1)
        self._client.max_queued_messages_set(100_000)
        self._client.on_connect = self._connected
        self._client.on_message = self._arrived
        self._client.on_socket_open = send_at_once
        self._client.connect_async("127.0.0.1", port, keepalive=3600)
        self._client.loop_start()

    def _connected(self, client: mqtt.Client, *_: object) -> None:
        client.subscribe([(topic, 1) for topic in self._topics])
        self._on_connected(self)

    def _arrived(self, _client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        try:
            self._topics[message.topic](message.topic, message.payload)
        except Exception as problem:  # noqa: BLE001
            self._fail(f"message on {message.topic}: {problem!r}")

    def publish(self, topic: str, payload: bytes, retain: bool = False) -> None:
        """Lost while the server is away, as what comes from a server that is away."""
        if self._client.is_connected():
            self._client.publish(topic, payload, qos=1, retain=retain)

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()
