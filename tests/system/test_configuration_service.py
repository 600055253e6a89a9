"""Managed configuration: the report at the start, desired documents, their sections, and what is told."""

import fcntl
import json
import os
from pathlib import Path
from typing import Iterator, Optional

import pytest

from conftest import Cleanup
from harness.control import CAPABILITIES, CONFIGURATION, SIZES, ControlRoad
from harness.lab import LabAgent, start_agent
from harness.waiting import wait_until
from managed_configuration import (
    BULK,
    DESIRED,
    IN_FILE,
    OUT_FILE,
    REPORTED,
    WORKER_DONE,
    WORKER_STARTS,
    ManagedGateway,
    Outcome,
    document,
    retained,
    stamp,
)

SECTIONS = [
    "networkServer",
    "geoLocation",
    "networkConfiguration",
    "upgradeServer",
    "snmpAgent",
    "loraTrafficFilter",
]
WHOLE_READ = ["networkServer read", "connectivityCheck read", "ipkFeedURL read", "snmpAgent read"]
NEW = "New config request from the server"
REPEAT = "Repeat Config request from the server -- update server with the current configuration"
OLD = "old config request from the server -- likely a server issue"
UNREADABLE = "config timestamp couldn't be read"
NO_DOCUMENT = "failed to parse incoming configuration"
NO_TIMESTAMP = "failed to de-serialize configuration params"
NO_CONTENT = "content is missing, no configuration should be applied"
NOTHING = '{"content":{}}'
MAXIMUM = 2**63 - 1

pytestmark = pytest.mark.xdist_group("configuration_service")


@pytest.fixture(scope="module")
def started(tmp_path_factory: pytest.TempPathFactory) -> Iterator[tuple[ManagedGateway, Outcome]]:
    """The service, and what its start brought."""
    agent = start_agent(tmp_path_factory.mktemp("agent"))
    road = ControlRoad(tmp_path_factory.mktemp("road"), agent, polls=300).wait_ready()
    made = ManagedGateway(road)
    made.forget()
    outcome = made.start()
    assert not retained(road), "the report at the start is not retained"
    yield made, outcome
    road.close()
    agent.close()


@pytest.fixture
def gateway(started: tuple[ManagedGateway, Outcome]) -> ManagedGateway:
    started[0].forget()
    return started[0]


def text_of(outcome: Outcome) -> str:
    """The only response, which ends with a NUL."""
    assert len(outcome.reports) == 1, outcome.lines
    assert outcome.reports[0].endswith(b"}\0")
    return outcome.reports[0][:-1].decode()


# --- start ---


def test_the_start_reports_every_section(started: tuple[ManagedGateway, Outcome]) -> None:
    outcome = started[1]
    text = text_of(outcome)
    content = json.loads(text)["content"]
    assert list(content) == SECTIONS
    assert text.startswith(
        '{ "content": { "networkServer": { "address": "127.0.0.1", "portUp": 1680, "portDown": 1680 }, '
        '"geoLocation": { }, "networkConfiguration": { "interfacePreference": '
    )
    assert (
        ', "upgradeServer": { "ipkFeedURL": { "url": "http:\\/\\/127.0.0.1\\/feeds" } }, '
        '"snmpAgent": { "enabled": true, "community": "public" }, "loraTrafficFilter": { ' in text
    )
    assert content["networkConfiguration"]["connectivityCheck"] == {"enabled": False, "interval": 60}
    assert outcome.called == WHOLE_READ
    assert {call.split(" ", 2)[2] for call in outcome.calls} == {f"{IN_FILE} {OUT_FILE} [USE_STDERR=1 ]"}
    order = [
        "starting bulk configuration service",
        "reporting current configuration",
        "reading general gateway configuration",
        "looking for loraTrafficFilter subconfig...",
        f"publishing configuration to the topic: {REPORTED}. config: {text}",
        "successfully sent configuration to OA&M",
        "report current config done",
        "bulk configuration subscription start",
        f"subscribing for [{DESIRED}] topic",
        "bulk configuration subscription succeeded",
    ]
    places = [
        next(place for place, line in enumerate(outcome.lines) if line.endswith(each)) for each in order
    ]
    assert places == sorted(places)


