"""Reports of the battery: when they come, and what is in them."""
import re
import time
from pathlib import Path
from typing import Callable, Iterator, Optional

import pytest

from command_outcome import GONE
from conftest import Cleanup
from harness.control import ControlRoad
from harness.lab import LabAgent, start_agent
from harness.mqtt_peer import MqttPeer
from management_services import Battery
from service_queue import performance_message

PUBLISH, BATTERY = 2, 0
FAILED = "failed to get properties for battery performance stats"
NO_NUMBER = "Warning: No digits found"
OUT_OF_RANGE = "Warning: Failed to convert string to float: Numerical result out of range (34)"
ABSENT = "Warning: SNMP value is N/A"

# Those of the lab's gateway move with the time of day.
TIMESTAMP, PERIOD = "1700000000123", 60
HEAD = f'"timestamp": {TIMESTAMP},"period": {PERIOD},'
VALUES = {
    "chargerInputVoltage": "36.20",
    "chargerInputCurrent": "2.10",
    "chargerInputPower": "76.02",
    "chargerOutputVoltage": "13.60",
    "chargerOutputCurrent": "5.40",
    "chargerOutputPower": "73.44",
    "chargerSolarState": "DAY",
    "chargerChargingState": "BULK",
    "batteryVoltage": "13.40",
    "batteryCurrent": "4.20",
    "batteryPower": "56.28",
    "batteryTemperature": "24.50",
    "batteryCapacity": "81",
    "loadCurrent": "1.20",
    "loadPower": "16.08",
}
TEXTS = ("chargerSolarState", "chargerChargingState")
NUMBERS = [key for key in VALUES if key not in TEXTS]
PIECES = {
    key: f'"{key}": "{value}"' if key in TEXTS else f'"{key}": {float(value):.2f}'
    for key, value in VALUES.items()
}


def object_of(key: str) -> str:
    return f"spm{key[0].upper()}{key[1:]}.0"


def report(changes: Optional[dict[str, str]] = None, head: str = HEAD) -> str:
    """`changes` are other pieces; an empty one is left out."""
    pieces = {**PIECES, **(changes or {})}
    return f'{{"name":"battery",{head}"value":{{{", ".join(filter(None, pieces.values()))}}}}}'


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Battery]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = Battery(ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()).start()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def battery(shared: Battery) -> Battery:
    shared.agent.restore()
    shared.agent.set({"spmDataTimestamp.0": TIMESTAMP, **{object_of(key): value for key, value in VALUES.items()}})
    shared.mark()
    return shared


