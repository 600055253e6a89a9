"""Commands on the cellular modem: what they read, what they write, and what each failure leaves out."""
import json
from typing import Any, Iterator

import pytest

from command_outcome import quiet_road, run
from harness.control import ControlRoad
from harness.waiting import wait_until

AT_WORK = "Waiting for modem's response"
INTEGER = "integer"
ADDRESS = "address"

# A text of 40 bytes or more that is read beside others comes back empty.
WHOLE_BELOW = 40

# Of each command: its objects, as they are asked for, with the key and the capacity or kind of each.
OBJECTS: dict[str, list[tuple[str, str, Any]]] = {
    "getWmDeviceInformation": [
        ("wmManufacturer.0", "manufacturer", 128),
        ("wmModelId.0", "modelId", 32),
        ("wmFwRevisions.0", "fwRevisions", 256),
        ("wmBootRevisions.0", "bootRevisions", 256),
        ("wmPriRevisions.0", "priRevisions", 256),
        ("wmPrlVersion.0", "prlVersion", INTEGER),
        ("wmPrlPreference.0", "prlPreference", INTEGER),
        ("wmImsi.0", "imsi", 32),
        ("wmEsnNumber.0", "esnNumber", 32),
        ("wmImeiNumber.0", "imeiNumber", 32),
        ("wmMeidNumber.0", "meidNumber", 32),
        ("wmHwRevision.0", "hwRevision", 32),
        ("wmDeviceState.0", "deviceState", 32),
        ("wmPublicIPAddr.0", "publicIPAddr", ADDRESS),
    ],
    "getWmHomeNetworkBranch": [
        ("wmHomeNetwork.0", "homeNetwork", 128),
        ("wmRoamingStatus.0", "roamingStatus", 16),
        ("wmDataCapabilities.0", "dataCapabilities", 16),
        ("wmSessionState.0", "sessionState", 16),
        ("wmDataBearer.0", "dataBearer", 16),
        ("wmDormancyStatus.0", "dormancyStatus", 16),
        ("wmLuRejectCause.0", "luRejectCause", 16),
    ],
    "getWmRfInformation": [
        ("wmRadioInterface.0", "radioInterface", 64),
        ("wmActiveBandClass.0", "activeBandClass", INTEGER),
        ("wmActiveChannel.0", "activeChannel", INTEGER),
        ("wmSignalStrength.0", "signalStrength", INTEGER),
        ("wmEcio.0", "ecio", INTEGER),
        ("wmIo.0", "io", INTEGER),
        ("wmSinr.0", "sinr", INTEGER),
        ("wmRsrq.0", "rsrq", INTEGER),
        ("wmCellId.0", "cellid", 64),
    ],
    "getWmActiveProfileParameters": [
        ("wmPdpType.0", "pdpType", 32),
        ("wmAuthentication.0", "authentication", 32),
        ("wmProfileName.0", "profileName", 64),
        ("wmApnName.0", "apnName", 64),
        ("wmUserName.0", "userName", 64),
        ("wmIpAddress.0", "ipAddress", ADDRESS),
        ("wmPrimaryDNS.0", "primaryDNS", ADDRESS),
        ("wmSecondaryDNS.0", "secondaryDNS", ADDRESS),
    ],
    "getWmCallStatistics": [
        ("wmCallStatus.0", "callStatus", 32),
        ("wmBytesTransferred.0", "bytesTransferred", INTEGER),
        ("wmBytesReceived.0", "bytesReceived", INTEGER),
        ("wmCurrentTxRate.0", "currentTxRate", INTEGER),
        ("wmCurrentRXRate.0", "currentRxRate", INTEGER),
        ("wmMaxTxRate.0", "maxTxRate", INTEGER),
        ("wmMaxRxRate.0", "maxRxRate", INTEGER),
    ],
}

FAILURES = {
    "getWmDeviceInformation": "failed to get properties for radio stats",
    "getWmHomeNetworkBranch": "failed to get properties for home network stats",
    "getWmRfInformation": "failed to get properties for wireless modem RF information",
    "getWmActiveProfileParameters": "failed to get properties for wireless modem profile parameters",
    "getWmCallStatistics": "failed to get properties for wireless modem profile parameters",
}

