"""The supervisor loop: what is restarted after which failure, and with which wait. The waits are real."""
import re
import socket
from typing import Callable

import pytest

from harness.bridge import CONNECTED, TICKED, Bridge, log_time
from harness.broker import Mosquitto
from harness.config import ControlPlane
from harness.dialects import NATIVE, V2, V3, Dialect
from harness.forwarder import Forwarder, body_bytes
from harness.mqtt_peer import MqttPeer
from harness.ports import free_port
from harness.road import Road
from harness.samples import native_downlink, rxpk_v2, stat
from harness.traffic import Traffic
from harness.waiting import wait_until

RunConfig = Callable[..., Bridge]
OwnRoad = Callable[..., Road]
MakeBroker = Callable[..., Mosquitto]
MakePeer = Callable[..., MqttPeer]
MakeForwarder = Callable[..., Forwarder]

TICK, RESTART = 10.0, 20.0
LATE = 3.0  # what a loaded machine may add to a wait
PATIENT = 60.0

WHOLE_RESTART = "ctrlplane restart requested"
PARTIAL_RESTART = "dataplane partial restart requested"
ALL_FAILED = "restarting data plane entirely: all available endpoints are failed to connect"
STARTED = "dataplane is started"
INITIALISED = "UDP bridge is initialized"
DEINITIALISED = "UDP bridge is deinitialized"
GEO_CONNECTED = "UDP bridge is connected to geoloc"
GEO_FAILED = "failed to connect to geoloc server"

pytestmark = pytest.mark.waits_long


def assert_waited(earlier: str, later: str, seconds: float) -> None:
    waited = log_time(later) - log_time(earlier)
    assert seconds - 0.01 <= waited < seconds + LATE, f"waited {waited} s instead of {seconds} s"


def passes(road: Road) -> bool:
    outcome = road.push({"rxpk": [rxpk_v2()]})
    return outcome.acked and [message.topic for message in outcome.published].count(NATIVE.uplink) == 1


def test_a_server_that_is_down_at_start_is_reached_when_it_comes_up(
    run_config: RunConfig,
    make_broker: MakeBroker,
    make_peer: MakePeer,
    make_forwarder: MakeForwarder,
    control_plane: ControlPlane,
) -> None:
    broker, oam = make_broker(start=False), make_broker()
    port = free_port()
    bridge = run_config(port, {"ns": {"url": broker.url}, "oam": {"url": oam.url}}, control=control_plane)
    bridge.wait_for_log(re.compile(r"failed to connect with MQTT code: \[-?\d+\]"))
    bridge.wait_for_log("failed to connect to NS")
    bridge.wait_for_log(ALL_FAILED)
    stopped = bridge.wait_for_log(DEINITIALISED)
    broker.start()
    started = bridge.wait_for_log(INITIALISED, PATIENT, count=2)
    assert_waited(stopped, started, RESTART)
    bridge.wait_connected()
    peer, forwarder = make_peer(broker, "#"), make_forwarder(port)
    forwarder.wait_push_ack(forwarder.push_data({"rxpk": [rxpk_v2()]}))
    peer.wait_for(lambda message: message.topic == NATIVE.uplink)
    assert len(bridge.log.find("ctrlplane is started")) == 1, "the control plane stays up"


@pytest.mark.parametrize(
    "url", ["", "http://127.0.0.1:1", "tcp://no-such-name:1883", "tcp://127.0.0.1:1", "tcp://127.0.0.1:99999"]
)
def test_a_server_that_cannot_be_reached_at_all_is_no_end(run_config: RunConfig, url: str) -> None:
    bridge = run_config(free_port(), {"ns": {"url": url}})
    bridge.wait_for_log("failed to connect to NS")
    bridge.wait_for_log(ALL_FAILED)
    bridge.wait_for_log(DEINITIALISED)


