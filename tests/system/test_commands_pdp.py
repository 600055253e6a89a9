"""Commands on the modem's PDP profiles: answered at once, and again by the child that did the work."""
import json
import signal
from pathlib import Path
from typing import Any, Iterator, Optional

import pytest

from command_outcome import HOUR, LINE, quiet_road
from harness.config import GW_MAC
from harness.control import ASYNC_RESPONSES, ControlRoad, request
from harness.lab import LabAgent
from harness.waiting import PATIENCE, wait_until

LIST, ADD, MODIFY, REMOVE = (f"{verb}WmPDP_Profiles" for verb in ("get", "add", "modify", "remove"))

AT_WORK = "Waiting for modem's response"
STATUS = "wmPdpLastOperationStatus.0"

NOT_DONE = "Operation not permitted"
NO_EXCHANGE = "Input\\/output error"  # as the answers have it: a slash is escaped in them
NOT_VALID = "Invalid argument"
SET_FAILED = "failed to set new PDP profile properties"
IN_PACKET = "error in packet: (genError) A general failure occured"

# What the modem says when each operation is over, in place of taking its time.
TRIGGERS = {
    "wmReadPdpProfile.0": "PDP profiles read successfully",
    "wmAddPdpProfile.0": "PDP profile added successfully",
    "wmModifyPdpProfile.0": "PDP profile modified successfully",
    "wmRemovePdpProfile.0": "PDP profile removed successfully",
}


def modem_says(text: str, *triggers: str) -> dict[str, Any]:
    """To these operations, or to all; at once, and it does nothing else."""
    said: dict[str, Any] = {"do": [{"set": {STATUS: text}}]}
    return {"rules": [{kind: name, **said} for name in triggers or TRIGGERS for kind in ("on_set", "on_get")]}


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    with quiet_road(tmp_path_factory) as made:
        yield made


@pytest.fixture
def road(shared: ControlRoad) -> ControlRoad:
    """The module's daemon, with a modem that is as the scenario tells it."""
    wait_until(shared.agent.is_idle, "the modem has done what it was told")
    shared.agent.restore()
    return shared


@pytest.fixture
def quick(road: ControlRoad) -> ControlRoad:
    """The same, and the modem is done at once with all that it is told."""
    for name, text in TRIGGERS.items():
        road.agent.do(modem_says(text, name))
    return road


@pytest.fixture
def own(tmp_path: Path, agent: LabAgent) -> Iterator[ControlRoad]:
    """A daemon for the tests that end it, or the agent."""
    made = ControlRoad(tmp_path / "road", agent, polls=HOUR).wait_ready()
    yield made
    made.close()


def all_answers(road: ControlRoad) -> list[str]:
    """Second answers, each whole: two may have come in one message, or one in pieces."""
    text = b"".join(road.async_responses()).decode()
    found, place = [], 0
    while place < len(text):
        try:
            _, end = json.JSONDecoder().raw_decode(text, place)
        except ValueError:
            break
        found.append(text[place:end])
        place = end
    return found


def late_texts(road: ControlRoad, number: object) -> list[str]:
    """The responses of the second answers to this request."""
    start = f'{{"mac":"{GW_MAC}","requestId":{number},"response":'
    return [each[len(start) : -1] for each in all_answers(road) if each.startswith(start)]


def late_text(road: ControlRoad, number: object, timeout: float = PATIENCE) -> str:
    return wait_until(lambda: late_texts(road, number), "the child's answer", timeout)[0]


class Told:
    """The second answer to a command, and what its child warns or complains of."""

    def __init__(self, road: ControlRoad, command: str, params: object = None) -> None:
        log = road.bridge.log.mark()
        number = road.send(command, params)
        first = road.answer_to(number)
        assert first.text == f'{{"mac":"{GW_MAC}","requestId":{number},"response":{{"status":"ok"}}}}'
        self.response = late_text(road, number)
        (launched,) = road.bridge.log.find("launched process pid: [", after=log)
        self.child = int(launched.rsplit("[", 1)[1].rstrip("]"))
        lines = [LINE.search(line) for line in road.bridge.log.since(log)]
        self.lines = [(line[2], line[3]) for line in lines if line and int(line[1]) == self.child]
        self.complaints = [text for level, text in self.lines if level in ("WARN", "ERROR")]