DEVICE_TEXT = (
    '{"manufacturer":"Modem Works","modelId":"MW7421","fwRevisions":"02.33.03.00",'
    '"bootRevisions":"02.33.03.00 boot","priRevisions":"9999999_001.007","prlVersion":1,"prlPreference":0,'
    '"imsi":"228010000000001","esnNumber":"","imeiNumber":"350000000000017","meidNumber":"",'
    '"hwRevision":"1.0","deviceState":"Online","publicIPAddr":"198.51.100.7",'
    '"publicPhoneNr":"+41000000000"'
)
ANSWERS = {
    "getWmDeviceInformation": DEVICE_TEXT + ',"wwan0":"100.64.3.9","lo":"127.0.0.1","eth0":"192.0.2.17"}',
    "getWmHomeNetworkBranch": '{"homeNetwork":"Example Mobile","roamingStatus":"Home",'
    '"dataCapabilities":"LTE","sessionState":"Connected","dataBearer":"LTE","dormancyStatus":"Active",'
    '"luRejectCause":"None"}',
    "getWmRfInformation": '{"radioInterface":"LTE","activeBandClass":120,"activeChannel":6300,'
    '"signalStrength":-81,"ecio":-7,"io":-64,"sinr":14,"rsrq":-10,"cellid":"1A2B3C4"}',
    "getWmActiveProfileParameters": '{"pdpType":"IP","authentication":"None","profileName":"default",'
    '"apnName":"iot.example","userName":"","ipAddress":"100.64.3.9","primaryDNS":"192.0.2.1",'
    '"secondaryDNS":"192.0.2.2"}',
    "getWmCallStatistics": '{"callStatus":"Connected","bytesTransferred":4823112,"bytesReceived":1923004,'
    '"currentTxRate":24000,"currentRxRate":12000,"maxTxRate":50000000,"maxRxRate":150000000}',
}


def those_of(kind: str) -> list[tuple[str, str, str]]:
    return [
        (command, name, key) for command, rows in OBJECTS.items() for name, key, form in rows if form == kind
    ]


TEXTS = [
    (command, name, key, capacity)
    for command, rows in OBJECTS.items()
    for name, key, capacity in rows
    if isinstance(capacity, int)
]


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


def error(text: str) -> str:
    return f"ERROR {text}"


def warning(text: str) -> str:
    return f"WARN {text}"


ABSENT = warning("unable to retrieve field")


def no_instance(name: str) -> dict[str, Any]:
    return {name: {"exception": "noSuchInstance"}}


# --- reads ---


@pytest.mark.parametrize("command", OBJECTS)
def test_a_read_is_one_request_and_answers_in_its_order(road: ControlRoad, command: str) -> None:
    told = run(road, command)
    assert told.response == ANSWERS[command]
    assert told.complaints == []
    names = [name for name, _, _ in OBJECTS[command]]
    first = road.agent.requests()[0]
    assert (first["op"], first["variables"]) == ("get", names)


@pytest.mark.parametrize(
    "command, name", [(command, row[0]) for command in OBJECTS for row in OBJECTS[command]]
)
def test_a_read_fails_with_each_of_its_objects(road: ControlRoad, command: str, name: str) -> None:
    road.agent.do({"faults": no_instance(name)})
    told = run(road, command)
    assert (told.response, told.complaints) == ("", [error(FAILURES[command])])
    assert len(road.agent.requests()) == 1


@pytest.mark.parametrize("command", OBJECTS)
def test_texts_that_just_fit_come_whole(road: ControlRoad, command: str) -> None:
    fitting = {
        name: "x" * (min(capacity, WHOLE_BELOW) - 1) for each, name, _, capacity in TEXTS if each == command
    }
    road.agent.set(fitting)
    response = json.loads(run(road, command).response)
    assert {name: response[key] for name, key, _ in OBJECTS[command] if name in fitting} == fitting


@pytest.mark.parametrize("command, name, key, capacity", [row for row in TEXTS if row[3] < WHOLE_BELOW])
def test_a_text_that_fills_its_capacity_fails_the_read(
    road: ControlRoad, command: str, name: str, key: str, capacity: int
) -> None:
    road.agent.set({name: "x" * capacity})
    told = run(road, command)
    assert told.response == ""
    assert told.complaints == [
        error(f"buffer with size [{capacity}] is too small for requested property"),
        error(f"failed to extract property: {name}"),
        error(FAILURES[command]),
    ]


@pytest.mark.parametrize("command, name, key, capacity", [row for row in TEXTS if row[3] > WHOLE_BELOW])
def test_a_longer_text_comes_back_empty(
    road: ControlRoad, command: str, name: str, key: str, capacity: int
) -> None:
    """Servers know such modems by it."""
    for length in (WHOLE_BELOW, capacity - 1, capacity, capacity + 1):
        road.agent.set({name: "x" * length})
        assert json.loads(run(road, command).response)[key] == "", length


