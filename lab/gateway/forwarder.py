"""A packet forwarder that speaks the Semtech UDP protocol: it hears the lab's devices, sends their uplinks
and its statistics, keeps the downlink road open and answers what comes down it. It runs on its own thread
and tells what happens through one callback."""

from __future__ import annotations

import base64
import json
import os
import re
import select
import socket
import struct
import threading
import time
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from typing import Any, Callable

from lab.gateway.devices import Radio, Reception

PUSH_DATA, PUSH_ACK, PULL_DATA, PULL_RESP, PULL_ACK, TX_ACK = range(6)

# The bridge reads at most this much of a datagram; fuller ones would be cut.
DATAGRAM_LIMIT = 1023
_HEADER = struct.Struct("<BHB")
_KEEPALIVE_SECONDS = 5.0
_FIRST_KEEPALIVE_SECONDS = 0.1
_ACK_SECONDS = 1.0
_WINDOW = 32
_GPS_EPOCH = datetime(1980, 1, 6, tzinfo=timezone.utc)
_LEAP_SECONDS = 18
_DATA_RATE = re.compile(r"SF([5-9]|1[0-2])BW(125|250|500)")


@dataclass(frozen=True)
class PullAcked:
    """The daemon answers: the downlink road is open."""


@dataclass(frozen=True)
class UplinksSent:
    frames: tuple[bytes, ...]


@dataclass(frozen=True)
class PushAcked:
    frames: tuple[bytes, ...]  # empty for statistics
    seconds: float


@dataclass(frozen=True)
class PushUnanswered:
    frames: tuple[bytes, ...]


@dataclass(frozen=True)
class StatisticsSent:
    counters: dict[str, Any]


@dataclass(frozen=True)
class DownlinkReceived:
    txpk: dict[str, Any]
    token: int
    error: str  # what TX_ACK answers; "NONE" when the frame will be sent
    received_at: float


@dataclass(frozen=True)
class PushingStopped:
    """Every uplink that will ever leave has been reported."""


Event = (
    PullAcked
    | PushingStopped
    | UplinksSent
    | PushAcked
    | PushUnanswered
    | StatisticsSent
    | DownlinkReceived
)


def rxpk_of(reception: Reception, tmst: int, now: datetime, protocol: int) -> dict[str, Any]:
    """The element of one uplink. Protocol 1 has the signal values of each antenna in `rsig`, 2 has them
    in the element itself."""
    channel = reception.channel
    signal: dict[str, Any] = {"chan": channel.index, "rssi": reception.rssi, "lsnr": reception.snr}
    if protocol == 1:
        antenna = {"ant": 0, "chan": channel.index, "rssic": reception.rssi, "lsnr": reception.snr}
        signal = {"rsig": [antenna]}
    gps = now - _GPS_EPOCH + timedelta(seconds=_LEAP_SECONDS)
    return {
        "tmst": tmst,
        "time": now.strftime("%Y-%m-%dT%H:%M:%S.%fZ"),
        "tmms": gps // timedelta(milliseconds=1),
        "rfch": channel.rf_chain,
        "freq": channel.megahertz,
        "stat": 1,
        "modu": "LORA",
        "datr": f"SF{reception.spreading_factor}BW125",
        "codr": "4/5",
        **signal,
        "size": len(reception.frame),
        "data": base64.b64encode(reception.frame).decode(),
    }


def check_txpk(txpk: dict[str, Any]) -> str:
    """The forwarder's verdict on a downlink, in the words of TX_ACK."""
    try:
        frame = base64.b64decode(txpk["data"], validate=True)
        if not 863.0 <= txpk["freq"] <= 870.0:
            return "TX_FREQ"
        if not _DATA_RATE.fullmatch(txpk["datr"]) or len(frame) != txpk["size"]:
            return "TX_PARAM"
        if not 0 <= txpk["powe"] <= 27:
            return "TX_POWER"
    except (KeyError, TypeError, ValueError):
        return "TX_PARAM"
    return "NONE"


def _compact(body: dict[str, Any]) -> bytes:
    return json.dumps(body, separators=(",", ":")).encode()


