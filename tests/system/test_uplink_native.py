"""Uplinks in the native dialect: the exact text that the network server receives."""
from typing import Any, Callable

import pytest

from harness.dialects import NATIVE
from harness.forwarder import body_bytes
from harness.road import Road
from harness.samples import DATA_ESCAPED, OMIT, rsig, rxpk_v1, rxpk_v2

Roads = Callable[..., Road]


def rx_info(
    channel: int = 2,
    code_rate: str = "4\\/5",
    bandwidth: int = 125,
    modulation: str = "LORA",
    spread_factor: int = 7,
    frequency: int = 868300000,
    snr: str = "9.8",
    rf_chain: int = 1,
    rssi: int = -57,
    size: int = 13,
    tail: str = "",
    timestamp: int = 3512348611,
    gps: str = "",
    data: str = DATA_ESCAPED,
) -> str:
    return (
        f'{{"phyPayload":"{data}","rxInfo":{{"channel":{channel},"codeRate":"{code_rate}","crcStatus":1,'
        f'"dataRate":{{"bandwidth":{bandwidth},"modulation":"{modulation}","spreadFactor":{spread_factor}}},'
        f'"frequency":{frequency},"loRaSNR":{snr},"mac":"aa555a0000000123","rfChain":{rf_chain},'
        f'"rssi":{rssi},"size":{size},{tail}"timestamp":{timestamp}{gps}}}}}'
    )


TIME = '"time":"2024-05-06T07:08:09.123456Z",'

VERSION_2 = [
    ({}, rx_info()),
    ({"time": "2024-05-06T07:08:09.123456Z"}, rx_info(tail=TIME)),
    ({"tmms": 1398985709123}, rx_info(gps=',"timeGps":1398985709123')),
    (
        {"time": "2024-05-06T07:08:09.123456Z", "tmms": 1398985709123},
        rx_info(tail=TIME, gps=',"timeGps":1398985709123'),
    ),
    ({"time": ""}, rx_info()),
    ({"tmms": 0}, rx_info()),
    ({"tmms": None}, rx_info()),
    ({"stat": -1}, rx_info()),
    ({"stat": 0}, rx_info()),
    ({"lsnr": -7}, rx_info(snr="-7.0")),
    ({"lsnr": -0.04}, rx_info(snr="-0.0")),
    ({"lsnr": 5.25}, rx_info(snr="5.2")),
    ({"lsnr": "6.5"}, rx_info(snr="6.5")),
    ({"freq": 868.1}, rx_info(frequency=868100000)),
    ({"freq": 433.300001}, rx_info(frequency=433300001)),
    ({"freq": 8.2}, rx_info(frequency=8199999)),  # the product is cut, never rounded
    ({"freq": 868}, rx_info(frequency=868000000)),
    ({"datr": "SF12BW500"}, rx_info(spread_factor=12, bandwidth=500)),
    ({"datr": "SF10BW125kHz"}, rx_info(spread_factor=10)),
    ({"modu": "m" * 15}, rx_info(modulation="m" * 15)),
    ({"codr": "OFF"}, rx_info(code_rate="OFF")),
    ({"codr": 5}, rx_info(code_rate="5")),
    ({"tmst": 0}, rx_info(timestamp=0)),
    ({"tmst": 4294967295}, rx_info(timestamp=4294967295)),
    ({"tmst": 12.9}, rx_info(timestamp=12)),
    (
        {"rssi": -120, "chan": 63, "rfch": 0, "size": 255},
        rx_info(rssi=-120, channel=63, rf_chain=0, size=255),
    ),
    ({"rsig": [rsig()]}, rx_info()),  # with version 2 the element's own values count
    ({"data": ""}, rx_info(data="")),
    ({"data": 'a"b\\c/é'}, rx_info(data='a\\"b\\\\c\\/é')),
    ({"data": "AB\0CD"}, rx_info(data="AB")),
    ({"unknown": {"a": [1]}}, rx_info()),
]


