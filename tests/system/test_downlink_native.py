"""Downlinks of the native dialect: the exact datagram that the packet forwarder receives."""
from typing import Any, Callable

import pytest

from harness.dialects import NATIVE
from harness.road import Road
from harness.samples import DATA_ESCAPED, OMIT, changed, native_downlink, native_tx_info

Roads = Callable[..., Road]


def txpk(
    timing: str = '"imme":false,"tmst":3513348611',
    freq: str = "868.100000",
    powe: int = 14,
    modu: str = "LORA",
    datr: str = "SF9BW125",
    codr: str = "4\\/5",
    size: int = 13,
    data: str = DATA_ESCAPED,
) -> bytes:
    return (
        f'{{"txpk":{{{timing},"freq":{freq},"rfch":0,"powe":{powe},"modu":"{modu}","datr":"{datr}",'
        f'"codr":"{codr}","ipol":true,"size":{size},"data":"{data}"}}}}'
    ).encode() + b"\0"


def data_rate(**changes: Any) -> dict[str, Any]:
    return changed({"bandwidth": 125, "modulation": "LORA", "spreadFactor": 9}, changes)


IMMEDIATE = '"imme":true,"tmst":0'

TX_INFO: list[tuple[dict[str, Any], bytes]] = [
    ({}, txpk()),
    ({"immediately": True}, txpk(IMMEDIATE)),
    ({"immediately": True, "timestamp": OMIT}, txpk(IMMEDIATE)),
    ({"timestamp": OMIT, "timeSinceGPSEpoch": 1398985709123}, txpk('"imme":false,"tmms":1398985709123')),
    ({"timestamp": 0, "timeSinceGPSEpoch": 7}, txpk('"imme":false,"tmms":7')),
    ({"timestamp": 5, "timeSinceGPSEpoch": 7}, txpk('"imme":false,"tmst":5')),
    ({"timestamp": 4294967295}, txpk('"imme":false,"tmst":4294967295')),
    ({"timestamp": 4294967296}, txpk('"imme":false,"tmst":4294967296')),
    ({"frequency": 433050001}, txpk(freq="433.050001")),
    ({"frequency": 0}, txpk(freq="0.000000")),
    ({"power": -3}, txpk(powe=-3)),
    ({"power": None}, txpk(powe=0)),
    ({"dataRate": data_rate(spreadFactor=12, bandwidth=500)}, txpk(datr="SF12BW500")),
    ({"dataRate": data_rate(spreadFactor=123456, bandwidth=12345)}, txpk(datr="SF123456BW12345")),
    ({"dataRate": data_rate(modulation="m" * 15)}, txpk(modu="m" * 15)),
    ({"codeRate": "4/5/678"}, txpk(codr="4\\/5\\/678")),
    ({"codeRate": 4}, txpk(codr="4")),
    ({"mac": "any"}, txpk()),
    ({"unknown": [1]}, txpk()),
]


def short(value: Any) -> str:
    return str(value)[:40]


@pytest.mark.parametrize("changes, datagram", TX_INFO, ids=short)
def test_a_downlink_becomes_a_pull_resp(roads: Roads, changes: dict[str, Any], datagram: bytes) -> None:
    road = roads(NATIVE)
    road.forwarder.pull_data(version=2)
    response = road.downlink(native_downlink(**changes))
    assert response.body == datagram
    assert (response.version, response.token) == (2, 0)


PAYLOADS = [
    ("", 0),
    ("=", 0),
    ("A", 0),
    ("==", 1),
    ("AA", 1),
    ("AA=", 1),
    ("AAA", 2),
    ("A==", 0),
    ("AA==", 1),
    ("AAA=", 2),
    ("AAAA", 3),
    ("AAAAAA==", 4),
    ("A" * 2047, 1535),
    ("A" * 342 + "==", 256),
]


@pytest.mark.parametrize("payload, size", PAYLOADS, ids=short)
def test_the_size_follows_from_the_length_of_the_base64_text(roads: Roads, payload: str, size: int) -> None:
    """A text of two characters is not looked into for padding."""
    assert roads(NATIVE).downlink(native_downlink(data=payload)).body == txpk(size=size, data=payload)


READ = "failed to deserialize downlink frame"
INVALID = "Invalid downlink frame"

REFUSED: list[tuple[dict[str, Any], str]] = [
    *[({key: OMIT}, READ) for key in ("codeRate", "dataRate", "frequency", "immediately", "mac", "power")],
    *[({"dataRate": data_rate(**{key: OMIT})}, READ) for key in ("bandwidth", "modulation", "spreadFactor")],
    ({"timestamp": OMIT}, INVALID),
    ({"timestamp": 0}, INVALID),
    ({"timestamp": None}, INVALID),
    ({"timestamp": 0, "timeSinceGPSEpoch": 0}, INVALID),
    ({"dataRate": None}, READ),
    ({"dataRate": []}, READ),
    ({"dataRate": "SF9BW125"}, READ),
    ({"dataRate": data_rate(modulation=None)}, READ),
    ({"dataRate": data_rate(modulation="m" * 16)}, READ),
    ({"codeRate": "c" * 8}, READ),
    ({"codeRate": None}, READ),
    ({"mac": "m" * 64}, READ),
    (
        {"dataRate": data_rate(spreadFactor=123456, bandwidth=123456)},
        "not enough space for serializing data rate field",
    ),
]


@pytest.mark.parametrize("changes, text", REFUSED, ids=short)
def test_a_bad_tx_info_is_refused(roads: Roads, changes: dict[str, Any], text: str) -> None:
    log = roads(NATIVE).refused_downlink(native_downlink(**changes))
    assert any(text in line for line in log)
    assert any("failed to translate downlink packet body" in line for line in log)


@pytest.mark.parametrize(
    "body",
    [
        {"txInfo": native_tx_info()},
        {"phyPayload": "AA=="},
        {"phyPayload": "AA==", "txInfo": None},
        {"phyPayload": "AA==", "txInfo": []},
        {"phyPayload": None, "txInfo": native_tx_info()},
        native_downlink(data="A" * 2048),
        {},
        [],
    ],
    ids=short,
)
def test_a_downlink_that_lacks_a_part_is_refused(roads: Roads, body: Any) -> None:
    log = roads(NATIVE).refused_downlink(body)
    assert any(READ in line for line in log)
