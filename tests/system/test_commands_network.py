"""Commands of the gateway's network: its uplinks and the target of the connectivity test."""
import json
import re
from typing import Any, Iterator

import pytest

from command_outcome import (
    ANY_PARAMS,
    GONE,
    NO_OBJECT,
    REFUSED,
    REFUSED_TEXT,
    Outcome,
    quiet_road,
    restore,
    run,
)
from harness.control import ControlRoad

pytestmark = pytest.mark.xdist_group("commands_network")


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    with quiet_road(tmp_path_factory) as road:
        yield road


@pytest.fixture
def road(shared: ControlRoad) -> Iterator[ControlRoad]:
    """Its agent is as the scenario tells again after each test."""
    yield shared
    restore(shared, "network", "agentVersion")


@pytest.mark.parametrize("params", ANY_PARAMS, ids=str)
@pytest.mark.parametrize("command", ["getConnectivityTypes", "getPreferredPingIpAddress"])
def test_reading_the_network_needs_no_parameters(road: ControlRoad, command: str, params: object) -> None:
    outcome = run(road, command, params)
    assert outcome.response and outcome == run(road, command)


# --- uplinks ---

ETHERNET, OPTICAL, CELLULAR = 1, 2, 4
TYPES = [(1, "Ethernet", ETHERNET), (2, "Optical", OPTICAL), (3, "Cellular", CELLULAR)]
AVAILABILITY = ["networkEthernetAvailable.0", "networkOpticalAvailable.0", "networkCellularAvailable.0"]


def types_text(preferred: int, fallback: int, available: int) -> str:
    rows = [
        f'{{"index":{index},"type":"{name}","preferred":{json.dumps(index == preferred)},'
        f'"fallback":{json.dumps(index == fallback)}}}'
        for index, name, bit in TYPES
        if available & bit
    ]
    return "[" + ",".join(rows) + "]"


@pytest.mark.parametrize("available", range(8))
@pytest.mark.parametrize("preferred, fallback", [(1, 3), (3, 1), (2, 2), (0, 0), (-1, 4)])
def test_available_uplinks_are_listed_with_what_was_chosen(
    road: ControlRoad, preferred: int, fallback: int, available: int
) -> None:
    flags = {name: int(available & bit != 0) for name, (_, _, bit) in zip(AVAILABILITY, TYPES)}
    road.agent.set({"networkPreferred.0": preferred, "networkFallback.0": fallback, **flags})
    outcome = run(road, "getConnectivityTypes")
    assert outcome == Outcome(types_text(preferred, fallback, available), [], [])
    reads = [["networkPreferred.0", "networkFallback.0"], *([name] for name in AVAILABILITY)]
    assert [each["variables"] for each in road.agent.requests()] == reads


def test_the_list_of_uplinks_to_the_letter(road: ControlRoad) -> None:
    assert run(road, "getConnectivityTypes").response == (
        '[{"index":1,"type":"Ethernet","preferred":true,"fallback":false},'
        '{"index":3,"type":"Cellular","preferred":false,"fallback":true}]'
    )


@pytest.mark.parametrize("flag", [-1, 2, 2**31 - 1])
def test_any_flag_but_0_is_available(road: ControlRoad, flag: int) -> None:
    road.agent.set(dict.fromkeys(AVAILABILITY, flag))
    assert run(road, "getConnectivityTypes").response == types_text(1, 3, ETHERNET | OPTICAL | CELLULAR)


@pytest.mark.parametrize("place, name", enumerate(AVAILABILITY))
def test_one_flag_that_cannot_be_read_drops_the_whole_list(road: ControlRoad, place: int, name: str) -> None:
    road.agent.fault(name, **GONE)
    wanted = [NO_OBJECT + "this OID", "ERROR failed to get connectivity avaliability flag"]
    assert run(road, "getConnectivityTypes") == Outcome("", wanted, [])
    assert len(road.agent.requests()) == 1 + place + 1, "the types behind it are not read"


@pytest.mark.parametrize("name", ["networkPreferred.0", "networkFallback.0"])
def test_without_a_choice_there_is_no_list(road: ControlRoad, name: str) -> None:
    road.agent.fault(name, **GONE)
    wanted = [f"{NO_OBJECT}OID: {name}", "ERROR failed to get connectivity properties"]
    assert run(road, "getConnectivityTypes") == Outcome("", wanted, [])
    assert len(road.agent.requests()) == 1


