"""The processes of the demo. Each runs in a session of its own, so that Ctrl-C at the terminal reaches the
demo alone, which then ends them in order; and each dies with the demo, should that be killed outright."""

from __future__ import annotations

import signal
import socket
import subprocess
import threading
import time
from collections import deque
from typing import Callable


class Child:
    def __init__(
        self,
        name: str,
        command: list[str],
        on_line: Callable[[str], None],
        environment: dict[str, str] | None = None,
    ) -> None:
        self.name = name
        self.tail: deque[str] = deque(maxlen=15)
        self._on_line = on_line
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *command],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
            start_new_session=True,
            env=environment,
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        assert self._process.stdout is not None
        for line in self._process.stdout:
            self.tail.append(line.rstrip("\n"))
            self._on_line(line.rstrip("\n"))

    @property
    def pid(self) -> int:
        return self._process.pid

    def signal(self, number: int) -> None:
        self._process.send_signal(number)

    def status(self) -> int | None:
        return self._process.poll()

    def fate(self) -> str:
        """How it ended, in words."""
        status = self._process.returncode
        if status is None:
            return f"{self.name} runs"
        if status < 0:
            return f"{self.name} was ended by {signal.Signals(-status).name}"
        return f"{self.name} ended with status {status}"

    def _wait(self, seconds: float, hurry: Callable[[], bool]) -> None:
        end = time.monotonic() + seconds
        while time.monotonic() < end and not hurry():
            try:
                self._process.wait(0.02)
                return
            except subprocess.TimeoutExpired:
                pass

    def stop(self, number: int, seconds: float, hurry: Callable[[], bool] = lambda: False) -> int:
        """Asks by a signal until it ends, and kills when the time or the patience (`hurry`) is over."""
        deadline = time.monotonic() + seconds
        while self._process.poll() is None and time.monotonic() < deadline and not hurry():
            self._process.send_signal(number)
            self._wait(min(0.5, deadline - time.monotonic()), hurry)
        if self._process.poll() is None:
            self._process.kill()
        status = self._process.wait()
        self._reader.join(2.0)
        return status


class ChildFailed(Exception):
    def __init__(self, words: str, child: Child) -> None:
        super().__init__(words)
        self.child = child


def free_port(kind: socket.SocketKind) -> int:
    with socket.socket(socket.AF_INET, kind) as sock:
        sock.bind(("127.0.0.1", 0))
        return int(sock.getsockname()[1])