def short(value: Any) -> str:
    return str(value)[:40]


@pytest.mark.parametrize("changes, expected", VERSION_2, ids=short)
def test_a_version_2_uplink(roads: Roads, changes: dict[str, Any], expected: str) -> None:
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v2(**changes)]}, version=2)
    assert outcome.texts() == [expected]
    assert outcome.published[0].topic == "gateway/rx"
    assert outcome.acked


def v1_info(**changes: Any) -> str:
    return rx_info(**{"channel": 5, "snr": "-7.5", "rssi": -91, **changes})


VERSION_1 = [
    ({}, v1_info()),
    ({"rsig": [rsig(), rsig(chan=9, rssic=-1, lsnr=1.0)]}, v1_info()),
    ({"rsig": OMIT}, v1_info(channel=0, rssi=0, snr="0.0")),
    ({"rsig": []}, v1_info(channel=0, rssi=0, snr="0.0")),
    ({"rsig": [rsig(chan=number) for number in range(17)]}, v1_info(channel=0)),
    ({"chan": 1, "rssi": 1, "lsnr": 1.0}, v1_info()),  # with version 1 the first signal's values count
    ({"time": "2024-05-06T07:08:09.123456Z", "tmms": 7}, v1_info(tail=TIME, gps=',"timeGps":7')),
]


@pytest.mark.parametrize("changes, expected", VERSION_1, ids=short)
def test_a_version_1_uplink(roads: Roads, changes: dict[str, Any], expected: str) -> None:
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v1(**changes)]}, version=1)
    assert outcome.texts() == [expected]
    assert outcome.acked


REQUIRED_V2 = ["tmst", "chan", "rfch", "freq", "stat", "modu", "datr", "codr", "rssi", "lsnr", "size", "data"]
REQUIRED_V1 = ["tmst", "rfch", "freq", "stat", "modu", "datr", "codr", "size", "data"]
FAILED = "failed to deserialize uplink packet: "


@pytest.mark.parametrize(
    "version, key", [(2, key) for key in REQUIRED_V2] + [(1, key) for key in REQUIRED_V1]
)
def test_an_uplink_without_a_required_key_is_not_acknowledged(roads: Roads, version: int, key: str) -> None:
    rxpk = rxpk_v2(**{key: OMIT}) if version == 2 else rxpk_v1(**{key: OMIT})
    outcome = roads(NATIVE).push({"rxpk": [rxpk]}, version)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged(FAILED) and outcome.logged("unable to retrieve field")


def test_bytes_that_are_no_utf8_pass_as_they_are(roads: Roads) -> None:
    body = body_bytes({"rxpk": [rxpk_v2(data="@")]}).replace(b"@", b"\xff\xfe\x80")
    assert b'"phyPayload":"\xff\xfe\x80"' in roads(NATIVE).push(body).published[0].payload


@pytest.mark.parametrize("key", ["ant", "chan", "rssic", "lsnr"])
def test_a_signal_without_a_required_key_is_not_acknowledged(roads: Roads, key: str) -> None:
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v1(rsig=[rsig(), rsig(**{key: OMIT})])]}, version=1)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("failed to deserialize rsig frame")


REFUSED_V2 = [
    ({"rsig": [rsig()], "rssi": OMIT}, FAILED),
    ({"datr": 50000}, "failed to deserialize uplink datarate field"),
    ({"datr": "SF7"}, "failed to deserialize uplink datarate field"),
    ({"datr": "BW125SF7"}, "failed to deserialize uplink datarate field"),
    ({"datr": ""}, "failed to deserialize uplink datarate field"),
    ({"datr": 50000, "modu": "FSK", "codr": OMIT, "lsnr": OMIT}, FAILED),
    ({"datr": "S" * 16}, FAILED),
    ({"modu": "m" * 16}, FAILED),
    ({"codr": "c" * 8}, FAILED),
    ({"time": "t" * 128}, FAILED),
    ({"time": None}, FAILED),
    ({"data": None}, FAILED),
    ({"modu": None}, FAILED),
    ({"freq": {}}, FAILED),
    ({"freq": []}, FAILED),
    ({"freq": "x"}, FAILED),
    ({"lsnr": {}}, FAILED),
]


