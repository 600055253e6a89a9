"""The soak finds what it is there to find: its books, its explanations, its cable, and whole short runs."""
from __future__ import annotations

import base64
import json
import os
import signal
import socket
import subprocess
import sys
import time
from dataclasses import replace
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest
from harness.bridge import BINARY, REPOSITORY

sys.path.append(str(REPOSITORY))

from lab.demo.dialects import DIALECTS  # noqa: E402
from lab.gateway import forwarder  # noqa: E402
from lab.gateway.devices import Radio, lab_devices  # noqa: E402
from lab.operations.client import LATE_TOPIC, LateAnswers  # noqa: E402
from lab.soak import explain, figures, judge, uplinks  # noqa: E402
from lab.soak.faults import KINDS, go_together  # noqa: E402
from lab.soak.gateway import LogLine, Resources  # noqa: E402
from lab.soak.operations import Operations  # noqa: E402
from lab.soak.plan import plan_of  # noqa: E402
from lab.soak.report import GROWTH_KIB, SETTLED_SECONDS, Episode, Report  # noqa: E402

MAC = "0016c001ff1a2b3c"
TOPIC = "gateway/rx"


class Clock:
    def __init__(self) -> None:
        self.now = 1000.0

    def __call__(self) -> float:
        return self.now


class Books:
    """An uplink a second through the books, with a clock of the test's own."""

    def __init__(self, clock: Clock) -> None:
        self.clock = clock
        self.failures: list[str] = []
        self.uplinks = uplinks.Uplinks(DIALECTS["native"], MAC, 1, self.failures.append)
        self.radio = Radio(lab_devices(), 1)

    def send(self, acked: bool = True, published: int = 1) -> None:
        self.clock.now += 1
        frame = self.radio.next_reception().frame
        self.uplinks.forwarder_event(forwarder.UplinksSent((frame,)))
        if acked:
            self.uplinks.forwarder_event(forwarder.PushAcked((frame,), 0.001))
        for _ in range(published):
            self.publish(frame)

    def publish(self, frame: bytes) -> None:
        body = {
            "phyPayload": base64.b64encode(frame).decode(),
            "rxInfo": {
                "frequency": 868100000, "codeRate": "4/5", "rssi": -50, "loRaSNR": 7.5, "timestamp": 1,
                "dataRate": {"bandwidth": 125, "modulation": "LORA", "spreadFactor": 7},
            },
        }  # fmt: skip
        self.uplinks.message(TOPIC, json.dumps(body).encode())

    def figures(self) -> uplinks.UplinkFigures:
        self.clock.now += uplinks.LATE_SECONDS + 1
        return self.uplinks.figures()


@pytest.fixture
def books(monkeypatch: pytest.MonkeyPatch) -> Books:
    clock = Clock()
    monkeypatch.setattr(uplinks.time, "monotonic", clock)
    return Books(clock)


def test_an_uplink_that_a_whole_connection_loses_is_told(books: Books) -> None:
    for _ in range(5):
        books.send()
    books.send(published=0)
    for _ in range(5):
        books.send()
    told = books.figures()
    assert (told.sent, told.acknowledged, told.published, told.lost) == (11, 11, 10, 1)
    assert not told.excused and not books.failures


def test_an_uplink_that_a_broken_connection_loses_has_its_reason(books: Books) -> None:
    books.send()
    books.send()
    books.uplinks.touched("server killed")
    books.send(published=0)
    books.send(acked=False, published=0)
    books.uplinks.released()
    books.send(published=0)
    books.send()
    books.send()
    told = books.figures()
    assert told.lost == 0 and told.unanswered == 1
    assert told.excused == {"server killed": 2}


def test_a_connection_counts_as_whole_from_an_arrival_on(books: Books) -> None:
    books.send()
    books.send()
    books.uplinks.broke("connection lost")
    books.send(published=0)
    books.send()
    books.send(published=0)
    books.send()
    told = books.figures()
    assert told.excused == {"connection lost": 1} and told.lost == 1


