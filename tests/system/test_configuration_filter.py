"""Managed configuration of the uplink packet filter: the files of the radio layer, and what the server is told."""

import fcntl
import json
import os
import threading
from pathlib import Path
from typing import Iterator, Optional

import pytest

from command_outcome import HOUR
from harness.control import ControlRoad
from harness.lab import start_agent
from harness.waiting import wait_until
from managed_configuration import ManagedGateway, Outcome, retained

FOLDER = "var/lib/sarnivel-lora-hal"
STORED = (
    '{"devAddrList":[{"ruleId":1,"action":"ALLOW","start":1,"end":2}],'
    '"joinReqList":[{"ruleId":2,"action":"DENY","devEUI_Start":0,"devEUI_End":18446744073709551615,'
    '"joinEUI_Start":3,"joinEUI_End":4}],"version":3}'
)
ADDRESSES = '"devAddrList":[{"ruleId":1,"action":"ALLOW","start":"00000001","end":"00000002"}]'
JOINS = (
    '"joinReqList":[{"ruleId":2,"action":"DENY","devEUI_Start":"0000000000000000",'
    '"devEUI_End":"FFFFFFFFFFFFFFFF","joinEUI_Start":"0000000000000003","joinEUI_End":"0000000000000004"}]'
)
VERSION = '"version":3'
REFUSED = '{"status":"LoRa filter rule write request failed"}'
UNREADABLE = '{"status":"Failed to read the current LoRa filter rules"}'


@pytest.fixture(scope="module")
def started(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ManagedGateway]:
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    road = ControlRoad(tmp_path_factory.mktemp("road"), agent, polls=HOUR).wait_ready()
    made = ManagedGateway(road)
    made.forget()
    made.start()
    yield made
    road.close()
    agent.close()


class Filter:
    """The files, and documents with the section alone."""

    def __init__(self, gateway: ManagedGateway) -> None:
        self.gateway = gateway
        self.folder = gateway.road.inside(FOLDER)
        self.file = self.folder / "uplink-filter-list"
        self.lock = self.folder / "uplink-filter-list-lock"
        self.backup = self.folder / "uplink-filter-list-backup"

    def reset(self, text: Optional[str] = STORED) -> None:
        self.folder.mkdir(parents=True, exist_ok=True)
        for path in self.folder.iterdir():
            path.unlink()
        self.lock.write_text("")
        if text is not None:
            self.file.write_text(text)

    def desire(self, section: object) -> Outcome:
        return self.gateway.desire({"loraTrafficFilter": section}, stored=1)

    def left(self) -> str:
        assert not self.backup.exists()
        return self.file.read_text()


@pytest.fixture
def filter_(started: ManagedGateway) -> Filter:
    made = Filter(started)
    made.reset()
    return made


def reported(outcome: Outcome) -> str:
    (report,) = outcome.reports
    start, end = '{"content":{"loraTrafficFilter":', "}}\0"
    text = report.decode()
    assert text.startswith(start) and text.endswith(end), text
    return text[len(start) : -len(end)]


def whole_read(filter_: Filter) -> str:
    """The section in the answer to a repeated request: the last one, as it stands."""
    (report,) = filter_.gateway.desire({}, timestamp=7, stored=7).reports
    return report.decode().split('"loraTrafficFilter":')[1].removesuffix("}}\0")


def shown(*parts: str) -> str:
    return f'{{"value":{{{",".join(parts)}}}}}'


def address(number: object, start: object, **more: object) -> dict[str, object]:
    return {"ruleId": number, "action": "ALLOW", "start": start, **more}


def join_request(number: object, **more: object) -> dict[str, object]:
    return {"ruleId": number, "action": "deny", **more}


# --- good lists ---


