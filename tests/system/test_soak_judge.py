"""What a soak's judge says of lines, restarts and silence."""
from __future__ import annotations

import sys

import pytest
from harness.bridge import REPOSITORY

sys.path.append(str(REPOSITORY))

from lab.soak import judge  # noqa: E402
from lab.soak.faults import KINDS, Kind  # noqa: E402
from lab.soak.gateway import LogLine  # noqa: E402
from lab.soak.judge import Judge, Stay  # noqa: E402
from lab.soak.plan import plan_of  # noqa: E402
from lab.soak.report import Report  # noqa: E402

BEGIN = 1000.0
KIND = {kind.name: kind for kind in KINDS}
LOST, RESTART = "mqtt connection lost", "dataplane restart requested"
ASKED = "ctrlplane restart requested"
NO_AGENT = "no response from SNMP agent"
NO_UPLINK, NO_ANSWER = "no uplink came through", "no command was answered"


class Court:
    def __init__(self) -> None:
        self.report = Report(plan_of(1), lambda _: None)
        self.judge = Judge(self.report, BEGIN)

    def line(self, at: float, text: str, level: str = "ERROR") -> None:
        self.judge.take(LogLine(BEGIN + at, level, "a_file.cpp", text))

    def stay(self, name: str, begin: float, end: float | None = None) -> Stay:
        stay = self.judge.begin(KIND[name], BEGIN + begin)
        if end is not None:
            self.judge.end([stay], BEGIN + end)
        return stay

    def silence(self, at: float, uplink: float = 0, answer: float = 0) -> None:
        self.judge.check_silence(BEGIN + at, BEGIN + uplink, BEGIN + answer)

    def told(self) -> list[str]:
        return list(self.report.failures)


@pytest.fixture
def court() -> Court:
    return Court()


def test_a_line_is_explained_while_its_fault_stays_and_a_little_longer(court: Court) -> None:
    court.stay("server killed", 10, 20)
    text = "failed to connect to NS"
    court.line(10, text)
    court.line(20 + judge.SHORT_ECHO_SECONDS, text)
    assert not court.told()
    court.line(20 + judge.SHORT_ECHO_SECONDS + 0.1, text)
    assert court.told() == [f"ERROR line that nothing explains, beside [server killed]: {text}"]
    assert court.report.error_lines == 3


def test_a_line_before_its_fault_is_told(court: Court) -> None:
    court.stay("agent silent", 10)
    court.line(9.9, NO_AGENT)
    assert court.told() == [f"ERROR line that nothing explains, beside [no fault]: {NO_AGENT}"]


def test_what_a_fault_has_begun_may_tell_of_it_later(court: Court) -> None:
    court.stay("agent silent", 10, 20)
    court.line(20 + judge.ECHO_SECONDS, NO_AGENT)
    assert not court.told()
    court.line(20 + judge.ECHO_SECONDS + 1, NO_AGENT)
    assert len(court.told()) == 1


@pytest.mark.parametrize("name", ["server killed", "clock ahead", "disk full", "junk on topics"])
def test_what_a_fault_cannot_have_begun_is_told(court: Court, name: str) -> None:
    court.stay(name, 10, 20)
    court.line(21, NO_AGENT)
    assert court.told() == [f"ERROR line that nothing explains, beside [{name}]: {NO_AGENT}"]


def test_a_transfer_may_tell_later_of_a_network_that_was_cut(court: Court) -> None:
    court.stay("network cut", 10, 20)
    court.line(60, "curl: Timeout was reached")
    assert not court.told()


def test_load_alone_explains_no_late_line(court: Court) -> None:
    court.stay("flood of commands", 10, 20)
    court.line(21, NO_AGENT)
    assert len(court.told()) == 1


def test_lines_that_are_no_errors_are_not_judged(court: Court) -> None:
    court.line(1, NO_AGENT, "WARN")
    assert not court.told() and court.report.error_lines == 0


def test_a_sanitizers_words_are_judged_though_they_have_no_level(court: Court) -> None:
    court.line(1, "==1==ERROR: AddressSanitizer: heap-use-after-free", "")
    court.line(2, "what a script says", "")
    assert len(court.told()) == 1 and court.report.error_lines == 1


