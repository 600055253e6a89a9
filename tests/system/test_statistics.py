"""Gateway statistics in each dialect."""
import base64
from typing import Any, Callable

import pytest

from harness.dialects import NATIVE, V2, V3, DIALECTS, Dialect
from harness.forwarder import PACKET_MAC
from harness.road import Road
from harness.samples import OMIT, rxpk_v2, stat

Roads = Callable[..., Road]

TIME = "2024-05-06T07:08:09.000000Z"
ZERO_TIME = "1900-01-00T00:00:00.000000Z"  # of a time that was never filled
MAC_B64 = base64.b64encode(PACKET_MAC).decode().replace("/", "\\/")


def native_text(
    altitude: int = 145,
    latitude: str = "46.240000",
    longitude: str = "3.252300",
    rxnb: int = 2,
    rxok: int = 1,
    dwnb: int = 4,
    txnb: int = 3,
    time: str = TIME,
) -> str:
    return (
        f'{{"altitude":{altitude},"latitude":{latitude},"longitude":{longitude},"mac":"aa555a0000000123",'
        f'"rxPacketsReceived":{rxnb},"rxPacketsReceivedOK":{rxok},"txPacketsReceived":{dwnb},'
        f'"txPacketsEmitted":{txnb},"time":"{time}"}}'
    )


def v3_text(
    location: str = '"latitude":46.24,"longitude":3.2523,"altitude":145',
    rxnb: int = 2,
    rxok: int = 1,
    dwnb: int = 4,
    txnb: int = 3,
    time: str = TIME,
) -> str:
    place = f',"location":{{{location}}}' if location else ""
    return (
        f'{{"gatewayID":"{MAC_B64}","time":"{time}","rxPacketsReceived":{rxnb},"rxPacketsReceivedOK":{rxok},'
        f'"txPacketsReceived":{dwnb},"txPacketsEmitted":{txnb}{place}}}'
    )


def short(value: Any) -> str:
    return str(value)[:40]


NATIVE_CASES: list[tuple[dict[str, Any], dict[str, Any]]] = [
    ({}, {}),
    (
        {"lati": OMIT, "long": OMIT, "alti": OMIT},
        {"latitude": "-1.000000", "longitude": "-1.000000", "altitude": -1},
    ),
    (
        {"lati": 5, "long": -0.0000004, "alti": 12.9},
        {"latitude": "5.000000", "longitude": "-0.000000", "altitude": 12},
    ),
    ({"lati": 12.3456789}, {"latitude": "12.345679"}),
    ({"ackr": None}, {}),
    ({"ackr": 100}, {}),
    ({"ackr": 98.7}, {}),
    ({"rxnb": None}, {"rxnb": 0}),
    ({"rxnb": 4294967296, "txnb": -1}, {"rxnb": 4294967296, "txnb": -1}),
    ({"boot": "2024-01-01 00:00:00 GMT", "hal": "5.1", "lmok": 1, "lmst": 2}, {}),
    ({"time": "2024-05-06 07:08:09 UTC"}, {}),
    ({"time": "2024-05-06 07:08:09"}, {}),
    ({"time": ""}, {"time": ZERO_TIME}),
    ({"time": "no time at all"}, {"time": ZERO_TIME}),
    # The date is read before the parse stops at the T.
    ({"time": "2024-05-06T07:08:09Z"}, {"time": "2024-05-06T00:00:00.000000Z"}),
    ({"unknown": []}, {}),
]


@pytest.mark.parametrize("dialect", [NATIVE, V2], ids=str)
@pytest.mark.parametrize("version", [1, 2])
@pytest.mark.parametrize("changes, expected", NATIVE_CASES, ids=short)
def test_native_statistics(
    roads: Roads, dialect: Dialect, version: int, changes: dict[str, Any], expected: dict[str, Any]
) -> None:
    outcome = roads(dialect).push({"stat": stat(**changes)}, version)
    assert outcome.texts() == [native_text(**expected)]
    assert outcome.published[0].topic == dialect.statistics
    assert outcome.acked


WARNING = "inconsitent GPS coordinates received. lat: "