def test_both_lists_are_stored_as_numbers_and_told_in_hexadecimal(filter_: Filter) -> None:
    outcome = filter_.desire(
        {
            "joinReqList": [
                join_request(9, joinEUI_Start="0x70b3d57ed0000000"),
                join_request(3, devEUI_Start="A"),
            ],
            "devAddrList": [
                address(2**64 - 1, "0x1F"),
                address(7, "1f", end="FFFFFFFF"),
                address(1, "", action="Deny"),
            ],
        }
    )
    every = '"devEUI_Start":"0000000000000000","devEUI_End":"FFFFFFFFFFFFFFFF"'
    assert reported(outcome) == shown(
        '"devAddrList":[{"ruleId":1,"action":"Deny","start":"00000000","end":"00000000"},'
        '{"ruleId":7,"action":"ALLOW","start":"0000001F","end":"FFFFFFFF"},'
        '{"ruleId":18446744073709551615,"action":"ALLOW","start":"0000001F","end":"0000001F"}]',
        '"joinReqList":[{"ruleId":3,"action":"deny","devEUI_Start":"000000000000000A",'
        '"devEUI_End":"000000000000000A","joinEUI_Start":"0000000000000000","joinEUI_End":"FFFFFFFFFFFFFFFF"},'
        f'{{"ruleId":9,"action":"deny",{every},"joinEUI_Start":"70B3D57ED0000000","joinEUI_End":"70B3D57ED0000000"}}]',
        VERSION,
    )
    assert filter_.left() == (
        '{"devAddrList":[{"ruleId":1,"action":"Deny","start":0,"end":0},'
        '{"ruleId":7,"action":"ALLOW","start":31,"end":4294967295},'
        '{"ruleId":18446744073709551615,"action":"ALLOW","start":31,"end":31}],'
        '"joinReqList":[{"ruleId":3,"action":"deny","devEUI_Start":10,"devEUI_End":10,"joinEUI_Start":0,'
        '"joinEUI_End":18446744073709551615},{"ruleId":9,"action":"deny","devEUI_Start":0,'
        f'"devEUI_End":18446744073709551615,"joinEUI_Start":{0x70B3D57ED0000000},"joinEUI_End":{0x70B3D57ED0000000}}}],'
        '"version":3}'
    )
    assert outcome.errors == ["New config request from the server"]
    assert [message.payload for message in retained(filter_.gateway.road)] == outcome.reports


@pytest.mark.parametrize(
    "section, told",
    [
        ({}, shown(ADDRESSES, JOINS, VERSION)),
        ([], shown(ADDRESSES, JOINS, VERSION)),
        (5, shown(ADDRESSES, JOINS, VERSION)),
        ({"devAddrList": {}, "joinReqList": "none"}, shown(ADDRESSES, JOINS, VERSION)),
        ({"devAddrList": []}, shown('"devAddrList":[]', JOINS, VERSION)),
        ({"devAddrList": None}, shown('"devAddrList":[]', JOINS, VERSION)),
        ({"joinReqList": []}, shown(ADDRESSES, '"joinReqList":[]', VERSION)),
        ({"joinReqList": None, "devAddrList": None}, shown('"devAddrList":[]', '"joinReqList":[]', VERSION)),
        ({"devAddrList": [address(1, "5")] * 1025}, shown(ADDRESSES, JOINS, VERSION)),
        (
            {"joinReqList": [join_request(1, devEUI_Start="5")] * 1025, "devAddrList": []},
            shown('"devAddrList":[]', JOINS, VERSION),
        ),
    ],
    ids=lambda value: str(value)[:50],
)
def test_a_list_is_replaced_cleared_or_left(filter_: Filter, section: object, told: str) -> None:
    outcome = filter_.desire(section)
    assert reported(outcome) == told
    kept = json.loads(filter_.left())
    assert [len(kept["devAddrList"]), len(kept["joinReqList"])] == [told.count("ALLOW"), told.count("DENY")]


def test_lists_of_1024_rules_are_taken(filter_: Filter) -> None:
    rules = [address(number, "%x" % number) for number in range(1024, 0, -1)]
    section = json.loads(reported(filter_.desire({"devAddrList": rules})))["value"]
    assert [rule["ruleId"] for rule in section["devAddrList"]] == list(range(1, 1025))
    assert [rule["start"] for rule in json.loads(filter_.left())["devAddrList"]] == list(range(1, 1025))


def test_a_section_without_lists_makes_and_removes_the_backup(filter_: Filter) -> None:
    outcome = filter_.desire({})
    assert len([line for line in outcome.lines if line.endswith(" Backup filter rule")]) == 1
    assert outcome.logs("No backup uplink packet filter file"), "it is gone before the rollback looks for it"
    assert reported(outcome) == shown(ADDRESSES, JOINS, VERSION)
    assert filter_.left() == STORED


MEBIBYTE = 2**20
LONGEST = 31


def padded(rule: dict[str, object], size: int) -> dict[str, object]:
    """Unknown keys are of no concern."""
    return {**rule, "note": "n" * size, "more": [None, {"start": "g"}]}