def sets_of(road: ControlRoad) -> list[list[list[Any]]]:
    """Of each SET that was done: what it wrote, in its order."""
    return [entry["variables"] for entry in road.agent.sets() if entry["outcome"] == "done"]


def written(row: int, fields: dict[str, Any]) -> list[list[list[Any]]]:
    """The SETs of one profile, each with one value."""
    return [[[f"{name}.{row}", value]] for name, value in fields.items()]


def children(road: ControlRoad) -> list[int]:
    """Of the daemon, those that have ended and were not collected included."""
    tasks = Path(f"/proc/{road.bridge.process.pid}/task").iterdir()
    return [int(pid) for task in tasks for pid in (task / "children").read_text().split()]


def wait_collected(road: ControlRoad) -> None:
    """Children are collected when a message comes."""

    def is_alone() -> bool:
        road.command("isAnyoneThere")
        return children(road) == []

    wait_until(is_alone, "all children have ended and were collected")


def no_instance(name: str) -> dict[str, Any]:
    return {name: {"exception": "noSuchInstance"}}


# --- the two answers ---

PROFILES = (
    '{"PDPs":[{"profileName":"default","apnName":"iot.example","connectionType":0,"username":"",'
    '"password":"","authType":0,"cid":1,"idx":0},'
    '{"profileName":"spare","apnName":"backup.example","connectionType":2,"username":"gateway",'
    '"password":"secret","authType":2,"cid":2,"idx":1}],"status":"ok"}'
)


def test_a_profile_command_is_answered_at_once_and_again_when_it_is_done(road: ControlRoad) -> None:
    log = road.bridge.log.mark()
    number = road.send(LIST)
    assert road.answer_to(number).pairs[2] == ("response", [("status", "ok")])
    assert late_text(road, number) == PROFILES
    message = road.peer.messages[-1]
    assert (message.topic, message.retain) == (ASYNC_RESPONSES, False)
    assert message.payload.endswith(b"}")
    (launched,) = road.bridge.log.find("launched process pid: [", after=log)
    assert "[DEBUG ]" in launched
    assert road.bridge.log.find("slave process started", after=log)
    road.bridge.wait_for_log("response handler done", after=log)


def test_no_child_stays_after_its_answer(quick: ControlRoad) -> None:
    told = Told(quick, LIST)
    wait_collected(quick)
    assert not Path(f"/proc/{told.child}").exists()


@pytest.mark.parametrize(
    "number, told",
    [
        (2**63 - 1, 2**63 - 1),
        (-5, -5),
        (1.9, 1),
        ("17", 17),
        (True, 1),
        (None, 0),
        ("seven", 0),
        ([1], 0),
    ],
    ids=str,
)
def test_the_second_answer_has_the_requests_number_as_an_integer(
    quick: ControlRoad, number: object, told: int
) -> None:
    """What is no number counts as 0."""
    before = len(quick.async_responses())
    quick.publish(json.dumps(request(LIST, {}, number)).encode())
    wait_until(lambda: len(quick.async_responses()) > before, "the child's answer")
    assert json.loads(quick.async_responses()[before])["requestId"] == told


def test_profiles_are_added_changed_listed_and_removed(road: ControlRoad) -> None:
    """With a modem that takes its time."""
    new = {"profileName": "third", "apnName": "new.example"}
    assert Told(road, ADD, {"newPDPs": [new]}).response == '{"status":"ok"}'
    changed = {"idx": 0, "cid": 1, "profileName": "first", "apnName": "iot.example", "authType": 1}
    assert Told(road, MODIFY, {"existingPDPs": [changed]}).response == '{"status":"ok"}'
    assert Told(road, REMOVE, {"PDP_cids": [2]}).response == '{"status":"ok"}'
    assert Told(road, LIST).response == (
        '{"PDPs":[{"profileName":"first","apnName":"iot.example","connectionType":0,"username":"",'
        '"password":"","authType":1,"cid":1,"idx":0},'
        '{"profileName":"third","apnName":"new.example","connectionType":0,"username":"","password":"",'
        '"authType":0,"cid":3,"idx":1}],"status":"ok"}'
    )


# --- list ---


