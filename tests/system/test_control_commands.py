"""Commands of the OA&M server: which requests are answered, and how."""
import json
from pathlib import Path
from typing import Any, Iterator

import pytest

from harness.config import GW_MAC
from harness.control import (
    CAPABILITIES,
    COMMANDS,
    CONFIGURATION,
    SIZES,
    Answer,
    ControlRoad,
    is_answer,
    request,
)
from harness.lab import LabAgent, start_agent
from harness.waiting import wait_until

TRIGGER = "1000001"
FREE_WORKERS = 14  # of 16; the watcher of the pipe and the event worker hold one each
PING = {"destination": "192.0.2.1", "packetsCount": 3}
RADIO_STATISTICS = [
    ("numTxPackets", 1842),
    ("numRxPackets", 96213),
    ("rxFineTimestamp", 90120),
    ("rxNoFineTimestamp", 6093),
    ("rxCrcOkPackets", 95800),
    ("rxCrcErrPackets", 413),
    ("noMatch", 27),
]


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    """A daemon for the tests that leave it and its agent as they found them."""
    agent = start_agent(tmp_path_factory.mktemp("shared"))
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def road(tmp_path: Path, agent: LabAgent) -> Iterator[ControlRoad]:
    made = ControlRoad(tmp_path / "road", agent).wait_ready()
    yield made
    made.close()


# --- the road of a command ---


def test_an_answer_carries_mac_request_and_response_in_this_order_and_a_nul(shared: ControlRoad) -> None:
    number = shared.send("getRadioStatistics")
    answer = shared.answer_to(number)
    assert answer.pairs == [("mac", GW_MAC), ("requestId", number), ("response", RADIO_STATISTICS)]
    assert answer.payload.index(b"\0") == len(answer.payload) - 1
    assert answer.text.startswith(
        f'{{"mac":"{GW_MAC}","requestId":{number},"response":{{"numTxPackets":1842,'
    )


def test_a_command_is_logged_with_its_answer(shared: ControlRoad) -> None:
    mark = shared.bridge.log.mark()
    answer = shared.command("getRadioStatistics")
    wanted = f"publishing to topic: {COMMANDS} response: {answer.text}"
    shared.bridge.wait_for_log(wanted, after=mark)
    shared.bridge.wait_for_log("exiting MQTT subscription worker", after=mark)
    lines = shared.bridge.log.since(mark)
    order = (
        "ctrlplane message received",
        "MQTT subscription worker starting",
        "processing command payload: {",
        "command: [getRadioStatistics]",
        wanted,
    )
    places = [next(place for place, line in enumerate(lines) if text in line) for text in order]
    assert places == sorted(places)


@pytest.mark.parametrize(
    "number", [0, -1, 2**31, 2**63 - 1, 1.5, True, None, "seven", [1, 2], {"a": None}], ids=str
)
def test_request_and_mac_come_back_as_they_stand(shared: ControlRoad, number: object) -> None:
    mark = shared.peer.mark()
    body = request("isAnyoneThere", [], number, {"of": number})
    shared.publish(json.dumps(body).encode())
    message = shared.peer.wait_for(is_answer, after=mark)
    assert Answer(message.payload).json == {
        "mac": {"of": number},
        "requestId": number,
        "error": "not_supported",
    }


def test_keys_may_stand_in_any_order_and_the_last_of_a_repeated_one_counts(shared: ControlRoad) -> None:
    mark = shared.peer.mark()
    shared.publish(
        b'{"mac":"A","extra":1,"command":"none","params":0,"requestId":1,"command":"other","mac":"B"}'
    )
    answer = Answer(shared.peer.wait_for(is_answer, after=mark).payload)
    assert answer.pairs == [("mac", "B"), ("requestId", 1), ("error", "not_supported")]
    assert shared.bridge.log.find("no handler defined for command: other")


