"""The stand-in gateway's agent keeps what it promises to the tests that build on it."""
import json
import re
import socket
import subprocess
import time
from pathlib import Path
from typing import Any, Iterator

import pytest

from harness.bridge import REPOSITORY
from harness.lab import AGENT_BINARY, MIB_FILE, MIBS, LabAgent, Refused, SnmpTools, TrapPort, start_agent
from harness.object_names import COLUMNS, SCALARS
from harness.ports import free_port
from harness.waiting import wait_until

OBJECTS = re.findall(
    r"^(\w+) OBJECT-TYPE\n    SYNTAX +(.+)\n    MAX-ACCESS +(\S+)", MIB_FILE.read_text(), re.M
)
NOTIFICATIONS = {
    "hmAlarmNotification": "1.3.6.1.4.1.59317.3.5.200.0.20",
    "hmFaultNotification": "1.3.6.1.4.1.59317.3.5.200.0.21",
}
STANDARD_PLACES = {
    "sysUpTime": "1.3.6.1.2.1.1.3",
    "snmpTrapOID": "1.3.6.1.6.3.1.1.4.1",
    "ifIndex": "1.3.6.1.2.1.2.2.1.1",
    "ifDescr": "1.3.6.1.2.1.2.2.1.2",
    "ipAdEntAddr": "1.3.6.1.2.1.4.20.1.1",
    "ipAdEntIfIndex": "1.3.6.1.2.1.4.20.1.2",
}
SYNTAX_TYPES = {
    "INTEGER",
    "OCTET STRING",
    "IpAddress",
    "Counter32",
    "Gauge32",
    "TimeTicks",
    "OBJECT IDENTIFIER",
}


@pytest.fixture(scope="module")
def shared(tmp_path_factory: pytest.TempPathFactory) -> Iterator[LabAgent]:
    """One agent for the tests that leave it as they found it, or that change what no other looks at."""
    agent = start_agent(tmp_path_factory.mktemp("shared"))
    yield agent
    agent.close()


@pytest.fixture(scope="module")
def tools(shared: LabAgent, tmp_path_factory: pytest.TempPathFactory) -> SnmpTools:
    return SnmpTools(tmp_path_factory.mktemp("tools"), shared.address)


@pytest.fixture
def agent(tmp_path: Path) -> Iterator[LabAgent]:
    own = start_agent(tmp_path)
    yield own
    own.close()


@pytest.fixture
def own_tools(agent: LabAgent, tmp_path: Path) -> SnmpTools:
    return SnmpTools(tmp_path, agent.address)


def oid_bytes(text: str) -> bytes:
    """An OID as it stands in a datagram, without its head."""
    numbers = [int(each) for each in text.split(".")]
    coded = bytes([numbers[0] * 40 + numbers[1]])
    for number in numbers[2:]:
        groups = [number & 0x7F]
        while number := number >> 7:
            groups.append(number & 0x7F | 0x80)
        coded += bytes(reversed(groups))
    return coded


# --- the MIB ---


def translate(tools: SnmpTools, options: list[str], names: list[str]) -> list[str]:
    done = tools.run("snmptranslate", *options, *names)
    assert done.returncode == 0 and done.stderr == "", done.stderr
    numbers: list[str] = done.stdout.split()
    return numbers


def test_every_object_resolves_by_its_name_alone_and_back(tools: SnmpTools) -> None:
    names = [name for name, _, _ in OBJECTS] + list(NOTIFICATIONS)
    assert len(names) > 250 and len(set(names)) == len(names)
    numbers = translate(tools, ["-On", "-IR"], names)
    assert len(set(numbers)) == len(names)
    assert translate(tools, ["-Os"], numbers) == names


def test_every_name_of_the_daemon_is_in_the_mib() -> None:
    known = {name for name, _, _ in OBJECTS}
    assert set(SCALARS) | set(COLUMNS) <= known


def test_every_name_in_the_daemons_sources_is_in_the_mib() -> None:
    known = {name for name, _, _ in OBJECTS}
    sources = "".join(path.read_text() for path in sorted((REPOSITORY / "src").rglob("*.cpp")))
    used = set(re.findall(r'"([a-z]+[A-Z]\w*)\.(?:0|%\w+)"', sources))
    assert len(used) > 150 and used <= known
    rows = re.findall(r'\{"(\w+)",\s+"(\w+)",\s+(?:true|false),\s+PROP_TYPE_', sources)
    assert len(rows) > 40
    assert [row for row in rows if not known & set(row)] == [], "neither word of the row is a column's"


