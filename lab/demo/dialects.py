"""The network server's side of the three dialects: topics, reading of what it gets, downlinks."""

from __future__ import annotations

import base64
import json
from dataclasses import dataclass
from typing import Any, Callable

Json = dict[str, Any]


@dataclass(frozen=True)
class Uplink:
    frame: bytes
    hertz: int
    data_rate: str
    bandwidth: int
    spreading_factor: int
    code_rate: str
    rssi: int
    snr: float
    timestamp: int  # microseconds of the concentrator
    context: str  # v3 only


@dataclass(frozen=True)
class Statistics:
    received: int
    received_ok: int
    downlinks: int
    emitted: int


@dataclass(frozen=True)
class TxAck:
    token: int
    status: str


def _uplink_with_rx_info(message: Json) -> Uplink:
    info, rate = message["rxInfo"], message["rxInfo"]["dataRate"]
    return Uplink(
        base64.b64decode(message["phyPayload"], validate=True),
        info["frequency"],
        f"SF{rate['spreadFactor']}BW{rate['bandwidth']}",
        rate["bandwidth"],
        rate["spreadFactor"],
        info["codeRate"],
        info["rssi"],
        info["loRaSNR"],
        info["timestamp"],
        "",
    )


def _uplink_v3(message: Json) -> Uplink:
    info, rate = message["rxInfo"], message["txInfo"]["loRaModulationInfo"]
    return Uplink(
        base64.b64decode(message["phyPayload"], validate=True),
        message["txInfo"]["frequency"],
        f"SF{rate['spreadingFactor']}BW{rate['bandwidth']}",
        rate["bandwidth"],
        rate["spreadingFactor"],
        rate["codeRate"],
        info["rssi"],
        info["loRaSNR"],
        info["timestamp"],
        info["context"],
    )


def _downlink_with_timestamp(uplink: Uplink, frame: bytes, delay: int, mac: str) -> Json:
    return {
        "phyPayload": base64.b64encode(frame).decode(),
        "txInfo": {
            "codeRate": uplink.code_rate,
            "dataRate": {
                "bandwidth": uplink.bandwidth,
                "modulation": "LORA",
                "spreadFactor": uplink.spreading_factor,
            },
            "frequency": uplink.hertz,
            "immediately": False,
            "mac": mac,
            "power": 14,
            "timestamp": (uplink.timestamp + delay * 1_000_000) & 0xFFFFFFFF,
        },
    }


def _downlink_native(uplink: Uplink, frame: bytes, delay: int, _token: int, mac: str) -> Json:
    return _downlink_with_timestamp(uplink, frame, delay, mac)


def _downlink_v2(uplink: Uplink, frame: bytes, delay: int, token: int, mac: str) -> Json:
    return {"token": token, **_downlink_with_timestamp(uplink, frame, delay, mac)}


def _downlink_v3(uplink: Uplink, frame: bytes, delay: int, token: int, mac: str) -> Json:
    return {
        "phyPayload": base64.b64encode(frame).decode(),
        "token": token,
        "txInfo": {
            "gatewayID": base64.b64encode(bytes.fromhex(mac)).decode(),
            "frequency": uplink.hertz,
            "power": 14,
            "modulation": "LORA",
            "loRaModulationInfo": {
                "bandwidth": uplink.bandwidth,
                "spreadingFactor": uplink.spreading_factor,
                "codeRate": uplink.code_rate,
                "polarizationInversion": True,
            },
            "board": 0,
            "antenna": 0,
            "timing": "DELAY",
            "delayTimingInfo": {"delay": f"{delay}s"},
            "context": uplink.context,
        },
    }


@dataclass(frozen=True)
class Dialect:
    name: str
    type: str  # of the daemon's configuration
    uplink_topic: str
    stats_topic: str
    downlink_topic: str
    ack_topic: str  # empty where TX_ACK ends at the daemon
    has_token: bool
    _read_uplink: Callable[[Json], Uplink]
    _write_downlink: Callable[[Uplink, bytes, int, int, str], Json]

    def topics(self, mac: str) -> list[str]:
        """What the server listens to."""
        names = (self.uplink_topic, self.stats_topic, self.ack_topic)
        return [name.format(mac=mac) for name in names if name]

    def read(self, topic: str, payload: bytes, mac: str) -> Uplink | Statistics | TxAck:
        """Raises KeyError, TypeError or ValueError for a message that is not the dialect's."""
        message = json.loads(payload)
        if topic == self.uplink_topic.format(mac=mac):
            return self._read_uplink(message)
        if topic == self.stats_topic.format(mac=mac):
            return Statistics(
                message["rxPacketsReceived"],
                message["rxPacketsReceivedOK"],
                message["txPacketsReceived"],
                message["txPacketsEmitted"],
            )
        return TxAck(message["token"], message["items"][0]["status"])

    def write_downlink(
        self, uplink: Uplink, frame: bytes, delay: int, token: int, mac: str
    ) -> tuple[str, bytes]:
        """Topic and payload of an answer `delay` seconds after the uplink."""
        message = self._write_downlink(uplink, frame, delay, token, mac)
        return self.downlink_topic.format(mac=mac), json.dumps(message, separators=(",", ":")).encode()


DIALECTS = {
    dialect.name: dialect
    for dialect in (
        Dialect(
            "native", "sarnivel",
            "gateway/rx", "gateway/stats", "gateway/tx", "", False,
            _uplink_with_rx_info, _downlink_native,
        ),
        Dialect(
            "chirpstack_v2", "chirpstack_v2",
            "gateway/{mac}/rx", "gateway/{mac}/stats", "gateway/{mac}/tx", "", True,
            _uplink_with_rx_info, _downlink_v2,
        ),
        Dialect(
            "chirpstack_v3", "chirpstack",
            "gateway/{mac}/event/up", "gateway/{mac}/event/stats", "gateway/{mac}/command/down",
            "gateway/{mac}/event/ack", True,
            _uplink_v3, _downlink_v3,
        ),
    )
}  # fmt: skip