def test_a_service_that_runs_is_not_started_again(gateway: ManagedGateway) -> None:
    outcome = gateway.start()
    assert outcome.logs("bulk configuration service has already started")
    assert (outcome.reports, outcome.calls) == ([], [])


# --- the verdict by the timestamp ---


@pytest.mark.parametrize(
    "stored, timestamp, verdict",
    [
        (None, 5, NEW),
        (None, 0, NEW),
        (None, -5, NEW),
        (0, 0, NEW),
        (0, -5, NEW),
        (0, 5, NEW),
        (5, 6, NEW),
        (-5, -4, NEW),
        (-5, 0, NEW),
        (998, 999, NEW),
        (2**32, 2**32 + 1, NEW),
        (MAXIMUM - 1, MAXIMUM, NEW),
        (5, 5, REPEAT),
        (-5, -5, REPEAT),
        (5, 4, OLD),
        (5, 0, OLD),
        (5, -5, OLD),
        (-5, -6, OLD),
        (2**32 + 1, 1, OLD),
        (999, 998, UNREADABLE),
        (999, 999, UNREADABLE),
        (999, 1000, UNREADABLE),
    ],
)
def test_the_timestamp_decides(
    gateway: ManagedGateway, stored: Optional[int], timestamp: int, verdict: str
) -> None:
    outcome = gateway.desire({"geoLocation": {}}, timestamp, stored)
    assert verdict in outcome.errors
    assert outcome.logs(
        f"[INFO  ] bridge_configs.cpp:{line_of(outcome)} Config request timestamp: {timestamp}"
    )
    after = gateway.stamp_file.read_bytes()
    if verdict == NEW:
        assert outcome.errors == [NEW] and text_of(outcome) == '{"content":{"geoLocation":{}}}'
        assert (outcome.called, after) == (["commit"], stamp(timestamp))
    elif verdict == REPEAT:
        assert list(json.loads(text_of(outcome))["content"]) == SECTIONS
        assert (outcome.called, after) == ([*WHOLE_READ, "commit"], stamp(timestamp))
    else:
        assert outcome.errors == [verdict]
        assert (outcome.reports, outcome.calls, after) == ([], [], stamp(stored or 0))


@pytest.mark.parametrize(
    "timestamps, verdicts",
    [
        ((0, 0, -1, 5, 5, 0), (NEW, NEW, NEW, NEW, REPEAT, OLD)),
        ((-1, 0, -1), (NEW, NEW, NEW)),
        ((998, 999, 1000, 999), (NEW, NEW, UNREADABLE, UNREADABLE)),
        ((998, 1000, 999, 1001), (NEW, NEW, OLD, NEW)),
    ],
    ids=lambda value: str(value)[:30],
)
def test_timestamps_in_a_row(
    gateway: ManagedGateway, timestamps: tuple[int, ...], verdicts: tuple[str, ...]
) -> None:
    assert tuple(gateway.desire({}, timestamp).errors[0] for timestamp in timestamps) == verdicts
    accepted = [each for each, verdict in zip(timestamps, verdicts) if verdict in (NEW, REPEAT)]
    assert gateway.stamp_file.read_bytes() == stamp(accepted[-1])


def line_of(outcome: Outcome) -> str:
    """The place of the line on the timestamp, which no test fixes."""
    line = next(line for line in outcome.lines if "Config request timestamp" in line)
    return line.split(" bridge_configs.cpp:")[1].split(" ")[0]


def test_a_first_request_is_told_and_makes_the_file(gateway: ManagedGateway) -> None:
    outcome = gateway.desire({}, 0x0102030405060708)
    path = gateway.stamp_file
    assert outcome.logs(f"config timestamp file ({path}) does not exist, first request")
    assert path.read_bytes() == bytes([8, 7, 6, 5, 4, 3, 2, 1])
    mask = os.umask(0)
    os.umask(mask)
    assert path.stat().st_mode & 0o777 == 0o660 & ~mask


