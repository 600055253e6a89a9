"""Alarms and faults: what is published of the agent's tables, polled and upon notifications."""
import random
import socket
import sys
from pathlib import Path
from typing import Any, Callable

import pytest

from conftest import Cleanup
from harness.bridge import REPOSITORY, log_time
from harness.config import GW_MAC
from harness.control import COMMANDS, EVENTS, ControlRoad
from harness.lab import LabAgent
from harness.ports import free_port
from harness.waiting import wait_until

sys.path.append(str(REPOSITORY))

from lab.soak.notifications import broken, notification  # noqa: E402

MakeRoad = Callable[..., ControlRoad]

ALARMS = "hmAlarmCurrentStateTable"
PUBLISHING = f" on topic: {EVENTS}"
RECEIVED = "SNMP event callback command: "
TAKEN = "Received alarm or fault notification"
LATE = 3.0


def alarm(number: int, severity: int, state: int) -> dict[str, int]:
    names = ("hmAlarmCurrentStateId", "hmAlarmCurrentStateSeverity", "hmAlarmCurrentStateState")
    return dict(zip(names, (number, severity, state)))


def event(kind: str, number: int, severity: str, state: str, description: str) -> bytes:
    text = (
        f'{{"ts":0,"mac":"{GW_MAC}","type":"{kind}","typeId":{number},"severity":"{severity}",'
        f'"state":"{state}","description":"{description}"}}'
    )
    return text.encode() + b"\0"


TEMPERATURE = event("ALARM", 3, "MINOR", "RAISED", "Enclosure temperature is high")
ANTENNA = event("FAULT", 12, "MAJOR", "RAISED", "GNSS antenna is not connected")


