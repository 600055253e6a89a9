"""A server that is slow to acknowledge, or falls silent: what waits, what goes on, and what ends the wait."""
import itertools
import json
from typing import Any, Callable

import pytest

from conftest import Cleanup
from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import CONTROL_OFF, ControlPlane
from harness.control import CAPABILITIES
from harness.dialects import NATIVE
from harness.forwarder import PULL_RESP, Forwarder, body_bytes
from harness.mqtt_peer import Message
from harness.ports import free_port
from harness.road import Road
from harness.samples import LONGEST_TEXT, native_downlink, native_downlink_of_text_length, rxpk_v2
from harness.scripted_server import PINGREQ, ScriptedServer
from management_services import Upgrades, capabilities

IN_FLIGHT = 10
PIPE_SLOTS = 16  # of 4096 bytes, in a pipe of 64 KiB
QUEUE_SLOTS = 128
FLOOD = QUEUE_SLOTS + 1000

_numbers = itertools.count()


class Rig:
    """The daemon between a forwarder and a scripted server."""

    def __init__(
        self,
        run_config: Callable[..., Bridge],
        cleanup: Cleanup,
        keepalive: int = 60,
        control: ControlPlane = CONTROL_OFF,
        **sections: Any,
    ) -> None:
        self.server = ScriptedServer()
        cleanup.add(self.server)
        port = free_port()
        generic = {"mqtt_keepalive_interval": keepalive}
        changes = {"ns": {"url": self.server.url}, "generic": generic, **sections}
        self.bridge = run_config(port, changes, control=control)
        self.forwarder = Forwarder(port)
        cleanup.add(self.forwarder)
        self.bridge.wait_connected()
        self.forwarder.pull_data()

    def uplinks(self, count: int) -> list[int]:
        return [self.forwarder.push_data({"rxpk": [rxpk_v2(tmst=next(_numbers))]}) for _ in range(count)]

    def hold_the_worker(self) -> list[int]:
        """More uplinks than may be in flight, with no acknowledgement: the worker waits in its publish."""
        self.server.script.acknowledges = False
        tokens = self.uplinks(IN_FLIGHT + 1)
        self.server.wait_for_messages(IN_FLIGHT)
        self.bridge.wait_for_log("Publish to: gateway/rx", count=IN_FLIGHT + 1)
        return tokens

    def fill_the_pipe(self) -> None:
        """And the handler waits with one more, the queue behind it with another."""
        for number in range(PIPE_SLOTS + 2):
            self.server.publish(NATIVE.downlink, full_downlink(number))
        self.bridge.wait_for_log("bytes written to pipe: [4096]", count=PIPE_SLOTS)

    def wait_acknowledged(self, tokens: list[int]) -> None:
        for token in tokens:
            self.forwarder.wait_push_ack(token)


def full_downlink(number: int) -> bytes:
    """Its datagram fills the pipe's buffer to the byte."""
    return body_bytes(native_downlink_of_text_length(start=f"{number:06d}"))


def sent_numbers(forwarder: Forwarder) -> list[int]:
    sent = [each for each in forwarder.down.received if each.kind == PULL_RESP]
    assert {len(each.raw) for each in sent} == {4 + LONGEST_TEXT + 1}
    return [int(each.body.split(b'"data":"')[1][:6]) for each in sent]


def test_a_handler_that_waits_holds_up_no_acknowledgement(
    run_config: Callable[..., Bridge], cleanup: Cleanup
) -> None:
    rig = Rig(run_config, cleanup)
    tokens = rig.hold_the_worker()
    rig.fill_the_pipe()
    rig.bridge.wait_for_log("received a publish on topic: gateway/tx", count=PIPE_SLOTS + 2)
    assert len(rig.bridge.log.find("bytes written to pipe")) == PIPE_SLOTS, "the handler waits for room"
    rig.server.release()
    rig.wait_acknowledged(tokens)
    rig.server.wait_for_messages(IN_FLIGHT + 1)
    rig.forwarder.wait_pull_resp(count=PIPE_SLOTS + 2)
    assert sent_numbers(rig.forwarder) == list(range(PIPE_SLOTS + 2))


def test_a_flood_of_downlinks_beyond_the_queue_ends_in_order(
    run_config: Callable[..., Bridge], cleanup: Cleanup
) -> None:
    rig = Rig(run_config, cleanup)
    tokens = rig.hold_the_worker()
    count = QUEUE_SLOTS + PIPE_SLOTS + 16
    for number in range(count):
        rig.server.publish(NATIVE.downlink, full_downlink(number))
    rig.server.release()
    rig.wait_acknowledged(tokens)
    rig.forwarder.wait_pull_resp(count=count)
    assert sent_numbers(rig.forwarder) == list(range(count))


def test_acknowledgements_come_through_behind_a_flood(
    run_config: Callable[..., Bridge], cleanup: Cleanup
) -> None:
    """The worker waits for them, and the handlers for the worker."""
    rig = Rig(run_config, cleanup)
    tokens = rig.hold_the_worker()
    rig.fill_the_pipe()
    for _ in range(FLOOD):
        rig.server.publish(NATIVE.downlink, b"{}")
    rig.server.release()
    rig.wait_acknowledged(tokens)
    rig.forwarder.wait_pull_resp(count=PIPE_SLOTS + 2)
    received = "received a publish on topic: gateway/tx"
    rig.bridge.wait_for_log(received, count=PIPE_SLOTS + 2 + FLOOD)


