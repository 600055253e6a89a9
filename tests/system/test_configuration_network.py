"""Managed configuration of the network: interfaces, PDP profiles and SIM PINs, as the server and the agent see it."""

import json
from typing import Any, Iterator

import pytest

from command_outcome import HOUR
from harness.control import ControlRoad
from harness.lab import start_agent
from harness.waiting import wait_until
from managed_configuration import ManagedGateway, Outcome, retained

AT_WORK = "Waiting for modem's response"
STATUS = "wmPdpLastOperationStatus.0"
PIN_STATUS = "wmSimPinOpStatus.0"

DEFAULT = (
    '{"pdpProfileName":"default","apnName":"iot.example","userName":"","password":"","contextId":1,'
    '"connectionType":"IP","authType":"None"}'
)
SPARE = (
    '{"pdpProfileName":"spare","apnName":"backup.example","userName":"gateway","password":"secret","contextId":2,'
    '"connectionType":"IPV6","authType":"CHAP"}'
)
SIMS = '[{"simSlot":0,"simState":"SIM ready"},{"simSlot":1,"simState":"SIM not inserted"}]'
STATE = f'{{"status":"simpin current status","value":{SIMS}}}'
NO_PDP = '{"status":"unable to write any pdp info"}'
NO_INTERFACES = '{"status":"unable to write interface info"}'


def quick(kind: str, name: str, status: str, *steps: dict[str, Any]) -> dict[str, Any]:
    """The modem is done at once."""
    return {kind: name, "do": [*steps, {"set": {STATUS: status}}]}


def number_of_rows() -> dict[str, Any]:
    return {"set": {"wmPdpProfileCount.0": "${rows:wmPdpTable}"}}


QUICK_MODEM = [
    quick("on_get", "wmReadPdpProfile.0", "PDP profiles read successfully"),
    quick("on_set", "wmAddPdpProfile.0", "PDP profile added successfully", number_of_rows()),
    quick("on_set", "wmModifyPdpProfile.0", "PDP profile modified successfully"),
    quick("on_set", "wmPdpWorkingProfile.0", "PDP profile activated successfully"),
    quick(
        "on_set",
        "wmRemovePdpProfile.0",
        "PDP profile removed successfully",
        {"remove_rows": "wmPdpTable", "where": {"wmPdpCid": "${value}"}, "close_gap": True},
        number_of_rows(),
    ),
    {"on_set": "wmSimPinSet.0", "do": [{"set": {PIN_STATUS: "SIM PIN of slot ${value} set"}}]},
    {"on_set": "wmSimPinModify.0", "do": [{"set": {PIN_STATUS: "SIM PIN of slot ${value} changed"}}]},
]


@pytest.fixture(scope="module")
def started(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ManagedGateway]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    agent.do({"rules": QUICK_MODEM})
    road = ControlRoad(tmp_path_factory.mktemp("road"), agent, polls=HOUR).wait_ready()
    made = ManagedGateway(road)
    made.forget()
    made.start()
    yield made
    road.close()
    agent.close()


@pytest.fixture
def gateway(started: ManagedGateway) -> ManagedGateway:
    wait_until(started.road.agent.is_idle, "the modem has done what it was told")
    started.road.agent.restore()
    started.road.agent.do({"rules": QUICK_MODEM})
    return started


def reported(outcome: Outcome) -> str:
    """The section in the only report that followed."""
    (report,) = outcome.reports
    start, end = '{"content":{"networkConfiguration":', "}}\0"
    text = report.decode().replace("\\/", "/")
    assert text.startswith(start) and text.endswith(end), text
    return text[len(start) : -len(end)]


def desire(gateway: ManagedGateway, section: object) -> Outcome:
    return gateway.desire({"networkConfiguration": section}, stored=1)


def desire_preference(gateway: ManagedGateway, names: object) -> Outcome:
    return desire(gateway, {"interfacePreference": names})


def desire_profiles(gateway: ManagedGateway, profiles: object) -> Outcome:
    return desire(gateway, {"cellular": {"pdpProfile": profiles}})