@pytest.mark.parametrize(
    "command, shown",
    [
        ("getradiostatistics", "getradiostatistics"),
        ("getRadioStatistics ", "getRadioStatistics "),
        ("", ""),
        ("ping%s%n", "ping%s%n"),
        (17, "17"),
        (True, "true"),
        ({"a": 1}, '{ "a": 1 }'),
        (["ping"], '[ "ping" ]'),
    ],
    ids=str,
)
def test_an_unknown_command_gets_an_error_and_no_response(
    shared: ControlRoad, command: object, shown: str
) -> None:
    mark, log = shared.peer.mark(), shared.bridge.log.mark()
    shared.publish(json.dumps(request(command, {}, 5)).encode())
    answer = Answer(shared.peer.wait_for(is_answer, after=mark).payload)
    assert answer.pairs == [("mac", GW_MAC), ("requestId", 5), ("error", "not_supported")]
    shared.bridge.wait_for_log(f"command: [{shown}]", after=log)
    shared.bridge.wait_for_log(f"no handler defined for command: {shown}", after=log)


def test_a_text_with_a_nul_names_the_command_before_it(shared: ControlRoad) -> None:
    mark = shared.peer.mark()
    shared.publish(json.dumps(request("getRadioStatistics\0more", {}, 5)).encode())
    answer = Answer(shared.peer.wait_for(is_answer, after=mark).payload)
    assert dict(answer.pairs)["response"] == RADIO_STATISTICS


def test_a_topic_in_other_letters_is_not_the_subscribed_one(shared: ControlRoad) -> None:
    """The server tells topics apart by their case."""
    mark = shared.peer.mark()
    shared.publish(json.dumps(request("isAnyoneThere", {}, 1)).encode(), COMMANDS.upper())
    shared.command("isAnyoneThere")
    assert len(shared.answers(mark)) == 1


# --- what gets no answer ---

WHOLE = request("getRadioStatistics", {}, 1)


@pytest.mark.parametrize(
    "key, message",
    [
        ("command", "command string is missing"),
        ("requestId", "request ID is missing"),
        ("params", "parameters body is missing"),
        ("mac", "mac address is missing"),
    ],
)
def test_a_request_without_one_of_its_keys_is_not_answered(
    shared: ControlRoad, key: str, message: str
) -> None:
    body = {name: value for name, value in WHOLE.items() if name != key}
    log = shared.unanswered(json.dumps(body).encode())
    assert len([line for line in log if message in line]) == 1


def test_the_first_missing_key_alone_is_told(shared: ControlRoad) -> None:
    log = shared.unanswered(b"{}")
    assert [line for line in log if "is missing" in line] == [
        line for line in log if "command string" in line
    ]


DEEP = b'{"a":' * 40 + b"1" + b"}" * 40


@pytest.mark.parametrize(
    "payload",
    [
        b"{",
        b"x",
        b"{'",
        b"nul",
        b'{"command":"ping"',
        b'{"command":"ping\n',
        b"\0",
        b'{"command":"\xff',
        b"\xff\xfe{}",
        b"[" * 100,
        DEEP,
        b"null",
    ],
    ids=lambda each: repr(each[:20]),
)
def test_what_is_no_json_is_not_answered(shared: ControlRoad, payload: bytes) -> None:
    log = shared.unanswered(payload)
    assert len([line for line in log if "Failed to parse incoming payload" in line]) == 1


@pytest.mark.parametrize(
    "payload", [b"1", b"[]", b'"command"', b"true", b"[{}]", b"-0", b"1e999", b"9" * 400]
)
def test_json_that_is_no_object_has_no_command(shared: ControlRoad, payload: bytes) -> None:
    log = shared.unanswered(payload)
    assert len([line for line in log if "command string is missing" in line]) == 1


def test_an_empty_message_is_told(shared: ControlRoad) -> None:
    log = shared.bridge.log.mark()
    shared.publish(b"")
    shared.bridge.wait_for_log("invalid payload received", after=log)
    assert shared.command("isAnyoneThere").json["error"] == "not_supported"