@pytest.mark.parametrize("command, name, key", those_of(ADDRESS))
def test_an_address_is_told_in_its_own_form(road: ControlRoad, command: str, name: str, key: str) -> None:
    forms: list[tuple[str, str, str]] = [
        ("IpAddress", "00000000", "0.0.0.0"),
        ("OCTET STRING", "c0000207", "192.0.2.7"),
        ("OCTET STRING", "20010db8000000000000000000000001", "2001:db8::1"),
        ("OCTET STRING", "20010db8111122223333444455556666", "2001:db8:1111:2222:3333:4444:5555:6666"),
    ]
    for kind, octets, text in forms:
        road.agent.set({name: {"type": kind, "value": {"hex": octets}}})
        assert json.loads(run(road, command).response)[key] == text


@pytest.mark.parametrize("octets", ["", "c00002", "c000020700", "00" * 17])
def test_an_address_of_another_length_fails_the_read(road: ControlRoad, octets: str) -> None:
    value = {"type": "OCTET STRING", "value": {"hex": octets}}
    road.agent.set({"wmIpAddress.0": value})
    told = run(road, "getWmActiveProfileParameters")
    assert told.response == ""
    assert told.complaints[0] == error(f"invalid data size for IP address: [{len(octets) // 2}]")


@pytest.mark.parametrize(
    "value, number",
    [
        ({"type": "INTEGER", "value": -2147483648}, -2147483648),
        ({"type": "Counter32", "value": 2147483647}, 2147483647),
        ({"type": "Counter32", "value": 4294967295}, -1),
        ({"type": "Gauge32", "value": 2147483648}, -2147483648),
        ({"type": "TimeTicks", "value": 12}, 12),
        ({"type": "UInteger32", "value": 12}, 12),
    ],
    ids=str,
)
def test_a_number_is_32_bits_with_a_sign(road: ControlRoad, value: Any, number: int) -> None:
    road.agent.set({"wmBytesReceived.0": value})
    assert json.loads(run(road, "getWmCallStatistics").response)["bytesReceived"] == number


@pytest.mark.parametrize(
    "command, name, value, asn, kind",
    [
        ("getWmCallStatistics", "wmMaxTxRate.0", {"type": "OCTET STRING", "value": "1"}, "0x4", 1),
        ("getWmRfInformation", "wmSinr.0", {"type": "Counter64", "value": 1}, "0x46", 1),
        ("getWmRfInformation", "wmCellId.0", {"type": "Counter64", "value": 1}, "0x46", 4),
        ("getWmActiveProfileParameters", "wmPrimaryDNS.0", {"type": "INTEGER", "value": 1}, "0x2", 6),
    ],
    ids=lambda value: value if isinstance(value, str) else "",
)
def test_a_value_of_another_kind_fails_the_read(
    road: ControlRoad, command: str, name: str, value: Any, asn: str, kind: int
) -> None:
    road.agent.set({name: value})
    told = run(road, command)
    assert told.response == ""
    assert told.complaints[0] == error(f"no conversion specified from ASN {asn} to property {kind}")


def test_a_number_in_place_of_a_text_is_told_as_text(road: ControlRoad) -> None:
    road.agent.set({"wmCellId.0": {"type": "Gauge32", "value": 77}})
    assert json.loads(run(road, "getWmRfInformation").response)["cellid"] == "77"


# --- the device: phone number and interfaces ---

NO_PHONE = warning("failed to get phone number OID, skipping")
WHOLE_PHONE = "+" + "4" * 30


@pytest.mark.parametrize(
    "fault, value, phone, complaints",
    [
        ({}, WHOLE_PHONE, WHOLE_PHONE, []),
        (
            {},
            WHOLE_PHONE + "4",
            "",
            [error("buffer with size [32] is too small for requested property"), NO_PHONE],
        ),
        (
            {},
            {"type": "INTEGER", "value": 41},
            "",
            [error("property of wrong type fetched. Should be OCTET STRING, was: 2"), NO_PHONE],
        ),
        ({"exception": "noSuchInstance"}, "1", "", [NO_PHONE]),
        ({"error": "genErr"}, "1", "", [NO_PHONE]),
    ],
    ids=["fits", "too long", "a number", "absent", "refused"],
)
def test_a_modem_without_a_phone_number_is_told_all_the_same(
    road: ControlRoad, fault: dict[str, Any], value: Any, phone: str, complaints: list[str]
) -> None:
    road.agent.set({"wmPublicPhoneNr.0": value})
    if fault:
        road.agent.fault("wmPublicPhoneNr.0", **fault)
    told = run(road, "getWmDeviceInformation")
    assert told.response == ANSWERS["getWmDeviceInformation"].replace("+41000000000", phone)
    assert told.complaints == complaints