def test_what_comes_through_while_a_plane_stops_proves_no_connection(books: Books) -> None:
    def line(text: str) -> None:
        judge.follow_connection(LogLine(books.clock.now, "WARN", "a_file.cpp", text), books.uplinks)

    books.send()
    books.send()
    line("ctrlplane restart requested")
    books.send()
    books.send(acked=False, published=0)
    line("dataplane is started")
    books.send(acked=False, published=0)
    books.send()
    books.clock.now += 2
    books.send(acked=False, published=0)
    books.send()
    told = books.figures()
    assert (told.unanswered, told.ignored, told.lost) == (3, 1, 0)


@pytest.mark.parametrize("text", ["mqtt connection lost due to: x", "dataplane partial restart requested"])
def test_a_connection_that_is_opened_anew_is_proved_by_what_comes_through(books: Books, text: str) -> None:
    books.send()
    books.send()
    judge.follow_connection(LogLine(books.clock.now, "WARN", "a_file.cpp", text), books.uplinks)
    books.send(acked=False, published=0)
    books.send()
    books.send(acked=False, published=0)
    books.send()
    told = books.figures()
    assert (told.unanswered, told.ignored) == (2, 1)


def test_what_is_acknowledged_just_before_a_break_may_be_lost_with_it(books: Books) -> None:
    books.send()
    books.send()
    books.send(published=0)
    books.clock.now += uplinks.MARGIN_SECONDS / 2
    books.uplinks.broke("restart")
    told = books.figures()
    assert told.excused == {"restart": 1} and told.lost == 0


def test_an_uplink_that_comes_twice_is_told(books: Books) -> None:
    books.send(published=2)
    assert len(books.failures) == 1 and books.failures[0].endswith("was published twice")


def test_an_uplink_that_nobody_sent_is_told(books: Books) -> None:
    books.publish(b"\x40" + bytes(20))
    assert books.failures == ["an uplink was published that nobody sent"]


def test_a_downlink_that_comes_twice_is_told(books: Books) -> None:
    books.send()
    (_, payload), *_ = books.uplinks.downlinks(1)
    frame = json.loads(payload)["phyPayload"]
    for _ in range(2):
        assert not books.failures
        books.uplinks.forwarder_event(forwarder.DownlinkReceived({"data": frame}, 7, "NONE", 0.0))
    assert len(books.failures) == 1 and books.failures[0].endswith("reached the forwarder 2 times")


STATISTICS = {"rxnb": 200, "rxok": 199, "dwnb": 3, "txnb": 2}


def publish_statistics(books: Books, received: int = 200) -> None:
    body = {
        "rxPacketsReceived": received, "rxPacketsReceivedOK": 199, "txPacketsReceived": 3, "txPacketsEmitted": 2,
    }  # fmt: skip
    books.uplinks.message("gateway/stats", json.dumps(body).encode())


def test_statistics_that_come_twice_are_told(books: Books) -> None:
    for _ in range(2):
        publish_statistics(books)
        books.uplinks.forwarder_event(forwarder.StatisticsSent(STATISTICS))
    books.uplinks.check_doubles()
    assert not books.failures
    publish_statistics(books)
    books.uplinks.check_doubles()
    assert len(books.failures) == 1 and "were published 1 times more than they were sent" in books.failures[0]


def test_statistics_that_nobody_sent_are_told(books: Books) -> None:
    books.uplinks.forwarder_event(forwarder.StatisticsSent(STATISTICS))
    publish_statistics(books, received=201)
    books.uplinks.check_doubles()
    assert len(books.failures) == 1 and "received=201" in books.failures[0]