def desire_pins(gateway: ManagedGateway, pins: object) -> Outcome:
    return desire(gateway, {"cellular": {"simPin": pins}})


def profile(name: str, active: str = "False", **changes: str) -> dict[str, str]:
    """As the gateway has its default one."""
    values = {
        "apnName": "iot.example",
        "connectionType": "IP",
        "userName": "",
        "password": "",
        "authType": "None",
    }
    return {"pdpProfileName": name, **values, **changes, "setActive": active}


def text_of(value: object) -> str:
    return json.dumps(value, separators=(",", ":"))


def element(status: str, value: object) -> str:
    text = value if isinstance(value, str) else text_of(value)
    return f'{{"status":"{status}","value":{text}}}'


def sets_of(gateway: ManagedGateway) -> list[list[list[Any]]]:
    return [entry["variables"] for entry in gateway.road.agent.sets() if entry["outcome"] == "done"]


def single(row: int, name: str, apn: str, connection: int, user: str, password: str, auth: int) -> list[Any]:
    """The requests of one profile."""
    values = {
        "wmPdpProfileName": name,
        "wmPdpApnName": apn,
        "wmPdpConnectionType": connection,
        "wmPdpUserName": user,
        "wmPdpPassword": password,
        "wmPdpAuthType": auth,
    }
    return [[[f"{column}.{row}", value]] for column, value in values.items()]


# --- reading ---


def whole_read(gateway: ManagedGateway) -> str:
    """The network's section in the answer to a repeated request."""
    (report,) = gateway.desire({}, timestamp=7, stored=7).reports
    text = report.decode().replace("\\/", "/")
    start = '"networkConfiguration":'
    assert start in text, gateway.road.bridge.tail()
    return text[text.index(start) + len(start) : text.index(',"upgradeServer":')]


def without_check(section: str) -> str:
    return section[: section.index(',"connectivityCheck":')]


def test_a_read_tells_interfaces_profiles_and_sims(gateway: ManagedGateway) -> None:
    assert without_check(whole_read(gateway)) == (
        '{"interfacePreference":{"value":["Ethernet","Cellular"]},'
        f'"cellular":{{"pdpProfile":[{DEFAULT},{SPARE}],"simPin":{SIMS}}}'
    )
    assert sets_of(gateway) == []


@pytest.mark.parametrize(
    "values, told",
    [
        (
            {"networkPreferred.0": 3, "networkFallback.0": 1, "networkOpticalAvailable.0": 1},
            '{"value":["Cellular","Ethernet","Optical"]}',
        ),
        ({"networkPreferred.0": 0}, '{"status":"interface not set -- auto config applied"}'),
        ({"networkFallback.0": 0}, '{"status":"interface not set -- auto config applied"}'),
    ],
    ids=str,
)
def test_interfaces_are_told_in_their_order(
    gateway: ManagedGateway, values: dict[str, int], told: str
) -> None:
    gateway.road.agent.set(values)
    assert whole_read(gateway).startswith(f'{{"interfacePreference":{told},')


NO_SIM = "Error getting SIM status for slot: "


@pytest.mark.parametrize(
    "names, states",
    [
        (["networkFallback.0", "wmReadPdpProfile.0", "wmSimStatus.0"], [f"{NO_SIM}0", "SIM not inserted"]),
        (["networkOpticalAvailable.0", STATUS, "wmSimSlot1Status.0"], ["SIM ready", f"{NO_SIM}1"]),
    ],
    ids=str,
)
def test_what_cannot_be_read_is_told_and_the_rest_follows(
    gateway: ManagedGateway, names: list[str], states: list[str]
) -> None:
    for name in names:
        gateway.road.agent.fault(name, exception="noSuchObject")
    sims = [{"simSlot": slot, "simState": state} for slot, state in enumerate(states)]
    assert without_check(whole_read(gateway)) == (
        '{"interfacePreference":{"status":"unable to read interface info"},"cellular":{"pdpProfile":'
        f'{{"status":"unable to read cellular pdp info"}},"simPin":{text_of(sims)}}}'
    )