UPLINKS: dict[str, Any] = {"preferredIdx": 2, "fallbackIdx": 1}
NOT_ADDED = ["ERROR failed to add property to PDU", "ERROR failed to set connectivity properties"]


def chosen(preferred: int, fallback: int) -> list[list[list[Any]]]:
    values: list[list[Any]] = [["networkPreferred.0", preferred], ["networkFallback.0", fallback]]
    return [values + [["networkPreferencesExecute.0", 1000001]]]


@pytest.mark.parametrize(
    "preferred, fallback, written",
    [
        (2, 1, (2, 1)),
        (0, -1, (0, -1)),
        ("3", "2", (3, 2)),
        ("1\0002", 3, (1, 3)),
        (2**31 - 1, 9, (2147483647, 9)),
    ],
)
def test_uplinks_are_chosen_in_one_request_with_the_trigger_last(
    road: ControlRoad, preferred: object, fallback: object, written: tuple[int, int]
) -> None:
    params = {"fallbackIdx": fallback, "extra": {}, "preferredIdx": preferred}
    outcome = run(road, "setPreferredFallbackConnectivityType", params)
    assert outcome == Outcome("", [], chosen(*written))


@pytest.mark.parametrize(
    "params, complaint",
    [
        ({"fallbackIdx": 1}, "no such field: preferredIdx"),
        ({"preferredIdx": 1}, "no such field: fallbackIdx"),
        ({}, "no such field: preferredIdx"),
        (None, "no such field: preferredIdx"),
        ([1, 2], "no such field: preferredIdx"),
        ("preferredIdx", "no such field: preferredIdx"),
        (12, "no such field: preferredIdx"),
        ({**UPLINKS, "preferredIdx": None}, "cannot add data to PDU, error: Bad value notation ()"),
        ({**UPLINKS, "fallbackIdx": ""}, "cannot add data to PDU, error: Bad value notation ()"),
        ({**UPLINKS, "preferredIdx": True}, "cannot add data to PDU, error: Value out of range (true)"),
        ({**UPLINKS, "fallbackIdx": 1.5}, "cannot add data to PDU, error: Value out of range (1.5)"),
        ({**UPLINKS, "fallbackIdx": "x" * 500}, "cannot add data to PDU, error: Value out of range (xxx"),
        ({**UPLINKS, "preferredIdx": [1]}, "incorrect field type: 0x5"),
        ({**UPLINKS, "fallbackIdx": {}}, "incorrect field type: 0x4"),
    ],
    ids=lambda each: str(each)[:40],
)
def test_uplinks_that_are_no_numbers_are_not_written(
    road: ControlRoad, params: object, complaint: str
) -> None:
    outcome = run(road, "setPreferredFallbackConnectivityType", params)
    assert (outcome.response, outcome.sets) == ("", [])
    assert outcome.complaints[0].startswith(f"ERROR {complaint}")
    assert outcome.complaints[1:] == NOT_ADDED


def test_refused_uplinks_have_no_response_either(road: ControlRoad) -> None:
    road.agent.fault("networkPreferencesExecute.0", **REFUSED)
    outcome = run(road, "setPreferredFallbackConnectivityType", UPLINKS)
    assert outcome.response == ""
    assert outcome.complaints == [REFUSED_TEXT, "ERROR failed to set connectivity properties"]
    assert road.agent.get("networkPreferred.0") == 1, "the request is one"


# --- target of the connectivity test ---

OLD = [0, 12, 45, 46]
NEW = [47, 48, 52, 0xFFFFFF, 0x01000000, 0x01002E00, 0x0A000001, -(2**24), -1]
ADDRESS_ONLY = 46
WITH_PROTOCOL = 47
DONE = "setting preferred ping configuration succeeded"


def set_target(road: ControlRoad, version: int, params: object) -> Outcome:
    """Success is told in the log, and a failure is not."""
    road.agent.set({"agentVersion.0": version})
    mark = road.bridge.log.mark()
    outcome = run(road, "setPreferredPingIpAddress", params)
    assert len(road.bridge.log.find(f" {DONE}", after=mark)) == (0 if outcome.complaints else 1)
    assert outcome.response == ""
    return outcome


def target(server: str, protocol: int = 0, port: int = 80) -> list[list[list[Any]]]:
    values: list[list[Any]] = [["networkPingServer.0", server], ["networkConnectionTestType.0", protocol]]
    return [values + [["networkConnectionTestPort.0", port]]]


