"""Commands of the radio's measuring tools: spectrum analyser, spectral scan and antennas."""
import json
import struct
from typing import Any, Iterator

import pytest

from command_outcome import (
    ANY_PARAMS,
    GONE,
    NO_OBJECT,
    REFUSED,
    REFUSED_TEXT,
    SCENARIO,
    Outcome,
    quiet_road,
    restore,
    run,
)
from harness.control import ControlRoad

pytestmark = pytest.mark.xdist_group("commands_radio")

QUIET = {"on_set": "utilSpectralScanExecute.0", "do": []}
NOT_SUPPORTED = '{"error":"not_supported"}'


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    with quiet_road(tmp_path_factory, QUIET) as road:
        yield road


@pytest.fixture
def road(shared: ControlRoad) -> Iterator[ControlRoad]:
    """Its agent is as the scenario tells again after each test."""
    yield shared
    restore(shared, "utilSpect", "radio", "numofAntennas")


# --- numbers written in one request ---

ANALYZER = {
    "samplePeriod": "utilSpectrumAnalyzerSamplePeriod.0",
    "sampleCount": "utilSpectrumAnalyzerSampleCount.0",
    "startFrequencykHz": "utilSpectrumAnalyzerStartFrequencykHz.0",
    "stopFrequencykHz": "utilSpectrumAnalyzerStopFrequencykHz.0",
    "binSpacingkHz": "utilSpectrumAnalyzerBinSpacingkHz.0",
}
SCAN = {
    "samplePeriod": "utilSpectralScanSamplePeriod.0",
    "num125kChan": "utilSpectralScanNum125kChan.0",
    "startFreq125k": "utilSpectralScanStartFreq125k.0",
    "stepFreq125k": "utilSpectralScanStepFreq125k.0",
    "num500kChan": "utilSpectralScanNum500kChan.0",
    "startFreq500k": "utilSpectralScanStartFreq500k.0",
    "stepFreq500k": "utilSpectralScanStepFreq500k.0",
    "antenna": "utilSpectralScanAntenna.0",
}
TRIGGER = ["utilSpectralScanExecute.0", 1000001]
WRITES = [
    ("setSpectrumAnalyzerParams", ANALYZER, [], "failed to set spectrum analyzer properties"),
    ("executeSpectralScan", SCAN, [TRIGGER], "failed to set spectral scan properties"),
]
WRITE_NAMES = [row[0] for row in WRITES]
NOT_READ = ["ERROR failed to de-serialize parameters"]


def numbered(objects: dict[str, str]) -> dict[str, Any]:
    return {key: 11 + place for place, key in enumerate(objects)}


@pytest.mark.parametrize("command, objects, trigger, _failure", WRITES, ids=WRITE_NAMES)
def test_all_numbers_go_in_one_request_and_the_trigger_is_its_last(
    road: ControlRoad, command: str, objects: dict[str, str], trigger: list[Any], _failure: str
) -> None:
    params = numbered(objects)
    turned = {"extra": 1, **dict(reversed(params.items()))}
    written = [[name, params[key]] for key, name in objects.items()] + trigger
    for given in (params, turned):
        assert run(road, command, given) == Outcome("", [], [written])


@pytest.mark.parametrize("command, objects, trigger, failure", WRITES, ids=WRITE_NAMES)
def test_a_refused_write_is_not_supported_and_changes_nothing(
    road: ControlRoad, command: str, objects: dict[str, str], trigger: list[Any], failure: str
) -> None:
    refused = (trigger or [[objects["binSpacingkHz"]]])[0][0]
    road.agent.fault(refused, **REFUSED)
    outcome = run(road, command, numbered(objects))
    assert outcome.response == NOT_SUPPORTED
    assert outcome.complaints == [REFUSED_TEXT, f"ERROR {failure}"]
    first = next(iter(objects.values()))
    assert road.agent.get(first) == SCENARIO["scalars"][first]


