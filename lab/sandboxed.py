"""Runs a daemon with empty and private folders in place of those that have fixed paths."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

GATEWAY_PROGRAMS = "/usr/sbin/mqtt"  # lab/scripts, inside
SANDBOX = Path(__file__).resolve().parent / "sandbox"


def _unshare() -> list[str]:
    as_user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    return ["unshare", *as_user, "--mount", "--ipc", "--propagation", "private", "--"]


def sandboxed(work: Path, binary: Path, arguments: list[str]) -> list[str]:
    """The command line that runs the daemon in its own mount and IPC namespaces, as the same process; it
    starts in `work`, which it sees at its own path."""
    return [*_unshare(), "/bin/sh", str(SANDBOX), str(work), str(binary), *arguments]


def has_namespaces() -> bool:
    """A container may forbid them."""
    probe = [*_unshare(), "mount", "-t", "tmpfs", "tmpfs", "/tmp"]
    return subprocess.run(probe, capture_output=True, check=False).returncode == 0
