"""Managed configuration that is interrupted: by the end of the daemon, a lost server, programs that do not end,
and a full disk."""

import json
import os
import signal
import subprocess
from pathlib import Path
from typing import Callable

import pytest

from command_outcome import HOUR
from conftest import Cleanup
from harness.bridge import Bridge
from harness.control import POLL, ControlRoad
from harness.lab import LabAgent
from harness.waiting import wait_until
from managed_configuration import (
    DESIRED,
    PATIENT,
    REPORTED,
    WORKER_DONE,
    HeldProgram,
    ManagedGateway,
    Outcome,
    document,
    retained,
    stamp,
)

NEW = "New config request from the server"
REPEAT = "Repeat Config request from the server -- update server with the current configuration"
NO_DOCUMENT = "failed to parse incoming configuration"
ONE_MORE_ROUND = "waiting 5 more sec for child process to complete..."
COLLECTED_WITHIN = 30.0

OwnGateway = Callable[..., ManagedGateway]


@pytest.fixture
def own_gateway(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> OwnGateway:
    """With the service started, for a test that ends or delays its daemon."""

    def make(polls: int = HOUR) -> ManagedGateway:
        road = ControlRoad(tmp_path / "road", agent, polls=polls)
        cleanup.add(road)
        road.wait_ready()
        made = ManagedGateway(road)
        made.forget()
        made.start()
        return made

    return make


@pytest.fixture
def hold(cleanup: Cleanup) -> Callable[[ManagedGateway, str], HeldProgram]:
    def make(gateway: ManagedGateway, name: str) -> HeldProgram:
        held = HeldProgram(gateway, name)
        cleanup.add(held)
        return held

    return make


Hold = Callable[[ManagedGateway, str], HeldProgram]


def content_of(outcome: Outcome) -> dict[str, object]:
    (report,) = outcome.reports
    content: dict[str, object] = json.loads(report[:-1])["content"]
    return content


def reports(gateway: ManagedGateway) -> list[bytes]:
    return [each.payload for each in gateway.road.peer.since(0) if each.topic == REPORTED]


# --- the end of the daemon ---


@pytest.mark.parametrize("stored", [None, 4], ids=["first", "later"])
def test_a_document_whose_update_was_killed_is_new_after_the_next_start(
    own_gateway: OwnGateway, hold: Hold, stored: int | None
) -> None:
    gateway = own_gateway()
    road = gateway.road
    if stored is not None:
        gateway.stamp_file.write_bytes(stamp(stored))
    before = gateway.stamp_file.exists() and gateway.stamp_file.read_bytes()
    held = hold(gateway, "networkServer")
    payload = document(5, {"networkServer": {"n": 1}})
    road.publish(payload, DESIRED)
    held.wait_held()
    started = len(reports(gateway))
    road.bridge.signal(signal.SIGKILL)
    road.bridge.process.wait()
    held.let_go()
    assert road.bridge.wait_exit() == -signal.SIGKILL
    assert (gateway.stamp_file.exists() and gateway.stamp_file.read_bytes()) == before
    assert retained(road) == [] and len(reports(gateway)) == started

    work = road.bridge.work
    road.bridge = Bridge(work, ["-c", str(work / "bridge.toml"), "-d", "-v", "4"])
    road.wait_ready()
    gateway.start()
    outcome = gateway.send(payload)
    assert outcome.errors == [NEW]
    assert content_of(outcome) == {"networkServer": {"n": 1}}
    assert outcome.called == ["networkServer write", "commit"]
    assert gateway.stamp_file.read_bytes() == stamp(5)


@pytest.mark.parametrize(
    "name, is_stored", [("networkServer", False), ("commit", True)], ids=["section", "commit"]
)
def test_a_stop_does_not_wait_for_a_program(
    own_gateway: OwnGateway, hold: Hold, name: str, is_stored: bool
) -> None:
    gateway = own_gateway()
    held = hold(gateway, name)
    gateway.road.publish(document(5, {"networkServer": {"n": 1}}), DESIRED)
    held.wait_held()
    gateway.road.bridge.signal(signal.SIGUSR2)
    gateway.road.bridge.process.wait(PATIENT)
    assert held.runs(), "it was not waited for"
    held.let_go()
    assert gateway.road.bridge.wait_exit() == 0
    assert gateway.stamp_file.exists() == is_stored
    assert len(retained(gateway.road)) == int(is_stored)


# --- a lost server ---


@pytest.mark.waits_long
def test_a_response_that_a_lost_server_does_not_get_is_answered_as_a_repeat_after_the_restart(
    own_gateway: OwnGateway, hold: Hold
) -> None:
    gateway = own_gateway(POLL)
    road, log = gateway.road, gateway.road.bridge.log
    held = hold(gateway, "networkServer")
    payload = document(5, {"networkServer": {"n": 1}})
    mark = log.mark()
    road.publish(payload, DESIRED)
    held.wait_held()
    road.broker.kill()
    log.wait_for("stopping the bulk configuration service", PATIENT, after=mark)
    assert not log.find(WORKER_DONE, after=mark) and not gateway.stamp_file.exists()
    held.let_go()
    log.wait_for(WORKER_DONE, PATIENT, after=mark)
    log.wait_for("de-initializing bulk configuration service", PATIENT, after=mark)
    lines = log.since(mark)
    places = [
        next(place for place, line in enumerate(lines) if line.endswith(text))
        for text in ("failed to publish response", WORKER_DONE, "de-initializing bulk configuration service")
    ]
    assert places == sorted(places), "the stop waits for the update"
    assert not any("commit-cfg.sh" in line for line in lines)
    assert gateway.calls()[-1].startswith("networkServer write")
    assert gateway.stamp_file.read_bytes() == stamp(5)

    road.broker.start()
    road.wait_ready(count=2, timeout=PATIENT)
    road.new_peer()
    gateway.start()
    outcome = gateway.send(payload)
    assert outcome.errors[0] == REPEAT
    assert content_of(outcome)["networkServer"] == {"n": 1}
    assert outcome.called[-1] == "commit"


# --- programs that do not end ---


def wait_collected(held: HeldProgram) -> None:
    held.let_go()
    wait_until(lambda: not held.is_there(), "no zombie stays", COLLECTED_WITHIN)


@pytest.mark.waits_long
def test_a_write_past_its_rounds_takes_the_answer_that_is_there_and_the_walk_goes_on(
    own_gateway: OwnGateway, hold: Hold
) -> None:
    gateway = own_gateway()
    held = hold(gateway, "ipkFeedURL")
    sections = {
        "networkServer": {"from": "before"},
        "upgradeServer": {"ipkFeedURL": {}},
        "snmpAgent": {"s": 1},
    }
    outcome = gateway.desire(sections)
    held.wait_held()
    assert held.runs()
    assert content_of(outcome) == {
        "networkServer": {"from": "before"},
        "upgradeServer": {"ipkFeedURL": {"from": "before"}},
        "snmpAgent": {"s": 1},
    }
    assert outcome.errors == [NEW]
    assert outcome.called == ["networkServer write", "ipkFeedURL write", "snmpAgent write", "commit"]
    wait_collected(held)


@pytest.mark.waits_long
def test_a_read_past_its_rounds_is_told_and_the_walk_goes_on(own_gateway: OwnGateway, hold: Hold) -> None:
    gateway = own_gateway()
    gateway.stamp_file.write_bytes(stamp(5))
    held = hold(gateway, "ipkFeedURL")
    outcome = gateway.desire({}, 5)
    held.wait_held()
    assert held.runs()
    content = content_of(outcome)
    assert content["upgradeServer"] == {"ipkFeedURL": {"status": "unable to feed url info"}}
    assert content["snmpAgent"] == {"enabled": True, "community": "public"}, "behind it"
    for text in ("child process wasn't completed in time", "failed upgrade config read for [ipkFeedURL]"):
        assert text in outcome.errors
    assert outcome.called[-2:] == ["snmpAgent read", "commit"]
    assert len([line for line in outcome.lines if line.endswith("waitpid status: 0")]) >= 5
    wait_collected(held)


@pytest.mark.waits_long
def test_a_commit_past_its_rounds_goes_on_while_the_next_document_is_taken(
    own_gateway: OwnGateway, hold: Hold
) -> None:
    gateway = own_gateway()
    held = hold(gateway, "commit")
    outcome = gateway.desire({"geoLocation": {}})
    held.wait_held()
    assert held.runs()
    assert content_of(outcome) == {"geoLocation": {}} and outcome.called == ["commit"]
    assert len([line for line in outcome.lines if line.endswith(ONE_MORE_ROUND)]) == 5
    assert gateway.send(b"{").errors == [NO_DOCUMENT]
    assert held.runs()
    wait_collected(held)
    assert gateway.desire({"geoLocation": {}}, 6).called == ["commit"]


# --- a full disk ---


def test_a_timestamp_that_finds_no_room_is_a_first_one_for_the_next_request(own_gateway: OwnGateway) -> None:
    gateway = own_gateway()
    gateway.stamp_file.symlink_to("/dev/full")
    outcome = gateway.desire({"geoLocation": {}}, 5)
    assert outcome.errors == [
        NEW,
        "failed to write config timestamp",
        "config timestamp couldn't be written!!",
    ]
    assert content_of(outcome) == {"geoLocation": {}} and outcome.called == ["commit"]
    following = gateway.desire({"geoLocation": {}}, 4)
    assert following.errors == [NEW] and following.called == ["commit"]
    assert gateway.stamp_file.read_bytes() == stamp(4) and not gateway.stamp_file.is_symlink()


def in_the_gateway(gateway: ManagedGateway, *command: str) -> None:
    """A command among the daemon's own mounts."""
    as_user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
    target = f"--target={gateway.road.bridge.process.pid}"
    subprocess.run(["nsenter", target, *as_user, "--mount", "--", *command], check=True, timeout=60)


FILTER_FOLDER = "/var/lib/sarnivel-lora-hal"
PAGES = 8


def test_a_filter_that_finds_no_room_comes_back_to_the_byte(own_gateway: OwnGateway) -> None:
    gateway = own_gateway()
    folder = gateway.road.inside(FILTER_FOLDER.lstrip("/"))
    folder.mkdir()
    size = f"size={PAGES * os.sysconf('SC_PAGE_SIZE')}"
    in_the_gateway(gateway, "mount", "-t", "tmpfs", "-o", size, "tmpfs", FILTER_FOLDER)
    rule = {"ruleId": 1, "action": "ALLOW", "start": 1, "end": 2}
    stored = json.dumps({"devAddrList": [rule], "joinReqList": [], "note": "x" * 10_000}, indent=3) + "\n"
    (folder / "uplink-filter-list").write_text(stored)
    (folder / "uplink-filter-list-lock").touch()
    rules = [{"ruleId": number, "action": "ALLOW", "start": f"{number:x}"} for number in range(1, 1001)]

    outcome = gateway.desire({"loraTrafficFilter": {"joinReqList": None, "devAddrList": rules}})
    assert content_of(outcome) == {"loraTrafficFilter": {"status": "LoRa filter rule write request failed"}}
    assert outcome.errors == [
        NEW,
        "failed to write the DevAddr filter list to the uplink packet filter file",
        "failed to update the DevAddr filter list, error = -1",
    ]
    assert (folder / "uplink-filter-list").read_text() == stored
    names = sorted(path.name for path in folder.iterdir())
    assert names == ["uplink-filter-list", "uplink-filter-list-lock"]

    outcome = gateway.desire({"loraTrafficFilter": {"devAddrList": rules[:1]}}, 6)
    assert outcome.errors == [NEW], "there is room for a short one"