@pytest.mark.parametrize(
    "command, objects, key",
    [(command, objects, key) for command, objects, *_ in WRITES for key in objects],
    ids=lambda each: each if isinstance(each, str) else "",
)
def test_without_one_of_the_numbers_nothing_is_written(
    road: ControlRoad, command: str, objects: dict[str, str], key: str
) -> None:
    params = {name: value for name, value in numbered(objects).items() if name != key}
    assert run(road, command, params) == Outcome("", ["WARN unable to retrieve field", *NOT_READ], [])


@pytest.mark.parametrize("params", [None, [], [{}], "samplePeriod", 5, True, {}], ids=str)
@pytest.mark.parametrize("command", WRITE_NAMES)
def test_params_of_another_kind_hold_no_numbers(road: ControlRoad, command: str, params: object) -> None:
    missing = [] if params is None else ["WARN unable to retrieve field"]
    assert run(road, command, params) == Outcome("", missing + NOT_READ, [])


@pytest.mark.parametrize(
    "value, written",
    [
        ("17", 17),
        ("-17 kHz", -17),
        ("much", 0),
        ("", 0),
        ("1\0007", 1),
        (True, 1),
        (3.9, 3),
        (None, 0),
        ([1], 0),
        ({"a": 1}, 0),
        (-(2**31), -(2**31)),
        (2**31 - 1, 2**31 - 1),
    ],
    ids=repr,
)
def test_a_number_is_read_out_of_any_value(road: ControlRoad, value: object, written: int) -> None:
    outcome = run(road, "setSpectrumAnalyzerParams", {**numbered(ANALYZER), "sampleCount": value})
    assert outcome.response == "" and outcome.complaints == []
    assert outcome.sets[0][1] == [ANALYZER["sampleCount"], written]


@pytest.mark.parametrize(
    "value", [2**32, 2**63, -(2**63) - 1, 10**400, 1e308], ids=lambda each: repr(each)[:20]
)
@pytest.mark.parametrize("command, objects", [row[:2] for row in WRITES], ids=WRITE_NAMES)
def test_a_huge_number_is_no_end(
    road: ControlRoad, command: str, objects: dict[str, str], value: object
) -> None:
    outcome = run(road, command, {key: value for key in objects})
    assert outcome.response in ("", NOT_SUPPORTED)
    assert run(road, "getAntennasCount").response == '{"antennasCount":2,"status":"ok"}'


# --- single values ---


@pytest.mark.parametrize("params", ANY_PARAMS, ids=str)
@pytest.mark.parametrize(
    "command",
    ["getSpectralScanProgress", "getAntennasCount", "getSpectralScanParams", "getSpectralScanResults"],
)
def test_reading_the_radio_needs_no_parameters(road: ControlRoad, command: str, params: object) -> None:
    put_scan(road, 1, 0, octets(some_bytes(CHANNEL)))
    outcome = run(road, command, params)
    assert outcome.response and outcome == run(road, command)


@pytest.mark.parametrize("progress", [0, 100, -1, 2**31 - 1])
def test_the_progress_of_a_scan_is_a_number(road: ControlRoad, progress: int) -> None:
    road.agent.set({"utilSpectralScanProgress.0": progress})
    assert run(road, "getSpectralScanProgress") == Outcome(f'{{"progress":{progress}}}', [], [])


@pytest.mark.parametrize(
    "fault, value, complaint",
    [
        (GONE, 1, NO_OBJECT + "this OID"),
        (None, {"type": "OCTET STRING", "value": "1"}, "ERROR returned value is not integer"),
    ],
    ids=["missing", "text"],
)
def test_progress_that_cannot_be_read_leaves_the_response_out(
    road: ControlRoad, fault: Any, value: object, complaint: str
) -> None:
    road.agent.set({"utilSpectralScanProgress.0": value})
    road.agent.do({"faults": {"utilSpectralScanProgress.0": fault}})
    wanted = [complaint, "ERROR failed to get spectral scan progress"]
    assert run(road, "getSpectralScanProgress") == Outcome("", wanted, [])


