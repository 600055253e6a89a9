"""A command and all that comes of it: its answer, its worker's complaints and the agent's writes."""
import itertools
import json
import re
from contextlib import contextmanager
from dataclasses import dataclass
from typing import Any, Iterator

import pytest

from harness.config import GW_MAC
from harness.control import ControlRoad, request
from harness.lab import SCENARIOS, start_agent

SCENARIO = json.loads((SCENARIOS / "gateway.json").read_text())

# Faults of the agent, and what the daemon tells of them.
GONE: dict[str, object] = {"exception": "noSuchObject"}
REFUSED: dict[str, object] = {"error": "genErr", "on": "set"}
NO_OBJECT = "ERROR No Such Object available on this agent at "
REFUSED_TEXT = "ERROR error in packet: (genError) A general failure occured"

# What stands in place of parameters where none are needed.
ANY_PARAMS: tuple[object, ...] = (None, "none", 5, True, [{}], {"antenna": -1, "filters": None})

HOUR = 3600
POLLED = re.compile(r"got \d+ table values")
TABLES = 3  # upgrade servers, alarms, faults; the scenario has no fault, whose texts would be asked for then
LINE = re.compile(r"\[(\d+)\]\[(\w+) *\] \S+ (.*)$")

_numbers = itertools.count(10**9)  # a road's own requests have smaller ones


@dataclass(frozen=True)
class Outcome:
    response: str  # as text; "" when there is none
    complaints: list[str]  # errors and warnings of the command's worker, up to the answer
    sets: list[list[list[Any]]]  # the variables of each request, in order


def _complaints_about(command: str, lines: list[str]) -> list[str]:
    parsed = [match.groups() for match in map(LINE.search, lines) if match]
    start = next(place for place, each in enumerate(parsed) if each[2] == f"command: [{command}]")
    own = [each for each in parsed[start:] if each[0] == parsed[start][0]]
    end = next(place for place, each in enumerate(own) if each[2].startswith("publishing to topic"))
    return [f"{level} {text}" for _, level, text in own[:end] if level in ("ERROR", "WARN")]


def run(road: ControlRoad, command: str, params: object = ()) -> Outcome:
    assert road.bridge.running(), road.bridge.tail()
    road.agent.clear_log()
    mark, number = road.bridge.log.mark(), next(_numbers)
    road.publish(json.dumps(request(command, params, number)).encode())
    answer = road.answer_to(number)
    start = f'{{"mac":"{GW_MAC}","requestId":{number}'
    assert answer.text.startswith(start) and answer.text.endswith("}"), answer.text
    response = answer.text[len(start) : -1].removeprefix(',"response":')
    sets = [entry["variables"] for entry in road.agent.sets()]
    return Outcome(response, _complaints_about(command, road.bridge.log.since(mark)), sets)


@contextmanager
def quiet_road(folders: pytest.TempPathFactory, *rules: dict[str, Any]) -> Iterator[ControlRoad]:
    """A daemon that has asked for alarms and faults once and does so again in an hour: until then its agent
    hears of commands alone. The rules stand before the scenario's own."""
    agent = start_agent(folders.mktemp("agent"))
    agent.do({"rules": list(rules)})
    road = ControlRoad(folders.mktemp("road"), agent, polls=HOUR)
    try:
        road.wait_ready().bridge.wait_for_log(POLLED, count=TABLES)
        yield road
    finally:
        road.close()
        agent.close()


def restore(road: ControlRoad, *beginnings: str) -> None:
    """Takes the agent back to its scenario, as to the scalars whose names begin so."""
    road.agent.clear_faults()
    scalars = SCENARIO["scalars"].items()
    road.agent.set({name: value for name, value in scalars if name.startswith(beginnings)})