@pytest.mark.parametrize("content", [b"", b"\5", stamp(5)[:7]], ids=len)
def test_a_short_timestamp_file_stays_and_nothing_is_applied(gateway: ManagedGateway, content: bytes) -> None:
    gateway.stamp_file.write_bytes(content)
    outcome = gateway.desire({"geoLocation": {}}, 6)
    assert outcome.errors == ["failed to read config timestamp", UNREADABLE]
    assert (outcome.reports, outcome.calls) == ([], [])
    assert gateway.stamp_file.read_bytes() == content


def test_a_repeat_rewrites_the_file(gateway: ManagedGateway) -> None:
    gateway.stamp_file.write_bytes(stamp(5) + b"more")
    assert gateway.desire({}, 5).errors[0] == REPEAT
    assert gateway.stamp_file.read_bytes() == stamp(5)


def test_a_timestamp_file_that_is_a_folder_is_told(gateway: ManagedGateway) -> None:
    path = gateway.stamp_file
    path.mkdir()
    outcome = gateway.desire({"geoLocation": {}})
    assert outcome.errors == [
        f"Failed to open config timestamp file ({path}) for reading, error: Is a directory",
        UNREADABLE,
    ]
    assert (outcome.reports, outcome.calls) == ([], [])


def test_a_timestamp_that_cannot_be_stored_holds_nothing_back(gateway: ManagedGateway) -> None:
    path = gateway.stamp_file
    away = path.parent.with_name("state-away")
    path.parent.rename(away)
    try:
        outcome = gateway.desire({"geoLocation": {}})
    finally:
        away.rename(path.parent)
    assert outcome.errors == [
        NEW,
        f"Failed to open config timestamp file ({path}) for writing, error: No such file or directory",
        "config timestamp couldn't be written!!",
    ]
    assert text_of(outcome) == '{"content":{"geoLocation":{}}}' and outcome.called == ["commit"]


def test_another_programs_lock_on_the_timestamp_is_waited_for(gateway: ManagedGateway) -> None:
    log = gateway.road.bridge.log
    gateway.stamp_file.write_bytes(stamp(5))
    with gateway.stamp_file.open("r+b") as held:
        fcntl.lockf(held, fcntl.LOCK_EX)
        mark = log.mark()
        gateway.road.publish(document(6, {}), DESIRED)
        gateway.road.bridge.wait_for_log("Config request timestamp: 6", after=mark)
        still_locked = log.since(mark)
        held.seek(0)
        held.write(stamp(7))
        held.flush()
    gateway.road.bridge.wait_for_log(WORKER_DONE, after=mark)
    assert not any(NEW in line for line in still_locked)
    assert log.find(OLD, after=mark), "what the other program stored meanwhile counts"


# --- documents ---


@pytest.mark.parametrize(
    "payload, error",
    [
        (b"{", NO_DOCUMENT),
        (b"nonsense", NO_DOCUMENT),
        (b"\0", NO_DOCUMENT),
        (b"null", NO_DOCUMENT),
        (b"5", NO_TIMESTAMP),
        (b"[]", NO_TIMESTAMP),
        (b'"timestamp"', NO_TIMESTAMP),
        (b"{}", NO_TIMESTAMP),
        (b'{"content":{"geoLocation":{}}}', NO_TIMESTAMP),
        (b'{"timestamp":5}', NO_CONTENT),
        (b'{"timestamp":5,"content":null}', NO_CONTENT),
        (b'{"timestamp":5,"Content":{"geoLocation":{}}}', NO_CONTENT),
    ],
)
def test_a_bad_document_is_told_and_nothing_follows(
    gateway: ManagedGateway, payload: bytes, error: str
) -> None:
    outcome = gateway.send(payload)
    assert outcome.errors[-1] == error
    assert (outcome.reports, outcome.calls) == ([], [])
    assert not gateway.stamp_file.exists()


@pytest.mark.parametrize(
    "text, timestamp",
    [
        ('"6"', 6),
        ("6.9", 6),
        ("true", 1),
        ("null", 0),
        ("[6]", 0),
        ('{"timestamp":6}', 0),
        ("1e30", MAXIMUM),
        ("18446744073709551616", MAXIMUM),
        ("-18446744073709551616", -MAXIMUM - 1),
    ],
)
def test_a_timestamp_of_another_kind_counts_as_a_number(
    gateway: ManagedGateway, text: str, timestamp: int
) -> None:
    outcome = gateway.send(f'{{"timestamp":{text},"content":{{}}}}'.encode())
    assert outcome.errors == [NEW] and text_of(outcome) == NOTHING
    assert gateway.stamp_file.read_bytes() == stamp(timestamp)


