"""Start, loss and restart of the control plane: its agent, its server, and the commands under way."""
import json
import os
import signal
import time
from pathlib import Path
from typing import Any, Callable

import pytest

from conftest import Cleanup
from harness.bridge import TICKED, log_time
from harness.broker import Mosquitto
from harness.config import ControlPlane
from harness.control import (
    CAPABILITIES,
    COMMANDS,
    CONFIGURATION,
    PIPE,
    STARTED,
    ControlRoad,
    is_push,
    request,
)
from harness.dialects import NATIVE
from harness.lab import AGENT_BINARY, LabAgent
from harness.ports import free_port
from harness.road import Road
from harness.samples import rxpk_v2
from harness.scripted_server import REFUSED_SUBSCRIPTION, Script, ScriptedServer
from harness.waiting import wait_until

StartRoad = Callable[..., ControlRoad]

PATIENT = 60.0
RETRY, RESTART, LATE = 10.0, 20.0, 3.0
SOON = 5.0
TICK, REBOOT_DELAY = 10.0, 5.0
FREE_WORKERS = 14
PING = {"destination": "192.0.2.1", "packetsCount": 4}
WHOLE_RESTART = "ctrlplane restart requested"
DEINITIALISED = "ctrlplane deinit complete"
FAILED = "ctrlplane initialization failed: restarting"


@pytest.fixture
def start(tmp_path: Path, agent: LabAgent, cleanup: Cleanup) -> StartRoad:
    def run(**options: Any) -> ControlRoad:
        made = ControlRoad(tmp_path / "road", agent, **options)
        cleanup.add(made)
        return made

    return run


# --- start ---


def test_the_server_is_asked_in_order_before_the_control_plane_is_started(start: StartRoad) -> None:
    road = start().wait_ready()
    lines = road.bridge.log.lines
    order = (
        "initializing capabilities service",
        "connecting to the SNMP agent: udp:127.0.0.1:",
        "starting capabilities service",
        f"subscribing for [{CAPABILITIES}] topic",
        "creating async response pipe and threads",
        f"subscribing for [{COMMANDS}] topic",
        f"subscribing for [{CONFIGURATION}] topic",
        STARTED,
    )
    places = [next(place for place, line in enumerate(lines) if text in line) for text in order]
    assert places == sorted(places)
    subscribed = {
        line.split("subscribing for [")[1].split("]")[0] for line in lines if "subscribing for [" in line
    }
    assert subscribed == {CAPABILITIES, COMMANDS, CONFIGURATION}, "nothing else is subscribed"


@pytest.mark.waits_long
def test_a_server_that_is_down_defers_both_planes(
    tmp_path: Path, agent: LabAgent, cleanup: Cleanup, make_broker: Callable[..., Mosquitto]
) -> None:
    ns, oam = make_broker(), make_broker(start=False)
    changes = {"ns": {"url": ns.url}, "oam": {"url": oam.url}}
    road = ControlRoad(tmp_path / "road", agent, changes)
    cleanup.add(road)
    road.bridge.wait_for_log("failed to connect to OA&M endpoint")
    failed = road.bridge.wait_for_log(FAILED)
    assert not road.bridge.log.find("dataplane is started")
    oam.start()
    started = road.bridge.wait_for_log(STARTED)
    assert RETRY - 0.1 <= log_time(started) - log_time(failed) < RETRY + LATE
    road.bridge.wait_connected()


def test_a_stop_while_the_server_is_down(start: StartRoad) -> None:
    road = start(changes={"oam": {"url": "tcp://127.0.0.1:1"}})
    road.bridge.wait_for_log(FAILED)
    road.bridge.stop(SOON)
    road.bridge.wait_for_log("bridge is shutting down before ctrlplane connection procedure is completed")


def test_a_refused_subscription_is_a_failed_start(start: StartRoad, cleanup: Cleanup) -> None:
    server = ScriptedServer(Script(subscribe_code=REFUSED_SUBSCRIPTION))
    cleanup.add(server)
    road = start(changes={"oam": {"url": server.url}})
    road.bridge.wait_for_log("capabilities subscription failed")
    road.bridge.wait_for_log(FAILED)
    assert not road.bridge.log.find("creating async response pipe and threads")


def test_a_folder_of_mibs_that_is_not_there_is_a_failed_start(start: StartRoad) -> None:
    road = start(mib_dir="/no/such/folder")
    road.bridge.wait_for_log("failed to add mibdir: /no/such/folder")
    road.bridge.wait_for_log(FAILED)


