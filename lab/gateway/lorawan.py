"""LoRaWAN data frames: built for the devices of the lab, and read for the view."""

from __future__ import annotations

import hashlib
import struct
from dataclasses import dataclass

UNCONFIRMED_UP = 0x40
UNCONFIRMED_DOWN = 0x60
CONFIRMED_UP = 0x80
ADR = 0x80

_HEADER = struct.Struct("<BIBH")  # MHDR, DevAddr, FCtrl, FCnt
_MIC_SIZE = 4


@dataclass(frozen=True)
class DataFrame:
    mhdr: int
    dev_addr: int
    fcnt: int
    port: int | None
    payload: bytes


def _keyed(dev_addr: int, what: bytes, size: int) -> bytes:
    """Bytes that look like a cipher's and are the same on every run: nobody in the lab holds a key."""
    return hashlib.shake_128(struct.pack("<I", dev_addr) + what).digest(size)


def build_frame(mhdr: int, dev_addr: int, fctrl: int, fcnt: int, port: int, size: int) -> bytes:
    """A data frame with `size` bytes of encrypted payload and its MIC."""
    body = _HEADER.pack(mhdr, dev_addr, fctrl, fcnt & 0xFFFF) + bytes([port])
    body += _keyed(dev_addr, b"payload" + struct.pack("<BI", mhdr, fcnt), size)
    return body + _keyed(dev_addr, b"mic" + body, _MIC_SIZE)


def parse_frame(frame: bytes) -> DataFrame:
    """Raises ValueError for what is no data frame."""
    if len(frame) < _HEADER.size + _MIC_SIZE:
        raise ValueError(f"a frame of {len(frame)} bytes")
    mhdr, dev_addr, fctrl, fcnt = _HEADER.unpack_from(frame)
    if mhdr & 0xE0 not in (0x40, 0x60, 0x80, 0xA0):
        raise ValueError(f"MHDR {mhdr:#04x} is no data frame")
    rest = frame[_HEADER.size + (fctrl & 0x0F) : -_MIC_SIZE]
    return DataFrame(mhdr, dev_addr, fcnt, rest[0] if rest else None, rest[1:])
