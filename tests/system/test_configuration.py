"""The configuration file: defaults, conversions, what is refused, and which services follow from it."""
import re
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.bridge import Bridge
from harness.broker import Mosquitto
from harness.config import CONTROL_AS_CONFIGURED, ControlPlane, Sections, gateway_config, toml_text
from harness.control import control_on
from harness.lab import LabAgent
from harness.ports import free_port

RunBridge = Callable[..., Bridge]
RunConfig = Callable[..., Bridge]

NO_ENDPOINTS = 255  # a configuration without servers is read whole, and then ends the process


def dumped(bridge: Bridge) -> dict[tuple[str, str], str]:
    """The values that the daemon says it has read."""
    pattern = re.compile(r"cfg section: \[(.{8,})\], entry: \[(.{23,})\] -> (.*)$")
    found = [match.groups() for line in bridge.log.lines if (match := pattern.search(line))]
    return {(section.strip(), key.strip()): value for section, key, value in found}


@pytest.fixture
def read_config(run_config: RunConfig) -> Callable[[Sections], dict[tuple[str, str], str]]:
    def read(changes: Sections) -> dict[tuple[str, str], str]:
        bridge = run_config(1780, changes, control=CONTROL_AS_CONFIGURED)
        assert bridge.wait_exit() == NO_ENDPOINTS
        return dumped(bridge)

    return read


DEFAULTS = {
    ("ns", "url"): "<empty>",
    ("ns", "type"): "sarnivel",
    ("ns", "gw_user"): "<empty>",
    ("ns", "gw_pass"): "<empty>",
    ("ns", "skip_secure_cert"): "0",
    ("oam", "url"): "<empty>",
    ("oam", "gw_user"): "<empty>",
    ("oam", "gw_pass"): "<empty>",
    ("oam", "skip_secure_cert"): "0",
    ("geoloc", "url"): "<empty>",
    ("geoloc", "gw_user"): "<empty>",
    ("geoloc", "gw_pass"): "<empty>",
    ("geoloc", "skip_secure_cert"): "0",
    ("geoloc", "topic"): "gateway/geoloc",
    ("snmp", "agent_addr"): "127.0.0.1",
    ("snmp", "community"): "<empty>",
    ("snmp", "mib_dir"): "/usr/share/snmp/mibs",
    ("snmp", "trap_transport"): "udp:1800",
    ("rev_ssh", "local_port"): "22",
    ("rev_ssh", "timeout"): "300",
    ("security", "private_key"): "<empty>",
    ("security", "bridge_cert"): "<empty>",
    ("generic", "client_id"): "gw",
    ("generic", "gw_mac"): "0a",
    ("generic", "status_http_port"): "<empty>",
    ("generic", "semtech_udp_listen_port"): "1780",
    ("generic", "state_dir"): "/var/lib/sarnivel-mqtt-bridge/",
    ("generic", "mqtt_disconnect_timeout"): "10000",
    ("generic", "mqtt_keepalive_interval"): "60",
    ("generic", "gw_events_interval"): "30",
    ("performance_management", "battery_reporting_period_mins"): "<empty>",
}


def test_every_value_has_its_default_and_is_dumped_in_order(
    read_config: Callable[[Sections], dict[tuple[str, str], str]]
) -> None:
    values = read_config({"generic": {"client_id": "gw", "gw_mac": "0a", "semtech_udp_listen_port": None}})
    assert values == DEFAULTS
    assert list(values) == list(DEFAULTS)


CONVERSIONS = [
    ("ns", "type", "t" * 40, "t" * 31),
    ("ns", "gw_user", "u" * 100, "u" * 63),
    ("geoloc", "topic", "x" * 300, "x" * 255),
    ("snmp", "agent_addr", "a" * 31, "a" * 31),
    ("generic", "client_id", "c" * 32, "c" * 31),
    ("generic", "gw_mac", "", ""),
    ("ns", "gw_pass", "in the clear", "in the clear"),
    ("ns", "skip_secure_cert", True, "1"),
    ("rev_ssh", "timeout", 4294967295, "4294967295"),
    ("rev_ssh", "timeout", 4294967296 + 7, "7"),
    ("rev_ssh", "local_port", 0, "0"),
    ("generic", "status_http_port", 0, "0"),
    ("performance_management", "battery_reporting_period_mins", 5, "5"),
]