# --- the agent ---


def restarted(agent: LabAgent, tmp_path: Path, cleanup: Cleanup) -> LabAgent:
    """Another agent at the address of one that was killed."""
    port = int(agent.address.rsplit(":", 1)[1])
    made = LabAgent(AGENT_BINARY, port, tmp_path / "second-agent.errors")
    cleanup.add(made)
    return made


@pytest.mark.waits_long
def test_an_agent_killed_and_started_again_serves_without_a_restart(
    start: StartRoad, agent: LabAgent, tmp_path: Path, cleanup: Cleanup
) -> None:
    road = start(polls=300).wait_ready()
    road.wait_event("ALARM")
    agent.kill()
    answer = road.command("getRadioStatistics", timeout=PATIENT)
    assert [key for key, _ in answer.pairs] == ["mac", "requestId"]
    road.bridge.wait_for_log("failed to get properties for radio stats")
    assert road.command("isAnyoneThere").json["error"] == "not_supported", "what needs no agent goes on"
    road.agent = restarted(agent, tmp_path, cleanup)
    assert road.command("getRadioStatistics").response["numTxPackets"] == 1842
    assert len(road.bridge.log.find(STARTED)) == 1


@pytest.mark.waits_long
def test_an_agent_that_comes_up_late_is_found(start: StartRoad, agent: LabAgent) -> None:
    """A session needs no agent to be opened; the first request, for a document, is repeated until then."""
    agent.silence()
    road = start(polls=300)
    wait_until(agent.requests, "the agent hears the first request")
    agent.silence(False)
    road.wait_ready(timeout=PATIENT)
    assert [json.loads(each.payload[:-1])["type"] for each in road.peer.since(0) if is_push(each)] == [
        "GENERAL",
        "UPGRADE_SERVERS",
    ]
    assert road.command("getBackups").response["status"] == "idle"


def test_a_command_for_a_silent_agent_is_answered_when_it_speaks_again(
    start: StartRoad, agent: LabAgent
) -> None:
    road = start(polls=300).wait_ready()
    agent.silence()
    number = road.send("getBackups")
    road.bridge.wait_for_log("ctrlplane message received")
    agent.silence(False)
    assert road.answer_to(number, PATIENT).response["status"] == "idle"


# --- the server ---


@pytest.mark.waits_long
def test_a_lost_server_restarts_both_planes_while_commands_run(
    start: StartRoad, make_broker: Callable[..., Mosquitto]
) -> None:
    ns = make_broker()
    road = start(changes={"ns": {"url": ns.url}}).wait_ready()
    road.bridge.wait_connected()
    road.wait_event("ALARM")
    before = road.bridge.resources()
    for _ in range(FREE_WORKERS):
        road.send("ping", PING)
    road.bridge.wait_for_log("command: [ping]", count=FREE_WORKERS)
    for number in range(200):
        road.peer.publish_at_once(COMMANDS, json.dumps(request("isAnyoneThere", {}, number)).encode())
    road.broker.kill()
    road.bridge.wait_for_log("initiating control plane restart")
    road.broker.start()
    road.bridge.wait_for_log("failed to publish response", PATIENT)
    road.bridge.wait_for_log(WHOLE_RESTART)
    road.bridge.wait_for_log("all control plane threads are stopped", PATIENT)
    road.bridge.wait_for_log(DEINITIALISED)
    stopped = road.bridge.wait_for_log("UDP bridge is deinitialized")
    started = road.bridge.wait_for_log(STARTED, PATIENT, count=2)
    assert RESTART - 0.1 <= log_time(started) - log_time(stopped) < RESTART + LATE
    road.bridge.wait_connected(PATIENT, after=road.bridge.log.lines.index(started))
    road.new_peer()
    assert road.command("getBackups").response["status"] == "idle"
    road.write_pipe(b"after")
    road.wait_async(b"after")
    road.wait_event("ALARM")
    for text in (
        "stopping command services",
        "destroying async response pipe",
        "stopping pipe watcher thread",
    ):
        assert len(road.bridge.log.find(text)) == 1, text
    assert road.bridge.log.find("stopping event polling")
    wait_until(lambda: road.bridge.resources() == before, f"{before} descriptors and threads as before")


