"""The service under a systemd of its own, in a container."""

from __future__ import annotations

import os
from typing import Callable, Iterator

import pytest

from conftest import Package
from gateway import CHIRPSTACK, CONFIGURATION, EXAMPLE, Gateway, configure, install
from scratch import REPOSITORY, Daemon, Machine, Root, wait_until

pytestmark = pytest.mark.native

SERVICE = "snv-mqtt-bridge.service"
STATE = ("ActiveState", "SubState", "Result", "ExecMainCode", "ExecMainStatus")


@pytest.fixture(scope="module")
def root(make_root: Callable[[], Root]) -> Root:
    return make_root()


@pytest.fixture(scope="module")
def installed(root: Root, package: Package) -> Machine:
    machine = root.boot()
    install(machine, root, package.path)
    return machine


@pytest.fixture
def machine(installed: Machine, root: Root) -> Iterator[Machine]:
    """With the package installed, and neither a configuration nor a log."""
    yield installed
    installed.run("systemctl", "stop", SERVICE)
    (root.path / CONFIGURATION.lstrip("/")).unlink(missing_ok=True)
    installed.run("journalctl", "--quiet", "--rotate", "--vacuum-time=1us")


@pytest.fixture
def gateway(machine: Machine, root: Root) -> Gateway:
    return Gateway(machine, root)


def test_waits_quietly_for_its_configuration(machine: Machine) -> None:
    machine.run("systemctl", "start", SERVICE)
    assert machine.show("ActiveState", "ConditionResult") == {
        "ActiveState": "inactive",
        "ConditionResult": "no",
    }
    assert machine.run("systemctl", "is-enabled", SERVICE).stdout == "enabled\n"
    assert machine.run("systemctl", "is-system-running", check=False).stdout == "running\n"


def test_forwards_and_stops_by_its_own_signal(machine: Machine, root: Root, gateway: Gateway) -> None:
    configure(root, CHIRPSTACK)
    machine.run("systemctl", "start", SERVICE)
    gateway.wait_connected()
    assert gateway.hears_an_uplink()
    machine.run("systemctl", "stop", SERVICE)
    assert "bridge is shutting down" in machine.log()
    expected = {"ActiveState": "inactive", "SubState": "dead", "Result": "success"}
    assert machine.show(*STATE) == {**expected, "ExecMainCode": "1", "ExecMainStatus": "0"}


def test_is_started_again_when_it_was_killed(machine: Machine, root: Root, gateway: Gateway) -> None:
    configure(root, CHIRPSTACK)
    machine.run("systemctl", "start", SERVICE)
    gateway.wait_connected()
    machine.run("kill", "-KILL", str(machine.pid()))
    gateway.wait_connected()
    assert machine.show("NRestarts", "ActiveState") == {"NRestarts": "1", "ActiveState": "active"}


def test_is_started_again_when_it_ends_with_status_0(machine: Machine, root: Root, gateway: Gateway) -> None:
    """As after an upgrade that a reboot had interrupted; here by a stop signal that is not the manager's."""
    configure(root, CHIRPSTACK)
    machine.run("systemctl", "start", SERVICE)
    gateway.wait_connected()
    machine.run("kill", "-USR2", str(machine.pid()))
    gateway.wait_connected()
    assert "status=" not in machine.log()


def test_takes_a_corrected_configuration_without_being_told(
    machine: Machine, root: Root, gateway: Gateway
) -> None:
    configure(root, CHIRPSTACK.replace("gw_mac", "gw_mcc"))
    machine.run("systemctl", "start", SERVICE)
    machine.wait_for_log("missing configuration value for gw_mac in section: generic")
    wait_until(lambda: machine.show("SubState")["SubState"] == "auto-restart", "the next start is planned")
    configure(root, CHIRPSTACK)
    gateway.wait_connected()


def test_starts_with_the_filled_in_example_at_the_next_boot(
    make_root: Callable[[], Root], package: Package
) -> None:
    own = make_root()
    own.run("dpkg", "--install", own.copy_in(package.path, "/srv/package.deb"))
    example = (own.path / EXAMPLE.lstrip("/") / "bridge.toml").read_text()
    filled = example.replace('#url = "ssl://server.example:8883"', 'url = "tcp://127.0.0.1:1883"', 1)
    configure(own, filled.replace('#type = "sarnivel"', 'type = "chirpstack"'))
    gateway = Gateway(own.boot(), own)
    gateway.wait_connected()
    assert gateway.hears_an_uplink()


def test_runs_by_hand_and_stops_with_status_0(machine: Machine, root: Root, gateway: Gateway) -> None:
    configure(root, CHIRPSTACK)
    daemon = Daemon(machine.enter("/usr/sbin/snv_mqtt_bridge", "-c", CONFIGURATION, "-d"))
    try:
        gateway.wait_connected()
        assert gateway.hears_an_uplink()
        assert daemon.stop() == 0
    finally:
        daemon.close()


def test_the_unit_is_correct(machine: Machine) -> None:
    done = machine.run("systemd-analyze", "verify", f"/lib/systemd/system/{SERVICE}")
    assert (done.stdout, done.stderr) == ("", "")


def test_the_guide_shows_the_exposure_as_it_is(machine: Machine, root: Root) -> None:
    command = ["systemd-analyze", "security", "--no-pager", "--offline=true"]
    told = machine.run(*command, f"/lib/systemd/system/{SERVICE}").stdout
    guide = (REPOSITORY / "docs/installing.md").read_text()
    assert [line.rstrip() for line in told.strip("\n").splitlines()] == exposure_of(guide)


def exposure_of(guide: str) -> list[str]:
    block = guide.partition("<!-- exposure: begin -->\n```\n")[2].partition("\n```\n<!-- exposure: end -->")[
        0
    ]
    assert block
    return block.splitlines()


def test_old_output_of_scripts_is_removed(machine: Machine, root: Root) -> None:
    logs = root.path / "var/lib/logs"
    days = 86400
    ages = {
        "1700000000-old.sh.txt": 40,
        "1700000000-young.sh.txt": 20,
        "notes.txt": 40,
        "1700000000-x.gz": 40,
    }
    for name, age in ages.items():
        path = logs / name
        path.write_text(name)
        changed = path.stat().st_mtime - age * days
        os.utime(path, (changed, changed))
    # A file is only looked at closely on the day after its first sight.
    rotate = "logrotate --state /run/rotation /etc/logrotate.d/snv-mqtt-bridge"
    machine.run("sh", "-c", f"{rotate} && sed -i -E 's/ 20[0-9]{{2}}-/ 2001-/' /run/rotation && {rotate}")
    assert {path.name for path in logs.iterdir() if path.is_file()} == ages.keys() - {"1700000000-old.sh.txt"}