@pytest.mark.parametrize(
    "content",
    [
        "{}",
        "[]",
        '["networkServer"]',
        '"networkServer"',
        "5",
        "false",
        '{"NetworkServer":{},"unknown":{"a":1}}',
        '{"networkServer":null,"snmpAgent":null}',
        '{"geoLocation":null}',
        '{"geoLocation":null,"networkConfiguration":null,"upgradeServer":null,"loraTrafficFilter":null}',
    ],
)
def test_a_content_without_sections_is_answered_with_none(gateway: ManagedGateway, content: str) -> None:
    outcome = gateway.send(f'{{"content":{content},"timestamp":5}}\0 and more'.encode())
    assert text_of(outcome) == NOTHING
    assert (outcome.errors, outcome.called) == ([NEW], ["commit"])
    assert gateway.stamp_file.read_bytes() == stamp(5)


def test_an_empty_message_is_told_and_the_next_is_taken(gateway: ManagedGateway) -> None:
    mark = gateway.road.bridge.log.mark()
    gateway.road.publish(b"", DESIRED)
    gateway.road.bridge.wait_for_log("invalid payload size received", after=mark)
    assert text_of(gateway.desire({})) == NOTHING


@pytest.mark.parametrize("size", SIZES)
def test_a_document_of_any_size_is_taken(gateway: ManagedGateway, size: int) -> None:
    whole = document(5, {"geoLocation": {}})
    if size < len(whole):
        assert gateway.send(whole[:size]).errors == [NO_DOCUMENT]
        return
    outcome = gateway.send(whole[:-1] + b" " * (size - len(whole)) + b"}")
    assert text_of(outcome) == '{"content":{"geoLocation":{}}}'


def test_a_document_of_a_mebibyte_is_handed_over_and_back(gateway: ManagedGateway) -> None:
    section = {"text": "x" * 2**20, "last": 1}
    outcome = gateway.desire({"snmpAgent": section})
    assert json.loads(text_of(outcome)) == {"content": {"snmpAgent": section}}


def test_a_document_nested_without_end_is_no_end_of_the_service(gateway: ManagedGateway) -> None:
    depth = 100_000
    deep = b'{"timestamp":5,"content":' + b"[" * depth + b"]" * depth + b"}"
    assert gateway.send(deep).errors == [NO_DOCUMENT]
    assert text_of(gateway.desire({})) == NOTHING


# --- the response ---


def test_the_response_is_retained_and_a_newer_one_takes_its_place(gateway: ManagedGateway) -> None:
    for timestamp, section in ((5, "geoLocation"), (6, "snmpAgent")):
        outcome = gateway.desire({section: {}}, timestamp)
        kept = retained(gateway.road)
        assert [(each.payload, each.retain) for each in kept] == [(outcome.reports[0], True)]
        assert text_of(outcome) == f'{{"content":{{"{section}":{{}}}}}}'


def test_the_commit_follows_the_response(gateway: ManagedGateway) -> None:
    outcome = gateway.desire({"geoLocation": {}})
    assert outcome.calls == ["commit  [USE_STDERR=1 ]"], "no argument, and one variable"
    order = [
        f'publishing configuration to topic: {REPORTED} config: {{"content":{{"geoLocation":{{}}}}}}',
        "trying to execute: /usr/sbin/mqtt/commit-cfg.sh",
        WORKER_DONE,
    ]
    places = [
        next(place for place, line in enumerate(outcome.lines) if line.endswith(each)) for each in order
    ]
    assert places == sorted(places)