@pytest.mark.parametrize("name, place", [*NOTIFICATIONS.items(), *STANDARD_PLACES.items()])
def test_a_place_that_others_rely_on(tools: SnmpTools, name: str, place: str) -> None:
    assert translate(tools, ["-On", "-IR"], [name]) == [f".{place}"]


def test_a_name_of_no_object_does_not_resolve(tools: SnmpTools) -> None:
    done = tools.run("snmptranslate", "-On", "-IR", "utilPingCountt.0")
    assert done.returncode != 0 and "utilPingCountt.0" in done.stderr and done.stdout == ""


def test_the_mib_imports_nothing_and_is_read_without_complaint(tools: SnmpTools) -> None:
    assert "IMPORTS" not in MIB_FILE.read_text()
    done = tools.run("snmptranslate", "-Pu", "-Pe", "-Pc", "-PW", "-Tp")
    assert done.returncode == 0 and done.stderr == ""
    assert {
        syntax for _, syntax, _ in OBJECTS if "SEQUENCE" not in syntax and "Entry" not in syntax
    } <= SYNTAX_TYPES


# --- the default scenario ---


def walk(tools: SnmpTools, *options: str) -> list[str]:
    done = tools.run("snmpbulkwalk", "-v2c", "-c", "public", *options, tools.address, ".1")
    assert done.returncode == 0, done.stderr
    lines: list[str] = done.stdout.splitlines()
    return lines


def test_the_gateway_has_every_object_of_the_mib(agent: LabAgent, own_tools: SnmpTools) -> None:
    served = {line.split(".")[0] for line in walk(own_tools, "-Oqs", "-Cc")}
    readable = {name for name, _, access in OBJECTS if access.startswith("read")}
    missing = {
        name for name in readable - served if not name.startswith(("radioRxDbfsToDbmAnt", "hmFaultCurrent"))
    }
    assert missing == set()
    assert agent.problems() == [] and agent.errors.read_text() == ""


def test_every_instance_has_fewer_than_sixteen_sub_identifiers(tools: SnmpTools) -> None:
    lengths = {line.split(" ")[0].count(".") for line in walk(tools, "-Onq")}
    assert lengths and max(lengths) < 16


def test_a_walk_meets_every_type_of_the_mib_as_the_mib_has_it(tools: SnmpTools) -> None:
    assert [line for line in walk(tools, "-Os") if "Wrong Type" in line] == []


@pytest.mark.parametrize(
    "count, columns",
    [
        ("swVerCount", ["swVerName", "swVerVersion"]),
        (
            "upgradableListCount",
            [f"upgradableListComponent{each}" for each in ("Name", "OldVersion", "NewVersion", "Special")],
        ),
        ("installableSwListCount", ["installableSwListComponentName", "installableSwListComponentVersion"]),
    ],
)
def test_the_cells_follow_the_count_column_by_column(
    shared: LabAgent, tools: SnmpTools, count: str, columns: list[str]
) -> None:
    rows = shared.get(f"{count}.0")
    assert rows > 1
    at, seen = f"{count}.0", []
    for _ in range(rows * len(columns)):
        at = tools.get_next(at)[0].split(" ")[0]
        seen.append(at)
    assert seen == [f"{column}.{row + 1}" for column in columns for row in range(rows)]


# --- types and tables ---

TYPE_CASES = [
    ({"type": "INTEGER", "value": -2147483648}, "INTEGER: -2147483648"),
    ({"type": "Counter32", "value": 4294967295}, "Counter32: 4294967295"),
    ({"type": "Gauge32", "value": 4294967295}, "Gauge32: 4294967295"),
    ({"type": "TimeTicks", "value": 100}, "Timeticks: (100) 0:00:01.00"),
    ({"type": "UInteger32", "value": 7}, "7"),
    ({"type": "Counter64", "value": 1 << 40}, f"Counter64: {1 << 40}"),
    ({"type": "Float", "value": 1.5}, "Opaque: Float: 1.500000"),
    ({"type": "Double", "value": -2.25}, "Opaque: Float: -2.250000"),
    ({"type": "BIT STRING", "value": {"hex": "00a0"}}, "BITS: 00 A0"),
    ({"type": "OBJECT IDENTIFIER", "value": "1.3.6.1.4.1"}, "OID: .1.3.6.1.4.1"),
    ({"type": "IpAddress", "value": "192.0.2.9"}, "IpAddress: 192.0.2.9"),
    ({"type": "Opaque", "value": {"hex": "0102"}}, "OPAQUE: 01 02"),
    ("text", 'STRING: "text"'),
    ("", '""'),
    ({"hex": "00ff10"}, "Hex-STRING: 00 FF 10"),
    ({"int32_le": [1, -2]}, "Hex-STRING: 01 00 00 00 FE FF FF FF"),
    ({"float_be": -93.5}, "Hex-STRING: C2 BB 00 00"),
    ({"fill": "ab", "length": 41}, f'STRING: "{"ab" * 20}a"'),
]