def test_an_acknowledgement_of_a_downlink_that_comes_twice_is_told() -> None:
    failures: list[str] = []
    dialect = DIALECTS["chirpstack_v3"]
    told = uplinks.Uplinks(dialect, MAC, 1, failures.append)

    def acknowledge(token: int) -> None:
        body = {"token": token, "items": [{"status": "OK"}]}
        told.message(dialect.ack_topic.format(mac=MAC), json.dumps(body).encode())

    told.forwarder_event(forwarder.DownlinkReceived({}, 7, "NONE", 0.0))
    acknowledge(7)
    acknowledge(uplinks.FIRST_TOKEN_OF_JUNK)
    told.check_doubles()
    assert not failures
    acknowledge(7)
    told.check_doubles()
    assert failures == ["TX_ACK of token 7 was published 1 times more than it was sent"]


class _NoFiles:
    def offer(self, path: str, _content: bytes) -> str:
        return path


class _NoGateway:
    def renew_upgrade(self) -> None:
        raise OSError

    def move_alarm(self, _number: int, _is_raised: bool) -> None:
        raise OSError


def operations_of(
    fail: Callable[[str], None], publish: Callable[[str, bytes], None] = lambda *_: None
) -> Operations:
    return Operations(1, True, publish, fail, _NoFiles(), _NoGateway())  # type: ignore[arg-type]


UPGRADE = f"gateway/mac/{MAC.upper()}/firmware/reported"


def concluded_operations() -> Operations:
    """Of a soak in which an upgrade was under way."""
    operations = operations_of(lambda _: None)
    operations.message(UPGRADE, b'{"content":{"state":"INSTALLING"}}')
    return operations


def test_an_answer_that_comes_twice_is_told() -> None:
    failures: list[str] = []
    sent: list[dict[str, Any]] = []
    operations = operations_of(failures.append, lambda _, payload: sent.append(json.loads(payload)))
    operations.ask("getBackups", {})
    answer = json.dumps({"mac": MAC, "requestId": sent[0]["requestId"], "response": []}).encode() + b"\0"
    operations.message("api/v1/gateway/commands", answer)
    assert operations.figures()["answered"] == 1 and not failures
    operations.message("api/v1/gateway/commands", answer)
    assert len(failures) == 1 and "was answered 2 times" in failures[0]


def test_a_dated_report_that_comes_twice_is_told() -> None:
    failures: list[str] = []
    operations = operations_of(failures.append)
    topic = UPGRADE
    operations.message(topic, b'{"lastStateUpdateTs":1}')
    operations.message(topic, b'{"lastStateUpdateTs":2}')
    for _ in range(2):
        operations.message("api/v1/gateway/events", b'{"ts":0}')
    assert not failures
    operations.message(topic, b'{"lastStateUpdateTs":1}')
    assert len(failures) == 1 and failures[0].endswith('got this twice: {"lastStateUpdateTs":1}')


@pytest.mark.parametrize(
    ("patterns", "text", "is_explained"),
    [
        (explain.AGENT.now, "no response from SNMP agent", True),
        (explain.AGENT.now, "failed to get backup information", True),
        (explain.AGENT.now, "Error getting SIM status for slot: 1", True),
        (explain.AGENT.now, "failed to connect to NS", False),
        (explain.CONNECTION.now, "failed to connect with MQTT code: [-1]", True),
        (explain.CONNECTION.now, "uplink packet filter file is not present", False),
        (explain.DISK.now, "failed to open a state file", True),
        (explain.JUNK.now, "failed to open a state file", False),
        (explain.ALWAYS, "command string is missing", True),
        (explain.ALWAYS, "command string is missing!", False),
        (explain.LOAD.now, "no response from SNMP agent", False),
    ],
)
def test_a_line_is_explained_by_its_own_fault_alone(
    patterns: tuple[str, ...], text: str, is_explained: bool
) -> None:
    assert explain.explains(patterns, text) is is_explained