def test_a_line_shows_that_its_fault_has_broken_something(court: Court) -> None:
    court.stay("server killed", 10, 20)
    second = court.stay("server killed", 100)
    court.line(101, LOST, "WARN")
    assert court.report.bites == {"server killed": {second.begin}}
    court.judge.bit("server killed")
    assert court.report.bites == {"server killed": {second.begin}}


@pytest.mark.parametrize(
    "text", [LOST, RESTART, "ctrlplane restart requested", "mqtt connection lost due to: x"]
)
def test_a_restart_without_a_cause_is_told(court: Court, text: str) -> None:
    court.stay("clock ahead", 1)
    court.line(2, text, "WARN")
    assert court.told() == [f"a restart that nothing explains: {text}"]


@pytest.mark.parametrize("name", ["server killed", "network cut", "descriptors exhausted"])
def test_a_restart_has_its_cause(court: Court, name: str) -> None:
    court.stay(name, 10, 20)
    court.line(20 + judge.LATE_BREAK_SECONDS, RESTART, "WARN")
    assert not court.told() and court.report.restarts == {RESTART: 1}


@pytest.mark.parametrize("name", ["disk full", "agent silent", "junk on topics"])
def test_a_restart_that_a_service_has_asked_for_has_its_line_before(court: Court, name: str) -> None:
    court.stay(name, 10, 20)
    court.line(15, "failed to start the bulk upgrade service")
    court.line(20, ASKED, "WARN")
    assert not [told for told in court.told() if told.startswith("a restart")]


@pytest.mark.parametrize("name", ["disk full", "agent silent", "junk on topics"])
@pytest.mark.parametrize("text", [ASKED, LOST])
def test_a_fault_beside_the_connection_ends_none_by_itself(court: Court, name: str, text: str) -> None:
    court.stay(name, 10, 20)
    court.line(15, text, "WARN")
    assert court.told() == [f"a restart that nothing explains: {text}"]


def test_a_service_that_asks_for_a_restart_explains_no_lost_connection(court: Court) -> None:
    court.stay("disk full", 10, 20)
    court.line(15, "failed to start the bulk upgrade service")
    court.line(16, LOST, "WARN")
    assert court.told()[-1] == f"a restart that nothing explains: {LOST}"


@pytest.mark.parametrize(
    "text",
    [
        "Exiting bsp upgrade thread",
        "Exiting performance management thread",
        "Can't create timer for battery performance",
        "failed to read from the pipe: Bad file descriptor",
    ],
)
def test_a_service_rests_from_its_threads_end_to_the_next_restart_of_the_control_plane(
    court: Court, text: str
) -> None:
    court.stay("descriptors exhausted", 10)
    assert not court.judge.has_resting_service
    court.line(11, text)
    court.line(12, "dataplane restart requested", "WARN")
    assert court.judge.has_resting_service
    court.line(13, ASKED, "WARN")
    assert not court.judge.has_resting_service


def test_a_clock_that_is_moved_shows_in_the_lines(court: Court) -> None:
    court.stay("clock back", 10)
    court.judge.take(LogLine(BEGIN + 11, "INFO", "a_file.cpp", "a word", -20.0))
    assert not court.report.bites
    court.judge.take(LogLine(BEGIN + 12, "INFO", "a_file.cpp", "a word", -61.0))
    assert court.report.bites == {"clock back": {BEGIN + 10}}


def test_a_restart_long_after_its_cause_is_told(court: Court) -> None:
    court.stay("server killed", 10, 20)
    court.line(20 + judge.LATE_BREAK_SECONDS + 1, LOST, "WARN")
    assert court.told() == [f"a restart that nothing explains: {LOST}"]


def test_a_restart_explains_its_lines_until_the_planes_are_up(court: Court) -> None:
    stay = court.stay("server killed", 10)
    text = "failed to open pipe for sending async response: No such device or address"
    court.line(11, LOST, "WARN")
    court.line(30, text)
    court.judge.end([stay], BEGIN + 40)
    court.line(40 + judge.SHORT_ECHO_SECONDS, text)
    assert not court.told()
    court.line(40 + judge.SHORT_ECHO_SECONDS + 1, "SNMP is not started, ignoring request from NS")
    assert len(court.told()) == 1