@pytest.mark.parametrize("form, printed", TYPE_CASES, ids=[json.dumps(form) for form, _ in TYPE_CASES])
def test_a_value_is_served_with_its_type(shared: LabAgent, tools: SnmpTools, form: Any, printed: str) -> None:
    shared.set({"gpsAltitude.0": form})
    done = tools.run("snmpget", "-v2c", "-c", "public", "-On", tools.address, "gpsAltitude.0")
    value = done.stdout.split(" = ", 1)[1].strip().removeprefix("Wrong Type (should be OCTET STRING): ")
    assert re.sub(r"^(BITS: [0-9A-F ]*?)( [0-9]+)* *$", r"\1", value) == printed


def test_a_text_of_60000_bytes_is_served_whole(shared: LabAgent, tools: SnmpTools) -> None:
    shared.set({"gpsAltitude.0": {"fill": "x", "length": 60000}})
    assert tools.get("gpsAltitude.0") == [f'gpsAltitude.0 = "{"x" * 60000}"']


def test_what_is_not_there(shared: LabAgent, tools: SnmpTools) -> None:
    lines = tools.get("radioRxDbfsToDbmAnt7.0", "wmPdpCid.77", "moduleName.5")
    assert lines == [
        "radioRxDbfsToDbmAnt7.0 = No Such Object available on this agent at this OID",
        "wmPdpCid.77 = No Such Instance currently exists at this OID",
        "moduleName.5 = No Such Instance currently exists at this OID",
    ]


def test_the_end_of_the_tree(tools: SnmpTools) -> None:
    assert "No more variables left" in tools.get_next("hmFaultCurrentStateState.99")[0]


def test_rows_keep_gaps_and_address_indices(agent: LabAgent, own_tools: SnmpTools) -> None:
    rows = [{"index": 1, "wmApn": "a"}, {"index": 2, "wmApn": "b"}, {"index": 4, "wmApn": "d"}]
    agent.do({"put_rows": "wmApnTable", "rows": rows})
    assert own_tools.get("wmApn.4") == ['wmApn.4 = "d"']
    assert own_tools.get_next("wmApn.2") == ['wmApn.4 = "d"']
    assert own_tools.get_next("ipAdEntAddr.127.0.0.1") == ["ipAdEntAddr.192.0.2.17 = 192.0.2.17"]


def test_a_wrong_community_gets_no_answer(tools: SnmpTools) -> None:
    done = tools.ask("snmpget", "moduleName.0", community="private", timeout=0.2)
    assert "Timeout" in done.stderr


# --- sets ---