def test_a_wrong_password_is_tried_again_with_the_data_plane_restarted(
    run_config: RunConfig, make_broker: MakeBroker
) -> None:
    broker = make_broker(users={"gateway": "right"})
    config = {"ns": {"url": broker.url, "gw_user": "gateway", "gw_pass": "wrong"}}
    bridge = run_config(free_port(), config)
    bridge.wait_for_log("failed to connect with MQTT code: [5]")
    bridge.wait_for_log(ALL_FAILED)
    bridge.wait_for_log("failed to connect with MQTT code: [5]", PATIENT, count=2)
    assert not bridge.log.find(CONNECTED)
    assert "not authorised" in broker.log_text()


def test_a_right_password_connects(run_config: RunConfig, make_broker: MakeBroker) -> None:
    broker = make_broker(users={"gateway": "right"})
    bridge = run_config(free_port(), {"ns": {"url": broker.url, "gw_user": "gateway", "gw_pass": "right"}})
    bridge.wait_connected()
    assert "u'gateway'" in broker.log_text()


def kill_and_restart_the_server(road: Road) -> None:
    for _ in range(300):
        road.peer.publish_at_once(road.dialect.downlink, body_bytes(native_downlink()))
    road.broker.kill()
    road.bridge.wait_for_log("mqtt connection lost")
    road.bridge.wait_for_log("mqtt connection to the server failed")
    road.bridge.wait_for_log("initiating control plane restart")
    road.bridge.wait_for_log("send to NS has failed: initiating service restart")
    road.broker.start()
    road.bridge.wait_for_log(WHOLE_RESTART)
    road.bridge.wait_for_log("ctrlplane deinit complete")
    stopped = road.bridge.wait_for_log(DEINITIALISED)
    started = road.bridge.wait_for_log(INITIALISED, PATIENT, count=2)
    assert_waited(stopped, started, RESTART)
    road.bridge.wait_for_log("ctrlplane is started", count=2)
    road.bridge.wait_for_log(CONNECTED, count=2)


def test_a_server_killed_under_traffic_restarts_both_planes(
    own_road: OwnRoad, make_peer: MakePeer, control_plane: ControlPlane
) -> None:
    road = own_road(NATIVE, control=control_plane).wait_ready()
    with Traffic(road.forwarder) as traffic:
        road.peer.wait_for(lambda message: "traffic000010" in message.text)
        kill_and_restart_the_server(road)
        road.peer.close()
        road.peer = make_peer(road.broker, "#")
        first = len(traffic.sent) + 1  # one may have been under way before there was a subscription
        wait_until(lambda: len(traffic.sent) > first + 50, "more traffic")
    last = traffic.sent[-1]
    road.forwarder.wait_push_ack(last.token)
    road.peer.wait_for(lambda message: last.data in message.text)
    uplinks = [each.text for each in road.peer.messages if each.topic == road.dialect.uplink]
    published = {text.split('"phyPayload":"')[1][:13] for text in uplinks}
    assert {each.data for each in traffic.sent[first:]} <= published
    acknowledged = traffic.acknowledged()
    assert {each.token for each in traffic.sent[first:]} <= acknowledged
    assert len(acknowledged) < len(traffic.sent), "uplinks of the outage are not acknowledged"
    road.forwarder.pull_data()
    assert road.downlink(native_downlink()).body
    assert not road.bridge.log.find(PARTIAL_RESTART), "a lost connection takes precedence over failed sends"


