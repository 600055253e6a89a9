"""Notifications as the network brings them to the trap port: whole ones, and almost."""

from __future__ import annotations

import random

_ALARM, _FAULT = (1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 20), (1, 3, 6, 1, 4, 1, 59317, 3, 5, 200, 0, 21)
_OTHER = (1, 3, 6, 1, 6, 3, 1, 1, 5, 1)
_UPTIME, _TRAP = (1, 3, 6, 1, 2, 1, 1, 3, 0), (1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0)
_INTEGER, _TEXT, _OID, _SEQUENCE, _TICKS = 0x02, 0x04, 0x06, 0x30, 0x43
_INFORM, _NOTIFICATION = 0xA6, 0xA7
_VERSION_2C = b"\x01"


def _ber(tag: int, content: bytes) -> bytes:
    length = bytes([len(content)]) if len(content) < 0x80 else b"\x82" + len(content).to_bytes(2, "big")
    return bytes([tag]) + length + content


def _oid(numbers: tuple[int, ...]) -> bytes:
    out = bytearray([numbers[0] * 40 + numbers[1]])
    for number in numbers[2:]:
        septets = [number & 0x7F]
        while number := number >> 7:
            septets.insert(0, number & 0x7F | 0x80)
        out += bytes(septets)
    return _ber(_OID, bytes(out))


def _variable(name: tuple[int, ...], value: bytes) -> bytes:
    return _ber(_SEQUENCE, _oid(name) + value)


def notification(rng: random.Random) -> bytes:
    """One of the two that count, another one, or one that does not tell which; a trap or an inform."""
    variables = [_variable(_UPTIME, _ber(_TICKS, b"\x01"))]
    if rng.random() < 0.8:
        variables.append(_variable(_TRAP, _oid(rng.choice((_ALARM, _FAULT, _OTHER)))))
    variables += [
        _variable(_OTHER, _ber(_TEXT, rng.randbytes(rng.randrange(40)))) for _ in range(rng.randrange(4))
    ]
    number = _ber(_INTEGER, rng.randbytes(2))
    zero = _ber(_INTEGER, b"\x00")
    body = number + zero + zero + _ber(_SEQUENCE, b"".join(variables))
    kind = rng.choice((_INFORM, _NOTIFICATION))
    return _ber(_SEQUENCE, _ber(_INTEGER, _VERSION_2C) + _ber(_TEXT, b"anybody") + _ber(kind, body))


def broken(rng: random.Random) -> bytes:
    """Cut off, or with some bits turned."""
    datagram = bytearray(notification(rng))
    for _ in range(rng.randrange(4)):
        datagram[rng.randrange(len(datagram))] ^= 1 << rng.randrange(8)
    return bytes(datagram[: rng.randrange(1, len(datagram) + 1)])
