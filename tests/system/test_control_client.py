"""The command-line client of the OA&M side, against a daemon and the lab's agent."""
import json
import re
import subprocess
from typing import Any, Iterator

import pytest

from harness.bridge import REPOSITORY
from harness.control import ASYNC_RESPONSES, COMMANDS, EVENTS, ControlRoad, is_answer, request
from harness.lab import start_agent
from harness.log_reader import LogReader
from harness.mqtt_peer import Message
from harness.ports import free_port
from lab.operations.commands import COMMANDS as COMMAND_TABLE
from lab.operations.reference import reference, split_page

OAM = REPOSITORY / "lab" / "oam"
SOURCE = REPOSITORY / "src" / "converter" / "control" / "bridge_cmd.cpp"
ANSWERED, UNANSWERED, MISUSED = 0, 1, 2
ANSWERED_TWICE = ("removeWmPDP_Profiles", "upgradeBspLocal")

Done = subprocess.CompletedProcess[str]


@pytest.fixture(scope="module")
def road(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    yield made
    made.close()
    agent.close()


def run(*arguments: str) -> Done:
    return subprocess.run([str(OAM), *arguments], capture_output=True, text=True, timeout=60)


def oam(road: ControlRoad, *arguments: str, timeout: str = "20") -> Done:
    return run("--port", str(road.broker.port), "--timeout", timeout, *arguments)


def sent_request(road: ControlRoad, after: int) -> dict[str, Any]:
    def is_request(message: Message) -> bool:
        return message.topic == COMMANDS and not is_answer(message)

    sent: dict[str, Any] = json.loads(road.peer.wait_for(is_request, after=after).payload)
    return sent


# --- the command line ---


def test_the_help_tells_every_command_of_the_daemon_in_its_order() -> None:
    table = re.findall(r'^    \{"(\w+)", +\w+, +(?:true|false)\},$', SOURCE.read_text(), re.M)
    assert len(table) == 67
    done = run("--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert re.findall(r"^  (\w+)", done.stdout.split("\ncommands:\n")[1], re.M) == table
    assert "  ping --destination TEXT --packetsCount INTEGER\n" in done.stdout
    assert "  upgradeBspLocal [--delay INTEGER] [--force BOOLEAN]\n" in done.stdout


def test_the_reference_of_the_documents_is_made_from_the_same_table() -> None:
    before, between, behind = split_page()
    assert between == reference()
    for command in COMMAND_TABLE:
        assert f"`{command.name}`" in before, f"{command.name} has no place in a section"


@pytest.mark.parametrize(
    "arguments, reason",
    [
        ((), "a command, --raw or watch is needed"),
        (("--raw", "{}", "getBackups"), "a command, --raw or watch is needed"),
        (("noSuchCommand",), "invalid choice"),
        (("ping", "--destination", "192.0.2.1"), "ping needs packetsCount"),
        (("ping", "--packetsCount", "three"), "invalid int value"),
        (("deleteWmApn",), "deleteWmApn needs INTEGER"),
        (("getBackups", "--surplus", "1"), "unrecognized arguments"),
        (("getAvailableBspUpgrade", "--local", "yes"), "invalid boolean value"),
    ],
    ids=lambda each: " ".join(each)[:30],
)
def test_a_wrong_command_line_is_told(arguments: tuple[str, ...], reason: str) -> None:
    done = run(*arguments)
    assert done.returncode == MISUSED and done.stdout == ""
    assert reason in done.stderr


@pytest.mark.parametrize(
    "arguments, params, beside",
    [
        (("getBackups",), {}, {}),
        (("deleteWmApn", "2"), 2, {}),
        (("updateWmApn", "--name", "iot", "--idx", "1"), {"name": "iot", "idx": 1}, {}),
        (("removeWmPDP_Profiles", "--PDP_cids", "[1, 2]"), {"PDP_cids": [1, 2]}, {}),
        (("upgradeBspLocal", "--delay", "5", "--force", "true"), {}, {"delay": 5, "force": True}),
        (("getAvailableBspUpgrade", "--local", "false"), {"local": False}, {}),
        (("addWmApn", "--params", '{"title": 1}'), {"title": 1}, {}),
        (("reverseSsh", "--params", "[]"), [], {}),
    ],
    ids=lambda each: " ".join(each)[:30] if isinstance(each, tuple) else "",
)
def test_a_request_is_made_from_the_parameters(
    road: ControlRoad, arguments: tuple[str, ...], params: object, beside: dict[str, object]
) -> None:
    mark = road.peer.mark()
    done = oam(road, "--mac", "00FF", *arguments)
    sent = sent_request(road, mark)
    number = sent["requestId"]
    assert sent == {**request(arguments[0], params, number, "00FF"), **beside}
    assert done.returncode == ANSWERED, done.stderr
    printed = [json.loads(text) for text in re.split(r"(?<=^\})\n", done.stdout, flags=re.M) if text]
    assert {answer["requestId"] for answer in printed} == {number}
    assert len(printed) == (2 if arguments[0] in ANSWERED_TWICE else 1)


# --- answers ---


def test_an_answer_is_printed_as_json(road: ControlRoad) -> None:
    done = oam(road, "ping", "--destination", "192.0.2.1", "--packetsCount", "2")
    assert (done.returncode, done.stderr) == (ANSWERED, "")
    answer = json.loads(done.stdout)
    assert answer["response"] == {"packets_sent": 2, "packets_recv": 2}
    assert list(answer) == ["mac", "requestId", "response"]


def test_a_raw_request_is_sent_as_it_is_written(road: ControlRoad) -> None:
    mark = road.peer.mark()
    raw = '{"mac":1, "requestId":"mine","command":"none","params":{}}'
    done = oam(road, "--raw", raw)
    assert done.returncode == ANSWERED
    assert json.loads(done.stdout) == {"mac": 1, "requestId": "mine", "error": "not_supported"}
    assert raw.encode() in [message.payload for message in road.peer.since(mark)]


@pytest.mark.parametrize("raw", ["{}", "no json", '{"requestId":1}'])
def test_without_an_answer_the_client_gives_up(road: ControlRoad, raw: str) -> None:
    done = oam(road, "--raw", raw, timeout="0.3")
    assert (done.returncode, done.stdout) == (UNANSWERED, "")
    assert done.stderr == "no answer within 0.3 s\n"


def test_answers_to_others_are_passed_over(road: ControlRoad) -> None:
    """And whatever else is on the topics."""
    mark = road.peer.mark()
    client = subprocess.Popen(
        [str(OAM), "--port", str(road.broker.port), "ping", "--destination", "a", "--packetsCount", "1"],
        stdout=subprocess.PIPE,
        text=True,
    )
    number = sent_request(road, mark)["requestId"]
    for noise in (b"\xff", b"[]", json.dumps({"requestId": number + 1}).encode()):
        road.publish(noise)
        road.publish(noise, ASYNC_RESPONSES)
    assert client.communicate(timeout=30)[0].count("packets_recv") == 1
    assert client.returncode == ANSWERED


def test_a_server_that_is_not_there_is_told() -> None:
    done = run("--port", str(free_port()), "getBackups")
    assert done.returncode == UNANSWERED and done.stdout == ""
    assert done.stderr.startswith("no MQTT server at 127.0.0.1:")


# --- watch ---


@pytest.fixture
def watched(road: ControlRoad) -> Iterator[LogReader]:
    process = subprocess.Popen(
        [str(OAM), "--port", str(road.broker.port), "watch"],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    )
    assert process.stdout
    lines = LogReader(process.stdout)
    lines.wait_for(EVENTS)
    yield lines
    process.terminate()
    process.wait(20)
    lines.join()


def test_watch_prints_requests_answers_events_and_late_answers(road: ControlRoad, watched: LogReader) -> None:
    watched.wait_for('"description": "Enclosure temperature is high"')
    answer = road.command("getRadioStatistics")
    watched.wait_for(re.compile(rf"^\d\d:\d\d:\d\d {COMMANDS} request$"))
    watched.wait_for(re.compile(rf"^\d\d:\d\d:\d\d {COMMANDS} answer$"))
    watched.wait_for("    " + json.dumps(answer.json))
    road.write_pipe(b'{"requestId":1}')
    watched.wait_for(f" {ASYNC_RESPONSES}")
    road.publish(b"\xff\0not json", "some/other/topic")
    watched.wait_for("    '\\xff\\x00not json'")
