"""Damaged JSON on both roads: nothing ends the daemon, and a bad message never spoils the next."""
import json
import random
from typing import Any, Callable

import pytest

from harness.dialects import DIALECTS, NATIVE, V3, Dialect
from harness.forwarder import PULL_RESP, body_bytes
from harness.road import Road, next_marker
from harness.samples import DOWNLINKS, rsig, rxpk_v1, rxpk_v2, stat
from harness.waiting import wait_until

Roads = Callable[..., Road]

ALL = pytest.mark.parametrize("dialect", DIALECTS, ids=str)

SEED = 1780
MUTATIONS = 300
PACE = 50  # datagrams that surely fit into the socket's buffer

NO_JSON = [
    b"  ",
    b"xx",
    b"{]",
    b"[}",
    b'{"rxpk"',
    b'{"rxpk":',
    b'{"rxpk":[',
    b'{"rxpk":[{',
    b'{"rxpk":[{"tmst":1',
    b'{"rxpk" [1]}',
    b'{"rxpk":[1 2]}',
    b"\0\0",
    b"\0{}",
    b"nu",
    b"null",
    b"tru",
    b"--",
    b'{"a":+1}',
    b'{"a":.5}',
    b'"\\u12',
    b"[" * 40 + b"]" * 40,
    b'{"a":' * 33 + b"1" + b"}" * 33,
    b"\xff\xfe\xfd",
    b"<?xml?>",
    b"{}"[:1] * 9,
]


@ALL
@pytest.mark.parametrize("text", NO_JSON, ids=lambda text: repr(text)[:30])
def test_text_that_is_no_json_is_not_acknowledged(roads: Roads, dialect: Dialect, text: bytes) -> None:
    outcome = roads(dialect).push(text)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("failed to allocate tokener")
    assert outcome.logged("failed to process uplink message")


@ALL
def test_an_uplink_cut_at_any_place_is_not_acknowledged(roads: Roads, dialect: Dialect) -> None:
    whole = body_bytes({"rxpk": [rxpk_v2()]})
    road = roads(dialect)
    for length in range(2, len(whole)):
        outcome = road.push(whole[:length])
        assert (outcome.published, outcome.acked) == ([], False), whole[:length]


LENIENT = [
    (b'{"rxpk":[%s,]}', True),
    (b"{'rxpk':[%s]}", True),
    (b'/* note */{"rxpk":[%s]}', True),
    (b'{"rxpk":[%s]}}}', True),
    (b'{"rxpk":5,"rxpk":[%s]}', True),
    (b'{"rxpk":[%s],"rxpk":5}', False),
]


@ALL
@pytest.mark.parametrize("frame, published", LENIENT, ids=str)
def test_loose_json_is_read_as_the_parser_reads_it(
    roads: Roads, dialect: Dialect, frame: bytes, published: bool
) -> None:
    outcome = roads(dialect).push(frame % body_bytes(rxpk_v2()))
    assert (len(outcome.published), outcome.acked) == (int(published), True)


@ALL
@pytest.mark.parametrize("key", ["freq", "lsnr", "tmst"])
@pytest.mark.parametrize("number", ["NaN", "-Infinity", "Infinity", "1e400", "99999999999999999999", "-1e30"])
def test_a_number_beyond_every_range_does_no_harm(
    roads: Roads, dialect: Dialect, key: str, number: str
) -> None:
    body = body_bytes({"rxpk": [rxpk_v2(**{key: "@"})]}).replace(b'"@"', number.encode())
    outcome = roads(dialect).push(body)
    assert (len(outcome.published), outcome.acked) == (1, True)


# A number read from an object or an array leaves an error behind that the next read of a number could find.
LEAVES_AN_ERROR: list[dict[str, Any]] = [
    {"rxpk": [rxpk_v2(freq={})]},
    {"rxpk": [rxpk_v2(freq=[])]},
    {"rxpk": [rxpk_v2(lsnr="x")]},
    {"rxpk": [rxpk_v2(tmst={}, lsnr={})]},
    {"rxpk": [rxpk_v1(freq=[1])]},
    {"stat": stat(lati={})},
    {"stat": stat(alti=[], long=[])},
]


def with_fractions(message: dict[str, Any]) -> dict[str, Any]:
    """Reading a whole number from text clears the error as a side effect, one with a fraction does not."""
    return {key: float(value) if isinstance(value, int) else value for key, value in message.items()}


GOOD: list[dict[str, Any]] = [
    {"rxpk": [rxpk_v2()]},
    {"stat": stat()},
    {"rxpk": [with_fractions(rxpk_v2())]},
    {"stat": with_fractions(stat())},
]


