"""The operations server's place at the MQTT server."""

from __future__ import annotations

import json
import queue
import socket
import time
from dataclasses import dataclass
from typing import Any, Iterator

import paho.mqtt.client as mqtt

COMMAND_TOPIC = "api/v1/gateway/commands"
LATE_TOPIC = "api/v1/gateway/commands/async_response"
CONNECT_WITHIN = 10.0


class Unreachable(Exception):
    """There is no talking to the MQTT server."""


@dataclass(frozen=True)
class Received:
    topic: str
    payload: bytes
    retained: bool


def parsed(payload: bytes) -> Any:
    """The JSON of a message, with or without the NUL at its end; None when it has none."""
    try:
        return json.loads(payload.rstrip(b"\0"))
    except (ValueError, RecursionError):
        return None


def send_at_once(_client: mqtt.Client, _data: object, connection: socket.socket) -> None:
    """A message behind an acknowledgement would wait 40 ms for the other side's otherwise."""
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)


class Client:
    """Connected and subscribed once made."""

    def __init__(self, host: str, port: int, user: str, password: str, topics: list[str]) -> None:
        self._messages: queue.SimpleQueue[Received] = queue.SimpleQueue()
        self._results: queue.SimpleQueue[int] = queue.SimpleQueue()
        self._topics = topics
        self._client = mqtt.Client()
        if user:
            self._client.username_pw_set(user, password)
        self._client.on_connect = self._on_connect
        self._client.on_subscribe = lambda *_: self._results.put(0)
        self._client.on_message = self._on_message
        self._client.on_socket_open = send_at_once
        try:
            self._client.connect(host, port, keepalive=60)
        except OSError as reason:
            raise Unreachable(f"no MQTT server at {host}:{port}: {reason}") from None
        self._client.loop_start()
        self._wait_subscribed()

    def _on_connect(self, client: mqtt.Client, _data: object, _flags: dict[str, int], code: int) -> None:
        if code != 0:
            self._results.put(code)
            return
        client.subscribe([(topic, 1) for topic in self._topics])

    def _on_message(self, _client: mqtt.Client, _data: object, message: mqtt.MQTTMessage) -> None:
        self._messages.put(Received(message.topic, message.payload, bool(message.retain)))

    def _wait_subscribed(self) -> None:
        try:
            code = self._results.get(timeout=CONNECT_WITHIN)
        except queue.Empty:
            raise Unreachable("the MQTT server does not answer") from None
        if code != 0:
            raise Unreachable(mqtt.connack_string(code))

    def publish(self, topic: str, payload: bytes) -> None:
        self._client.publish(topic, payload, qos=1).wait_for_publish(CONNECT_WITHIN)

    def messages(self, seconds: float | None = None) -> Iterator[Received]:
        """As they come, for so long."""
        end = None if seconds is None else time.monotonic() + seconds
        while True:
            left = None if end is None else end - time.monotonic()
            if left is not None and left <= 0:
                return
            try:
                yield self._messages.get(timeout=left)
            except queue.Empty:
                return

    def close(self) -> None:
        self._client.disconnect()
        self._client.loop_stop()


def is_answer(body: Any, request_id: Any) -> bool:
    """A request has the same number and topic, but names a command."""
    if not isinstance(body, dict) or "command" in body or "requestId" not in body:
        return False
    return bool(body["requestId"] == request_id)


class LateAnswers:
    """Late answers have no frame: a long one comes in pieces, and several may come as one."""

    def __init__(self) -> None:
        self._text = ""

    def take(self, payload: bytes) -> Iterator[Any]:
        if parsed(payload) is not None:
            self._text = ""  # the rest of a text that a loss has cut off would hide all that follows
        self._text += payload.decode(errors="replace")
        decoder = json.JSONDecoder()
        while self._text:
            try:
                body, end = decoder.raw_decode(self._text)
            except ValueError:
                return
            yield body
            self._text = self._text[end:]


def answers(client: Client, sent: bytes, request_id: Any, timeout: float) -> Iterator[tuple[str, Any]]:
    """Topic and body of what answers the request, at once or late."""
    late = LateAnswers()
    for message in client.messages(timeout):
        if message.payload == sent:
            continue
        bodies = late.take(message.payload) if message.topic == LATE_TOPIC else [parsed(message.payload)]
        for body in bodies:
            if is_answer(body, request_id):
                yield message.topic, body
