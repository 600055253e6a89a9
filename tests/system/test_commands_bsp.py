"""The upgrade of the BSP: the child that watches over it, its late answer, and its place in a restart."""
import itertools
import json
import os
import re
import time
from pathlib import Path
from typing import Any, Callable, Iterator, Optional

import pytest

from conftest import Cleanup
from harness.broker import Mosquitto
from harness.config import GW_MAC
from harness.control import ControlRoad, request
from harness.lab import LabAgent, start_agent
from harness.ports import free_port
from harness.waiting import wait_until

STATUS = "upgradeBspStatus.0"
UPGRADE = 1000003
FORCED = 1000005
DOWNLOADING = 90006
LATEST = 90003
REFUSED = {"error": "genErr", "on": "set"}
NOT_PERMITTED = "Operation not permitted"
NONE = "0:none\n0:req\n"
RUNNING = "3:localupgrade\n17:req\n"
PROMPTLY = 3.0  # less than any wait for the status, which is 5 s at least


def upgrade(road: ControlRoad, number: object, **beside: object) -> None:
    road.publish(json.dumps({**request("upgradeBspLocal", {}, number), **beside}).encode())


def answer(number: int, response: str) -> str:
    return f'{{"mac":"{GW_MAC}","requestId":{number},"response":{{"status":"{response}"}}}}'


def wait_answers(road: ControlRoad, mark: int, count: int) -> list[str]:
    def texts() -> Optional[list[str]]:
        found = [each.text for each in road.answers(mark)]
        return found if len(found) >= count else None

    return wait_until(texts, f"{count} answers")


def wait_late(road: ControlRoad, *texts: str, timeout: float = 20) -> None:
    """Two close answers may travel as one message."""

    def are_there() -> bool:
        together = b"".join(road.async_responses()).decode()
        return all(text in together for text in texts)

    wait_until(are_there, f"{texts} as late answers", timeout)


def upgrades(agent: LabAgent) -> list[list[Any]]:
    """What was asked of the agent, whatever became of it."""
    return [each["variables"] for each in agent.sets() if each["variables"][0][0] == "packageToUpgrade.0"]


def asked(trigger: int) -> list[list[Any]]:
    return [["packageToUpgrade.0", "sarnivel-bsp-version"], ["upgradeStart.0", trigger]]


def reads(agent: LabAgent) -> int:
    return sum(1 for each in agent.requests() if STATUS in json.dumps(each))


def children(pid: int) -> list[int]:
    """Also those that have ended and were not collected."""
    lists = [path.read_text() for path in Path(f"/proc/{pid}/task").glob("*/children")]
    return [int(word) for text in lists for word in text.split()]


def wait_alone(road: ControlRoad) -> None:
    pid = road.bridge.process.pid
    wait_until(lambda: not children(pid), "no child is left")


def descriptors(pid: int) -> dict[int, str]:
    return {int(path.name): os.readlink(path) for path in Path(f"/proc/{pid}/fd").iterdir()}


def udp_socket(pid: int, port: int) -> str:
    """As a descriptor names it."""
    for line in Path(f"/proc/{pid}/net/udp").read_text().splitlines()[1:]:
        fields = line.split()
        if fields[1].endswith(f":{port:04X}"):
            return f"socket:[{fields[9]}]"
    raise AssertionError(f"nobody holds the UDP port {port}")


