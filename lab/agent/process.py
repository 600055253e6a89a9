"""The stand-in gateway's agent as a child process, with its control port."""

from __future__ import annotations

import json
import signal
import socket
import subprocess
import threading
from pathlib import Path
from typing import Any, Optional

SCENARIOS = Path(__file__).resolve().parent.parent / "scenarios"
MIBS = Path(__file__).resolve().parent.parent / "mibs"

READY_WITHIN = 20.0
ANSWER_WITHIN = 20.0
END_WITHIN = 20.0


class Refused(Exception):
    """The control port did not do what it was told."""


def agent_command(
    binary: Path,
    address: str,
    scenario: Path = SCENARIOS / "gateway.json",
    trap_to: str = "",
    community: str = "public",
) -> list[str]:
    command = [str(binary), "--scenario", str(scenario), "--mibs", str(MIBS), "--listen", address]
    return command + ["--community", community, "--trap-to", trap_to]


def control_port_of(line: str | bytes) -> int:
    """The first line of a running agent tells it."""
    return int(json.loads(line)["control"])


class AgentControl:
    """The control port of a running agent."""

    def __init__(self, control_port: int) -> None:
        self.control_port = control_port
        self._lock = threading.Lock()
        self._socket = socket.create_connection(("127.0.0.1", control_port), timeout=ANSWER_WITHIN)
        self._lines = self._socket.makefile("r", encoding="utf-8", errors="replace")

    def hang_up(self) -> None:
        self._lines.close()
        self._socket.close()

    def ask(self, line: dict[str, Any]) -> dict[str, Any]:
        """One line of the control port and its answer, also a refusal."""
        with self._lock:
            self._socket.sendall(json.dumps(line).encode() + b"\n")
            answer: dict[str, Any] = json.loads(self._lines.readline())
            return answer

    def do(self, line: dict[str, Any]) -> dict[str, Any]:
        answer = self.ask(line)
        if not answer["ok"]:
            raise Refused(answer["error"])
        return answer

    def get(self, name: str) -> Any:
        return self.do({"get": name})["values"][name]

    def set(self, values: dict[str, Any]) -> None:
        self.do({"set": values})

    def rows(self, table: str) -> list[dict[str, Any]]:
        rows: list[dict[str, Any]] = self.do({"table": table})["rows"]
        return rows

    def sets(self) -> list[dict[str, Any]]:
        """Every SET since the log was cleared: "variables" as [name, value] pairs, and the "outcome"."""
        log: list[dict[str, Any]] = self.do({"log": "sets"})["log"]
        return log

    def written(self) -> list[list[Any]]:
        """The pairs of all SETs that were done, in their order."""
        return [pair for entry in self.sets() if entry["outcome"] == "done" for pair in entry["variables"]]

    def requests(self) -> list[dict[str, Any]]:
        log: list[dict[str, Any]] = self.do({"log": "all"})["log"]
        return log

    def clear_log(self) -> None:
        self.do({"log": "sets", "clear": True})

    def fault(self, name: str, **how: Any) -> None:
        self.do({"faults": {name: how}})

    def clear_faults(self) -> None:
        self.do({"clear_faults": True})

    def silence(self, silent: bool = True) -> None:
        self.do({"silent": silent})

    def restore(self, scenario: Path = SCENARIOS / "gateway.json") -> None:
        """Values, rows and behaviours as the scenario tells them, no fault, and an empty log. What the
        scenario does not name stays."""
        told = json.loads(scenario.read_text())
        self.silence(False)
        self.clear_faults()
        self.set(told["scalars"])
        for table, content in told["tables"].items():
            self.do({"put_rows": table, "rows": content["rows"]})
        self.do({"rules": told["rules"]})
        self.clear_log()

    def problems(self) -> list[str]:
        problems: list[str] = self.do({"problems": True})["problems"]
        return problems

    def is_idle(self) -> bool:
        return bool(self.do({"waiting": True})["waiting"] == 0)


class LabAgent(AgentControl):
    """Runs from the constructor, which returns once the agent serves, to `stop` or `kill`. What it complains
    of goes to `errors`."""

    def __init__(
        self,
        binary: Path,
        port: int,
        errors: Path,
        scenario: Path = SCENARIOS / "gateway.json",
        trap_to: str = "",
        community: str = "public",
        cwd: Optional[Path] = None,
    ) -> None:
        self.address = f"udp:127.0.0.1:{port}"
        self.errors = errors
        command = agent_command(binary, self.address, scenario, trap_to, community)
        with errors.open("ab") as sink:
            self.process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=sink, cwd=cwd
            )
        try:
            super().__init__(self._wait_ready())
        except BaseException:
            self.kill()
            raise

    def _wait_ready(self) -> int:
        """The line that tells the ports; an agent that hangs before it is killed, which ends the read."""
        timer = threading.Timer(READY_WITHIN, self.process.kill)
        timer.start()
        assert self.process.stdout
        line = self.process.stdout.readline()
        timer.cancel()
        if not line:
            raise AssertionError(f"the agent does not start: {self.errors.read_text(errors='replace')}")
        return control_port_of(line)

    def stop(self) -> int:
        """Ends the agent as a person would, and returns its status."""
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(END_WITHIN)
        self._release()
        return status

    def kill(self) -> None:
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self._release()

    def _release(self) -> None:
        if self.process.stdout:
            self.process.stdout.close()
        if hasattr(self, "_socket"):
            self.hang_up()

    def close(self) -> None:
        self.kill()