def address(text: str, interface: Any) -> dict[str, Any]:
    return {"index": text, "ipAdEntAddr": text, "ipAdEntIfIndex": interface}


LO = {"index": 1, "ifIndex": 1, "ifDescr": "lo"}


@pytest.mark.parametrize(
    "addresses, interfaces, told_of_them",
    [
        ([], [LO], ""),
        ([address("127.0.0.1", 1)], [], ""),
        ([address("127.0.0.1", 7)], [LO], ""),
        ([address("127.0.0.1", 1), address("127.0.0.2", 1)], [LO], ',"lo":"127.0.0.2"'),
        ([address("10.0.0.1", 1), address("9.0.0.1", 1)], [LO], ',"lo":"10.0.0.1"'),
        (
            [address("127.0.0.1", 1)],
            [LO, {"index": 2, "ifIndex": 1, "ifDescr": "same"}],
            ',"lo":"127.0.0.1"',
        ),
    ],
    ids=["no address", "no interface", "of none", "two of one", "by address", "a row out of place"],
)
def test_addresses_stand_beside_the_rest_under_the_names_of_their_interfaces(
    road: ControlRoad, addresses: list[Any], interfaces: list[Any], told_of_them: str
) -> None:
    road.agent.do({"put_rows": "ipAddrTable", "rows": addresses})
    road.agent.do({"put_rows": "ifTable", "rows": interfaces})
    assert run(road, "getWmDeviceInformation").response == DEVICE_TEXT + told_of_them + "}"


@pytest.mark.parametrize(
    "left_out, message",
    [
        ("ipAdEntIfIndex", "failed to de-serialize IP list"),
        ("ifDescr", "failed to de-serialize interface list"),
    ],
)
def test_an_agent_that_leaves_columns_out_fails_the_whole(
    road: ControlRoad, left_out: str, message: str
) -> None:
    road.agent.fault(left_out, shorten=True)
    told = run(road, "getWmDeviceInformation")
    assert (told.response, told.complaints) == ("", [ABSENT, error(message)])


# --- APNs ---

APNS = (
    '{"workingIdx":1,"apns":[{"name":"iot.example","type":0,"idxModem":1,"idx":1},'
    '{"name":"backup.example","type":0,"idxModem":2,"idx":2}]}'
)


def test_apns_are_numbered_from_1_behind_the_working_one(road: ControlRoad) -> None:
    road.agent.set({"wmPdpWorkingProfile.0": 2, "wmApnLocalIndex.1": 9})
    told = run(road, "getWmApns")
    assert told.response == APNS.replace('"workingIdx":1', '"workingIdx":2').replace(
        '"idxModem":1', '"idxModem":9'
    )
    assert told.complaints == []


def apn(index: int, name: str = "a") -> dict[str, Any]:
    return {"index": index, "wmApn": name, "wmApnConnectionType": 1, "wmApnLocalIndex": 5}


A_ROW = '{"name":"a","type":1,"idxModem":5,"idx":%d}'


@pytest.mark.parametrize(
    "rows, shown",
    [
        ([], ""),
        ([apn(1), apn(2), apn(4)], A_ROW % 1 + "," + A_ROW % 2),
        ([apn(2)], ""),
        ([apn(1, "x" * 300)], (A_ROW % 1).replace('"a"', '"' + "x" * 300 + '"')),
    ],
    ids=["none", "gap", "no first", "long name"],
)
def test_apns_are_read_up_to_the_first_gap(road: ControlRoad, rows: list[Any], shown: str) -> None:
    road.agent.do({"put_rows": "wmApnTable", "rows": rows})
    assert run(road, "getWmApns").response == f'{{"workingIdx":1,"apns":[{shown}]}}'


def test_apns_without_the_working_one_have_no_response(road: ControlRoad) -> None:
    road.agent.do({"faults": no_instance("wmPdpWorkingProfile.0")})
    told = run(road, "getWmApns")
    assert (told.response, told.complaints) == ("", [error("failed to get working index")])


def sets_of(road: ControlRoad) -> list[list[list[Any]]]:
    """Of each SET that was done: what it wrote, in its order."""
    return [entry["variables"] for entry in road.agent.sets() if entry["outcome"] == "done"]


