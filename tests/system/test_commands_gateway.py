"""Commands on the gateway as a whole, its backups and its software: what the agent is asked, what is answered."""
import itertools
import json
import re
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from conftest import Cleanup
from harness.config import GW_MAC
from harness.control import ControlRoad, request
from harness.lab import SCENARIOS, LabAgent, start_agent
from harness.waiting import wait_until

TRIGGER = 1000001
SCENARIO = json.loads((SCENARIOS / "gateway.json").read_text())
NO_RESPONSE = ""
GONE = {"exception": "noSuchInstance"}
REFUSED = {"error": "genErr", "on": "set"}

# The agent does nothing of its own on these.
QUIET = ("swBackupExecute.0", "swRestorePointExecute.0", "upgradeStart.0", "installStart.0")

_numbers = itertools.count(5000)


def ask(road: ControlRoad, command: str, params: Any) -> str:
    """The text of the answer's response; with no response, an empty one."""
    number = next(_numbers)
    road.publish(json.dumps(request(command, params, number)).encode())
    text = road.answer_to(number).text
    match = re.fullmatch(rf'{{"mac":"{GW_MAC}","requestId":{number}(?:,"response":(.*))?}}', text)
    assert match, text
    return match.group(1) or NO_RESPONSE


def asked_sets(agent: LabAgent) -> list[dict[str, Any]]:
    """The requests to write, but for those of the alarms, which come at times of their own."""
    return [each for each in agent.sets() if not each["variables"][0][0].startswith("hm")]


def done_sets(agent: LabAgent) -> list[list[list[Any]]]:
    """Those that were carried out, each with its variables in their order."""
    return [each["variables"] for each in asked_sets(agent) if each["outcome"] == "done"]


def restore(agent: LabAgent) -> None:
    plain = {name: value for name, value in SCENARIO["scalars"].items() if not isinstance(value, dict)}
    agent.clear_faults()
    agent.set(plain)
    for table in ("ifTable", "ipAddrTable", "installableSwListTable"):
        agent.do({"put_rows": table, "rows": SCENARIO["tables"][table]["rows"]})
    agent.do({"put_rows": "swVerTable", "rows": SCENARIO["data"]["versions"]["0"]})


@pytest.fixture(scope="module")
def module_road(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("shared"))
    agent.do({"rules": [{"on_set": name, "do": []} for name in QUIET]})
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def shared(module_road: ControlRoad) -> Iterator[ControlRoad]:
    """The daemon of all tests here, with the agent as its scenario has it."""
    module_road.agent.clear_log()
    yield module_road
    restore(module_road.agent)