@pytest.mark.parametrize(
    "value, text",
    [(0, "0"), (8, "8"), (-1, "-1"), ({"type": "OCTET STRING", "value": "two"}, '"two"')],
    ids=str,
)
def test_the_antennas_are_counted_as_the_agent_tells(road: ControlRoad, value: object, text: str) -> None:
    road.agent.set({"numofAntennas.0": value})
    assert run(road, "getAntennasCount").response == f'{{"antennasCount":{text},"status":"ok"}}'


def test_a_missing_count_of_antennas_is_told_in_the_status(road: ControlRoad) -> None:
    road.agent.fault("numofAntennas.0", **GONE)
    outcome = run(road, "getAntennasCount")
    assert outcome.response == '{"status":"Operation not supported"}'
    assert outcome.complaints == [
        NO_OBJECT + "OID: numofAntennas.0",
        "ERROR failed to get antenna properties",
    ]


SCAN_PARAMS = [
    ("utilSpectralScanAntenna.0", "antenna"),
    ("utilSpectralScanSamplePeriod.0", "samplePeriod"),
    ("utilSpectralScanNum125kChan.0", "num125kChan"),
    ("utilSpectralScanStartFreq125k.0", "startFreq125k"),
    ("utilSpectralScanStepFreq125k.0", "stepFreq125k"),
    ("utilSpectralScanNum500kChan.0", "num500kChan"),
    ("utilSpectralScanStartFreq500k.0", "startFreq500k"),
    ("utilSpectralScanStepFreq500k.0", "stepFreq500k"),
    ("radioPropertiesRxMin.0", "minRx"),
    ("radioPropertiesRxMax.0", "maxRx"),
]


def test_the_parameters_of_a_scan_come_from_one_read_in_its_order(road: ControlRoad) -> None:
    road.agent.set({name: -5 + place for place, (name, _) in enumerate(SCAN_PARAMS)})
    members = [f'"{key}":{-5 + place}' for place, (_, key) in enumerate(SCAN_PARAMS)]
    assert run(road, "getSpectralScanParams") == Outcome("{" + ",".join(members) + "}", [], [])
    assert [each["variables"] for each in road.agent.requests()] == [[name for name, _ in SCAN_PARAMS]]


@pytest.mark.parametrize("name", [name for name, _ in SCAN_PARAMS])
def test_without_one_parameter_a_scan_has_none(road: ControlRoad, name: str) -> None:
    road.agent.fault(name, **GONE)
    outcome = run(road, "getSpectralScanParams")
    assert outcome.response == NOT_SUPPORTED
    assert outcome.complaints == [f"{NO_OBJECT}OID: {name}", "ERROR failed to get spectral scan properties"]


# --- samples of the analyser ---

ANALYZER_BLOB = "utilSpectrumAnalyzerOutputBlob.0"
ANTENNA_0 = {"antenna": 0}


def some_bytes(size: int) -> bytes:
    """Of all kinds; every second 32-bit number is negative."""
    return bytes((place * 37 + 129) % 256 for place in range(size))


def octets(data: bytes) -> dict[str, str]:
    return {"hex": data.hex()}


def samples_text(data: bytes) -> str:
    whole = len(data) // 4
    return json.dumps(struct.unpack(f"<{whole}i", data[: whole * 4]), separators=(",", ":"))


@pytest.mark.parametrize("size", [0, 1, 2, 3, 4, 5, 6, 7, 8, 2044, 2047])
def test_every_whole_four_bytes_of_the_analyser_are_a_sample(road: ControlRoad, size: int) -> None:
    data = some_bytes(size)
    road.agent.set({ANALYZER_BLOB: octets(data)})
    outcome = run(road, "getSpectrumAnalyzerOutput", ANTENNA_0)
    assert outcome.response == f'{{"dbm2dbfsOffset":-93.5,"data":{samples_text(data)}}}'
    assert outcome.complaints == []
    assert outcome.sets == [[["utilSpectrumAnalyzerAntenna.0", 0]]]