# --- interfaces ---


@pytest.mark.parametrize(
    "names, told, pair",
    [
        (["Cellular", "Ethernet"], '{"value":["Cellular","Ethernet"]}', [3, 1]),
        (["cellular", "x", "Optical", "ETHERNET", "Cellular"], '{"value":["Cellular","Ethernet"]}', [3, 1]),
        (["Ethernet", "Ethernet"], '{"value":["Ethernet","Ethernet"]}', [1, 1]),
        (["Ethernet", "Cellular"], '{"value":["Ethernet","Cellular"]}', []),
        (["Cellular"], NO_INTERFACES, []),
        (["Optical"], NO_INTERFACES, []),
        ([], NO_INTERFACES, []),
        ([None, 5, {}], NO_INTERFACES, []),
        ("Cellular", NO_INTERFACES, []),
        ({"Cellular": 1}, NO_INTERFACES, []),
    ],
    ids=str,
)
def test_the_first_two_available_interfaces_are_chosen(
    gateway: ManagedGateway, names: object, told: str, pair: list[int]
) -> None:
    assert reported(desire_preference(gateway, names)) == f'{{"interfacePreference":{told}}}'
    expected = [
        [
            ["networkPreferred.0", pair[0]],
            ["networkFallback.0", pair[1]],
            ["networkPreferencesExecute.0", 1000001],
        ]
        for _ in pair[:1]
    ]
    assert sets_of(gateway) == expected


@pytest.mark.parametrize("preferred, fallback", [(1, 0), (0, 3), (0, 0)])
def test_a_gateway_with_half_a_preference_has_none(
    gateway: ManagedGateway, preferred: int, fallback: int
) -> None:
    gateway.road.agent.set({"networkPreferred.0": preferred, "networkFallback.0": fallback})
    told = '{"interfacePreference":{"value":["Ethernet","Cellular"]}}'
    assert reported(desire_preference(gateway, ["Ethernet", "Cellular"])) == told
    assert sets_of(gateway) == [
        [["networkPreferred.0", 1], ["networkFallback.0", 3], ["networkPreferencesExecute.0", 1000001]]
    ]


def test_a_choice_that_the_agent_refuses_is_told(gateway: ManagedGateway) -> None:
    gateway.road.agent.fault("networkFallback.0", error="genErr", on="set")
    outcome = desire_preference(gateway, ["Cellular", "Ethernet"])
    assert reported(outcome) == f'{{"interfacePreference":{NO_INTERFACES}}}'
    assert outcome.logs("failed to set connectivity properties")
    assert gateway.road.agent.get("networkPreferred.0") == 1


# --- PDP profiles ---


def test_the_modems_profiles_become_the_servers(gateway: ManagedGateway) -> None:
    wanted = [
        profile("Default", apnName="new.example", connectionType="ppp"),
        profile("work", "TRUE", userName="u", password="p/w", authType="PAP", apnName="work.example"),
    ]
    outcome = desire_profiles(gateway, wanted)
    final = (
        '[{"pdpProfileName":"Default","apnName":"new.example","userName":"","password":"","contextId":1,'
        '"connectionType":"PPP","authType":"None"},{"pdpProfileName":"work","apnName":"work.example",'
        '"userName":"u","password":"p/w","contextId":2,"connectionType":"IP","authType":"PAP"}]'
    )
    elements = [
        element("delete profile action succeeded", SPARE),
        element("modify profile action succeeded", wanted[0]),
        element("add profile action succeeded", wanted[1]),
        element("activate profile action succeeded", wanted[1]),
        element("pdp full list", final),
    ]
    assert reported(outcome) == f'{{"cellular":{{"pdpProfile":[{",".join(elements)}]}}}}'
    assert sets_of(gateway) == [
        [["wmRemovePdpProfile.0", 2]],
        *single(1, "Default", "new.example", 1, "", "", 0),
        [["wmModifyPdpProfile.0", 1]],
        *single(2, "work", "work.example", 0, "u", "p/w", 1),
        [["wmAddPdpProfile.0", 1]],
        [["wmPdpWorkingProfile.0", 2]],
    ]
    assert gateway.road.agent.get("wmPdpWorkingProfile.0") == 2
    assert [message.payload for message in retained(gateway.road)] == outcome.reports


