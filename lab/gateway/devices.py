"""The devices around the lab's gateway and the radio between: addresses, counters, channels, signals."""

from __future__ import annotations

import math
import random
from dataclasses import dataclass

from lab.gateway.lorawan import ADR, CONFIRMED_UP, UNCONFIRMED_UP, build_frame


@dataclass(frozen=True)
class Channel:
    index: int
    rf_chain: int
    megahertz: float


@dataclass(frozen=True)
class Reception:
    """One frame as the concentrator heard it."""

    frame: bytes
    channel: Channel
    spreading_factor: int
    rssi: int
    snr: float


@dataclass
class Device:
    name: str
    dev_addr: int
    spreading_factor: int
    power: float  # dBm that reach the gateway, on average
    port: int
    payload_sizes: tuple[int, ...]
    fcnt: int
    weight: int = 1  # how often it sends, against the others
    mhdr: int = UNCONFIRMED_UP

    def next_frame(self, rng: random.Random) -> bytes:
        size = rng.choice(self.payload_sizes)
        frame = build_frame(self.mhdr, self.dev_addr, ADR, self.fcnt, self.port, size)
        self.fcnt += 1
        return frame


# fmt: off
EU868_CHANNELS = (
    Channel(0, 1, 868.1), Channel(1, 1, 868.3), Channel(2, 1, 868.5), Channel(3, 0, 867.1),
    Channel(4, 0, 867.3), Channel(5, 0, 867.5), Channel(6, 0, 867.7), Channel(7, 0, 867.9),
)
# fmt: on

_NOISE_FLOOR = -117.0  # dBm in 125 kHz
_SNR_LIMITS = {7: -7.5, 8: -10.0, 9: -12.5, 10: -15.0, 11: -17.5, 12: -20.0}
_SNR_CEILING = 9.5  # the demodulator tells no more, however strong the signal


def _sum_of_powers(*decibels: float) -> float:
    return 10.0 * math.log10(sum(10.0 ** (level / 10.0) for level in decibels))


def lab_devices() -> list[Device]:
    """The same devices on every run, strongest first."""
    # fmt: off
    return [
        Device("parking bay 12",  0x01A3F20C,  7,  -71.0,  2, (4, 4, 4, 9), 48213, 4),
        Device("door, hall B",    0x01A3F211,  7,  -84.0,  3, (6,),          1907, 2, CONFIRMED_UP),
        Device("air quality 3",   0x0127C004,  8,  -95.0, 10, (18, 22),      7730, 3),
        Device("heat meter",      0x0127C019,  9, -105.0,  2, (37, 45),       612),
        Device("soil probe 5",    0x0190003D, 10, -114.0,  1, (12,),         3051, 2),
        Device("water level",     0x01900051, 11, -122.0,  1, (8, 10),       9904),
        Device("cattle tracker",  0x01E4A7B6, 12, -130.0,  5, (11, 24),       288),
    ]
    # fmt: on


class Radio:
    """Draws who sends next and how it is heard."""

    def __init__(self, devices: list[Device], seed: int | None = None) -> None:
        self._rng = random.Random(seed)
        self._devices = devices
        self._weights = [device.weight for device in devices]

    def next_reception(self) -> Reception:
        device = self._rng.choices(self._devices, self._weights)[0]
        power = device.power + self._rng.gauss(0.0, 2.5)
        limit = _SNR_LIMITS[device.spreading_factor]
        snr = max(min(power - _NOISE_FLOOR, _SNR_CEILING) + self._rng.gauss(0.0, 1.2), limit)
        return Reception(
            device.next_frame(self._rng),
            self._rng.choice(EU868_CHANNELS),
            device.spreading_factor,
            round(_sum_of_powers(power, _NOISE_FLOOR)),
            round(snr * 4) / 4,
        )

    def wait(self, rate: float) -> float:
        """Seconds to the next uplink: devices do not agree on a beat, so the gaps vary around 1 / rate."""
        return self._rng.uniform(0.5, 1.5) / rate
