"""The capabilities message: which services it enables, and what is told of a bad one."""
import json
from typing import Iterator

import pytest

from harness.control import CAPABILITIES, ControlRoad
from harness.lab import start_agent

DONE = "capabilities subscription worker completed"
NO_JSON = "failed to parse incoming configuration"
NO_KEY = "failed to extract capabilities array from payload"
NO_ARRAY = "invalid payload format"


@pytest.fixture(scope="module")
def road(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    yield made
    made.close()
    agent.close()


def told(road: ControlRoad, payload: bytes) -> list[str]:
    """Of the lines on the message, the texts behind the place in the sources."""
    mark = road.bridge.log.mark()
    road.publish(payload, CAPABILITIES)
    road.bridge.wait_for_log(DONE, after=mark)
    lines = [line for line in road.bridge.log.since(mark) if " bridge_capabilities.cpp:" in line]
    return [line.split(" ", 3)[3].split(" ", 1)[1] if line.count(" ") > 3 else line for line in lines]


def found(road: ControlRoad, payload: bytes) -> tuple[list[str], list[str]]:
    """The names found, and those of them that enable a service."""
    lines = told(road, payload)

    def names(start: str) -> list[str]:
        return [line.split(start, 1)[1] for line in lines if start in line]

    return names("found capability: "), names("enabling capability: ")


def capabilities(*names: object) -> bytes:
    return json.dumps({"capabilities": names, "other": 1}).encode()


ALL = ["bulk_cfg", "bulk_upgr", "performance_management"]


@pytest.mark.parametrize(
    "names, expected, enabled",
    [
        (ALL, ALL, ALL),
        (ALL[::-1], ALL[::-1], ALL[::-1]),
        ([], [], []),
        (["BULK_CFG", "Performance_Management"], ["BULK_CFG", "Performance_Management"], [ALL[0], ALL[2]]),
        (["bulk_cfg", "bulk_cfg"], ["bulk_cfg", "bulk_cfg"], ["bulk_cfg", "bulk_cfg"]),
        (["bulk", "bulk_cfg ", ""], ["bulk", "bulk_cfg ", ""], []),
        ([5, True, {"bulk_cfg": 1}], ["5", "true", '{ "bulk_cfg": 1 }'], []),
        (["bulk_cfg", None, "bulk_upgr"], ["bulk_cfg"], ["bulk_cfg"]),
    ],
    ids=str,
)
def test_the_names_of_a_message_enable_services(
    road: ControlRoad, names: list[object], expected: list[str], enabled: list[str]
) -> None:
    names_found, names_enabled = found(road, capabilities(*names))
    assert names_found == expected
    assert [name.lower() for name in names_enabled] == enabled


@pytest.mark.parametrize(
    "payload, message",
    [
        (b"{", NO_JSON),
        (b"\0", NO_JSON),
        (b"null", NO_JSON),
        (b"{}", NO_KEY),
        (b"[]", NO_KEY),
        (b"5", NO_KEY),
        (b'{"Capabilities":["bulk_cfg"]}', NO_KEY),
        (b'{"capabilities":"bulk_cfg"}', NO_ARRAY),
        (b'{"capabilities":{}}', NO_ARRAY),
        (b'{"capabilities":null}', NO_ARRAY),
    ],
    ids=repr,
)
def test_a_bad_message_is_told_and_the_next_one_is_taken(
    road: ControlRoad, payload: bytes, message: str
) -> None:
    errors = [line for line in told(road, payload) if "failed" in line or "invalid" in line]
    assert [line for line in errors if message in line] == errors and len(errors) == 1
    assert found(road, capabilities("bulk_cfg")) == (["bulk_cfg"], ["bulk_cfg"])


def test_an_empty_message_is_no_end(road: ControlRoad) -> None:
    mark = road.bridge.log.mark()
    road.publish(b"", CAPABILITIES)
    road.bridge.wait_for_log("invalid payload size received", after=mark)
    assert found(road, capabilities("bulk_cfg")) == (["bulk_cfg"], ["bulk_cfg"])


def test_messages_in_quick_order_are_worked_off_one_by_one(road: ControlRoad) -> None:
    mark = road.bridge.log.mark()
    for number in range(50):
        road.peer.publish_at_once(CAPABILITIES, capabilities(f"number{number}"))
    road.bridge.wait_for_log(DONE, after=mark, count=50)
    kinds = [
        line.rsplit(" ", 1)[1]
        for line in road.bridge.log.since(mark)
        if "capabilities subscription worker" in line or "found capability: " in line
    ]
    expected = [word for number in range(50) for word in ("starting", f"number{number}", "completed")]
    assert kinds == expected


def test_nothing_is_published_in_answer(road: ControlRoad) -> None:
    mark = road.peer.mark()
    found(road, capabilities(*ALL))
    road.command("isAnyoneThere")
    assert len([each for each in road.peer.since(mark) if each.topic == CAPABILITIES]) == 1
