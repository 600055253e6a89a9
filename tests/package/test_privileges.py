"""The unit's limits: what the control plane and the gateway's programs do works within them, and no more."""

from __future__ import annotations

import json
import os
import re
import tarfile
import zipfile
from pathlib import Path
from typing import Callable

import pytest

from conftest import Package
from gateway import CONTROL_PLANE_UP, NATIVE, Gateway, Operations, add_lab, configure, install
from scratch import Machine, Root, wait_until

pytestmark = pytest.mark.native

SCRIPTS = "/usr/share/snv-mqtt-bridge/scripts"
LATE_ANSWERS = "api/v1/gateway/commands/async_response"
NOBODY = 65534


@pytest.fixture(scope="module")
def root(make_root: Callable[[], Root]) -> Root:
    return make_root()


@pytest.fixture(scope="module")
def machine(root: Root, package: Package) -> Machine:
    """A gateway with all planes up, and a port below 1024."""
    add_lab(root)
    root.write("/usr/lib/modules/6.1.0/modules.dep", "")
    root.write("/root/.ssh/id_rsa.pub", "ssh-rsa KEY gateway\n", 0o600)
    machine = root.boot()
    machine.run("systemctl", "enable", "--now", "lab-agent.service")
    machine.run("mknod", "/dev/modem", "c", "1", "3")
    install(machine, root, package.path)
    configure(root, NATIVE)
    machine.run("systemctl", "start", "snv-mqtt-bridge.service")
    machine.wait_for_log(CONTROL_PLANE_UP)
    return machine


@pytest.fixture
def operations(machine: Machine) -> Operations:
    return Operations(machine)


def test_the_agent_answers(operations: Operations) -> None:
    assert operations.ask("getCurrentBspVersion")["version"]


def test_a_port_below_1024_is_served(machine: Machine) -> None:
    told = machine.from_outside("curl", "-sS", "--max-time", "20", "http://127.0.0.1:80/", check=False).stdout
    assert told.startswith("@@public_key:")


def test_keys_are_made(root: Root) -> None:
    folder = root.path / "etc/snv-mqtt-bridge"
    assert "BEGIN RSA PRIVATE KEY" in (folder / "gateway.key").read_text()
    assert "BEGIN CERTIFICATE" in (folder / "gateway.crt").read_text()
    assert (folder / "gateway.key").stat().st_mode & 0o777 == 0o600


def test_the_public_key_is_told(operations: Operations) -> None:
    assert operations.ask("getPublicKey") == "ssh-rsa KEY gateway\n"


def test_firmware_is_unpacked_with_its_owners_and_modes(
    root: Root, operations: Operations, tmp_path: Path
) -> None:
    """Also a folder with the set-group-ID bit, as a build machine's are."""
    archive = tmp_path / "bsp.tar"
    with tarfile.open(archive, "w") as tar:
        for name, mode, owner in (("bsp", 0o2775, 33), ("bsp/image", 0o640, NOBODY)):
            member = tarfile.TarInfo(name)
            member.type = tarfile.DIRTYPE if name == "bsp" else tarfile.REGTYPE
            member.mode, member.uid, member.gid = mode, owner, owner
            tar.addfile(member)
    operations.run("upload", archive, "--decompress")
    found = {
        path.name: (path.stat().st_mode & 0o7777, path.stat().st_uid, path.stat().st_gid)
        for path in (root.path / "usr/lib/firmware/bsp", root.path / "usr/lib/firmware/bsp/image")
    }
    assert found == {"bsp": (0o2775, 33, 33), "image": (0o640, NOBODY, NOBODY)}


def test_a_zip_archive_is_unpacked(root: Root, operations: Operations, tmp_path: Path) -> None:
    archive = tmp_path / "fpga.zip"
    with zipfile.ZipFile(archive, "w") as content:
        content.writestr("gpio-fpga/image", "gates")
    operations.run("upload", archive, "--decompress")
    assert (root.path / "usr/lib/firmware/gpio-fpga/image").read_text() == "gates"


def test_a_key_takes_its_place(root: Root, operations: Operations, tmp_path: Path) -> None:
    key = tmp_path / "bstn-cups.key"
    key.write_text("Authorization: secret")
    operations.run("upload", key)
    placed = root.path / "etc/bstn/cups.key"
    assert (placed.read_text(), placed.stat().st_mode & 0o777) == ("Authorization: secret", 0o600)


def test_a_fetched_file_replaces_one_of_another_user(
    root: Root, operations: Operations, tmp_path: Path
) -> None:
    source = tmp_path / "mqtt-gateway.conf"
    source.write_text("new")
    target = root.path / "etc/default/mqtt-gateway.conf"
    target.write_text("old")
    target.chmod(0o400)
    os.chown(target, NOBODY, NOBODY)
    operations.run("fetch", "config/mqtt-gateway.conf", source)
    assert target.read_text() == "new"


def test_logs_of_other_users_are_linked_and_streamed(
    root: Root, operations: Operations, tmp_path: Path
) -> None:
    log = root.path / "var/log/forwarder.log"
    log.write_text("a line\n")
    log.chmod(0o600)
    os.chown(log, NOBODY, NOBODY)
    operations.run("logs", tmp_path)
    assert (tmp_path / "forwarder.log").read_text() == "a line\n"


def test_a_configuration_is_carried_out_by_the_programs(
    root: Root, operations: Operations, tmp_path: Path
) -> None:
    document = tmp_path / "document.json"
    document.write_text(json.dumps({"upgradeServer": {"ipkFeedURL": {"url": "https://feed.example/v5"}}}))
    report = json.loads(operations.run("configure", document))
    assert report["content"]["upgradeServer"] == {"ipkFeedURL": {"url": "https://feed.example/v5"}}
    calls = root.path / "var/lib/gateway-configuration/calls"
    wait_until(lambda: "commit" in calls.read_text(), "the commit program has run")