def test_a_list_starts_the_modems_read_waits_and_reads_the_rows(quick: ControlRoad) -> None:
    Told(quick, LIST)
    columns = "ProfileName ApnName ConnectionType UserName Password AuthType Cid".split()
    rows = [[f"wmPdp{column}.{row}" for column in columns] for row in (1, 2, 3)]
    requests = [(each["op"], each["variables"]) for each in quick.agent.requests()]
    assert requests == [("get", ["wmReadPdpProfile.0"]), ("get", [STATUS])] + [("get", row) for row in rows]


def profile(index: int, name: str = "p") -> dict[str, Any]:
    cells = {"ConnectionType": 1, "AuthType": 2, "Cid": 7, "ApnName": "a", "UserName": "u", "Password": "w"}
    named = {f"wmPdp{column}": value for column, value in cells.items()}
    return {"index": index, "wmPdpProfileName": name, **named}


def shown(name: str, idx: int) -> str:
    return (
        f'{{"profileName":"{name}","apnName":"a","connectionType":1,"username":"u","password":"w",'
        f'"authType":2,"cid":7,"idx":{idx}}}'
    )


@pytest.mark.parametrize(
    "rows, profiles",
    [
        ([], ""),
        ([profile(1), profile(3)], shown("p", 0)),
        ([profile(2)], ""),
        ([profile(1, "x" * 200), profile(2)], shown("x" * 200, 0) + "," + shown("p", 1)),
    ],
    ids=["none", "gap", "no first", "long name"],
)
def test_profiles_are_listed_up_to_the_first_gap(quick: ControlRoad, rows: list[Any], profiles: str) -> None:
    quick.agent.do({"put_rows": "wmPdpTable", "rows": rows})
    assert Told(quick, LIST).response == f'{{"PDPs":[{profiles}],"status":"ok"}}'


def test_a_list_longer_than_a_read_of_the_pipe_goes_out_in_pieces(quick: ControlRoad) -> None:
    rows = [profile(index, "x" * 200) for index in range(1, 16)]
    quick.agent.do({"put_rows": "wmPdpTable", "rows": rows})
    before = len(quick.async_responses())
    number = quick.send(LIST)
    expected = ",".join(shown("x" * 200, idx) for idx in range(15))
    whole = f'{{"mac":"{GW_MAC}","requestId":{number},"response":{{"PDPs":[{expected}],"status":"ok"}}}}'
    wait_until(lambda: b"".join(quick.async_responses()[before:]) == whole.encode(), "all pieces")
    assert [len(each) for each in quick.async_responses()[before:]] == [4096, len(whole) - 4096]


def failure(status: str, item: Optional[str] = None) -> str:
    failed = "" if item is None else f',"failed_apn":"{item}"'
    return f'{{"status":"{status}"{failed}}}'


@pytest.mark.parametrize(
    "said, faults, status, complaints",
    [
        ("", no_instance("wmReadPdpProfile.0"), NO_EXCHANGE, ["failed to start reading profiles"]),
        ("", no_instance(STATUS), NO_EXCHANGE, []),
        ("", {STATUS: {"error": "genErr"}}, NO_EXCHANGE, []),
        (
            "x" * 128,
            {},
            NO_EXCHANGE,
            ["buffer with size [128] is too small for requested property"],
        ),
        ("x" * 127, {}, NOT_DONE, ["operation failed with a status: " + "x" * 127]),
        ("Modem is busy", {}, NOT_DONE, ["operation failed with a status: Modem is busy"]),
        ("", {}, NOT_DONE, ["operation failed with a status: "]),
        ("Successfully", {}, NOT_DONE, ["operation failed with a status: Successfully"]),
        (AT_WORK + "!", {}, NOT_DONE, [f"operation failed with a status: {AT_WORK}!"]),
    ],
    ids=lambda value: str(value)[:30],
)
def test_a_list_that_fails_tells_the_error_and_no_profiles(
    quick: ControlRoad, said: str, faults: dict[str, Any], status: str, complaints: list[str]
) -> None:
    quick.agent.do(modem_says(said))
    quick.agent.do({"faults": faults})
    told = Told(quick, LIST)
    assert (told.response, told.complaints) == (failure(status), complaints)


@pytest.mark.parametrize("said", ["successfully", "done unsuccessfully", "x successfully y"])
def test_a_status_that_holds_the_word_is_success(quick: ControlRoad, said: str) -> None:
    quick.agent.do(modem_says(said))
    told = Told(quick, LIST)
    assert told.response == PROFILES
    assert ("TRACE", f"got status: {said}") in told.lines


