"""Installing, upgrading, removing and purging, under a running systemd and without one."""

from __future__ import annotations

import re
import shutil
from pathlib import Path
from typing import Callable

import pytest

from conftest import Package
from gateway import CHIRPSTACK, CONFIGURATION, NATIVE, Gateway, configure
from scratch import Machine, Root, run

pytestmark = pytest.mark.native

SERVICE = "snv-mqtt-bridge.service"
STATE = "/var/lib/sarnivel-mqtt-bridge"
SCRIPT = "/usr/share/snv-mqtt-bridge/scripts/own.sh"
ROTATION = "/etc/logrotate.d/snv-mqtt-bridge"
NEXT = "1.11.2"

# The package's tools and the system keep books; so does the SNMP library, for all its users.
BOOKS = re.compile(
    r"/(proc|sys|dev|run|tmp|srv)/|/var/(cache/|tmp/|log/(?!\.snv)|lib/(dpkg|apt|systemd|snmp|man-db)/)"
)


@pytest.fixture(scope="module")
def next_package(package: Package, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The same with a higher version."""
    folder = tmp_path_factory.mktemp("next")
    content = folder / "content"
    shutil.copytree(package.content, content, symlinks=True)
    control = content / "DEBIAN/control"
    control.write_text(re.sub(r"^Version: .*$", f"Version: {NEXT}", control.read_text(), flags=re.MULTILINE))
    path = folder / f"snv-mqtt-bridge_{NEXT}_{package.architecture}.deb"
    run("dpkg-deb", "--root-owner-group", "--build", content, path)
    return path


class Installer:
    """dpkg in a root, with a running systemd or without."""

    def __init__(self, root: Root, machine: Machine | None) -> None:
        self._root, self._machine = root, machine

    def run(self, *command: str | Path) -> str:
        place = self._machine or self._root
        done = place.run(*command)
        assert "warning" not in done.stderr.replace("not empty so not removed", ""), done.stderr
        return done.stdout

    def install(self, package: Path) -> None:
        self.run("dpkg", "--install", self._root.copy_in(package, f"/srv/{package.name}"))

    def remove(self) -> None:
        self.run("dpkg", "--remove", "snv-mqtt-bridge")

    def purge(self) -> None:
        self.run("dpkg", "--purge", "snv-mqtt-bridge")


def files_of(root: Root) -> set[str]:
    paths = {f"/{path.relative_to(root.path)}{'/' if path.is_dir() else ''}" for path in root.path.rglob("*")}
    return {path for path in paths if not BOOKS.match(path)}


def leave_traces(root: Root) -> None:
    """What the operator and the daemon have made."""
    root.write(f"{STATE}/last_sw_status", "state")
    root.write(SCRIPT, "#!/bin/sh\n")
    root.write("/var/lib/logs/.snv_bridge_bkp/forwarder.gz", "log")
    root.write("/var/log/.snv_bridge_bkp.tmst", "")


def content(root: Root, path: str) -> str:
    return (root.path / path.lstrip("/")).read_text()


@pytest.mark.parametrize("is_running", [False, True], ids=["without systemd", "with systemd"])
def test_a_whole_life_keeps_what_is_the_operators_and_leaves_nothing(
    root: Root, package: Package, next_package: Path, is_running: bool
) -> None:
    installer = Installer(root, root.boot() if is_running else None)
    before = files_of(root)
    installer.install(package.path)
    for path, mode in {"/etc/snv-mqtt-bridge": 0o700, STATE: 0o755, "/var/lib/logs": 0o755}.items():
        assert (root.path / path.lstrip("/")).stat().st_mode & 0o777 == mode
    configure(root, CHIRPSTACK)
    leave_traces(root)
    root.write(ROTATION, "# the operator's own\n")

    installer.install(next_package)
    assert NEXT in installer.run("dpkg-query", "--show", "snv-mqtt-bridge")
    kept = {CONFIGURATION: CHIRPSTACK, f"{STATE}/last_sw_status": "state", SCRIPT: "#!/bin/sh\n"}
    kept[ROTATION] = "# the operator's own\n"
    assert {path: content(root, path) for path in kept} == kept

    installer.remove()
    assert {path: content(root, path) for path in kept} == kept
    assert not (root.path / "usr/sbin/snv_mqtt_bridge").exists()

    installer.install(package.path)
    assert {path: content(root, path) for path in kept} == kept

    installer.purge()
    assert files_of(root) - before == set()


def test_a_log_folder_of_the_gateways_stays_as_it_is(root: Root, package: Package) -> None:
    logs = root.path / "var/lib/logs"
    logs.mkdir()
    logs.chmod(0o2775)
    Installer(root, None).install(package.path)
    assert logs.stat().st_mode & 0o7777 == 0o2775
    assert (logs / ".snv_bridge_bkp").is_dir()


def test_nothing_is_left_after_the_daemon_has_run(root: Root, package: Package) -> None:
    machine = root.boot()
    installer = Installer(root, machine)
    before = files_of(root)
    installer.install(package.path)
    configure(root, NATIVE.replace("/opt/lab/mibs", "/usr/share/snmp/mibs"))
    machine.run("systemctl", "start", SERVICE)
    machine.wait_for_log("ctrlplane is started")
    installer.purge()
    assert "snv_mqtt_bridge" not in machine.run("ps", "-eo", "args").stdout
    assert files_of(root) - before == set()
    assert not (Path(f"/proc/{machine.leader}/root/dev/shm/modem_downloads")).exists()
    assert machine.run("systemctl", "is-system-running", check=False).stdout == "running\n"


@pytest.fixture
def running(root: Root, package: Package) -> tuple[Machine, Installer, Gateway]:
    machine = root.boot()
    installer = Installer(root, machine)
    configure(root, CHIRPSTACK)
    gateway = Gateway(machine, root)
    installer.install(package.path)
    gateway.wait_connected()
    return machine, installer, gateway


Running = tuple[Machine, Installer, Gateway]


def test_an_upgrade_goes_on_with_the_new_program(running: Running, next_package: Path) -> None:
    machine, installer, gateway = running
    before = machine.pid()
    installer.install(next_package)
    gateway.wait_connected()
    assert machine.pid() not in (0, before)
    assert gateway.hears_an_uplink()
    assert "bridge is shutting down" in machine.log()


def test_an_upgrade_does_not_start_what_the_operator_has_stopped(
    running: Running, next_package: Path
) -> None:
    machine, installer, _ = running
    machine.run("systemctl", "stop", SERVICE)
    installer.install(next_package)
    assert machine.show("ActiveState") == {"ActiveState": "inactive"}
    assert machine.run("systemctl", "is-enabled", SERVICE).stdout == "enabled\n"


def test_an_upgrade_does_not_enable_what_the_operator_has_disabled(
    running: Running, next_package: Path
) -> None:
    machine, installer, _ = running
    machine.run("systemctl", "disable", "--now", SERVICE)
    installer.install(next_package)
    assert machine.run("systemctl", "is-enabled", SERVICE, check=False).stdout == "disabled\n"
    assert machine.pid() == 0


def test_a_removed_service_has_stopped_and_a_new_installation_starts_it(
    running: Running, package: Package
) -> None:
    machine, installer, gateway = running
    installer.remove()
    assert machine.show("ActiveState", "LoadState") == {"LoadState": "not-found", "ActiveState": "inactive"}
    assert "bridge is shutting down" in machine.log()
    installer.install(package.path)
    gateway.wait_connected()