@pytest.mark.parametrize("section, key, written, value", CONVERSIONS, ids=lambda each: str(each)[:20])
def test_a_value_is_stored_in_the_size_of_its_field(
    read_config: Callable[[Sections], dict[tuple[str, str], str]],
    section: str,
    key: str,
    written: Any,
    value: str,
) -> None:
    assert read_config({section: {key: written}})[(section, key)] == value


REFUSED = [
    (
        {"rev_ssh": {"timeout": -1}},
        ["expected unsigned type for timeout configuration entry", "failed to parse parameter: timeout"],
    ),
    (
        {"rev_ssh": {"timeout": "x"}},
        ["failed to convert timeout config parameter into integer", "failed to parse parameter: timeout"],
    ),
    ({"rev_ssh": {"timeout": 1.5}}, ["failed to convert timeout config parameter into integer"]),
    (
        {"ns": {"skip_secure_cert": "yes"}},
        [
            "failed to convert skip_secure_cert config parameter into boolean",
            "failed to parse parameter: skip_secure_cert",
        ],
    ),
    ({"ns": {"skip_secure_cert": 1}}, ["failed to convert skip_secure_cert config parameter into boolean"]),
    (
        {"generic": {"client_id": 5}},
        ["failed to allocate TOML string for parameter: client_id", "failed to parse parameter: client_id"],
    ),
    ({"generic": {"client_id": None}}, ["missing configuration value for client_id in section: generic"]),
    ({"generic": {"gw_mac": None}}, ["missing configuration value for gw_mac in section: generic"]),
    ({"ns": {"url": "tcp://127.0.0.1", "type": "Sarnivel"}}, ["invalid NS type: Sarnivel"]),
    ({"ns": {"url": "tcp://127.0.0.1", "type": ""}}, ["invalid NS type: "]),
    (
        {"generic": {"mqtt_keepalive_interval": 0}},
        ["invalid value for mqtt_keepalive_interval: must be greater than 0"],
    ),
    (
        {"generic": {"mqtt_keepalive_interval": 4294967296}},
        ["invalid value for mqtt_keepalive_interval: must be greater than 0"],
    ),
    (
        {"generic": {"mqtt_disconnect_timeout": 0}},
        ["invalid value for mqtt_disconnect_timeout: must be greater than 0"],
    ),
]


@pytest.mark.parametrize("changes, texts", REFUSED, ids=lambda each: str(each)[:60])
def test_a_bad_value_ends_the_process(run_config: RunConfig, changes: Sections, texts: list[str]) -> None:
    bridge = run_config(1780, changes)
    assert bridge.wait_exit() == 1
    said = [line.split("] ")[-1].split(" ", 1)[1] for line in bridge.log.find("[ERROR ]")]
    assert said[: len(texts)] == texts
    exits_at_once = texts[0].startswith("invalid")
    assert bool(bridge.log.find("failed to process configuration file")) != exits_at_once


@pytest.mark.parametrize(
    "name", ["bridge.TOML", "bridge.Toml", "bridge.toml.bak", "bridge", "bridge.CONF", "toml"]
)
def test_a_file_of_another_name_is_not_recognised(run_bridge: RunBridge, tmp_path: Path, name: str) -> None:
    (tmp_path / name).write_text(toml_text(gateway_config(1780)))
    bridge = run_bridge("-c", name, "-d", "-v", "4")
    assert bridge.wait_exit() == 1
    assert bridge.log.find("unrecognized configuration file type")
    assert bridge.log.find("failed to process configuration file")


@pytest.mark.parametrize("name", ["bridge.toml", ".toml", "a.conf.toml", "./bridge.toml"])
def test_the_name_alone_decides_the_form(run_bridge: RunBridge, tmp_path: Path, name: str) -> None:
    (tmp_path / name).write_text(toml_text(gateway_config(1780)))
    bridge = run_bridge("-c", name, "-d", "-v", "4")
    assert bridge.wait_exit() == NO_ENDPOINTS
    assert bridge.log.find("detected TOML configuration file")
    assert bridge.log.find(f"processing configuration file: {name}")


@pytest.mark.parametrize(
    "text", ["[ns", "a = ", "= 1", '[ns]\nurl = "x', '[ns]\nurl = "a"\nurl = "b"', "\0"], ids=repr
)
def test_a_file_that_is_no_toml_is_refused(run_bridge: RunBridge, tmp_path: Path, text: str) -> None:
    (tmp_path / "bridge.toml").write_text(text)
    bridge = run_bridge("-c", "bridge.toml", "-d", "-v", "4")
    assert bridge.wait_exit() == 1
    assert bridge.log.find(re.compile("failed to parse configuration file: ."))


