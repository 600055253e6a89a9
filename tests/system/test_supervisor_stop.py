"""The stop signal in each state of the daemon: one clean way out, with exit status 0."""
import signal
import socket
from typing import Callable

import pytest

from harness.bridge import TICKED, Bridge
from harness.broker import Mosquitto
from harness.config import ControlPlane
from harness.dialects import DIALECTS, NATIVE, V3, Dialect
from harness.forwarder import Forwarder, body_bytes
from harness.ports import free_port
from harness.road import Road
from harness.samples import DOWNLINKS, rxpk_v2

RunConfig = Callable[..., Bridge]
OwnRoad = Callable[..., Road]

SOON = 8.0  # less than any sleep of the loop
LAST_WORDS = "bridge is shutting down"
TORN_DOWN = "de-initializing MQTT subsystem"
DEINITIALISED = "UDP bridge is deinitialized"


def test_a_stop_during_the_tick_tears_down_under_the_running_planes(
    own_road: OwnRoad, control_plane: ControlPlane
) -> None:
    road = own_road(NATIVE, control=control_plane).wait_ready()
    road.bridge.stop(SOON)
    assert road.bridge.log.find(TICKED), "the sleep ends, and the pass with it"
    assert [text for text in (LAST_WORDS, TORN_DOWN) if road.bridge.log.find(text)] == [LAST_WORDS, TORN_DOWN]
    for text in (DEINITIALISED, "disconnecting [0] endpoint", "ctrlplane deinit complete"):
        assert not road.bridge.log.find(text), text
    own = road.bridge.log.find(f"[{road.bridge.process.pid}][")
    assert LAST_WORDS in "".join(own[-10:]), "the planes' threads may go on"


def test_a_stop_while_the_restart_is_waited_for(run_config: RunConfig) -> None:
    bridge = run_config(free_port(), {"ns": {"url": f"tcp://127.0.0.1:{free_port()}"}})
    bridge.wait_for_log(DEINITIALISED)
    bridge.stop(SOON)
    assert len(bridge.log.find("dataplane is started")) == 2, "the data plane comes up once more"
    assert bridge.log.find(LAST_WORDS)


def test_a_stop_while_the_port_is_taken(
    run_config: RunConfig, broker: Mosquitto, control_plane: ControlPlane
) -> None:
    port = free_port()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(("0.0.0.0", port))
        bridge = run_config(port, {"ns": {"url": broker.url}}, control=control_plane)
        bridge.wait_for_log("dataplane initialization failed: restarting")
        bridge.stop(SOON)
    assert bridge.log.find("bridge is shutting down before dataplane connection is established")
    assert bridge.log.find("ctrlplane deinit complete"), "this way out stops the control plane"
    assert len(bridge.log.find("cannot bind: ")) == 2


def test_a_stop_just_before_the_port_becomes_free_is_seen_by_the_run_phase(
    run_config: RunConfig, broker: Mosquitto
) -> None:
    port = free_port()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(("0.0.0.0", port))
        bridge = run_config(port, {"ns": {"url": broker.url}})
        bridge.wait_for_log("dataplane initialization failed: restarting")
    bridge.stop(SOON)
    assert bridge.log.find("dataplane is started")
    assert bridge.log.find(LAST_WORDS)
    assert not bridge.log.find("bridge is shutting down before")


@pytest.mark.waits_long
def test_a_stop_while_connecting_is_seen_after_the_attempt_and_its_tick(
    run_config: RunConfig, broker: Mosquitto
) -> None:
    broker.pause()
    try:
        bridge = run_config(free_port(), {"ns": {"url": broker.url}})
        bridge.wait_for_log("connecting [0] endpoint")
        bridge.signal(signal.SIGUSR2)
    finally:
        broker.resume()
    assert bridge.wait_exit(30) == 0
    assert bridge.log.find(TICKED)
    assert bridge.log.find(LAST_WORDS)


@pytest.mark.waits_long
def test_a_stop_after_a_lost_connection(own_road: OwnRoad) -> None:
    road = own_road(V3).wait_ready()
    road.broker.kill()
    road.bridge.wait_for_log("initiating control plane restart")
    road.bridge.stop(SOON)
    assert road.bridge.log.find(LAST_WORDS)
    assert not road.bridge.log.find("ctrlplane restart requested"), "the stop is tested first"


@pytest.mark.waits_long
def test_a_stop_while_a_whole_restart_is_waited_for(
    own_road: OwnRoad, broker: Mosquitto, control_plane: ControlPlane
) -> None:
    road = own_road(NATIVE, {"oam": {"url": broker.url}}, control=control_plane).wait_ready()
    road.broker.kill()
    road.bridge.wait_for_log(DEINITIALISED)
    road.bridge.stop(SOON)
    assert len(road.bridge.log.find("ctrlplane is started")) == 2
    assert road.bridge.log.find(LAST_WORDS)


@pytest.mark.parametrize("number", range(5))
@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
def test_a_stop_under_traffic_in_both_directions(own_road: OwnRoad, dialect: Dialect, number: int) -> None:
    road = own_road(dialect).wait_ready()
    for count in range(50 + 20 * number):
        road.forwarder.push_data({"rxpk": [rxpk_v2(data=f"before{count}")]})
        if count % 4 == 0:
            road.peer.publish(dialect.downlink, body_bytes(DOWNLINKS[dialect.name]()), qos=0)
    road.bridge.signal(signal.SIGUSR2)
    for count in range(200):
        road.forwarder.push_data({"rxpk": [rxpk_v2(data=f"after{count}")]})
    road.bridge.stop(SOON)
    assert road.bridge.log.find(TORN_DOWN)


def test_a_stop_while_the_server_holds_every_acknowledgement_back(own_road: OwnRoad) -> None:
    road = own_road(NATIVE).wait_ready()
    road.broker.pause()
    try:
        for count in range(20):
            road.forwarder.push_data({"rxpk": [rxpk_v2(data=f"held{count}")]})
        road.bridge.wait_for_log("Publish to: gateway/rx", count=11)
        road.bridge.stop(SOON)
    finally:
        road.broker.resume()


def test_other_signals_are_not_handled(run_config: RunConfig, broker: Mosquitto) -> None:
    bridge = run_config(free_port(), {"ns": {"url": broker.url}})
    bridge.wait_connected()
    bridge.signal(signal.SIGTERM)
    assert bridge.wait_exit() == -signal.SIGTERM
    assert not bridge.log.find(LAST_WORDS)


def test_the_port_is_free_again_after_a_stop(
    own_road: OwnRoad, make_forwarder: Callable[..., Forwarder]
) -> None:
    road = own_road(NATIVE).wait_ready()
    road.bridge.stop(SOON)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(("0.0.0.0", road.udp_port))
