"""What a package holds."""

from __future__ import annotations

import gzip
import subprocess
from pathlib import Path

from scratch import run

DOC = "./usr/share/doc/snv-mqtt-bridge"


def listing(package: Path) -> dict[str, tuple[str, str]]:
    """Mode and owner of each path."""
    lines = run("dpkg-deb", "--contents", package).stdout.splitlines()
    return {path: (mode, owner) for mode, owner, _, _, _, path in (line.split(None, 5) for line in lines)}


def needed_libraries(program: Path) -> list[str]:
    lines = run("readelf", "--dynamic", "--wide", program).stdout.splitlines()
    return [line.split("[")[1].rstrip("]") for line in lines if "(NEEDED)" in line]


def rendered(page: Path) -> str:
    """The manual page as a reader sees it; a complaint of the formatter is a failure."""
    environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "MANWIDTH": "110"}
    command = ["man", "--warnings=w", "--encoding=UTF-8", "--local-file", str(page)]
    done = subprocess.run(command, env=environment, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def plain_bytes(path: Path) -> bytes:
    content = path.read_bytes()
    return gzip.decompress(content) if path.suffix == ".gz" else content