@pytest.fixture
def start(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> Iterator[Callable[..., ControlRoad]]:
    """The agent's status changes only when a test says so. At the end it is final, and with it what still
    watches it."""
    agent.do({"rules": [{"on_set": "upgradeStart.0", "do": []}]})

    def run(**options: Any) -> ControlRoad:
        made = ControlRoad(tmp_path / "road", agent, **options)
        cleanup.add(made)
        return made.wait_ready()

    yield run
    agent.set({STATUS: LATEST})


# --- an upgrade that runs ---


@pytest.mark.waits_long
def test_upgrades_are_answered_at_once_and_when_their_status_is_final(
    start: Callable[..., ControlRoad], agent: LabAgent, broker: Mosquitto
) -> None:
    port = free_port()
    data_plane = {"ns": {"url": broker.url}, "generic": {"semtech_udp_listen_port": port}}
    road = start(changes=data_plane)
    road.bridge.wait_connected()
    daemon = road.bridge.process.pid
    state = road.state / "last_sw_status"
    agent.set({STATUS: DOWNLOADING})
    agent.clear_log()

    upgrade(road, 17, delay=86400, force=True)
    wait_until(lambda: state.read_text() == RUNNING, "the upgrade is in the state file")
    upgrade(road, 18)
    wait_until(lambda: state.read_text() == RUNNING.replace("17", "18"), "so is a second one")
    assert wait_answers(road, 0, 2) == [answer(17, "ok"), answer(18, "ok")]
    assert upgrades(agent) == [asked(FORCED), asked(UPGRADE)], "without the delay"
    assert road.command("getLastInstallUpgradeStatus").response is None, "known to the children alone"

    launched = re.compile(r"launched bsp upgrade process pid: \[(\d+)\]$")
    pids = [int(line.rsplit("[", 1)[1][:-1]) for line in road.bridge.log.find(launched)]
    assert sorted(pids) == sorted(children(daemon)) and len(pids) == 2
    assert len(road.bridge.log.find(re.compile("mqtt bsp upgrade slave process started$"))) == 2
    held = set(descriptors(daemon).values())
    assert udp_socket(daemon, port) in held
    for pid in pids:
        own = {target for number, target in descriptors(pid).items() if number > 2}
        assert not held & own, "what the daemon may close is not the child's"

    wait_until(lambda: reads(agent) >= 2, "both look at the status", timeout=30)
    assert road.async_responses() == []
    agent.set({STATUS: LATEST})
    wait_late(road, answer(17, "Already the latest BSP"), answer(18, "Already the latest BSP"))
    assert len(road.answers()) == 3, "and none on the other topic"
    assert state.read_text() == NONE
    wait_alone(road)
    assert road.command("getBspStatus").response == LATEST


# --- an upgrade that the agent refuses ---


@pytest.fixture(scope="module")
def module_road(tmp_path_factory: pytest.TempPathFactory) -> Iterator[ControlRoad]:
    agent = start_agent(tmp_path_factory.mktemp("shared"))
    agent.fault("upgradeStart.0", **REFUSED)
    made = ControlRoad(tmp_path_factory.mktemp("road"), agent).wait_ready()
    yield made
    made.close()
    agent.close()


@pytest.fixture
def refusing(module_road: ControlRoad) -> ControlRoad:
    """A daemon of several tests. Its agent starts no upgrade, so children end as soon as they have begun."""
    module_road.agent.clear_log()
    return module_road


NO_DELAY = "Delay parameter not set, upgrade immediately"
NO_FORCE = "Force parameter not set, upgrade without forcing"

_numbers = itertools.count(100)


@pytest.mark.parametrize(
    "beside, trigger, told, warnings",
    [
        ({}, UPGRADE, "delay: 0, force: false", [NO_DELAY, NO_FORCE]),
        ({"delay": 60, "force": True}, FORCED, "delay: 60, force: true", []),
        ({"delay": 2**63 - 1, "force": False}, UPGRADE, f"delay: {2**63 - 1}, force: false", []),
        ({"delay": "5", "force": "yes"}, FORCED, "delay: 5, force: true", []),
        ({"delay": "soon", "force": ""}, UPGRADE, "delay: 0, force: false", []),
        ({"delay": None, "force": None}, UPGRADE, "delay: 0, force: false", []),
        ({"delay": -1, "force": 0}, UPGRADE, "delay: -1, force: false", []),
        ({"params": {"delay": 5, "force": True}}, UPGRADE, "delay: 0, force: false", [NO_DELAY, NO_FORCE]),
        ({"params": None, "force": 1}, FORCED, "delay: 0, force: true", [NO_DELAY]),
    ],
    ids=str,
)
def test_delay_and_force_stand_beside_the_params(
    refusing: ControlRoad, beside: dict[str, Any], trigger: int, told: str, warnings: list[str]
) -> None:
    number, log = next(_numbers), refusing.bridge.log.mark()
    upgrade(refusing, number, **beside)
    wait_late(refusing, answer(number, NOT_PERMITTED))
    assert upgrades(refusing.agent) == [asked(trigger)]
    assert len(refusing.bridge.log.find(re.compile(rf"Upgrade BSP with {told}$"), log)) == 1
    found = [text for text in (NO_DELAY, NO_FORCE) if refusing.bridge.log.find(text, log)]
    assert found == warnings


def test_a_refused_upgrade_is_answered_late_and_leaves_nothing(refusing: ControlRoad) -> None:
    number, mark, log = next(_numbers), refusing.peer.mark(), refusing.bridge.log.mark()
    upgrade(refusing, number)
    wait_late(refusing, answer(number, NOT_PERMITTED))
    assert wait_answers(refusing, mark, 1) == [answer(number, "ok")]
    refusing.bridge.wait_for_log(re.compile("failed to send package upgrade command$"), after=log)
    assert (refusing.state / "last_sw_status").read_text() == NONE
    wait_alone(refusing)
    assert refusing.command("getBspStatus").response == 0


@pytest.mark.parametrize(
    "sent, number",
    [
        (2**63 - 1, 2**63 - 1),
        (-(2**63), -(2**63)),
        (2**64 - 1, 2**63 - 1),
        ("4711", 4711),
        ("-8 or so", -8),
        ("seven", 0),
        ("", 0),
        (1.9, 1),
        (None, 0),
        ({"a": 1}, 0),
        (True, 1),
    ],
    ids=str,
)
def test_a_late_answer_tells_its_request_as_a_number(
    refusing: ControlRoad, sent: object, number: int
) -> None:
    before, mark = len(refusing.async_responses()), refusing.peer.mark()
    upgrade(refusing, sent)
    wait_until(lambda: len(refusing.async_responses()) > before, "a late answer")
    assert refusing.async_responses()[before] == answer(number, NOT_PERMITTED).encode()
    wait_answers(refusing, mark, 1)
    assert refusing.answers(mark)[0].json["requestId"] == sent, "as it came, on the other topic"


# --- after a restart ---


def with_state(text: str) -> dict[str, str]:
    return {"last_sw_status": text, "last_wm_fw_status": ""}


POLLING = "Started polling BSP upgrade status worker"


@pytest.mark.waits_long
def test_a_restarted_daemon_watches_on_answers_and_ends(
    start: Callable[..., ControlRoad], agent: LabAgent
) -> None:
    road = start(state=with_state(RUNNING))
    road.bridge.wait_for_log(re.compile(f"{POLLING}$"))
    upgrade(road, 5)
    assert wait_answers(road, 0, 1) == [answer(5, "BSP upgrade already in progress")]
    assert road.command("getLastInstallUpgradeStatus").response["lastOperation"] == "localupgrade"
    wait_late(road, answer(17, "ok"))
    assert road.bridge.wait_exit() == 0
    assert (road.state / "last_sw_status").read_text() == NONE
    assert upgrades(agent) == []


def test_a_stop_does_not_wait_for_an_upgrade(start: Callable[..., ControlRoad], agent: LabAgent) -> None:
    """The next start takes it up again."""
    road = start(state=with_state(RUNNING))
    road.bridge.wait_for_log(POLLING)
    begin = time.monotonic()
    road.bridge.stop()
    assert time.monotonic() - begin < PROMPTLY
    assert (road.state / "last_sw_status").read_text() == RUNNING
    assert road.async_responses() == [] and reads(agent) == 0


def test_an_upgrade_without_a_request_is_not_watched(
    start: Callable[..., ControlRoad], agent: LabAgent
) -> None:
    road = start(state=with_state("3:localupgrade\n0:req\n"))
    upgrade(road, 5, force=True)
    assert wait_answers(road, 0, 1) == [answer(5, "BSP upgrade already in progress")]
    assert road.bridge.log.find(re.compile("Read last sw cmd: 3, req id: 0$"))
    assert not road.bridge.log.find(POLLING)
    assert upgrades(agent) == [] and children(road.bridge.process.pid) == []
    assert (road.state / "last_sw_status").read_text() == "3:localupgrade\n0:req\n"
