"""The MQTT servers, which can be killed, stopped and started with another certificate."""

from __future__ import annotations

import os
import pwd
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

from lab.demo.children import Child, free_port
from lab.soak.network import SERVERS
from lab.sshd import prepare_server

_MOSQUITTO = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
_START_SECONDS = 20.0
_CONFIG = """\
listener {plain} 127.0.0.1
listener {secure} {address}
certfile {certificate}.crt
keyfile {certificate}.key
allow_anonymous true
user {user}
persistence false
set_tcp_nodelay true
max_queued_messages 0
log_dest stderr
log_type error
log_type warning
"""


def make_certificate(folder: Path, name: str) -> None:
    """Signs itself, so that whoever trusts it trusts no other."""
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
        + ["-days", "30", "-subj", f"/CN={SERVERS}", "-addext", f"subjectAltName=IP:{SERVERS}"]
        + ["-keyout", str(folder / f"{name}.key"), "-out", str(folder / f"{name}.crt")],
        check=True,
        capture_output=True,
    )


class MqttServer:
    """For the gateway it talks TLS; the lab's clients come over the loopback, where nothing is broken."""

    def __init__(self, name: str, folder: Path) -> None:
        self.name = name
        self._folder = folder
        self.plain_port = free_port(socket.SOCK_STREAM)
        self.port = free_port(socket.SOCK_STREAM)
        self._child: Child | None = None

    @property
    def url(self) -> str:
        return f"ssl://{SERVERS}:{self.port}"

    def start(self, certificate: str = "trusted") -> None:
        """Raises TimeoutError when it does not listen in time."""
        config = self._folder / f"{self.name}.conf"
        config.write_text(
            _CONFIG.format(
                plain=self.plain_port, secure=self.port, address=SERVERS,
                certificate=self._folder / certificate, user=pwd.getpwuid(os.geteuid()).pw_name,
            )  # fmt: skip
        )
        self._child = Child(f"MQTT server {self.name}", [_MOSQUITTO, "-c", str(config)], lambda _: None)
        end = time.monotonic() + _START_SECONDS
        while time.monotonic() < end:
            try:
                socket.create_connection(("127.0.0.1", self.plain_port), timeout=1.0).close()
                return
            except OSError:
                time.sleep(0.02)
        raise TimeoutError(f"MQTT server {self.name}: {' / '.join(self._child.tail)}")

    def signal(self, number: int) -> None:
        assert self._child
        self._child.signal(number)

    def kill(self) -> None:
        assert self._child
        self._child.stop(signal.SIGKILL, 10.0)

    def freeze(self) -> None:
        self.signal(signal.SIGSTOP)

    def thaw(self) -> None:
        self.signal(signal.SIGCONT)


class SshServer:
    """What tunnels lead to."""

    def __init__(self, folder: Path) -> None:
        self.port = free_port(socket.SOCK_STREAM)
        self.logins = 0
        command = prepare_server(folder / "sshd", self.port, SERVERS)
        self._child = Child("the SSH server", command, self._take_line)

    def _take_line(self, line: str) -> None:
        self.logins += line.startswith("Accepted password")

    def close(self) -> None:
        self._child.stop(signal.SIGKILL, 5.0)