def test_profiles_that_are_there_are_left(gateway: ManagedGateway) -> None:
    wanted = [
        profile("DEFAULT", "true", apnName="IOT.example"),
        profile(
            "spare",
            apnName="backup.example",
            userName="Gateway",
            password="SECRET",
            connectionType="ipv6",
            authType="chap",
        ),
    ]
    same = "profile already exists and same as the requested settings"
    active = text_of(wanted[0])[:-1] + ',"contextId":1}'
    elements = [
        element(same, wanted[0]),
        element(same, wanted[1]),
        element("the profile is already the active one", active),
        element("pdp full list", f"[{DEFAULT},{SPARE}]"),
    ]
    assert (
        reported(desire_profiles(gateway, wanted))
        == f'{{"cellular":{{"pdpProfile":[{",".join(elements)}]}}}}'
    )
    assert sets_of(gateway) == []


@pytest.mark.parametrize(
    "profiles, told",
    [
        ([], "no active profile mentioned in the server list"),
        ([profile("default")], "no active profile mentioned in the server list"),
        ({}, "no active profile mentioned in the server list"),
        ("default", "no active profile mentioned in the server list"),
        (
            [profile("a", "True"), profile("b", "true")],
            "more than one profile with setActive field set to True",
        ),
        (
            [profile("a", "True"), profile("A")],
            "more than one profile exists in the server list with the same profile name",
        ),
        ([profile("x" * 32, "True")], "one or more fields missing in a profile"),
        ([{"pdpProfileName": "a"}], "one or more fields missing in a profile"),
        ([None], "one or more fields missing in a profile"),
        ([profile("a", "True"), 7], "failed to de-serialize profile name (from server list)"),
    ],
    ids=lambda value: text_of(value)[:60],
)
def test_a_bad_list_of_profiles_leaves_the_modem_untouched(
    gateway: ManagedGateway, profiles: object, told: str
) -> None:
    outcome = desire_profiles(gateway, profiles)
    assert reported(outcome) == f'{{"cellular":{{"pdpProfile":{NO_PDP}}}}}'
    assert outcome.logs(told) and outcome.logs("failed cellular config write for [pdpProfile]")
    assert sets_of(gateway) == []


def test_a_profile_is_not_to_be_active_under_a_name_that_the_modem_has_twice(gateway: ManagedGateway) -> None:
    gateway.road.agent.set({"wmPdpProfileName.2": "Default"})
    outcome = desire_profiles(gateway, [profile("default", "True")])
    assert reported(outcome) == f'{{"cellular":{{"pdpProfile":{NO_PDP}}}}}'
    assert outcome.logs("more than one profile exists on the gateway with the same profile name")


@pytest.mark.parametrize(
    "name, failed",
    [
        ("wmRemovePdpProfile.0", ["delete"]),
        ("wmPdpUserName.1", ["modify"]),
        ("wmModifyPdpProfile.0", ["modify"]),
        ("wmAddPdpProfile.0", ["add"]),
        ("wmPdpWorkingProfile.0", ["activate"]),
    ],
)
def test_an_action_that_the_agent_refuses_is_told_and_the_rest_follows(
    gateway: ManagedGateway, name: str, failed: list[str]
) -> None:
    gateway.road.agent.fault(name, error="genErr", on="set")
    wanted = [profile("default", apnName="new.example"), profile("work"), profile("other", "True")]
    section = json.loads(reported(desire_profiles(gateway, wanted)))
    texts = [each["status"] for each in section["cellular"]["pdpProfile"]]
    verbs = [text.split(" ")[0] for text in texts if text.endswith("profile action failed")]
    assert sorted(set(verbs)) == failed
    assert texts[-1] == "pdp full list"
    assert [text.split(" ")[0] for text in texts[:-1]] == ["delete", "modify", "add", "add", "activate"]


