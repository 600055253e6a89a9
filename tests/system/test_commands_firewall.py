"""Commands of the firewall: its document, read and written."""
import json
from typing import Any, Iterator

import pytest

from command_outcome import (
    ANY_PARAMS,
    GONE,
    NO_OBJECT,
    REFUSED,
    REFUSED_TEXT,
    SCENARIO,
    Outcome,
    quiet_road,
    restore,
    run,
)
from harness.control import ControlRoad

pytestmark = pytest.mark.xdist_group("commands_firewall")

TABLE = "firewallFiltersTable"


def put_filters(road: ControlRoad, rows: list[dict[str, Any]]) -> None:
    road.agent.do({"put_rows": TABLE, "rows": rows})


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    with quiet_road(tmp_path_factory) as road:
        yield road


@pytest.fixture
def road(shared: ControlRoad) -> Iterator[ControlRoad]:
    """Its agent is as the scenario tells again after each test."""
    yield shared
    restore(shared, "firewall")
    put_filters(shared, SCENARIO["tables"][TABLE]["rows"])


# --- the firewall, read ---

SCALARS = [
    "firewallEnabled.0",
    "firewallPingEnabled.0",
    "firewallPingLimitEnabled.0",
    "firewallPingPerMinLimit.0",
    "firewallPingBurstLimit.0",
    "firewallSshEnabled.0",
    "firewallDoSPreventionEnabled.0",
    "firewallDoSPreventionPerMinLimit.0",
    "firewallDoSPreventionBurstLimit.0",
]
COLUMNS = [
    ("name", "firewallFiltersName"),
    ("description", "firewallFiltersDescription"),
    ("chain", "firewallFiltersChain"),
    ("dstAddr", "firewallFiltersDstAddr"),
    ("dstInterface", "firewallFiltersDstInterface"),
    ("dstMask", "firewallFiltersDstMask"),
    ("dstPort", "firewallFiltersDstPort"),
    ("enabled", "firewallFiltersEnabled"),
    ("protocol", "firewallFiltersProtocol"),
    ("srcAddr", "firewallFiltersSrcAddr"),
    ("srcInterface", "firewallFiltersSrcInterface"),
    ("srcMac", "firewallFiltersSrcMac"),
    ("srcMask", "firewallFiltersSrcMask"),
    ("srcPort", "firewallFiltersSrcPort"),
    ("target", "firewallFiltersTarget"),
    ("removeFilter", "firewallFiltersRemoveFilter"),
]
FLAGS = ("enabled", "removeFilter")
REFRESH = ["firewallUpdateExecute.0", 1000001]
APPLY = ["firewallUpdateExecute.0", 1000002]


def cells(number: int) -> dict[str, Any]:
    """A row of the agent's, each cell with a value of its own."""
    return {column: number % 2 if key in FLAGS else f"{key}{number}" for key, column in COLUMNS}


def filter_of(number: int) -> dict[str, Any]:
    """The same row as the server sees it."""
    return {key: number % 2 == 1 if key in FLAGS else f"{key}{number}" for key, _ in COLUMNS}


def firewall(filters: object) -> dict[str, Any]:
    """The document, with other values than the scenario's."""
    return {
        "enabled": False,
        "doSPrevention": {"enabled": True, "perMinLimit": 61, "burstLimit": 21},
        "ssh": {"enabled": False},
        "ping": {"enabled": True, "limit": {"enabled": False, "pingPerMinLimit": 31, "pingBurstLimit": 11}},
        "filters": filters,
    }


SCALAR_VALUES = [0, 1, 0, 31, 11, 0, 1, 61, 21]


def compact(value: object) -> str:
    return json.dumps(value, separators=(",", ":"))


def test_the_firewall_to_the_letter(road: ControlRoad) -> None:
    assert run(road, "getFirewallConfiguration") == Outcome(
        '{"enabled":true,"doSPrevention":{"enabled":true,"perMinLimit":60,"burstLimit":20},'
        '"ssh":{"enabled":true},"ping":{"enabled":true,"limit":{"enabled":true,"pingPerMinLimit":30,'
        '"pingBurstLimit":10}},"filters":[{"name":"web","description":"local web page","chain":"INPUT",'
        '"dstAddr":"","dstInterface":"eth0","dstMask":"","dstPort":"443","enabled":true,"protocol":"tcp",'
        '"srcAddr":"192.0.2.0","srcInterface":"","srcMac":"","srcMask":"255.255.255.0","srcPort":"",'
        '"target":"ACCEPT","removeFilter":false}]}',
        [],
        [[REFRESH]],
    )


