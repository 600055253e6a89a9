"""Uplinks in the two ChirpStack dialects: the exact text that the network server receives."""
import base64
import json
import time
from datetime import datetime, timezone
from typing import Any, Callable

import pytest

from harness.config import GW_MAC
from harness.dialects import V2, V3, Dialect
from harness.forwarder import PACKET_MAC
from harness.road import Road
from harness.samples import DATA_ESCAPED, OMIT, rsig, rxpk_v1, rxpk_v2

Roads = Callable[..., Road]

TIME = "2024-05-06T07:08:09.123456Z"
MAC_B64 = base64.b64encode(PACKET_MAC).decode().replace("/", "\\/")


def context(tmst: int) -> str:
    return base64.b64encode((tmst % 2**64).to_bytes(8, "little")).decode().replace("/", "\\/")


def v2_text(
    antenna: int = 0,
    channel: int = 2,
    frequency: int = 868300000,
    snr: int = 9,
    rssi: int = -57,
    when: str = TIME,
    tmst: int = 3512348611,
    datr: tuple[int, int] = (7, 125),
) -> str:
    return (
        f'{{"phyPayload":"{DATA_ESCAPED}","rxInfo":{{"board":0,"antenna":{antenna},"channel":{channel},'
        f'"codeRate":"4\\/5","crcStatus":1,"dataRate":{{"bandwidth":{datr[1]},"modulation":"LORA",'
        f'"spreadFactor":{datr[0]}}},"frequency":{frequency},"loRaSNR":{snr},"mac":"aa555a0000000123",'
        f'"rfChain":1,"rssi":{rssi},"size":13,"time":"{when}","timestamp":{tmst}}}}}'
    )


def v3_text(
    antenna: int = 0,
    channel: int = 2,
    frequency: int = 868300000,
    snr: int = 9,
    rssi: int = -57,
    when: str = TIME,
    tmst: int = 3512348611,
    datr: tuple[int, int] = (7, 125),
) -> str:
    return (
        f'{{"phyPayload":"{DATA_ESCAPED}","txInfo":{{"frequency":{frequency},"modulation":"LORA",'
        f'"loRaModulationInfo":{{"bandwidth":{datr[1]},"spreadingFactor":{datr[0]},"codeRate":"4\\/5",'
        f'"polarizationInversion":false}}}},"rxInfo":{{"gatewayID":"{MAC_B64}","time":"{when}",'
        f'"timestamp":{tmst},"rssi":{rssi},"loRaSNR":{snr},"channel":{channel},"rfChain":1,"board":0,'
        f'"antenna":{antenna},"fineTimestampType":"PLAIN","plainFineTimestamp":{{"time":"{when}"}},'
        f'"context":"{context(tmst)}"}}}}'
    )


TEXTS = {"chirpstack_v2": v2_text, "chirpstack_v3": v3_text}
BOTH = pytest.mark.parametrize("dialect", [V2, V3], ids=str)

UPLINKS_V2: list[tuple[dict[str, Any], dict[str, Any]]] = [
    ({}, {}),
    ({"tmms": 1398985709123}, {}),
    ({"tmms": "unread"}, {}),
    ({"time": ""}, {"when": ""}),
    ({"lsnr": -7.5}, {"snr": -7}),
    ({"lsnr": -0.9}, {"snr": 0}),
    ({"lsnr": 3}, {"snr": 3}),
    ({"freq": 8.2}, {"frequency": 8199999}),
    ({"datr": "SF12BW250"}, {"datr": (12, 250)}),
    ({"stat": -1}, {}),
    ({"tmst": 0}, {"tmst": 0}),
    ({"tmst": 4294967295}, {"tmst": 4294967295}),
    ({"tmst": 2**63 - 1}, {"tmst": 2**63 - 1}),
    ({"tmst": -2}, {"tmst": -2}),
    ({"rsig": [rsig()]}, {}),
]


def short(value: Any) -> str:
    return str(value)[:40]


@BOTH
@pytest.mark.parametrize("changes, expected", UPLINKS_V2, ids=short)
def test_a_version_2_uplink(
    roads: Roads, dialect: Dialect, changes: dict[str, Any], expected: dict[str, Any]
) -> None:
    outcome = roads(dialect).push({"rxpk": [rxpk_v2(**{"time": TIME, **changes})]}, version=2)
    assert outcome.texts() == [TEXTS[dialect.name](**expected)]
    assert outcome.acked


UPLINKS_V1: list[tuple[dict[str, Any], dict[str, Any]]] = [
    ({}, {"antenna": 3, "channel": 5, "snr": -7, "rssi": -91}),
    ({"rsig": [rsig(ant=1), rsig(ant=2)]}, {"antenna": 1, "channel": 5, "snr": -7, "rssi": -91}),
    ({"rsig": OMIT}, {"antenna": 0, "channel": 0, "snr": 0, "rssi": 0}),
    ({"chan": 1, "rssi": 1, "lsnr": 1.0}, {"antenna": 3, "channel": 5, "snr": -7, "rssi": -91}),
]