@pytest.mark.parametrize(
    "command, params, write",
    [
        ("addWmApn", {"name": "new.example"}, ["wmAddApn.0", "new.example"]),
        ("addWmApn", {"name": "x" * 63}, ["wmAddApn.0", "x" * 63]),
        ("addWmApn", {"name": ""}, ["wmAddApn.0", ""]),
        ("addWmApn", {"name": 17}, ["wmAddApn.0", "17"]),
        ("addWmApn", {"name": "a\0b", "other": None}, ["wmAddApn.0", "a"]),
        ("updateWmApn", {"idx": 2, "name": "new.example"}, ["wmApn.2", "new.example"]),
        ("updateWmApn", {"idx": "1", "name": "x" * 63}, ["wmApn.1", "x" * 63]),
        ("updateWmApn", {"idx": 1.9, "name": "a"}, ["wmApn.1", "a"]),
        ("deleteWmApn", 2, ["wmRemoveApn.0", 2]),
        ("deleteWmApn", -1, ["wmRemoveApn.0", -1]),
        ("deleteWmApn", 1.9, ["wmRemoveApn.0", 1]),
        ("deleteWmApn", True, ["wmRemoveApn.0", 1]),
        ("deleteWmApn", "iot.example", ["wmRemoveApn.0", 0]),
        ("deleteWmApn", "2", ["wmRemoveApn.0", 0]),
        ("deleteWmApn", "", ["wmRemoveApn.0", 0]),
        ("deleteWmApn", None, ["wmRemoveApn.0", 0]),
        ("deleteWmApn", [2], ["wmRemoveApn.0", 0]),
        ("deleteWmApn", {"idx": 2}, ["wmRemoveApn.0", 0]),
    ],
    ids=lambda value: str(value)[:40],
)
def test_a_change_of_apns_is_one_write_and_no_response(
    road: ControlRoad, command: str, params: Any, write: list[Any]
) -> None:
    road.agent.do({"rules": [{"on_set": write[0], "do": []}]})
    told = run(road, command, params)
    assert (told.response, told.complaints) == ("", [])
    assert sets_of(road) == [[write]]


NO_TEXT = warning("unable to fetch string")
TOO_LONG = warning("not enough space for incoming string")
NOT_READ = error("failed to de-serialize params")


@pytest.mark.parametrize(
    "command, params, complaints",
    [
        ("addWmApn", {}, [ABSENT, NOT_READ]),
        ("addWmApn", {"Name": "a"}, [ABSENT, NOT_READ]),
        ("addWmApn", None, [NOT_READ]),
        ("addWmApn", [], [ABSENT, NOT_READ]),
        ("addWmApn", "name", [ABSENT, NOT_READ]),
        ("addWmApn", {"name": None}, [NO_TEXT, NOT_READ]),
        ("addWmApn", {"name": "x" * 64}, [TOO_LONG, NOT_READ]),
        ("addWmApn", {"name": "x" * 100000}, [TOO_LONG, NOT_READ]),
        ("updateWmApn", {"idx": 1}, [ABSENT, NOT_READ]),
        ("updateWmApn", {"name": "a"}, [ABSENT, NOT_READ]),
        ("updateWmApn", {"name": None, "idx": 1}, [NO_TEXT, NOT_READ]),
        ("updateWmApn", {"name": "x" * 64, "idx": 1}, [TOO_LONG, NOT_READ]),
        ("updateWmApn", None, [NOT_READ]),
        ("updateWmApn", [1], [ABSENT, NOT_READ]),
        ("updateWmApn", "a", [ABSENT, NOT_READ]),
        (
            "updateWmApn",
            {"name": "a", "idx": -1},
            [error("cannot parse OID"), error("failed to set WM property")],
        ),
    ],
    ids=lambda value: str(value)[:40],
)
def test_what_cannot_be_read_changes_no_apn(
    road: ControlRoad, command: str, params: Any, complaints: list[str]
) -> None:
    told = run(road, command, params)
    assert (told.response, told.complaints) == ("", complaints)
    assert sets_of(road) == []


@pytest.mark.parametrize(
    "command, params, name, message",
    [
        ("addWmApn", {"name": "a"}, "wmAddApn.0", "failed to add APN"),
        ("updateWmApn", {"name": "a", "idx": 1}, "wmApn.1", "failed to set WM property"),
        ("deleteWmApn", 1, "wmRemoveApn.0", "failed to set APN index"),
    ],
)
def test_a_refused_change_of_apns_is_told(
    road: ControlRoad, command: str, params: Any, name: str, message: str
) -> None:
    road.agent.fault(name, error="genErr", on="set")
    told = run(road, command, params)
    assert told.response == ""
    assert told.complaints == [
        error("error in packet: (genError) A general failure occured"),
        error(message),
    ]