def test_a_second_document_waits_for_the_first_ones_commit(gateway: ManagedGateway) -> None:
    log = gateway.road.bridge.log
    mark = log.mark()
    hold = gateway.switch("commit.hold")
    for timestamp, section in ((5, "geoLocation"), (6, "snmpAgent")):
        gateway.road.publish(document(timestamp, {section: {}}), DESIRED)
    log.wait_for("bulk config message received", after=mark, count=2)
    gateway.wait_calls(1)
    log.wait_for("waiting 5 more sec for child process to complete...", after=mark)
    begun = log.find(WORKER_STARTS, after=mark)
    hold.unlink()
    gateway.road.bridge.wait_for_log(WORKER_DONE, after=mark, count=2)
    assert len(begun) == 1
    assert [" ".join(call.split(" ")[:2]) for call in gateway.calls()] == [
        "commit ",
        "snmpAgent write",
        "commit ",
    ]
    gateway.wait_report('{"content":{"snmpAgent":{}}}')


# --- sections ---

ALL_SECTIONS = {
    "loraTrafficFilter": {},
    "snmpAgent": {"b": 1, "a": "x/y"},
    "upgradeServer": {"other": 1, "ipkFeedURL": {"url": "u"}},
    "networkConfiguration": {"connectivityCheck": {"enabled": True}},
    "geoLocation": {"a": 1},
    "networkServer": {"n": 1.5},
}


def test_sections_are_applied_in_the_gateways_order(gateway: ManagedGateway) -> None:
    outcome = gateway.desire(ALL_SECTIONS)
    assert text_of(outcome).startswith(
        '{"content":{"networkServer":{"n":1.5},"geoLocation":{},'
        '"networkConfiguration":{"connectivityCheck":{"enabled":true}},'
        '"upgradeServer":{"ipkFeedURL":{"url":"u"}},"snmpAgent":{"b":1,"a":"x\\/y"},"loraTrafficFilter":{'
    )
    writes = ["networkServer write", "connectivityCheck write", "ipkFeedURL write", "snmpAgent write"]
    assert outcome.called == [*writes, "commit"]
    assert outcome.calls[0] == f"networkServer write {IN_FILE} {OUT_FILE} [USE_STDERR=1 ]"
    assert gateway.exchange(IN_FILE).read_bytes() == b'{ "b": 1, "a": "x\\/y" }', "without a terminator"
    for text in (
        "writing general gateway configuration",
        "writing NS configuration",
        "writing connectivity check configuration",
        "going over the upgrade configuration from the server",
        "looking for ipkFeedURL upgrade subconfig...",
        "subconfig was found for [ipkFeedURL]",
        "writing feed configuration",
        "successfully wrote the feed info",
        "writing SNMP configuration",
    ):
        assert outcome.logs(text), text
    assert len([line for line in outcome.lines if line.endswith("subconfig was found")]) == 6


def test_a_repeat_reads_what_was_written(gateway: ManagedGateway) -> None:
    gateway.desire({"networkServer": {"n": 7}})
    outcome = gateway.desire({"networkServer": {"n": 8}})
    assert json.loads(text_of(outcome))["content"]["networkServer"] == {"n": 7}
    kept = retained(gateway.road)
    assert [(each.payload, each.retain) for each in kept] == [(outcome.reports[0], True)]
    for text in (
        "reading NS configuration",
        "reading connectivity check configuration",
        "reading current upgrade configuration",
        "reading feed configuration",
        "successfully read the feed info",
        "reading SNMP configuration",
    ):
        assert outcome.logs(text), text


NS_FAILED = "failed to extract NS configuration response"
FEED = '"networkServer":{"n":1},"upgradeServer":{"ipkFeedURL":%s},"snmpAgent":{"s":1}'


