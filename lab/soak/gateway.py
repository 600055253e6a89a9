"""The gateway: the daemon in its own network, folders and clock, and the agent beside it."""

from __future__ import annotations

import os
import re
import resource
import signal
import socket
import subprocess
import time
from dataclasses import dataclass
from datetime import datetime
from pathlib import Path
from typing import Callable

from lab.agent.process import MIBS, LabAgent, Refused
from lab.demo.build import Programs
from lab.demo.children import Child
from lab.sandboxed import GATEWAY_PROGRAMS, sandboxed
from lab.soak.network import Network
from lab.soak.plan import Plan
from lab.soak.servers import MqttServer

MAC = "0016c001ff1a2b3c"
UDP_PORT, STATUS_PORT, AGENT_PORT, TRAP_PORT = 1780, 8080, 1161, 1162
STATE = "/var/lib/sarnivel-mqtt-bridge"
KEEPALIVE_SECONDS = 10
_FAKETIME = "/usr/lib/*/faketime/libfaketimeMT.so.1"
_NAMESPACES = ("--mount", "--ipc")
_UPGRADES = "/var/lib/dist-upgrade"
DISKS = ("/var", "/tmp", "/dev/shm")
_DISK_KIB = 32 * 1024  # of each
_LINE = re.compile(r"(\d{4}-\d\d-\d\d [\d:.]{12}\S+) \[\d+\]\[(\w+) *\] (\S+?):\d+ (.*)")
_DATE = "%Y-%m-%d %H:%M:%S.%f%z"

_CONFIG = """\
[ns]
url = "{ns}"
type = "{type}"

[oam]
url = "{oam}"

[generic]
client_id = "soak-gateway"
gw_mac = "{mac}"
semtech_udp_listen_port = {udp_port}
status_http_port = {status_port}
state_dir = "{state}/"
mqtt_keepalive_interval = {keepalive}
gw_events_interval = {events}

[security]
private_key = "/var/lib/gateway.key"
bridge_cert = "/var/lib/gateway.crt"

[rev_ssh]
timeout = 60

[performance_management]
battery_reporting_period_mins = 1

[snmp]
agent_addr = "udp:127.0.0.1:{agent_port}"
trap_transport = "udp:127.0.0.1:{trap_port}"
community = "public"
mib_dir = "{mibs}"
"""


@dataclass(frozen=True)
class LogLine:
    at: float  # monotonic seconds
    level: str
    file: str
    text: str
    beside: float = 0.0  # seconds of its time of day beside the right one


@dataclass(frozen=True)
class Resources:
    threads: int
    descriptors: int
    children: int
    uncollected: int
    others: int  # that its children began
    queues: int
    anonymous_kib: int
    resident_kib: int


def _clock_library() -> str:
    found = sorted(Path("/").glob(_FAKETIME.lstrip("/")))
    if not found:
        raise FileNotFoundError("libfaketime is not installed")
    return str(found[0])


def _preloaded(binary: Path) -> str:
    """A sanitizer's library would have to come first, in the gateway's programs too, which it makes hang: a daemon that
    has one keeps the machine's clock."""
    used = subprocess.run(["ldd", str(binary)], capture_output=True, text=True, check=False).stdout
    return "" if re.search(r"lib[at]san", used) else _clock_library()


def _environment(binary: Path, folder: Path, clock: Path) -> dict[str, str]:
    return {
        "PATH": f"{GATEWAY_PROGRAMS}:/usr/sbin:/usr/bin:/sbin:/bin",
        "HOME": str(folder),
        "LC_ALL": "C",
        "SNMPCONFPATH": os.devnull,
        "MIBS": "",
        "SANDBOX_GATEWAY": "yes",
        "SSL_CERT_FILE": str(folder / "trusted.crt"),
        "SANDBOX_PRELOAD": _preloaded(binary),
        # The list of leaks that are not the daemon's own, for a build that looks for leaks.
        "ASAN_OPTIONS": "fast_unwind_on_malloc=0",
        "LSAN_OPTIONS": "suppressions=/run/leaks:print_suppressions=0",
        "FAKETIME_TIMESTAMP_FILE": str(clock),
        "FAKETIME_CACHE_DURATION": "1",
        "FAKETIME_DONT_FAKE_MONOTONIC": "1",
    }