@pytest.mark.parametrize("idx", [0, 9, 2**31, 2**63, -(2**63), None, "one", [1], {}], ids=str)
def test_an_apn_without_a_row_cannot_be_renamed(road: ControlRoad, idx: Any) -> None:
    """What is no number counts as 0."""
    told = run(road, "updateWmApn", {"name": "a", "idx": idx})
    assert told.response == ""
    assert told.complaints[-1] == error("failed to set WM property")
    assert run(road, "getWmApns").response == APNS


def apn_status(road: ControlRoad) -> str:
    response: str = json.loads(run(road, "getWmStatusApn").response)["status"]
    return response


def apn_names(road: ControlRoad) -> list[str]:
    return [row["name"] for row in json.loads(run(road, "getWmApns").response)["apns"]]


def test_an_apn_is_added_renamed_and_removed(road: ControlRoad) -> None:
    """The modem takes its time; its status tells when it is done."""
    run(road, "addWmApn", {"name": "new.example"})
    assert apn_status(road) == AT_WORK
    wait_until(lambda: apn_status(road) == "APN added successfully", "the modem has added the APN")
    run(road, "updateWmApn", {"name": "newer.example", "idx": 3})
    assert apn_status(road) == "APN changed successfully"
    assert apn_names(road) == ["iot.example", "backup.example", "newer.example"]
    run(road, "deleteWmApn", 1)
    assert apn_status(road) == AT_WORK
    wait_until(lambda: apn_status(road) == "APN removed successfully", "the modem has removed the APN")
    assert apn_names(road) == ["backup.example", "newer.example"]


@pytest.mark.parametrize(
    "values, faults, response, complaints",
    [
        ({}, {}, '{"status":"Idle","simStatus":"SIM ready"}', []),
        (
            {"wmApnLastOperationStatus.0": {"type": "INTEGER", "value": 3}, "wmSimStatus.0": "y" * 500},
            {},
            '{"status":3,"simStatus":"' + "y" * 500 + '"}',
            [],
        ),
        ({}, no_instance("wmSimStatus.0"), '{"status":"Idle"}', [error("failed to get APN status")]),
        ({}, no_instance("wmApnLastOperationStatus.0"), "{}", [error("failed to get APN status")]),
        ({}, {"wmSimStatus.0": {"error": "genErr"}}, "{}", [error("failed to get APN status")]),
    ],
    ids=["both", "other forms", "no second", "no first", "refused"],
)
def test_the_status_of_apns_is_told_as_far_as_it_was_read(
    road: ControlRoad, values: dict[str, Any], faults: dict[str, Any], response: str, complaints: list[str]
) -> None:
    road.agent.set(values)
    road.agent.do({"faults": faults})
    told = run(road, "getWmStatusApn")
    assert (told.response, told.complaints) == (response, complaints)
    assert len(road.agent.requests()) == 1


# --- networks ---


def network(use: Any, name: str = "N", index: int = 1) -> dict[str, Any]:
    return {"index": index, "wmMcc": 228, "wmMnc": 1, "wmNetworkDescription": name, "wmNetworkInUse": use}


A_NETWORK = '{"mcc":228,"mnc":1,"name":"N","active":"%s"}'


@pytest.mark.parametrize(
    "rows, shown",
    [
        (
            [network(1), network(2, index=2), network(0, index=3)],
            ",".join(A_NETWORK % word for word in ("Current", "Available", "Unknown")),
        ),
        ([network(2), network(1, index=3)], A_NETWORK % "Available"),
        ([], ""),
        ([network({"type": "Gauge32", "value": 1})], A_NETWORK % "Current"),
        ([network({"type": "OCTET STRING", "value": "2"})], A_NETWORK % "Available"),
        ([network(1, "x" * 200)], (A_NETWORK % "Current").replace('"N"', '"' + "x" * 200 + '"')),
    ],
    ids=["words", "gap", "none", "unsigned", "digits", "long name"],
)
def test_networks_tell_their_use_in_words(road: ControlRoad, rows: list[Any], shown: str) -> None:
    road.agent.do({"put_rows": "wmNetworkTable", "rows": rows})
    told = run(road, "getWmNetworkInfo")
    assert (told.response, told.complaints) == (f'{{"availableNetworks":[{shown}]}}', [])


def test_the_count_of_networks_is_asked_for_and_not_used(road: ControlRoad) -> None:
    road.agent.set({"wmMncMccTotal.0": 1})
    assert len(json.loads(run(road, "getWmNetworkInfo").response)["availableNetworks"]) == 3
    assert road.agent.requests()[0]["variables"] == ["wmMncMccTotal.0"]