@pytest.mark.parametrize("addresses, joins", [(1024, 1024), (1025, 1024), (1024, 1025)])
def test_a_document_of_about_a_mebibyte(filter_: Filter, addresses: int, joins: int) -> None:
    section = {
        "devAddrList": [
            padded(address(number, f"0x{number:029x}", end=f"{number:031x}"), 200)
            for number in range(addresses, 0, -1)
        ],
        "joinReqList": [
            padded(join_request(number, devEUI_Start=f"{number:031x}", joinEUI_End=f"{number:031x}"), 400)
            for number in range(joins, 0, -1)
        ],
    }
    assert len(str(section["devAddrList"][0]["start"])) == LONGEST
    assert 0.8 * MEBIBYTE < len(json.dumps(section)) < 1.2 * MEBIBYTE
    outcome = filter_.desire(section)
    kept, before = json.loads(filter_.left()), json.loads(STORED)
    assert kept["version"] == 3
    if addresses > 1024:
        assert kept["devAddrList"] == before["devAddrList"]
    else:
        assert kept["devAddrList"] == [address(each, each, end=each) for each in range(1, 1025)]
    if joins > 1024:
        assert kept["joinReqList"] == before["joinReqList"]
    else:
        assert [
            (each["devEUI_Start"], each["devEUI_End"], each["joinEUI_Start"], each["joinEUI_End"])
            for each in kept["joinReqList"]
        ] == [(each, each, 0, each) for each in range(1, 1025)]
    told = json.loads(reported(outcome))["value"]
    assert [len(told[key]) for key in ("devAddrList", "joinReqList")] == [
        len(kept[key]) for key in ("devAddrList", "joinReqList")
    ]
    assert outcome.errors == ["New config request from the server"]


def test_a_read_tells_the_file_without_a_change(filter_: Filter) -> None:
    assert whole_read(filter_) == f"{{{ADDRESSES},{JOINS},{VERSION}}}"
    assert filter_.left() == STORED


# --- bad rules ---

GOOD = address(1, "5")
GOOD_JOIN = join_request(1, devEUI_Start="5")


@pytest.mark.parametrize(
    "section, line",
    [
        ({"devAddrList": [GOOD, {}]}, "one or more fields likely missing in a profile"),
        ({"devAddrList": [GOOD, 5]}, "one or more fields likely missing in a profile"),
        ({"devAddrList": [GOOD, address(2, None)]}, "one or more fields likely missing in a profile"),
        ({"devAddrList": [address(1, "1" * 32)]}, "one or more fields likely missing in a profile"),
        ({"devAddrList": [address(1, "g")]}, "The DevAddr start range is not Hex"),
        ({"devAddrList": [address(1, "1", end="-1")]}, "The DevAddr end range is not Hex"),
        (
            {"devAddrList": [address(1, "f" * 17)]},
            "Failed to convert DevAddr start range from string to integer",
        ),
        ({"devAddrList": [address(1, "100000000", end="1")]}, "exceeds the maximum allowed 00000000FFFFFFFF"),
        ({"devAddrList": [address(0, "1")]}, "Invalid DevAddr filter ruleid 0, must be 1 or greater"),
        (
            {"devAddrList": [address(1, "2", end="1")]},
            "end 0000000000000001 less than start 0000000000000002",
        ),
        (
            {"devAddrList": [address(1, "2", action="")]},
            "Invalid DevAddr filter action: , must be ALLOW or DENY ",
        ),
        ({"joinReqList": [join_request(1)]}, "one or more fields missing in a profile"),
        ({"joinReqList": [GOOD_JOIN, {}]}, "one or more fields missing in a profile"),
        ({"joinReqList": [GOOD_JOIN, 5]}, "one or more fields missing in a profile"),
        ({"joinReqList": [GOOD_JOIN, None]}, "one or more fields missing in a profile"),
        ({"joinReqList": [join_request(2, devEUI_Start=None)]}, "one or more fields missing in a profile"),
        (
            {"joinReqList": [join_request(1, joinEUI_Start="1" * 32)]},
            "one or more fields missing in a profile",
        ),
        (
            {"joinReqList": [join_request(1, devEUI_Start="f" * 17)]},
            "Failed to convert DevEUI start range from string to integer",
        ),
        (
            {"joinReqList": [join_request(1, joinEUI_Start="1", joinEUI_End="1" + "0" * 16)]},
            "Failed to convert JoinEUI end range from string to integer",
        ),
        (
            {"joinReqList": [join_request(1, joinEUI_Start="1", joinEUI_End="-1")]},
            "The JoinEUI end range is not Hex",
        ),
        (
            {"joinReqList": [join_request(1, devEUI_Start="2", devEUI_End="1")]},
            "Invalid DevEUI filter range: end 0000000000000001 less than start 0000000000000002",
        ),
        (
            {"joinReqList": [join_request(1, devEUI_Start="2", action="")]},
            "Invalid JoinReq filter action: , must be ALLOW or DENY ",
        ),
        ({"joinReqList": [join_request(1, devEUI_Start="x")]}, "The DevEUI start range is not Hex"),
        (
            {"joinReqList": [join_request(1, devEUI_Start="", devEUI_End="x")]},
            "The JoinEUI end range is not Hex",
        ),
        (
            {"joinReqList": [join_request(0, joinEUI_Start="")]},
            "Invalid JoinReq filter ruleid 0, must be 1 or greater ",
        ),
        (
            {"joinReqList": [join_request(1, joinEUI_Start="2", joinEUI_End="1")]},
            "Invalid JoinEUI filter range: end 0000000000000001 less than start 0000000000000002",
        ),
        (
            {"joinReqList": [join_request(1, devEUI_Start="1", action="drop")]},
            "Invalid JoinReq filter action: drop, must be ALLOW or DENY ",
        ),
    ],
    ids=lambda value: str(value)[:70],
)
def test_a_bad_rule_refuses_both_lists(filter_: Filter, section: dict[str, object], line: str) -> None:
    outcome = filter_.desire({"devAddrList": None} | section)
    assert reported(outcome) == REFUSED
    assert outcome.logs(line)
    assert filter_.left() == STORED


