"""The command line: what each option says on standard error, and what ends the process."""
import os
import re
from pathlib import Path
from typing import Callable

import pytest

from conftest import Cleanup
from harness.bridge import BINARY, Bridge
from harness.broker import Mosquitto
from harness.config import CONTROL_OFF, gateway_config, merged, write_config
from harness.ports import free_port

RunBridge = Callable[..., Bridge]

USAGE_ERROR = 64  # argp's own exit status


def squeezed(lines: list[str]) -> str:
    """Help texts wrap at the terminal's width."""
    return " ".join(" ".join(lines).split())


def test_without_any_argument_the_help_goes_to_standard_error(run_bridge: RunBridge) -> None:
    bridge = run_bridge()
    assert bridge.wait_exit() == 1
    help_text = squeezed(bridge.log.lines)
    assert re.match(r"Usage: \S*snv_mqtt_bridge \[OPTION\.\.\.\] ", help_text)
    assert "Sarnivel MQTT bridge 1.11.1" in help_text
    assert "-c, --config=FILE" in help_text
    assert bridge.out.lines == []


def test_version(run_bridge: RunBridge) -> None:
    bridge = run_bridge("--version")
    assert bridge.wait_exit() == 0
    assert bridge.out.lines == ["snv_mqtt_bridge 1.11.1"]


HELP_TEXTS = [
    "Sarnivel MQTT bridge 1.11.1",
    "-c, --config=FILE Path to configuration file",
    "-d, --stderr Send log messages to the standard error descriptor instead of syslog. Implies -F.",
    "-F, --foreground <NOT-IMPLEMENTED> Run in foreground, do not daemonize. Logs will be displayed in "
    "standard output",
    "-p, --paranoid <NOT-IMPLEMENTED> Paranoid mode: terminate immediately if configuration file contains "
    "invalid optional values or unknown keys. Running with this flag can break backward compatibility.",
    "-s, --no-snmp Do not run Sarnivel MQTT NS <-> Sarnivel SNMP bridge.",
    "-u, --no-udp Do not run Sarnivel MQTT NS <-> Semtech UDP bridge.",
    "-v, --verbose=LEVEL Logs verbosity level: 0 - ERROR, 1 - WARN, 2 - INFO, 3 - DEBUG, 4 - TRACE",
    "-?, --help",
    "--usage",
    "-V, --version",
]


def test_help_names_every_option(run_bridge: RunBridge) -> None:
    bridge = run_bridge("--help")
    assert bridge.wait_exit() == 0
    help_text = squeezed(bridge.out.lines)
    assert [text for text in HELP_TEXTS if text not in help_text] == []


# Each run ends at the missing configuration file, after the arguments have been parsed.
SPOKEN_OPTIONS = [
    (["-F"], ["foreground mode on"]),
    (["--foreground"], ["foreground mode on"]),
    (["-p"], ["paranoid mode on"]),
    (["--paranoid"], ["paranoid mode on"]),
    (["-u"], ["disabling UDP bridge"]),
    (["--no-udp"], ["disabling UDP bridge"]),
    (["-s"], ["disabling SNMP bridge"]),
    (["--no-snmp"], ["disabling SNMP bridge"]),
    (["-d"], ["logging to stderr is on", "foreground mode on"]),
    (["--stderr"], ["logging to stderr is on", "foreground mode on"]),
    (["-v", "0"], ["log level: 0"]),
    (["-v4"], ["log level: 4"]),
    (["--verbose=3"], ["log level: 3"]),
    (["-v", "3x"], ["log level: 3"]),
    (["-v", "1", "-v", "2"], ["log level: 1", "log level: 2"]),
    (
        ["-us", "-Fp"],
        ["disabling UDP bridge", "disabling SNMP bridge", "foreground mode on", "paranoid mode on"],
    ),
]


@pytest.mark.parametrize("options, spoken", SPOKEN_OPTIONS, ids=lambda value: " ".join(value))
def test_each_option_says_what_it_does(run_bridge: RunBridge, options: list[str], spoken: list[str]) -> None:
    bridge = run_bridge(*options, "-c", "absent.toml")
    assert bridge.wait_exit() == 1
    said = [line for line in bridge.log.lines if not re.match(r"\d{4}-", line)]
    assert said == [*spoken, "cfg file: absent.toml"]


@pytest.mark.parametrize("level", ["5", "-1", "x", "", "x3", "99999999999"])
def test_a_bad_verbosity_is_refused(run_bridge: RunBridge, level: str) -> None:
    bridge = run_bridge("-v", level, "-c", "absent.toml")
    assert bridge.wait_exit() == USAGE_ERROR
    assert bridge.log.lines[0] == f"Invalid log level value: {level}"
    assert "Usage: snv_mqtt_bridge [OPTION...]" in squeezed(bridge.log.lines)


@pytest.mark.parametrize(
    "arguments",
    [["--no-such-option"], ["-x"], ["-c"], ["stray"], ["-c", "a.toml", "b"]],
    ids=lambda value: " ".join(value),
)
def test_what_is_no_option_ends_with_the_usage(run_bridge: RunBridge, arguments: list[str]) -> None:
    bridge = run_bridge(*arguments)
    assert bridge.wait_exit() == USAGE_ERROR
    assert "--help" in squeezed(bridge.log.lines)


@pytest.mark.parametrize(
    "options", [["-d"], ["-d", "-v", "4"], ["-F"], ["-u", "-s"]], ids=lambda value: value[-1]
)
def test_options_without_a_configuration_file_are_refused(run_bridge: RunBridge, options: list[str]) -> None:
    bridge = run_bridge(*options)
    assert bridge.wait_exit() == 1
    assert bridge.log.find("failed to process configuration file") or "-d" not in options
    assert bridge.out.lines == []


def test_standard_descriptors_that_are_closed_lead_nowhere(tmp_path: Path, cleanup: Cleanup) -> None:
    closing = tmp_path / "closing"
    closing.write_text(f'#!/bin/sh\nexec {BINARY} "$@" <&- >&-\n')
    closing.chmod(0o755)
    broker, port = Mosquitto(tmp_path / "broker"), free_port()
    cleanup.add(broker)
    sections = gateway_config(port, merged(CONTROL_OFF.changes, {"ns": {"url": broker.url}}))
    config = write_config(tmp_path / "bridge.toml", sections)
    bridge = Bridge(tmp_path, ["-c", str(config), "-d", "-v", "4", *CONTROL_OFF.arguments], binary=closing)
    cleanup.add(bridge)
    bridge.wait_connected()
    opened = Path(f"/proc/{bridge.process.pid}/fd")
    assert [os.readlink(opened / str(fd)) for fd in (0, 1)] == [os.devnull] * 2