@pytest.fixture
def start(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Callable[..., ControlRoad]:
    numbers = itertools.count()

    def run(**options: Any) -> ControlRoad:
        made = ControlRoad(tmp_path / f"road{next(numbers)}", agent, **options)
        cleanup.add(made)
        return made.wait_ready()

    return run


# --- what is read ---

GATEWAY = (
    '"moduleName":"SNV-GW-8C","moduleProductCode":"SNV8C-868-LTE","moduleRevision":"C",'
    '"moduleSerialNumber":"SN20240500123","custGatewayId":"roof-north"}'
)
INTERFACES = '"interfaces":{"wwan0":"100.64.3.9","lo":"127.0.0.1","eth0":"192.0.2.17"}'
POSITION = '{"lat":"46.947975","long":"7.447447","alti":"553.2","status":"ok"}'
VERSIONS = (
    '[{"name":"snv-packet-forwarder","ver":"5.2.1"},{"name":"snv-mqtt-bridge","ver":"1.11.1"},'
    '{"name":"snv-snmp-agent","ver":"0.52.0"}]'
)
UPGRADABLE = (
    '[{"name":"snv-packet-forwarder","ver":"5.2.1","newVer":"5.2.4","special":0},'
    '{"name":"sarnivel-bsp-version","ver":"3.4.0","newVer":"3.5.1","special":1}]'
)
INSTALLABLE = '[{"name":"snv-vpn","ver":"2.0.3"},{"name":"snv-location","ver":"1.4.0"}]'

READS = {
    "getGatewayInfo": f"{{{INTERFACES},{GATEWAY}",
    "getGpsCoordinates": POSITION,
    "getUpgradableSoftware": UPGRADABLE,
    "getInstallableSoftware": INSTALLABLE,
    "getInstallStatus": "0",
    "getUpgradeStatus": "0",
    "getBspStatus": "0",
    "getBspStatusString": '{"status":"ok"}',
    "getCurrentBspVersion": '{"version":"3.4.0"}',
    "getAvailableBspUpgrade": '{"upgrade":"from 3.4.0 to 3.5.1"}',
}


@pytest.mark.parametrize("params", [{}, None, [], "text", 7, {"extra": None}], ids=repr)
@pytest.mark.parametrize("command", READS)
def test_what_takes_no_params_answers_with_any(shared: ControlRoad, command: str, params: Any) -> None:
    assert ask(shared, command, params) == READS[command]
    assert asked_sets(shared.agent) == []


@pytest.mark.parametrize(
    "values, command, wanted",
    [
        (
            {
                "gpsLatitude.0": "",
                "gpsLongitude.0": "7" * 60,
                "gpsAltitude.0": {"type": "INTEGER", "value": -553},
            },
            "getGpsCoordinates",
            f'{{"lat":"","long":"{"7" * 60}","alti":-553,"status":"ok"}}',
        ),
        ({"installStart.0": 3}, "getInstallStatus", "3"),
        ({"installStart.0": -2}, "getInstallStatus", "-2"),
        ({"upgradeStart.0": TRIGGER}, "getUpgradeStatus", "1000001"),
        ({"upgradeBspStatus.0": 90006}, "getBspStatus", "90006"),
        ({"bspVersion.0": ""}, "getCurrentBspVersion", '{"version":""}'),
        ({"bspVersion.0": "v" * 63}, "getCurrentBspVersion", f'{{"version":"{"v" * 63}"}}'),
        ({"bspVersion.0": "v" * 64}, "getCurrentBspVersion", NO_RESPONSE),
        ({"getAvailableBspUpgrade.0": "u" * 255}, "getAvailableBspUpgrade", f'{{"upgrade":"{"u" * 255}"}}'),
        (
            {"getAvailableBspUpgrade.0": "u" * 256},
            "getAvailableBspUpgrade",
            '{"error":"failed to process get available BSP upgrade parameters"}',
        ),
        ({"moduleRevision.0": "12345678"}, "getGatewayInfo", NO_RESPONSE),
        (
            {"moduleRevision.0": "1234567", "custGatewayId.0": "c" * 31},
            "getGatewayInfo",
            f"{{{INTERFACES},{GATEWAY}".replace('"C"', '"1234567"').replace("roof-north", "c" * 31),
        ),
        ({"custGatewayId.0": "c" * 32}, "getGatewayInfo", NO_RESPONSE),
    ],
    ids=lambda each: str(each)[:30],
)
def test_values_are_answered_in_the_agents_form(
    shared: ControlRoad, values: dict[str, Any], command: str, wanted: str
) -> None:
    shared.agent.set(values)
    assert ask(shared, command, {}) == wanted


@pytest.mark.parametrize(
    "number, text",
    [
        (0, "ok"),
        (1, "BSP upgrade failure"),
        (90000, "BSP upgrade busy"),
        (90001, "BSP upgrade busy"),
        (90002, r"n\/a (can't determined)"),
        (90003, "Already the latest BSP"),
        (90004, "BSP upgrade failure"),
        (90005, "BSP upgrade failure"),
        (90006, "BSP download busy"),
        (90007, "BSP download successful"),
        (90008, "unknown"),
        (2, "unknown"),
        (-1, "unknown"),
        (1000003, "unknown"),
    ],
)
def test_the_bsp_status_is_told_in_words(shared: ControlRoad, number: int, text: str) -> None:
    shared.agent.set({"upgradeBspStatus.0": number})
    assert ask(shared, "getBspStatusString", {}) == f'{{"status":"{text}"}}'


@pytest.mark.parametrize(
    "params, is_local",
    [
        ({"local": True}, True),
        ({"local": 1}, True),
        ({"local": False}, False),
        ({"local": None}, False),
        ({"local": 0}, False),
        ({"Local": True}, False),
        ({}, False),
        (None, False),
        ([True], False),
    ],
    ids=repr,
)
def test_the_bsp_on_offer_is_the_local_one_only_when_asked(
    shared: ControlRoad, params: Any, is_local: bool
) -> None:
    log = shared.bridge.log.mark()
    wanted = "No BSP upgrade available" if is_local else "from 3.4.0 to 3.5.1"
    assert ask(shared, "getAvailableBspUpgrade", params) == f'{{"upgrade":"{wanted}"}}'
    told = shared.bridge.log.find("Local parameter is missing. Assume remote upgrade.", log)
    assert len(told) == (0 if isinstance(params, dict) and "local" in params else 1)


@pytest.mark.parametrize(
    "table, command",
    [("upgradableListTable", "getUpgradableSoftware"), ("installableSwListTable", "getInstallableSoftware")],
)
def test_no_software_is_an_empty_list(
    start: Callable[..., ControlRoad], agent: LabAgent, table: str, command: str
) -> None:
    agent.do({"put_rows": table, "rows": []})
    assert ask(start(), command, {}) == "[]"


def test_a_negative_count_of_software_is_no_failure_and_no_answer(shared: ControlRoad) -> None:
    for name, command in (
        ("installableSwListCount.0", "getInstallableSoftware"),
        ("upgradableListCount.0", "getUpgradableSoftware"),
    ):
        log = shared.bridge.log.mark()
        live = SCENARIO["scalars"][name]
        shared.agent.set({name: -1})
        assert ask(shared, command, {}) == NO_RESPONSE
        shared.agent.set({name: live})
        assert shared.bridge.log.find("failed to get valid property", log)
        assert not shared.bridge.log.find("failed to get SNMP table", log)


# --- interfaces ---


def address(ip: str, interface: int) -> dict[str, Any]:
    return {"index": ip, "ipAdEntAddr": ip, "ipAdEntIfIndex": interface}


def interface(index: int, name: str) -> dict[str, Any]:
    return {"index": index, "ifIndex": index, "ifDescr": name}


@pytest.mark.parametrize(
    "addresses, interfaces, wanted",
    [
        ([], [interface(1, "lo")], "{}"),
        ([address("192.0.2.1", 1)], [], "{}"),
        ([address("192.0.2.1", 1)], [interface(2, "eth0")], "{}"),
        (
            [address("192.0.2.1", 2), address("192.0.2.200", 2)],
            [interface(2, "eth0")],
            '{"eth0":"192.0.2.200"}',
        ),
        (
            [address("10.0.0.1", 7), address("192.0.2.1", 2), address("192.0.2.2", 7)],
            [interface(2, "eth0"), interface(7, "wwan0")],
            '{"wwan0":"192.0.2.2","eth0":"192.0.2.1"}',
        ),
        (
            [address("192.0.2.1", 3), address("192.0.2.2", 9)],
            [interface(3, "same"), interface(9, "same")],
            '{"same":"192.0.2.2"}',
        ),
        ([address("192.0.2.1", 3)], [interface(3, 'a"/b')], '{"a\\"\\/b":"192.0.2.1"}'),
    ],
    ids=[
        "no address",
        "no interface",
        "none agrees",
        "two addresses",
        "places kept",
        "two of one name",
        "name",
    ],
)
def test_interfaces_are_named_with_their_last_address(
    shared: ControlRoad, addresses: list[Any], interfaces: list[Any], wanted: str
) -> None:
    shared.agent.do({"put_rows": "ipAddrTable", "rows": addresses})
    shared.agent.do({"put_rows": "ifTable", "rows": interfaces})
    assert ask(shared, "getGatewayInfo", {}) == f'{{"interfaces":{wanted},{GATEWAY}'


@pytest.mark.parametrize(
    "name, message",
    [
        ("ipAdEntIfIndex", "failed to de-serialize IP list"),
        ("ifDescr", "failed to de-serialize interface list"),
    ],
)
def test_rows_that_lack_a_cell_leave_the_response_out(shared: ControlRoad, name: str, message: str) -> None:
    log = shared.bridge.log.mark()
    shared.agent.fault(name, shorten=True)
    assert ask(shared, "getGatewayInfo", {}) == NO_RESPONSE
    assert len(shared.bridge.log.find(message, log)) == 1


def test_a_table_that_breaks_off_is_answered_as_far_as_it_was_read(shared: ControlRoad) -> None:
    shared.agent.fault("ipAdEntIfIndex.127.0.0.1", error="genErr")
    wanted = f'{{"interfaces":{{"wwan0":"100.64.3.9"}},{GATEWAY}'
    assert ask(shared, "getGatewayInfo", {}) == wanted


# --- failing reads ---


@pytest.mark.parametrize(
    "command, name, response, message",
    [
        *(
            ("getGatewayInfo", name, NO_RESPONSE, "failed to get properties for gateway information")
            for name in (
                "moduleName.0",
                "moduleProductCode.0",
                "moduleRevision.0",
                "moduleSerialNumber.0",
                "custGatewayId.0",
            )
        ),
        (
            "getGpsCoordinates",
            "gpsLatitude.0",
            r'{"status":"Input\/output error"}',
            "failed to get SNMP table",
        ),
        ("getSoftwareVersions", "swVerCount.0", NO_RESPONSE, "failed to get SNMP table"),
        ("getSoftwareVersions", "swVerName.2", NO_RESPONSE, "failed to get SNMP table"),
        (
            "getUpgradableSoftware",
            "upgradableListCount.0",
            NO_RESPONSE,
            "failed to get upgrade packages count",
        ),
        (
            "getUpgradableSoftware",
            "upgradableListComponentSpecial.2",
            NO_RESPONSE,
            "failed to get SNMP table",
        ),
        (
            "getInstallableSoftware",
            "installableSwListCount.0",
            NO_RESPONSE,
            "failed to get installable packages count",
        ),
        (
            "getInstallableSoftware",
            "installableSwListComponentVersion.1",
            NO_RESPONSE,
            "failed to get SNMP table",
        ),
        ("getInstallStatus", "installStart.0", NO_RESPONSE, "cannot get install status"),
        ("getUpgradeStatus", "upgradeStart.0", NO_RESPONSE, "cannot get upgrade status"),
        ("getBspStatus", "upgradeBspStatus.0", NO_RESPONSE, "cannot get BSP status"),
        (
            "getBspStatusString",
            "upgradeBspStatus.0",
            '{"status":"Unknown error -1"}',
            "Failed to get upgrade status",
        ),
        ("getCurrentBspVersion", "bspVersion.0", NO_RESPONSE, "failed to get bsp_version"),
        (
            "getAvailableBspUpgrade",
            "getAvailableBspUpgrade.0",
            '{"error":"failed to process get available BSP upgrade parameters"}',
            "failed to process get available BSP upgrade parameters",
        ),
        ("getBackups", "swBakResStatus.0", NO_RESPONSE, "failed to get backup status"),
    ],
    ids=str,
)
def test_a_failed_read_is_told_in_its_own_words(
    shared: ControlRoad, command: str, name: str, response: str, message: str
) -> None:
    log = shared.bridge.log.mark()
    shared.agent.do({"faults": {name: {"error": "genErr", "on": "get"}}})
    assert ask(shared, command, {"verType": 0}) == response
    assert len(shared.bridge.log.find(re.compile(rf"{re.escape(message)}$"), log)) == 1
    shared.agent.clear_faults()
    assert ask(shared, command, {"verType": 0}) not in ("", response)


def test_a_position_in_part_keeps_what_was_read(shared: ControlRoad) -> None:
    shared.agent.fault("gpsAltitude.0", **GONE)
    wanted = r'{"lat":"46.947975","long":"7.447447","status":"Input\/output error"}'
    assert ask(shared, "getGpsCoordinates", {}) == wanted


def test_a_remote_offer_that_fails_leaves_the_local_one(shared: ControlRoad) -> None:
    shared.agent.fault("getAvailableBspUpgrade.0", **GONE)
    wanted = '{"upgrade":"No BSP upgrade available"}'
    assert ask(shared, "getAvailableBspUpgrade", {"local": True}) == wanted


# --- what is written ---


def backup(text: str) -> list[list[Any]]:
    return [["swBackupDescription.0", text], ["swBackupExecute.0", TRIGGER]]


def restored(index: int) -> list[list[Any]]:
    return [["swRestorePointSelected.0", index], ["swRestorePointExecute.0", TRIGGER]]


def upgraded(package: str) -> list[list[Any]]:
    return [["packageToUpgrade.0", package], ["upgradeStart.0", TRIGGER]]


def installed(package: str) -> list[list[Any]]:
    return [["packageToInstall.0", package], ["installStart.0", TRIGGER]]


@pytest.mark.parametrize(
    "command, params, variables",
    [
        ("resetRadioStatisticsCounters", None, [["radioStatisticsResetCounters.0", TRIGGER]]),
        ("createBackup", {"description": "before 5.3"}, backup("before 5.3")),
        ("createBackup", {"description": ""}, backup("")),
        ("createBackup", {"description": 5}, backup("5")),
        ("createBackup", {"description": {"a": [1]}}, backup('{ "a": [ 1 ] }')),
        ("createBackup", {"description": "cut\0off"}, backup("cut")),
        ("createBackup", {"description": "d" * 1000}, backup("d" * 1000)),
        ("restoreBackup", {"index": 2}, restored(2)),
        ("restoreBackup", {"index": 0}, restored(0)),
        ("restoreBackup", {"index": -1}, restored(-1)),
        ("upgradeSoftware", {"packageToUpgrade": "snv-packet-forwarder"}, upgraded("snv-packet-forwarder")),
        ("upgradeSoftware", {"packageToUpgrade": None}, upgraded("")),
        ("upgradeSoftware", {"packageToUpgrade": 5.5}, upgraded("5.5")),
        ("upgradeSoftware", {"packageToUpgrade": True}, upgraded("true")),
        ("installSoftware", {"packageToInstall": "snv-vpn"}, installed("snv-vpn")),
        ("installSoftware", {"packageToInstall": None}, installed("")),
        ("installSoftware", {"packageToInstall": "cut\0off"}, installed("cut")),
    ],
    ids=lambda each: str(each)[:40],
)
def test_an_action_is_one_set_in_its_order_and_has_no_response(
    shared: ControlRoad, command: str, params: Any, variables: list[Any]
) -> None:
    assert ask(shared, command, params) == NO_RESPONSE
    assert done_sets(shared.agent) == [variables]


NO_DESCRIPTION = "description string is missing!"
NO_INDEX = "can't get backup index from the request parameters"
NO_TYPE = "invalid parameters supplied"
NO_UPGRADE = "failed to send package upgrade command"
NO_INSTALL = "failed to send package install command"


BAD_PARAMS: dict[tuple[str, str], list[Any]] = {
    ("createBackup", NO_DESCRIPTION): [{}, None, [], "x", {"description": None}],
    ("restoreBackup", NO_INDEX): [{}, None, [1], 1, *({"index": each} for each in ("1", 1.0, None, True))],
    ("getSoftwareVersions", NO_TYPE): [{}, None, [0], 0, *({"verType": each} for each in ("0", 0.5, None))],
    ("upgradeSoftware", NO_UPGRADE): [{}, None, [], "x", {"packageToUpgrade": {}}, {"packageToInstall": "x"}],
    ("installSoftware", NO_INSTALL): [{}, None, [], "x", {"packageToInstall": []}, {"packageToUpgrade": "x"}],
}


@pytest.mark.parametrize(
    "command, params, message",
    [(command, params, text) for (command, text), rows in BAD_PARAMS.items() for params in rows],
    ids=str,
)
def test_bad_params_reach_no_agent(shared: ControlRoad, command: str, params: Any, message: str) -> None:
    log = shared.bridge.log.mark()
    assert ask(shared, command, params) == NO_RESPONSE
    assert len(shared.bridge.log.find(re.compile(rf"{re.escape(message)}$"), log)) == 1
    assert asked_sets(shared.agent) == []


@pytest.mark.parametrize(
    "command, params, name, message",
    [
        (
            "resetRadioStatisticsCounters",
            {},
            "radioStatisticsResetCounters.0",
            "failed to reset radio counters",
        ),
        ("createBackup", {"description": "x"}, "swBackupExecute.0", "failed to set backup properties"),
        (
            "restoreBackup",
            {"index": 1},
            "swRestorePointSelected.0",
            "failed to set restore backup properties",
        ),
        ("getSoftwareVersions", {"verType": 1}, "swVerType.0", "failed to set property"),
        ("upgradeSoftware", {"packageToUpgrade": "x"}, "packageToUpgrade.0", NO_UPGRADE),
        ("installSoftware", {"packageToInstall": "x"}, "installStart.0", NO_INSTALL),
    ],
    ids=str,
)
def test_an_action_that_the_agent_refuses_is_told(
    shared: ControlRoad, command: str, params: Any, name: str, message: str
) -> None:
    log = shared.bridge.log.mark()
    shared.agent.fault(name, **REFUSED)
    assert ask(shared, command, params) == NO_RESPONSE
    assert len(shared.bridge.log.find(re.compile(rf"{message}$"), log)) == 1
    assert done_sets(shared.agent) == []


@pytest.mark.parametrize("number", [2**31, -(2**31) - 1, 2**63 - 1, -(2**63), 10**30], ids=str)
@pytest.mark.parametrize("command, key", [("restoreBackup", "index"), ("getSoftwareVersions", "verType")])
def test_numbers_beyond_the_agents_are_no_end(
    shared: ControlRoad, command: str, key: str, number: int
) -> None:
    ask(shared, command, {key: number})
    assert ask(shared, "getInstallStatus", {}) == "0"


@pytest.mark.parametrize(
    "command, key", [("createBackup", "description"), ("upgradeSoftware", "packageToUpgrade")]
)
def test_a_text_too_long_for_a_datagram_is_told(shared: ControlRoad, command: str, key: str) -> None:
    assert ask(shared, command, {key: "x" * 70000}) == NO_RESPONSE
    assert done_sets(shared.agent) == []
    assert ask(shared, "getInstallStatus", {}) == "0"


@pytest.mark.parametrize(
    "number, wanted",
    [
        (0, VERSIONS),
        (1, '[{"name":"linux","ver":"5.15.71"},{"name":"fpga","ver":"61"}]'),
        (9, "[]"),
    ],
)
def test_versions_are_those_of_the_kind_that_was_asked(shared: ControlRoad, number: int, wanted: str) -> None:
    assert ask(shared, "getSoftwareVersions", {"verType": number}) == wanted
    assert done_sets(shared.agent) == [[["swVerType.0", number]]]


# --- backups from beginning to end ---


def test_a_backup_that_was_made_is_listed(start: Callable[..., ControlRoad], agent: LabAgent) -> None:
    road = start()
    assert ask(road, "createBackup", {"description": "mine"}) == NO_RESPONSE
    wait_until(lambda: '"status":"backup successful"' in ask(road, "getBackups", {}), "the backup's end")
    date = agent.rows("swRestorePointTable")[2]["swRestorePointDate"]
    assert ask(road, "getBackups", {}).endswith(f',{{"description":"mine","date":"{date}","index":2}}]}}')
    assert ask(road, "restoreBackup", {"index": 2}) == NO_RESPONSE
    wait_until(lambda: '"status":"restore successful"' in ask(road, "getBackups", {}), "the way back's end")


# --- the last operation ---


def test_the_last_operation_is_told_and_kept(start: Callable[..., ControlRoad], agent: LabAgent) -> None:
    agent.do({"rules": [{"on_set": name, "do": []} for name in QUIET]})
    road = start()
    state = road.state / "last_sw_status"
    assert ask(road, "getLastInstallUpgradeStatus", {}) == NO_RESPONSE
    road.bridge.wait_for_log(re.compile("no software operation was performed$"))
    agent.fault("packageToInstall.0", **REFUSED)
    assert ask(road, "installSoftware", {"packageToInstall": "x"}) == NO_RESPONSE
    assert state.read_text() == "", "a refused operation is none"
    agent.clear_faults()

    for command, key, name, operation, number in (
        ("installSoftware", "packageToInstall", "installStart.0", "install", 1),
        ("upgradeSoftware", "packageToUpgrade", "upgradeStart.0", "upgrade", 2),
    ):
        assert ask(road, command, {key: "x"}) == NO_RESPONSE
        assert state.read_text() == f"{number}:{operation}\n0:req\n"
        agent.set({name: 40 + number})
        wanted = f'{{"lastOperation":"{operation}","lastStatus":{40 + number}}}'
        assert ask(road, "getLastInstallUpgradeStatus", None) == wanted
    agent.fault("upgradeStart.0", **GONE)
    log = road.bridge.log.mark()
    assert ask(road, "getLastInstallUpgradeStatus", {}) == NO_RESPONSE
    assert road.bridge.log.find(re.compile("cannot get upgrade status$"), log)
    assert road.bridge.log.find(re.compile("failed to retrieve upgrade/install status$"), log)


@pytest.mark.parametrize(
    "text, wanted",
    [
        ("1:install\n0:req\n", '{"lastOperation":"install","lastStatus":11}'),
        ("2:upgrade\n0:req\n", '{"lastOperation":"upgrade","lastStatus":22}'),
        ("3:localupgrade\n", '{"lastOperation":"localupgrade","lastStatus":22}'),
        ("7:what\n0:req\n", NO_RESPONSE),
    ],
    ids=str,
)
def test_the_last_operation_of_a_daemon_before_is_told(
    start: Callable[..., ControlRoad], agent: LabAgent, text: str, wanted: str
) -> None:
    agent.set({"installStart.0": 11, "upgradeStart.0": 22})
    road = start(state={"last_sw_status": text, "last_wm_fw_status": ""})
    assert ask(road, "getLastInstallUpgradeStatus", {}) == wanted


# --- the public key ---

KEY = 'ssh-rsa AAAAB3NzaC1yc2E"\\/=\u00e9\t gateway\r\n'


def put_key(home: Path, text: str) -> None:
    (home / ".ssh").mkdir(parents=True, exist_ok=True)
    (home / ".ssh" / "id_rsa.pub").write_text(text, newline="")


def test_the_key_is_read_anew_below_home(start: Callable[..., ControlRoad], tmp_path: Path) -> None:
    home = tmp_path / "road0" / "home"
    road = start(env={"HOME": str(home)})
    log = road.bridge.log.mark()
    assert ask(road, "getPublicKey", {}) == NO_RESPONSE
    assert len(road.bridge.log.find("failed to get pubkey file information", log)) == 1
    for text in (KEY, "", "k" * 20000):
        put_key(home, text)
        assert json.loads(ask(road, "getPublicKey", {})) == text
    (home / ".ssh/id_rsa.pub").unlink()
    (home / ".ssh/id_rsa.pub").mkdir()
    assert ask(road, "getPublicKey", {}) == NO_RESPONSE


def test_without_home_the_key_is_that_of_the_user(start: Callable[..., ControlRoad]) -> None:
    road = start()
    home = road.bridge.work / "of-the-user"
    put_key(home, KEY)
    road.inside("etc/passwd").write_text(f"root:x:0:0:root:{home}:/bin/sh\n")
    assert json.loads(ask(road, "getPublicKey", None)) == KEY


def test_a_home_too_long_for_a_path_is_told(start: Callable[..., ControlRoad]) -> None:
    road = start(env={"HOME": "/" + "h" * 4096})
    assert ask(road, "getPublicKey", {}) == NO_RESPONSE
    road.bridge.wait_for_log(re.compile("SSH key path is too long$"))