@BOTH
@pytest.mark.parametrize("changes, expected", UPLINKS_V1, ids=short)
def test_a_version_1_uplink(
    roads: Roads, dialect: Dialect, changes: dict[str, Any], expected: dict[str, Any]
) -> None:
    outcome = roads(dialect).push({"rxpk": [rxpk_v1(**{"time": TIME, **changes})]}, version=1)
    assert outcome.texts() == [TEXTS[dialect.name](**expected)]
    assert outcome.acked


@pytest.mark.parametrize(
    "dialect, topic",
    [(V2, f"gateway/{GW_MAC.lower()}/rx"), (V3, f"gateway/{GW_MAC.lower()}/event/up")],
    ids=str,
)
def test_the_topic_carries_the_configured_mac(roads: Roads, dialect: Dialect, topic: str) -> None:
    outcome = roads(dialect).push({"rxpk": [rxpk_v2()]})
    assert [message.topic for message in outcome.published] == [topic]


@BOTH
@pytest.mark.parametrize("version", [1, 2])
def test_an_uplink_without_time_gets_the_present_time(roads: Roads, dialect: Dialect, version: int) -> None:
    before = int(time.time())
    rxpk = rxpk_v1() if version == 1 else rxpk_v2()
    rx_info = json.loads(roads(dialect).push({"rxpk": [rxpk]}, version).texts()[0])["rxInfo"]
    told = datetime.strptime(rx_info["time"], "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc).timestamp()
    assert before <= told <= time.time()
    if dialect is V3:
        assert rx_info["plainFineTimestamp"] == {"time": rx_info["time"]}


FAILED = "failed to deserialize uplink packet: "
REQUIRED_V2 = ["tmst", "chan", "rfch", "freq", "stat", "modu", "datr", "codr", "rssi", "lsnr", "size", "data"]
REQUIRED_V1 = ["tmst", "rfch", "freq", "stat", "modu", "datr", "codr", "size", "data"]


@BOTH
@pytest.mark.parametrize(
    "version, key", [(2, key) for key in REQUIRED_V2] + [(1, key) for key in REQUIRED_V1]
)
def test_an_uplink_without_a_required_key_is_not_acknowledged(
    roads: Roads, dialect: Dialect, version: int, key: str
) -> None:
    rxpk = rxpk_v2(**{key: OMIT}) if version == 2 else rxpk_v1(**{key: OMIT})
    outcome = roads(dialect).push({"rxpk": [rxpk]}, version)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged(FAILED)


REFUSED: list[tuple[int, dict[str, Any], str]] = [
    (2, {"rsig": [rsig()], "rssi": OMIT}, FAILED),
    (2, {"time": None}, FAILED),
    (2, {"freq": {}}, FAILED),
    (2, {"time": "t" * 128}, FAILED),
    (2, {"datr": 50000, "modu": "FSK"}, "failed to deserialize uplink datarate field"),
    (2, {"datr": 50000, "modu": "FSK", "codr": OMIT, "lsnr": OMIT}, FAILED),
    (1, {"datr": "SF7"}, "failed to deserialize uplink datarate field"),
    (1, {"rsig": [rsig(ant=OMIT)]}, "failed to deserialize rsig frame"),
    (1, {"rsig": [{}] * 33}, "too many rsig values received"),
]


@BOTH
@pytest.mark.parametrize("version, changes, text", REFUSED, ids=short)
def test_a_bad_uplink_is_not_acknowledged(
    roads: Roads, dialect: Dialect, version: int, changes: dict[str, Any], text: str
) -> None:
    rxpk = rxpk_v1(**changes) if version == 1 else rxpk_v2(**changes)
    outcome = roads(dialect).push({"rxpk": [rxpk]}, version)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged(text)


@BOTH
def test_a_null_element_is_not_acknowledged(roads: Roads, dialect: Dialect) -> None:
    outcome = roads(dialect).push({"rxpk": [None]})
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged(FAILED)


@BOTH
def test_fsk_between_two_uplinks_gives_up_the_rest(roads: Roads, dialect: Dialect) -> None:
    fsk = rxpk_v2(modu="FSK", datr=50000, codr=OMIT, lsnr=OMIT)
    outcome = roads(dialect).push({"rxpk": [rxpk_v2(time=TIME, tmst=1), fsk, rxpk_v2(time=TIME, tmst=3)]})
    assert outcome.texts() == [TEXTS[dialect.name](tmst=1)]
    assert not outcome.acked