def test_the_modem_is_waited_for(gateway: ManagedGateway) -> None:
    late = [
        {"set": {STATUS: AT_WORK}},
        {"wait_ms": 700},
        {"set": {STATUS: "PDP profile modified successfully"}},
    ]
    gateway.road.agent.do({"rules": [{"on_set": "wmModifyPdpProfile.0", "do": late}]})
    outcome = desire_profiles(
        gateway, [profile("default", "True", apnName="new.example"), profile("spare", apnName="b")]
    )
    assert element("modify profile action succeeded", profile("spare", apnName="b")) in reported(outcome)
    assert outcome.logs(f"got status: {AT_WORK}")


def test_the_modems_refusal_is_told(gateway: ManagedGateway) -> None:
    refusal = quick("on_set", "wmModifyPdpProfile.0", "Failed: SIM is busy")
    gateway.road.agent.do({"rules": [refusal]})
    outcome = desire_profiles(gateway, [profile("default", "True", apnName="new.example")])
    assert '{"status":"modify profile action failed","value":{' in reported(outcome)
    assert outcome.logs("operation failed with a status: Failed: SIM is busy")


# --- SIM PINs ---


def test_pins_are_added_and_changed(gateway: ManagedGateway) -> None:
    requests = [
        {"simSlot": 1, "newSimPin": "0042", "note": None},
        {"currentSimPin": "1111", "newSimPin": "2222", "simSlot": 0},
    ]
    elements = [
        element("SIM PIN of slot 1 set", requests[0]),
        element("SIM PIN of slot 0 changed", requests[1]),
        STATE,
    ]
    assert reported(desire_pins(gateway, requests)) == f'{{"cellular":{{"simPin":[{",".join(elements)}]}}}}'
    assert sets_of(gateway) == [
        [["wmSimPinNewPin.0", "0042"]],
        [["wmSimPinSet.0", 1]],
        [["wmSimPinCurrentPin.0", "1111"]],
        [["wmSimPinNewPin.0", "2222"]],
        [["wmSimPinModify.0", 0]],
    ]


def but(request_: dict[str, object], **changes: object) -> dict[str, object]:
    return {**request_, **changes}


ADD: dict[str, object] = {"simSlot": 1, "newSimPin": "1234"}
CHANGE = but(ADD, currentSimPin="1111")
NOT_ADDED = "add simpin action failed with no response from the modem"
NOT_CHANGED = "modify simpin action failed with no modem response"


@pytest.mark.parametrize(
    "request_, name, told, line",
    [
        (ADD, "wmSimPinNewPin.0", NOT_ADDED, "failed to pass the new pin"),
        (ADD, "wmSimPinSet.0", NOT_ADDED, "failed to trigger the pin add op"),
        (CHANGE, "wmSimPinCurrentPin.0", NOT_CHANGED, "failed to pass the current pin"),
        (CHANGE, "wmSimPinNewPin.0", NOT_CHANGED, "failed to pass the new pin"),
        (CHANGE, "wmSimPinModify.0", NOT_CHANGED, "failed to trigger the pin modify op"),
        (but(ADD, newSimPin=None), "", NOT_ADDED, "simslot and pin deserialization failed"),
        (but(ADD, newSimPin="1" * 32), "", NOT_ADDED, "simslot and pin deserialization failed"),
        (but(CHANGE, currentSimPin=None), "", NOT_CHANGED, "simslot and pin deserialization failed"),
    ],
)
def test_a_pin_that_is_not_taken_is_told(
    gateway: ManagedGateway, request_: dict[str, object], name: str, told: str, line: str
) -> None:
    if name:
        gateway.road.agent.fault(name, error="genErr", on="set")
    outcome = desire_pins(gateway, [request_])
    assert reported(outcome) == f'{{"cellular":{{"simPin":[{element(told, request_)},{STATE}]}}}}'
    assert outcome.logs(line)