@pytest.mark.parametrize("params", ANY_PARAMS, ids=str)
def test_reading_the_firewall_needs_no_parameters(road: ControlRoad, params: object) -> None:
    outcome = run(road, "getFirewallConfiguration", params)
    assert outcome.response and outcome == run(road, "getFirewallConfiguration")


def test_the_agent_refreshes_before_it_is_read_in_order(road: ControlRoad) -> None:
    run(road, "getFirewallConfiguration")
    rows = [[f"{column}.{row}" for _, column in COLUMNS] for row in (1, 2)]
    requests = road.agent.requests()
    assert [each["op"] for each in requests] == ["set", "get", "get", "get"]
    assert [each["variables"] for each in requests] == [[REFRESH], SCALARS, *rows]


def test_every_value_of_the_firewall_has_its_own_place(road: ControlRoad) -> None:
    road.agent.set(dict(zip(SCALARS, SCALAR_VALUES)))
    put_filters(road, [cells(1), cells(2), cells(3)])
    outcome = run(road, "getFirewallConfiguration")
    assert outcome.response == compact(firewall([filter_of(1), filter_of(2), filter_of(3)]))


@pytest.mark.parametrize("place", range(len(SCALARS)))
def test_each_scalar_is_read_on_its_own(road: ControlRoad, place: int) -> None:
    """One after another is switched over; a limit may be of either sign."""
    values = list(SCALAR_VALUES)
    values[place] = -7 if values[place] > 1 else 1 - values[place]
    road.agent.set(dict(zip(SCALARS, values)))
    put_filters(road, [])
    document = json.loads(run(road, "getFirewallConfiguration").response)
    ping, dos = document["ping"], document["doSPrevention"]
    limit = ping["limit"]
    flat = [document["enabled"], ping["enabled"], limit["enabled"], limit["pingPerMinLimit"]]
    flat += [limit["pingBurstLimit"], document["ssh"]["enabled"]]
    flat += [dos["enabled"], dos["perMinLimit"], dos["burstLimit"]]
    assert flat == values and document["filters"] == []


def test_flags_of_any_number_but_0_are_true(road: ControlRoad) -> None:
    road.agent.set({"firewallEnabled.0": -1, "firewallSshEnabled.0": 2})
    put_filters(road, [{**cells(2), "firewallFiltersRemoveFilter": 7, "firewallFiltersEnabled": -1}])
    response = run(road, "getFirewallConfiguration").response
    assert response.startswith('{"enabled":true,') and '"ssh":{"enabled":true}' in response
    assert '"dstPort":"dstPort2","enabled":true' in response and '"removeFilter":true}' in response


@pytest.mark.parametrize("rows", [[], [1, 2, 4], [2], [1, 3]], ids=str)
def test_filters_are_read_up_to_the_first_missing_index(road: ControlRoad, rows: list[int]) -> None:
    put_filters(road, [{"index": row, **cells(row)} for row in rows])
    whole = [row for place, row in enumerate(rows) if row == place + 1]
    response = json.loads(run(road, "getFirewallConfiguration").response)
    assert response["filters"] == [filter_of(row) for row in whole]


@pytest.mark.parametrize("column", [column for _, column in COLUMNS])
def test_a_filter_that_lacks_a_cell_ends_the_table(road: ControlRoad, column: str) -> None:
    put_filters(road, [cells(1), cells(2), cells(3)])
    road.agent.fault(f"{column}.2", **GONE)
    response = json.loads(run(road, "getFirewallConfiguration").response)
    assert response["filters"] == [filter_of(1)]


def test_texts_of_filters_come_whole(road: ControlRoad) -> None:
    texts = ["x" * 40, "y" * 5000, 'quote " \\ \n', "Schlüssel €", "%s%n"]
    put_filters(road, [{**cells(2), "firewallFiltersDescription": text} for text in texts])
    response = json.loads(run(road, "getFirewallConfiguration").response)
    assert [row["description"] for row in response["filters"]] == texts