def test_sets_are_logged_in_order_with_their_outcome(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("utilPingCount.0", "=", "2", "utilPingDestination.0", "=", "192.0.2.1")
    own_tools.set_error("utilPingCount.0", "=", "9", "moduleName.0", "s", "x")
    own_tools.set("networkPingIp.0", "=", "192.0.2.8")
    assert [(entry["variables"], entry["outcome"]) for entry in agent.sets()] == [
        ([["utilPingCount.0", 2], ["utilPingDestination.0", "192.0.2.1"]], "done"),
        ([["utilPingCount.0", 9], ["moduleName.0", "x"]], "refused"),
        ([["networkPingIp.0", "192.0.2.8"]], "done"),
    ]
    assert agent.get("utilPingCount.0") == 2, "a refused request changes nothing"


@pytest.mark.parametrize(
    "parts, reason",
    [
        (["moduleName.0", "s", "x"], "notWritable"),
        (["utilPingCount.0", "s", "x"], "wrongType"),
        (["firewallFiltersChain.9", "=", "x"], "noCreation"),
        (["wmAddApn.1", "=", "x"], "noCreation"),
    ],
)
def test_a_set_that_cannot_be_is_refused(tools: SnmpTools, parts: list[str], reason: str) -> None:
    assert reason in tools.set_error(*parts)


def test_a_row_is_made_by_the_column_that_makes_rows(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("firewallFiltersName.2", "=", "new")
    assert own_tools.get("firewallFiltersEnabled.2", "firewallFiltersChain.2") == [
        "firewallFiltersEnabled.2 = 0",
        'firewallFiltersChain.2 = "INPUT"',
    ]
    own_tools.set("firewallFiltersName.3", "=", "third", "firewallFiltersChain.3", "=", "FORWARD")
    own_tools.set("firewallFiltersRemoveFilter.2", "=", "1")
    own_tools.set("firewallUpdateExecute.0", "=", "1000002")
    assert [row["firewallFiltersName"] for row in agent.rows("firewallFiltersTable")] == ["web", "third"]
    assert [row["index"] for row in agent.rows("firewallFiltersTable")] == ["1", "2"]


# --- behaviours ---


@pytest.mark.parametrize("destination, received", [("192.0.2.1", 2), ("192.0.2.254", 0)])
def test_a_ping_counts_down_and_tells_what_came_back(
    agent: LabAgent, own_tools: SnmpTools, destination: str, received: int
) -> None:
    own_tools.set(
        "utilPingCount.0",
        "=",
        "2",
        "utilPingDestination.0",
        "=",
        destination,
        "utilPingExecute.0",
        "=",
        "1000001",
    )
    seen = {agent.get("utilPingExecute.0")}

    def has_ended() -> bool:
        seen.add(agent.get("utilPingExecute.0"))
        return 0 in seen

    wait_until(has_ended, "the ping ends")
    assert seen <= {2, 1, 0} and len(seen) > 1
    assert own_tools.get("utilPingReceivedCount.0") == [f"utilPingReceivedCount.0 = {received}"]


def test_a_backup_adds_a_restore_point(agent: LabAgent, own_tools: SnmpTools) -> None:
    before = len(agent.rows("swRestorePointTable"))
    own_tools.set("swBackupDescription.0", "=", "mine", "swBackupExecute.0", "=", "1000001")
    assert agent.get("swBakResStatus.0") == "backup in progress"
    wait_until(lambda: agent.get("swBakResStatus.0") == "backup successful", "the backup ends")
    rows = agent.rows("swRestorePointTable")
    assert len(rows) == before + 1 and rows[-1]["swRestorePointDescription"] == "mine"
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d", rows[-1]["swRestorePointDate"])


def test_a_restore_ends_in_success(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("swRestorePointSelected.0", "=", "1", "swRestorePointExecute.0", "=", "1000001")
    wait_until(lambda: agent.get("swBakResStatus.0") == "restore successful", "the restore ends")


def test_radio_counters_are_reset(agent: LabAgent, own_tools: SnmpTools) -> None:
    assert agent.get("radioStatisticsNumRxPackets.0") > 0
    own_tools.set("radioStatisticsResetCounters.0", "=", "1000001")
    counters = [
        name for name, syntax, _ in OBJECTS if name.startswith("radioStatistics") and syntax == "Counter32"
    ]
    assert len(counters) == 7
    assert {agent.get(f"{name}.0") for name in counters} == {0}


def test_the_version_type_chooses_the_list(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("swVerType.0", "=", "1")
    assert own_tools.get("swVerCount.0", "swVerName.1") == ["swVerCount.0 = 2", 'swVerName.1 = "linux"']
    own_tools.set("swVerType.0", "=", "9")
    assert own_tools.get("swVerCount.0") == ["swVerCount.0 = 0"]


def test_a_description_is_looked_up_by_its_selector(agent: LabAgent, own_tools: SnmpTools) -> None:
    for number, text in (
        (7, "Enclosure door is open"),
        (3, "Enclosure temperature is high"),
        (99, "Unknown alarm"),
    ):
        own_tools.set("hmAlarmDescriptionId.0", "=", str(number))
        assert own_tools.get("hmAlarmDescriptionText.0") == [f'hmAlarmDescriptionText.0 = "{text}"']
    own_tools.set("hmFaultDescriptionId.0", "=", "12")
    assert own_tools.get("hmFaultDescriptionText.0") == [
        'hmFaultDescriptionText.0 = "GNSS antenna is not connected"'
    ]


WAITING = "Waiting for modem's response"


def wait_modem(agent: LabAgent) -> str:
    wait_until(lambda: agent.get("wmPdpLastOperationStatus.0") != WAITING, "the modem answers")
    return str(agent.get("wmPdpLastOperationStatus.0"))


def test_a_profile_is_added_and_removed_by_the_modem(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("wmPdpProfileName.3", "=", "third")
    own_tools.set("wmPdpAuthType.3", "=", "1")
    own_tools.set("wmAddPdpProfile.0", "=", "1")
    assert agent.get("wmPdpLastOperationStatus.0") == WAITING
    assert "successfully" in wait_modem(agent)
    assert agent.get("wmPdpProfileCount.0") == 3 and agent.get("wmPdpCid.3") == 3
    own_tools.set("wmRemovePdpProfile.0", "=", "1")
    assert "successfully" in wait_modem(agent)
    assert [row["wmPdpProfileName"] for row in agent.rows("wmPdpTable")] == ["spare", "third"]


def test_reading_an_object_can_start_the_modem(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.get("wmReadPdpProfile.0")
    assert agent.get("wmPdpLastOperationStatus.0") == WAITING
    assert "successfully" in wait_modem(agent)


def test_a_modem_operation_without_a_profile_fails(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("wmAddPdpProfile.0", "=", "1")
    assert "successfully" not in wait_modem(agent)


def test_a_rule_of_the_control_port_goes_before_the_scenarios(agent: LabAgent, own_tools: SnmpTools) -> None:
    steps = [
        {"sequence": "upgradeBspStatus.0", "values": [90006, 90000, 90003], "every_ms": 50},
        {"set": {"bspVersion.0": "9.9"}},
    ]
    agent.do({"rules": [{"on_set": "upgradeStart.0", "when": {"${value}": "1000005"}, "do": steps}]})
    own_tools.set("packageToUpgrade.0", "=", "sarnivel-bsp-version", "upgradeStart.0", "=", "1000005")
    assert agent.get("upgradeBspStatus.0") != 0
    wait_until(lambda: agent.get("bspVersion.0") == "9.9", "the upgrade ends")
    assert agent.get("upgradeBspStatus.0") == 90003 and agent.is_idle()


def test_a_rule_that_is_triggered_again_starts_anew(agent: LabAgent, own_tools: SnmpTools) -> None:
    steps = [{"wait_ms": 60000}, {"set": {"wmFwUpdateUrl.0": "late"}}]
    agent.do({"rules": [{"on_set": "wmSimPinSet.0", "do": steps}]})
    own_tools.set("wmSimPinSet.0", "=", "0")
    own_tools.set("wmSimPinSet.0", "=", "1")
    assert agent.do({"waiting": True})["waiting"] == 1


def test_the_scan_fills_a_blob_of_the_size_asked(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set(
        "utilSpectralScanNum125kChan.0",
        "=",
        "2",
        "utilSpectralScanNum500kChan.0",
        "=",
        "1",
        "utilSpectralScanExecute.0",
        "=",
        "1000001",
    )
    wait_until(lambda: agent.get("utilSpectralScanProgress.0") == 100, "the scan ends")
    blob = agent.get("utilSpectralScanResultsDataBlob.0")
    assert len(bytes.fromhex(blob["hex"])) == 3 * 101 * 4


def test_a_reboot_leaves_the_agent_silent_for_a_while(agent: LabAgent, own_tools: SnmpTools) -> None:
    own_tools.set("lumoReset.0", "=", "1000001")
    silent = wait_until(
        lambda: (done := own_tools.ask("snmpget", "moduleName.0", timeout=0.3)).returncode != 0 and done,
        "the gateway is down",
    )
    assert "Timeout" in silent.stderr
    wait_until(lambda: agent.get("lumoReset.0") == 0, "the gateway is up")
    assert own_tools.get("moduleName.0") == ['moduleName.0 = "SNV-GW-8C"']


# --- notifications ---


@pytest.fixture
def trap_port() -> Iterator[TrapPort]:
    port = TrapPort()
    yield port
    port.close()


@pytest.mark.parametrize(
    "kind, oid", [("alarm", "1.3.6.1.4.1.59317.3.5.200.0.20"), ("fault", "1.3.6.1.4.1.59317.3.5.200.0.21")]
)
def test_a_condition_that_is_raised_or_cleared_notifies(
    agent: LabAgent, own_tools: SnmpTools, trap_port: TrapPort, kind: str, oid: str
) -> None:
    table, prefix = f"hm{kind.capitalize()}CurrentStateTable", f"hm{kind.capitalize()}"
    before = len(agent.rows(table))
    agent.do({"trap_to": trap_port.address})
    agent.do({"raise": kind, "id": 41, "severity": 1, "text": "It is so"})
    datagram = trap_port.receive()
    assert b"\xa7" in datagram and b"public" in datagram and oid_bytes(oid) in datagram
    assert oid_bytes("1.3.6.1.6.3.1.1.4.1.0") in datagram
    row = agent.rows(table)[before]
    assert (row[f"{prefix}CurrentStateId"], row[f"{prefix}CurrentStateSeverity"]) == (41, 1)
    assert row[f"{prefix}CurrentStateState"] == 1
    own_tools.set(f"{prefix}DescriptionId.0", "=", "41")
    assert own_tools.get(f"{prefix}DescriptionText.0") == [f'{prefix}DescriptionText.0 = "It is so"']
    agent.do({"clear": kind, "id": 41})
    trap_port.receive()
    assert agent.rows(table)[before][f"{prefix}CurrentStateState"] == 0
    assert agent.rows(table)[before][f"{prefix}CurrentStateSeverity"] == 1, "a clear leaves the severity"
    agent.do({"clear": kind, "id": 41, "remove": True})
    trap_port.receive()
    assert len(agent.rows(table)) == before


def test_an_alarm_without_notification_sends_nothing(agent: LabAgent, trap_port: TrapPort) -> None:
    agent.do({"trap_to": trap_port.address})
    agent.do({"raise": "alarm", "id": 5, "severity": 0, "text": "Quiet", "notify": False})
    agent.do({"notify": "hmFaultNotification"})
    assert oid_bytes(NOTIFICATIONS["hmFaultNotification"]) in trap_port.receive()


def test_a_notification_of_any_form_can_be_sent(agent: LabAgent, trap_port: TrapPort) -> None:
    agent.do({"trap_to": trap_port.address})
    agent.do(
        {"notify": {"oid": "1.3.6.1.4.1.59317.9", "form": "inform", "variables": [["sysName.0", "extra"]]}}
    )
    datagram = trap_port.receive()
    assert b"\xa6" in datagram and oid_bytes("1.3.6.1.4.1.59317.9") in datagram and b"extra" in datagram
    agent.do({"notify": {"raw": True, "variables": [["sysName.0", "alone"]]}})
    datagram = trap_port.receive()
    assert b"alone" in datagram and oid_bytes("1.3.6.1.6.3.1.1.4.1.0") not in datagram


# --- faults ---


def test_a_late_answer_comes_late_and_holds_nobody_up(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.fault("moduleName.0", late_ms=1200)
    begun = time.monotonic()
    late = subprocess.Popen(
        ["snmpget", "-v2c", "-c", "public", "-t5", "-r0", agent.address, "moduleName.0"],
        stdout=subprocess.PIPE,
        text=True,
        env=own_tools.environment,
    )
    wait_until(
        lambda: [entry for entry in agent.requests() if entry["outcome"] == "late"], "the request arrives"
    )
    assert own_tools.get("moduleRevision.0") == ['moduleRevision.0 = "C"']
    assert late.poll() is None
    output, _ = late.communicate(timeout=20)
    assert "SNV-GW-8C" in output and time.monotonic() - begun >= 1.2


def test_a_silent_object_gets_no_answer_and_every_attempt_is_logged(
    agent: LabAgent, own_tools: SnmpTools
) -> None:
    agent.fault("moduleName", silent=True)
    done = own_tools.ask("snmpget", "moduleName.0", timeout=0.1, retries=2)
    assert "Timeout" in done.stderr
    assert [entry["outcome"] for entry in agent.requests()] == ["silent"] * 3
    agent.clear_faults()
    assert own_tools.get("moduleName.0") == ['moduleName.0 = "SNV-GW-8C"']


@pytest.mark.parametrize(
    "error, printed",
    [("genErr", "(genError)"), ("tooBig", "(tooBig)"), ("authorizationError", "authorizationError")],
)
def test_an_error_status_is_answered(agent: LabAgent, own_tools: SnmpTools, error: str, printed: str) -> None:
    agent.fault("moduleName.0", error=error, on="get")
    assert printed in own_tools.ask("snmpget", "moduleName.0").stderr


@pytest.mark.parametrize(
    "exception, printed",
    [
        ("noSuchObject", "No Such Object"),
        ("noSuchInstance", "No Such Instance"),
        ("endOfMibView", "No more variables"),
    ],
)
def test_an_exception_stands_in_for_a_value(
    agent: LabAgent, own_tools: SnmpTools, exception: str, printed: str
) -> None:
    agent.fault("moduleName.0", exception=exception)
    assert printed in own_tools.get("moduleName.0")[0]
    assert printed in own_tools.get_next("lumoReset.0")[0]


def test_a_refused_set_changes_nothing(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.fault("utilPingExecute.0", error="wrongValue", on="set")
    reason = own_tools.set_error("utilPingCount.0", "=", "5", "utilPingExecute.0", "=", "1000001")
    assert "wrongValue" in reason and agent.get("utilPingCount.0") == 0 and agent.is_idle()
    assert own_tools.get("utilPingExecute.0") == ["utilPingExecute.0 = 0"]


def test_a_surplus_variable_is_answered(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.fault("moduleName.0", surplus="moduleRevision.0")
    assert own_tools.get("moduleName.0") == ['moduleName.0 = "SNV-GW-8C"', 'moduleRevision.0 = "C"']


def test_an_answer_can_lack_variables(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.fault("moduleRevision.0", shorten=True)
    assert own_tools.get("moduleName.0", "moduleRevision.0", "bspVersion.0") == ['moduleName.0 = "SNV-GW-8C"']


def test_a_fault_spares_and_hits_as_often_as_told(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.fault("swRestorePointDate", error="genErr", after=1, times=1)
    answers = [own_tools.ask("snmpgetnext", "swRestorePointDate").returncode for _ in range(3)]
    assert [code == 0 for code in answers] == [True, False, True]
    assert agent.do({"list_faults": True})["faults"] == {}


def test_a_whole_agent_falls_silent_and_comes_back(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.silence()
    assert "Timeout" in own_tools.ask("snmpset", "utilPingCount.0", "=", "4", timeout=0.2).stderr
    agent.silence(False)
    assert own_tools.get("utilPingCount.0") == ["utilPingCount.0 = 0"]


# --- the control port ---


def test_the_control_port_reads_and_changes(agent: LabAgent, own_tools: SnmpTools) -> None:
    agent.set({"moduleName.0": "other", "wmPdpCid.2": 9})
    assert own_tools.get("moduleName.0", "wmPdpCid.2") == ['moduleName.0 = "other"', "wmPdpCid.2 = 9"]
    agent.do({"append_row": "wmApnTable", "row": {"wmApn": "third", "wmApnLocalIndex": "${index}"}})
    assert own_tools.get("wmApn.3", "wmApnLocalIndex.3") == ['wmApn.3 = "third"', "wmApnLocalIndex.3 = 3"]
    agent.do({"remove_rows": "wmApnTable", "index": 1, "close_gap": True})
    assert [row["wmApn"] for row in agent.rows("wmApnTable")] == ["backup.example", "third"]
    agent.do({"remove": "moduleName.0"})
    assert "No Such Object" in own_tools.get("moduleName.0")[0]
    assert agent.get("moduleName.0") is None


@pytest.mark.parametrize(
    "line, error",
    [
        ({"set": {"noSuchName.0": 1}}, "no such instance can be: noSuchName.0"),
        ({"set": {"moduleName": "x"}}, "no such instance can be: moduleName"),
        ({"set": {"swVerType.0": "many"}}, "swVerType.0: no INTEGER"),
        ({"set": {"wmIpAddress.0": "300.1.1.1"}}, "wmIpAddress.0: no IPv4 address"),
        ({"append_row": "noTable", "row": {}}, "no table noTable"),
        ({"append_row": "ifTable", "row": {"wmApn": "x"}}, "ifTable has no column wmApn"),
        ({"faults": {"moduleName.0": {"error": "none"}}}, "unknown status none"),
        ({"rules": [{"on_set": "lumoReset.0", "do": [{"jump": 1}]}]}, 'unknown step: { "jump": 1 }'),
        ({"raise": "worry", "id": 1}, "no kind of condition: worry"),
        ({"hop": 1}, "unknown request"),
    ],
)
def test_a_mistake_on_the_control_port_is_told(shared: LabAgent, line: dict[str, Any], error: str) -> None:
    with pytest.raises(Refused, match=f"^{re.escape(error)}$"):
        shared.do(line)


def test_bytes_that_are_no_json_are_told(shared: LabAgent) -> None:
    with socket.create_connection(("127.0.0.1", shared.control_port), timeout=20) as peer:
        peer.sendall(b"{\n[]\n")
        lines = peer.makefile()
        assert [json.loads(lines.readline())["error"] for _ in range(2)] == ["no JSON object"] * 2


def test_many_clients_of_the_control_port(agent: LabAgent) -> None:
    peers = [socket.create_connection(("127.0.0.1", agent.control_port), timeout=20) for _ in range(20)]
    for number, peer in enumerate(peers):
        peer.sendall(json.dumps({"set": {"wmActiveChannel.0": number}}).encode() + b"\n")
        assert json.loads(peer.makefile().readline())["ok"]
        assert agent.get("wmActiveChannel.0") == number
    for peer in peers:
        peer.close()
    assert agent.get("wmActiveChannel.0") == 19


# --- start and end ---


def test_it_ends_cleanly_and_leaves_nothing(tmp_path: Path) -> None:
    agent = start_agent(tmp_path)
    SnmpTools(tmp_path, agent.address).set(
        "utilPingCount.0", "=", "50", "utilPingDestination.0", "=", "x", "utilPingExecute.0", "=", "1000001"
    )
    agent.fault("moduleName.0", late_ms=60000)
    SnmpTools(tmp_path, agent.address).ask("snmpget", "moduleName.0", timeout=0.2)
    assert agent.stop() == 0
    assert list((tmp_path / "agent").iterdir()) == []
    assert agent.errors.read_text() == ""
    port = int(agent.address.rsplit(":", 1)[1])
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", port))


@pytest.mark.parametrize(
    "scenario, complaint",
    [
        ("[]", "no JSON object"),
        ('{"scalers": {}}', "unknown section: scalers"),
        ('{"scalars": {"moduleNam.0": "x"}}', "no such instance can be: moduleNam.0"),
        (
            '{"tables": {"ifTable": {"rows": [{"ifDescription": "x"}]}}}',
            "ifTable has no column ifDescription",
        ),
        ('{"rules": [{"on_set": "nothing.0", "do": []}]}', "bad rule"),
        ('{"rules": [{"on_set": "lumoReset.0", "do": [{"if": {}, "then": [{"leap": 1}]}]}]}', "unknown step"),
    ],
)
def test_a_mistake_in_a_scenario_stops_the_start(tmp_path: Path, scenario: str, complaint: str) -> None:
    path = tmp_path / "scenario.json"
    path.write_text(scenario)
    command = [str(AGENT_BINARY), "--scenario", str(path), "--mibs", str(MIBS)]
    done = subprocess.run(
        [*command, "--listen", f"udp:127.0.0.1:{free_port()}"], capture_output=True, text=True, timeout=60
    )
    assert done.returncode == 1 and complaint in done.stderr and done.stdout == ""


def test_a_port_that_is_taken_is_told(shared: LabAgent, tmp_path: Path) -> None:
    command = [str(AGENT_BINARY), "--scenario", str(MIBS.parent / "scenarios" / "gateway.json")]
    done = subprocess.run([*command, "--listen", shared.address], capture_output=True, text=True, timeout=60)
    assert done.returncode == 1 and f"cannot listen on {shared.address}" in done.stderr


def test_help_tells_every_step_and_query() -> None:
    done = subprocess.run([str(AGENT_BINARY), "--help"], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0
    sources = (REPOSITORY / "lab" / "agent" / "behaviours.cpp").read_text()
    sources += (REPOSITORY / "lab" / "agent" / "control.cpp").read_text()
    words = re.findall(r'^    \{"(\w+)", +(?:step|query)_', sources, re.M)
    assert len(words) > 20
    assert [word for word in words if f'{{"{word}":' not in done.stdout] == []