@pytest.mark.parametrize(
    "content, silent, response, errors",
    [
        (
            {"networkServer": {"n": 1}, "snmpAgent": {"s": 1}},
            "networkServer",
            '"networkServer":{}',
            [NS_FAILED],
        ),
        (
            {"snmpAgent": {"s": 1}, "loraTrafficFilter": {}},
            "snmpAgent",
            '"snmpAgent":{}',
            ["failed to extract SNMP configuration write response"],
        ),
        (
            {"networkServer": {"n": 1}, "upgradeServer": {"ipkFeedURL": {}}, "snmpAgent": {"s": 1}},
            "ipkFeedURL",
            FEED % '{"status":"unable to write feed url info"}',
            ["failed to extract US configuration response", "failed upgrade config write for [ipkFeedURL]"],
        ),
        (
            {"networkServer": {"n": 1}, "upgradeServer": {"ipkfeedurl": {}}, "snmpAgent": {"s": 1}},
            "nobody",
            '"networkServer":{"n":1},"upgradeServer":{}',
            [],
        ),
        (
            {"networkServer": {"n": 1}, "upgradeServer": {"ipkFeedURL": None}, "snmpAgent": {"s": 1}},
            "nobody",
            '"networkServer":{"n":1},"upgradeServer":{}',
            [],
        ),
        (
            {"networkServer": {"n": 1}, "upgradeServer": 5, "snmpAgent": {"s": 1}},
            "nobody",
            '"networkServer":{"n":1},"upgradeServer":{}',
            [],
        ),
    ],
    ids=[
        "networkServer",
        "snmpAgent",
        "ipkFeedURL",
        "no-ipkFeedURL",
        "null-ipkFeedURL",
        "upgradeServer-of-another-kind",
    ],
)
def test_a_section_that_fails_to_be_written_holds_neither_response_nor_timestamp_back(
    gateway: ManagedGateway, content: object, silent: str, response: str, errors: list[str]
) -> None:
    gateway.switch(f"{silent}.forgets")
    outcome = gateway.desire(content)
    assert text_of(outcome) == f'{{"content":{{{response}}}}}'
    assert outcome.errors == [NEW, *errors]
    assert outcome.called[-1] == "commit" and gateway.stamp_file.read_bytes() == stamp(5)


@pytest.mark.parametrize(
    "silent, sections, errors",
    [
        ("networkServer", SECTIONS[:1], [NS_FAILED]),
        ("snmpAgent", SECTIONS[:5], ["failed to extract SNMP configuration read response"]),
        (
            "ipkFeedURL",
            SECTIONS,
            ["failed to extract feed configuration response", "failed upgrade config read for [ipkFeedURL]"],
        ),
        (
            "connectivityCheck",
            SECTIONS,
            [
                "failed to extract connectivity check  configuration response",
                "failed network config read for [connectivityCheck]",
            ],
        ),
    ],
)
def test_a_section_that_fails_to_be_read(
    gateway: ManagedGateway, silent: str, sections: list[str], errors: list[str]
) -> None:
    gateway.switch(f"{silent}.forgets")
    outcome = gateway.desire({}, 5, stored=5)
    content = json.loads(text_of(outcome))["content"]
    assert list(content) == sections
    if silent == "ipkFeedURL":
        assert content["upgradeServer"] == {"ipkFeedURL": {"status": "unable to feed url info"}}
    elif silent == "connectivityCheck":
        check = content["networkConfiguration"]["connectivityCheck"]
        assert check == {"status": "unable to read connectivity check info"}
    elif silent == sections[-1]:
        assert content[silent] == {}
    assert [each for each in outcome.errors if each in errors] == errors


def test_a_failed_check_of_the_network_is_told(gateway: ManagedGateway) -> None:
    gateway.switch("connectivityCheck.forgets")
    outcome = gateway.desire({"snmpAgent": {"s": 1}, "networkConfiguration": {"connectivityCheck": {}}})
    assert outcome.errors == [
        NEW,
        "failed to extract connectivity check configuration response",
        "failed network config write for [connectivityCheck]",
    ]
    assert text_of(outcome) == (
        '{"content":{"networkConfiguration":{"connectivityCheck":'
        '{"status":"unable to write connectivity check info"}},"snmpAgent":{"s":1}}}'
    )


# --- what the programs answer ---


@pytest.mark.parametrize(
    "answer, response",
    [
        ("{}", '{"networkServer":{},"snmpAgent":{}}'),
        ("[1]", '{"networkServer":{},"snmpAgent":{}}'),
        ("5\n", '{"networkServer":{},"snmpAgent":{}}'),
        ('"text"', '{"networkServer":{},"snmpAgent":{}}'),
        (
            ' {"b": 1.50, "a": null, "c": [{"d": "/"}], "b2": 18446744073709551615} ',
            '{"networkServer":{"b":1.50,"a":null,"c":[{"d":"\\/"}],"b2":18446744073709551615},'
            '"snmpAgent":{}}',
        ),
        ('{"a":1}{"b":2}', '{"networkServer":{"a":1},"snmpAgent":{}}'),
        ('{"a":1,"b"', '{"networkServer":{}}'),
        ("null", '{"networkServer":{}}'),
        ("", '{"networkServer":{}}'),
        ("\0", '{"networkServer":{}}'),
    ],
)
def test_the_keys_of_a_programs_answer_become_the_sections(
    gateway: ManagedGateway, answer: str, response: str
) -> None:
    gateway.switch("networkServer.answer", answer)
    outcome = gateway.desire({"snmpAgent": {}, "networkServer": {}})
    assert text_of(outcome) == f'{{"content":{response}}}'
    assert outcome.errors == ([NEW] if "snmpAgent" in response else [NEW, NS_FAILED])


