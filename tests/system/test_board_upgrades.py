"""Upgrades of the board's software: requests, the utility that does them, and the reports of their state."""
import json
import re
from pathlib import Path
from typing import Any, Iterator, Optional

import pytest

from command_outcome import GONE
from conftest import Cleanup
from harness.config import GW_MAC
from harness.control import SIZES
from harness.lab import LabAgent, start_agent
from harness.mqtt_peer import MqttPeer
from management_services import (
    DOWNLOADED,
    DOWNLOADING,
    ERROR,
    FAILED,
    IDLE,
    INSTALLED,
    INSTALLING,
    NOTHING,
    SCHEDULED,
    SECOND,
    Report,
    Upgrades,
    report_of,
)
from service_queue import QUEUE_LENGTH, upgrade_message

ARMED = "Set timer to 30s, 0ns"
LOST = "Warning: can't send message to bsp upgrade thread"
OFFER = "from 3.4.0 to 3.5.1"


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Upgrades]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = Upgrades(tmp_path_factory.mktemp("road") / "work", agent).start()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def upgrades(shared: Upgrades) -> Upgrades:
    """The running service, with a utility and an agent that know of nothing yet. An install that has failed
    leaves nothing of the test before."""
    shared.road.agent.restore()
    shared.utility.start_again()
    shared.utility.tell(answer="error")
    shared.mark()
    shared.poll()
    shared.utility.start_again()
    shared.road.agent.clear_log()
    shared.mark()
    return shared


