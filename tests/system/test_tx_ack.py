"""Transmit acknowledgements: forwarded in the ChirpStack v3 dialect alone."""
import base64
from typing import Callable

import pytest

from harness.dialects import NATIVE, V2, V3, Dialect
from harness.forwarder import PACKET_MAC
from harness.road import Road

Roads = Callable[..., Road]

MAC_B64 = base64.b64encode(PACKET_MAC).decode()


def ack_text(token: int, status: str) -> str:
    return f'{{ "gatewayID": "{MAC_B64}", "token": {token}, "items": [ {{ "status": "{status}" }} ] }}'


STATUSES = [
    (b"", "OK"),
    (b"\0", "OK"),
    (b'{"txpk_ack":{"error":"NONE"}}', "OK"),
    (b'{"txpk_ack":{"error":"NONE"}}\0', "OK"),
    (b'{"txpk_ack":{"error":"none"}}', "none"),
    (b'{"txpk_ack":{"error":"TOO_LATE"}}', "TOO_LATE"),
    (b'{"txpk_ack":{"error":"NONE","warn":"TX_POWER","value":20}}', "OK"),
    (b'{"txpk_ack":{"warn":"TX_POWER","value":20}}', "(null)"),
    (b'{"txpk_ack":{}}', "(null)"),
    (b'{"txpk_ack":null}', "(null)"),
    (b'{"txpk_ack":5}', "(null)"),
    (b'{"txpk_ack":[]}', "(null)"),
    (b"{}", "(null)"),
    (b"[]", "(null)"),
    (b'{"error":"TOO_LATE"}', "(null)"),
    (b'{"txpk_ack":{"error":""}}', ""),
    (b'{"txpk_ack":{"error":null}}', "(null)"),
    (b'{"txpk_ack":{"error":7}}', "7"),
    (b'{"txpk_ack":{"error":"' + b"E" * 300 + b'"}}', "E" * 300),
]


@pytest.mark.parametrize("body, status", STATUSES, ids=lambda each: str(each)[:40])
def test_the_status_of_an_acknowledgement(roads: Roads, body: bytes, status: str) -> None:
    outcome = roads(V3).tx_ack(body, token=51966)
    assert outcome.texts() == [ack_text(51966, status)]
    assert outcome.published[0].topic == V3.ack


@pytest.mark.parametrize("token", [0, 1, 255, 256, 65535])
def test_the_token_is_passed_on(roads: Roads, token: int) -> None:
    assert roads(V3).tx_ack(b"", token=token).texts() == [ack_text(token, "OK")]


@pytest.mark.parametrize(
    "body, text",
    [
        (b'{"', "failed to allocate tokener"),
        (b"no json", "failed to allocate tokener"),
        (b"null", "failed to allocate tokener"),
        (b"  ", "failed to allocate tokener"),
        (b"\0\0", "failed to allocate tokener"),
    ],
    ids=repr,
)
def test_a_bad_acknowledgement_is_dropped(roads: Roads, body: bytes, text: str) -> None:
    outcome = roads(V3).tx_ack(body)
    assert outcome.published == []
    assert outcome.logged(text)


@pytest.mark.parametrize("size", range(4, 12))
def test_an_acknowledgement_without_a_whole_mac_is_dropped(roads: Roads, size: int) -> None:
    raw = (b"\x02\x34\x12\x05" + PACKET_MAC)[:size]
    outcome = roads(V3).push_raw(raw)
    assert outcome.published == []
    assert outcome.logged(f"no data to handle: {size - 3}")


def test_a_status_too_long_for_its_message_does_not_end_the_daemon(roads: Roads) -> None:
    outcome = roads(V3).tx_ack(b'{"txpk_ack":{"error":"' + b"E" * 900 + b'"}}')
    assert outcome.published == []
    assert roads(V3).tx_ack(b"", token=7).texts() == [ack_text(7, "OK")]


@pytest.mark.parametrize("dialect", [NATIVE, V2], ids=str)
@pytest.mark.parametrize("body", [b"", b'{"txpk_ack":{"error":"TOO_LATE"}}', b"{"], ids=repr)
def test_other_dialects_ignore_acknowledgements(roads: Roads, dialect: Dialect, body: bytes) -> None:
    outcome = roads(dialect).tx_ack(body)
    assert outcome.published == []
    assert outcome.logged("TX_ACK received with size: ")
    assert not outcome.logged("failed to process uplink message")