def _rxpk_body(heard: list[tuple[bytes, bytes]]) -> bytes:
    return b'{"rxpk":[' + b",".join(element for element, _ in heard) + b"]}"


class Forwarder:
    """`rate` 0 hears nothing: statistics and keep-alives alone."""

    def __init__(
        self,
        address: tuple[str, int],
        eui: bytes,
        radio: Radio,
        report: Callable[[Event], None],
        rate: float = 2.0,
        protocol: int = 2,
        stat_seconds: float = 30.0,
    ) -> None:
        self._eui = eui
        self._radio = radio
        self._report = report
        self._rate = rate
        self._protocol = protocol
        self._stat_seconds = stat_seconds
        self._up = self._socket(address)
        self._down = self._socket(address)
        self._boot = time.monotonic()
        self._pushing = False
        self._pull_acked = False
        self._next_uplink = self._next_stat = float("inf")
        self._next_keepalive = 0.0
        self._waiting: dict[int, tuple[float, tuple[bytes, ...]]] = {}
        self._counters = {"rxnb": 0, "rxok": 0, "rxfw": 0, "dwnb": 0, "txnb": 0}
        self._pushed = self._acked = 0
        self._token = int.from_bytes(os.urandom(2), "little")
        self._wake_read, self._wake_write = os.pipe()
        self._commands: list[str] = []
        self._thread = threading.Thread(target=self._run, name="forwarder", daemon=True)

    @staticmethod
    def _socket(address: tuple[str, int]) -> socket.socket:
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sock.connect(address)
        sock.setblocking(False)
        return sock

    def start(self) -> None:
        """Opens the downlink road; uplinks wait for `start_pushing`."""
        self._thread.start()

    def start_pushing(self) -> None:
        self._command("push")

    def stop_pushing(self) -> None:
        """No uplink leaves any more; answers are still taken, downlinks still acknowledged."""
        self._command("hold")

    def stop(self) -> None:
        self._command("stop")
        self._thread.join()
        self._up.close()
        self._down.close()
        os.close(self._wake_read)
        os.close(self._wake_write)

    def micros(self) -> int:
        """The concentrator's counter."""
        return int((time.monotonic() - self._boot) * 1e6) & 0xFFFFFFFF

    def _command(self, word: str) -> None:
        self._commands.append(word)
        os.write(self._wake_write, b".")

    def _run(self) -> None:
        while True:
            due = min(self._next_uplink, self._next_stat, self._next_keepalive)
            timeout = min(max(due - time.monotonic(), 0.0), _ACK_SECONDS / 2)
            if len(self._waiting) >= _WINDOW:
                timeout = 0.02
            ready, _, _ = select.select([self._wake_read, self._up, self._down], [], [], timeout)
            if self._up in ready:
                self._take_push_acks()
            if self._down in ready:
                self._take_downlinks()
            if self._wake_read in ready and not self._obey():
                return
            self._send_what_is_due(time.monotonic())

    def _obey(self) -> bool:
        os.read(self._wake_read, 64)
        while self._commands:
            word = self._commands.pop(0)
            now = time.monotonic()
            if word == "stop":
                return False
            self._pushing = word == "push"
            hears = self._pushing and self._rate > 0
            self._next_uplink = now + self._radio.wait(self._rate) if hears else float("inf")
            self._next_stat = now + self._stat_seconds if self._pushing else float("inf")
            if not self._pushing:
                self._report(PushingStopped())
        return True

    def _send_what_is_due(self, now: float) -> None:
        self._forget_unanswered(now)
        if now >= self._next_keepalive:
            self._send(self._down, PULL_DATA)
            pause = _KEEPALIVE_SECONDS if self._pull_acked else _FIRST_KEEPALIVE_SECONDS
            self._next_keepalive = now + pause
        if now >= self._next_stat:
            self._next_stat += self._stat_seconds
            self._send_statistics()
        if now >= self._next_uplink and len(self._waiting) < _WINDOW:
            self._send_uplinks(now)

    def _send_uplinks(self, now: float) -> None:
        """All that was heard by now, in one datagram if it fits, as a concentrator's buffer is emptied."""
        heard: list[tuple[bytes, bytes]] = []
        while self._next_uplink <= now and len(self._waiting) < _WINDOW:
            self._next_uplink += self._radio.wait(self._rate)
            reception = self._radio.next_reception()
            element = rxpk_of(reception, self.micros(), datetime.now(timezone.utc), self._protocol)
            heard.append((_compact(element), reception.frame))
            if heard[:-1] and _HEADER.size + len(self._eui) + len(_rxpk_body(heard)) > DATAGRAM_LIMIT:
                self._push_uplinks(heard[:-1])
                heard = heard[-1:]
        if heard:
            self._push_uplinks(heard)

    def _push_uplinks(self, heard: list[tuple[bytes, bytes]]) -> None:
        frames = tuple(frame for _, frame in heard)
        for counter in ("rxnb", "rxok", "rxfw"):
            self._counters[counter] += len(frames)
        self._report(UplinksSent(frames))
        self._push(_rxpk_body(heard), frames)

    def _send_statistics(self) -> None:
        share = 100.0 * self._acked / self._pushed if self._pushed else 0.0
        stat = {
            "time": datetime.now(timezone.utc).strftime("%Y-%m-%d %H:%M:%S GMT"),
            "lati": 47.36667,
            "long": 8.55,
            "alti": 408,
            **self._counters,
            "ackr": round(share, 1),
        }
        self._counters = dict.fromkeys(self._counters, 0)
        self._pushed = self._acked = 0
        self._report(StatisticsSent(stat))
        self._push(_compact({"stat": stat}), ())

    def _push(self, body: bytes, frames: tuple[bytes, ...]) -> None:
        sent_at = time.monotonic()
        self._waiting[self._send(self._up, PUSH_DATA, body)] = (sent_at, frames)
        self._pushed += 1

    def _send(self, sock: socket.socket, identifier: int, body: bytes = b"") -> int:
        self._token = (self._token + 1) & 0xFFFF
        self._transmit(sock, _HEADER.pack(self._protocol, self._token, identifier) + self._eui + body)
        return self._token

    @staticmethod
    def _transmit(sock: socket.socket, datagram: bytes) -> None:
        try:
            sock.send(datagram)
        except OSError:
            pass  # nobody listens at the moment: lost, as on any network

    @staticmethod
    def _receive(sock: socket.socket) -> bytes | None:
        try:
            return sock.recv(65535)
        except BlockingIOError:
            return None
        except ConnectionRefusedError:
            return b""

    def _take_push_acks(self) -> None:
        while (datagram := self._receive(self._up)) is not None:
            if len(datagram) != _HEADER.size:
                continue
            _, token, identifier = _HEADER.unpack(datagram)
            if identifier == PUSH_ACK and token in self._waiting:
                sent_at, frames = self._waiting.pop(token)
                self._acked += 1
                self._report(PushAcked(frames, time.monotonic() - sent_at))

    def _forget_unanswered(self, now: float) -> None:
        late = [token for token, (sent_at, _) in self._waiting.items() if now - sent_at > _ACK_SECONDS]
        for token in late:
            self._report(PushUnanswered(self._waiting.pop(token)[1]))

    def _take_downlinks(self) -> None:
        while (datagram := self._receive(self._down)) is not None:
            if len(datagram) < _HEADER.size:
                continue
            _, token, identifier = _HEADER.unpack_from(datagram)
            if identifier == PULL_ACK:
                if not self._pull_acked:
                    self._pull_acked = True
                    self._report(PullAcked())
            elif identifier == PULL_RESP:
                self._answer_downlink(token, datagram[_HEADER.size :].rstrip(b"\0"))

    def _answer_downlink(self, token: int, body: bytes) -> None:
        received_at = time.monotonic()
        try:
            txpk = json.loads(body)["txpk"]
        except (ValueError, KeyError, TypeError):
            txpk = {}
        error = check_txpk(txpk)
        self._counters["dwnb"] += 1
        if error == "NONE":
            self._counters["txnb"] += 1
        ack = _HEADER.pack(self._protocol, token, TX_ACK) + self._eui
        self._transmit(self._down, ack + _compact({"txpk_ack": {"error": error}}))
        self._report(DownlinkReceived(txpk, token, error, received_at))