@pytest.mark.parametrize("version", OLD)
def test_an_old_agent_takes_and_tells_an_address(road: ControlRoad, version: int) -> None:
    assert set_target(road, version, {"ipAddr": "192.0.2.7"}).sets == [[["networkPingIp.0", "192.0.2.7"]]]
    assert run(road, "getPreferredPingIpAddress") == Outcome('{"ipAddr":"192.0.2.7"}', [], [])


@pytest.mark.parametrize("version", NEW)
def test_a_new_agent_takes_and_tells_server_protocol_and_port(road: ControlRoad, version: int) -> None:
    params = {"connectionPort": 443, "connectionType": "tcp", "ipAddr": "server.example"}
    assert set_target(road, version, params).sets == target("server.example", 1, 443)
    wanted = '{"ipAddr":"server.example","connectionType":"tcp","connectionPort":443}'
    assert run(road, "getPreferredPingIpAddress") == Outcome(wanted, [], [])
    assert [each["variables"] for each in road.agent.requests()] == [
        ["agentVersion.0"],
        ["networkPingServer.0", "networkConnectionTestType.0", "networkConnectionTestPort.0"],
    ]


@pytest.mark.parametrize("version", [OLD[-1], NEW[0]])
def test_the_success_is_told_at_its_level(road: ControlRoad, version: int) -> None:
    mark = road.bridge.log.mark()
    set_target(road, version, {"ipAddr": "192.0.2.7"})
    assert re.search(r"\[INFO *\]", road.bridge.log.find(DONE, after=mark)[0])


@pytest.mark.parametrize(
    "name, address",
    [
        ("localhost", "127.0.0.1"),
        ("LOCALHOST", "127.0.0.1"),
        ("127.1", "127.0.0.1"),
        (2130706433, "127.0.0.1"),
        ("255.255.255.255", "255.255.255.255"),
        ("0.0.0.0", "0.0.0.0"),
        ("127.0.0.1\0x", "127.0.0.1"),
    ],
    ids=repr,
)
def test_for_an_old_agent_a_name_becomes_an_address(road: ControlRoad, name: object, address: str) -> None:
    mark = road.bridge.log.mark()
    outcome = set_target(road, ADDRESS_ONLY, {"ipAddr": name})
    assert (outcome.complaints, outcome.sets) == ([], [[["networkPingIp.0", address]]])
    assert road.bridge.log.find(f"obtained ping host: {address}", after=mark)


@pytest.mark.parametrize(
    "name",
    ["", "nowhere.invalid", "a" * 255, "192.0.2.7 ", "%s%n", "1.2.3.256", True, [1]],
    ids=lambda each: repr(each)[:20],
)
def test_a_name_that_does_not_resolve_is_not_written(road: ControlRoad, name: object) -> None:
    outcome = set_target(road, ADDRESS_ONLY, {"ipAddr": name})
    wanted = ["ERROR failed to resolve ping address: Name or service not known"]
    assert (outcome.complaints, outcome.sets) == (wanted, [])


@pytest.mark.parametrize("address", ["::1", "2001:db8::7", "fe80::1"])
def test_an_old_agent_takes_no_ipv6_address(road: ControlRoad, address: str) -> None:
    mark = road.bridge.log.mark()
    outcome = set_target(road, ADDRESS_ONLY, {"ipAddr": address})
    assert outcome.complaints == [
        f"ERROR cannot add var to PDU: {address} error: Bad value notation ({address})",
        "ERROR failed to set ping address",
    ]
    assert outcome.sets == []
    assert road.bridge.log.find(f"obtained ping host: {address}", after=mark)


@pytest.mark.parametrize("protocol, port", [("udp", 80), ("", -1), ("123456789", 65536), ("icmp", 2**62)])
def test_an_old_agent_is_told_no_protocol_and_no_port(road: ControlRoad, protocol: str, port: int) -> None:
    params = {"ipAddr": "localhost", "connectionType": protocol, "connectionPort": port}
    outcome = set_target(road, ADDRESS_ONLY, params)
    assert (outcome.complaints, outcome.sets) == ([], [[["networkPingIp.0", "127.0.0.1"]]])


