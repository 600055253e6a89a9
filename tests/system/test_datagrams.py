"""Datagrams of the packet forwarder: lengths, headers, acknowledgements, and the one that ends the daemon."""
import random
import re
import signal
from typing import Callable

import pytest

from harness.dialects import DIALECTS, NATIVE, V3, Dialect
from harness.forwarder import PACKET_MAC, PULL_ACK, PUSH_ACK, body_bytes
from harness.road import Road
from harness.samples import rxpk_v2, stat

Roads = Callable[..., Road]

SEED = 20240506
CUT_AT = 1023


def skipped(raw: bytes) -> bool:
    """Three bytes with a good version are the one datagram that ends the daemon."""
    return len(raw) == 3 and raw[0] in (1, 2)


def headed(raw: bytes, kind: int) -> bytes:
    return bytes([raw[0] % 2 + 1]) + raw[1:3] + bytes([kind]) + raw[4:] if len(raw) >= 4 else raw


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
@pytest.mark.parametrize("kind", [None, 0, 2, 5], ids=["any", "PUSH_DATA", "PULL_DATA", "TX_ACK"])
def test_random_content_of_every_length_does_no_harm(roads: Roads, dialect: Dialect, kind: int) -> None:
    road = roads(dialect)
    dice = random.Random(SEED)
    for length in range(1101):
        raw = dice.randbytes(length)
        if kind is not None:
            raw = headed(raw, kind)
        if not skipped(raw):
            road.forwarder.send_raw(raw)
        if length % 50 == 0:  # keeps the socket's buffer from overflowing
            road.forwarder.pull_data()
    assert road.push({"rxpk": [rxpk_v2()]}).acked
    road.forwarder.pull_data()


@pytest.mark.parametrize("version", [1, 2])
def test_three_bytes_with_a_good_version_end_the_daemon(own_road: Callable[..., Road], version: int) -> None:
    road = own_road(NATIVE).wait_ready()
    road.forwarder.send_raw(bytes([version, 0x12, 0x34]))
    assert road.bridge.wait_exit() == -signal.SIGABRT
    assert len(road.bridge.out.lines) == 1
    assert re.fullmatch(r"Assertion failed: \( data_size > 0 \) in \S+\.cpp:\d+", road.bridge.out.lines[0])


@pytest.mark.parametrize(
    "raw, text",
    [
        (b"", "not enough data to continue: 1"),
        (b"\x02", "not enough data to continue: 2"),
        (b"\x02\x00", "not enough data to continue: 3"),
        (b"\x00\x00\x00", "invalid version: 0"),
        (b"\x03\x00\x00\x00" + PACKET_MAC + b"{}", "invalid version: 3"),
        (b"\xff\x00\x00\x02" + PACKET_MAC, "invalid version: 255"),
        *[
            (bytes([2, 0, 0, kind]) + PACKET_MAC + b"{}", f"invalid packet type: {kind}")
            for kind in (1, 3, 4, 6, 255)
        ],
        (b"\x02\x00\x00\x00", "no data to handle"),
        (b"\x02\x00\x00\x00" + PACKET_MAC[:7], "no data to handle"),
        (b"\x02\x00\x00\x00" + PACKET_MAC, "no data to handle"),
        (b"\x02\x00\x00\x00" + PACKET_MAC + b"{", "no data to handle"),
        (b"\x02\x00\x00\x00" + PACKET_MAC + b"5", "no data to handle"),
    ],
    ids=lambda each: each.hex() if isinstance(each, bytes) else "",
)
def test_a_datagram_that_is_refused_says_why(roads: Roads, raw: bytes, text: str) -> None:
    mark = roads(NATIVE).forwarder.up.mark()
    outcome = roads(NATIVE).push_raw(raw)
    assert outcome.published == []
    assert outcome.logged(text)
    assert outcome.logged("failed to process uplink message")
    assert len(roads(NATIVE).forwarder.up.since(mark)) == 1, "the marker's acknowledgement alone"