def test_samples_are_signed_and_begin_with_their_least_byte(road: ControlRoad) -> None:
    road.agent.set(
        {ANALYZER_BLOB: {"hex": "00000080" "ffffff7f" "ffffffff" "88ffffff" "01000000" "00010000"}}
    )
    outcome = run(road, "getSpectrumAnalyzerOutput", ANTENNA_0)
    assert outcome.response.endswith('"data":[-2147483648,2147483647,-1,-120,1,256]}')


@pytest.mark.parametrize(
    "value, complaint",
    [
        (octets(some_bytes(2048)), "ERROR buffer with size [2048] is too small for requested property"),
        (octets(some_bytes(4096)), "ERROR buffer with size [2048] is too small for requested property"),
        (
            {"type": "INTEGER", "value": 1},
            "ERROR property of wrong type fetched. Should be OCTET STRING, was: 2",
        ),
        (
            {"type": "IpAddress", "value": "192.0.2.1"},
            "ERROR property of wrong type fetched. Should be OCTET STRING, was: 64",
        ),
        (None, NO_OBJECT + "this OID"),
    ],
    ids=["2048", "4096", "number", "address", "missing"],
)
def test_what_is_no_text_of_the_analyser_is_not_supported(
    road: ControlRoad, value: object, complaint: str
) -> None:
    if value is None:
        road.agent.fault(ANALYZER_BLOB, **GONE)
    else:
        road.agent.set({ANALYZER_BLOB: value})
    outcome = run(road, "getSpectrumAnalyzerOutput", ANTENNA_0)
    assert outcome.response == NOT_SUPPORTED
    assert outcome.complaints == [complaint, "ERROR failed to get analyzer blob"]


@pytest.mark.parametrize(
    "params",
    [
        {},
        {"antenna": None},
        {"antenna": "0"},
        {"antenna": 0.0},
        {"antenna": True},
        {"antenna": [0]},
        {"antenna": {}},
        {"Antenna": 0},
        None,
        [],
        [ANTENNA_0],
        "antenna",
        0,
    ],
    ids=str,
)
def test_the_analyser_needs_an_integer_for_its_antenna(road: ControlRoad, params: object) -> None:
    outcome = run(road, "getSpectrumAnalyzerOutput", params)
    assert outcome == Outcome("", ["ERROR invalid JSON passed"], [])


def test_a_refused_antenna_leaves_the_response_out(road: ControlRoad) -> None:
    road.agent.fault("utilSpectrumAnalyzerAntenna.0", **REFUSED)
    outcome = run(road, "getSpectrumAnalyzerOutput", {"antenna": 1})
    assert outcome.response == ""
    assert outcome.complaints == [REFUSED_TEXT, "ERROR failed to set properties for antenna"]
    assert len(road.agent.requests()) == 1


@pytest.mark.parametrize(
    "antenna", [8, -1, 2**31, -(2**31), 2**63, 10**400], ids=lambda each: repr(each)[:20]
)
def test_an_antenna_that_the_gateway_has_not_leaves_the_response_out(road: ControlRoad, antenna: int) -> None:
    outcome = run(road, "getSpectrumAnalyzerOutput", {"antenna": antenna})
    assert outcome.response == ""
    assert outcome.complaints[0].startswith("ERROR cannot parse OID: radioRxDbfsToDbmAnt")
    assert outcome.complaints[1:] == ["ERROR failed to get DBFS offset", "ERROR failed to get dbm offset"]


# --- offset of an antenna ---

CHANNEL = 101 * 4
SCAN_BLOB = "utilSpectralScanResultsDataBlob.0"


def put_scan(road: ControlRoad, narrow: object, wide: object, blob: object, antenna: int = 0) -> None:
    road.agent.set(
        {
            "utilSpectralScanNum125kChan.0": narrow,
            "utilSpectralScanNum500kChan.0": wide,
            "utilSpectralScanAntenna.0": antenna,
            SCAN_BLOB: blob,
        }
    )


def run_both(road: ControlRoad, antenna: int) -> tuple[Outcome, Outcome]:
    """The two commands that tell an antenna's offset."""
    put_scan(road, 1, 0, octets(bytes(CHANNEL)), antenna)
    road.agent.set({ANALYZER_BLOB: {"hex": ""}})
    return run(road, "getSpectrumAnalyzerOutput", {"antenna": antenna}), run(road, "getSpectralScanResults")