@pytest.mark.parametrize("dialect", [V2, V3], ids=str)
def test_without_a_control_plane_a_lost_connection_restarts_the_data_plane_for_ever(
    own_road: OwnRoad, dialect: Dialect
) -> None:
    """The request is taken back by a control plane's stop alone, and here there is none."""
    road = own_road(dialect).wait_ready()
    road.broker.kill()
    road.bridge.wait_for_log("initiating control plane restart")
    road.broker.start()
    held: list[tuple[int, int]] = []
    for count in (1, 2):
        road.bridge.wait_for_log(WHOLE_RESTART, PATIENT, count=count)
        stopped = road.bridge.wait_for_log(DEINITIALISED, count=count)
        started = road.bridge.wait_for_log(STARTED, PATIENT, count=count + 1)
        assert_waited(stopped, started, RESTART)
        road.bridge.wait_for_log(DEINITIALISED, count=count + 1)
        if not held:
            held.append(road.bridge.resources())
        # Threads of the round before may still be ending.
        wait_until(lambda: all(now <= first for now, first in zip(road.bridge.resources(), held[0])), f"{held[0]} again")
    assert len(road.bridge.log.find(CONNECTED)) == 1
    assert not road.bridge.log.find("ctrlplane deinit complete")


def test_a_request_that_stands_when_the_port_is_taken_is_found_by_the_data_plane_phase(
    own_road: OwnRoad,
) -> None:
    road = own_road(V3).wait_ready()
    road.broker.kill()
    road.bridge.wait_for_log(DEINITIALISED, PATIENT)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(("0.0.0.0", road.udp_port))
        road.bridge.wait_for_log("cannot bind: Address already in use", PATIENT)
        refused = road.bridge.wait_for_log(
            "control plane restart is requested before data plane connection could be established"
        )
    started = road.bridge.wait_for_log(STARTED, PATIENT, count=2)
    assert_waited(refused, started, RESTART)
    assert not road.bridge.log.find("dataplane initialization failed: restarting")


def test_a_taken_port_is_tried_again_after_ten_seconds(run_config: RunConfig, broker: Mosquitto) -> None:
    port = free_port()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
        other.bind(("0.0.0.0", port))
        bridge = run_config(port, {"ns": {"url": broker.url}})
        bridge.wait_for_log("cannot bind: Address already in use")
        failed = bridge.wait_for_log("dataplane initialization failed: restarting")
    started = bridge.wait_for_log(STARTED)
    assert_waited(failed, started, TICK)
    bridge.wait_connected()


def test_a_second_lost_connection_asks_for_no_second_restart(own_road: OwnRoad, broker: Mosquitto) -> None:
    road = own_road(NATIVE, {"geoloc": {"url": broker.url}}).wait_ready()
    road.bridge.wait_for_log(GEO_CONNECTED)
    broker.kill()
    road.bridge.wait_for_log("initiating control plane restart")
    road.broker.kill()
    road.bridge.wait_for_log("control plane is already being restarted...no need to initiate another restart")
    assert len(road.bridge.log.find("initiating control plane restart")) == 1
    assert len(road.bridge.log.find("mqtt connection to the server failed")) == 2


def test_a_lost_geolocation_server_restarts_everything(
    own_road: OwnRoad, broker: Mosquitto, control_plane: ControlPlane
) -> None:
    road = own_road(NATIVE, {"geoloc": {"url": broker.url}}, control=control_plane).wait_ready()
    road.bridge.wait_for_log(GEO_CONNECTED)
    broker.kill()
    road.bridge.wait_for_log(WHOLE_RESTART)
    road.bridge.wait_for_log(DEINITIALISED)
    road.bridge.wait_for_log(CONNECTED, PATIENT, count=2)
    road.bridge.wait_for_log(GEO_FAILED)
    assert passes(road), "the network server works without the other"
    assert not road.bridge.log.find(ALL_FAILED)