def test_the_modem_is_asked_every_200_ms_until_it_is_done(road: ControlRoad) -> None:
    told = Told(road, LIST)
    times = [each["at_ms"] for each in road.agent.requests() if each["variables"] == [STATUS]]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert len(gaps) >= 2 and all(gap >= 199 for gap in gaps), gaps
    assert told.lines.count(("TRACE", f"got status: {AT_WORK}")) == len(times) - 1


# --- what adding and changing have in common ---

WHOLE: dict[str, Any] = {
    "authType": 2,
    "password": "secret",
    "username": "gateway",
    "connectionType": 1,
    "apnName": "whole.example",
    "profileName": "whole",
}
WHOLE_WRITES: dict[str, Any] = {
    "wmPdpProfileName": "whole",
    "wmPdpApnName": "whole.example",
    "wmPdpConnectionType": 1,
    "wmPdpUserName": "gateway",
    "wmPdpPassword": "secret",
    "wmPdpAuthType": 2,
}
LEAST: dict[str, Any] = {"profileName": "least", "apnName": "least.example"}
LEAST_WRITES: dict[str, Any] = {"wmPdpProfileName": "least", "wmPdpApnName": "least.example"}
NULLS: dict[str, Any] = {
    **LEAST,
    "connectionType": None,
    "username": None,
    "password": None,
    "authType": None,
}


class Writer:
    """One of the two commands that write profiles; what it writes starts with the profile in row 3."""

    def __init__(self, command: str, array: str, trigger: str) -> None:
        self.command = command
        self.array = array
        self.trigger = trigger

    def params(self, *profiles: Any) -> dict[str, Any]:
        if self.command == ADD:
            return {self.array: list(profiles)}
        named = [
            {"idx": 2 + place, "cid": 40, **each} if isinstance(each, dict) else each
            for place, each in enumerate(profiles)
        ]
        return {self.array: named}

    def trigger_write(self, row: int) -> list[list[Any]]:
        return [[self.trigger, 1 if self.command == ADD else row]]

    def item(self, apn: str, row: int) -> str:
        """How a failure names the profile."""
        return apn if self.command == ADD else str(row)


ADDING = Writer(ADD, "newPDPs", "wmAddPdpProfile.0")
MODIFYING = Writer(MODIFY, "existingPDPs", "wmModifyPdpProfile.0")
both = pytest.mark.parametrize("writer", [ADDING, MODIFYING], ids=["add", "modify"])


@both
@pytest.mark.parametrize(
    "profile, writes",
    [
        (WHOLE, WHOLE_WRITES),
        (LEAST, LEAST_WRITES),
        (NULLS, LEAST_WRITES),
        ({**LEAST, "authType": "3"}, {**LEAST_WRITES, "wmPdpAuthType": 3}),
        ({**LEAST, "username": 17}, {**LEAST_WRITES, "wmPdpUserName": "17"}),
        ({**LEAST, "profileName": None}, {**LEAST_WRITES, "wmPdpProfileName": ""}),
        ({**LEAST, "password": "x" * 500}, {**LEAST_WRITES, "wmPdpPassword": "x" * 500}),
        ({**LEAST, "apnName": "y" * 127}, {**LEAST_WRITES, "wmPdpApnName": "y" * 127}),
        ({**LEAST, "username": "a\0b", "else": [1]}, {**LEAST_WRITES, "wmPdpUserName": "a"}),
    ],
    ids=lambda value: str(value)[:60],
)
def test_a_profile_is_written_field_by_field_then_triggered(
    quick: ControlRoad, writer: Writer, profile: dict[str, Any], writes: dict[str, Any]
) -> None:
    told = Told(quick, writer.command, writer.params(profile))
    assert (told.response, told.complaints) == ('{"status":"ok"}', [])
    assert sets_of(quick) == written(3, writes) + [writer.trigger_write(3)]


def test_an_optional_field_that_is_missing_is_skipped_with_a_word(quick: ControlRoad) -> None:
    told = Told(quick, ADD, {"newPDPs": [{**LEAST, "password": None}]})
    skipped = [text for _, text in told.lines if text.startswith("skipping missing optional field: ")]
    assert [text.rsplit(" ", 1)[1] for text in skipped] == [
        "connectionType",
        "username",
        "password",
        "authType",
    ]
    assert len(quick.agent.sets()) == 3, "none without a value"


