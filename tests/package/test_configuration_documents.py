"""The example configuration and the manual pages, held against the daemon itself."""

from __future__ import annotations

import re
import tomllib
from pathlib import Path
from typing import Any

import pytest

from conftest import Package
from contents import DOC, rendered
from scratch import Root, run

pytestmark = pytest.mark.native

SHOWN = re.compile(r"cfg section: \[(\w+) *\], entry: \[(\w+) *\] -> (.*)$")
SETTING = re.compile(r"^#(?=\w+ = )", re.MULTILINE)
LAST = "battery_reporting_period_mins"
# Its default counts as not set: the daemon does not show it.
NOT_SHOWN = {("generic", "status_http_port"): 0}

Values = dict[tuple[str, str], Any]


@pytest.fixture
def example(package: Package) -> str:
    return (package.content / DOC / "examples/bridge.toml").read_text()


def values_of(text: str) -> Values:
    return {
        (section, key): value for section, keys in tomllib.loads(text).items() for key, value in keys.items()
    }


def as_shown(value: Any) -> str:
    return str(int(value)) if isinstance(value, bool) else str(value)


def load(root: Root, package: Package, text: str) -> list[str]:
    """The daemon's log of reading the configuration, and of making use of it until it is stopped."""
    root.copy_in(package.daemon, "/usr/sbin/snv_mqtt_bridge")
    root.write("/etc/snv-mqtt-bridge/bridge.toml", text)
    daemon = root.start("snv_mqtt_bridge", "-c", "/etc/snv-mqtt-bridge/bridge.toml", "-d", "-v", "4")
    daemon.wait_for(LAST)
    assert daemon.stop() == 0, daemon.text()
    return daemon.text().splitlines()


def shown_values(lines: list[str]) -> dict[tuple[str, str], str]:
    return {(match[1], match[2]): match[3] for line in lines if (match := SHOWN.search(line))}


def test_every_key_of_the_daemon_stands_in_the_example(root: Root, package: Package, example: str) -> None:
    whole = SETTING.sub("", example)
    lines = load(root, package, whole)
    assert [
        line for line in lines if "missing in the configuration file" in line or "failed to parse" in line
    ] == []
    expected = {place: as_shown(value) for place, value in values_of(whole).items()}
    assert shown_values(lines) == expected


def without_default(text: str) -> set[tuple[str, str]]:
    """The keys whose comment says so."""
    section = ""
    found: set[tuple[str, str]] = set()
    for paragraph in text.split("\n\n"):
        if head := re.search(r"^\[(\w+)\]$", paragraph, re.MULTILINE):
            section = head[1]
        elif re.match(r"# \w+, (no default|empty by default): ", paragraph):
            found.update((section, key) for key in re.findall(r"^#(\w+) = ", paragraph, re.MULTILINE))
    return found


def test_the_example_shows_the_defaults_of_the_daemon(root: Root, package: Package, example: str) -> None:
    defaults = shown_values(
        load(root, package, example.replace("[geoloc]", '[geoloc]\nurl = "tcp://127.0.0.1:1"'))
    )
    assert defaults.pop(("geoloc", "url")) == "tcp://127.0.0.1:1"
    offered = values_of(SETTING.sub("", example))
    empty = without_default(example)
    assert {place for place, value in defaults.items() if value == "<empty>"} == empty - {
        ("geoloc", "url")
    } | {*NOT_SHOWN}
    assert {place: offered[place] for place in NOT_SHOWN} == NOT_SHOWN
    for place in defaults.keys() - empty - NOT_SHOWN.keys():
        assert as_shown(offered[place]) == defaults[place], place


def test_the_example_wants_nothing_but_a_server(root: Root, package: Package, example: str) -> None:
    root.copy_in(package.daemon, "/usr/sbin/snv_mqtt_bridge")
    root.write("/bridge.toml", example)
    done = root.run("snv_mqtt_bridge", "-c", "/bridge.toml", "-d", check=False)
    assert done.returncode == 255
    assert "no endpoints are enabled, check your configuration\n" in done.stderr


def test_every_key_stands_in_the_manual_page(package: Package, example: str) -> None:
    page = rendered(package.content / "usr/share/man/man5/snv_mqtt_bridge.toml.5.gz")
    keys = page.partition("\nKEYS\n")[2].partition("\nVALUES\n")[0]
    sections = re.split(r"^   \[(\w+)\].*$", keys, flags=re.MULTILINE)[1:]
    found = {
        (section, match[1])
        for section, text in zip(sections[::2], sections[1::2])
        for match in re.finditer(
            r"^       (\w+) \((text|bool|unsigned), (required|default .*)\)$", text, re.MULTILINE
        )
    }
    assert found == set(values_of(SETTING.sub("", example)))


def test_every_option_stands_in_the_manual_page(package: Package) -> None:
    page = rendered(package.content / "usr/share/man/man8/snv_mqtt_bridge.8.gz")
    told = set(re.findall(r"--?[\w?-]+", page.partition("\nOPTIONS\n")[2].partition("\nSIGNALS\n")[0]))
    lines = run(package.daemon, "--help").stdout.splitlines()
    options = {
        word
        for line in lines
        if line.startswith("  ")
        for word in re.findall(r"(?<!\S)--?[\w?-]+", line[:29])
    }
    assert len(options) > 15
    assert options - told == set()
