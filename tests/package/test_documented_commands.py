"""The commands of docs/installing.md, one after the other as an operator gives them."""

from __future__ import annotations

import re
import shutil
from pathlib import Path

import pytest

from conftest import Package
from gateway import Gateway
from scratch import REPOSITORY, Done, Machine, Root, run

pytestmark = pytest.mark.native

# In place of a person at an editor.
EDITOR = r"""#!/bin/sh
sed -i -e '0,/^#url = .*/s//url = "tcp:\/\/127.0.0.1:1883"/' -e 's/^#type = .*/type = "chirpstack"/' "$1"
"""


def blocks() -> list[str]:
    return re.findall(
        r"^```sh\n(.*?)^```$", (REPOSITORY / "docs/installing.md").read_text(), re.MULTILINE | re.DOTALL
    )


def give(machine: Machine, lines: str) -> Done:
    return machine.run("sh", "-e", "-c", f"cd /srv\nexport DEBIAN_FRONTEND=noninteractive\n{lines}")


def test_they_do_what_the_guide_says(root: Root, package: Package, tmp_path: Path) -> None:
    root.copy_in(package.path, f"/srv/{package.path.name}")
    shutil.copytree(package.content, tmp_path / "next", symlinks=True)
    control = tmp_path / "next/DEBIAN/control"
    control.write_text(control.read_text().replace("Version: 1.11.1", "Version: 1.11.2"))
    following = root.path / "srv" / package.path.name.replace("1.11.1", "1.11.2")
    run("dpkg-deb", "--root-owner-group", "--build", tmp_path / "next", following)
    root.write("/usr/bin/editor", EDITOR, 0o755)
    root.write("/etc/apt/apt.conf.d/90yes", 'APT::Get::Assume-Yes "true";\n')
    machine = root.boot()
    gateway = Gateway(machine, root)
    installing, looking, lowering, stopping = blocks()

    give(machine, installing)
    gateway.wait_connected()
    assert gateway.hears_an_uplink()
    told = give(machine, looking).stdout
    assert "Active: active (running)" in told and "dataplane is started" in told

    give(machine, lowering)
    gateway.wait_connected()
    assert gateway.hears_an_uplink()

    *before, remove, purge = stopping.splitlines()
    give(machine, "\n".join(before))
    assert machine.run("dpkg-query", "--show", "snv-mqtt-bridge").stdout == "snv-mqtt-bridge\t1.11.2\n"
    assert gateway.hears_an_uplink()
    give(machine, remove)
    assert (root.path / "etc/snv-mqtt-bridge/bridge.toml").exists()
    give(machine, purge)
    assert not (root.path / "etc/snv-mqtt-bridge").exists()
