"""Downlinks of the two ChirpStack dialects: the exact datagram that the packet forwarder receives."""
import base64
from typing import Any, Callable

import pytest

from harness.dialects import V2, V3
from harness.road import Road
from harness.samples import DATA_ESCAPED, OMIT, changed, native_tx_info, v2_downlink, v3_downlink, v3_tx_info

Roads = Callable[..., Road]

READ = "failed to deserialize downlink frame"


def txpk(
    imme: str = "false",
    tmst: int = 3513348611,
    freq: str = "868.100000",
    powe: int = 14,
    modu: str = "LORA",
    datr: str = "SF9BW125",
    codr: str = "4\\/5",
    size: int = 13,
    data: str = DATA_ESCAPED,
) -> bytes:
    return (
        f'{{"txpk":{{"imme":{imme},"tmst":{tmst},"freq":{freq},"rfch":0,"powe":{powe},"modu":"{modu}",'
        f'"datr":"{datr}","codr":"{codr}","ipol":true,"size":{size},"data":"{data}"}}}}'
    ).encode() + b"\0"


def short(value: Any) -> str:
    return str(value)[:40]


V2_CASES: list[tuple[dict[str, Any], bytes]] = [
    ({}, txpk()),
    ({"immediately": True}, txpk(imme="true")),
    ({"immediately": False, "timestamp": 0}, txpk(tmst=0)),
    (
        {"timestamp": 4294967295, "frequency": 433050001, "power": -1},
        txpk(tmst=4294967295, freq="433.050001", powe=-1),
    ),
    (
        {"dataRate": {"bandwidth": 500, "modulation": "FSK", "spreadFactor": 12}},
        txpk(datr="SF12BW500", modu="FSK"),
    ),
    ({"timeSinceGPSEpoch": 7}, txpk()),
]


@pytest.mark.parametrize("changes, datagram", V2_CASES, ids=short)
def test_a_v2_downlink(roads: Roads, changes: dict[str, Any], datagram: bytes) -> None:
    response = roads(V2).downlink(v2_downlink(token=4660, **changes))
    assert response.body == datagram
    assert response.token == 4660


@pytest.mark.parametrize(
    "token, sent", [(0, 0), (65535, 65535), (65536 + 9, 9), (-1, 65535), ("77", 77), (None, 0)], ids=str
)
def test_the_low_16_bits_of_the_token_are_sent(roads: Roads, token: Any, sent: int) -> None:
    assert roads(V2).downlink(v2_downlink(token=token)).token == sent
    assert roads(V3).downlink(v3_downlink(token=token)).token == sent


def test_a_v2_downlink_without_a_token_gets_a_random_one(roads: Roads) -> None:
    tokens = [roads(V2).downlink(v2_downlink(token=OMIT)).token for _ in range(6)]
    assert len(set(tokens)) > 1


V2_REFUSED: list[dict[str, Any]] = [
    *[
        v2_downlink(**{key: OMIT})
        for key in ("codeRate", "dataRate", "frequency", "immediately", "mac", "power", "timestamp")
    ],
    v2_downlink(codeRate=None),
    v2_downlink(codeRate="c" * 8),
    v2_downlink(dataRate=None),
    v2_downlink(mac="m" * 64),
    v2_downlink(data="A" * 2048),
    {"token": 1, "txInfo": native_tx_info()},
    {"phyPayload": "AA=="},
    {"phyPayload": "AA==", "txInfo": None},
    {},
    [],
]


@pytest.mark.parametrize("body", V2_REFUSED, ids=lambda body: str(body)[-60:])
def test_a_bad_v2_downlink_is_refused(roads: Roads, body: Any) -> None:
    log = roads(V2).refused_downlink(body)
    assert any(READ in line for line in log)
    assert any("failed to translate downlink packet body" in line for line in log)


def test_a_v2_data_rate_that_fills_its_text_is_refused(roads: Roads) -> None:
    rate = {"bandwidth": 123456, "modulation": "LORA", "spreadFactor": 123456}
    log = roads(V2).refused_downlink(v2_downlink(dataRate=rate))
    assert any("not enough space for serializing data rate field" in line for line in log)


def context(number: int, size: int = 8) -> str:
    return base64.b64encode(number.to_bytes(size, "little")).decode()


def delayed(number: int, delay: Any, size: int = 8) -> dict[str, Any]:
    return {"timing": "DELAY", "context": context(number, size), "delayTimingInfo": {"delay": delay}}


NOW = txpk(imme="true", tmst=0)