@both
def test_profiles_are_written_one_after_another(quick: ControlRoad, writer: Writer) -> None:
    told = Told(quick, writer.command, writer.params(WHOLE, LEAST))
    assert told.response == '{"status":"ok"}'
    assert sets_of(quick) == [
        *written(3, WHOLE_WRITES),
        writer.trigger_write(3),
        *written(4, LEAST_WRITES),
        writer.trigger_write(4),
    ]
    statuses = [each for each in quick.agent.requests() if each["variables"] == [STATUS]]
    assert len(statuses) == 2


@both
@pytest.mark.parametrize("column", WHOLE_WRITES)
def test_a_field_that_is_refused_ends_the_command(quick: ControlRoad, writer: Writer, column: str) -> None:
    """What came before it stays changed."""
    quick.agent.fault(f"{column}.4", error="genErr", on="set")
    second = {**WHOLE, "apnName": "second"}
    told = Told(quick, writer.command, writer.params(LEAST, second, LEAST))
    assert told.response == failure(NO_EXCHANGE, writer.item("second", 4))
    assert told.complaints == [IN_PACKET, SET_FAILED]
    first = written(3, LEAST_WRITES) + [writer.trigger_write(3)]
    done = list(WHOLE_WRITES).index(column)
    second_writes = {**WHOLE_WRITES, "wmPdpApnName": "second"}
    assert sets_of(quick) == first + written(4, second_writes)[:done]


@both
def test_a_refused_trigger_ends_the_command(quick: ControlRoad, writer: Writer) -> None:
    message = {
        ADD: "failed to trigger new PDP profile creation",
        MODIFY: "failed to trigger PDP profile modification ",
    }
    quick.agent.fault(writer.trigger, error="genErr", on="set", after=1)
    told = Told(quick, writer.command, writer.params(LEAST, WHOLE, LEAST))
    assert told.response == failure(NO_EXCHANGE, writer.item("whole.example", 4))
    assert told.complaints == [IN_PACKET, message[writer.command]]
    assert sets_of(quick)[-1] == written(4, WHOLE_WRITES)[-1]


@both
def test_a_modem_that_fails_ends_the_command(quick: ControlRoad, writer: Writer) -> None:
    """A change tells of another error than an addition."""
    quick.agent.do(modem_says("No memory left", writer.trigger))
    told = Told(quick, writer.command, writer.params(LEAST, WHOLE))
    status = NOT_DONE if writer is ADDING else NO_EXCHANGE
    assert told.response == failure(status, writer.item("least.example", 3))
    assert told.complaints == ["operation failed with a status: No memory left"]
    assert sets_of(quick) == written(3, LEAST_WRITES) + [writer.trigger_write(3)]


@both
def test_a_status_that_cannot_be_read_ends_the_command(quick: ControlRoad, writer: Writer) -> None:
    quick.agent.fault(STATUS, exception="noSuchInstance", after=1)
    told = Told(quick, writer.command, writer.params(LEAST, WHOLE, LEAST))
    assert told.response == failure(NO_EXCHANGE, writer.item("whole.example", 4))
    assert sets_of(quick)[-1] == writer.trigger_write(4)


@both
@pytest.mark.parametrize(
    "profile, complaints, done",
    [
        ({"apnName": "b"}, ["no such field: profileName"], 0),
        ({**LEAST, "profileName": {}, "apnName": "b"}, ["incorrect field type: 0x4"], 0),
        ({**LEAST, "username": [], "apnName": "b"}, ["incorrect field type: 0x5"], 2),
        ({**LEAST, "authType": {}, "apnName": "b"}, ["incorrect field type: 0x4"], 2),
    ],
    ids=["no name", "object", "array", "object for a number"],
)
def test_a_field_of_the_wrong_kind_ends_the_command(
    quick: ControlRoad, writer: Writer, profile: dict[str, Any], complaints: list[str], done: int
) -> None:
    told = Told(quick, writer.command, writer.params(profile, WHOLE))
    assert told.response == failure(NO_EXCHANGE, writer.item("b", 3))
    assert told.complaints == [*complaints, "failed to add property to PDU", SET_FAILED]
    assert len(sets_of(quick)) == done