@pytest.mark.parametrize(
    "antenna, data, text",
    [
        (0, "c2bb0000", "-93.5"),
        (1, "3dcccccd", "0.10000000149011612"),
        (2, "00000000", "0.0"),
        (3, "80000000", "-0.0"),
        (4, "c2bb8000", "-93.75"),
        (5, "3f800000", "1.0"),
        (6, "0000803f", "4.6006029882248069e-41"),
        (7, "ff7fffff", "-3.4028234663852886e+38"),
    ],
)
def test_the_offset_is_the_antennas_own_big_endian_number(
    road: ControlRoad, antenna: int, data: str, text: str
) -> None:
    road.agent.set({f"radioRxDbfsToDbmAnt{antenna}.0": {"hex": data}})
    analyzer, scan = run_both(road, antenna)
    assert analyzer.response == f'{{"dbm2dbfsOffset":{text},"data":[]}}'
    assert scan.response.endswith(f',"dbm2dbfsOffset":{text}}}')
    assert analyzer.complaints == scan.complaints == []


@pytest.mark.parametrize(
    "value, complaints",
    [
        ({"hex": "c2bb00"}, []),
        ({"hex": "c2bb000000"}, []),
        ({"hex": ""}, []),
        ({"hex": "00" * 7}, []),
        ({"hex": "00" * 8}, ["ERROR buffer with size [8] is too small for requested property"]),
        (
            {"type": "INTEGER", "value": 1},
            ["ERROR property of wrong type fetched. Should be OCTET STRING, was: 2"],
        ),
        (None, [NO_OBJECT + "this OID"]),
    ],
    ids=["3", "5", "0", "7", "8", "number", "missing"],
)
def test_an_offset_of_other_than_four_bytes_leaves_the_response_out(
    road: ControlRoad, value: object, complaints: list[str]
) -> None:
    if value is None:
        road.agent.fault("radioRxDbfsToDbmAnt1.0", **GONE)
    else:
        road.agent.set({"radioRxDbfsToDbmAnt1.0": value})
    wanted = complaints + ["ERROR failed to get DBFS offset", "ERROR failed to get dbm offset"]
    for outcome in run_both(road, 1):
        assert outcome.response == "" and outcome.complaints == wanted


# --- samples of a scan ---


@pytest.mark.parametrize("narrow, wide", [(8, 0), (0, 8), (3, 5), (1, 0), (0, 1), (100, 40)])
def test_a_scan_has_101_samples_for_each_channel(road: ControlRoad, narrow: int, wide: int) -> None:
    data = some_bytes((narrow + wide) * CHANNEL)
    put_scan(road, narrow, wide, octets(data))
    wanted = f'{{"channelPowerBins":{samples_text(data)},"dbm2dbfsOffset":-93.5}}'
    assert run(road, "getSpectralScanResults") == Outcome(wanted, [], [])


def wrong_size(size: int) -> list[str]:
    return [f"ERROR invalid blob size, expected: [3232], actual: [{size}]"]


TOO_BIG = ["ERROR buffer with size [3232] is too small for requested property", "ERROR failed to get blob"]


@pytest.mark.parametrize(
    "blob, complaints",
    [
        (octets(b""), wrong_size(0)),
        (octets(some_bytes(CHANNEL)), wrong_size(CHANNEL)),
        (octets(some_bytes(3231)), wrong_size(3231)),
        (octets(some_bytes(3233)), TOO_BIG),
        (octets(some_bytes(3236)), TOO_BIG),
        ({"type": "IpAddress", "value": "192.0.2.1"}, wrong_size(4)),
        (None, [NO_OBJECT + "this OID", "ERROR failed to get blob"]),
    ],
    ids=["empty", "one channel", "3231", "3233", "3236", "address", "missing"],
)
def test_a_blob_of_another_size_leaves_the_response_out(
    road: ControlRoad, blob: object, complaints: list[str]
) -> None:
    put_scan(road, 8, 0, blob or octets(b""))
    if blob is None:
        road.agent.fault(SCAN_BLOB, **GONE)
    assert run(road, "getSpectralScanResults") == Outcome("", complaints, [])