def test_a_refused_refresh_ends_the_read_of_the_firewall(road: ControlRoad) -> None:
    road.agent.fault("firewallUpdateExecute.0", **REFUSED)
    outcome = run(road, "getFirewallConfiguration")
    assert outcome.response == ""
    assert outcome.complaints == [REFUSED_TEXT, "ERROR failed to toggle firewall SNMP read"]
    assert len(road.agent.requests()) == 1


@pytest.mark.parametrize("name", SCALARS)
def test_without_one_scalar_there_is_no_firewall(road: ControlRoad, name: str) -> None:
    road.agent.fault(name, **GONE)
    wanted = [f"{NO_OBJECT}OID: {name}", "ERROR failed to get firewall SNMP properties"]
    assert run(road, "getFirewallConfiguration") == Outcome("", wanted, [[REFRESH]])


# --- the firewall, written ---

SCALARS_SET: list[list[Any]] = [[name, value] for name, value in zip(SCALARS, SCALAR_VALUES)] + [APPLY]


def names_set(*names: tuple[int, str]) -> list[list[list[Any]]]:
    return [[[f"firewallFiltersName.{row}", name]] for row, name in names]


def row_set(row: int, number: int) -> list[list[Any]]:
    return [[f"{column}.{row}", value] for column, value in cells(number).items()]


def write(road: ControlRoad, filters: object) -> Outcome:
    return run(road, "setFirewallConfiguration", firewall(filters))


def test_names_go_first_then_whole_rows_then_the_scalars_with_apply_last(road: ControlRoad) -> None:
    outcome = write(road, [filter_of(3), filter_of(4)])
    assert (outcome.response, outcome.complaints) == ("", [])
    assert outcome.sets == [*names_set((1, "name3"), (2, "name4")), row_set(1, 3), row_set(2, 4), SCALARS_SET]


def test_the_order_of_keys_in_the_document_does_not_matter(road: ControlRoad) -> None:
    turned = dict(reversed(firewall([dict(reversed(filter_of(4).items()))]).items()))
    outcome = run(road, "setFirewallConfiguration", turned)
    assert outcome.sets == [*names_set((1, "name4")), row_set(1, 4), SCALARS_SET]


def test_what_was_written_is_read_again(road: ControlRoad) -> None:
    document = firewall([{**filter_of(number), "removeFilter": False} for number in range(1, 6)])
    run(road, "setFirewallConfiguration", document)
    assert run(road, "getFirewallConfiguration").response == compact(document)


def test_without_filters_in_the_array_the_scalars_are_applied(road: ControlRoad) -> None:
    assert write(road, []) == Outcome("", [], [SCALARS_SET])
    assert len(road.agent.rows(TABLE)) == 1


def test_rows_beyond_the_array_stay_as_they_are(road: ControlRoad) -> None:
    put_filters(road, [cells(2), cells(4), cells(6)])
    before = road.agent.rows(TABLE)
    write(road, [filter_of(8)])
    after = road.agent.rows(TABLE)
    assert after[1:] == before[1:] and len(after) == 3
    assert after[0]["firewallFiltersName"] == "name8"


def test_a_filter_marked_for_removal_is_dropped_by_the_agent(road: ControlRoad) -> None:
    rows = [filter_of(2), {**filter_of(4), "removeFilter": True}, filter_of(6)]
    assert write(road, rows).complaints == []
    assert [row["firewallFiltersName"] for row in road.agent.rows(TABLE)] == ["name2", "name6"]


def test_a_hundred_filters_are_written(road: ControlRoad) -> None:
    document = firewall([{**filter_of(number), "removeFilter": False} for number in range(100)])
    outcome = run(road, "setFirewallConfiguration", document)
    assert len(outcome.sets) == 100 + 100 + 1
    assert run(road, "getFirewallConfiguration").response == compact(document)


REQUIRED: dict[str, Any] = {"name": "a", "chain": "INPUT"}