def test_three_seeds_have_every_dialect_both_numbers_of_servers_and_both_kinds_of_alarms() -> None:
    for first in range(1, 9):
        plans = [plan_of(seed) for seed in range(first, first + 3)]
        assert len({plan.dialect.name for plan in plans}) == 3
        assert {plan.has_two_servers for plan in plans} == {True, False}
        assert len({plan.events_seconds for plan in plans}) == 2


def test_faults_that_undo_each_other_do_not_come_together() -> None:
    kinds = {kind.name: kind for kind in KINDS}
    assert len(kinds) == len(KINDS)
    assert not go_together(kinds["server killed"], kinds["server stopped"])
    assert not go_together(kinds["disk full"], kinds["disk full"])
    assert go_together(kinds["server killed"], kinds["agent silent"])


HELD = Resources(23, 22, 0, 0, 0, 2, 5000, 18000)


@pytest.mark.parametrize(
    ("last", "complaint"),
    [
        (HELD, None),
        (replace(HELD, anonymous_kib=HELD.anonymous_kib + GROWTH_KIB, resident_kib=30000), None),
        (replace(HELD, anonymous_kib=HELD.anonymous_kib + GROWTH_KIB + 1), "memory has grown by"),
        (replace(HELD, threads=24), "threads: 23 at first, 24 at look 2 of 2"),
        (replace(HELD, descriptors=23), "descriptors: 22 at first, 23 at look 2 of 2"),
        (replace(HELD, children=1), "children: 0 at first, 1 at look 2 of 2"),
        (replace(HELD, uncollected=1), "uncollected: 0 at first, 1 at look 2 of 2"),
        (replace(HELD, others=2), "others: 0 at first, 2 at look 2 of 2"),
        (replace(HELD, queues=1), "queues: 2 at first, 1 at look 2 of 2"),
        (None, "the resources were not counted twice"),
    ],
)
def test_what_is_held_at_the_end_is_what_was_held_at_first(
    books: Books, last: Resources | None, complaint: str | None
) -> None:
    books.send()
    books.clock.now += uplinks.LATE_SECONDS + 1
    report = Report(plan_of(1), lambda _: None)
    report.looks = [HELD, last] if last else [HELD]
    report.conclude(books.uplinks, concluded_operations(), SETTLED_SECONDS)
    assert report.is_clean() is (complaint is None)
    if complaint:
        (told,) = report.failures
        assert told.startswith(complaint)


def test_an_hour_without_an_upgrade_under_way_is_told(books: Books) -> None:
    books.send()
    books.clock.now += uplinks.LATE_SECONDS + 1
    report = Report(plan_of(1), lambda _: None)
    report.looks = [HELD, HELD]
    operations = operations_of(lambda _: None)
    operations.message(UPGRADE, b'{"content":{"state":"NO BSP UPGRADE AVAILABLE"}}')
    report.conclude(books.uplinks, operations, SETTLED_SECONDS)
    assert list(report.failures) == ["no upgrade was under way"]


def test_a_service_has_answered_when_something_newer_than_the_question_comes() -> None:
    operations = operations_of(lambda _: None)
    topics = {
        "a configuration": f"gateway/mac/{MAC.upper()}/configuration/reported",
        "a state of an upgrade": UPGRADE,
        "a battery report": f"gateway/mac/{MAC.upper()}/performance",
        "an alarm": "api/v1/gateway/events",
    }
    payload = b'{"type":"ALARM","typeId":1001}'
    for topic in list(topics.values())[:-1]:
        operations.message(topic, b"before")
    services = {service.name: service for service in operations.services()}
    assert services.keys() == {*topics, "the end of a script"}
    assert not any(service.has_answered() for service in services.values())
    for name, topic in topics.items():
        operations.message(topic, payload)
        assert [each.name for each in services.values() if each.has_answered()] == [*topics][
            : [*topics].index(name) + 1
        ]