def test_a_file_that_cannot_be_opened_is_refused(run_bridge: RunBridge) -> None:
    bridge = run_bridge("-c", "absent.toml", "-d", "-v", "4")
    assert bridge.wait_exit() == 1
    assert bridge.log.find("failed to open configuration file")


def test_missing_sections_and_keys_are_no_failure(run_config: RunConfig) -> None:
    bridge = run_config(1780)
    assert bridge.wait_exit() == NO_ENDPOINTS
    assert bridge.log.find("section ns is missing in the configuration file")
    assert bridge.log.find("parameter state_dir is missing in the configuration file")
    assert not bridge.log.find("parameter url is missing")


@pytest.mark.parametrize(
    "changes, arguments",
    [
        ({}, ()),
        ({"ns": {"url": "tcp://127.0.0.1"}}, ("--no-udp",)),
        ({"oam": {"url": "tcp://127.0.0.1"}}, ("--no-snmp",)),
        ({"ns": {"type": "nonsense"}}, ()),
        ({"ns": {"url": "tcp://127.0.0.1", "type": "nonsense"}}, ("--no-udp",)),
    ],
    ids=str,
)
def test_a_configuration_without_any_endpoint_is_refused(
    run_config: RunConfig, changes: Sections, arguments: tuple[str, ...]
) -> None:
    bridge = run_config(free_port(), changes, *arguments, control=CONTROL_AS_CONFIGURED)
    assert bridge.wait_exit() == NO_ENDPOINTS
    assert bridge.log.find("no endpoints are enabled, check your configuration")
    assert bridge.log.find("cannot initialize MQTT subsystem, aborting...")


SHARED = "using Sarnivel NS credentials for OA&M functionality"
DEFERRED = "OA&M is enabled: deffering all other services until O&AM connection is established"


@pytest.mark.parametrize(
    "ns_type, own_oam, arguments, shared, control_plane",
    [
        ("sarnivel", False, (), True, True),
        ("sarnivel", False, ("--no-snmp",), True, True),  # the option does not reach shared credentials
        ("sarnivel", True, (), False, True),
        ("sarnivel", True, ("--no-snmp",), False, False),
        ("chirpstack", False, (), False, False),
        ("chirpstack_v2", False, (), False, False),
        ("chirpstack", True, (), False, True),
        ("chirpstack", True, ("--no-snmp",), False, False),
    ],
)
def test_which_settings_switch_the_control_plane_on(
    run_config: RunConfig,
    make_broker: Callable[..., Mosquitto],
    agent: LabAgent,
    ns_type: str,
    own_oam: bool,
    arguments: tuple[str, ...],
    shared: bool,
    control_plane: bool,
) -> None:
    changes: Sections = {"ns": {"url": make_broker().url, "type": ns_type}}
    if own_oam:
        changes["oam"] = {"url": make_broker().url, "gw_user": "other"}
    bridge = run_config(free_port(), changes, *arguments, control=control_on(agent.address))
    bridge.wait_connected()
    assert bool(bridge.log.find(SHARED)) == shared
    assert bool(bridge.log.find(DEFERRED)) == control_plane
    assert bool(bridge.log.find("ctrlplane is started")) == control_plane


@pytest.mark.parametrize(
    "ns_type, written, used",
    [
        ("chirpstack", "0A0B0C0D0E0F1A1B", "gateway/0a0b0c0d0e0f1a1b/command/down"),
        ("chirpstack", "0a0b", "gateway/0a0b/command/down"),
        ("vellmar", "0A0B", "gateway/0a0b/command/down"),
        ("chirpstack_v2", "0A0B", "gateway/0a0b/tx"),
        ("vellmar_v2", "0A-0B", "gateway/0a-0b/tx"),
        ("sarnivel", "0A0B", "gateway/tx"),
        ("chirpstack_v2", "A" * 80, "gateway/" + "a" * 31 + "/tx"),
    ],
    ids=lambda each: each[:20],
)
def test_topics_carry_the_gateway_mac_in_lower_case(
    run_config: RunConfig, broker: Mosquitto, ns_type: str, written: str, used: str
) -> None:
    bridge = run_config(
        free_port(), {"ns": {"url": broker.url, "type": ns_type}, "generic": {"gw_mac": written}}
    )
    line = bridge.wait_for_log("subscribing to downlink topic: ")
    assert line.endswith(f": {used}")
    bridge.wait_connected()
