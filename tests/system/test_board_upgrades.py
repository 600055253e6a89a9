"""Upgrades of the board's software: requests, the utility that does them, and the reports of their state."""
import json
import re
import signal
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterator, Optional

import pytest

from command_outcome import GONE
from conftest import Cleanup
from harness.bridge import Bridge
from harness.config import GW_MAC
from harness.control import CAPABILITIES, ControlRoad
from harness.lab import LabAgent, start_agent
from harness.mqtt_peer import Message, MqttPeer
from harness.waiting import PATIENCE, wait_until
from service_queue import QUEUE_LENGTH, send, upgrade_message
from upgrade_utility import UpgradeUtility

DESIRED = f"gateway/mac/{GW_MAC}/firmware/desired"
REPORTED = f"gateway/mac/{GW_MAC}/firmware/reported"
QUEUE = "/bsp_upgrade_mq"
POLL = upgrade_message(3)
POLL_PERIOD = 30
PATIENT = 60.0  # a tick of the supervisor, and its wait before it starts again

WAITING = "BSP upgrade thread waiting for the next message"
REPORTS_WAITING = "Performance management thread waiting for the next message"
ARMED = "Set timer to 30s, 0ns"
LOST = "Warning: can't send message to bsp upgrade thread"
OFFER = "from 3.4.0 to 3.5.1"

IDLE = "NO KNOWN BSP ACTIVITY"
DOWNLOADING = "DOWNLOADING"
DOWNLOADED = "DOWNLOADED"
SCHEDULED = "UPDATE SCHEDULED"
INSTALLING = "INSTALLING"
FAILED = "INSTALL (DOWNLOAD/UPGRADE) FAILED"
INSTALLED = "INSTALLED"
NOTHING = "NO BSP UPGRADE AVAILABLE"
ERROR = "UNEXPECTED ERROR DURING BSP SCHEDULING"

SECOND = 1_700_000_000  # of a request
REPORT = re.compile(
    f'{{"mac":"{GW_MAC}","lastStateUpdateTs":(\\d+),"content":{{"version":"([^"]*)","state":"([^"]*)",'
    r'"lastFirmwareUpdateTs":(\d+),"availableUpdates": \["([^"]*)"\]}}'
    "\0"
)


@dataclass(frozen=True)
class Report:
    changed: int
    version: str
    state: str
    installed: int
    available: str

    @property
    def content(self) -> tuple[str, str, str]:
        return self.version, self.state, self.available


def report_of(message: Message) -> Report:
    match = REPORT.fullmatch(message.payload.decode())
    assert match, message.payload
    changed, version, state, installed, available = match.groups()
    return Report(int(changed), version, state, int(installed), available)


class Upgrades:
    """A daemon whose upgrade service runs."""

    def __init__(self, work: Path, agent: LabAgent) -> None:
        self.work = work
        self.utility = UpgradeUtility(work)
        self.utility.start_again()
        self.road = ControlRoad(work, agent, env=self.utility.env).wait_ready()
        self.log = self.road.bridge.log
        self.mark()

    def mark(self) -> None:
        """Behind all that has been published so far."""
        self.road.command("isAnyoneThere")
        self.messages, self.lines = self.road.peer.mark(), self.log.mark()

    def enable(self) -> None:
        self.road.publish(b'{"capabilities":["bulk_upgr"]}', CAPABILITIES)

    def start(self) -> "Upgrades":
        self.enable()
        self.wait_idle()
        return self

    def wait_idle(self, count: int = 1) -> None:
        """Until the service has done that many actions since the mark, and waits."""
        self.road.bridge.wait_for_log(WAITING, after=self.lines, count=count)

    def poll(self) -> None:
        """What the timer does after 30 s."""
        send(self.road.bridge, QUEUE, POLL)
        self.wait_idle()

    def post(self, body: object) -> None:
        self.road.publish(body if isinstance(body, bytes) else json.dumps(body).encode(), DESIRED)

    def request(self, second: int = SECOND, update: object = None, **others: object) -> None:
        self.post({"updateTs": second * 1000, "update": update or {}, **others})
        self.wait_idle()

    def reports(self) -> list[Report]:
        """Since the mark. What went out before the answer to a command has arrived before it."""
        self.road.command("isAnyoneThere")
        return [report_of(each) for each in self.road.peer.since(self.messages) if each.topic == REPORTED]

    def contents(self) -> list[tuple[str, str, str]]:
        return [each.content for each in self.reports()]

    def states(self) -> list[str]:
        return [each.state for each in self.reports()]

    def logged(self, text: str) -> int:
        return len(self.log.find(text, after=self.lines))

    def run_again(self) -> None:
        """Ends the daemon and starts it once more; the server and what the utility knows stay."""
        self.road.bridge.close()
        arguments = ["-c", str(self.work / "bridge.toml"), "-d", "-v", "4"]
        self.road.bridge = Bridge(self.work, arguments, self.utility.env)
        self.log = self.road.bridge.log
        self.road.wait_ready()
        self.mark()

    def close(self) -> None:
        self.road.close()


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Upgrades]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = Upgrades(tmp_path_factory.mktemp("road") / "work", agent).start()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def upgrades(shared: Upgrades) -> Upgrades:
    """The running service, with a utility and an agent that know of nothing yet."""
    shared.road.agent.restore()
    shared.utility.start_again()
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
    before = int(time.time() * 1000)
    own.start()
    (report,) = own.reports()
    assert before <= report.changed <= int(time.time() * 1000)
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
        WAITING,
    ]
    lines = own.log.since(own.lines)
    places = [next(place for place, line in enumerate(lines) if text in line) for text in order]
    assert places == sorted(places)
    late = MqttPeer(own.road.broker.port)
    late.subscribe(REPORTED)
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
    send(own.road.bridge, QUEUE, POLL, create=True)
    own.utility.tell(plan="idle\nin-progress\n")
    own.enable()
    own.wait_idle(2)
    assert own.logged(f"bsp upgrade message queue: {QUEUE} is already created") == 1
    assert own.states() == [IDLE, INSTALLING]


