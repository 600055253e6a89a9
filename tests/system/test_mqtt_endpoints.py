"""Endpoints: which share a connection, with which settings they connect, and how messages go through them."""
import re
import socket
from typing import Any, Callable

import pytest

from conftest import Cleanup
from harness.bridge import PATIENCE, Bridge
from harness.broker import Mosquitto
from harness.config import ControlPlane
from harness.control import EVENTS
from harness.dialects import DIALECTS, NATIVE, V2, Dialect
from harness.forwarder import Forwarder, body_bytes
from harness.mqtt_peer import MqttPeer
from harness.ports import free_port
from harness.road import Road
from harness.samples import native_downlink, rxpk_v2, stat, v2_downlink
from harness.scripted_server import REFUSED_SUBSCRIPTION, Script, ScriptedServer

RunConfig = Callable[..., Bridge]
OwnRoad = Callable[..., Road]
MakePeer = Callable[..., MqttPeer]

GEO_CONNECTED = "UDP bridge is connected to geoloc"


def test_identical_settings_share_one_connection(own_road: OwnRoad, control_plane: ControlPlane) -> None:
    road = own_road(NATIVE, shares_geolocation=True, control=control_plane).wait_ready()
    road.bridge.wait_for_log(GEO_CONNECTED)
    for text in (
        "creating new endpoint group [0] with bit [0x1]",
        "merging [0x2] endpoint with existing group [0]. resulting bits: [0x3]",
        "merging [0x4] endpoint with existing group [0]. resulting bits: [0x7]",
    ):
        assert len(road.bridge.log.find(text)) == 1, text
    assert len(road.bridge.log.find("adding endpoint to already connected group")) == 2
    outcome = road.push({"rxpk": [rxpk_v2()], "locpk": [1], "stat": stat()})
    of_data_plane = [message.topic for message in outcome.published if message.topic != EVENTS]
    assert len(of_data_plane) == 3 and outcome.acked
    assert len(road.broker.connections(road.client_id)) == 1


# "use_username_as_clientid" lets the server keep two clients of one identifier apart.
DIFFERENCES: list[dict[str, Any]] = [{"gw_user": "other"}, {"gw_user": "other", "gw_pass": "x"}]


@pytest.mark.parametrize("difference", DIFFERENCES, ids=str)
def test_other_credentials_get_a_connection_of_their_own(
    run_config: RunConfig,
    make_broker: Callable[..., Mosquitto],
    make_peer: MakePeer,
    make_forwarder: Callable[..., Forwarder],
    difference: dict[str, Any],
) -> None:
    broker = make_broker(extra="use_username_as_clientid true")
    port = free_port()
    servers = {
        "ns": {"url": broker.url, "gw_user": "gateway"},
        "geoloc": {"url": broker.url, "gw_user": "gateway", **difference},
    }
    bridge = run_config(port, servers)
    bridge.wait_for_log("creating new endpoint group [1] with bit [0x4]")
    bridge.wait_for_log(GEO_CONNECTED)
    bridge.wait_connected()
    peer, forwarder = make_peer(broker, "#", user="watcher"), make_forwarder(port)
    forwarder.wait_push_ack(forwarder.push_data({"rxpk": [rxpk_v2()], "locpk": [1]}))
    peer.wait_for(lambda message: message.topic == "gateway/geoloc")
    assert (len(broker.connections("gateway")), len(broker.connections("other"))) == (1, 1)


@pytest.mark.parametrize(
    "geoloc", [{"skip_secure_cert": True}, {"gw_pass": "x"}, {"url": "tcp://localhost:%d"}], ids=str
)
def test_every_setting_must_agree_for_a_shared_connection(
    run_config: RunConfig, broker: Mosquitto, geoloc: dict[str, Any]
) -> None:
    url = str(geoloc.get("url", broker.url))
    settings = {**geoloc, "url": url % broker.port if "%" in url else url}
    bridge = run_config(free_port(), {"ns": {"url": broker.url}, "geoloc": settings})
    bridge.wait_for_log("creating new endpoint group [1] with bit [0x4]")
    bridge.wait_for_log(GEO_CONNECTED)