def test_the_end_of_a_script_is_that_of_one_that_was_asked_for_since() -> None:
    sent: list[dict[str, Any]] = []
    operations = operations_of(lambda _: None, lambda _, payload: sent.append(json.loads(payload)))

    def end_last() -> None:
        late = {"requestId": str(sent[-1]["requestId"]), "mac": MAC, "response": {}}
        operations.message(LATE_TOPIC, json.dumps(late, separators=(",", ":")).encode())

    operations.ask("fopsExecuteStart", {})
    (script,) = [each for each in operations.services() if each.name == "the end of a script"]
    end_last()
    assert not script.has_answered()
    script.ask()
    end_last()
    assert script.has_answered()


def test_the_books_of_a_slow_network_stay_open() -> None:
    assert [kind.name for kind in KINDS if kind.touches_connection and kind.carries] == ["network slow"]


def concluded(books: Books, report: Report) -> Report:
    report.looks = [HELD, HELD]
    books.clock.now += uplinks.LATE_SECONDS + 1
    report.conclude(books.uplinks, concluded_operations(), SETTLED_SECONDS)
    return report


def test_uplinks_that_find_no_room_in_a_jam_are_not_told_and_lost_ones_are(books: Books) -> None:
    books.send()
    books.uplinks.jammed()
    for _ in range(6):
        books.send(acked=False, published=0)
    books.send(published=0)
    books.uplinks.released()
    books.clock.now += 10
    books.send()
    assert list(concluded(books, Report(plan_of(1), lambda _: None)).failures) == [
        "1 uplinks were acknowledged on a whole connection and never published"
    ]


def test_uplinks_that_a_whole_connection_does_not_acknowledge_are_told(books: Books) -> None:
    for _ in range(10):
        books.send()
    for _ in range(6):
        books.send(acked=False, published=0)
    books.send()
    assert list(concluded(books, Report(plan_of(1), lambda _: None)).failures) == [
        "6 uplinks were sent on a whole connection and never acknowledged"
    ]


@pytest.mark.parametrize(("times", "bitten", "is_clean"), [(2, 0, True), (3, 0, False), (3, 1, True)])
def test_a_fault_that_breaks_nothing_is_told(books: Books, times: int, bitten: int, is_clean: bool) -> None:
    books.send()
    report = Report(plan_of(1), lambda _: None)
    report.episodes = [Episode(("server killed", "network slow"), 1.0, True)] * times
    for begin in range(bitten):
        report.bit("server killed", float(begin))
    concluded(books, report)
    assert list(report.failures) == ([] if is_clean else ["server killed came 3 times and broke nothing"])


def test_a_late_answer_that_was_cut_off_hides_none_behind_it() -> None:
    late = LateAnswers()
    assert not list(late.take(b'{"requestId":1,"respo'))
    assert list(late.take(b'{"requestId":2}')) == [{"requestId": 2}]
    assert not list(late.take(b'{"requestId":3,'))
    assert list(late.take(b'"response":[]}{"requestId":4}')) == [
        {"requestId": 3, "response": []},
        {"requestId": 4},
    ]


# --- the cable ---


@pytest.fixture
def cable() -> Iterator[tuple[socket.socket, socket.socket, subprocess.Popen[str]]]:
    left, far_left = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    right, far_right = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    ends = far_left.fileno(), far_right.fileno()
    process = subprocess.Popen(
        [sys.executable, "-B", "-m", "lab.soak.cable", *map(str, ends), "1"],
        stdin=subprocess.PIPE,
        pass_fds=ends,
        text=True,
        cwd=REPOSITORY,
    )
    for end in (left, right):
        end.settimeout(20)
    yield left, right, process
    assert process.stdin
    process.stdin.close()
    assert process.wait(20) == 0
    for end in (left, right, far_left, far_right):
        end.close()


def set_cable(process: subprocess.Popen[str], line: str) -> None:
    assert process.stdin
    process.stdin.write(line + "\n")
    process.stdin.flush()