def test_a_request_behind_a_nul_is_not_read(shared: ControlRoad) -> None:
    mark = shared.peer.mark()
    whole = json.dumps(request("none", {}, 1)).encode()
    shared.publish(whole + b"\0" + json.dumps(request("none", {}, 2)).encode())
    shared.peer.wait_for(is_answer, after=mark)
    shared.command("isAnyoneThere")
    assert [answer.json["requestId"] for answer in shared.answers(mark)][0] == 1
    assert len(shared.answers(mark)) == 2


def test_huge_numbers_and_bad_text_in_params_are_no_end(shared: ControlRoad) -> None:
    mark = shared.peer.mark()
    shared.publish(
        b'{"command":"ping","requestId":99999999999999999999999,"mac":"\xff\xc0\\u0000\\ud800",'
        b'"params":{"destination":"\\u0000","packetsCount":-99999999999999999999}}'
    )
    answer = Answer(shared.peer.wait_for(is_answer, after=mark).payload)
    assert b'"error":"invalid ping packets count"' in answer.payload
    assert shared.command("getRadioStatistics").response == dict(RADIO_STATISTICS)


@pytest.mark.parametrize("size", SIZES)
def test_a_request_of_any_size_is_answered(shared: ControlRoad, size: int) -> None:
    body = json.dumps(request("getRadioStatistics", {}, f"size{size}")).encode()
    if size < len(body):
        shared.unanswered(b" " * size)
        return
    mark = shared.peer.mark()
    shared.publish(body[:-1] + b" " * (size - len(body)) + b"}")
    answer = Answer(shared.peer.wait_for(is_answer, after=mark).payload)
    assert answer.json["requestId"] == f"size{size}" and answer.response == dict(RADIO_STATISTICS)


@pytest.mark.parametrize("size", SIZES)
@pytest.mark.parametrize("topic", [CONFIGURATION, CAPABILITIES])
def test_a_message_of_any_size_on_the_other_topics_is_no_end(
    shared: ControlRoad, topic: str, size: int
) -> None:
    log = shared.bridge.log.mark()
    shared.publish(b"{" * size, topic)
    end = (
        "capabilities subscription worker completed" if topic == CAPABILITIES else "exiting MQTT subscription"
    )
    shared.bridge.wait_for_log(end, after=log)
    assert shared.command("isAnyoneThere").json["error"] == "not_supported"


# --- ping ---


def test_a_ping_waits_for_the_agents_countdown(road: ControlRoad) -> None:
    road.agent.clear_log()
    assert road.command("ping", PING).pairs[2] == ("response", [("packets_sent", 3), ("packets_recv", 3)])
    sets = [each["variables"] for each in road.agent.sets()]
    expected = [
        ["utilPingCount.0", 3],
        ["utilPingDestination.0", "192.0.2.1"],
        ["utilPingExecute.0", int(TRIGGER)],
    ]
    assert expected in sets, sets
    assert road.bridge.log.find("destination: [192.0.2.1] packets count: [3]")
    assert road.agent.get("utilPingExecute.0") == 0


def test_a_ping_tells_what_was_received(road: ControlRoad) -> None:
    assert road.command("ping", {"destination": "192.0.2.254", "packetsCount": 1}).response == {
        "packets_sent": 1,
        "packets_recv": 0,
    }


def test_a_ping_count_may_be_a_text(road: ControlRoad) -> None:
    assert road.command("ping", {"destination": "192.0.2.1", "packetsCount": "2"}).response == {
        "packets_sent": 2,
        "packets_recv": 2,
    }


