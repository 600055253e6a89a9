"""The daemon of a package for another processor, in an emulator."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from conftest import Package
from contents import DOC
from gateway import PYTHON
from scratch import REPOSITORY, Daemon, run

pytestmark = pytest.mark.foreign

EMULATOR = ["qemu-arm-static", "-L", str(REPOSITORY / "build-armhf/emulated")]


@pytest.fixture
def network() -> Iterator[list[str]]:
    """A command line that enters a network with nothing but the loop."""
    holder = Daemon(["unshare", "--net", "--fork", "--kill-child", "sh", "-c",
                     "ip link set lo up && echo up && exec sleep infinity"])  # fmt: skip
    try:
        holder.wait_for("up")
        yield ["nsenter", f"--target={holder.child()}", "--net", "--"]
    finally:
        holder.close()


def test_it_is_of_its_processor(package: Package) -> None:
    assert package.architecture == "armhf"
    header = run("readelf", "--file-header", package.daemon).stdout
    assert "ELF32" in header and "hard-float ABI" in header
    assert ".symtab" not in run("readelf", "--sections", "--wide", package.daemon).stdout


def test_it_tells_its_version(package: Package) -> None:
    told = run(*EMULATOR, package.daemon, "--version").stdout
    assert told == f"snv_mqtt_bridge {package.field('Version')}\n"


def test_it_forwards_with_the_filled_in_example_and_stops(
    package: Package, network: list[str], tmp_path: Path
) -> None:
    example = (package.content / DOC / "examples/bridge.toml").read_text()
    filled = example.replace('#url = "ssl://server.example:8883"', 'url = "tcp://127.0.0.1:1883"', 1)
    (tmp_path / "bridge.toml").write_text(filled.replace('#type = "sarnivel"', 'type = "chirpstack"'))
    broker = Daemon([*network, "/usr/sbin/mosquitto", "-p", "1883", "-v"])
    bridge = Daemon([*network, *EMULATOR, str(package.daemon), "-c", str(tmp_path / "bridge.toml"), "-d"])
    started = [bridge, broker]
    try:
        broker.wait_for(" as gateway-17 ")
        listener = Daemon(
            [*network, *PYTHON, str(REPOSITORY / "tests/package/listen.py"), "gateway/+/event/up"]
        )
        started.insert(0, listener)
        listener.wait_for("subscribed")
        started.insert(0, Daemon([*network, *PYTHON, str(REPOSITORY / "lab/forwarder"), "--rate", "20"]))
        listener.wait_for("phyPayload")
        assert bridge.stop() == 0, bridge.text()
    finally:
        for process in started:
            process.close()