@pytest.mark.parametrize(
    "server",
    ["", "localhost", "nowhere.invalid", "::1", '"x"', "%s", "é" * 127, "a" * 255],
    ids=lambda each: repr(each)[:20],
)
def test_a_new_agent_takes_the_server_as_it_stands(road: ControlRoad, server: str) -> None:
    assert set_target(road, WITH_PROTOCOL, {"ipAddr": server}).sets == target(server)


@pytest.mark.parametrize(
    "protocol, number",
    [("icmp", 0), ("ICMP", 0), ("iCmP", 0), ("tcp", 1), ("TCP", 1), ("Tcp", 1), ("tcp\0udp", 1)],
)
def test_the_protocol_may_be_in_capitals(road: ControlRoad, protocol: str, number: int) -> None:
    outcome = set_target(road, WITH_PROTOCOL, {"ipAddr": "a", "connectionType": protocol})
    assert (outcome.complaints, outcome.sets) == ([], target("a", number))


@pytest.mark.parametrize(
    "protocol, shown",
    [("udp", "udp"), ("", ""), ("tcp ", "tcp "), ("icmpicmp6", "icmpicmp6"), (1, "1"), (True, "true")],
)
def test_another_protocol_is_not_written(road: ControlRoad, protocol: object, shown: str) -> None:
    params = {"ipAddr": "a", "connectionType": protocol, "connectionPort": 65536}
    outcome = set_target(road, WITH_PROTOCOL, params)
    wanted = [f"ERROR invalid protocol for testing network connectivity: {shown}"]
    assert (outcome.complaints, outcome.sets) == (wanted, [])


@pytest.mark.parametrize(
    "port, written",
    [(0, 0), (1, 1), (65535, 65535), ("443", 443), ("x", 0), (None, 0), (80.9, 80), (True, 1)],
)
def test_a_port_is_written(road: ControlRoad, port: object, written: int) -> None:
    outcome = set_target(road, WITH_PROTOCOL, {"ipAddr": "a", "connectionPort": port})
    assert (outcome.complaints, outcome.sets) == ([], target("a", 0, written))


@pytest.mark.parametrize(
    "port",
    [-1, 65536, 2**32, 2**32 + 80, -(2**63), 10**400, 1e300, "65536"],
    ids=lambda each: repr(each)[:20],
)
def test_a_port_beyond_its_range_is_not_written(road: ControlRoad, port: object) -> None:
    outcome = set_target(road, WITH_PROTOCOL, {"ipAddr": "a", "connectionPort": port})
    wanted = "invalid port for testing network connectivity: port should be between 0 and 65535"
    assert (outcome.complaints, outcome.sets) == ([f"ERROR {wanted}"], [])


@pytest.mark.parametrize(
    "params, warnings",
    [
        ({}, ["WARN unable to retrieve field"]),
        ({"connectionType": "tcp", "connectionPort": 80}, ["WARN unable to retrieve field"]),
        ([], ["WARN unable to retrieve field"]),
        ("ipAddr", ["WARN unable to retrieve field"]),
        (7, ["WARN unable to retrieve field"]),
        (None, []),
        ({"ipAddr": None}, ["WARN unable to fetch string"]),
        ({"ipAddr": "a" * 256}, ["WARN not enough space for incoming string"]),
        ({"ipAddr": "a" * 100000}, ["WARN not enough space for incoming string"]),
        ({"ipAddr": "a", "connectionType": "icmpicmpic"}, ["WARN not enough space for incoming string"]),
        ({"ipAddr": "a", "connectionType": ["tcp", "icmp"]}, ["WARN not enough space for incoming string"]),
        ({"ipAddr": "a", "connectionType": None}, []),
    ],
    ids=lambda each: str(each)[:50],
)
@pytest.mark.parametrize("version", [ADDRESS_ONLY, WITH_PROTOCOL])
def test_a_target_that_cannot_be_read_is_not_written(
    road: ControlRoad, version: int, params: object, warnings: list[str]
) -> None:
    outcome = set_target(road, version, params)
    wanted = [*warnings, "ERROR failed to de-serialize params"]
    assert (outcome.complaints, outcome.sets) == (wanted, [])