@pytest.mark.parametrize("left_out", [key for key, _ in COLUMNS if key not in REQUIRED])
@pytest.mark.parametrize("null", [False, True], ids=["absent", "null"])
def test_an_optional_key_of_a_filter_may_be_left_out(road: ControlRoad, left_out: str, null: bool) -> None:
    row = {key: value for key, value in filter_of(1).items() if key != left_out}
    outcome = write(road, [{**row, left_out: None} if null else row])
    assert outcome.complaints == []
    assert outcome.sets[1] == [
        [f"{column}.1", value] for (key, column), value in zip(COLUMNS, cells(1).values()) if key != left_out
    ]


def test_a_null_for_a_required_key_is_written_as_an_empty_text(road: ControlRoad) -> None:
    outcome = write(road, [{"name": None, "chain": None}])
    name = ["firewallFiltersName.1", ""]
    assert outcome == Outcome("", [], [[name], [name, ["firewallFiltersChain.1", ""]], SCALARS_SET])


@pytest.mark.parametrize(
    "key, value, written",
    [
        ("name", 7, "7"),
        ("name", True, "true"),
        ("chain", -1.5, "-1.5"),
        ("name", "a\0b", "a"),
        ("name", '"x"', '"x"'),
        ("description", "Schlüssel €", "Schlüssel €"),
        ("description", "0x4142", "0x4142"),
        ("target", "", ""),
        ("target", "y" * 5000, "y" * 5000),
        ("enabled", 0, 0),
        ("enabled", 2, 1),
        ("enabled", "", 0),
        ("enabled", "false", 1),
        ("removeFilter", 0.0, 0),
        ("enabled", 0.1, 1),
    ],
    ids=lambda each: repr(each)[:20],
)
def test_values_of_a_filter_take_the_form_of_their_column(
    road: ControlRoad, key: str, value: object, written: object
) -> None:
    outcome = write(road, [{**REQUIRED, key: value}])
    assert outcome.complaints == []
    assert [f"{dict(COLUMNS)[key]}.1", written] in outcome.sets[1]


NOT_SET = "ERROR failed to set table properties"
NOT_WRITTEN = ["ERROR failed to add property to PDU", NOT_SET]


@pytest.mark.parametrize(
    "row, complaint",
    [
        ({"chain": "INPUT"}, "no such field: name"),
        ({}, "no such field: name"),
        (None, "no such field: name"),
        ([], "no such field: name"),
        ("name", "no such field: name"),
        (5, "no such field: name"),
        ({**REQUIRED, "name": ["a"]}, "incorrect field type: 0x5"),
        ({**REQUIRED, "name": {"a": 1}}, "incorrect field type: 0x4"),
    ],
    ids=str,
)
def test_a_filter_without_a_name_ends_the_write_at_its_name(
    road: ControlRoad, row: object, complaint: str
) -> None:
    outcome = write(road, [filter_of(2), row, filter_of(4)])
    wanted = [f"ERROR {complaint}", *NOT_WRITTEN, "ERROR failed to set filter fields for pre-allocation"]
    assert outcome == Outcome("", wanted, names_set((1, "name2")))


@pytest.mark.parametrize(
    "row, complaint",
    [
        ({"name": "a"}, "no such field: chain"),
        ({**REQUIRED, "chain": []}, "incorrect field type: 0x5"),
        ({**REQUIRED, "target": {}}, "incorrect field type: 0x4"),
        ({**REQUIRED, "enabled": [1]}, "incorrect field type: 0x5"),
    ],
    ids=str,
)
def test_a_filter_without_a_chain_ends_the_write_after_its_name_was_written(
    road: ControlRoad, row: object, complaint: str
) -> None:
    outcome = write(road, [filter_of(2), row, filter_of(4)])
    wanted = [f"ERROR {complaint}", *NOT_WRITTEN, "ERROR failed to set filter fields"]
    names = names_set((1, "name2"), (2, "a"), (3, "name4"))
    assert outcome == Outcome("", wanted, [*names, row_set(1, 2)])


@pytest.mark.parametrize("filters", [None, {}, {"0": REQUIRED}, "filters", "", 0, 5, True, 1.5], ids=repr)
def test_filters_of_another_kind_are_missing(road: ControlRoad, filters: object) -> None:
    assert write(road, filters) == Outcome("", ["ERROR missing filter array in incoming JSON"], [])


def test_a_document_without_filters_is_not_written(road: ControlRoad) -> None:
    document = firewall([])
    del document["filters"]
    outcome = run(road, "setFirewallConfiguration", document)
    assert outcome == Outcome("", ["ERROR missing filter array in incoming JSON"], [])