@pytest.fixture
def start(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Callable[..., Battery]:
    def run(period: Optional[int]) -> Battery:
        changes = {"performance_management": {"battery_reporting_period_mins": period}}
        made = Battery(ControlRoad(tmp_path / "road", agent, changes).wait_ready())
        cleanup.add(made)
        return made.start()

    return run


# --- the period ---


@pytest.mark.parametrize(
    "period, armed",
    [(1, "Set timer to 60s, 0ns"), (1439, "Set timer to 86340s, 0ns"), (0, None), (1440, None), (None, None)],
)
def test_a_period_in_its_range_starts_the_timer(
    start: Callable[..., Battery], period: Optional[int], armed: Optional[str]
) -> None:
    battery = start(period)
    assert battery.logged("starting battery performance measure timer") == int(armed is not None)
    assert battery.logged("battery performance measure not enabled") == int(armed is None)
    assert battery.logged("battery performance period not defined") == int(period is None)
    assert battery.logged("Set timer to ") == int(armed is not None)
    assert armed is None or battery.logged(armed) == 1
    assert battery.reports() == [], "the first report comes after one period"
    battery.mark()
    battery.tick()
    assert len(battery.reports()) == 1, "the thread serves its queue in every case"


def test_the_start_is_told_in_order_and_a_second_one_does_nothing(start: Callable[..., Battery]) -> None:
    battery = start(5)
    order = [
        "starting performance management service",
        "Performance management launcher started",
        "creating performance management msg queue and thread",
        "performance management mq descriptor: [",
        "Performance management launcher finished",
    ]
    lines = battery.road.bridge.log.since(battery.lines)
    places = [next(place for place, line in enumerate(lines) if text in line) for text in order]
    assert places == sorted(places)
    assert battery.logged("Action: waiting") == 1
    battery.mark()
    battery.enable()
    battery.wait_for("performance management service has already started")
    assert battery.logged("launcher") == 0


# --- the report ---


def test_a_report_to_the_letter_is_retained(battery: Battery) -> None:
    battery.tick()
    payload = report().encode() + b"\0"
    assert battery.reports() == [payload]
    assert battery.logged(f"publishing message: {report()} on topic {battery.topic}") == 1
    assert battery.logged("Action: publish performance") == 1
    assert battery.logged("Performance measure to be published: battery") == 1
    late = MqttPeer(battery.road.broker.port)
    late.subscribe(battery.topic)
    assert late.wait_for(lambda each: each.retain).payload == payload
    late.close()


def test_the_values_are_read_in_one_request(battery: Battery) -> None:
    battery.tick()
    asked = [each for each in battery.agent.requests() if "spm" in str(each)]
    assert len(asked) == 1
    names = re.findall(r"'(spm\w+\.0)'", str(asked[0]))
    expected = ["spmDataTimestamp.0", "spmDataCollectingPeriod.0", *map(object_of, VALUES)]
    assert list(dict.fromkeys(names)) == expected


def test_the_lab_clock_gives_a_timestamp_of_now(battery: Battery) -> None:
    battery.agent.restore()
    battery.tick()
    (payload,) = battery.reports()
    match = re.match(rb'{"name":"battery","timestamp": (\d{13}),"period": 60,"value":', payload)
    assert match and abs(int(match.group(1)) / 1000 - time.time()) < 30


@pytest.mark.parametrize("key", VALUES)
def test_a_value_that_is_not_available_is_left_out(battery: Battery, key: str) -> None:
    battery.agent.set({object_of(key): "N/A"})
    battery.tick()
    assert battery.reports() == [report({key: ""}).encode() + b"\0"]
    assert battery.logged(ABSENT) == int(key not in TEXTS)


@pytest.mark.parametrize("key", NUMBERS)
def test_a_number_without_a_digit_is_left_out(battery: Battery, key: str) -> None:
    battery.agent.set({object_of(key): ""})
    battery.tick()
    assert battery.reports() == [report({key: ""}).encode() + b"\0"]
    assert battery.logged(NO_NUMBER) == 1


def test_without_any_value_the_head_stays(battery: Battery) -> None:
    battery.agent.set({object_of(key): "N/A" for key in VALUES})
    battery.tick()
    assert battery.reports() == [report(dict.fromkeys(VALUES, "")).encode() + b"\0"]


def test_with_nothing_at_all_there_is_an_empty_report(battery: Battery) -> None:
    battery.agent.set({object_of(key): "N/A" for key in VALUES})
    battery.agent.set({"spmDataTimestamp.0": "N/A", "spmDataCollectingPeriod.0": 0})
    battery.tick()
    assert battery.reports() == [b'{"name":"battery","value":{}}\0']


@pytest.mark.parametrize(
    "missing",
    [list(VALUES)[:1], list(VALUES)[:3], list(VALUES)[:7], list(VALUES)[:14], list(VALUES)[1:]],
    ids=len,
)
def test_no_comma_leads(battery: Battery, missing: list[str]) -> None:
    battery.agent.set({object_of(key): "N/A" for key in missing})
    battery.tick()
    assert battery.reports() == [report(dict.fromkeys(missing, "")).encode() + b"\0"]


@pytest.mark.parametrize(
    "values, head",
    [
        ({"spmDataTimestamp.0": "N/A"}, '"period": 60,'),
        ({"spmDataTimestamp.0": "N/Applicable"}, '"period": 60,'),
        ({"spmDataTimestamp.0": ""}, '"period": 60,'),
        ({"spmDataTimestamp.0": "soon"}, '"period": 60,'),
        ({"spmDataTimestamp.0": "12 o'clock"}, '"timestamp": 12,"period": 60,'),
        ({"spmDataTimestamp.0": "-5"}, '"timestamp": -5,"period": 60,'),
        ({"spmDataTimestamp.0": "0"}, '"timestamp": 0,"period": 60,'),
        ({"spmDataCollectingPeriod.0": 0}, f'"timestamp": {TIMESTAMP},'),
        ({"spmDataCollectingPeriod.0": -1}, f'"timestamp": {TIMESTAMP},"period": -1,'),
        ({"spmDataCollectingPeriod.0": 2**31 - 1}, f'"timestamp": {TIMESTAMP},"period": 2147483647,'),
    ],
    ids=str,
)
def test_timestamp_and_period_are_left_out_when_there_are_none(
    battery: Battery, values: dict[str, object], head: str
) -> None:
    battery.agent.set(values)
    battery.tick()
    assert battery.reports() == [report(head=head).encode() + b"\0"]


@pytest.mark.parametrize(
    "key, value, piece",
    [
        ("batteryVoltage", "-0.004", '"batteryVoltage": -0.00'),
        ("batteryVoltage", "12.345", '"batteryVoltage": 12.35'),
        ("batteryVoltage", "13.4 V", '"batteryVoltage": 13.40'),
        ("batteryVoltage", "-999.9", '"batteryVoltage": -999.90'),
        ("batteryVoltage", "1e3", '"batteryVoltage": 1000.00'),
        ("batteryVoltage", "0x1F", '"batteryVoltage": 31.00'),
        ("batteryVoltage", "1e99", ""),
        ("batteryVoltage", "1e-40", ""),
        ("batteryVoltage", "nan", '"batteryVoltage": nan'),
        ("batteryVoltage", "-inf", '"batteryVoltage": -inf'),
        ("batteryVoltage", "high", ""),
        ("batteryVoltage", "N/Ab", ""),
        ("chargerSolarState", "N/Ab", '"chargerSolarState": "N/Ab"'),
        ("chargerSolarState", "", '"chargerSolarState": ""'),
        ("chargerSolarState", 'a"b\\', '"chargerSolarState": "a"b\\"'),
        ("chargerChargingState", "s" * 29, f'"chargerChargingState": "{"s" * 29}"'),
    ],
)
def test_the_forms_of_a_value(battery: Battery, key: str, value: str, piece: str) -> None:
    battery.agent.set({object_of(key): value})
    battery.tick()
    assert battery.reports() == [report({key: piece}).encode() + b"\0"]


@pytest.mark.parametrize(
    "key, complaint, piece",
    [("batteryVoltage", 1, ""), ("chargerSolarState", 0, '"chargerSolarState": ""')],
)
def test_a_value_of_forty_bytes_is_read_as_an_empty_one(
    battery: Battery, key: str, complaint: int, piece: str
) -> None:
    battery.agent.set({object_of(key): "1" * 40})
    battery.tick()
    assert battery.reports() == [report({key: piece}).encode() + b"\0"]
    assert battery.logged(NO_NUMBER) == complaint


def test_why_a_number_is_left_out_is_told(battery: Battery) -> None:
    battery.agent.set({"spmBatteryVoltage.0": "1e-40", "spmLoadPower.0": "1e39"})
    battery.tick()
    assert battery.logged(OUT_OF_RANGE) == 2


def test_the_longest_values_fit(battery: Battery) -> None:
    battery.agent.set({object_of(key): "-99999" for key in NUMBERS})
    battery.agent.set({object_of(key): "s" * 29 for key in TEXTS})
    battery.tick()
    numbers = {key: f'"{key}": -99999.00' for key in NUMBERS}
    texts = {key: f'"{key}": "{"s" * 29}"' for key in TEXTS}
    assert battery.reports() == [report({**numbers, **texts}).encode() + b"\0"]


@pytest.mark.parametrize(
    "name, value",
    [
        ("spmDataTimestamp.0", "1" * 14),
        ("spmChargerInputVoltage.0", "1234567"),
        ("spmLoadPower.0", "1234567"),
        ("spmLoadPower.0", "1" * 39),
        ("spmChargerSolarState.0", "s" * 30),
        ("spmChargerSolarState.0", "s" * 39),
    ],
)
def test_a_text_that_does_not_fit_spoils_the_report(battery: Battery, name: str, value: str) -> None:
    battery.agent.set({name: value})
    battery.tick()
    assert battery.reports() == [] and battery.logged(FAILED) == 1


@pytest.mark.parametrize(
    "name", ["spmDataTimestamp.0", "spmDataCollectingPeriod.0", *map(object_of, VALUES)], ids=str
)
def test_a_missing_object_spoils_the_report_and_the_next_one_comes(battery: Battery, name: str) -> None:
    battery.agent.fault(name, **GONE)
    battery.tick()
    assert battery.reports() == [] and battery.logged(FAILED) == 1
    battery.agent.clear_faults()
    battery.mark()
    battery.tick()
    assert battery.reports() == [report().encode() + b"\0"]


# --- other messages ---


@pytest.mark.parametrize(
    "measure, name", [(1, "cpu"), (2, "temperature"), (3, "memory"), (4, "network"), (5, "unknown")]
)
def test_other_measures_are_not_supported(battery: Battery, measure: int, name: str) -> None:
    battery.tick(performance_message(PUBLISH, measure))
    assert battery.logged(f"Performance measure to be published: {name}") == 1
    assert battery.logged("Unsupported performance measure") == 1
    assert battery.reports() == []


@pytest.mark.parametrize(
    "action, name", [(0, "none"), (3, "waiting"), (4, "unknown action"), (-1, "unknown action")]
)
def test_other_actions_do_nothing(battery: Battery, action: int, name: str) -> None:
    battery.tick(performance_message(action, BATTERY))
    assert battery.logged(f"Action: {name}") == 1
    assert battery.reports() == []


def test_a_queue_that_an_earlier_run_left_is_taken(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> None:
    battery = Battery(ControlRoad(tmp_path / "road", agent).wait_ready())
    cleanup.add(battery)
    battery.put(battery.timer_message, create=True)
    battery.start()
    battery.wait_idle(2)
    assert battery.logged(f"performance management message queue: {battery.queue} is already created") == 1
    assert len(battery.reports()) == 1