@pytest.mark.waits_long
def test_a_ping_of_no_packets_gives_up_after_ten_rounds(road: ControlRoad) -> None:
    """The trigger stays; running out of rounds is no error."""
    steps = [{"set": {"utilPingReceivedCount.0": 0}}]
    road.agent.do({"rules": [{"on_set": "utilPingExecute.0", "do": steps}]})
    answer = road.command("ping", {"destination": "192.0.2.1", "packetsCount": 0}, timeout=30)
    assert answer.response == {"packets_sent": 0, "packets_recv": 0}
    reads = [each for each in road.agent.requests() if "utilPingExecute.0" in json.dumps(each)]
    assert len(reads) == 1 + 10, "one SET and ten reads"


@pytest.mark.parametrize(
    "params, message",
    [
        ({"packetsCount": 1}, "destination string is missing!"),
        ({"destination": "192.0.2.1"}, "packets count is not specified!!"),
        ([], "destination string is missing!"),
        ("text", "destination string is missing!"),
        (None, "destination string is missing!"),
    ],
    ids=str,
)
def test_a_ping_without_its_params_has_no_response(shared: ControlRoad, params: Any, message: str) -> None:
    mark, log = shared.peer.mark(), shared.bridge.log.mark()
    shared.publish(json.dumps(request("ping", params, 9)).encode())
    answer = Answer(shared.peer.wait_for(is_answer, after=mark).payload)
    assert answer.pairs == [("mac", GW_MAC), ("requestId", 9)]
    shared.bridge.wait_for_log(message, after=log)


@pytest.mark.parametrize(
    "fault, error",
    [
        (
            {"utilPingCount.0": {"error": "wrongValue", "on": "set"}},
            "failed to process ping command parameters",
        ),
        (
            {"utilPingExecute.0": {"exception": "noSuchInstance", "on": "get"}},
            "failed to query ping status flag",
        ),
        ({"utilPingReceivedCount.0": {"exception": "noSuchObject"}}, "failed to get packets count"),
    ],
    ids=["set", "status", "count"],
)
def test_a_ping_that_fails_answers_why(road: ControlRoad, fault: dict[str, Any], error: str) -> None:
    road.agent.do({"faults": fault})
    answer = road.command("ping", {"destination": "192.0.2.1", "packetsCount": 0})
    assert answer.response == {"error": error}
    assert road.bridge.log.find(error)


def test_a_negative_ping_count_is_refused(shared: ControlRoad) -> None:
    answer = shared.command("ping", {"destination": "192.0.2.1", "packetsCount": -1})
    assert answer.response == {"error": "invalid ping packets count"}


# --- tables and statistics ---

ROWS = [
    {"description": "factory", "date": "2024-05-02 08:14", "index": 0},
    {"description": "before 5.2", "date": "2024-11-19 21:40", "index": 1},
]


def test_backups_are_numbered_from_0(shared: ControlRoad) -> None:
    answer = shared.command("getBackups")
    assert [key for key, _ in dict(answer.pairs)["response"]] == ["status", "backups"]
    assert answer.response == {"status": "idle", "backups": ROWS}


def test_no_backup_gives_an_empty_list_and_the_status(road: ControlRoad) -> None:
    road.agent.do({"put_rows": "swRestorePointTable", "rows": []})
    road.agent.set({"swBakResStatus.0": "nothing yet"})
    assert road.command("getBackups").response == {"status": "nothing yet", "backups": []}


@pytest.mark.parametrize(
    "command, fault, message",
    [
        ("getBackups", {"swBakResStatus.0": {"exception": "noSuchObject"}}, "failed to get backup status"),
        (
            "getRadioStatistics",
            {"radioStatisticsNoMatch.0": {"exception": "noSuchInstance"}},
            "failed to get properties for radio stats",
        ),
    ],
    ids=["backups", "statistics"],
)
def test_a_failed_read_leaves_the_response_out(
    road: ControlRoad, command: str, fault: dict[str, Any], message: str
) -> None:
    road.agent.do({"faults": fault})
    assert [key for key, _ in road.command(command).pairs] == ["mac", "requestId"]
    assert road.bridge.log.find(message)
    road.agent.clear_faults()
    assert road.command(command).response