PLACES = [
    ("enabled",),
    ("doSPrevention",),
    ("doSPrevention", "enabled"),
    ("doSPrevention", "perMinLimit"),
    ("doSPrevention", "burstLimit"),
    ("ssh",),
    ("ssh", "enabled"),
    ("ping",),
    ("ping", "enabled"),
    ("ping", "limit"),
    ("ping", "limit", "enabled"),
    ("ping", "limit", "pingPerMinLimit"),
    ("ping", "limit", "pingBurstLimit"),
]
GROUPS = [place for place in PLACES if place[-1] in ("doSPrevention", "ssh", "ping", "limit")]
NOT_A_FIREWALL = ["WARN unable to retrieve field", "ERROR failed to de-serialize filter parameters"]


def parent_of(document: dict[str, Any], place: tuple[str, ...]) -> dict[str, Any]:
    for key in place[:-1]:
        document = document[key]
    return document


@pytest.mark.parametrize("place", PLACES, ids=".".join)
def test_a_document_that_lacks_a_key_is_not_written(road: ControlRoad, place: tuple[str, ...]) -> None:
    document = firewall([filter_of(2)])
    del parent_of(document, place)[place[-1]]
    assert run(road, "setFirewallConfiguration", document) == Outcome("", NOT_A_FIREWALL, [])


@pytest.mark.parametrize("value", [None, [], "enabled", 5, True, {}], ids=str)
@pytest.mark.parametrize("place", GROUPS, ids=".".join)
def test_a_group_of_another_kind_is_not_written(
    road: ControlRoad, place: tuple[str, ...], value: object
) -> None:
    document = firewall([filter_of(2)])
    parent_of(document, place)[place[-1]] = value
    assert run(road, "setFirewallConfiguration", document) == Outcome("", NOT_A_FIREWALL, [])


@pytest.mark.parametrize("params", [None, [], [{}], "enabled", 5, True, {}], ids=str)
def test_params_of_another_kind_are_no_firewall(road: ControlRoad, params: object) -> None:
    wanted = NOT_A_FIREWALL[1:] if params is None else NOT_A_FIREWALL
    assert run(road, "setFirewallConfiguration", params) == Outcome("", wanted, [])


@pytest.mark.parametrize(
    "value, flag, number",
    [
        ("x", 1, 0),
        ("", 0, 0),
        ("17", 1, 17),
        (None, 0, 0),
        ([1], 0, 0),
        ({}, 0, 0),
        (0, 0, 0),
        (-3, 1, -3),
        (2.9, 1, 2),
        (True, 1, 1),
    ],
    ids=repr,
)
def test_scalars_are_read_out_of_any_value(road: ControlRoad, value: object, flag: int, number: int) -> None:
    document = firewall([])
    for place in PLACES:
        if place not in GROUPS:
            parent_of(document, place)[place[-1]] = value
    flags = [flag, flag, flag, number, number, flag, flag, number, number]
    scalars = [[name, each] for name, each in zip(SCALARS, flags)]
    assert run(road, "setFirewallConfiguration", document) == Outcome("", [], [[*scalars, APPLY]])


@pytest.mark.parametrize(
    "refused, done, complaints",
    [
        ("firewallFiltersName.2", 1, [NOT_SET, "ERROR failed to set filter fields for pre-allocation"]),
        ("firewallFiltersTarget.2", 3, [NOT_SET, "ERROR failed to set filter fields"]),
        ("firewallEnabled.0", 4, ["ERROR failed to set firewall SNMP properties"]),
        ("firewallUpdateExecute.0", 4, ["ERROR failed to set firewall SNMP properties"]),
    ],
)
def test_a_refused_step_ends_the_write(
    road: ControlRoad, refused: str, done: int, complaints: list[str]
) -> None:
    road.agent.fault(refused, **REFUSED)
    outcome = write(road, [filter_of(2), filter_of(4)])
    assert outcome.response == ""
    assert outcome.complaints == [REFUSED_TEXT, *complaints]
    assert [each["outcome"] for each in road.agent.sets()] == ["done"] * done + ["refused"]
    assert road.agent.get("firewallSshEnabled.0") == 1
