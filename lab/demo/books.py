"""What was sent and what has arrived. The network server of the demo: it shows every message that it gets,
answers an uplink now and then, and knows in the end what is missing."""

from __future__ import annotations

import base64
import random
import statistics
import time
from dataclasses import dataclass
from typing import Callable

from lab.demo.dialects import Dialect, Statistics, TxAck, Uplink
from lab.demo.view import View
from lab.gateway import forwarder as semtech
from lab.gateway.devices import Device
from lab.gateway.lorawan import UNCONFIRMED_DOWN, DataFrame, build_frame, parse_frame

_DOWNLINK_SECONDS = 4.0
_RX1_DELAY = 1
_SHOWN_FAILURES = 5


@dataclass
class _Uplink:
    """Shown once it has arrived and the fate of its datagram is known."""

    received: Uplink | None = None
    answered: bool = False
    ack_seconds: float | None = None


@dataclass
class _Downlink:
    device: Device
    token: int
    published_at: float
    transmitted: bool = False
    acknowledged: bool = False


def _milliseconds(seconds: float) -> str:
    return f"{seconds * 1000:.2f}"


class Books:
    def __init__(
        self,
        dialect: Dialect,
        mac: str,
        devices: list[Device],
        publish: Callable[[str, bytes], None],
        view: View,
    ) -> None:
        self._dialect = dialect
        self._mac = mac
        self._devices = {device.dev_addr: device for device in devices}
        self._publish = publish
        self._view = view
        self._rng = random.Random()
        self._token = self._rng.randrange(0x10000)
        self._fcnt_down = {address: self._rng.randrange(20, 900) for address in self._devices}
        self._uplinks: dict[bytes, _Uplink] = {}
        self._heard: set[int] = set()
        self._downlinks: dict[bytes, _Downlink] = {}
        self._ack_seconds: list[float] = []
        self._datagrams = self._datagrams_decided = self._arrived = self._duplicates = 0
        self._stats_sent = self._stats_arrived = 0
        self._strange: list[str] = []
        self._next_downlink = float("inf")

    def open_downlinks(self) -> None:
        self._next_downlink = time.monotonic() + _DOWNLINK_SECONDS / 2

    def close_downlinks(self) -> None:
        self._next_downlink = float("inf")

    # The forwarder's side.

    def forwarder_event(self, event: semtech.Event) -> None:
        match event:
            case semtech.UplinksSent(frames):
                self._datagrams += 1
                self._uplinks.update({frame: _Uplink() for frame in frames})
            case semtech.StatisticsSent():
                self._datagrams += 1
                self._stats_sent += 1
            case semtech.PushAcked(frames, seconds):
                self._ack_seconds.append(seconds)
                self._push_decided(frames, seconds)
            case semtech.PushUnanswered(frames):
                self._push_decided(frames, None)
            case semtech.DownlinkReceived():
                self._downlink_received(event)

    def _push_decided(self, frames: tuple[bytes, ...], seconds: float | None) -> None:
        self._datagrams_decided += 1
        for frame in frames:
            uplink = self._uplinks[frame]
            uplink.answered, uplink.ack_seconds = True, seconds
            if uplink.received:
                self._show_uplink(uplink.received, seconds)

    def _downlink_received(self, event: semtech.DownlinkReceived) -> None:
        frame = base64.b64decode(str(event.txpk.get("data", "")))
        downlink = self._downlinks.get(frame)
        if not downlink:
            self._note_strange(f"PULL_RESP with a frame that nobody sent: {event.txpk}")
            return
        if self._dialect.has_token and event.token != downlink.token:
            self._note_strange(f"PULL_RESP has token {event.token} in place of {downlink.token}")
            return
        downlink.transmitted = event.error == "NONE"
        txpk, parsed = event.txpk, parse_frame(frame)
        took = _milliseconds(event.received_at - downlink.published_at)
        self._view.row(
            "down", f"{parsed.dev_addr:08X}", str(parsed.fcnt), f"{txpk['freq']:.3f}", txpk["datr"], "", "",
            str(txpk["size"]), "",
            note=f"{downlink.device.name}, PULL_RESP in {took} ms",
        )  # fmt: skip
        if not self._dialect.ack_topic:
            downlink.acknowledged = downlink.transmitted
            self._show_tx_ack(downlink, parsed, f"{event.error}, token {event.token} (forwarder only)")

    # The server's side.

    def message(self, topic: str, payload: bytes) -> None:
        try:
            message = self._dialect.read(topic, payload, self._mac)
            match message:
                case Uplink():
                    self._uplink_arrived(message, parse_frame(message.frame))
                case Statistics():
                    self._statistics_arrived(message)
                case TxAck():
                    self._tx_ack_arrived(message)
        except (KeyError, IndexError, TypeError, ValueError) as problem:
            self._note_strange(f"message on {topic}: {problem!r}")

    def _uplink_arrived(self, received: Uplink, parsed: DataFrame) -> None:
        uplink = self._uplinks.get(received.frame)
        if not uplink:
            self._note_strange(f"uplink of {parsed.dev_addr:08X}, counter {parsed.fcnt}, that nobody sent")
            return
        if uplink.received:
            self._duplicates += 1
            return
        uplink.received = received
        self._arrived += 1
        self._heard.add(parsed.dev_addr)
        if uplink.answered:
            self._show_uplink(received, uplink.ack_seconds)
        if time.monotonic() >= self._next_downlink:
            self._next_downlink = time.monotonic() + _DOWNLINK_SECONDS
            self._send_downlink(received, self._devices[parsed.dev_addr])

    def _show_uplink(self, received: Uplink, ack_seconds: float | None) -> None:
        parsed = parse_frame(received.frame)
        device = self._devices.get(parsed.dev_addr)
        self._view.row(
            "up", f"{parsed.dev_addr:08X}", str(parsed.fcnt), f"{received.hertz / 1e6:.3f}",
            received.data_rate, str(received.rssi), f"{received.snr:.1f}", str(len(received.frame)),
            "none" if ack_seconds is None else _milliseconds(ack_seconds),
            note=device.name if device else "",
            style="warn" if ack_seconds is None else "",
        )  # fmt: skip

    def _send_downlink(self, uplink: Uplink, device: Device) -> None:
        """An answer in the device's first receive window."""
        self._fcnt_down[device.dev_addr] += 1
        self._token = (self._token + 1) & 0xFFFF
        frame = build_frame(
            UNCONFIRMED_DOWN, device.dev_addr, 0, self._fcnt_down[device.dev_addr], device.port, 4
        )
        topic, payload = self._dialect.write_downlink(uplink, frame, _RX1_DELAY, self._token, self._mac)
        self._downlinks[frame] = _Downlink(device, self._token, time.monotonic())
        self._publish(topic, payload)

    def _tx_ack_arrived(self, ack: TxAck) -> None:
        for frame, downlink in self._downlinks.items():
            if downlink.token == ack.token and not downlink.acknowledged:
                downlink.acknowledged = ack.status == "OK"
                self._show_tx_ack(downlink, parse_frame(frame), f"{ack.status}, token {ack.token}")
                return
        self._note_strange(f"acknowledgement of token {ack.token}, which no downlink has")

    def _show_tx_ack(self, downlink: _Downlink, parsed: DataFrame, words: str) -> None:
        self._view.row(
            "tx_ack", f"{parsed.dev_addr:08X}", str(parsed.fcnt), note=f"{downlink.device.name}, {words}"
        )

    def _statistics_arrived(self, stats: Statistics) -> None:
        self._stats_arrived += 1
        self._view.remark(
            "stats",
            f"gateway received {stats.received}, good {stats.received_ok},"
            f" downlinks {stats.downlinks}, transmitted {stats.emitted}",
        )

    def _note_strange(self, words: str) -> None:
        self._strange.append(words)
        self._view.remark("strange", words, "bad")

    # Totals.

    def everything_arrived(self) -> bool:
        """All that was sent so far is received, acknowledged or given up, and shown."""
        return (
            self._arrived == len(self._uplinks)
            and self._datagrams_decided == self._datagrams
            and self._acknowledged_downlinks() == len(self._downlinks)
            and self._stats_arrived >= self._stats_sent
        )

    def _latency(self) -> str:
        if not self._ack_seconds:
            return "none yet"
        middle, longest = statistics.median(self._ack_seconds), max(self._ack_seconds)
        return f"median {_milliseconds(middle)} ms, longest {_milliseconds(longest)} ms"

    def _acknowledged_downlinks(self) -> int:
        return sum(downlink.acknowledged for downlink in self._downlinks.values())

    def totals(self) -> str:
        return (
            f"uplinks {self._arrived} of {len(self._uplinks)} | PUSH_ACK {self._latency()}"
            f" | downlinks {self._acknowledged_downlinks()} of {len(self._downlinks)}"
            f" | statistics {self._stats_arrived} of {self._stats_sent}"
        )

    def summary(self) -> list[str]:
        twice = f", {self._duplicates} twice" if self._duplicates else ""
        return [
            f"uplinks     {len(self._uplinks)} sent, {self._arrived} received{twice},"
            f" from {len(self._heard)} devices",
            f"PUSH_ACK    {len(self._ack_seconds)} of {self._datagrams} datagrams, {self._latency()}",
            f"downlinks   {len(self._downlinks)} sent, {self._acknowledged_downlinks()} acknowledged",
            f"statistics  {self._stats_sent} sent, {self._stats_arrived} received",
        ]

    def failures(self) -> list[str]:
        """What went wrong, empty when all is well."""
        missing = [parse_frame(frame) for frame, uplink in self._uplinks.items() if not uplink.received]
        words = [f"uplink {frame.dev_addr:08X}, counter {frame.fcnt}, never arrived" for frame in missing]
        if len(words) > _SHOWN_FAILURES:
            words[_SHOWN_FAILURES:] = [f"and {len(words) - _SHOWN_FAILURES} more uplinks never arrived"]
        lost = len(self._downlinks) - self._acknowledged_downlinks()
        if lost:
            words.append(f"{lost} downlinks were not acknowledged")
        if self._stats_arrived < self._stats_sent:
            words.append(f"{self._stats_sent - self._stats_arrived} statistics never arrived")
        if self._strange:
            words.append(f"{len(self._strange)} messages were not as expected")
        return words