@pytest.mark.parametrize("text", ["unable to open status file", "Error reading status file: 5"])
def test_a_modem_without_a_status_file_has_not_answered(gateway: ManagedGateway, text: str) -> None:
    gateway.road.agent.do({"rules": [{"on_set": "wmSimPinSet.0", "do": [{"set": {PIN_STATUS: text}}]}]})
    outcome = desire_pins(gateway, [ADD])
    assert reported(outcome) == f'{{"cellular":{{"simPin":[{element(NOT_ADDED, ADD)},{STATE}]}}}}'
    assert outcome.logs(f"operation failed with no response from the modem, status: {text}")


@pytest.mark.parametrize("slot, number", [("1", 1), ("x", 0), (True, 1), ([1], 0)], ids=str)
def test_a_slot_of_another_kind_counts_as_a_number(
    gateway: ManagedGateway, slot: object, number: int
) -> None:
    request_ = but(ADD, simSlot=slot)
    told = element(f"SIM PIN of slot {number} set", request_)
    assert reported(desire_pins(gateway, [request_])) == f'{{"cellular":{{"simPin":[{told},{STATE}]}}}}'
    assert sets_of(gateway) == [[["wmSimPinNewPin.0", "1234"]], [["wmSimPinSet.0", number]]]


@pytest.mark.parametrize("length", [31, 32])
def test_a_pin_has_less_than_32_characters(gateway: ManagedGateway, length: int) -> None:
    pin = "1" * length
    outcome = desire_pins(gateway, [but(CHANGE, newSimPin=pin), but(CHANGE, currentSimPin=pin)])
    told = NOT_CHANGED if length == 32 else "SIM PIN of slot 1 changed"
    assert [part.split('"')[0] for part in reported(outcome).split('{"status":"')[1:3]] == [told, told]
    assert (["wmSimPinNewPin.0", pin] in gateway.road.agent.written()) == (length == 31)


@pytest.mark.parametrize(
    "requests",
    [
        [{}],
        [{"simSlot": 0}],
        [{"newSimPin": "1"}],
        [{"simSlot": None, "newSimPin": "1"}],
        [{"simSlot": None, "newSimPin": "1", "currentSimPin": "2"}],
        [5],
        [None],
        [[]],
        ["x"],
    ],
    ids=str,
)
def test_a_pin_without_its_slot_or_text_ends_the_item(gateway: ManagedGateway, requests: object) -> None:
    outcome = desire_pins(gateway, requests)
    assert reported(outcome) == '{"cellular":{"simPin":{"status":"unable to write simpin changes"}}}'
    assert sets_of(gateway) == []


# --- the section ---


@pytest.mark.parametrize(
    "section, told",
    [
        ({}, "{}"),
        ([], "{}"),
        (5, "{}"),
        ("x", "{}"),
        ({"cellular": {}}, '{"cellular":{}}'),
        ({"cellular": None}, "{}"),
        ({"cellular": []}, '{"cellular":{}}'),
        ({"interfacepreference": ["Cellular", "Ethernet"]}, "{}"),
    ],
    ids=str,
)
def test_a_section_without_a_known_item_ends_the_document(
    gateway: ManagedGateway, section: object, told: str
) -> None:
    outcome = gateway.desire({"loraTrafficFilter": {}, "networkConfiguration": section}, stored=1)
    assert reported(outcome) == told
    assert sets_of(gateway) == []


def test_a_failed_item_does_not_end_the_section(gateway: ManagedGateway) -> None:
    items = {"cellular": {"simPin": [], "pdpProfile": []}, "interfacePreference": []}
    assert reported(desire(gateway, items)) == (
        f'{{"interfacePreference":{NO_INTERFACES},"cellular":{{"pdpProfile":{NO_PDP},"simPin":[{STATE}]}}}}'
    )
