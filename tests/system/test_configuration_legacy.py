"""The deprecated flat configuration, read by a whole daemon: what it starts with, and what ends it."""

import json
import re
from pathlib import Path
from typing import Callable

import pytest

from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import GW_MAC, next_client_id
from harness.dialects import V3
from harness.forwarder import Forwarder
from harness.mqtt_peer import MqttPeer
from harness.ports import free_port
from harness.samples import rxpk_v2

RunBridge = Callable[..., Bridge]
ReadConf = Callable[..., Bridge]

NO_ENDPOINTS = 255  # a configuration without servers is read whole, and then ends the process
LOCATION = {"locpk": [{"lat": 46.24, "lon": 3.25}]}


def conf_text(*pairs: tuple[str, object]) -> str:
    """The identity of a gateway, and further keys in their order."""
    identity = (("client_id", next_client_id()), ("gateway_mac", GW_MAC))
    return "".join(f"{key} {value}\n" for key, value in identity + pairs)


@pytest.fixture
def run_conf(tmp_path: Path, run_bridge: RunBridge) -> ReadConf:
    def run(text: str, *arguments: str) -> Bridge:
        (tmp_path / "bridge.conf").write_text(text)
        return run_bridge("-c", "bridge.conf", "-d", "-v", "4", *arguments)

    return run


def complaints(bridge: Bridge) -> list[str]:
    return [
        re.sub(r"^.*\[(WARN|ERROR) *\] \S+ ", r"\1 ", line)
        for line in bridge.log.find(re.compile(r"\[(WARN  |ERROR )\]"))
    ]


def dumped(bridge: Bridge) -> dict[str, str]:
    found = (re.search(r"cfg entry: \[(\w+) *\] -> (.*)$", line) for line in bridge.log.lines)
    return {match.group(1): match.group(2) for match in found if match}


def test_file_is_told_to_be_deprecated_and_read(run_conf: ReadConf) -> None:
    bridge = run_conf(conf_text())
    assert bridge.wait_exit() == NO_ENDPOINTS
    assert bridge.log.find("[DEBUG ] bridge_config.cpp")[0].endswith("detected deprecated configuration file")
    assert len(dumped(bridge)) == 29
    assert not bridge.log.find("cfg section")


def test_bad_lines_cost_warnings_and_not_the_start(run_conf: ReadConf) -> None:
    lines = "# comment\nns_hosts tcp://a\nstatus_http_port 70000\ngw_user\nmqtt_keepalive_interval fast\n"
    bridge = run_conf(lines + conf_text())
    assert bridge.wait_exit() == NO_ENDPOINTS
    assert complaints(bridge)[:-2] == [
        "WARN unknown config key: ns_hosts at line 2",
        "WARN invalid value given for port: 70000",
        "WARN cannot parse value for status_http_port at line 3",
        "WARN unknown config key: status_http_port at line 3",
        "WARN skipping ill-formed line at 4",
        "WARN config value fast cannot be converted to valid int",
        "WARN cannot parse value for mqtt_keepalive_interval at line 5",
        "WARN unknown config key: mqtt_keepalive_interval at line 5",
    ]
    assert dumped(bridge)["status_http_port"] == "<empty>"
    assert dumped(bridge)["mqtt_keepalive_interval"] == "60"


def test_secrets_do_not_reach_the_log(run_conf: ReadConf) -> None:
    keys = [
        "gw_user",
        "gw_password",
        "gw_oam_user",
        "gw_oam_password",
        "gw_geoloc_user",
        "gw_geoloc_password",
    ]
    bridge = run_conf(conf_text(*((key, f"hidden-{key}") for key in keys)))
    assert bridge.wait_exit() == NO_ENDPOINTS
    assert {dumped(bridge)[key] for key in keys} == {"*****"}
    assert not bridge.log.find("hidden-")


