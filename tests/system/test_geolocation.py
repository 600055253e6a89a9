"""Geolocation records: published as they stand, on an endpoint of their own."""
from typing import Callable

import pytest

from harness.broker import Mosquitto
from harness.dialects import DIALECTS, NATIVE, Dialect
from harness.mqtt_peer import MqttPeer
from harness.road import Road
from harness.samples import rxpk_v2, stat

OwnRoad = Callable[..., Road]

RECORDS = '[{"lat": 48.10, "b":[1, 2],"a":"x/y", "n":null}, 5]'
RECORDS_PRINTED = '[{"lat":48.10,"b":[1,2],"a":"x\\/y","n":null},5]'


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
def test_records_go_out_untranslated_on_the_shared_connection(own_road: OwnRoad, dialect: Dialect) -> None:
    road = own_road(dialect, shares_geolocation=True).wait_ready()
    road.bridge.wait_for_log("adding endpoint to already connected group")
    road.bridge.wait_for_log("UDP bridge is connected to geoloc")

    outcome = road.push('{"locpk": %s}' % RECORDS)
    assert [(message.topic, message.text) for message in outcome.published] == [
        ("gateway/geoloc", RECORDS_PRINTED)
    ]
    assert outcome.acked
    assert len(road.broker.connections(road.client_id)) == 1

    outcome = road.push({"stat": stat(), "locpk": [1], "rxpk": [rxpk_v2()]})
    assert [message.topic for message in outcome.published] == [
        dialect.uplink,
        "gateway/geoloc",
        dialect.statistics,
    ]
    assert outcome.acked
    for empty in ('{"locpk":[]}', '{"locpk":{}}', '{"locpk":null}', '{"locpk":"x"}'):
        outcome = road.push(empty)
        assert (outcome.published, outcome.acked) == ([], True), empty


def test_the_topic_is_the_configured_one(
    own_road: OwnRoad, broker: Mosquitto, make_peer: Callable[..., MqttPeer]
) -> None:
    road = own_road(NATIVE, {"geoloc": {"url": broker.url, "topic": "places/of/gateways"}}).wait_ready()
    road.bridge.wait_for_log("UDP bridge is connected to geoloc")
    peer = make_peer(broker, "#")
    assert road.push({"locpk": [1, 2]}).acked
    assert peer.wait_for(lambda message: message.text == "[1,2]").topic == "places/of/gateways"
    assert len(road.broker.connections(road.client_id)) == len(broker.connections(road.client_id)) == 1


def test_without_a_geolocation_server_records_are_dropped_and_acknowledged(own_road: OwnRoad) -> None:
    road = own_road(NATIVE).wait_ready()
    outcome = road.push({"locpk": [1], "stat": stat()})
    assert [message.topic for message in outcome.published] == [NATIVE.statistics]
    assert outcome.acked
    assert outcome.logged("geoloc packet is dropped: endpoint is disabled")


def test_without_the_network_server_geolocation_runs_alone(
    own_road: OwnRoad, broker: Mosquitto, make_peer: Callable[..., MqttPeer]
) -> None:
    road = own_road(NATIVE, {"geoloc": {"url": broker.url}}, ("--no-udp",))
    road.bridge.wait_for_log("UDP bridge is connected to geoloc")
    peer = make_peer(broker, "#")
    token = road.forwarder.push_data({"rxpk": [rxpk_v2()], "stat": stat(), "locpk": ["here"]})
    road.forwarder.wait_push_ack(token)
    assert peer.wait_for(lambda message: True).text == '["here"]'
    road.bridge.wait_for_log("NS packet is dropped: endpoint is disabled", count=2)
    assert road.peer.messages == []