@both
def test_no_profiles_are_no_failure(quick: ControlRoad, writer: Writer) -> None:
    assert Told(quick, writer.command, writer.params()).response == '{"status":"ok"}'
    assert sets_of(quick) == []


# --- add ---


def test_new_profiles_come_behind_the_counted_ones(quick: ControlRoad) -> None:
    """Counted once, before the first: the modem's own count may lag."""
    quick.agent.set({"wmPdpProfileCount.0": 6})
    assert Told(quick, ADD, {"newPDPs": [LEAST, LEAST]}).response == '{"status":"ok"}'
    rows = [name for each in sets_of(quick) for name, _ in each if name.startswith("wmPdpProfileName")]
    assert rows == ["wmPdpProfileName.7", "wmPdpProfileName.8"]
    requests = [each["variables"] for each in quick.agent.requests()]
    assert requests.count(["wmPdpProfileCount.0"]) == 1 and requests[0] == ["wmPdpProfileCount.0"]


@pytest.mark.parametrize(
    "profile",
    [
        {"profileName": "p"},
        {"profileName": "p", "apnName": None},
        {"profileName": "p", "apnName": "y" * 128},
        {"profileName": "p", "apnName": "y" * 100000},
        {},
        None,
        7,
        "apnName",
        [],
    ],
    ids=lambda value: str(value)[:40],
)
def test_a_new_profile_without_an_apn_is_not_valid(quick: ControlRoad, profile: Any) -> None:
    told = Told(quick, ADD, {"newPDPs": [LEAST, profile, WHOLE]})
    assert told.response == failure(NOT_VALID, "")
    assert sets_of(quick) == written(3, LEAST_WRITES) + [ADDING.trigger_write(3)]


def test_an_apn_that_is_no_text_is_named_and_written_as_one(quick: ControlRoad) -> None:
    quick.agent.do(modem_says("no"))
    told = Told(quick, ADD, {"newPDPs": [{"profileName": True, "apnName": 1.5}]})
    assert told.response == failure(NOT_DONE, "1.5")
    assert sets_of(quick)[:2] == written(3, {"wmPdpProfileName": "true", "wmPdpApnName": "1.5"})


# --- modify ---


def existing(**changes: Any) -> dict[str, Any]:
    return {"idx": 0, "cid": 9, **LEAST, **changes}


@pytest.mark.parametrize(
    "changes, row",
    [({"idx": 1}, 2), ({"idx": "1"}, 2), ({"idx": None}, 1), ({"idx": 1.9}, 2), ({"cid": "x"}, 1)],
    ids=str,
)
def test_a_profile_is_changed_in_the_row_behind_its_index(
    quick: ControlRoad, changes: dict[str, Any], row: int
) -> None:
    """The CID is asked for, and not used."""
    told = Told(quick, MODIFY, {"existingPDPs": [existing(**changes)]})
    assert (told.response, told.complaints) == ('{"status":"ok"}', [])
    assert sets_of(quick) == written(row, LEAST_WRITES) + [MODIFYING.trigger_write(row)]


@pytest.mark.parametrize(
    "profile", [{"cid": 1, **LEAST}, {"idx": 1, **LEAST}, {}, None, 7, "idx", []], ids=str
)
def test_a_profile_without_its_numbers_is_not_valid(quick: ControlRoad, profile: Any) -> None:
    told = Told(quick, MODIFY, {"existingPDPs": [existing(), profile, existing()]})
    assert told.response == failure(NOT_VALID, "")
    assert told.complaints[-1] == "failed to de-serialize parameters"
    assert sets_of(quick) == written(1, LEAST_WRITES) + [MODIFYING.trigger_write(1)]


@pytest.mark.parametrize(
    "idx, row",
    [
        (-1, "0"),
        (-2, "-1"),
        (2**31, str(2**31 + 1)),
        (2**63 - 1, str(-(2**63))),
        (-(2**63), str(1 - 2**63)),
    ],
    ids=str,
)
def test_an_index_of_no_row_ends_the_command(quick: ControlRoad, idx: int, row: str) -> None:
    """Reading a profile makes no row, and an agent makes none at such a place."""
    quick.agent.do({"faults": {"wmPdpProfileName": {"error": "noCreation", "on": "set"}}})
    told = Told(quick, MODIFY, {"existingPDPs": [existing(idx=idx)]})
    assert told.response == failure(NO_EXCHANGE, row)
    assert sets_of(quick) == []


