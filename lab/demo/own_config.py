"""The daemon on the user's own configuration, in the foreground."""

from __future__ import annotations

import signal
import subprocess
from pathlib import Path

from lab.demo.stop import StopRequest


def run_own_config(daemon: Path, config: str, stop: StopRequest) -> int:
    """Signals go on to the daemon: those that end a program in the form that it ends on, SIGUSR2."""
    process = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", "--", str(daemon), "-d", "-c", config],
        stdin=subprocess.DEVNULL,
        start_new_session=True,
    )
    signal.signal(signal.SIGUSR2, lambda number, _frame: process.send_signal(number))
    passed_on = 0
    while process.poll() is None:
        try:
            process.wait(0.05)
        except subprocess.TimeoutExpired:
            if stop.count > passed_on:
                process.send_signal(signal.SIGKILL if passed_on else signal.SIGUSR2)
                passed_on = stop.count
    status = process.returncode
    return status if status >= 0 else 128 - status