def test_a_cable_carries_both_ways(cable: tuple[socket.socket, socket.socket, subprocess.Popen[str]]) -> None:
    left, right, _ = cable
    left.send(b"to the right")
    assert right.recv(100) == b"to the right"
    right.send(b"to the left")
    assert left.recv(100) == b"to the left"


def test_a_slow_cable_keeps_what_it_carries_for_its_time(
    cable: tuple[socket.socket, socket.socket, subprocess.Popen[str]],
) -> None:
    left, right, process = cable
    set_cable(process, "300 0 0")
    wait_obeyed(left, right, 0.3)


def wait_obeyed(left: socket.socket, right: socket.socket, seconds: float) -> None:
    """The line goes another way than the packets: some of these may be carried as before."""
    end = time.monotonic() + 20
    while True:
        begin = time.monotonic()
        left.send(b"x")
        assert right.recv(100) == b"x"
        if time.monotonic() - begin >= seconds:
            return
        assert time.monotonic() < end, "the cable does not obey"


def test_a_cut_cable_carries_nothing_and_a_mended_one_everything(
    cable: tuple[socket.socket, socket.socket, subprocess.Popen[str]],
) -> None:
    left, right, process = cable
    set_cable(process, "0 0 1")
    right.settimeout(0.5)
    lost = 0
    for number in range(20):
        left.send(b"%d" % number)
        try:
            right.recv(100)
        except TimeoutError:
            lost += 1
            if lost == 3:
                break
    assert lost == 3
    set_cable(process, "0 0 0")
    for _ in range(40):
        left.send(b"again")
        try:
            assert right.recv(100) == b"again"
            return
        except TimeoutError:
            continue
    raise AssertionError("the cable stays cut")


# --- whole runs ---


def start_soak(folder: Path, minutes: str, seed: int) -> subprocess.Popen[str]:
    options = ["--seed", str(seed), "--json", str(folder / "figures.json"), "--keep", str(folder / "kept")]
    return subprocess.Popen(
        [str(REPOSITORY / "scripts" / "soak"), minutes, *options],
        env={**os.environ, "SNV_BRIDGE": str(BINARY)},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )


def end_of(soak: subprocess.Popen[str], folder: Path) -> tuple[int, str, dict[str, Any]]:
    out, _ = soak.communicate()
    file = folder / "figures.json"
    assert file.exists(), out
    return soak.returncode, out, json.loads(file.read_text())


def test_a_short_soak_is_clean(tmp_path: Path) -> None:
    status, out, told = end_of(start_soak(tmp_path, "0.1", 2), tmp_path)
    assert status == 0, out
    assert told["clean"] and told["uplinks"]["lost"] == 0 and not told["failures"]
    assert told["uplinks"]["published"] > 20 and told["operations"]["answered"] > 10
    assert told["kinds"] and told["error lines"] > 0
    page = figures.page_of([told])
    assert "| flood of commands" in page and "| 2    |" in page


def daemons_of(folder: Path) -> list[int]:
    """Seen from here: the daemon's own namespace has other numbers."""
    found = []
    for process in Path("/proc").iterdir():
        try:
            words = (process / "cmdline").read_bytes().split(b"\0")
            if words[0] == bytes(BINARY) and any(word.startswith(bytes(folder)) for word in words):
                found.append(int(process.name))
        except (OSError, ValueError):
            continue
    return found


def test_a_daemon_that_ends_is_told(tmp_path: Path) -> None:
    soak = start_soak(tmp_path, "0.5", 1)
    assert soak.stdout
    while "up after" not in (line := soak.stdout.readline()):
        assert line, "the soak has ended"
    for daemon in daemons_of(tmp_path):
        os.kill(daemon, signal.SIGKILL)
    status, out, told = end_of(soak, tmp_path)
    assert status == 1, out
    assert "the daemon was ended by SIGKILL, unasked" in told["failures"]
