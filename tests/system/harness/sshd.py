"""The lab's OpenSSH server, and a client for it."""
import os
import signal
import subprocess
import sys
from pathlib import Path
from typing import Optional

from .bridge import REPOSITORY
from .log_reader import LogReader
from .ports import free_port

sys.path.append(str(REPOSITORY))

from lab.sshd import PASSWORD, USER, USER_ID, prepare_server  # noqa: E402

__all__ = ["PASSWORD", "USER", "USER_ID", "SshServer", "client_command", "run_at"]


class SshServer:
    """Starts at once; its lines on standard error are in `log`."""

    def __init__(self, work: Path, port: Optional[int] = None) -> None:
        self.work = work
        self.port = free_port() if port is None else port
        self.process = subprocess.Popen(
            prepare_server(work, self.port),
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        assert self.process.stderr
        self.log = LogReader(self.process.stderr)
        self.log.wait_for("Server listening on 127.0.0.1")

    def _listener(self) -> int:
        """The first process of the namespace, with which all others of it end."""
        pid = self.process.pid
        return int(Path(f"/proc/{pid}/task/{pid}/children").read_text())

    def kill(self) -> None:
        """The server and its connections end at once."""
        os.kill(self._listener(), signal.SIGKILL)
        self.process.wait()
        self.log.join()

    def close(self) -> None:
        if self.process.poll() is None:
            self.kill()


def client_command(port: int, *arguments: str) -> list[str]:
    """The ssh client, for a login at a port of the loopback."""
    options = (
        "UserKnownHostsFile=/dev/null",
        "GlobalKnownHostsFile=/dev/null",
        "StrictHostKeyChecking=no",
        "NumberOfPasswordPrompts=1",
        "LogLevel=ERROR",
    )
    given = [f"-o{option}" for option in options]
    return ["ssh", "-F", "none", *given, "-p", str(port), *arguments, f"{USER}@127.0.0.1"]


def client_environment(work: Path) -> dict[str, str]:
    """It is asked for the password by a program."""
    asker = work / "ask-password"
    asker.write_text(f"#!/bin/sh\necho '{PASSWORD}'\n")
    asker.chmod(0o700)
    return {"PATH": os.environ["PATH"], "SSH_ASKPASS": str(asker), "SSH_ASKPASS_REQUIRE": "force"}


def run_at(work: Path, port: int, command: str, timeout: float = 60) -> "subprocess.CompletedProcess[bytes]":
    return subprocess.run(
        [*client_command(port), command],
        env=client_environment(work),
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=timeout,
    )