@pytest.fixture
def own(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Upgrades:
    """A daemon of this test's own, whose service has not started."""
    made = Upgrades(tmp_path / "work", agent)
    cleanup.add(made)
    return made


# --- start ---


def test_the_service_asks_subscribes_and_reports_when_it_starts(own: Upgrades) -> None:
    own.start()
    (report,) = own.reports()
    assert report == Report(report.changed, "3.4.0", IDLE, 0, OFFER)
    assert own.utility.calls() == ["-s"]
    order = [
        "starting bulk upgrade service",
        "creating bsp upgrade msg queue",
        "bsp upgrade mq descriptor: [",
        "bulk upgrade subscription start",
        "bulk upgrade subscription succeeded",
        "starting bsp upgrade thread",
        "Calling upgrade utility via the command: sarnivel-dist-upgrade -s",
        "Waiting for response from the Upgrade utility",
        "Response from the Upgrade utility: idle",
        "Converting the Upgrade utility response: idle",
        f"Current upgrade state on the gateway: {IDLE}",
        f'publishing message: {{"mac":"{GW_MAC}","lastStateUpdateTs":{report.changed},',
        "Action: none",
        own.waiting,
    ]
    lines = own.road.bridge.log.since(own.lines)
    places = [next(place for place, line in enumerate(lines) if text in line) for text in order]
    assert places == sorted(places)
    late = MqttPeer(own.road.broker.port)
    late.subscribe(own.topic)
    assert report_of(late.wait_for(lambda each: each.retain)) == report
    late.close()


@pytest.mark.parametrize(
    "plan, calls, states, installed",
    [
        ("in-progress\nin-progress\n", 2, [INSTALLING, INSTALLING], False),
        ("download-scheduled\nok\n", 2, [SCHEDULED, INSTALLED], True),
        ("downloading\nerror\n", 2, [DOWNLOADING, FAILED], False),
        ("download-ok\nidle\n", 2, [DOWNLOADED], False),
        ("ok\n", 1, [INSTALLED], False),
        ("error\n", 1, [FAILED], False),
    ],
)
def test_an_upgrade_under_way_is_polled_at_once_by_a_new_daemon(
    own: Upgrades, plan: str, calls: int, states: list[str], installed: bool
) -> None:
    own.utility.tell(plan=plan)
    own.start()
    reports = own.reports()
    assert [each.state for each in reports] == states
    assert all(each.content == ("3.4.0", each.state, OFFER) for each in reports)
    assert own.utility.calls() == ["-s"] * calls
    last = reports[-1]
    assert last.installed == (last.changed if installed else 0)
    assert own.logged(ARMED) == (1 if states[-1] == INSTALLING else 0)


def test_without_the_utility_there_is_no_activity_and_a_request_fails(own: Upgrades) -> None:
    own.utility.program.unlink()
    own.start()
    assert own.contents() == [("3.4.0", IDLE, OFFER)]
    own.mark()
    own.request()
    assert own.contents() == [("3.4.0", ERROR, OFFER)]
    assert own.logged("Upgrade utility met with an error: ") == 1


def test_a_failure_at_the_start_is_not_told(own: Upgrades) -> None:
    own.utility.tell(fail="")
    own.start()
    assert own.contents() == [("3.4.0", IDLE, OFFER)]


def test_a_queue_that_an_earlier_run_left_is_taken_with_what_is_in_it(own: Upgrades) -> None:
    own.put(own.timer_message, create=True)
    own.utility.tell(plan="idle\nin-progress\n")
    own.enable()
    own.wait_idle(2)
    assert own.logged(f"bsp upgrade message queue: {own.queue} is already created") == 1
    assert own.states() == [IDLE, INSTALLING]


def test_a_second_start_does_nothing(upgrades: Upgrades) -> None:
    upgrades.enable()
    upgrades.wait_for("bulk upgrade service has already started")
    upgrades.wait_for("capabilities subscription worker completed")
    assert upgrades.reports() == [] and upgrades.utility.calls() == []


# --- requests ---


@pytest.mark.parametrize(
    "body, arguments",
    [
        ({"update": {}}, "-U 0,0"),
        ({"update": {"timestamp": 1700000100999, "maxRandomDelay": 60999}}, "-U 1700000100,60"),
        ({"update": {"timestamp": 5000, "force": True}}, "-U 5,0 -f"),
        ({"update": {"timestamp": 5000, "force": False}, "more": 1}, "-U 5,0"),
        ({"update": {}, "download": {}}, "-G 0,0 -U 0,0"),
        (
            {
                "update": {"timestamp": 9000, "maxRandomDelay": 2000, "force": True},
                "download": {"timestamp": 7000, "maxRandomDelay": 3000, "force": "of no meaning"},
            },
            "-G 7,3 -U 9,2 -f",
        ),
        ({"update": {"timestamp": 9000}, "download": {"force": True}}, "-G 0,0 -U 9,0"),
        ({"update": {"timestamp": 9000}, "download": None}, "-U 9,0"),
        ({"update": {"maxRandomDelay": 2**32 + 4000}}, "-U 0,4"),
        ({"update": {"maxRandomDelay": 2**32 - 1}}, "-U 0,4294967"),
        ({"update": {"timestamp": 2**63 - 1}}, "-U 9223372036854775,0"),
        ({"update": {"timestamp": 1999.9, "maxRandomDelay": 2999.9}}, "-U 1,2"),
        ({"update": {"timestamp": -999}}, "-U 0,0"),
        ({"update": {"timestamp": -1000}}, f"-U {2**64 - 1},0"),
        ({"update": {"maxRandomDelay": -1000}}, f"-U 0,{(2**32 - 1000) // 1000}"),
        ({"update": 5}, "-U 0,0"),
        ({"update": []}, "-U 0,0"),
        ({"update": "soon", "download": 5}, "-G 0,0 -U 0,0"),
        ({"update": {"timestamp": 9000}, "download": [7]}, "-G 0,0 -U 9,0"),
    ],
    ids=str,
)
def test_a_request_is_scheduled_and_reported(
    upgrades: Upgrades, body: dict[str, Any], arguments: str
) -> None:
    upgrades.post({"updateTs": SECOND * 1000 + 999, **body})
    upgrades.wait_idle()
    (report,) = upgrades.reports()
    assert report == Report(report.changed, "3.4.0 ", SCHEDULED, 0, "3.5.1")
    assert upgrades.utility.calls() == ["-t", "-c", arguments]
    assert upgrades.logged(f"req update ts: {SECOND}") == 1
    assert upgrades.logged("Action: req received") == 1
    assert upgrades.logged(ARMED) == 1


def test_an_upgrade_goes_through_its_states(upgrades: Upgrades) -> None:
    """Whose times the utility keeps."""
    utility = upgrades.utility
    utility.tell(clock="1000")
    upgrades.request(999, {"timestamp": 1_200_000}, download={"timestamp": 1_100_000})
    for clock in ("1050", "1110", "1130", "1210", "1230", "1240"):
        upgrades.mark()
        utility.tell(clock=clock)
        upgrades.road.agent.set({"bspVersion.0": "3.5.1"} if clock == "1230" else {})
        upgrades.poll()
        (report,) = upgrades.reports()
        expected = {
            "1050": ("3.4.0 ", SCHEDULED, "3.5.1"),
            "1110": ("3.4.0 ", DOWNLOADING, "3.5.1"),
            "1130": ("3.4.0 ", DOWNLOADED, "3.5.1"),
            "1210": ("3.4.0 ", INSTALLING, "3.5.1"),
            "1230": ("3.5.1", INSTALLED, OFFER),
            "1240": ("3.5.1", INSTALLED, OFFER),
        }[clock]
        assert report.content == expected
        is_done = expected[1] == INSTALLED
        assert report.installed == (report.changed if is_done else 0)
        assert upgrades.logged(ARMED) == (0 if is_done else 1), "polling ends with the install"


def test_an_install_that_breaks_is_told_and_ends_the_polling(upgrades: Upgrades) -> None:
    upgrades.utility.tell(clock="1000", breaks="")
    upgrades.request(999, {"timestamp": 900_000})
    upgrades.mark()
    upgrades.poll()
    (report,) = upgrades.reports()
    assert report == Report(report.changed, "3.4.0", FAILED, 0, OFFER)
    assert upgrades.logged(ARMED) == 0


@pytest.mark.parametrize("second", [SECOND, SECOND - 1, 0])
def test_a_request_that_the_utility_has_seen_is_ignored(upgrades: Upgrades, second: int) -> None:
    upgrades.utility.tell(requested=f"{SECOND}\n")
    upgrades.request(second)
    assert upgrades.reports() == []
    assert upgrades.utility.calls() == ["-t"]
    assert upgrades.logged(f"Ignored already processed bsp upgrade request (ts: {second})") == 1


@pytest.mark.parametrize(
    "timestamp, second",
    [(-1, 0), (-999, 0), (999, 0), (1999.9, 1), (-1000, 2**64 - 1), (2**63 - 1, 9223372036854775)],
)
def test_a_request_goes_by_its_second(upgrades: Upgrades, timestamp: float, second: int) -> None:
    upgrades.post({"updateTs": timestamp, "update": {}})
    upgrades.wait_idle()
    assert upgrades.logged(re.compile(f"req update ts: {second}$")) == 1
    assert upgrades.states() == ([SCHEDULED] if second else []), "second 0 has been asked for already"


@pytest.mark.parametrize(
    "event, state",
    [
        ({}, SCHEDULED),
        ({"answer": "No BSP upgrade available"}, NOTHING),
        ({"fail": "-t"}, ERROR),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_the_time_of_an_install_stays_until_the_next_poll(
    upgrades: Upgrades, event: dict[str, str], state: str
) -> None:
    upgrades.utility.tell(answer="ok")
    upgrades.poll()
    (install,) = upgrades.reports()
    assert install.installed == install.changed
    upgrades.utility.forget("answer")
    upgrades.utility.tell(**event)
    upgrades.mark()
    upgrades.request()
    (report,) = upgrades.reports()
    assert (report.state, report.installed) == (state, install.installed)
    upgrades.utility.start_again()
    upgrades.utility.tell(answer="scheduled")
    upgrades.mark()
    upgrades.poll()
    (report,) = upgrades.reports()
    assert (report.state, report.installed) == (SCHEDULED, 0)


def test_a_new_request_is_taken_while_another_is_polled(upgrades: Upgrades) -> None:
    upgrades.utility.tell(clock="1000")
    upgrades.request(1001, {"timestamp": 5_000_000})
    upgrades.mark()
    upgrades.request(1002, {"timestamp": 6_000_000, "force": True})
    assert upgrades.states() == [SCHEDULED]
    upgrades.mark()
    upgrades.request(1003, {"timestamp": 7_000_000})
    assert upgrades.states() == [ERROR], "the utility wants to be forced"


@pytest.mark.parametrize("word, state", [("idle", None), ("in-progress", INSTALLING), ("ok", INSTALLED)])
def test_nothing_available_is_told(upgrades: Upgrades, word: str, state: Optional[str]) -> None:
    """With nothing done so far, in the midst of an upgrade, and behind one."""
    upgrades.utility.tell(plan=f"{word}\n")
    upgrades.poll()
    assert upgrades.states() == ([state] if state else [])
    upgrades.utility.start_again()
    upgrades.utility.forget("available")
    upgrades.mark()
    upgrades.request()
    (report,) = upgrades.reports()
    assert (report.state, report.available) == (NOTHING, "None")
    assert upgrades.utility.calls() == ["-t", "-c"]


def test_a_quote_in_a_version_breaks_the_report(upgrades: Upgrades) -> None:
    """Which is made without regard to what is in it."""
    upgrades.utility.tell(available='3"4 3"5\n')
    upgrades.request()
    (message,) = upgrades.published()
    assert '"version":"3"4 ","state":"UPDATE SCHEDULED"' in message.text
    assert message.text.endswith('"availableUpdates": ["3"5"]}}\0')


@pytest.mark.parametrize("how", ["fail", "silent"])
@pytest.mark.parametrize(
    "option, calls", [("-t", ["-t"]), ("-c", ["-t", "-c"]), ("-U", ["-t", "-c", "-U 0,0"])]
)
def test_an_unusable_answer_to_a_request_is_told(
    upgrades: Upgrades, how: str, option: str, calls: list[str]
) -> None:
    upgrades.utility.tell(**{how: option})
    upgrades.request()
    assert upgrades.states() == [ERROR]
    assert upgrades.utility.calls() == calls
    answer = "Failed: told so" if how == "fail" else ""
    assert upgrades.logged(f"Upgrade utility met with an error: {answer}") == 1
    assert upgrades.logged(ARMED) == 0
    upgrades.utility.forget(how)
    upgrades.mark()
    upgrades.request(SECOND + 1)
    assert upgrades.states() == [SCHEDULED], "the next request is taken"


@pytest.mark.parametrize(
    "payload, text",
    [
        (b"{", "Failed to parse incoming payload for bsp upgrade"),
        (b"null", "Failed to parse incoming payload for bsp upgrade"),
        (b"\0{}", "Failed to parse incoming payload for bsp upgrade"),
        (b"[]", "Update ts is missing"),
        (b"5", "Update ts is missing"),
        (b"{}", "Update ts is missing"),
        (b'{"update":{}}', "Update ts is missing"),
        (b'{"updateTs":1,"update":null}', "No update parameters"),
        (b'{"updateTs":1700000000000}', "No update parameters"),
        (b'{"updateTs":1700000000000,"Update":{}}', "No update parameters"),
        (b"", "invalid payload size received"),
    ],
    ids=repr,
)
def test_a_bad_request_is_told_and_not_done(upgrades: Upgrades, payload: bytes, text: str) -> None:
    upgrades.post(payload)
    upgrades.wait_for(text)
    upgrades.request()
    assert upgrades.logged(text) == 1
    assert upgrades.utility.calls() == ["-t", "-c", "-U 0,0"], "of the good request behind it"


@pytest.mark.parametrize("size", SIZES)
def test_a_request_of_any_size_is_taken(upgrades: Upgrades, size: int) -> None:
    whole = json.dumps({"updateTs": SECOND * 1000, "update": {}}).encode()
    if size < len(whole):
        upgrades.post(whole[:size])
        upgrades.wait_for("Failed to parse incoming payload for bsp upgrade")
        return
    upgrades.post(whole[:-1] + b" " * (size - len(whole)) + b"}")
    upgrades.wait_idle()
    assert upgrades.states() == [SCHEDULED]


def test_the_time_is_found_in_the_midst_of_an_answer(upgrades: Upgrades) -> None:
    upgrades.utility.tell(answer=f"noise\nrequest time: {SECOND}\nfrom\nto\n")
    upgrades.request(SECOND)
    assert upgrades.reports() == []


# --- polls ---


@pytest.mark.parametrize(
    "word, state, polls_on, refreshes",
    [
        ("scheduled", SCHEDULED, True, False),
        ("status: download-scheduled", SCHEDULED, True, False),
        ("downloading", DOWNLOADING, True, False),
        ("in-progress", INSTALLING, True, False),
        ("download-ok", DOWNLOADED, True, False),
        ("ok", INSTALLED, False, True),
        ("error", FAILED, False, True),
        ("idle", None, False, False),
        ("\n", None, False, False),
        ("ok, then error", INSTALLED, False, True),
        ("Failed", ERROR, False, False),
        ("", ERROR, False, False),
    ],
)
def test_a_poll_reports_what_the_utility_says(
    upgrades: Upgrades, word: str, state: Optional[str], polls_on: bool, refreshes: bool
) -> None:
    upgrades.utility.tell(answer=word)
    upgrades.road.agent.set({"bspVersion.0": "9.9.9"})
    upgrades.poll()
    assert upgrades.states() == ([state] if state else [])
    assert upgrades.logged(ARMED) == int(polls_on)
    assert upgrades.utility.calls() == ["-s"]
    assert ("bspVersion" in json.dumps(upgrades.road.agent.requests())) == refreshes
    if refreshes:
        assert [each[0] for each in upgrades.contents()] == ["9.9.9"]


@pytest.mark.parametrize(
    "values, fault, version, available",
    [
        ({"getAvailableBspUpgrade.0": "No BSP upgrade available"}, None, "3.4.0", "None"),
        ({"getAvailableBspUpgrade.0": "Sorry: No BSP upgrade available today"}, None, "3.4.0", "None"),
        ({"getAvailableBspUpgrade.0": "a" * 63, "bspVersion.0": "b" * 63}, None, "b" * 63, "a" * 63),
        ({"getAvailableBspUpgrade.0": "a" * 64}, None, "3.4.0", ""),
        ({"bspVersion.0": "b" * 64}, None, "", OFFER),
        ({"getAvailableBspUpgrade.0": "", "bspVersion.0": ""}, None, "", ""),
        ({}, "getAvailableBspUpgrade.0", "3.4.0", ""),
        ({}, "bspVersion.0", "", OFFER),
    ],
    ids=repr,
)
def test_the_end_of_an_install_reads_the_versions(
    upgrades: Upgrades, values: dict[str, str], fault: Optional[str], version: str, available: str
) -> None:
    upgrades.utility.tell(answer="ok")
    upgrades.road.agent.set(values)
    if fault:
        upgrades.road.agent.fault(fault, **GONE)
    upgrades.poll()
    assert upgrades.contents() == [(version, INSTALLED, available)]
    failed_read = available == "" and len(values.get("getAvailableBspUpgrade.0", "-")) != 0
    assert upgrades.logged("Failed to fetch the available BSP version") == int(failed_read)
    failed_read = version == "" and len(values.get("bspVersion.0", "-")) != 0
    assert upgrades.logged("Failed to fetch the current BSP version") == int(failed_read)


@pytest.mark.parametrize("action, name", [(0, "none"), (7, "unknown action"), (-1, "unknown action")])
def test_other_messages_do_nothing(upgrades: Upgrades, action: int, name: str) -> None:
    upgrades.put(upgrade_message(action))
    upgrades.wait_idle()
    assert upgrades.logged(f"Action: {name}") == 1
    assert upgrades.logged("Read 48 bytes from msg queue") == 1
    assert upgrades.reports() == [] and upgrades.utility.calls() == []


# --- a utility that takes its time ---


def test_an_eleventh_waiting_request_is_lost(upgrades: Upgrades) -> None:
    upgrades.utility.tell(busy="-t", requested=f"{SECOND + 99}\n")
    upgrades.post({"updateTs": SECOND * 1000, "update": {}})
    upgrades.wait_busy("-t")
    for number in range(QUEUE_LENGTH):
        upgrades.post({"updateTs": (SECOND + number) * 1000, "update": {}})
    upgrades.wait_for("req update ts: ", count=QUEUE_LENGTH + 1)
    assert upgrades.logged(LOST) == 0
    upgrades.post({"updateTs": (SECOND + 50) * 1000, "update": {}})
    upgrades.wait_for(LOST)
    upgrades.utility.let_go()
    upgrades.wait_idle(1 + QUEUE_LENGTH)
    assert upgrades.utility.calls() == ["-t"] * (1 + QUEUE_LENGTH)


def test_commands_are_answered_while_the_utility_runs(upgrades: Upgrades) -> None:
    upgrades.utility.tell(busy="-t")
    upgrades.post({"updateTs": SECOND * 1000, "update": {}})
    upgrades.wait_busy("-t")
    assert upgrades.road.command("getRadioStatistics").response
    upgrades.utility.let_go()
    upgrades.wait_idle()


def test_the_end_of_the_daemon_does_not_wait_for_the_utility(own: Upgrades) -> None:
    own.start()
    own.utility.tell(busy="-t")
    own.post({"updateTs": SECOND * 1000, "update": {}})
    own.wait_busy("-t")
    own.end_while_busy()
