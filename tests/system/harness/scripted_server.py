"""An MQTT server that does what a test tells it: it holds acknowledgements back, refuses, falls silent."""
import socket
import struct
import threading
from dataclasses import dataclass
from typing import Optional

from .mqtt_peer import Message
from .waiting import PATIENCE, wait_on

CONNECT, CONNACK, PUBLISH, PUBACK = 1, 2, 3, 4
SUBSCRIBE, SUBACK, UNSUBSCRIBE, UNSUBACK = 8, 9, 10, 11
PINGREQ, PINGRESP, DISCONNECT = 12, 13, 14

REFUSED_SUBSCRIPTION = 0x80


@dataclass
class Script:
    """What the server does; a test changes it while it runs."""

    connect_code: int = 0
    subscribe_code: int = 2
    acknowledges: bool = True
    answers_subscriptions: bool = True
    answers_pings: bool = True


def packet(kind: int, body: bytes = b"", flags: int = 0) -> bytes:
    length, encoded = len(body), bytearray()
    while True:
        length, digit = divmod(length, 128)
        encoded.append(digit | (0x80 if length else 0))
        if not length:
            return bytes([kind << 4 | flags]) + bytes(encoded) + body


class ScriptedServer:
    """Serves one client at a time, on a port that the system gives."""

    def __init__(self, script: Optional[Script] = None) -> None:
        self.script = script or Script()
        self.packets: list[int] = []
        self.messages: list[Message] = []
        self.connect_bodies: list[bytes] = []
        self._held: list[bytes] = []
        self._changed = threading.Condition()
        self._client: Optional[socket.socket] = None
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port: int = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    @property
    def url(self) -> str:
        return f"tcp://127.0.0.1:{self.port}"

    def _accept(self) -> None:
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            with self._changed:
                self._client = client
                self._held.clear()
            try:
                self._serve(client)
            except OSError:
                pass
            client.close()

    def _read(self, client: socket.socket, size: int) -> bytes:
        data = b""
        while len(data) < size:
            piece = client.recv(size - len(data))
            if not piece:
                raise OSError("closed by the client")
            data += piece
        return data

    def _serve(self, client: socket.socket) -> None:
        while True:
            head = self._read(client, 1)[0]
            length, shift = 0, 0
            while True:
                digit = self._read(client, 1)[0]
                length |= (digit & 0x7F) << shift
                shift += 7
                if not digit & 0x80:
                    break
            self._answer(client, head, self._read(client, length))

    def _answer(self, client: socket.socket, head: int, body: bytes) -> None:
        kind = head >> 4
        with self._changed:
            self.packets.append(kind)
            if kind == CONNECT:
                self.connect_bodies.append(body)
                client.sendall(packet(CONNACK, bytes([0, self.script.connect_code])))
            elif kind == SUBSCRIBE:
                answer = packet(SUBACK, body[:2] + bytes([self.script.subscribe_code]))
                self._send_or_hold(client, answer, self.script.answers_subscriptions)
            elif kind == UNSUBSCRIBE:
                client.sendall(packet(UNSUBACK, body[:2]))
            elif kind == PUBLISH:
                self._take(client, head, body)
            elif kind == PINGREQ and self.script.answers_pings:
                client.sendall(packet(PINGRESP))
            self._changed.notify_all()

    def _take(self, client: socket.socket, head: int, body: bytes) -> None:
        topic_end = 2 + struct.unpack("!H", body[:2])[0]
        qos = head >> 1 & 3
        payload_start = topic_end + (2 if qos else 0)
        self.messages.append(Message(body[2:topic_end].decode(), body[payload_start:], qos, bool(head & 1)))
        if qos == 0:
            return
        self._send_or_hold(client, packet(PUBACK, body[topic_end:payload_start]), self.script.acknowledges)

    def _send_or_hold(self, client: socket.socket, answer: bytes, sends: bool) -> None:
        if sends:
            client.sendall(answer)
        else:
            self._held.append(answer)

    def publish(self, topic: str, payload: bytes) -> None:
        """To the connected client, subscribed or not, with QoS 0."""
        name = topic.encode()
        with self._changed:
            assert self._client
            self._client.sendall(packet(PUBLISH, struct.pack("!H", len(name)) + name + payload))

    def release(self) -> None:
        """Sends the acknowledgements held back, and holds none from now on."""
        with self._changed:
            assert self._client
            self.script.acknowledges = self.script.answers_subscriptions = True
            self._client.sendall(b"".join(self._held))
            self._held.clear()

    def drop(self) -> None:
        """Closes the connection."""
        with self._changed:
            assert self._client
            self._client.shutdown(socket.SHUT_RDWR)

    def wait_for_messages(self, count: int, timeout: float = PATIENCE) -> list[Message]:
        wait_on(
            self._changed,
            lambda: len(self.messages) >= count,
            lambda: f"{count} messages; there are {len(self.messages)}",
            timeout,
        )
        return self.messages

    def wait_for_packet(self, kind: int, after: int = 0, timeout: float = PATIENCE) -> None:
        wait_on(
            self._changed,
            lambda: kind in self.packets[after:],
            lambda: f"packet {kind}; there are {self.packets[after:]}",
            timeout,
        )

    def close(self) -> None:
        self._listener.close()
        with self._changed:
            if self._client:
                try:
                    self._client.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