# --- files ---


def test_without_a_lock_file_nothing_is_written_but_the_file_is_read(filter_: Filter) -> None:
    filter_.lock.unlink()
    outcome = filter_.desire({"devAddrList": None})
    assert reported(outcome) == REFUSED
    assert outcome.logs("uplink packet filter lock file is not present")
    assert filter_.left() == STORED and not filter_.lock.exists()
    assert whole_read(filter_) == f"{{{ADDRESSES},{JOINS},{VERSION}}}"


def test_without_a_filter_file_none_is_made(filter_: Filter) -> None:
    filter_.reset(None)
    outcome = filter_.desire({"devAddrList": [GOOD]})
    assert reported(outcome) == REFUSED
    assert outcome.logs("uplink packet filter file is not present")
    assert whole_read(filter_) == UNREADABLE
    assert [path.name for path in filter_.folder.iterdir()] == [filter_.lock.name]


@pytest.mark.parametrize("text", ["", "no JSON", '{"devAddrList":['])
def test_a_file_without_an_object_counts_as_empty(filter_: Filter, text: str) -> None:
    filter_.reset(text)
    outcome = filter_.desire({"devAddrList": [GOOD]})
    assert reported(outcome) == shown(
        '"devAddrList":[{"ruleId":1,"action":"ALLOW","start":"00000005","end":"00000005"}]'
    )
    assert outcome.logs("the filter file appears to be empty (no valid JSON structure)")


def test_a_stored_rule_that_is_not_understood_fails_the_answer(filter_: Filter) -> None:
    filter_.reset('{"devAddrList":[{"ruleId":1}]}')
    outcome = filter_.desire({"joinReqList": []})
    assert reported(outcome) == REFUSED
    assert outcome.logs("unable to deserialize the DevAddr filter rule during reading")
    assert filter_.left() == '{"devAddrList":[{"ruleId":1}],"joinReqList":[]}', "a good write is not undone"


def wait_locked(path: Path) -> None:
    """Until another process waits for the file's lock."""
    file = path.stat()
    name = f" {os.major(file.st_dev):02x}:{os.minor(file.st_dev):02x}:{file.st_ino} "

    def is_awaited() -> bool:
        lines = Path("/proc/locks").read_text().splitlines()
        return any("->" in line and name in line for line in lines)

    wait_until(is_awaited, "the daemon waits for the lock")


def test_a_read_does_not_wait_for_the_lock_of_another(filter_: Filter) -> None:
    with filter_.lock.open("r+") as other:
        fcntl.lockf(other, fcntl.LOCK_EX)
        assert whole_read(filter_) == f"{{{ADDRESSES},{JOINS},{VERSION}}}"


def test_a_writer_waits_for_the_lock_of_another(filter_: Filter) -> None:
    outcomes: list[Outcome] = []
    mark = filter_.gateway.road.bridge.log.mark()
    with filter_.lock.open("r+") as other:
        fcntl.lockf(other, fcntl.LOCK_EX)
        writer = threading.Thread(target=lambda: outcomes.append(filter_.desire({"devAddrList": []})))
        writer.start()
        filter_.gateway.road.bridge.wait_for_log("Uplink packet filter descriptor", after=mark)
        wait_locked(filter_.lock)
        assert filter_.file.read_text() == STORED
    writer.join()
    assert reported(outcomes[0]) == shown('"devAddrList":[]', JOINS, VERSION)
