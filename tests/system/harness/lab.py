"""The stand-in gateway's agent and the net-snmp tools, with nothing of the host's SNMP set-up."""
import os
import socket
import subprocess
import sys
from pathlib import Path
from typing import Any

from .bridge import BINARY, REPOSITORY
from .ports import free_port

sys.path.append(str(REPOSITORY))

from lab.agent.process import MIBS, SCENARIOS, LabAgent, Refused  # noqa: E402

__all__ = [
    "AGENT_BINARY",
    "MIBS",
    "MIB_FILE",
    "SCENARIOS",
    "LabAgent",
    "Refused",
    "SnmpTools",
    "TrapPort",
    "start_agent",
]

AGENT_BINARY = Path(os.environ.get("SNV_LAB_AGENT", BINARY.parent / "lab" / "agent" / "lab_agent")).resolve()
MIB_FILE = MIBS / "SNV-GATEWAY-MIB.txt"


def start_agent(work: Path, **options: Any) -> LabAgent:
    """An agent on a free port, in an empty folder of its own."""
    assert AGENT_BINARY.exists(), f"no agent at {AGENT_BINARY}: build it, or set SNV_LAB_AGENT"
    folder = work / "agent"
    folder.mkdir(parents=True, exist_ok=True)
    return LabAgent(AGENT_BINARY, free_port(), work / "agent.errors", cwd=folder, **options)


def environment(work: Path) -> dict[str, str]:
    nowhere = work / "no-snmp-configuration"
    nowhere.mkdir(parents=True, exist_ok=True)
    return {
        "PATH": "/usr/bin:/bin",
        "LC_ALL": "C",
        "SNMPCONFPATH": str(nowhere),
        "SNMP_PERSISTENT_DIR": str(nowhere),
        "MIBDIRS": str(MIBS),
        "MIBS": "ALL",
    }


class SnmpTools:
    """snmpget and its family against one agent, each call one request unless told otherwise."""

    def __init__(self, work: Path, address: str) -> None:
        self.address = address
        self.environment = environment(work)
        # The tools tell on their first run that they made a folder.
        self.run("snmptranslate", ".1")

    def run(self, *command: str) -> "subprocess.CompletedProcess[str]":
        return subprocess.run(
            command, env=self.environment, capture_output=True, text=True, errors="replace", timeout=60
        )

    def ask(
        self, tool: str, *arguments: str, community: str = "public", timeout: float = 10, retries: int = 0
    ) -> "subprocess.CompletedProcess[str]":
        """-Ir leaves it to the agent to judge a value."""
        options = ["-v2c", "-c", community, f"-t{timeout}", f"-r{retries}", "-OQs", "-Ir"]
        return self.run(tool, *options, self.address, *arguments)

    def get(self, *names: str) -> list[str]:
        """The lines "name = value" that snmpget prints."""
        done = self.ask("snmpget", *names)
        assert done.returncode == 0, done.stderr
        return done.stdout.splitlines()

    def get_next(self, *names: str) -> list[str]:
        done = self.ask("snmpgetnext", *names)
        assert done.returncode == 0, done.stderr
        return done.stdout.splitlines()

    def set(self, *parts: str) -> None:
        done = self.ask("snmpset", *parts)
        assert done.returncode == 0, done.stderr

    def set_error(self, *parts: str) -> str:
        """The reason for which the agent refuses."""
        done = self.ask("snmpset", *parts)
        assert done.returncode != 0, f"not refused: {done.stdout}"
        return done.stderr


class TrapPort:
    """Where notifications arrive, as datagrams."""

    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 0))
        self._socket.settimeout(20)
        self.address = f"udp:127.0.0.1:{self._socket.getsockname()[1]}"

    def receive(self) -> bytes:
        return self._socket.recv(65536)

    def close(self) -> None:
        self._socket.close()