# --- remove ---


def test_profiles_are_removed_one_after_another(quick: ControlRoad) -> None:
    told = Told(quick, REMOVE, {"PDP_cids": [2, 1, -3]})
    assert (told.response, told.complaints) == ('{"status":"ok"}', [])
    assert sets_of(quick) == [[["wmRemovePdpProfile.0", cid]] for cid in (2, 1, -3)]
    statuses = [each for each in quick.agent.requests() if each["variables"] == [STATUS]]
    assert len(statuses) == 3


def test_no_cids_are_no_failure(quick: ControlRoad) -> None:
    assert Told(quick, REMOVE, {"PDP_cids": []}).response == '{"status":"ok"}'
    assert quick.agent.requests() == []


@pytest.mark.parametrize(
    "cid, item",
    [
        ("2", "2"),
        (2.0, "2.0"),
        (None, "null"),
        (True, "true"),
        ("two", "two"),
        ("", ""),
        ([2], "[ 2 ]"),
        ({}, "{ }"),
    ],
    ids=str,
)
def test_a_cid_that_is_no_integer_stops_the_removal_there(quick: ControlRoad, cid: Any, item: str) -> None:
    """Those before it stay removed."""
    told = Told(quick, REMOVE, {"PDP_cids": [2, cid, 1]})
    assert told.response == failure(NOT_VALID, item)
    assert told.complaints == ["invalid CID type - expecting integer"]
    assert sets_of(quick) == [[["wmRemovePdpProfile.0", 2]]]


@pytest.mark.parametrize(
    "name, how, complaints",
    [
        ("wmRemovePdpProfile.0", {"error": "genErr", "on": "set"}, [IN_PACKET]),
        (STATUS, {"exception": "noSuchInstance"}, []),
    ],
    ids=["trigger", "status"],
)
def test_a_removal_that_fails_tells_its_cid(
    quick: ControlRoad, name: str, how: dict[str, Any], complaints: list[str]
) -> None:
    quick.agent.fault(name, after=1, **how)
    told = Told(quick, REMOVE, {"PDP_cids": [2, 31, 1]})
    assert (told.response, told.complaints) == (failure(NO_EXCHANGE, "31"), complaints)


def test_a_removal_that_the_modem_fails_tells_its_cid(quick: ControlRoad) -> None:
    quick.agent.do(modem_says("No such profile", "wmRemovePdpProfile.0"))
    told = Told(quick, REMOVE, {"PDP_cids": [31, 1]})
    assert told.response == failure(NOT_DONE, "31")
    assert told.complaints == ["operation failed with a status: No such profile"]
    assert sets_of(quick) == [[["wmRemovePdpProfile.0", 31]]]


# --- requests with nothing to work on ---

NO_PARAMETERS = "failed to parse incoming parameters"
NO_ARRAY = "failed to parse incoming PDP array"


def twice_answered(road: ControlRoad, command: str, params: object) -> list[str]:
    """What the child of a command that fails early says. The request is answered a second time, then without
    a response, and nothing comes from the child."""
    road.settle()
    mark, log, before = road.peer.mark(), road.bridge.log.mark(), len(road.async_responses())
    road.publish(json.dumps(request(command, params, 5)).encode())
    wait_until(lambda: len(road.answers(mark)) == 2, "two answers")
    whole = f'{{"mac":"{GW_MAC}","requestId":5'
    assert [each.text for each in road.answers(mark)] == [
        whole + ',"response":{"status":"ok"}}',
        whole + "}",
    ]
    (launched,) = road.bridge.log.find("launched process pid: [", after=log)
    child = launched.rsplit("[", 1)[1].rstrip("]")
    lines = [LINE.search(line) for line in road.bridge.log.since(log)]
    wait_collected(road)
    assert len(road.async_responses()) == before
    return [line[3] for line in lines if line and line[1] == child and line[2] in ("WARN", "ERROR")]