@pytest.fixture
def make_road(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> MakeRoad:
    def make(**options: Any) -> ControlRoad:
        made = ControlRoad(tmp_path / "road", agent, **options)
        cleanup.add(made)
        return made.wait_ready()

    return make


@pytest.fixture
def polled(make_road: MakeRoad) -> ControlRoad:
    return make_road()


def next_events(road: ControlRoad, count: int, after: int) -> list[bytes]:
    wait_until(lambda: len(road.events(after)) >= count, f"{count} events")
    return road.events(after)[:count]


# --- polled ---


def test_an_alarm_is_published_at_start_and_at_each_poll(polled: ControlRoad) -> None:
    assert next_events(polled, 3, 0) == [TEMPERATURE] * 3
    first = polled.bridge.wait_for_log(PUBLISHING, count=2)
    second = polled.bridge.wait_for_log(PUBLISHING, count=3)
    assert 1 <= log_time(second) - log_time(first) < 1 + LATE
    messages = [each for each in polled.peer.since(0) if each.topic == EVENTS]
    assert not any(each.retain for each in messages)
    assert not polled.bridge.log.find("Listening SNMP trap on: "), "polling opens no port"


def test_alarms_come_before_faults_in_the_order_of_their_rows(polled: ControlRoad) -> None:
    polled.agent.do({"raise": "fault", "id": 12, "severity": 1, "text": "GNSS antenna is not connected"})
    polled.agent.do({"raise": "alarm", "id": 7, "severity": 0, "text": "Enclosure door is open"})
    door = event("ALARM", 7, "CRITICAL", "RAISED", "Enclosure door is open")
    mark = polled.peer.mark()
    polled.wait_event("FAULT", after=mark)
    mark = polled.peer.mark()
    assert next_events(polled, 3, mark) == [TEMPERATURE, door, ANTENNA]


def test_an_empty_table_of_alarms_is_followed_by_the_faults(polled: ControlRoad) -> None:
    polled.agent.do({"put_rows": ALARMS, "rows": []})
    polled.agent.do({"raise": "fault", "id": 12, "severity": 1, "text": "GNSS antenna is not connected"})
    polled.wait_event("FAULT")
    assert next_events(polled, 2, polled.peer.mark()) == [ANTENNA, ANTENNA]


@pytest.mark.parametrize(
    "severity, state, severity_text, state_text",
    [
        (0, 0, "CRITICAL", "CLEAR"),
        (1, 1, "MAJOR", "RAISED"),
        (2, 2, "MINOR", "INVALID"),
        (3, -1, "DEFAULT", "INVALID"),
        (7, 0, "DEFAULT", "CLEAR"),
        (-1, 1, "DEFAULT", "RAISED"),
    ],
)
def test_severity_and_state_are_told_in_words(
    polled: ControlRoad, severity: int, state: int, severity_text: str, state_text: str
) -> None:
    polled.agent.do({"put_rows": ALARMS, "rows": [alarm(7, severity, state)]})
    message = polled.wait_event('"typeId":7')
    assert message.payload == event("ALARM", 7, severity_text, state_text, "Enclosure door is open")


DESCRIPTIONS = {"empty": "", "quoted": 'a "quoted" door', "longest": "x" * 63, "backslash": "back\\slash"}


@pytest.mark.parametrize("text", DESCRIPTIONS.values(), ids=DESCRIPTIONS.keys())
def test_a_description_goes_out_as_the_agent_has_it(polled: ControlRoad, text: str) -> None:
    polled.agent.do({"data": {"alarms": {"7": text}}})
    polled.agent.do({"put_rows": ALARMS, "rows": [alarm(7, 1, 1)]})
    assert polled.wait_event('"typeId":7').payload == event("ALARM", 7, "MAJOR", "RAISED", text)


def test_a_description_that_is_too_long_fails_its_round(polled: ControlRoad) -> None:
    polled.agent.do({"data": {"alarms": {"7": "x" * 64}}})
    polled.agent.do({"raise": "fault", "id": 12, "severity": 1, "text": "GNSS antenna is not connected"})
    polled.agent.do({"put_rows": ALARMS, "rows": [alarm(3, 2, 1), alarm(7, 1, 1)]})
    polled.bridge.wait_for_log("cannot fetch event description", count=2)
    mark = polled.peer.mark()
    assert next_events(polled, 2, mark) == [TEMPERATURE, TEMPERATURE], "the rows behind it are lost"
    polled.agent.do({"data": {"alarms": {"7": "x" * 63}}})
    polled.wait_event("FAULT", after=mark)


def test_a_refused_selection_fails_its_round(polled: ControlRoad) -> None:
    polled.agent.fault("hmAlarmDescriptionId.0", error="genErr", on="set", times=2)
    polled.bridge.wait_for_log("cannot request event description", count=2)
    mark = polled.peer.mark()
    assert next_events(polled, 1, mark) == [TEMPERATURE]


# --- upon notifications ---


@pytest.fixture
def notified(make_road: MakeRoad, agent: LabAgent) -> ControlRoad:
    address = f"udp:127.0.0.1:{free_port()}"
    agent.do({"trap_to": address})
    made = make_road(polls=0, trap_transport=address)
    made.bridge.wait_for_log(f"Listening SNMP trap on: {address}")
    assert next_events(made, 1, 0) == [TEMPERATURE], "the tables are published once at the start"
    return made


@pytest.mark.parametrize(
    "step, command",
    [
        ({"notify": "hmAlarmNotification"}, "a7"),
        ({"notify": "hmFaultNotification"}, "a7"),
        ({"notify": {"oid": "hmFaultNotification", "form": "inform"}}, "a6"),
    ],
    ids=["alarm", "fault", "inform"],
)
def test_a_notification_publishes_all_rows(notified: ControlRoad, step: dict[str, Any], command: str) -> None:
    mark, log = notified.peer.mark(), notified.bridge.log.mark()
    notified.agent.do(step)
    notified.bridge.wait_for_log(RECEIVED + command, after=log)
    notified.bridge.wait_for_log(TAKEN, after=log)
    assert next_events(notified, 1, mark) == [TEMPERATURE]


def test_a_raised_and_a_cleared_alarm_are_published(notified: ControlRoad) -> None:
    notified.agent.do({"raise": "alarm", "id": 7, "severity": 0, "text": "Enclosure door is open"})
    notified.wait_event('"typeId":7', '"CRITICAL"', '"RAISED"')
    notified.agent.do({"clear": "alarm", "id": 7})
    notified.wait_event('"typeId":7', '"CLEAR"')


NOT_TAKEN = [
    ({"notify": {"oid": "hmAlarmDescriptionText"}}, None),
    ({"notify": {"oid": "hmAlarmNotification", "raw": True}}, "Cannot find TrapOID in TRAP2 PDU"),
]


@pytest.mark.parametrize("step, message", NOT_TAKEN, ids=["other", "none"])
def test_another_notification_publishes_nothing(
    notified: ControlRoad, step: dict[str, Any], message: str
) -> None:
    """The second one, of a known kind, shows what came of the first."""
    mark, log = notified.peer.mark(), notified.bridge.log.mark()
    notified.agent.do(step)
    notified.bridge.wait_for_log(RECEIVED + "a7", after=log)
    if message:
        notified.bridge.wait_for_log(message, after=log)
    assert not notified.bridge.log.find(TAKEN, after=log)
    notified.agent.do({"notify": "hmAlarmNotification"})
    assert next_events(notified, 1, mark) == [TEMPERATURE]
    notified.command("isAnyoneThere")
    assert notified.events(mark) == [TEMPERATURE]


def test_commands_are_answered_between_notifications(notified: ControlRoad) -> None:
    start = notified.peer.mark()
    for number in range(20):
        mark = notified.peer.mark()
        notified.agent.do({"notify": "hmAlarmNotification"})
        assert notified.command("getBackups").response["status"] == "idle"
        next_events(notified, 1, mark)
    assert not notified.bridge.log.find("select returned")
    assert {each.topic for each in notified.peer.since(start)} == {EVENTS, COMMANDS}


@pytest.mark.waits_long
def test_a_taken_port_for_notifications_is_tried_again(
    tmp_path: Path, agent: LabAgent, cleanup: Cleanup
) -> None:
    port = free_port()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(("127.0.0.1", port))
        road = ControlRoad(tmp_path / "road", agent, polls=0, trap_transport=f"udp:127.0.0.1:{port}")
        cleanup.add(road)
        road.bridge.wait_for_log("failed to open the SNMP transport")
        road.bridge.wait_for_log("ctrlplane initialization failed: restarting")
    road.wait_ready()
    assert next_events(road, 1, 0) == [TEMPERATURE]


def test_whatever_a_neighbour_sends_to_the_port_the_next_notification_counts(notified: ControlRoad) -> None:
    (listening,) = notified.bridge.log.find("Listening SNMP trap on: ")
    rng, port = random.Random(1), int(listening.rpartition(":")[2])
    log = notified.bridge.log.mark()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for _ in range(30):
            for datagram in (notification(rng), broken(rng)):
                sender.sendto(datagram, ("127.0.0.1", port))
    notified.bridge.wait_for_log(TAKEN, after=log)
    notified.bridge.wait_for_log(NOT_TAKEN[1][1], after=log)
    notified.agent.do({"raise": "alarm", "id": 7, "severity": 0, "text": "Enclosure door is open"})
    notified.wait_event('"typeId":7', '"CRITICAL"', '"RAISED"')