@pytest.mark.waits_long
def test_a_failed_publish_of_an_answer_asks_for_the_restart(start: StartRoad) -> None:
    road = start(polls=300).wait_ready()
    road.send("ping", PING)
    road.bridge.wait_for_log("command: [ping]")
    road.broker.kill()
    road.bridge.wait_for_log("failed to publish response", PATIENT)
    road.bridge.wait_for_log("control plane is already being restarted...no need to initiate another restart")
    assert len(road.bridge.log.find("initiating control plane restart")) == 1


@pytest.mark.waits_long
def test_notifications_are_taken_again_after_a_restart(
    tmp_path: Path, agent: LabAgent, cleanup: Cleanup
) -> None:
    address = f"udp:127.0.0.1:{free_port()}"
    agent.do({"trap_to": address})
    road = ControlRoad(tmp_path / "road", agent, polls=0, trap_transport=address)
    cleanup.add(road)
    road.wait_ready().wait_event("ALARM")
    road.broker.kill()
    road.bridge.wait_for_log(DEINITIALISED, PATIENT)
    road.broker.start()
    road.wait_ready(count=2, timeout=PATIENT)
    road.new_peer()
    log = road.bridge.log.mark()
    agent.do({"raise": "alarm", "id": 7, "severity": 0, "text": "Enclosure door is open"})
    road.bridge.wait_for_log("Received alarm or fault notification", after=log)
    road.wait_event('"typeId":7', '"RAISED"')


# --- stop ---


def test_a_stop_while_commands_run_is_a_clean_end(start: StartRoad) -> None:
    road = start().wait_ready()
    for _ in range(FREE_WORKERS):
        road.send("ping", PING)
    road.bridge.wait_for_log("command: [ping]", count=FREE_WORKERS)
    for number in range(200):
        road.peer.publish_at_once(COMMANDS, json.dumps(request("isAnyoneThere", {}, number)).encode())
    road.bridge.signal(signal.SIGUSR2)
    road.bridge.stop(SOON)
    road.bridge.wait_for_log("bridge is shutting down")


def test_an_uplink_passes_while_every_worker_is_busy(
    own_road: Callable[..., Road], control_plane: ControlPlane
) -> None:
    """One connection for both planes."""
    road = own_road(NATIVE, control=control_plane).wait_ready()
    for number in range(2 * FREE_WORKERS):
        road.peer.publish(COMMANDS, json.dumps(request("ping", PING, number)).encode())
    road.bridge.wait_for_log("command: [ping]", count=FREE_WORKERS)
    token = road.forwarder.push_data({"rxpk": [rxpk_v2(data="through")]})
    road.peer.wait_for(lambda message: message.topic == NATIVE.uplink and "through" in message.text)
    road.forwarder.wait_push_ack(token)
    assert not [each for each in road.peer.since(0) if "packets_sent" in each.text], "the pings still run"


# --- restart with work under way ---


@pytest.mark.waits_long
def test_a_restart_in_the_wait_before_a_reboot(start: StartRoad) -> None:
    road = start().wait_ready()
    next_tick = log_time(road.bridge.wait_for_log(STARTED)) + TICK
    wait_until(lambda: time.time() > next_tick - 0.7 * REBOOT_DELAY, "the next tick is near")
    road.send("reboot")
    road.bridge.wait_for_log("waiting 5 seconds before executing reboot")
    road.broker.kill()
    road.bridge.wait_for_log("cannot set reset flag")
    road.bridge.wait_for_log("all control plane threads are stopped")
    assert "lumoReset.0" not in [name for name, _ in road.agent.written()]
    road.bridge.wait_for_log(FAILED, PATIENT)


def fill(pipe: Path) -> None:
    """Writes as much as fits."""
    descriptor = os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
    try:
        while True:
            os.write(descriptor, b"x" * 4096)
    except BlockingIOError:
        os.close(descriptor)


@pytest.mark.waits_long
def test_a_restart_with_a_full_pipe_that_nobody_reads(start: StartRoad) -> None:
    road = start().wait_ready()
    road.bridge.wait_for_log(TICKED, after=road.bridge.log.mark())  # the loss is acted on with the next one
    road.broker.kill()
    road.write_pipe(b"lost")
    road.bridge.wait_for_log("failed to send fileops response")
    fill(road.inside(PIPE))
    road.bridge.wait_for_log(DEINITIALISED, PATIENT)
    road.broker.start()
    road.wait_ready(count=2, timeout=PATIENT)