@pytest.mark.parametrize(
    "command, key, message",
    [
        (ADD, "newPDPs", NO_PARAMETERS),
        (MODIFY, "existingPDPs", NO_ARRAY),
        (REMOVE, "PDP_cids", NO_PARAMETERS),
    ],
)
@pytest.mark.parametrize(
    "params",
    [
        "null",
        "[]",
        '"text"',
        "7",
        "{}",
        '{"@": null}',
        '{"@": {"0": 1}}',
        '{"@": "[]"}',
        '{"@": 1}',
        '{"@s": []}',
    ],
)
def test_a_request_without_its_array_is_answered_twice(
    quick: ControlRoad, command: str, key: str, message: str, params: str
) -> None:
    assert twice_answered(quick, command, json.loads(params.replace("@", key))) == [message]
    assert quick.agent.requests() == []


def test_profiles_that_cannot_be_counted_are_not_added(quick: ControlRoad) -> None:
    quick.agent.do({"faults": no_instance("wmPdpProfileCount.0")})
    assert twice_answered(quick, ADD, {"newPDPs": [LEAST]}) == ["failed to get PDP count"]
    assert sets_of(quick) == []


def test_a_list_looks_at_no_parameters(quick: ControlRoad) -> None:
    for params in ([], "text", 7, {"PDPs": None}):
        assert Told(quick, LIST, params).response == PROFILES


# --- side by side, and ends in the middle ---


def test_two_profile_commands_run_side_by_side(road: ControlRoad) -> None:
    """The modem's status is the same for both: the second read starts it anew."""
    wait_collected(road)
    first = road.send(LIST)
    second = road.send(LIST)
    wait_until(lambda: len(children(road)) == 2, "two children at once")
    assert late_text(road, first) == PROFILES
    assert late_text(road, second) == PROFILES


def test_commands_go_on_while_a_child_waits(road: ControlRoad) -> None:
    road.agent.do(modem_says(AT_WORK))
    number = road.send(LIST)
    road.answer_to(number)
    wait_until(lambda: len(road.agent.requests()) >= 2, "the child waits for the modem")
    assert road.command("getSimStatus").response == "SIM ready"
    assert late_texts(road, number) == []
    road.agent.set({STATUS: "read successfully"})
    assert late_text(road, number) == PROFILES


@pytest.mark.waits_long
def test_an_agent_that_goes_away_in_the_middle_is_an_error(own: ControlRoad, agent: LabAgent) -> None:
    """Six datagrams go unanswered."""
    agent.do(modem_says(AT_WORK))
    number = own.send(LIST)
    wait_until(
        lambda: len([each for each in agent.requests() if each["variables"] == [STATUS]]) > 1, "a wait"
    )
    agent.kill()
    assert late_text(own, number, timeout=60) == failure(NO_EXCHANGE)


def inet_sockets(pid: int) -> list[str]:
    """Addresses of a process's own sockets, as the kernel shows them."""
    inodes = set()
    for fd in Path(f"/proc/{pid}/fd").iterdir():
        target = str(fd.readlink())
        if target.startswith("socket:["):
            inodes.add(target[8:-1])
    found = []
    for kind in ("tcp", "udp", "tcp6", "udp6"):
        for line in Path(f"/proc/{pid}/net/{kind}").read_text().splitlines()[1:]:
            fields = line.split()
            if fields[9] in inodes:
                found.append(f"{kind} {fields[1]}")
    return found


def stop_at_once(road: ControlRoad) -> None:
    """The daemon ends while its log stays open in its child. A signal just before a sleep does not end that
    sleep, so it is sent again."""

    def has_ended() -> bool:
        if road.bridge.running():
            road.bridge.process.send_signal(signal.SIGUSR2)
        return not road.bridge.running()

    wait_until(has_ended, "the daemon ends", timeout=5, step=0.2)


def test_a_daemon_that_stops_leaves_its_child_and_all_its_ports(own: ControlRoad, agent: LabAgent) -> None:
    agent.do(modem_says(AT_WORK))
    log = own.bridge.log.mark()
    own.answer_to(own.send(LIST))
    own.bridge.wait_for_log(f"got status: {AT_WORK}", after=log)
    (child,) = children(own)
    held = inet_sockets(own.bridge.process.pid)
    kept = inet_sockets(child)
    assert len(held) > 1 and len(kept) == 1 and kept[0] not in held, (held, kept)
    stop_at_once(own)
    assert Path(f"/proc/{child}").exists(), "the child still waits for the modem"
    agent.set({STATUS: "read successfully"})
    assert own.bridge.wait_exit() == 0
    assert own.bridge.log.find("failed to open pipe for sending async response: No such device or address")
    assert own.bridge.log.find("failed to prepare and send async response")
