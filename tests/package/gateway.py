"""A scratch root as a gateway: the package, its configuration, an MQTT server, and a stand-in for the rest."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

from contents import DOC
from scratch import REPOSITORY, Daemon, Machine, Root, wait_until

CONFIGURATION = "/etc/snv-mqtt-bridge/bridge.toml"
EXAMPLE = DOC.removeprefix(".") + "/examples"
BROKER_LOG = "/var/log/mosquitto/mosquitto.log"
CONTROL_PLANE_UP = "ctrlplane is started"
PYTHON = ("/usr/bin/python3", "-B")
MAC = "0016C001FF1A2B3C"
LAB = "/opt/lab"

# Without a control plane.
CHIRPSTACK = f"""\
[ns]
url = "tcp://127.0.0.1:1883"
type = "chirpstack"

[generic]
client_id = "gateway-17"
gw_mac = "{MAC}"
"""

# The native dialect, whose server is the operations server as well.
NATIVE = (
    CHIRPSTACK.replace("chirpstack", "sarnivel")
    + """\
status_http_port = 80

[snmp]
community = "public"
mib_dir = "/opt/lab/mibs"

[security]
private_key = "/etc/snv-mqtt-bridge/gateway.key"
bridge_cert = "/etc/snv-mqtt-bridge/gateway.crt"
"""
)

AGENT_UNIT = f"""\
[Service]
ExecStart={LAB}/lab_agent --scenario {LAB}/scenarios/gateway.json --mibs {LAB}/mibs \
    --listen udp:127.0.0.1:161 --community public
[Install]
WantedBy=multi-user.target
"""


def configure(root: Root, text: str) -> None:
    root.write(CONFIGURATION, text, 0o600)


def install(machine: Machine, root: Root, package: Path) -> None:
    machine.run("dpkg", "--install", root.copy_in(package, "/srv/package.deb"))


def add_lab(root: Root) -> None:
    """The stand-in gateway's agent, its programs and its upgrade utility, at the places of the real ones."""
    root.copy_in(REPOSITORY / "build-package/lab/agent/lab_agent", f"{LAB}/lab_agent")
    root.copy_in(REPOSITORY / "lab/scenarios/gateway.json", f"{LAB}/scenarios/gateway.json")
    root.copy_in(REPOSITORY / "lab/mibs/SNV-GATEWAY-MIB.txt", f"{LAB}/mibs/SNV-GATEWAY-MIB.txt")
    for program in (REPOSITORY / "lab/scripts").iterdir():
        folder = "/usr/sbin" if program.name == "sarnivel-dist-upgrade" else "/usr/sbin/mqtt"
        root.copy_in(program, f"{folder}/{program.name}")
    root.write("/etc/systemd/system/lab-agent.service", AGENT_UNIT)


class Gateway:
    """What the MQTT server of a machine sees of the daemon."""

    def __init__(self, machine: Machine, root: Root) -> None:
        self._machine = machine
        self._log = root.path / BROKER_LOG.lstrip("/")
        self._seen = self._connections()

    def _connections(self) -> int:
        return self._log.read_text().count(" as gateway-17 ") if self._log.exists() else 0

    def wait_connected(self) -> None:
        """Once more than when this was last called, or made."""

        def look() -> bool:
            return self._connections() > self._seen

        try:
            wait_until(look, "the daemon is at the MQTT server")
        except AssertionError as late:
            raise AssertionError(f"{late}\n{self._machine.log()[-4000:]}") from None
        self._seen = self._connections()

    def hears_an_uplink(self) -> bool:
        """A simulated forwarder's uplink arrives at the MQTT server."""
        listener = self.listen("gateway/0016c001ff1a2b3c/event/up")
        forwarder = [*PYTHON, str(REPOSITORY / "lab/forwarder"), "--rate", "20"]
        sender = Daemon(self._machine.enter(*forwarder, namespaces=("--net",)))
        try:
            listener.wait_for("phyPayload")
            return True
        finally:
            sender.close()
            listener.close()

    def listen(self, topic: str) -> Daemon:
        """Subscribed; its log has the first message."""
        program = REPOSITORY / "tests/package/listen.py"
        listener = Daemon(self._machine.enter(*PYTHON, program, topic, namespaces=("--net",)))
        listener.wait_for("subscribed")
        return listener


class Operations:
    """The operations server's side, by the lab's command line."""

    def __init__(self, machine: Machine) -> None:
        self._machine = machine

    def run(self, *words: str | Path, check: bool = True) -> str:
        program = REPOSITORY / "lab/oam"
        done = self._machine.from_outside(*PYTHON, program, "--mac", MAC, *words, check=check)
        return done.stdout

    def ask(self, command: str, **params: Any) -> Any:
        """The `response` of the answer."""
        return json.loads(self.run(command, "--params", json.dumps(params)))["response"]