@pytest.mark.parametrize("changes, text", REFUSED_V2, ids=short)
def test_a_bad_version_2_uplink_is_not_acknowledged(roads: Roads, changes: dict[str, Any], text: str) -> None:
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v2(**changes)]})
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged(text)


@pytest.mark.parametrize("element", ["null", "5", '"text"', "[]", "{}", "true"])
def test_an_element_that_is_no_uplink_is_not_acknowledged(roads: Roads, element: str) -> None:
    outcome = roads(NATIVE).push(f'{{"rxpk":[{element}]}}')
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("failed to deserialize uplink packet: ")


@pytest.mark.parametrize(
    "count, text", [(32, "failed to deserialize rsig frame"), (33, "too many rsig values received")]
)
def test_signals_are_counted_before_they_are_read(roads: Roads, count: int, text: str) -> None:
    """32 whole signals do not fit into one datagram; empty ones show where the limit stands."""
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v1(rsig=[{}] * count)]}, version=1)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged(text)
    assert outcome.logged("too many rsig values received") == (count > 32)


@pytest.mark.parametrize("signals", ["[null]", '[{"ant":0,"chan":0,"rssic":0,"lsnr":0},null]', "[5]", "[[]]"])
def test_a_signal_that_is_no_object_is_not_acknowledged(roads: Roads, signals: str) -> None:
    body = body_bytes({"rxpk": [rxpk_v1(rsig="@")]}).replace(b'"@"', signals.encode())
    outcome = roads(NATIVE).push(body, version=1)
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("failed to deserialize rsig frame")


@pytest.mark.parametrize("signals", ["null", "{}", "5", '"x"'])
def test_a_list_of_signals_that_is_no_array_counts_as_empty(roads: Roads, signals: str) -> None:
    body = body_bytes({"rxpk": [rxpk_v1(rsig="@")]}).replace(b'"@"', signals.encode())
    outcome = roads(NATIVE).push(body, version=1)
    assert outcome.texts() == [v1_info(channel=0, rssi=0, snr="0.0")]
    assert outcome.acked


FSK = rxpk_v2(modu="FSK", datr=50000, codr=OMIT, lsnr=OMIT)


@pytest.mark.parametrize(
    "elements, passed",
    [
        ([rxpk_v2(tmst=1), rxpk_v2(tmst=2), rxpk_v2(tmst=3)], [1, 2, 3]),
        ([rxpk_v2(tmst=1), FSK, rxpk_v2(tmst=3)], [1]),
        ([FSK], []),
        ([FSK, rxpk_v2(tmst=2)], []),
        ([rxpk_v2(tmst=1), None], [1]),
    ],
    ids=["three good ones", "FSK between two", "FSK alone", "FSK first", "null last"],
)
def test_elements_are_published_in_order_up_to_the_first_bad_one(
    roads: Roads, elements: list[Any], passed: list[int]
) -> None:
    outcome = roads(NATIVE).push({"rxpk": elements})
    assert outcome.texts() == [rx_info(timestamp=tmst) for tmst in passed]
    assert outcome.acked == (len(passed) == len(elements))


def test_a_key_of_one_element_does_not_leak_into_the_next(roads: Roads) -> None:
    """All elements share one object, whose signal members are rebuilt for each."""
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v2(tmms=9, time="2024-05-06T07:08:09.123456Z"), rxpk_v2()]})
    assert outcome.texts() == [rx_info(tail=TIME, gps=',"timeGps":9'), rx_info()]


def test_eight_elements_in_one_datagram_are_cut_and_not_acknowledged(roads: Roads) -> None:
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v2()] * 8})
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("failed to allocate tokener")
