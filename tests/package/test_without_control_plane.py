"""A gateway without control plane: the daemon as an ordinary user, and a new start after a lost server."""

from __future__ import annotations

import pytest

from conftest import Package
from gateway import CHIRPSTACK, EXAMPLE, Gateway, configure, install
from scratch import REPOSITORY, Machine, Root, wait_until

pytestmark = pytest.mark.native

SERVICE = "snv-mqtt-bridge.service"
WATCH = "snv-mqtt-bridge-watch.service"
UNITS = "/etc/systemd/system"


@pytest.fixture
def machine(root: Root, package: Package) -> Machine:
    machine = root.boot()
    install(machine, root, package.path)
    machine.run("mkdir", f"{UNITS}/{SERVICE}.d")
    machine.run("cp", f"{EXAMPLE}/without-control-plane.conf", f"{UNITS}/{SERVICE}.d")
    machine.run("cp", f"{EXAMPLE}/{WATCH}", UNITS)
    machine.run("systemctl", "daemon-reload")
    machine.run("systemctl", "enable", WATCH)
    configure(root, CHIRPSTACK)
    return machine


def status_of(machine: Machine) -> dict[str, str]:
    lines = machine.run("cat", f"/proc/{machine.pid()}/status").stdout.splitlines()
    return dict(line.split(":\t", 1) for line in lines)


def test_it_needs_nothing_of_root_and_survives_its_server(machine: Machine, root: Root) -> None:
    gateway = Gateway(machine, root)
    machine.run("systemctl", "start", SERVICE)
    gateway.wait_connected()
    status = status_of(machine)
    assert "0" not in status["Uid"].split() + status["Gid"].split()
    assert {status[f"Cap{name}"] for name in ("Prm", "Eff", "Bnd", "Amb")} == {16 * "0"}
    assert gateway.hears_an_uplink()
    exposure = machine.run("systemd-analyze", "security", "--no-pager", SERVICE).stdout.splitlines()[-1]
    told = exposure.split(": ")[1].split()[0]
    assert (
        f"(`systemd-analyze security` of the service: {told})"
        in (REPOSITORY / "docs/installing.md").read_text()
    )

    first = machine.pid()
    machine.run("systemctl", "restart", "mosquitto.service")
    gateway.wait_connected()
    assert machine.pid() not in (0, first)
    wait_until(
        lambda: machine.run("systemctl", "is-active", WATCH, check=False).stdout == "active\n",
        "it watches on",
    )
    assert gateway.hears_an_uplink()

    machine.run("systemctl", "stop", SERVICE)
    assert machine.show("Result", "ExecMainStatus") == {"Result": "success", "ExecMainStatus": "0"}
    assert machine.run("systemctl", "is-active", WATCH, check=False).stdout == "inactive\n"


def test_the_units_are_correct(machine: Machine) -> None:
    done = machine.run("systemd-analyze", "verify", SERVICE, WATCH)
    assert (done.stdout, done.stderr) == ("", "")