def test_a_second_start_does_nothing(upgrades: Upgrades) -> None:
    upgrades.enable()
    upgrades.road.bridge.wait_for_log("bulk upgrade service has already started", after=upgrades.lines)
    upgrades.road.bridge.wait_for_log("capabilities subscription worker completed", after=upgrades.lines)
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
    ],
    ids=str,
)
def test_a_request_is_scheduled_and_reported(
    upgrades: Upgrades, body: dict[str, Any], arguments: str
) -> None:
    upgrades.post({"updateTs": SECOND * 1000 + 999, **body})
    upgrades.wait_idle()
    (report,) = upgrades.reports()
    assert report == Report(report.changed, "3.4.0 ", SCHEDULED, report.installed, "3.5.1")
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
        before = int(time.time() * 1000)
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
        assert report.changed >= before
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


def test_a_new_request_is_taken_while_another_is_polled(upgrades: Upgrades) -> None:
    upgrades.utility.tell(clock="1000")
    upgrades.request(1001, {"timestamp": 5_000_000})
    upgrades.mark()
    upgrades.request(1002, {"timestamp": 6_000_000, "force": True})
    assert upgrades.states() == [SCHEDULED]
    upgrades.mark()
    upgrades.request(1003, {"timestamp": 7_000_000})
    assert upgrades.states() == [ERROR], "the utility wants to be forced"


def test_nothing_available_is_told(upgrades: Upgrades) -> None:
    upgrades.utility.forget("available")
    upgrades.request()
    (report,) = upgrades.reports()
    assert (report.state, report.available) == (NOTHING, "None")
    assert upgrades.utility.calls() == ["-t", "-c"]


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
    upgrades.road.bridge.wait_for_log(text, after=upgrades.lines)
    upgrades.request()
    assert upgrades.logged(text) == 1
    assert upgrades.utility.calls() == ["-t", "-c", "-U 0,0"], "of the good request behind it"


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
    send(upgrades.road.bridge, QUEUE, upgrade_message(action))
    upgrades.wait_idle()
    assert upgrades.logged(f"Action: {name}") == 1
    assert upgrades.logged("Read 48 bytes from msg queue") == 1
    assert upgrades.reports() == [] and upgrades.utility.calls() == []


@pytest.mark.waits_long
def test_the_first_poll_comes_half_a_minute_after_the_request(own: Upgrades) -> None:
    own.start()
    own.mark()
    own.request(update={"timestamp": 1000})
    own.utility.tell(plan="ok\n")
    started = time.monotonic()
    own.road.bridge.wait_for_log("bsp upgrade timer handler", POLL_PERIOD + PATIENCE, after=own.lines)
    assert POLL_PERIOD - 1 < time.monotonic() - started < POLL_PERIOD + 5
    own.wait_idle(2)
    assert own.states() == [SCHEDULED, INSTALLED]
    assert own.logged("Action: poll status") == 1


# --- a utility that takes its time ---