def test_the_answer_of_a_call_before_counts_for_a_program_without_one(gateway: ManagedGateway) -> None:
    gateway.switch("snmpAgent.mute")
    outcome = gateway.desire({"networkServer": {"from": "before"}, "snmpAgent": {}})
    assert text_of(outcome) == '{"content":{"networkServer":{"from":"before"},"snmpAgent":{"from":"before"}}}'
    assert outcome.errors == [NEW]


@pytest.mark.parametrize(
    "section, error, response",
    [
        ("networkServer", "failed to open file for a new configuration", '{"networkServer":{}}'),
        ("snmpAgent", f"failed to open file {IN_FILE} for a new configuration", '{"snmpAgent":{}}'),
    ],
)
def test_a_section_that_cannot_be_handed_over(
    gateway: ManagedGateway, section: str, error: str, response: str
) -> None:
    gateway.exchange(IN_FILE).mkdir()
    outcome = gateway.desire({section: {}, "loraTrafficFilter": {}})
    assert outcome.errors == [NEW, error]
    assert text_of(outcome) == f'{{"content":{response}}}'
    assert outcome.called == ["commit"]


# --- runs of its own ---


def test_programs_hear_that_the_log_is_not_on_standard_error(
    tmp_path: Path, agent: LabAgent, cleanup: Cleanup
) -> None:
    road = ControlRoad(tmp_path / "road", agent, polls=300, to_stderr=False)
    cleanup.add(road)
    gateway = ManagedGateway(road)
    road.peer.wait_for(lambda each: each.topic == f"{CONFIGURATION}/request")
    road.publish(BULK, CAPABILITIES)
    assert gateway.wait_calls(4)[3] == f"snmpAgent read {IN_FILE} {OUT_FILE} [USE_STDERR=0 ]"
    road.peer.wait_for(lambda each: each.topic == REPORTED)
    wait_until(
        lambda: f"{DESIRED} (QoS" in road.broker.log_text(), "the subscription that follows the report"
    )
    road.publish(document(5, {}), DESIRED)
    assert gateway.wait_calls(5)[4] == "commit  [USE_STDERR=0 ]"


@pytest.mark.waits_long
def test_after_a_restart_the_service_starts_with_the_next_message_of_capabilities(
    tmp_path: Path, agent: LabAgent, cleanup: Cleanup
) -> None:
    road = ControlRoad(tmp_path / "road", agent)
    cleanup.add(road)
    road.wait_ready()
    gateway = ManagedGateway(road)
    gateway.start()
    gateway.desire({"geoLocation": {}}, 6)
    road.broker.kill()
    road.broker.start()
    road.new_peer()
    road.bridge.wait_for_log("de-initializing bulk configuration service", 60)
    road.wait_ready(count=2, timeout=60)
    requests = f"{CONFIGURATION}/request"
    road.peer.wait_for(lambda each: each.topic == requests and b"UPGRADE_SERVERS" in each.payload)
    asked = [json.loads(each.payload)["requestId"] for each in road.peer.since(0) if each.topic == requests]
    assert asked == ["2", "3"], "the counter goes on"
    mark = road.bridge.log.mark()
    road.publish(document(7, {}), DESIRED)
    road.command("isAnyoneThere")
    assert not road.bridge.log.find("bulk config message received", after=mark), "nothing is subscribed"
    assert list(json.loads(text_of(gateway.start()))["content"]) == SECTIONS
    assert text_of(gateway.desire({"geoLocation": {}}, 7)) == '{"content":{"geoLocation":{}}}'
