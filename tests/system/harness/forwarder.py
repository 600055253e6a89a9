"""A simulated packet forwarder, with a socket for each direction, as real ones have."""
import itertools
import json
import random
import socket
import threading
from dataclasses import dataclass
from typing import Optional, Union

from .waiting import PATIENCE, wait_on

PUSH_DATA, PUSH_ACK, PULL_DATA, PULL_RESP, PULL_ACK, TX_ACK = range(6)

PACKET_MAC = bytes.fromhex("aa555a0000000123")

Body = Union[bytes, str, dict, list]

_tokens = itertools.count(random.randrange(0x10000))


def next_token() -> int:
    return next(_tokens) & 0xFFFF


def body_bytes(body: Body) -> bytes:
    if isinstance(body, (dict, list)):
        body = json.dumps(body, separators=(",", ":"))
    return body.encode() if isinstance(body, str) else body


@dataclass(frozen=True)
class Datagram:
    raw: bytes

    @property
    def version(self) -> int:
        return self.raw[0]

    @property
    def token(self) -> int:
        return int.from_bytes(self.raw[1:3], "little")

    @property
    def kind(self) -> int:
        return self.raw[3]

    @property
    def body(self) -> bytes:
        return self.raw[4:]


class Socket:
    """One UDP socket whose datagrams are collected in order of arrival."""

    def __init__(self, host: str, port: int = 0) -> None:
        self.received: list[Datagram] = []
        self._changed = threading.Condition()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.socket.bind((host, port))
        self.socket.settimeout(0.05)
        self._open = True
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self) -> None:
        while self._open:
            try:
                raw = self.socket.recv(65536)
            except TimeoutError:
                continue
            except OSError:
                return
            with self._changed:
                self.received.append(Datagram(raw))
                self._changed.notify_all()

    def mark(self) -> int:
        with self._changed:
            return len(self.received)

    def since(self, mark: int) -> list[Datagram]:
        with self._changed:
            return self.received[mark:]

    def wait_for(
        self,
        kind: int,
        token: Optional[int] = None,
        timeout: float = PATIENCE,
        after: int = 0,
        count: int = 1,
    ) -> Datagram:
        """The `count`-th datagram of the kind, and of the token if one is given, behind the mark."""

        def look() -> Optional[Datagram]:
            found = [
                datagram
                for datagram in self.received[after:]
                if len(datagram.raw) >= 4 and datagram.kind == kind and token in (None, datagram.token)
            ]
            return found[count - 1] if len(found) >= count else None

        return wait_on(
            self._changed,
            look,
            lambda: f"datagram {kind} with token {token}; there are "
            f"{[datagram.raw[:80] for datagram in self.received[after:][-10:]]}",
            timeout,
        )

    def close(self) -> None:
        self._open = False
        self._thread.join()
        self.socket.close()


class Forwarder:
    """Talks to the daemon's UDP port: uplinks from the socket `up`, the downlink side from `down`."""

    def __init__(self, port: int, host: str = "127.0.0.1") -> None:
        self.target = ("127.0.0.1", port)
        self.host = host
        self.up = Socket(host)
        self.down = Socket(host)
        self._marks: dict[int, int] = {}

    def send_raw(self, raw: bytes, sender: Optional[Socket] = None) -> None:
        (sender or self.up).socket.sendto(raw, self.target)

    def push_data(
        self, body: Body, version: int = 2, token: Optional[int] = None, mac: bytes = PACKET_MAC
    ) -> int:
        """Sends PUSH_DATA without waiting, and returns its token."""
        token = next_token() if token is None else token
        head = bytes([version]) + token.to_bytes(2, "little") + bytes([PUSH_DATA])
        self._marks[token] = self.up.mark()
        self.send_raw(head + mac + body_bytes(body))
        return token

    def wait_push_ack(
        self, token: int, timeout: float = PATIENCE, after: Optional[int] = None
    ) -> Datagram:
        """Behind the last PUSH_DATA of the token: tokens come round, and an old answer is none."""
        mark = self._marks.get(token, 0) if after is None else after
        return self.up.wait_for(PUSH_ACK, token, timeout, mark)

    def pull_data(self, version: int = 2, token: Optional[int] = None) -> Datagram:
        """Sends PULL_DATA and returns the PULL_ACK."""
        token = next_token() if token is None else token
        mark = self.down.mark()
        head = bytes([version]) + token.to_bytes(2, "little") + bytes([PULL_DATA])
        self.send_raw(head + PACKET_MAC, self.down)
        return self.down.wait_for(PULL_ACK, token, after=mark)

    def tx_ack(
        self, body: Body, version: int = 2, token: Optional[int] = None, mac: bytes = PACKET_MAC
    ) -> int:
        token = next_token() if token is None else token
        head = bytes([version]) + token.to_bytes(2, "little") + bytes([TX_ACK])
        self.send_raw(head + mac + body_bytes(body), self.down)
        return token

    def wait_pull_resp(self, timeout: float = PATIENCE, after: int = 0, count: int = 1) -> Datagram:
        return self.down.wait_for(PULL_RESP, None, timeout, after, count)

    def close(self) -> None:
        self.up.close()
        self.down.close()