def test_a_blob_that_is_a_number_counts_as_read_and_gives_zeros(road: ControlRoad) -> None:
    put_scan(road, 8, 0, {"type": "INTEGER", "value": 3232})
    zeros = ",".join(["0"] * 808)
    outcome = run(road, "getSpectralScanResults")
    assert outcome.response == f'{{"channelPowerBins":[{zeros}],"dbm2dbfsOffset":-93.5}}'
    assert outcome.complaints == ["ERROR property of wrong type fetched: 2"]


INVALID_SCAN = "ERROR failed to get valid properties for of spectral scan"


@pytest.mark.parametrize("narrow, wide", [(-1, 0), (0, -1), (8, -8), (-(2**31), 2**31 - 1), (-4, -4)])
def test_negative_counts_are_not_supported(road: ControlRoad, narrow: int, wide: int) -> None:
    put_scan(road, narrow, wide, octets(b""))
    assert run(road, "getSpectralScanResults") == Outcome(NOT_SUPPORTED, [INVALID_SCAN], [])
    assert len(road.agent.requests()) == 1


@pytest.mark.parametrize(
    "name", ["utilSpectralScanNum125kChan.0", "utilSpectralScanNum500kChan.0", "utilSpectralScanAntenna.0"]
)
def test_a_scan_that_lacks_a_value_is_not_supported(road: ControlRoad, name: str) -> None:
    road.agent.fault(name, **GONE)
    wanted = [f"{NO_OBJECT}OID: {name}", INVALID_SCAN]
    assert run(road, "getSpectralScanResults") == Outcome(NOT_SUPPORTED, wanted, [])


def test_a_scan_without_channels_is_not_read_but_its_antenna_is(road: ControlRoad) -> None:
    put_scan(road, 0, 0, octets(b""), antenna=1)
    warning = "WARN channels count cannot be 0, aborting spectral scan"
    assert run(road, "getSpectralScanResults") == Outcome("", [warning], [])
    assert [each["variables"] for each in road.agent.requests()] == [
        ["utilSpectralScanNum125kChan.0", "utilSpectralScanNum500kChan.0", "utilSpectralScanAntenna.0"],
        ["radioRxDbfsToDbmAnt1.0"],
    ]


@pytest.mark.parametrize("antenna", [8, -1, -(2**31), 2**31 - 1])
def test_a_scan_of_an_antenna_that_is_not_there_leaves_the_response_out(
    road: ControlRoad, antenna: int
) -> None:
    put_scan(road, 8, 0, octets(bytes(3232)), antenna)
    outcome = run(road, "getSpectralScanResults")
    assert outcome.response == ""
    assert outcome.complaints[1:] == ["ERROR failed to get DBFS offset", "ERROR failed to get dbm offset"]


def test_a_scan_is_started_watched_and_read(road: ControlRoad) -> None:
    """As a server does it, on an agent that scans at once."""
    done = {"utilSpectralScanProgress.0": 100, SCAN_BLOB: octets(some_bytes(3 * CHANNEL))}
    road.agent.do({"rules": [{"on_set": TRIGGER[0], "do": [{"set": done}]}]})
    params = {**numbered(SCAN), "num125kChan": 1, "num500kChan": 2, "antenna": 1}
    assert run(road, "executeSpectralScan", params).complaints == []
    assert run(road, "getSpectralScanProgress").response == '{"progress":100}'
    assert '"num125kChan":1,' in run(road, "getSpectralScanParams").response
    wanted = f'{{"channelPowerBins":{samples_text(some_bytes(3 * CHANNEL))},"dbm2dbfsOffset":-94.25}}'
    assert run(road, "getSpectralScanResults").response == wanted
    road.agent.do({"rules": [QUIET]})
