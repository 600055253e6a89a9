"""The Release build of the daemon and of its agent, in build/."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

from lab.demo.stop import Interrupted, StopRequest


class BuildFailed(Exception):
    pass


@dataclass(frozen=True)
class Programs:
    daemon: Path
    agent: Path


def _run(command: list[str], stop: StopRequest, quiet: bool = False) -> None:
    """Runs in a session of its own, so that a stop signal ends the compilers with the build."""
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL if quiet else sys.stderr,
        start_new_session=True,
    )
    while process.poll() is None:
        try:
            process.wait(0.1)
        except subprocess.TimeoutExpired:
            if stop.number:
                os.killpg(process.pid, signal.SIGTERM)
                process.wait()
    if stop.number:
        raise Interrupted
    if process.returncode != 0:
        raise BuildFailed(f"{' '.join(command)}: status {process.returncode}")


def build_programs(root: Path, stop: StopRequest) -> Programs:
    folder = root / "build"
    fresh = not (folder / "CMakeCache.txt").exists()
    configure = ["cmake", "-S", str(root), "-B", str(folder), "-DCMAKE_BUILD_TYPE=Release"]
    configure += ["-DBRIDGE_SANITIZE=", "-DBRIDGE_COVERAGE=OFF"]
    if fresh:
        # The demo's own packages do without the test libraries.
        configure += ["-G", "Ninja", "-DBRIDGE_TESTS=OFF"]
    _run(configure, stop, quiet=not fresh)
    build = ["cmake", "--build", str(folder), "--target", "snv_mqtt_bridge", "lab_agent"]
    _run(build if fresh else [*build, "--", "--quiet"], stop)
    return Programs(folder / "snv_mqtt_bridge", folder / "lab" / "agent" / "lab_agent")