@pytest.mark.parametrize("use", [3, -1, 2147483647])
def test_one_network_of_unknown_use_fails_the_list(road: ControlRoad, use: int) -> None:
    road.agent.do({"put_rows": "wmNetworkTable", "rows": [network(1), network(use, index=2)]})
    told = run(road, "getWmNetworkInfo")
    assert (told.response, told.complaints) == ("", [error("failed to convert active type")])


def test_a_network_without_its_use_fails_the_list(road: ControlRoad) -> None:
    road.agent.fault("wmNetworkInUse", shorten=True)
    told = run(road, "getWmNetworkInfo")
    failure = error("failed to de-serialize current network parameters")
    assert (told.response, told.complaints) == ("", [ABSENT, failure])


def test_networks_without_a_count_are_not_read(road: ControlRoad) -> None:
    road.agent.do({"faults": no_instance("wmMncMccTotal.0")})
    told = run(road, "getWmNetworkInfo")
    assert (told.response, told.complaints) == ("", [error("failed to read the cellular list count")])
    assert len(road.agent.requests()) == 1


def answers_with(*texts: str) -> dict[str, Any]:
    """The modem tells these when it is given an operator, each for half a second, the last for good."""
    steps: list[dict[str, Any]] = []
    for text in texts:
        steps += [{"set": {"wmMncMccOpStatus.0": text}}, {"wait_ms": 500}]
    return {"rules": [{"on_set": "wmMncMccOp.0", "do": steps[:-1]}]}


OPERATOR = {"mnc": 2, "mcc": 228}
OPERATOR_WRITES = [[["wmMccCode.0", 228], ["wmMncCode.0", 2]], [["wmMncMccOp.0", 0]]]
NO_STATUS = error("status fetch operation failed with error code: -1")
TOO_LONG_STATUS = error("buffer with size [128] is too small for requested property")


@pytest.mark.parametrize(
    "texts, status, complaints",
    [
        ([AT_WORK, AT_WORK, "Done successfully"], "Done successfully", []),
        (["No such operator"], "No such operator", []),
        ([AT_WORK + "."], AT_WORK + ".", []),
        ([""], "", []),
        ([AT_WORK, "x" * 127], "x" * 127, []),
        ([AT_WORK, "x" * 128], "status fetch operation failed", [TOO_LONG_STATUS, NO_STATUS]),
    ],
    ids=["success", "failure", "nearly the wait text", "no text", "fits", "too long"],
)
def test_choosing_an_operator_answers_with_the_modems_last_words(
    road: ControlRoad, texts: list[str], status: str, complaints: list[str]
) -> None:
    road.agent.do(answers_with(*texts))
    told = run(road, "setWmPreferredNetwork", OPERATOR)
    assert (told.response, told.complaints) == (f'{{"status":"{status}"}}', complaints)
    assert sets_of(road) == OPERATOR_WRITES


def test_the_modem_is_asked_every_200_ms(road: ControlRoad) -> None:
    road.agent.do(answers_with(AT_WORK, AT_WORK, "Done"))
    run(road, "setWmPreferredNetwork", OPERATOR)
    steps = [entry for entry in road.agent.requests() if entry["op"] == "set" or "Status" in str(entry)]
    times = [entry["at_ms"] for entry in steps[1:]]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert len(gaps) >= 3 and all(gap >= 199 for gap in gaps), gaps


def test_other_commands_are_answered_while_one_waits_for_the_modem(road: ControlRoad) -> None:
    road.agent.do(answers_with(AT_WORK))
    number = road.send("setWmPreferredNetwork", OPERATOR)
    wait_until(lambda: len(sets_of(road)) == 2, "the operator is chosen")
    assert road.command("getSimStatus").response == "SIM ready"
    assert not [answer for answer in road.answers() if answer.json["requestId"] == number]
    road.agent.set({"wmMncMccOpStatus.0": "Done"})
    assert road.answer_to(number).response == {"status": "Done"}


REFUSED_PARAMS = "failed to de-serialize parameters -- one or more parameters missing!"
REFUSED_VALUES = "failed to stage the new MNC/MCC values -- for setting"
REFUSED_TRIGGER = "failed to trigger setting the new preferred cellular network"


@pytest.mark.parametrize(
    "params",
    [
        {"mcc": 228},
        {"mnc": 2},
        {},
        None,
        [228, 2],
        "228",
        228,
    ],
    ids=str,
)
def test_an_operator_takes_both_numbers(road: ControlRoad, params: Any) -> None:
    told = run(road, "setWmPreferredNetwork", params)
    assert told.response == f'{{"status":"{REFUSED_PARAMS}"}}'
    assert road.agent.requests() == []