V3_CASES: list[tuple[dict[str, Any], bytes]] = [
    ({}, NOW),
    ({"context": context(5)}, NOW),
    ({"context": context(1, 16)}, NOW),  # an immediate downlink's context is not decoded
    ({"delayTimingInfo": {"delay": "1s"}}, NOW),
    ({"timing": "IMMEDIATELY", "immediatelyTimingInfo": {}}, NOW),
    (delayed(3512348611, "1s"), txpk(tmst=3513348611)),
    (delayed(3512348611, "0.5s"), txpk(tmst=3512848611)),
    (delayed(4294967295, "5s"), txpk(tmst=4299967295)),  # the sum passes 2^32 and is sent so
    (delayed(2**40, "1s"), txpk(tmst=2**40 + 1000000)),
    (delayed(7, "0.0000019s"), txpk(tmst=8)),
    (delayed(7, "2"), txpk(tmst=2000007)),
    (delayed(7, 3), txpk(tmst=3000007)),
    (delayed(7, "soon"), txpk(tmst=7)),
    (delayed(7, ""), txpk(tmst=7)),
    (delayed(16909060, "1s", size=4), txpk(tmst=17909060)),
    (delayed(9, "1s", size=1), txpk(tmst=1000009)),
    ({"timing": "DELAY", "delayTimingInfo": {"delay": "1s"}}, txpk(tmst=1000000)),
    ({"timing": "DELAY", "context": "!", "delayTimingInfo": {"delay": "1s"}}, txpk(tmst=1000000)),
    (
        {
            "frequency": 433050001,
            "power": -1,
            "modulation": "FSK",
            "loRaModulationInfo": {
                "bandwidth": 500,
                "spreadingFactor": 12,
                "codeRate": "4/8",
                "polarizationInversion": False,
            },
        },
        txpk(imme="true", tmst=0, freq="433.050001", powe=-1, modu="FSK", datr="SF12BW500", codr="4\\/8"),
    ),
]


@pytest.mark.parametrize("changes, datagram", V3_CASES, ids=short)
def test_a_v3_downlink(roads: Roads, changes: dict[str, Any], datagram: bytes) -> None:
    response = roads(V3).downlink(v3_downlink(token=4660, **changes))
    assert response.body == datagram
    assert response.token == 4660


def lora(**changes: Any) -> dict[str, Any]:
    return changed(v3_tx_info()["loRaModulationInfo"], changes)


V3_REFUSED: list[tuple[dict[str, Any], str]] = [
    (v3_downlink(token=OMIT), READ),
    ({"token": 1, "txInfo": v3_tx_info()}, READ),
    ({"token": 1, "phyPayload": "AA=="}, READ),
    *[
        (v3_downlink(**{key: OMIT}), READ)
        for key in ("frequency", "power", "modulation", "loRaModulationInfo", "board", "antenna", "timing")
    ],
    *[
        (v3_downlink(loRaModulationInfo=lora(**{key: OMIT})), READ)
        for key in ("bandwidth", "spreadingFactor", "codeRate", "polarizationInversion")
    ],
    (v3_downlink(context=None), READ),
    (v3_downlink(timing=None), READ),
    (v3_downlink(context="A" * 256), READ),
    (v3_downlink(timing="t" * 64), READ),
    (v3_downlink(data="A" * 2048), READ),
    (v3_downlink(timing="GPS_EPOCH"), "unsupported timing type: GPS_EPOCH"),
    (v3_downlink(timing="immediately"), "unsupported timing type: immediately"),
    (v3_downlink(timing=""), "unsupported timing type: "),
    (v3_downlink(**delayed(1, "1s", size=9)), "failed to decode context: AQAAAAAAAAAA with retval: 9"),
    (v3_downlink(**delayed(1, "1s", size=12)), "failed to decode context: AQAAAAAAAAAAAAAA with retval: 12"),
    (v3_downlink(**delayed(1, "1s", size=13)), "with retval: 13"),
    (
        v3_downlink(**delayed(1, "1s", size=16)),
        "invalid context received: AQAAAAAAAAAAAAAAAAAAAA== with decode length: 19",
    ),
    (v3_downlink(timing="DELAY", context=context(1)), "failed to deserialize delay information frame"),
    (
        v3_downlink(timing="DELAY", context=context(1), delayTimingInfo=None),
        "failed to deserialize delay information frame",
    ),
    (
        v3_downlink(timing="DELAY", context=context(1), delayTimingInfo={}),
        "failed to deserialize delay information frame",
    ),
    (v3_downlink(**delayed(1, None)), "failed to deserialize delay information frame"),
    (v3_downlink(**delayed(1, "1" * 64)), "failed to deserialize delay information frame"),
    ({"items": [{"phyPayload": "AA==", "txInfo": v3_tx_info()}], "token": 1, "downlinkID": "AA=="}, READ),
]


@pytest.mark.parametrize("body, text", V3_REFUSED, ids=lambda each: str(each)[-60:])
def test_a_bad_v3_downlink_is_refused(roads: Roads, body: dict[str, Any], text: str) -> None:
    log = roads(V3).refused_downlink(body)
    assert any(text in line for line in log)
    assert any("failed to translate downlink packet body" in line for line in log)


def test_a_v3_data_rate_that_fills_its_text_is_refused(roads: Roads) -> None:
    log = roads(V3).refused_downlink(
        v3_downlink(loRaModulationInfo=lora(bandwidth=123456, spreadingFactor=123456))
    )
    assert any("not enough space for serializing data rate field" in line for line in log)


def test_items_beside_the_top_level_fields_are_ignored(roads: Roads) -> None:
    body = {**v3_downlink(), "items": [{"phyPayload": "////", "txInfo": v3_tx_info(timing="DELAY")}]}
    assert roads(V3).downlink(body).body == NOW


@pytest.mark.parametrize("delay", ["nan", "inf", "-inf", "1e300", "-5s"])
def test_a_delay_that_is_no_span_of_time_does_not_end_the_daemon(roads: Roads, delay: str) -> None:
    response = roads(V3).downlink(v3_downlink(**delayed(7, delay)))
    assert b'"imme":false,"tmst":' in response.body
    assert roads(V3).downlink(v3_downlink()).body == NOW
