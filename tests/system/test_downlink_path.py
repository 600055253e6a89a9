"""The way of a downlink from the MQTT server to the packet forwarder's socket, whatever the dialect."""
import json
from typing import Callable

import pytest

from harness.dialects import DIALECTS, NATIVE, Dialect
from harness.forwarder import PULL_ACK, PULL_RESP, PUSH_ACK, Forwarder, Socket, body_bytes
from harness.road import Road, next_marker
from harness.samples import DOWNLINKS, LONGEST_TEXT, native_downlink, native_downlink_of_text_length, rxpk_v2

Roads = Callable[..., Road]
MakeForwarder = Callable[..., Forwarder]


def sent_data(body: bytes) -> str:
    return str(json.loads(body.rstrip(b"\0"))["txpk"]["data"])


@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
@pytest.mark.parametrize("qos", [0, 1, 2])
def test_a_downlink_of_any_qos_leaves_once(roads: Roads, dialect: Dialect, qos: int) -> None:
    road = roads(dialect)
    mark = road.forwarder.down.mark()
    for data in (first := next_marker(), last := next_marker()):
        road.peer.publish(dialect.downlink, body_bytes(DOWNLINKS[dialect.name](data=data)), qos)
        road.forwarder.down.wait_for(PULL_RESP, after=mark, count=1 if data is first else 2)
    datagrams = [each for each in road.forwarder.down.since(mark) if each.kind == PULL_RESP]
    assert [sent_data(each.body) for each in datagrams] == [first, last]
    assert all(each.raw.endswith(b"}}\0") for each in datagrams), "the terminator is part of the datagram"


def test_a_downlink_before_the_first_pull_data_is_dropped(own_road: Callable[..., Road]) -> None:
    road = own_road(NATIVE)
    road.bridge.wait_connected()
    early, later = next_marker(), next_marker()
    road.forwarder.push_data({"rxpk": [rxpk_v2()]})  # the host alone does not open the way
    road.peer.publish(NATIVE.downlink, body_bytes(native_downlink(data=early)))
    road.bridge.wait_for_log("RX is not yet allowed")
    road.forwarder.pull_data()
    response = road.downlink(native_downlink(data=later))
    assert sent_data(response.body) == later
    assert [each.kind for each in road.forwarder.down.received] == [PULL_ACK, PULL_RESP]
    assert not road.bridge.log.find("downlink send failed")
    assert not road.bridge.log.find("failed to translate")


def test_the_longest_text_fills_the_pipes_buffer(roads: Roads) -> None:
    road = roads(NATIVE)
    response = road.downlink(native_downlink_of_text_length(LONGEST_TEXT))
    assert len(response.raw) == 4 + LONGEST_TEXT + 1
    log = road.refused_downlink(native_downlink_of_text_length(LONGEST_TEXT + 1))
    assert any(f"packet body is too big: {LONGEST_TEXT + 2} bytes" in line for line in log)


def test_a_large_message_with_a_small_downlink_in_it_passes(roads: Roads) -> None:
    body = {"filler": "x" * 200_000, **native_downlink(data="AAAA")}
    assert sent_data(roads(NATIVE).downlink(body).body) == "AAAA"


GOOD = body_bytes(native_downlink(data="AAAA"))


@pytest.mark.parametrize(
    "payload, text",
    [
        (b"", "empty payload received, skipping"),
        (b"{", "unable to parse downlink payload"),
        (b"no json", "unable to parse downlink payload"),
        (b"\0", "unable to parse downlink payload"),
        (b"\xff\xfe", "unable to parse downlink payload"),
        (b"null", "unable to parse downlink payload"),
        (GOOD[:-1], "unable to parse downlink payload"),
        (GOOD[: len(GOOD) // 2], "unable to parse downlink payload"),
        (b"[" * 40 + b"]" * 40, "unable to parse downlink payload"),
        (b'{"phyPayload" "AAAA"}', "unable to parse downlink payload"),
        (b'"text"', "failed to deserialize downlink frame"),
        (b"[" + GOOD + b"]", "failed to deserialize downlink frame"),
    ],
    ids=lambda each: repr(each)[:40],
)
@pytest.mark.parametrize("dialect", DIALECTS, ids=str)
def test_a_payload_that_is_no_downlink_is_refused(
    roads: Roads, dialect: Dialect, payload: bytes, text: str
) -> None:
    log = roads(dialect).refused_downlink(payload)
    assert any(text in line for line in log)


@pytest.mark.parametrize(
    "payload", [GOOD + b"\0", GOOD + b" trailing", b" \n" + GOOD], ids=["nul", "text", "blanks"]
)
def test_what_surrounds_a_downlink_is_ignored(roads: Roads, payload: bytes) -> None:
    assert sent_data(roads(NATIVE).downlink(payload).body) == "AAAA"


def test_the_latest_datagram_decides_the_version_of_a_downlink(roads: Roads) -> None:
    road = roads(NATIVE)
    for version in (1, 2, 1):
        road.forwarder.wait_push_ack(road.forwarder.push_data("{}", version))
        assert road.downlink(native_downlink()).version == version
    road.forwarder.tx_ack(b"", version=2)
    road.forwarder.wait_push_ack(road.forwarder.push_data("{}", version=2))
    assert road.downlink(native_downlink()).version == 2


def test_pull_data_from_another_port_moves_the_downlinks(roads: Roads, make_forwarder: MakeForwarder) -> None:
    road = roads(NATIVE)
    other = make_forwarder(road.udp_port)
    other.pull_data()
    road.peer.publish(NATIVE.downlink, GOOD)
    other.wait_pull_resp()
    token = road.forwarder.push_data({"rxpk": [rxpk_v2()]})
    assert road.forwarder.wait_push_ack(token).kind == PUSH_ACK
    mark = other.down.mark()
    road.peer.publish(NATIVE.downlink, GOOD)
    other.wait_pull_resp(after=mark)
    road.forwarder.pull_data()
    assert road.downlink(GOOD).kind == PULL_RESP


def test_replies_go_to_the_last_sender_of_two_hosts(
    own_road: Callable[..., Road], make_forwarder: MakeForwarder
) -> None:
    road = own_road(NATIVE).wait_ready()
    first, second = make_forwarder(road.udp_port, "127.0.0.2"), make_forwarder(road.udp_port, "127.0.0.3")
    for each in (first, second, first):
        each.pull_data()
        each.wait_push_ack(each.push_data({"rxpk": [rxpk_v2()]}))
        mark = each.down.mark()
        road.peer.publish(NATIVE.downlink, GOOD)
        each.wait_pull_resp(after=mark)


def test_an_uplink_from_another_host_takes_the_downlinks_along_on_the_old_port(
    own_road: Callable[..., Road], make_forwarder: MakeForwarder
) -> None:
    """One host is remembered for both directions, and a port for each."""
    road = own_road(NATIVE).wait_ready()
    puller = make_forwarder(road.udp_port, "127.0.0.2")
    puller.pull_data()
    pusher = make_forwarder(road.udp_port, "127.0.0.3")
    pusher.wait_push_ack(pusher.push_data("{}"))
    pusher.down.close()
    pusher.down = Socket("127.0.0.3", puller.down.socket.getsockname()[1])
    road.peer.publish(NATIVE.downlink, GOOD)
    assert sent_data(pusher.wait_pull_resp().body) == "AAAA"
    assert [each.kind for each in puller.down.received] == [PULL_ACK]