@pytest.mark.parametrize(
    "params, written",
    [
        ({"mcc": "228", "mnc": "02"}, [228, 2]),
        ({"mcc": None, "mnc": "two"}, [0, 0]),
        ({"mcc": [228], "mnc": {}}, [0, 0]),
        ({"mcc": 228.9, "mnc": True}, [228, 1]),
        ({"mcc": -1, "mnc": 2147483647}, [-1, 2147483647]),
    ],
    ids=str,
)
def test_an_operators_numbers_may_come_in_other_forms(
    road: ControlRoad, params: Any, written: list[int]
) -> None:
    road.agent.do(answers_with("Done"))
    assert run(road, "setWmPreferredNetwork", params).response == '{"status":"Done"}'
    assert [pair[1] for pair in sets_of(road)[0]] == written


@pytest.mark.parametrize(
    "name, status, done",
    [
        ("wmMccCode.0", REFUSED_VALUES, 0),
        ("wmMncCode.0", REFUSED_VALUES, 0),
        ("wmMncMccOp.0", REFUSED_TRIGGER, 1),
    ],
)
def test_choosing_an_operator_answers_which_step_failed(
    road: ControlRoad, name: str, status: str, done: int
) -> None:
    road.agent.fault(name, error="genErr", on="set")
    told = run(road, "setWmPreferredNetwork", OPERATOR)
    assert json.loads(told.response) == {"status": status}
    assert sets_of(road) == OPERATOR_WRITES[:done]
    assert not [entry for entry in road.agent.requests() if "Status" in str(entry)]


@pytest.mark.parametrize(
    "fault, complaint",
    [
        ({"exception": "noSuchObject"}, "No Such Object available on this agent at this OID"),
        ({"error": "genErr"}, ""),
    ],
    ids=["absent", "refused"],
)
def test_a_status_that_cannot_be_read_ends_the_wait(
    road: ControlRoad, fault: dict[str, Any], complaint: str
) -> None:
    road.agent.do(answers_with(AT_WORK))
    road.agent.fault("wmMncMccOpStatus.0", after=2, **fault)
    log = road.bridge.log.mark()
    told = run(road, "setWmPreferredNetwork", OPERATOR)
    assert told.response == '{"status":"status fetch operation failed"}'
    assert told.complaints == [error(complaint)] * bool(complaint) + [NO_STATUS]
    assert len(road.bridge.log.find(f"got status: {AT_WORK}", after=log)) == 2


# --- SIM ---

SLOT_MISSING = warning("Slot parameter is missing, default to 0")


@pytest.mark.parametrize(
    "params, response, complaints",
    [
        ({"slot": 0}, '"SIM ready"', []),
        ({"slot": 1}, '"SIM not inserted"', []),
        ({}, '"SIM ready"', [SLOT_MISSING]),
        ({"Slot": 1}, '"SIM ready"', [SLOT_MISSING]),
        (None, '"SIM ready"', [SLOT_MISSING]),
        ([1], '"SIM ready"', [SLOT_MISSING]),
        ("slot", '"SIM ready"', [SLOT_MISSING]),
        (1, '"SIM ready"', [SLOT_MISSING]),
        ({"slot": 2}, "", [error("Wrong slot number: 2")]),
        ({"slot": -1}, "", [error("Wrong slot number: -1")]),
        ({"slot": 2**63}, "", [error(f"Wrong slot number: {2**63 - 1}")]),
        ({"slot": -(2**63)}, "", [error(f"Wrong slot number: {-2**63}")]),
    ],
    ids=str,
)
def test_a_sim_is_told_by_its_slot(
    road: ControlRoad, params: Any, response: str, complaints: list[str]
) -> None:
    told = run(road, "getSimStatus", params)
    assert (told.response, told.complaints) == (response, complaints)


@pytest.mark.parametrize("slot, name", [(0, "wmSimStatus.0"), (1, "wmSimSlot1Status.0")])
def test_a_sim_that_cannot_be_read_has_no_response(road: ControlRoad, slot: int, name: str) -> None:
    failure = error(f"Error getting SIM status for slot: {slot}")
    road.agent.set({name: "x" * 127})
    assert json.loads(run(road, "getSimStatus", {"slot": slot}).response) == "x" * 127
    road.agent.set({name: "x" * 128})
    told = run(road, "getSimStatus", {"slot": slot})
    assert (told.response, told.complaints) == ("", [TOO_LONG_STATUS, failure])
    road.agent.do({"faults": no_instance(name)})
    told = run(road, "getSimStatus", {"slot": slot})
    assert (told.response, told.complaints) == ("", [failure])