def test_an_eleventh_waiting_request_is_lost(upgrades: Upgrades) -> None:
    upgrades.utility.tell(busy="-t", requested=f"{SECOND + 99}\n")
    upgrades.post({"updateTs": SECOND * 1000, "update": {}})
    wait_until(upgrades.utility.calls, "the utility runs")
    for number in range(QUEUE_LENGTH):
        upgrades.post({"updateTs": (SECOND + number) * 1000, "update": {}})
    upgrades.road.bridge.wait_for_log("req update ts: ", after=upgrades.lines, count=QUEUE_LENGTH + 1)
    assert upgrades.logged(LOST) == 0
    upgrades.post({"updateTs": (SECOND + 50) * 1000, "update": {}})
    upgrades.road.bridge.wait_for_log(LOST, after=upgrades.lines)
    upgrades.utility.forget("busy")
    upgrades.wait_idle(1 + QUEUE_LENGTH)
    assert upgrades.utility.calls() == ["-t"] * (1 + QUEUE_LENGTH)


def test_commands_are_answered_while_the_utility_runs(upgrades: Upgrades) -> None:
    upgrades.utility.tell(busy="-t")
    upgrades.post({"updateTs": SECOND * 1000, "update": {}})
    wait_until(upgrades.utility.calls, "the utility runs")
    assert upgrades.road.command("getRadioStatistics").response
    upgrades.utility.forget("busy")
    upgrades.wait_idle()


def test_the_end_of_the_daemon_does_not_wait_for_the_utility(own: Upgrades) -> None:
    own.start()
    own.utility.tell(busy="-t")
    own.post({"updateTs": SECOND * 1000, "update": {}})
    wait_until(lambda: "-t" in own.utility.calls(), "the utility runs")
    own.road.bridge.signal(signal.SIGUSR2)
    own.road.bridge.wait_for_log("bridge is shutting down", after=own.lines)
    wait_until(lambda: not own.road.bridge.running(), "the daemon has ended")
    own.utility.forget("busy")
    assert own.road.bridge.wait_exit() == 0


# --- restarts ---


def test_a_daemon_restarted_in_the_middle_of_an_install_follows_it_to_its_end(own: Upgrades) -> None:
    own.utility.tell(clock="1000")
    own.start()
    own.mark()
    own.request(999, {"timestamp": 1_000_000})
    own.run_again()
    assert own.logged(f"bsp upgrade message queue: {QUEUE} is already created") == 0
    own.start()
    assert own.states() == [INSTALLING, INSTALLING]
    own.mark()
    own.utility.tell(clock="1020")
    own.poll()
    assert own.states() == [INSTALLED]
    own.mark()
    own.request(1000)
    assert own.logged("Ignored already processed bsp upgrade request (ts: 1000)") == 1


@pytest.mark.waits_long
def test_a_restart_of_the_control_plane_waits_for_the_utility_and_the_next_capabilities_start_all(
    own: Upgrades,
) -> None:
    both = b'{"capabilities":["performance_management","bulk_upgr"]}'
    own.start()
    own.road.publish(both, CAPABILITIES)
    own.road.bridge.wait_for_log(REPORTS_WAITING)
    own.utility.tell(busy="-t")
    own.post({"updateTs": SECOND * 1000, "update": {}})
    wait_until(lambda: "-t" in own.utility.calls(), "the utility runs")
    own.mark()
    own.road.broker.kill()
    own.road.bridge.wait_for_log("stopping bulk upgrade service", after=own.lines)
    assert own.logged("stopping performance management service") == 0, "they stop in their order"
    own.utility.forget("busy")
    own.road.bridge.wait_for_log("stopping bsp upgrade thread", after=own.lines)
    unsent = "failed to send bsp upgrade response - MQTT publish failure"
    own.road.bridge.wait_for_log(unsent, after=own.lines)
    own.road.bridge.wait_for_log("stopping performance management thread", after=own.lines)
    own.road.bridge.wait_for_log("deinitializing upgrade service", after=own.lines)
    own.road.bridge.wait_for_log("de-initializing performance management service", after=own.lines)
    own.road.broker.start()
    own.road.wait_ready(count=2, timeout=PATIENT)
    own.road.new_peer()
    own.mark()
    own.utility.tell(plan="idle\n")
    own.road.publish(both, CAPABILITIES)
    own.wait_idle()
    own.road.bridge.wait_for_log(REPORTS_WAITING, after=own.lines)
    assert own.states() == [IDLE]
    assert own.logged("already created") == 0
    own.mark()
    own.request(SECOND + 10**9)
    assert own.states() == [SCHEDULED]