@pytest.mark.parametrize(
    "body",
    [
        "{}",
        "[]",
        "55",
        '""',
        '{"other":1}',
        '{"rxpk":[]}',
        '{"rxpk":{}}',
        '{"rxpk":null}',
        '{"rxpk":"x"}',
        '{"locpk":[]}',
        '{"RXPK":[{}]}',
        "{}\0{",
        "{} trailing",
        " {}",
        "{}\0",
    ],
    ids=repr,
)
def test_push_data_without_anything_to_publish_is_acknowledged(roads: Roads, body: str) -> None:
    outcome = roads(NATIVE).push(body)
    assert (outcome.published, outcome.acked) == ([], True)


@pytest.mark.parametrize("version", [1, 2])
@pytest.mark.parametrize("token", [b"\x00\x00", b"\x12\x34", b"\xff\xff", b"\x00\x01"], ids=bytes.hex)
def test_acknowledgements_echo_version_and_token(roads: Roads, version: int, token: bytes) -> None:
    forwarder = roads(NATIVE).forwarder
    mark = forwarder.up.mark()
    forwarder.send_raw(bytes([version]) + token + b"\0" + PACKET_MAC + b"{}")
    assert forwarder.up.wait_for(PUSH_ACK, after=mark).raw == bytes([version]) + token + b"\x01"
    assert (
        forwarder.pull_data(version, int.from_bytes(token, "little")).raw
        == bytes([version]) + token + b"\x04"
    )


@pytest.mark.parametrize(
    "payload",
    [b"", PACKET_MAC, PACKET_MAC[:3], PACKET_MAC + b"anything", b"x" * 1019],
    ids=["none", "mac", "part", "more", "much"],
)
def test_pull_data_is_answered_whatever_it_carries(roads: Roads, payload: bytes) -> None:
    forwarder = roads(NATIVE).forwarder
    mark = forwarder.down.mark()
    forwarder.send_raw(b"\x02\xab\xcd\x02" + payload, forwarder.down)
    assert forwarder.down.wait_for(PULL_ACK, after=mark).raw == b"\x02\xab\xcd\x04"


def datagram_of_length(length: int) -> bytes:
    """A good uplink with a key that nobody reads as a filler in front."""
    filler = length - 12 - len(body_bytes({"filler": "", "rxpk": [rxpk_v2()]}))
    raw = b"\x02\x77\x88\x00" + PACKET_MAC + body_bytes({"filler": "x" * filler, "rxpk": [rxpk_v2()]})
    assert len(raw) == length
    return raw


@pytest.mark.parametrize(
    "length, passes", [(CUT_AT - 1, True), (CUT_AT, True), (CUT_AT + 1, False), (1400, False)]
)
def test_a_datagram_longer_than_the_buffer_is_cut_and_fails(roads: Roads, length: int, passes: bool) -> None:
    outcome = roads(NATIVE).push_raw(datagram_of_length(length))
    assert (len(outcome.published), outcome.acked) == (int(passes), passes)
    assert outcome.logged("failed to allocate tokener") != passes


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
def test_a_burst_of_100_is_wholly_acknowledged_and_published_in_order(roads: Roads, dialect: Dialect) -> None:
    road = roads(dialect)
    mark = road.peer.mark()
    tokens = [road.forwarder.push_data({"rxpk": [rxpk_v2(data=f"burst{number}")]}) for number in range(100)]
    for token in tokens:
        road.forwarder.wait_push_ack(token)
    road.peer.wait_for(lambda message: '"burst99"' in message.text, after=mark)
    texts = [message.text for message in road.peer.since(mark)]
    assert [f'"burst{number}"' in text for number, text in enumerate(texts)] == [True] * 100


def test_the_mac_of_the_packet_is_told_not_the_gateways(roads: Roads) -> None:
    mark = roads(NATIVE).peer.mark()
    for mac in (bytes(8), b"\xff" * 8, bytes(range(8))):
        roads(NATIVE).forwarder.push_data({"rxpk": [rxpk_v2()]}, mac=mac)
        roads(NATIVE).peer.wait_for(lambda message: f'"mac":"{mac.hex()}"' in message.text, after=mark)


def test_a_gateway_with_all_zero_mac_is_encoded_for_the_v3_dialect(roads: Roads) -> None:
    mark = roads(V3).peer.mark()
    roads(V3).forwarder.push_data({"stat": stat()}, mac=bytes(8))
    roads(V3).peer.wait_for(lambda message: '"gatewayID":"AAAAAAAAAAA="' in message.text, after=mark)