def test_a_restart_behind_the_end_of_another_needs_a_cause_of_its_own(court: Court) -> None:
    stay = court.stay("server killed", 10)
    court.line(11, LOST, "WARN")
    court.judge.end([stay], BEGIN + 20)
    court.line(20 + judge.LATE_BREAK_SECONDS + 1, RESTART, "WARN")
    assert court.told() == [f"a restart that nothing explains: {RESTART}"]


def test_a_restart_just_behind_a_recovery_is_one_of_its_own(court: Court) -> None:
    court.stay("agent slow", 10, 20)
    court.stay("restart, no descriptors", 22)
    court.line(23, LOST, "WARN")
    court.line(20 + judge.SHORT_ECHO_SECONDS + 1, "failed to unsubscribe: api/v1/gateway/commands")
    assert not court.told()


def test_a_restart_in_the_last_words_of_another_goes_on_behind_them(court: Court) -> None:
    stay = court.stay("server killed", 10)
    court.line(11, LOST, "WARN")
    court.judge.end([stay], BEGIN + 20)
    court.stay("restart, no descriptors", 22)
    court.line(20 + judge.SHORT_ECHO_SECONDS - 0.1, LOST, "WARN")
    court.line(20 + judge.SHORT_ECHO_SECONDS + 1, "failed to unsubscribe: api/v1/gateway/commands")
    assert not court.told() and court.report.restarts == {LOST: 2}


def test_a_stop_explains_what_a_restart_does(court: Court) -> None:
    court.judge.stopping(BEGIN + 5)
    court.line(5000, "synch request failed")
    assert not court.told()


def test_silence_is_told(court: Court) -> None:
    court.silence(judge.UPLINK_SILENCE_SECONDS)
    assert not court.told()
    court.silence(judge.UPLINK_SILENCE_SECONDS + 1)
    assert [told.startswith(NO_UPLINK) for told in court.told()] == [True]
    court.silence(judge.ANSWER_SILENCE_SECONDS + 1, uplink=judge.ANSWER_SILENCE_SECONDS)
    assert [told.startswith(NO_ANSWER) for told in court.told()] == [False, True]


def silent_for(court: Court, seconds: int) -> None:
    for at in range(0, seconds, 5):
        court.silence(at)


def test_a_fault_that_touches_the_connection_keeps_both_silent(court: Court) -> None:
    court.stay("network cut", 0)
    silent_for(court, 300)
    assert not court.told()


def test_a_fault_that_touches_the_agent_keeps_answers_silent(court: Court) -> None:
    court.stay("agent silent", 0)
    silent_for(court, 300)
    assert len(court.told()) == 1 and court.told()[0].startswith(NO_UPLINK)


@pytest.mark.parametrize("kind", [kind for kind in KINDS if not kind.touches], ids=lambda kind: kind.name)
def test_what_no_fault_touches_goes_on_while_it_stays(court: Court, kind: Kind) -> None:
    court.stay(kind.name, 0)
    silent_for(court, 100)
    assert [told[: len(NO_UPLINK)] for told in court.told()] == [NO_UPLINK, NO_ANSWER[: len(NO_UPLINK)]]


def test_silence_is_counted_from_the_end_of_what_was_in_the_way(court: Court) -> None:
    stay = court.stay("network cut", 0)
    court.silence(100)
    court.judge.end([stay], BEGIN + 101)
    court.silence(100 + judge.UPLINK_SILENCE_SECONDS)
    assert not court.told()
    court.silence(101 + judge.UPLINK_SILENCE_SECONDS)
    assert len(court.told()) == 1


def test_a_restart_keeps_silent_until_the_planes_are_up(court: Court) -> None:
    stay = court.stay("disk full", 0)
    court.line(0.5, "failed to publish configuration", "WARN")
    court.line(1, RESTART, "WARN")
    silent_for(court, 200)
    assert not court.told()
    court.judge.end([stay], BEGIN + 200)
    court.line(200 + judge.SHORT_ECHO_SECONDS + 1, "a plane is up", "INFO")
    court.silence(200 + judge.UPLINK_SILENCE_SECONDS)
    assert len(court.told()) == 1