class Gateway:
    """`on_line` is called on a thread of its own for each line of the log."""

    def __init__(
        self,
        programs: Programs,
        folder: Path,
        network: Network,
        plan: Plan,
        on_line: Callable[[LogLine], None],
    ) -> None:
        self._programs = programs
        self._folder = folder
        self._network = network
        self._plan = plan
        self._on_line = on_line
        self._clock = folder / "clock"
        self._log = (folder / "daemon.log").open("w", encoding="utf-8")
        self._daemon: Child | None = None
        self.agent: LabAgent | None = None

    # The agent.

    def start_agent(self) -> None:
        traps = f"udp:127.0.0.1:{TRAP_PORT}"
        self.agent = self._network.in_gateway(
            lambda: LabAgent(self._programs.agent, AGENT_PORT, self._folder / "agent.log", trap_to=traps)
        )

    def kill_agent(self) -> None:
        assert self.agent
        self.agent.kill()
        self.agent = None

    # The daemon.

    def start_daemon(self, ns: MqttServer, oam: MqttServer) -> None:
        self.set_clock(0)
        config = self._folder / "gateway.toml"
        config.write_text(
            _CONFIG.format(
                ns=ns.url, oam=oam.url, type=self._plan.dialect.type, mac=MAC, udp_port=UDP_PORT,
                status_port=STATUS_PORT, state=STATE, keepalive=KEEPALIVE_SECONDS,
                events=self._plan.events_seconds, agent_port=AGENT_PORT, trap_port=TRAP_PORT, mibs=MIBS,
            )  # fmt: skip
        )
        command = sandboxed(self._folder, self._programs.daemon, ["--stderr", "--config", str(config)])
        environment = _environment(self._programs.daemon, self._folder, self._clock)
        self._daemon = self._network.in_gateway(
            lambda: Child("the daemon", command, self._take_line, environment)
        )
        self._wait_for_folders()
        for folder in DISKS:
            self.inside("mount", "-o", f"remount,size={_DISK_KIB}k", folder)
        self.inside("sh", "-c", "mkdir /run/queues && mount -t mqueue queues /run/queues")

    def _take_line(self, line: str) -> None:
        at = time.monotonic()
        self._log.write(f"{at:.3f} {line}\n")
        if found := _LINE.search(line):
            beside = datetime.strptime(found[1], _DATE).timestamp() - time.time()
            self._on_line(LogLine(at, found[2], found[3], found[4], beside))
        else:
            self._on_line(LogLine(at, "", "", line))

    @property
    def pid(self) -> int:
        assert self._daemon
        return self._daemon.pid

    def fate(self) -> str | None:
        """How the daemon ended, or nothing while it runs."""
        assert self._daemon
        return None if self._daemon.status() is None else self._daemon.fate()

    def stop_daemon(self, seconds: float) -> str:
        assert self._daemon
        self._daemon.stop(signal.SIGUSR2, seconds)
        return self._daemon.fate()

    def close(self) -> None:
        if self._daemon and self._daemon.status() is None:
            self._daemon.stop(signal.SIGKILL, 5.0)
        if self.agent:
            self.agent.kill()
        self._log.close()

    # What is around it.

    def inside(self, *command: str) -> subprocess.CompletedProcess[str]:
        """A command in the daemon's folders and queues. Raises OSError when it fails."""
        enter = ["nsenter", "-t", str(self.pid), *_NAMESPACES, "--", *command]
        result = subprocess.run(enter, capture_output=True, text=True, check=False)
        if result.returncode != 0:
            raise OSError(f"{' '.join(command)}: {result.stderr}")
        return result

    def _wait_for_folders(self) -> None:
        """The process that becomes the daemon makes them first; the list of leaks lies in the last one."""
        end = time.monotonic() + 10.0
        while self.read("/run/leaks") is None:
            if time.monotonic() > end:
                raise OSError("the daemon's folders are not made")
            time.sleep(0.05)

    def set_clock(self, seconds: float) -> None:
        """Its time of day beside the right one, for all that look from now on; within a second."""
        new = self._clock.with_suffix(".new")
        new.write_text(f"{seconds:+.0f}\n")
        new.replace(self._clock)

    def set_descriptor_limit(self, limit: int) -> None:
        _, hard = resource.prlimit(self.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (min(limit, hard), hard))

    def descriptor_limit(self) -> int:
        return resource.prlimit(self.pid, resource.RLIMIT_NOFILE)[0]

    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def children(self) -> list[int]:
        """Those that run."""
        return [child for child, state in self._children() if state != "Z"]

    def _children(self) -> list[tuple[int, str]]:
        found = []
        for task in os.listdir(f"/proc/{self.pid}/task"):
            try:
                pids = Path(f"/proc/{self.pid}/task/{task}/children").read_text().split()
            except OSError:
                continue  # a thread that has just ended
            for pid in pids:
                try:
                    state = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]
                except OSError:
                    continue
                found.append((int(pid), state))
        return found

    def _in_its_folders(self) -> set[int]:
        """The daemon and what it has begun, directly or not: nobody else is in its mount namespace."""
        own = os.readlink(f"/proc/{self.pid}/ns/mnt")
        found = set()
        for entry in os.listdir("/proc"):
            try:
                if entry.isdigit() and os.readlink(f"/proc/{entry}/ns/mnt") == own:
                    found.add(int(entry))
            except OSError:
                continue  # it has just ended
        return found

    def resources(self) -> Resources:
        status = Path(f"/proc/{self.pid}/status").read_text()
        sizes = dict(re.findall(r"^(\w+):\s+(\d+)", status, re.MULTILINE))
        children = self._children()
        return Resources(
            threads=int(sizes["Threads"]),
            descriptors=self.descriptors(),
            children=sum(state != "Z" for _, state in children),
            uncollected=sum(state == "Z" for _, state in children),
            others=len(self._in_its_folders() - {self.pid, *(child for child, _ in children)}),
            queues=len(self.inside("ls", "/run/queues").stdout.split()),
            anonymous_kib=int(sizes["RssAnon"]),
            resident_kib=int(sizes["VmRSS"]),
        )

    def read(self, path: str) -> bytes | None:
        """A file of the daemon's, or nothing."""
        try:
            return Path(f"/proc/{self.pid}/root{path}").read_bytes()
        except OSError:
            return None

    def write(self, path: str, content: bytes, mode: int) -> None:
        file = Path(f"/proc/{self.pid}/root{path}")
        file.write_bytes(content)
        file.chmod(mode)

    def renew_upgrade(self) -> None:
        """Its upgrade utility has something to install, and has done nothing yet."""
        self.inside(
            "sh",
            "-c",
            f"mkdir -p {_UPGRADES} && cd {_UPGRADES} && rm -f schedule requested calls && echo 3.4.0 3.5.1 >available",
        )

    def move_alarm(self, number: int, is_raised: bool) -> None:
        """Raises or clears one at the agent. Raises Refused or OSError when there is none."""
        if not self.agent:
            raise Refused("no agent")
        # With a severity, also where it clears one that was never raised: a row without it would end the table.
        self.agent.do(
            {"raise" if is_raised else "clear": "alarm", "id": number, "severity": 1, "text": "of the soak"}
        )

    def connect(self, kind: socket.SocketKind, port: int) -> socket.socket:
        """A socket of the gateway's network, to one of its ports."""

        def make() -> socket.socket:
            made = socket.socket(socket.AF_INET, kind)
            made.settimeout(5.0)
            made.connect(("127.0.0.1", port))
            return made

        return self._network.in_gateway(make)