ENDS = [
    ("# nothing but a comment\n", "missing required configuration value for client_id", True),
    ("client_id gw\n", "missing required configuration value for gateway_mac", True),
    (
        "client_id gw\ngateway_mac 01\nmqtt_keepalive_interval 0\n",
        "invalid value for mqtt_keepalive_interval: must be greater than 0",
        False,
    ),
    (
        "client_id gw\ngateway_mac 01\nmqtt_disconnect_timeout 0x0\n",
        "invalid value for mqtt_disconnect_timeout: must be greater than 0",
        False,
    ),
    (
        "client_id gw\ngateway_mac 01\nns_host tcp://127.0.0.1\nns_type Sarnivel\n",
        "invalid NS type: Sarnivel",
        False,
    ),
]


@pytest.mark.parametrize("text, error, told_again", ENDS, ids=[row[1] for row in ENDS])
def test_file_that_cannot_be_used_ends_the_process(
    run_conf: ReadConf, text: str, error: str, told_again: bool
) -> None:
    bridge = run_conf(text)
    assert bridge.wait_exit() == 1
    again = ["ERROR failed to process configuration file"] if told_again else []
    assert complaints(bridge) == [f"ERROR {error}", *again]


def test_file_that_is_not_there_ends_the_process(run_bridge: RunBridge) -> None:
    bridge = run_bridge("-c", "absent.conf", "-d", "-v", "4")
    assert bridge.wait_exit() == 1
    assert complaints(bridge) == [
        "ERROR Failed to open configuration file",
        "ERROR failed to process configuration file",
    ]


def test_mac_follows_the_dialect(run_conf: ReadConf, broker: Mosquitto) -> None:
    bridge = run_conf(conf_text(("ns_host", broker.url), ("ns_type", V3.ns_type)))
    bridge.wait_for_log(f"subscribing to downlink topic: {V3.downlink}")


@pytest.mark.parametrize("arguments, topics", [((), {"up", "position"}), (("--no-udp",), {"position"})])
def test_traffic_passes_by_a_flat_file(
    run_conf: ReadConf,
    broker: Mosquitto,
    make_peer: Callable[..., MqttPeer],
    make_forwarder: Callable[..., Forwarder],
    arguments: tuple[str, ...],
    topics: set[str],
) -> None:
    udp_port = free_port()
    peer = make_peer(broker, "#")
    bridge = run_conf(
        conf_text(
            ("ns_host", broker.url),
            ("ns_type", V3.ns_type),
            ("semtech_udp_listen_port", udp_port),
            ("geoloc_host", f"{broker.url}  # the same server"),
            ("ns_skip_secure_cert", 1),
            ("gw_geoloc_skip_secure_cert", 1),
            ("geoloc_topic", "position"),
        ),
        *arguments,
    )
    bridge.wait_for_log("UDP bridge is connected to geoloc")
    forwarder = make_forwarder(udp_port)
    forwarder.pull_data()
    forwarder.wait_push_ack(forwarder.push_data({"rxpk": [rxpk_v2()], **LOCATION}))
    position = peer.wait_for(lambda message: message.topic == "position")
    assert json.loads(position.payload) == LOCATION["locpk"]
    assert {message.topic.rsplit("/", 1)[-1] for message in peer.messages} == topics


def test_geolocation_flag_behind_the_topic_takes_the_topic_away(
    run_conf: ReadConf, broker: Mosquitto, make_forwarder: Callable[..., Forwarder]
) -> None:
    """The flag is written at the width of a number, over the topic's first characters. A server closes the
    connection on a message without a topic."""
    udp_port = free_port()
    bridge = run_conf(
        conf_text(
            ("semtech_udp_listen_port", udp_port),
            ("geoloc_host", broker.url),
            ("geoloc_topic", "position"),
            ("gw_geoloc_skip_secure_cert", 0),
        )
    )
    bridge.wait_for_log("UDP bridge is connected to geoloc")
    assert dumped(bridge)["geoloc_topic"] == ""
    make_forwarder(udp_port).push_data(LOCATION)
    bridge.wait_for_log("Publish to: , message body: [{")
    bridge.wait_for_log("mqtt connection lost")