def test_a_proxy_of_no_name_is_none(run_config: RunConfig, broker: Mosquitto) -> None:
    empty = {"http_proxy": "", "https_proxy": ""}
    run_config(free_port(), {"ns": {"url": broker.url}}, env=empty).wait_connected()


def test_connections_go_through_a_proxy_that_is_named(run_config: RunConfig, broker: Mosquitto) -> None:
    with socket.create_server(("127.0.0.1", 0)) as proxy:
        address = f"http://127.0.0.1:{proxy.getsockname()[1]}"
        run_config(free_port(), {"ns": {"url": broker.url}}, env={"http_proxy": address})
        proxy.settimeout(PATIENCE)
        connection, _ = proxy.accept()
        with connection:
            connection.settimeout(PATIENCE)
            assert connection.recv(200).startswith(f"CONNECT 127.0.0.1:{broker.port} HTTP/1.1".encode())


def test_secrets_and_empty_settings_are_masked_in_the_list_of_groups(
    run_config: RunConfig, make_broker: Callable[..., Mosquitto], control_plane: ControlPlane
) -> None:
    broker, oam = make_broker(), make_broker()
    bridge = run_config(
        free_port(),
        {
            "ns": {"url": broker.url, "gw_user": "somebody", "gw_pass": "something"},
            "geoloc": {"url": broker.url, "skip_secure_cert": True},
            "oam": {"url": oam.url},
        },
        control=control_plane,
    )
    bridge.wait_for_log("creating new endpoint group [2] with bit [0x4]")
    bridge.wait_connected()
    groups = [line.split(" uri: ")[1] for line in bridge.log.find(" uri: ")]
    rest = "pkey_path: <empty>, cert_path: <empty>, validate_server_cert:"
    assert groups == [
        f"{broker.url}, user: ****, pass: ****, {rest} yes",
        f"{oam.url}, user: <empty>, pass: <empty>, {rest} yes",
        f"{broker.url}, user: <empty>, pass: <empty>, {rest} no",
    ]


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
def test_messages_go_out_with_qos_1_and_are_not_retained(
    roads: Callable[..., Road], make_peer: MakePeer, dialect: Dialect
) -> None:
    road = roads(dialect)
    outcome = road.push({"rxpk": [rxpk_v2()], "stat": stat()})
    assert [message.qos for message in outcome.published] == [1, 1]
    late = make_peer(road.broker, "#")
    road.push("{}")
    assert late.wait_for(lambda message: True).retain is False
    assert [message.topic for message in late.messages] == [dialect.uplink], "the marker alone"


@pytest.mark.parametrize("size, noted", [(2047, False), (2048, False), (2049, True), (3000, True)])
def test_a_payload_above_2048_bytes_is_noted_and_sent(
    roads: Callable[..., Road], size: int, noted: bool
) -> None:
    """One byte that is no character takes six in the text, so a datagram grows beyond its own limit."""
    road = roads(NATIVE)
    empty = len(road.push({"rxpk": [rxpk_v2(data="")]}).published[0].payload)
    raised, plain = divmod(size - empty, 6)
    body = body_bytes({"rxpk": [rxpk_v2(data="@")]}).replace(b"@", b"\x01" * raised + b"A" * plain)
    outcome = road.push(body)
    assert [len(message.payload) for message in outcome.published] == [size]
    assert (
        outcome.logged("publish message size is too big (> 2 KB), and may not get written to the log")
        == noted
    )
    assert outcome.logged(f"publish for [0] endpoint, with size: {size}")


