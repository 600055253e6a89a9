"""A private mosquitto on a port of its own."""
import getpass
import signal
import socket
import subprocess
from pathlib import Path
from typing import Optional

from .ports import free_port
from .waiting import wait_until


class Mosquitto:
    """Can be stopped and started again on the same port, killed, or held by SIGSTOP. `extra` are further
    lines of its configuration; `users` makes names and passwords required."""

    def __init__(
        self, work: Path, users: Optional[dict[str, str]] = None, extra: str = "", start: bool = True
    ) -> None:
        self.work = work
        self.users = users
        self.extra = extra
        self.process: Optional[subprocess.Popen[bytes]] = None
        work.mkdir(parents=True, exist_ok=True)
        self.log_path = work / "mosquitto.log"
        self.log_path.touch()
        self.port = free_port()
        if start:
            self.start_on_a_free_port()

    @property
    def url(self) -> str:
        return f"tcp://127.0.0.1:{self.port}"

    def _write_config(self) -> Path:
        lines = [
            f"listener {self.port} 127.0.0.1",
            f"user {getpass.getuser()}",
            "log_dest stderr",
            "log_type all",
            "connection_messages true",
            "set_tcp_nodelay true",
            "persistence false",
        ]
        if self.users is None:
            lines.append("allow_anonymous true")
        else:
            passwords = self.work / "passwords"
            passwords.write_text("".join(f"{name}:{word}\n" for name, word in self.users.items()))
            passwords.chmod(0o600)
            subprocess.run(["mosquitto_passwd", "-U", str(passwords)], check=True, capture_output=True)
            lines += ["allow_anonymous false", f"password_file {passwords}"]
        path = self.work / "mosquitto.conf"
        path.write_text("\n".join([*lines, self.extra, ""]))
        return path

    def start_on_a_free_port(self) -> None:
        for _ in range(5):
            try:
                self.start()
                return
            except AssertionError:
                self.port = free_port()
        raise AssertionError(f"mosquitto does not start:\n{self.log_text()}")

    def start(self) -> None:
        config = self._write_config()
        with self.log_path.open("ab") as log:
            self.process = subprocess.Popen(
                ["mosquitto", "-c", str(config)], stdin=subprocess.DEVNULL, stdout=log, stderr=log
            )
        wait_until(self._answers, "mosquitto listens")

    def _answers(self) -> bool:
        assert self.process and self.process.poll() is None, f"mosquitto ended:\n{self.log_text()}"
        try:
            socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
            return True
        except OSError:
            return False

    def _signal(self, number: int) -> None:
        assert self.process
        self.process.send_signal(number)

    def stop(self) -> None:
        self._signal(signal.SIGTERM)
        assert self.process
        self.process.wait()

    def kill(self) -> None:
        self._signal(signal.SIGKILL)
        assert self.process
        self.process.wait()

    def pause(self) -> None:
        self._signal(signal.SIGSTOP)

    def resume(self) -> None:
        self._signal(signal.SIGCONT)

    def log_text(self) -> str:
        return self.log_path.read_text(errors="replace")

    def connections(self, client_id: str) -> list[str]:
        """The lines of the log on clients that came with this identifier."""
        return [
            line
            for line in self.log_text().splitlines()
            if "New client connected" in line and f" as {client_id} " in line
        ]

    def close(self) -> None:
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