def test_a_subscription_is_answered_behind_messages_that_wait_for_its_end(
    run_config: Callable[..., Bridge], cleanup: Cleanup, control_plane: ControlPlane
) -> None:
    """The handler needs the lock of the service that subscribes."""
    rig = Rig(run_config, cleanup, control=control_plane)
    rig.bridge.wait_for_log("ctrlplane is started")
    rig.server.script.answers_subscriptions = False
    rig.server.publish(CAPABILITIES, capabilities("bulk_upgr"))
    rig.bridge.wait_for_log(f"subscribing for [{Upgrades.desired}] topic")
    for _ in range(FLOOD):
        rig.server.publish(Upgrades.desired, b"{}")
    rig.server.release()
    rig.bridge.wait_for_log("bulk upgrade subscription succeeded")
    rig.bridge.wait_for_log("Update ts is missing", count=FLOOD)


def test_downlinks_that_meet_in_the_pipe_leave_one_by_one(
    run_config: Callable[..., Bridge], cleanup: Cleanup
) -> None:
    rig = Rig(run_config, cleanup)
    rig.hold_the_worker()
    payloads = [f"DATA{number}" for number in range(8)]
    for data in payloads:
        rig.server.publish(NATIVE.downlink, body_bytes(native_downlink(data=data)))
    rig.bridge.wait_for_log("bytes written to pipe", count=len(payloads))
    rig.server.release()
    rig.forwarder.wait_pull_resp(count=len(payloads))
    sent = [
        json.loads(each.body.rstrip(b"\0")) for each in rig.forwarder.down.received if each.kind == PULL_RESP
    ]
    assert [each["txpk"]["data"] for each in sent] == payloads


def test_ten_uplinks_are_in_flight_and_the_eleventh_waits(
    run_config: Callable[..., Bridge], cleanup: Cleanup
) -> None:
    rig = Rig(run_config, cleanup, keepalive=1)
    tokens = rig.hold_the_worker()
    rig.server.wait_for_packet(PINGREQ, after=len(rig.server.packets))  # the client has had time for another
    assert len(rig.server.messages) == IN_FLIGHT
    rig.wait_acknowledged(tokens[:IN_FLIGHT])
    rig.server.release()
    rig.wait_acknowledged(tokens)
    published: list[Message] = rig.server.wait_for_messages(IN_FLIGHT + 1)
    stamps = [message.text.split('"timestamp":')[1] for message in published]
    assert stamps == sorted(stamps, key=lambda stamp: int(stamp.rstrip("}"))) and len(set(stamps)) == len(
        stamps
    )


@pytest.mark.parametrize("falls_silent", [False, True], ids=["closed", "silent"])
def test_a_lost_connection_ends_the_wait_of_a_publish(
    run_config: Callable[..., Bridge], cleanup: Cleanup, falls_silent: bool
) -> None:
    rig = Rig(run_config, cleanup, keepalive=1)
    tokens = rig.hold_the_worker()
    if falls_silent:
        rig.server.script.answers_pings = False
    else:
        rig.server.drop()
    rig.bridge.wait_for_log("mqtt connection lost")
    rig.bridge.wait_for_log("can't publish a message to the endpoint: [0] with error: ")
    rig.bridge.wait_for_log("send to NS has failed: initiating service restart")
    later = rig.forwarder.push_data("{}")
    rig.forwarder.wait_push_ack(later)
    assert tokens[-1] not in [ack.token for ack in rig.forwarder.up.received]


def test_uplinks_to_a_halted_server_go_out_when_it_goes_on(own_road: Callable[..., Road]) -> None:
    road = own_road(NATIVE).wait_ready()
    mark = road.peer.mark()
    road.broker.pause()
    try:
        tokens = [road.forwarder.push_data({"rxpk": [rxpk_v2(data=f"held{number}")]}) for number in range(30)]
        for token in tokens[:IN_FLIGHT]:
            road.forwarder.wait_push_ack(token)
    finally:
        road.broker.resume()
    for token in tokens:
        road.forwarder.wait_push_ack(token)
    road.peer.wait_for(lambda message: '"held29"' in message.text, after=mark)
    texts = [message.text for message in road.peer.since(mark)]
    assert [f'"held{number}"' in text for number, text in enumerate(texts)] == [True] * 30


@pytest.mark.waits_long
def test_a_restart_while_the_worker_and_a_handler_wait_comes_through(
    run_config: Callable[..., Bridge],
    cleanup: Cleanup,
    make_broker: Callable[..., Mosquitto],
    control_plane: ControlPlane,
) -> None:
    """The lost connection of another server asks for the restart; the pipe is full, the worker busy."""
    broker, oam = make_broker(), make_broker()
    servers = {"geoloc": {"url": broker.url}, "oam": {"url": oam.url}}
    rig = Rig(run_config, cleanup, control=control_plane, **servers)
    rig.bridge.wait_for_log("UDP bridge is connected to geoloc")
    rig.hold_the_worker()
    for number in range(PIPE_SLOTS + 2):
        rig.server.publish(NATIVE.downlink, full_downlink(number))
    rig.bridge.wait_for_log("bytes written to pipe: [4096]", count=PIPE_SLOTS)
    broker.kill()
    rig.bridge.wait_for_log("ctrlplane restart requested")
    rig.bridge.wait_for_log("stopping capabilities service")
    assert not rig.bridge.log.find("ctrlplane deinit complete"), "one publish holds up all endpoints"
    rig.server.release()
    rig.bridge.wait_for_log("ctrlplane deinit complete")
    rig.bridge.wait_for_log("UDP bridge is deinitialized")
    rig.bridge.wait_connected(timeout=40, after=rig.bridge.log.mark())