@pytest.mark.parametrize(
    "version, name, failure",
    [
        (ADDRESS_ONLY, "networkPingIp.0", "failed to set ping address"),
        (WITH_PROTOCOL, "networkConnectionTestPort.0", "failed to set ping address, protocol, and port"),
    ],
)
def test_a_refused_target_is_told(road: ControlRoad, version: int, name: str, failure: str) -> None:
    road.agent.fault(name, **REFUSED)
    assert set_target(road, version, {"ipAddr": "localhost"}).complaints == [REFUSED_TEXT, f"ERROR {failure}"]
    assert road.agent.get("networkPingServer.0") == "connectivity.example"


@pytest.mark.parametrize(
    "command, params", [("setPreferredPingIpAddress", {"ipAddr": "a"}), ("getPreferredPingIpAddress", {})]
)
def test_an_agent_that_hides_its_version_has_no_target(
    road: ControlRoad, command: str, params: object
) -> None:
    road.agent.fault("agentVersion.0", **GONE)
    wanted = [NO_OBJECT + "this OID", "ERROR failed to get SNMP agent version"]
    assert run(road, command, params) == Outcome("", wanted, [])
    assert len(road.agent.requests()) == 1


@pytest.mark.parametrize(
    "value, text",
    [
        ("192.0.2.53", '"192.0.2.53"'),
        ({"type": "OCTET STRING", "value": {"hex": "c0000235"}}, '"192.0.2.53"'),
        ({"type": "OCTET STRING", "value": {"hex": "20010db8" + "00" * 11 + "07"}}, '"2001:db8::7"'),
        ({"type": "INTEGER", "value": 7}, "7"),
    ],
    ids=str,
)
def test_the_address_of_an_old_agent_is_shown_as_text(road: ControlRoad, value: object, text: str) -> None:
    road.agent.set({"agentVersion.0": ADDRESS_ONLY, "networkPingIp.0": value})
    assert run(road, "getPreferredPingIpAddress").response == f'{{"ipAddr":{text}}}'


@pytest.mark.parametrize("size", [0, 3, 5, 15, 17])
def test_an_address_of_an_odd_size_leaves_the_response_out(road: ControlRoad, size: int) -> None:
    value = {"type": "OCTET STRING", "value": {"hex": "c0" * size}}
    road.agent.set({"agentVersion.0": ADDRESS_ONLY, "networkPingIp.0": value})
    wanted = [
        f"ERROR invalid data size for IP address: [{size}]",
        "ERROR failed to extract property: networkPingIp.0",
        "ERROR failed to get ping address",
    ]
    assert run(road, "getPreferredPingIpAddress") == Outcome("", wanted, [])


@pytest.mark.parametrize(
    "version, name, failure",
    [
        (ADDRESS_ONLY, "networkPingIp.0", "failed to get ping address"),
        (WITH_PROTOCOL, "networkPingServer.0", "failed to get ping address, protocol, and port"),
        (WITH_PROTOCOL, "networkConnectionTestType.0", "failed to get ping address, protocol, and port"),
        (WITH_PROTOCOL, "networkConnectionTestPort.0", "failed to get ping address, protocol, and port"),
    ],
)
def test_a_target_that_lacks_a_value_leaves_the_response_out(
    road: ControlRoad, version: int, name: str, failure: str
) -> None:
    road.agent.set({"agentVersion.0": version})
    road.agent.fault(name, **GONE)
    wanted = [f"{NO_OBJECT}OID: {name}", f"ERROR {failure}"]
    assert run(road, "getPreferredPingIpAddress") == Outcome("", wanted, [])


@pytest.mark.parametrize("protocol", [-1, 2, -(2**31), 2**31 - 1])
def test_a_protocol_without_a_name_leaves_the_response_out(road: ControlRoad, protocol: int) -> None:
    road.agent.set({"networkConnectionTestType.0": protocol})
    assert run(road, "getPreferredPingIpAddress") == Outcome("", ["ERROR Invalid ping protocol"], [])


@pytest.mark.parametrize("port", [-1, 0, 65536])
@pytest.mark.parametrize("size, shown", [(0, 0), (39, 39), (40, 0), (300, 0)])
def test_a_server_of_40_bytes_or_more_reads_as_empty_and_any_port_as_it_is(
    road: ControlRoad, size: int, shown: int, port: int
) -> None:
    road.agent.set({"networkPingServer.0": "a" * size, "networkConnectionTestPort.0": port})
    text = "a" * shown
    wanted = f'{{"ipAddr":"{text}","connectionType":"icmp","connectionPort":{port}}}'
    assert run(road, "getPreferredPingIpAddress") == Outcome(wanted, [], [])