def test_a_row_that_cannot_be_read_is_taken_for_the_end(road: ControlRoad) -> None:
    road.agent.fault("swRestorePointDate.2", error="genErr")
    assert road.command("getBackups").response == {"status": "idle", "backups": ROWS[:1]}


# --- reboot ---


def wait_for_trigger(road: ControlRoad) -> None:
    def is_written() -> bool:
        return ["lumoReset.0", int(TRIGGER)] in road.agent.written()

    wait_until(is_written, "the trigger on lumoReset.0")


def test_a_reboot_is_answered_then_triggered_and_the_process_leaves(tmp_path: Path, agent: LabAgent) -> None:
    road = ControlRoad(tmp_path / "road", agent).wait_ready()
    try:
        answer = road.command("reboot")
        assert [key for key, _ in answer.pairs] == ["mac", "requestId"]
        assert agent.get("lumoReset.0") == 0, "the answer goes first"
        road.bridge.wait_for_log("rebooting the device")
        road.bridge.wait_for_log("waiting 5 seconds before executing reboot")
        assert road.bridge.wait_exit() == 1
        wait_for_trigger(road)
    finally:
        road.close()


@pytest.mark.waits_long
def test_a_refused_reboot_is_tried_again_after_the_next_command(tmp_path: Path, agent: LabAgent) -> None:
    road = ControlRoad(tmp_path / "road", agent).wait_ready()
    try:
        agent.fault("lumoReset.0", error="genErr", on="set", times=1)
        road.command("reboot")
        road.bridge.wait_for_log("cannot set reset flag")
        assert road.command("getRadioStatistics").response == dict(RADIO_STATISTICS)
        assert road.bridge.wait_exit() == 1
        wait_for_trigger(road)
    finally:
        road.close()


# --- many at once ---


def answered(road: ControlRoad, numbers: list[int], timeout: float) -> list[Answer]:
    answers = [road.answer_to(number, timeout) for number in numbers]
    assert len({answer.json["requestId"] for answer in road.answers()}) == len(
        road.answers()
    ), "answered twice"
    return answers


@pytest.mark.waits_long
def test_commands_run_side_by_side(road: ControlRoad) -> None:
    """Pings as many as there are free workers take about as long as one."""
    count = FREE_WORKERS
    numbers = [road.send("ping", {"destination": "192.0.2.1", "packetsCount": 1}) for _ in range(count)]
    answers = answered(road, numbers, 40)
    assert all(answer.response["packets_sent"] == 1 for answer in answers)
    lines = road.bridge.log.lines
    commands = [place for place, line in enumerate(lines) if "command: [ping]" in line]
    ends = [place for place, line in enumerate(lines) if "response: " in line and "packets_sent" in line]
    assert max(commands) < min(ends), "a ping ended before the last one began"


def test_sixteen_commands_at_once_are_all_answered(road: ControlRoad) -> None:
    numbers = [road.send("getRadioStatistics") for _ in range(16)]
    answers = answered(road, numbers, 40)
    assert {json.dumps(answer.response) for answer in answers} == {json.dumps(dict(RADIO_STATISTICS))}


def test_two_hundred_queued_commands_are_all_answered(road: ControlRoad) -> None:
    """They wait behind pings that hold every free worker."""
    for _ in range(FREE_WORKERS):
        road.send("ping", {"destination": "192.0.2.1", "packetsCount": 2})
    names = ("getRadioStatistics", "getBackups", "isAnyoneThere", "reverseDirection")
    numbers = [road.send(names[place % len(names)]) for place in range(200)]
    answers = answered(road, numbers, 60)
    assert [answer.response for answer in answers[:2]] == [
        dict(RADIO_STATISTICS),
        {"status": "idle", "backups": ROWS},
    ]
    assert all("error" in answer.json for answer in answers[2::4] + answers[3::4])
    assert len(answers) == 200