V3_CASES: list[tuple[dict[str, Any], dict[str, Any], bool]] = [
    ({}, {}, False),
    ({"lati": OMIT, "long": OMIT, "alti": OMIT}, {"location": ""}, False),
    ({"alti": OMIT}, {"location": ""}, True),
    ({"lati": OMIT}, {"location": ""}, True),
    ({"long": OMIT}, {"location": ""}, True),
    ({"lati": OMIT, "long": OMIT}, {"location": ""}, True),
    ({"long": OMIT, "alti": OMIT}, {"location": ""}, True),
    ({"lati": 5, "long": -7}, {"location": '"latitude":5.0,"longitude":-7.0,"altitude":145'}, False),
    ({"lati": 0.1, "alti": 0}, {"location": '"latitude":0.1,"longitude":3.2523,"altitude":0'}, False),
    ({"ackr": None, "time": "x"}, {"time": ZERO_TIME}, False),
    ({"time": "2024-05-06T07:08:09Z"}, {"time": "2024-05-06T00:00:00.000000Z"}, False),
]


def printed(number: float) -> str:
    return format(number, ".17g")


@pytest.mark.parametrize("version", [1, 2])
@pytest.mark.parametrize("changes, expected, warned", V3_CASES, ids=short)
def test_chirpstack_v3_statistics(
    roads: Roads, version: int, changes: dict[str, Any], expected: dict[str, Any], warned: bool
) -> None:
    outcome = roads(V3).push({"stat": stat(**changes)}, version)
    text = v3_text(**expected)
    for number in (46.24, 3.2523, 0.1):  # numbers go out with all their digits
        text = text.replace(f":{number},", f":{printed(number)},")
    assert outcome.texts() == [text]
    assert outcome.published[0].topic == V3.statistics
    assert outcome.acked
    assert outcome.logged(WARNING) == warned


REFUSED = [
    {"time": OMIT},
    {"rxnb": OMIT},
    {"rxok": OMIT},
    {"rxfw": OMIT},
    {"ackr": OMIT},
    {"dwnb": OMIT},
    {"txnb": OMIT},
    {"time": None},
    {"time": "t" * 64},
    {"boot": "b" * 64},
    {"hal": None},
    {"lati": {}},
    {"long": "x"},
]


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
@pytest.mark.parametrize("changes", REFUSED, ids=short)
def test_bad_statistics_are_not_acknowledged(roads: Roads, dialect: Dialect, changes: dict[str, Any]) -> None:
    outcome = roads(dialect).push({"stat": stat(**changes)})
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("failed to deserialize statistics: ")


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
@pytest.mark.parametrize("value", ["null", "5", "[]", '"text"', "true"])
def test_statistics_that_are_no_object_fail_in_the_translator(
    roads: Roads, dialect: Dialect, value: str
) -> None:
    outcome = roads(dialect).push(f'{{"stat":{value}}}')
    assert (outcome.published, outcome.acked) == ([], False)
    assert outcome.logged("no statistics object in ")
    assert outcome.logged("failed to deserialize statistics: ")


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
def test_statistics_follow_the_uplinks_of_their_datagram(roads: Roads, dialect: Dialect) -> None:
    outcome = roads(dialect).push({"stat": stat(), "rxpk": [rxpk_v2(), rxpk_v2()]})
    assert [message.topic for message in outcome.published] == [dialect.uplink] * 2 + [dialect.statistics]
    assert outcome.acked


def test_bad_statistics_leave_the_uplinks_published_and_no_acknowledgement(roads: Roads) -> None:
    outcome = roads(NATIVE).push({"stat": None, "rxpk": [rxpk_v2()]})
    assert [message.topic for message in outcome.published] == [NATIVE.uplink]
    assert not outcome.acked


def test_a_bad_uplink_loses_the_statistics(roads: Roads) -> None:
    outcome = roads(NATIVE).push({"stat": stat(), "rxpk": [rxpk_v2(), {}]})
    assert [message.topic for message in outcome.published] == [NATIVE.uplink]
    assert not outcome.acked


def test_statistics_keep_nothing_of_the_uplink_before_them(roads: Roads) -> None:
    outcome = roads(NATIVE).push({"rxpk": [rxpk_v2()], "stat": stat()})
    assert outcome.texts()[1] == native_text()