def test_a_failed_send_to_the_geolocation_server_reconnects_it_alone(
    own_road: OwnRoad, make_broker: MakeBroker
) -> None:
    geoloc = make_broker(start=False)
    road = own_road(NATIVE, {"geoloc": {"url": geoloc.url}}).wait_ready()
    first = road.bridge.wait_for_log(GEO_FAILED)
    outcome = road.push({"rxpk": [rxpk_v2()], "locpk": [1], "stat": stat()})
    assert not outcome.acked and len(outcome.published) == 1, "what follows the records is lost"
    assert outcome.logged("geoloc endpoint is enabled but not yet ready, skipping sending packet")
    assert outcome.logged("no connected handle exists for given endpoint: [2]")
    assert outcome.logged("send to GeoLoc has failed: initiating service restart")
    road.bridge.wait_for_log(PARTIAL_RESTART)
    second = road.bridge.wait_for_log(GEO_FAILED, count=2)
    assert_waited(first, second, TICK)
    geoloc.start()
    third = road.bridge.wait_for_log(GEO_CONNECTED)
    assert_waited(second, third, TICK)
    assert passes(road)
    assert road.push({"locpk": [1]}).acked
    assert len(road.bridge.log.find(PARTIAL_RESTART)) == 1
    assert len(road.bridge.log.find(INITIALISED)) == 1, "the UDP server stays up"
    assert len(road.broker.connections(road.client_id)) == 1, "the network server's connection stays up"


def test_a_failed_send_to_the_network_server_reconnects_it_alone(
    run_config: RunConfig, make_broker: MakeBroker, make_peer: MakePeer, make_forwarder: MakeForwarder
) -> None:
    geoloc, ns = make_broker(), make_broker(start=False)
    port = free_port()
    servers = {"ns": {"url": ns.url, "type": V3.ns_type}, "geoloc": {"url": geoloc.url}}
    bridge = run_config(port, servers)
    bridge.wait_for_log(GEO_CONNECTED)
    forwarder = make_forwarder(port)
    refused = forwarder.push_data({"rxpk": [rxpk_v2()]})
    bridge.wait_for_log("NS endpoint is enabled but not yet ready, skipping sending packet")
    bridge.wait_for_log("no connected handle exists for given endpoint: [0]")
    bridge.wait_for_log("send to NS has failed: initiating service restart")
    forwarder.push_data({"stat": stat()})
    bridge.wait_for_log("failed to send stats message over mqtt")
    forwarder.tx_ack(b"")
    bridge.wait_for_log("failed to send message over MQTT", count=2)
    bridge.wait_for_log("send to NS has failed: initiating service restart", count=3)
    ns.start()
    peer = make_peer(ns, "#")
    bridge.wait_for_log(PARTIAL_RESTART)
    bridge.wait_for_log("failed to unsubscribe from downlink topics")
    bridge.wait_connected()
    forwarder.wait_push_ack(forwarder.push_data({"rxpk": [rxpk_v2()]}))
    peer.wait_for(lambda message: message.topic == V3.uplink)
    assert len(forwarder.up.received) == 1
    assert refused not in [ack.token for ack in forwarder.up.received]
    assert not bridge.log.find(DEINITIALISED)
    assert "disconnected" not in geoloc.log_text(), "the geolocation server's connection stays up"


def test_without_data_endpoints_the_loop_only_ticks(
    run_config: RunConfig, broker: Mosquitto, control_plane: ControlPlane
) -> None:
    bridge = run_config(free_port(), {"oam": {"url": broker.url}}, control=control_plane)
    started = bridge.wait_for_log("ctrlplane is started")
    first = bridge.wait_for_log(TICKED)
    second = bridge.wait_for_log(TICKED, count=2)
    assert_waited(started, first, TICK)
    assert_waited(first, second, TICK)
    for text in (STARTED, INITIALISED, "connecting to NS", "connecting to geoloc"):
        assert not bridge.log.find(text), text


def test_with_geolocation_alone_a_failed_connection_restarts_the_data_plane(
    run_config: RunConfig, make_broker: MakeBroker
) -> None:
    geoloc = make_broker(start=False)
    bridge = run_config(free_port(), {"geoloc": {"url": geoloc.url}})
    bridge.wait_for_log(ALL_FAILED)
    geoloc.start()
    stopped = bridge.wait_for_log(DEINITIALISED)
    assert_waited(stopped, bridge.wait_for_log(GEO_CONNECTED, PATIENT), RESTART)