@ALL
@pytest.mark.parametrize("good", GOOD, ids=["uplink", "statistics", "fractions", "statistics of fractions"])
@pytest.mark.parametrize("bad", LEAVES_AN_ERROR, ids=lambda bad: json.dumps(bad)[:60])
def test_a_bad_datagram_never_spoils_the_next(
    roads: Roads, dialect: Dialect, bad: dict[str, Any], good: dict[str, Any]
) -> None:
    road = roads(dialect)
    refused = road.push(bad)
    assert (refused.published, refused.acked) == ([], False)
    token = road.forwarder.push_data(bad)
    passed = road.push(good)
    assert (len(passed.published), passed.acked) == (1, True)
    assert token not in [datagram.token for datagram in road.forwarder.up.received]


def test_a_bad_signal_never_spoils_the_next_datagram(roads: Roads) -> None:
    refused = roads(NATIVE).push({"rxpk": [rxpk_v1(rsig=[rsig(lsnr={})])]}, version=1)
    assert not refused.acked
    assert roads(NATIVE).push({"rxpk": [rxpk_v1()]}, version=1).acked


@ALL
def test_a_bad_message_on_one_road_never_spoils_the_other(roads: Roads, dialect: Dialect) -> None:
    road = roads(dialect)
    assert not road.push({"rxpk": [rxpk_v2(freq={})]}).acked
    assert road.downlink(DOWNLINKS[dialect.name]()).kind == PULL_RESP
    bad = DOWNLINKS[dialect.name](frequency={}, power=[])
    road.peer.publish(dialect.downlink, body_bytes(bad))
    assert road.push({"rxpk": [rxpk_v2()], "stat": stat()}).acked


@ALL
@pytest.mark.parametrize(
    "bad",
    [
        {"frequency": "x", "dataRate": [], "loRaModulationInfo": []},
        {"power": {}, "codeRate": None, "modulation": None},
    ],
    ids=str,
)
def test_a_bad_downlink_never_spoils_the_next(roads: Roads, dialect: Dialect, bad: dict[str, Any]) -> None:
    roads(dialect).refused_downlink(DOWNLINKS[dialect.name](**bad))


def mutated(dice: random.Random, raw: bytes) -> bytes:
    """One to four bytes changed, taken out, doubled or put in."""
    result = bytearray(raw)
    for _ in range(dice.randint(1, 4)):
        place = dice.randrange(len(result))
        match dice.randrange(4):
            case 0:
                result[place] = dice.randrange(256)
            case 1:
                del result[place]
            case 2:
                result[place:place] = result[max(0, place - dice.randrange(1, 9)) : place]
            case _:
                result[place:place] = dice.choice(
                    [b"{", b"}", b"[", b"]", b'"', b"null", b"-", b"e9", b",", b"\0"]
                )
    return bytes(result)


@ALL
@pytest.mark.parametrize("version", [1, 2])
def test_mutated_datagrams_do_no_harm(roads: Roads, dialect: Dialect, version: int) -> None:
    road = roads(dialect)
    dice = random.Random(SEED + version)
    rxpk = rxpk_v1(tmms=7, time="2024-05-06T07:08:09Z") if version == 1 else rxpk_v2(tmms=7)
    whole = body_bytes({"rxpk": [rxpk], "stat": stat(), "locpk": [1]})
    for number in range(MUTATIONS):
        road.forwarder.push_data(mutated(dice, whole), version)
        if number % PACE == 0:
            road.forwarder.pull_data()
    assert road.push({"rxpk": [rxpk_v2()]}).acked


@ALL
def test_mutated_downlinks_do_no_harm(roads: Roads, dialect: Dialect) -> None:
    road = roads(dialect)
    dice = random.Random(SEED)
    delayed = {"timing": "DELAY", "context": "AQAAAAAAAAA=", "delayTimingInfo": {"delay": "1s"}}
    changes = delayed if dialect is V3 else {}
    whole = body_bytes(DOWNLINKS[dialect.name](**changes))
    mark, marker = road.forwarder.down.mark(), next_marker()
    for _ in range(MUTATIONS):
        road.peer.publish(dialect.downlink, mutated(dice, whole))
    road.peer.publish(dialect.downlink, body_bytes(DOWNLINKS[dialect.name](data=marker)))

    def arrived() -> bool:
        return any(marker.encode() in each.body for each in road.forwarder.down.since(mark))

    wait_until(arrived, "the good downlink behind the mutated ones")


@ALL
def test_mutated_acknowledgements_do_no_harm(roads: Roads, dialect: Dialect) -> None:
    road = roads(dialect)
    dice = random.Random(SEED)
    for number in range(MUTATIONS):
        road.forwarder.tx_ack(mutated(dice, b'{"txpk_ack":{"error":"TOO_LATE","warn":"x"}}'))
        if number % PACE == 0:
            road.forwarder.pull_data()
    assert road.push({"rxpk": [rxpk_v2()]}).acked