class Rig:
    """The daemon at a scripted server."""

    def __init__(
        self, run_config: RunConfig, cleanup: Cleanup, dialect: Dialect = NATIVE, **script: Any
    ) -> None:
        self.server = ScriptedServer(Script(**script))
        cleanup.add(self.server)
        self.port = free_port()
        self.bridge = run_config(self.port, {"ns": {"url": self.server.url, "type": dialect.ns_type}})


def text_field(text: str) -> bytes:
    return len(text).to_bytes(2, "big") + text.encode()


@pytest.mark.parametrize("user, password", [("", ""), ("somebody", ""), ("somebody", "something")])
def test_the_connection_has_the_configured_settings(
    run_config: RunConfig, cleanup: Cleanup, user: str, password: str
) -> None:
    """User and password go out even when they are empty; the session is clean, and there is no will."""
    server = ScriptedServer()
    cleanup.add(server)
    bridge = run_config(
        free_port(),
        {
            "ns": {"url": server.url, "gw_user": user, "gw_pass": password},
            "generic": {"client_id": "the-gateway", "mqtt_keepalive_interval": 300},
        },
    )
    bridge.wait_connected()
    flags = 0x80 | 0x40 | 0x02
    assert server.connect_bodies == [
        text_field("MQTT")
        + bytes([4, flags])
        + (300).to_bytes(2, "big")
        + text_field("the-gateway")
        + text_field(user)
        + text_field(password)
    ]


def test_topics_match_whatever_their_case_and_unknown_ones_are_told(
    run_config: RunConfig, cleanup: Cleanup
) -> None:
    rig = Rig(run_config, cleanup)
    rig.bridge.wait_connected()
    forwarder = Forwarder(rig.port)
    cleanup.add(forwarder)
    forwarder.pull_data()
    rig.server.publish("gateway/other", body_bytes(native_downlink(data="BBBB")))
    rig.server.publish("GateWay/TX", body_bytes(native_downlink(data="AAAA")))
    assert b'"data":"AAAA"' in forwarder.wait_pull_resp().body
    assert rig.bridge.log.find("no handler found for topic: gateway/other and endpoint mask: [0x1]")
    assert rig.bridge.log.find("received a publish on topic: GateWay/TX")


def test_a_refused_subscription_ends_the_connection(run_config: RunConfig, cleanup: Cleanup) -> None:
    rig = Rig(run_config, cleanup, subscribe_code=REFUSED_SUBSCRIPTION)
    rig.bridge.wait_for_log(re.compile(r"failed to subscribe for topic: gateway/tx with error: \[-?\d+\]"))
    rig.bridge.wait_for_log("failed to subscribe for NS topics")
    rig.bridge.wait_for_log("destroying MQTT handle in disconnect call")
    rig.bridge.wait_for_log("restarting data plane entirely: all available endpoints are failed to connect")
    assert not rig.bridge.log.find("UDP bridge is connected to NS")


@pytest.mark.parametrize("code", [1, 2, 3, 4, 5])
def test_a_refused_connection_is_told_with_the_servers_code(
    run_config: RunConfig, cleanup: Cleanup, code: int
) -> None:
    rig = Rig(run_config, cleanup, connect_code=code)
    rig.bridge.wait_for_log(f"failed to connect with MQTT code: [{code}]")
    rig.bridge.wait_for_log("destroying MQTT handle in connect call")
    rig.bridge.wait_for_log("failed to connect to NS")


def test_an_empty_message_reaches_the_handler_as_an_empty_payload(
    run_config: RunConfig, cleanup: Cleanup
) -> None:
    rig = Rig(run_config, cleanup, V2)
    rig.bridge.wait_connected()
    forwarder = Forwarder(rig.port)
    cleanup.add(forwarder)
    forwarder.pull_data()
    rig.server.publish(V2.downlink, b"")
    rig.bridge.wait_for_log("empty payload received, skipping")
    rig.server.publish(V2.downlink, body_bytes(v2_downlink()))
    forwarder.wait_pull_resp()