def test_an_upgrade_is_scheduled_by_the_utility(root: Root, operations: Operations) -> None:
    folder = root.path / "var/lib/dist-upgrade"
    folder.mkdir()
    (folder / "available").write_text("3.4.0 3.5.1")
    (folder / "plan").write_text("ok\n")
    told = operations.run("upgrade", "--in", "1s")
    assert "INSTALLED" in told
    assert "-U" in (folder / "calls").read_text()


# ---- scripts ----

# What a script of the gateway's may do, and what it may not. One line a row: its name and a command.
ALLOWED = {
    "ping": "ping -c 1 -W 5 127.0.0.1",
    "configuration": "echo changed >/etc/other-program.conf",
    "data": "echo changed >/var/lib/other-program",
    "another user": "su nobody -s /bin/sh -c 'test $(id -u) = 65534'",
    "a signal": "kill -HUP $(systemctl show --property MainPID --value other-user.service)",
    "interfaces": "ip address add 127.0.1.1/32 dev lo",
    "settings of the network": "sysctl --quiet net.ipv4.ip_forward=1",
    "log of the kernel": "dmesg",
    "other processes": "ps -e | grep -q mosquitto",
    # As an interpreter that compiles does: mmap, readable, writable and executable.
    "memory for compiled code": "perl -e 'exit !(syscall(9, 0, 4096, 7, 0x22, -1, 0) > 0)'",
    "services": "systemctl restart other-user.service",
    "a service with all rights": "systemd-run --quiet --wait sh -c 'echo changed >/usr/lib/new-program'",
    "devices": "echo AT >/dev/modem",
}
FORBIDDEN = {
    "programs of the system": "echo changed >/usr/lib/program",
    "homes": "echo changed >/root/file",
    "mounts": "mount -t tmpfs tmpfs /mnt",
    "the name of the host": "hostname other",
    "device nodes": "mknod /run/node b 7 0",
    "kernel modules": "test -e /usr/lib/modules/6.1.0",
    "namespaces": "unshare --net true",
    "control groups": "mkdir /sys/fs/cgroup/systemd/new",
    "real time": "chrt --fifo 1 true",
    "the root": "chroot / true",
}


def run_script(machine: Machine, root: Root, operations: Operations, name: str, lines: str) -> str:
    """What it printed; the late answer says that it ended with 0."""
    root.write(f"{SCRIPTS}/{name}", f"#!/bin/sh\n{lines}", 0o644)
    listener = Gateway(machine, root).listen(LATE_ANSWERS)
    try:
        operations.ask("fopsExecuteStart", path=f"scripts/{name}", exeToken="")
        listener.wait_for('"response"')
        assert '"status":"ok"' in listener.text(), listener.text()
    finally:
        listener.close()
    return next((root.path / "var/lib/logs").glob(f"*-{name}.txt")).read_text()


def outcomes(rows: dict[str, str]) -> str:
    return "".join(
        f"if ({command}) >/tmp/words 2>&1; then echo '+ {name}'; else echo '- {name}'; cat /tmp/words; fi\n"
        for name, command in rows.items()
    )


def test_a_script_can_do_what_a_gateway_needs(machine: Machine, root: Root, operations: Operations) -> None:
    other = "[Service]\nUser=nobody\nExecStart=/bin/sh -c 'trap : HUP; while :; do sleep 1; done'\n"
    root.write("/etc/systemd/system/other-user.service", other)
    machine.run("systemctl", "start", "other-user.service")
    told = run_script(machine, root, operations, "needs.sh", outcomes(ALLOWED))
    assert re.findall(r"^\+ (.*)$", told, re.MULTILINE) == list(ALLOWED), told
    assert (root.path / "usr/lib/new-program").exists()


def test_a_script_cannot_do_more(machine: Machine, root: Root, operations: Operations) -> None:
    told = run_script(machine, root, operations, "more.sh", outcomes(FORBIDDEN))
    assert re.findall(r"^- (.*)$", told, re.MULTILINE) == list(FORBIDDEN), told


def test_what_is_forbidden_is_possible_outside(machine: Machine) -> None:
    """Or else the limits would not show in the test above."""
    told = machine.run("sh", "-c", outcomes(FORBIDDEN)).stdout
    assert re.findall(r"^\+ (.*)$", told, re.MULTILINE) == list(FORBIDDEN), told


def test_files_in_tmp_are_its_own(machine: Machine, root: Root) -> None:
    pipe = "snv_bridge.pipe"
    assert not (Path(f"/proc/{machine.leader}/root/tmp") / pipe).exists()
    private = Path(f"/proc/{machine.leader}/root").glob(
        "tmp/systemd-private-*-snv-mqtt-bridge.service-*/tmp/*"
    )
    assert pipe in {path.name for path in private}


def test_no_child_is_left_when_it_stops(machine: Machine, root: Root, operations: Operations) -> None:
    root.write(f"{SCRIPTS}/long.sh", "#!/bin/sh\nexec sleep 12345\n")
    operations.ask("fopsExecuteStart", path="scripts/long.sh", exeToken="")
    wait_until(lambda: "sleep 12345" in machine.run("ps", "-eo", "args").stdout, "the script runs")
    machine.run("systemctl", "stop", "snv-mqtt-bridge.service")
    assert machine.show("Result", "ExecMainStatus") == {"Result": "success", "ExecMainStatus": "0"}
    assert "sleep 12345" not in machine.run("ps", "-eo", "args").stdout
